// The root of the runtime: TObject and class references, methods and
// events, the exception base, and the value types every other unit shares
// (Extended, Currency, Comp, TDateTime, ShortString, TSet).
//
// Thread safety: class references are immutable once built; building them
// is lazy and thread-safe (function-local statics). TObject instances are
// not internally synchronised.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>
#include <exception>
#include <initializer_list>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "vel/Export.h"

namespace vel {

class TObject;
struct TMetaClass;
struct TTypeInfo;
struct TGUID;
struct TClassRtti;

// A class reference: the runtime's "class of TObject".
using TClass = const TMetaClass*;
using PTypeInfo = const TTypeInfo*;

using WideChar = char16_t;
using Extended = long double;  // 80-bit x87 format on x86-64
using Cardinal = uint32_t;

// ---------------------------------------------------------------------------
// Exceptions

// Base of every failure raised by the library. Carries the message text
// exactly as the runtime formats it.
class VEL_API Exception : public std::exception {
 public:
  explicit Exception(std::string Msg) : FMessage(std::move(Msg)) {}
  ~Exception() override;
  const char* what() const noexcept override { return FMessage.c_str(); }
  const std::string& Message() const noexcept { return FMessage; }
  void SetMessage(std::string Msg) { FMessage = std::move(Msg); }
  // The class name of the exception as the runtime would report it.
  virtual const char* ClassName() const noexcept { return "Exception"; }

 private:
  std::string FMessage;
};

// Declares an exception class E derived from Base with Base's constructors.
#define VEL_EXCEPTION(E, Base)                                           \
  class VEL_API E : public Base {                                        \
   public:                                                               \
    using Base::Base;                                                    \
    const char* ClassName() const noexcept override { return #E; }       \
  }

VEL_EXCEPTION(EAbort, Exception);
VEL_EXCEPTION(EAbstractError, Exception);
VEL_EXCEPTION(EAssertionFailed, Exception);
VEL_EXCEPTION(EConvertError, Exception);
VEL_EXCEPTION(EInvalidCast, Exception);
VEL_EXCEPTION(EInvalidOperation, Exception);
VEL_EXCEPTION(EInvalidPointer, Exception);
VEL_EXCEPTION(EOutOfMemory, Exception);
VEL_EXCEPTION(EIntError, Exception);
VEL_EXCEPTION(EDivByZero, EIntError);
VEL_EXCEPTION(ERangeError, EIntError);
VEL_EXCEPTION(EIntOverflow, EIntError);
VEL_EXCEPTION(EMathError, Exception);
VEL_EXCEPTION(EInvalidOp, EMathError);
VEL_EXCEPTION(EZeroDivide, EMathError);
VEL_EXCEPTION(EOverflow, EMathError);
VEL_EXCEPTION(EUnderflow, EMathError);
VEL_EXCEPTION(EInOutError, Exception);
VEL_EXCEPTION(EOSError, Exception);
VEL_EXCEPTION(EVariantError, Exception);
VEL_EXCEPTION(EPropertyError, Exception);
VEL_EXCEPTION(EPropertyConvertError, Exception);
VEL_EXCEPTION(EIntfCastError, Exception);
VEL_EXCEPTION(EClassNotFound, Exception);
VEL_EXCEPTION(EMethodNotFound, Exception);

// ---------------------------------------------------------------------------
// Value types

// Currency: a signed 64-bit integer holding the value times 10000.
struct Currency {
  int64_t Value = 0;  // scaled by 10000

  constexpr Currency() = default;
  Currency(double V) : Value(static_cast<int64_t>(std::llrint(V * 10000.0))) {}
  Currency(long double V) : Value(static_cast<int64_t>(std::llrintl(V * 10000.0L))) {}
  Currency(int V) : Value(static_cast<int64_t>(V) * 10000) {}
  static constexpr Currency FromScaled(int64_t Scaled) {
    Currency C;
    C.Value = Scaled;
    return C;
  }
  operator long double() const { return static_cast<long double>(Value) / 10000.0L; }
  friend constexpr bool operator==(Currency A, Currency B) { return A.Value == B.Value; }
  friend constexpr auto operator<=>(Currency A, Currency B) { return A.Value <=> B.Value; }
};

// Comp: a 64-bit integer held by the floating-point unit.
struct Comp {
  int64_t Value = 0;
  constexpr Comp() = default;
  constexpr Comp(int64_t V) : Value(V) {}
  Comp(long double V) : Value(static_cast<int64_t>(std::llrintl(V))) {}
  Comp(double V) : Value(static_cast<int64_t>(std::llrint(V))) {}
  operator long double() const { return static_cast<long double>(Value); }
  friend constexpr bool operator==(Comp A, Comp B) { return A.Value == B.Value; }
};

// TDateTime: days since 1899-12-30; the fraction is the time of day.
// A distinct type so that properties of this type are told from doubles.
struct TDateTime {
  double Value = 0.0;
  constexpr TDateTime() = default;
  constexpr TDateTime(double V) : Value(V) {}
  constexpr operator double() const { return Value; }
};

// ShortString: an 8-bit string of at most 255 characters; longer values are
// truncated on assignment, as the runtime does.
class ShortString {
 public:
  ShortString() = default;
  ShortString(const char* S) : FStr(S ? S : "") { Clip(); }
  ShortString(std::string S) : FStr(std::move(S)) { Clip(); }
  ShortString(std::string_view S) : FStr(S) { Clip(); }
  ShortString& operator=(std::string S) {
    FStr = std::move(S);
    Clip();
    return *this;
  }
  operator const std::string&() const { return FStr; }
  const std::string& str() const { return FStr; }
  size_t size() const { return FStr.size(); }
  bool empty() const { return FStr.empty(); }
  friend bool operator==(const ShortString& A, const ShortString& B) { return A.FStr == B.FStr; }
  friend bool operator==(const ShortString& A, std::string_view B) { return A.FStr == B; }
  friend bool operator==(const ShortString& A, const char* B) { return A.FStr == B; }

 private:
  void Clip() {
    if (FStr.size() > 255) FStr.resize(255);
  }
  std::string FStr;
};

// A set of a small enumeration (at most 32 values), held as a bit pattern
// in a 32-bit ordinal: bit n is value n.
template <class E>
class TSet {
  static_assert(std::is_enum_v<E>, "TSet needs an enumeration");

 public:
  using Element = E;
  constexpr TSet() = default;
  constexpr TSet(std::initializer_list<E> L) {
    for (E V : L) Include(V);
  }
  static constexpr TSet FromOrd(uint32_t Bits) {
    TSet S;
    S.FBits = Bits;
    return S;
  }
  constexpr uint32_t ToOrd() const { return FBits; }
  constexpr bool Contains(E V) const { return (FBits >> Bit(V)) & 1u; }
  constexpr TSet& Include(E V) {
    FBits |= 1u << Bit(V);
    return *this;
  }
  constexpr TSet& Exclude(E V) {
    FBits &= ~(1u << Bit(V));
    return *this;
  }
  constexpr bool Empty() const { return FBits == 0; }
  friend constexpr TSet operator+(TSet A, TSet B) { return FromOrd(A.FBits | B.FBits); }
  friend constexpr TSet operator-(TSet A, TSet B) { return FromOrd(A.FBits & ~B.FBits); }
  friend constexpr TSet operator*(TSet A, TSet B) { return FromOrd(A.FBits & B.FBits); }
  friend constexpr bool operator==(TSet A, TSet B) { return A.FBits == B.FBits; }

 private:
  static constexpr unsigned Bit(E V) { return static_cast<unsigned>(V) & 31u; }
  uint32_t FBits = 0;
};

// ---------------------------------------------------------------------------
// Methods and events

// A method pointer as the runtime holds it: a code address and the object
// it is bound to. Code points to a thunk taking the object as first
// argument; MethodThunk below makes one per member function.
struct TMethod {
  void* Code = nullptr;
  void* Data = nullptr;
  friend bool operator==(const TMethod& A, const TMethod& B) {
    return A.Code == B.Code && A.Data == B.Data;
  }
};

namespace detail {
template <auto M>
struct MethodThunk;
template <class C, class R, class... A, R (C::*M)(A...)>
struct MethodThunk<M> {
  using Class = C;
  using Signature = R(A...);
  static R Call(void* Self, A... Args) {
    return (static_cast<C*>(static_cast<TObject*>(Self))->*M)(std::forward<A>(Args)...);
  }
};
template <class C, class R, class... A, R (C::*M)(A...) const>
struct MethodThunk<M> {
  using Class = C;
  using Signature = R(A...);
  static R Call(void* Self, A... Args) {
    return (static_cast<const C*>(static_cast<TObject*>(Self))->*M)(std::forward<A>(Args)...);
  }
};
}  // namespace detail

// The code address under which member function M is known: the same
// address for every object, so it can be published by name.
template <auto M>
inline void* MethodCode() {
  return reinterpret_cast<void*>(&detail::MethodThunk<M>::Call);
}

// An event property type: a TMethod called with the signature Sig.
template <class Sig>
class TEvent;
template <class R, class... A>
class TEvent<R(A...)> : public TMethod {
 public:
  using Signature = R(A...);
  TEvent() = default;
  TEvent(const TMethod& M) : TMethod(M) {}
  TEvent(std::nullptr_t) {}

  // Binds member function M of object Obj: TEvent::Bind<&TForm::Click>(Form).
  template <auto M, class C>
  static TEvent Bind(C* Obj) {
    static_assert(std::is_same_v<typename detail::MethodThunk<M>::Signature, R(A...)>,
                  "handler signature does not match the event");
    TEvent E;
    E.Code = MethodCode<M>();
    E.Data = static_cast<TObject*>(Obj);
    return E;
  }
  bool Assigned() const { return Code != nullptr; }
  explicit operator bool() const { return Code != nullptr; }
  R operator()(A... Args) const {
    return reinterpret_cast<R (*)(void*, A...)>(Code)(Data, std::forward<A>(Args)...);
  }
};

using TNotifyEvent = TEvent<void(TObject*)>;

// ---------------------------------------------------------------------------
// Class references

// A published method: the name and the code address (see MethodCode).
struct TPublishedMethod {
  std::string Name;
  void* Code;
};

// A message handler: a message number and a thunk calling the handler
// method with the message record.
struct TMessageHandler {
  uint32_t Msg;
  void (*Call)(TObject* Self, void* Message);
};

// The class information the runtime keeps per class ("class of").
struct VEL_API TMetaClass {
  std::string Name;
  TClass Parent = nullptr;
  size_t InstanceSize = 0;
  // The plain root constructor (null for abstract classes).
  TObject* (*PlainCreate)() = nullptr;
  // The virtual constructor with one argument (owner of a component,
  // collection of a collection item); null when the class has none.
  TObject* (*VirtualCreate)(TObject* Arg) = nullptr;
  // Whether the class or an ancestor publishes run-time type information.
  bool HasRtti = false;
  TTypeInfo* TypeInfo = nullptr;   // always present: the class's own type info
  TClassRtti* Rtti = nullptr;      // published properties (see TypInfo.h)
  std::vector<TPublishedMethod> Methods;    // own published methods
  std::vector<TMessageHandler> Handlers;    // own handlers, sorted by Msg

  const std::string& ClassName() const { return Name; }
  TClass ClassParent() const { return Parent; }
  bool InheritsFrom(TClass Other) const {
    for (TClass C = this; C; C = C->Parent)
      if (C == Other) return true;
    return false;
  }
  bool ClassNameIs(std::string_view S) const;
  // Type information for published properties; null when the class
  // publishes none.
  PTypeInfo ClassInfo() const { return HasRtti ? TypeInfo : nullptr; }
  void* MethodAddress(std::string_view MethodName) const;
  std::string MethodName(void* Code) const;
  const TMessageHandler* FindHandler(uint32_t Msg) const;
  // The plain root constructor. Raises EAbstractError for abstract classes.
  TObject* Create() const;
  // The virtual constructor (TComponent::Create(Owner) and the like).
  // Falls back to the plain constructor when the class has none.
  TObject* CreateWith(TObject* Arg) const;
};

// The root of every class.
class VEL_API TObject {
 public:
  TObject() = default;
  virtual ~TObject();
  TObject(const TObject&) = delete;
  TObject& operator=(const TObject&) = delete;

  static TClass StaticClass();
  virtual TClass ClassType() const;

  const std::string& ClassName() const { return ClassType()->Name; }
  TClass ClassParent() const { return ClassType()->Parent; }
  bool InheritsFrom(TClass C) const { return ClassType()->InheritsFrom(C); }
  bool ClassNameIs(std::string_view S) const { return ClassType()->ClassNameIs(S); }
  PTypeInfo ClassInfo() const { return ClassType()->ClassInfo(); }
  void* MethodAddress(std::string_view Name) const { return ClassType()->MethodAddress(Name); }
  std::string MethodName(void* Code) const { return ClassType()->MethodName(Code); }

  // Calls the handler registered for the message number held in the first
  // 32 bits of Message, searching this class and its ancestors; calls
  // DefaultHandler when none is registered.
  virtual void Dispatch(void* Message);
  virtual void DefaultHandler(void* Message);

  // Looks IID up in the interfaces this object's class implements (see
  // VEL_INTERFACES in Com.h). On success stores the interface pointer,
  // with a reference added, in *Obj and returns true; otherwise returns
  // false and leaves *Obj alone. TObject implements no interface.
  virtual bool GetInterface(const TGUID& IID, void** Obj) {
    (void)IID;
    (void)Obj;
    return false;
  }
};

// Object tests in the runtime's style: Obj is T, Obj as T.
template <class T>
inline bool Is(const TObject* Obj) {
  return Obj && dynamic_cast<const T*>(Obj) != nullptr;
}
template <class T>
inline T* As(TObject* Obj) {
  if (!Obj) return nullptr;
  if (T* R = dynamic_cast<T*>(Obj)) return R;
  throw EInvalidCast("Invalid class typecast");
}
template <class T>
inline void FreeAndNil(T*& Obj) {
  T* P = Obj;
  Obj = nullptr;
  delete P;
}

}  // namespace vel

namespace vel::detail {
// A member of no size in every class declared with VEL_CLASS. Building the
// class's constructor instantiates Ref, which the compiler must emit and
// which holds the address of T's VEL_PUBLISHED_or_VEL_IMPLEMENT_missing,
// defined only by those two macros. So a class whose macro was forgotten
// fails to link with a message naming them ("undefined reference to
// `T::VEL_PUBLISHED_or_VEL_IMPLEMENT_missing()'"), besides the linker's
// "undefined reference to `vtable for T'". No code runs for it.
template <class T>
struct TImplementedCheck {
  [[gnu::used]] static inline void (*const Ref)() = &T::VEL_PUBLISHED_or_VEL_IMPLEMENT_missing;
  constexpr TImplementedCheck() noexcept { (void)&Ref; }
};
}  // namespace vel::detail

// Declares the class-reference members of class T derived from P. Place it
// first in the class body; the definitions come from VEL_PUBLISHED or
// VEL_IMPLEMENT (TypInfo.h, which this header brings in) in one source
// file. VEL_CLASS leaves the members that follow it private: start the
// class's own members with "public:".
#define VEL_CLASS(T, P)                                                          \
 public:                                                                         \
  using inherited = P;                                                           \
  static ::vel::TClass StaticClass();                                            \
  ::vel::TClass ClassType() const override;                                      \
  /* Defined by VEL_PUBLISHED and VEL_IMPLEMENT; see TImplementedCheck. */      \
  static void VEL_PUBLISHED_or_VEL_IMPLEMENT_missing();                          \
                                                                                 \
 private:                                                                        \
  [[no_unique_address]] ::vel::detail::TImplementedCheck<T> VelImplementedCheck_;

// VEL_PUBLISHED and VEL_IMPLEMENT come with VEL_CLASS: a header that
// declares a class brings what its source file needs to define it.
// (TypInfo.h needs Variants.h complete; when Variants.h is being read
// first, it includes TypInfo.h at its own end instead.)
#ifndef VEL_RTL_VARIANTS_PENDING
#include "vel/rtl/TypInfo.h"
#endif
