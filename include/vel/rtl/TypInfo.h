// Run-time type information: type kinds, type data, published properties
// with their generic accessors, enumeration and set names, and the class
// registry that creates objects from class names.
//
// Published properties are registered next to the class, in one source file:
//
//   class TColumn : public TCollectionItem {
//     VEL_CLASS(TColumn, TCollectionItem)
//    public:
//     int32_t Width = 64;
//     std::string Caption;
//   };
//   VEL_PUBLISHED(TColumn, prop("Width", &TColumn::Width).defaults(64),
//                          prop("Caption", &TColumn::Caption))
//
// The kind of a property follows from its C++ type (see TypeInfoOf). A
// property is a field or a getter/setter pair (or any mix), optionally with
// a default (`defaults`), an explicit no-default (`nodefault`) and a stored
// specifier (`stored(false)`, `stored(&C::FieldBool)`, `stored(&C::IsStored)`).
// Published methods and message handlers go in the same list:
// `method<&TForm::Click>("Click")`, `message<&TWin::WMTimer>(WM_TIMER)`.
//
// Thread safety: type information is immutable once built and may be read
// from any thread. The class registry is internally locked.
#pragma once

#include <atomic>
#include <climits>
#include <mutex>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "vel/rtl/System.h"
#include "vel/rtl/Variants.h"

namespace vel {

// ---------------------------------------------------------------------------
// Kinds and type data

enum TTypeKind : uint8_t {
  tkUnknown, tkInteger, tkChar, tkEnumeration, tkFloat, tkString, tkSet, tkClass,
  tkMethod, tkWChar, tkLString, tkWString, tkVariant, tkArray, tkRecord,
  tkInterface, tkInt64, tkDynArray
};
using TTypeKinds = TSet<TTypeKind>;

// Every kind (the runtime's tkAny) and the kinds with properties that hold
// values (tkProperties).
inline constexpr TTypeKinds tkAny = TTypeKinds::FromOrd(0x3FFFF);
inline constexpr TTypeKinds tkProperties = TTypeKinds::FromOrd(0x3FFFF & ~(1u << tkArray) &
                                                               ~(1u << tkRecord) &
                                                               ~(1u << tkDynArray) &
                                                               ~(1u << tkUnknown));

enum TOrdType : uint8_t { otSByte, otUByte, otSWord, otUWord, otSLong, otULong };
enum TFloatType : uint8_t { ftSingle, ftDouble, ftExtended, ftComp, ftCurr };

struct TPropInfo;
using PPropInfo = const TPropInfo*;
using PPropList = PPropInfo*;

// The type data the library reads; only the members of the type's kind are
// meaningful.
struct TTypeData {
  // Ordinals (integer, char, wide char, enumeration, set element).
  TOrdType OrdType = otSLong;
  int32_t MinValue = 0;
  int32_t MaxValue = 0;
  // Enumerations: the base type (the Boolean type for booleans) and the
  // value names, index = ordinal - MinValue.
  PTypeInfo BaseType = nullptr;
  std::vector<std::string> NameList;
  // Sets: the element type.
  PTypeInfo CompType = nullptr;
  // Floats.
  TFloatType FloatType = ftDouble;
  // Int64.
  int64_t MinInt64Value = 0;
  int64_t MaxInt64Value = 0;
  // Short strings.
  uint8_t MaxLength = 255;
  // Classes: the class, the parent's type info and the number of published
  // properties including inherited ones.
  TClass ClassType = nullptr;
  PTypeInfo ParentInfo = nullptr;
  int16_t PropCount = 0;
  std::string UnitName;
};
using PTypeData = const TTypeData*;

struct TTypeInfo {
  TTypeKind Kind = tkUnknown;
  std::string Name;
  TTypeData Data;
};

inline PTypeData GetTypeData(PTypeInfo Info) { return Info ? &Info->Data : nullptr; }

// Type information of the runtime's predefined types.
VEL_API PTypeInfo TypeInfoBoolean();
VEL_API PTypeInfo TypeInfoInteger();
VEL_API PTypeInfo TypeInfoShortInt();
VEL_API PTypeInfo TypeInfoByte();
VEL_API PTypeInfo TypeInfoSmallInt();
VEL_API PTypeInfo TypeInfoWord();
VEL_API PTypeInfo TypeInfoCardinal();
VEL_API PTypeInfo TypeInfoChar();
VEL_API PTypeInfo TypeInfoWideChar();
VEL_API PTypeInfo TypeInfoInt64();
VEL_API PTypeInfo TypeInfoSingle();
VEL_API PTypeInfo TypeInfoDouble();
VEL_API PTypeInfo TypeInfoExtended();
VEL_API PTypeInfo TypeInfoCurrency();
VEL_API PTypeInfo TypeInfoComp();
VEL_API PTypeInfo TypeInfoDateTime();
VEL_API PTypeInfo TypeInfoShortString();
VEL_API PTypeInfo TypeInfoAnsiString();
VEL_API PTypeInfo TypeInfoWideString();
VEL_API PTypeInfo TypeInfoVariant();

// Makes (once per call site; keep the result) the type info of an
// enumeration named Name with the given value names, ordinals from 0.
VEL_API PTypeInfo MakeEnumTypeInfo(const char* Name, std::initializer_list<const char*> Names);
// Makes the type info of a set of the enumeration Element.
VEL_API PTypeInfo MakeSetTypeInfo(std::string Name, PTypeInfo Element);
// Makes the type info of an ordinal or float type under another name
// ("TColor", "TCursor", "TDate"): same kind and data as Base.
VEL_API PTypeInfo MakeAliasTypeInfo(const char* Name, PTypeInfo Base);
// Makes the type info of a method (event) type.
VEL_API PTypeInfo MakeMethodTypeInfo(const char* Name);

// Registers the value names of enumeration E for published properties and
// GetEnumName/GetEnumValue. Place it in the namespace of E:
//   enum TAlign : uint8_t { alNone, alTop, alBottom };
//   VEL_ENUM(TAlign, "alNone", "alTop", "alBottom")
#define VEL_ENUM(E, ...)                                                        \
  inline ::vel::PTypeInfo VelTypeInfo(E*) {                                     \
    static const ::vel::PTypeInfo Info = ::vel::MakeEnumTypeInfo(#E, {__VA_ARGS__}); \
    return Info;                                                                \
  }

// The kind names, so that sets of kinds can be published.
VEL_ENUM(TTypeKind, "tkUnknown", "tkInteger", "tkChar", "tkEnumeration", "tkFloat", "tkString",
         "tkSet", "tkClass", "tkMethod", "tkWChar", "tkLString", "tkWString", "tkVariant",
         "tkArray", "tkRecord", "tkInterface", "tkInt64", "tkDynArray")

// An integer type known under its own name, like the runtime's TColor:
//   struct TColorName { static constexpr const char* Name = "TColor"; };
//   using TColor = TNamedInteger<TColorName>;
template <class Tag, class Int = int32_t>
struct TNamedInteger {
  using NameTag = Tag;
  Int Value = 0;
  constexpr TNamedInteger() = default;
  constexpr TNamedInteger(Int V) : Value(V) {}
  constexpr operator Int() const { return Value; }
};

// ---------------------------------------------------------------------------
// Property accessors

// Reads and writes one property of an object through the channel of its
// kind. The generated accessors implement the channel of their type; the
// others raise EPropertyError.
class VEL_API TPropAccess {
 public:
  virtual ~TPropAccess();
  virtual int32_t GetOrd(const TObject* Obj) const;
  virtual void SetOrd(TObject* Obj, int32_t V) const;
  virtual int64_t GetInt64(const TObject* Obj) const;
  virtual void SetInt64(TObject* Obj, int64_t V) const;
  virtual Extended GetFloat(const TObject* Obj) const;
  virtual void SetFloat(TObject* Obj, Extended V) const;
  // Scaled currency (value × 10000) without a trip through floating point.
  virtual int64_t GetCurrency(const TObject* Obj) const;
  virtual void SetCurrency(TObject* Obj, int64_t Scaled) const;
  virtual std::string GetStr(const TObject* Obj) const;
  virtual void SetStr(TObject* Obj, const std::string& V) const;
  virtual std::u16string GetWStr(const TObject* Obj) const;
  virtual void SetWStr(TObject* Obj, const std::u16string& V) const;
  virtual Variant GetVariant(const TObject* Obj) const;
  virtual void SetVariant(TObject* Obj, const Variant& V) const;
  virtual TObject* GetObject(const TObject* Obj) const;
  virtual void SetObject(TObject* Obj, TObject* V) const;
  virtual TMethod GetMethod(const TObject* Obj) const;
  virtual void SetMethod(TObject* Obj, const TMethod& V) const;
  // Direct access to a string field, when the property is one; lets hot
  // paths read without a copy. Null otherwise.
  virtual const std::string* StrField(const TObject* Obj) const;

  bool CanRead = true;
  bool CanWrite = true;
  const TPropInfo* Info = nullptr;  // set when the property is built

 protected:
  [[noreturn]] void Unsupported() const;
  [[noreturn]] void ReadOnly() const;
};

// Evaluates a stored specifier that is a field or a method.
class VEL_API TStoredAccess {
 public:
  virtual ~TStoredAccess();
  virtual bool IsStored(const TObject* Obj) const = 0;
};

enum TStoredKind : uint8_t { skConstant, skField, skMethod };

// The "stored" specifier: a constant, a Boolean field or a Boolean method.
struct TStoredProc {
  TStoredKind Kind = skConstant;
  bool Constant = true;
  const TStoredAccess* Access = nullptr;
};

// Marker of a property without default: the most negative 32-bit integer.
inline constexpr int32_t NoDefault = INT32_MIN;

// One published property. Field order follows the runtime's property
// information.
struct VEL_API TPropInfo {
  PTypeInfo PropType = nullptr;
  const TPropAccess* GetProc = nullptr;  // null when the property cannot be read
  const TPropAccess* SetProc = nullptr;  // null when it is read-only
  TStoredProc StoredProc;
  int32_t Index = NoDefault;
  int32_t Default = NoDefault;
  int16_t NameIndex = 0;
  std::string Name;

  // The class that declares the property.
  TClass Owner = nullptr;
  // The accessor (owns the object behind GetProc/SetProc).
  std::unique_ptr<TPropAccess> Access;
  std::unique_ptr<TStoredAccess> StoredAccess;

  TTypeKind Kind() const { return PropType->Kind; }
};

// The published members of a class: its own properties and the combined
// list with inherited ones.
struct VEL_API TClassRtti {
  std::vector<std::unique_ptr<TPropInfo>> Own;
  // All properties, inherited first, in declaration order (a property
  // redeclared by a descendant takes its ancestor's place).
  std::vector<PPropInfo> Props;
  // The same, sorted by name.
  std::vector<PPropInfo> Sorted;

  struct CIHash {
    size_t operator()(std::string_view S) const noexcept;
  };
  struct CIEqual {
    bool operator()(std::string_view A, std::string_view B) const noexcept;
  };
  std::unordered_map<std::string_view, PPropInfo, CIHash, CIEqual> ByName;
};

// ---------------------------------------------------------------------------
// Type information of C++ types

template <class T>
struct IsTSet : std::false_type {};
template <class E>
struct IsTSet<TSet<E>> : std::true_type {};
template <class T>
struct IsTEvent : std::false_type {};
template <class S>
struct IsTEvent<TEvent<S>> : std::true_type {};
template <class T>
struct IsNamedInteger : std::false_type {};
template <class Tag, class Int>
struct IsNamedInteger<TNamedInteger<Tag, Int>> : std::true_type {};

// Name of an event type: TNotifyEvent and the others that register one
// with VEL_EVENT_NAME.
template <class T>
struct TEventTypeName {
  static constexpr const char* Name = "TMethod";
};
template <>
struct TEventTypeName<TNotifyEvent> {
  static constexpr const char* Name = "TNotifyEvent";
};
#define VEL_EVENT_NAME(T, NameText)                     \
  template <>                                           \
  struct vel::TEventTypeName<T> {                       \
    static constexpr const char* Name = NameText;       \
  };

template <class T>
PTypeInfo TypeInfoOf();

namespace detail {
template <class E>
PTypeInfo SetTypeInfoOf() {
  static const PTypeInfo Info = MakeSetTypeInfo(
      "set of " + TypeInfoOf<E>()->Name, TypeInfoOf<E>());
  return Info;
}
}  // namespace detail

// The type information of C++ type T, deduced as the published-property
// model maps C++ types to property kinds.
template <class T>
PTypeInfo TypeInfoOf() {
  using U = std::remove_cv_t<T>;
  if constexpr (std::is_same_v<U, bool>) return TypeInfoBoolean();
  else if constexpr (std::is_same_v<U, char>) return TypeInfoChar();
  else if constexpr (std::is_same_v<U, char16_t>) return TypeInfoWideChar();
  else if constexpr (std::is_same_v<U, int8_t>) return TypeInfoShortInt();
  else if constexpr (std::is_same_v<U, uint8_t>) return TypeInfoByte();
  else if constexpr (std::is_same_v<U, int16_t>) return TypeInfoSmallInt();
  else if constexpr (std::is_same_v<U, uint16_t>) return TypeInfoWord();
  else if constexpr (std::is_same_v<U, int32_t>) return TypeInfoInteger();
  else if constexpr (std::is_same_v<U, uint32_t>) return TypeInfoCardinal();
  else if constexpr (std::is_same_v<U, int64_t> || std::is_same_v<U, long long>) return TypeInfoInt64();
  else if constexpr (std::is_same_v<U, float>) return TypeInfoSingle();
  else if constexpr (std::is_same_v<U, double>) return TypeInfoDouble();
  else if constexpr (std::is_same_v<U, long double>) return TypeInfoExtended();
  else if constexpr (std::is_same_v<U, Currency>) return TypeInfoCurrency();
  else if constexpr (std::is_same_v<U, Comp>) return TypeInfoComp();
  else if constexpr (std::is_same_v<U, TDateTime>) return TypeInfoDateTime();
  else if constexpr (std::is_same_v<U, ShortString>) return TypeInfoShortString();
  else if constexpr (std::is_same_v<U, std::string>) return TypeInfoAnsiString();
  else if constexpr (std::is_same_v<U, std::u16string>) return TypeInfoWideString();
  else if constexpr (std::is_same_v<U, Variant>) return TypeInfoVariant();
  else if constexpr (std::is_enum_v<U>) return VelTypeInfo(static_cast<U*>(nullptr));
  else if constexpr (IsTSet<U>::value) return detail::SetTypeInfoOf<typename U::Element>();
  else if constexpr (IsNamedInteger<U>::value) {
    static const PTypeInfo Info = MakeAliasTypeInfo(U::NameTag::Name, TypeInfoOf<decltype(U::Value)>());
    return Info;
  } else if constexpr (IsTEvent<U>::value) {
    static const PTypeInfo Info = MakeMethodTypeInfo(TEventTypeName<U>::Name);
    return Info;
  } else if constexpr (std::is_pointer_v<U> &&
                       std::is_base_of_v<TObject, std::remove_cv_t<std::remove_pointer_t<U>>>) {
    return std::remove_cv_t<std::remove_pointer_t<U>>::StaticClass()->TypeInfo;
  } else {
    static_assert(sizeof(U) == 0, "type has no published-property kind");
  }
}

// ---------------------------------------------------------------------------
// Property operations

// The property information of the published property Name (any letter
// case) whose kind is in Kinds (an empty set means any kind), or null.
VEL_API PPropInfo GetPropInfo(PTypeInfo TypeInfo, std::string_view PropName,
                              TTypeKinds Kinds = TTypeKinds());
VEL_API PPropInfo GetPropInfo(TClass Class, std::string_view PropName,
                              TTypeKinds Kinds = TTypeKinds());
VEL_API PPropInfo GetPropInfo(const TObject* Obj, std::string_view PropName,
                              TTypeKinds Kinds = TTypeKinds());

// Fills List (caller-allocated with room for PropCount entries) with the
// properties whose kind is in Kinds, sorted by name when SortList is true,
// else in declaration order with inherited ones first; returns how many.
VEL_API int GetPropList(PTypeInfo TypeInfo, TTypeKinds Kinds, PPropList List,
                        bool SortList = true);
// The same into a vector.
VEL_API std::vector<PPropInfo> GetPropList(PTypeInfo TypeInfo, TTypeKinds Kinds = tkAny,
                                           bool SortList = true);
// All published properties of a class sorted by name, without copying.
VEL_API std::span<const PPropInfo> GetSortedProps(TClass Class);

VEL_API bool IsPublishedProp(const TObject* Obj, std::string_view PropName);
VEL_API bool IsPublishedProp(TClass Class, std::string_view PropName);
VEL_API bool IsStoredProp(const TObject* Obj, PPropInfo Info);
VEL_API bool IsStoredProp(const TObject* Obj, std::string_view PropName);
// Whether the property holds its declared default: the ordinal equals
// Default for ordinal kinds (never for the no-default marker unless the
// value is that marker); 0 for floats and int64; empty for strings and
// variants. Other kinds never hold a default.
VEL_API bool IsDefaultPropValue(const TObject* Obj, PPropInfo Info);

// Ordinals: integer, char, wide char, enumeration (booleans too) and set.
VEL_API int32_t GetOrdProp(const TObject* Obj, PPropInfo Info);
VEL_API void SetOrdProp(TObject* Obj, PPropInfo Info, int32_t Value);
VEL_API int32_t GetOrdProp(const TObject* Obj, std::string_view PropName);
VEL_API void SetOrdProp(TObject* Obj, std::string_view PropName, int32_t Value);
// Strings of every kind as 8-bit (Windows-1252) strings.
VEL_API std::string GetStrProp(const TObject* Obj, PPropInfo Info);
VEL_API void SetStrProp(TObject* Obj, PPropInfo Info, const std::string& Value);
VEL_API std::string GetStrProp(const TObject* Obj, std::string_view PropName);
VEL_API void SetStrProp(TObject* Obj, std::string_view PropName, const std::string& Value);
VEL_API std::u16string GetWideStrProp(const TObject* Obj, PPropInfo Info);
VEL_API void SetWideStrProp(TObject* Obj, PPropInfo Info, const std::u16string& Value);
// Floats of every float type as Extended (currency as its value, not scaled).
VEL_API Extended GetFloatProp(const TObject* Obj, PPropInfo Info);
VEL_API void SetFloatProp(TObject* Obj, PPropInfo Info, Extended Value);
VEL_API Extended GetFloatProp(const TObject* Obj, std::string_view PropName);
VEL_API void SetFloatProp(TObject* Obj, std::string_view PropName, Extended Value);
VEL_API int64_t GetInt64Prop(const TObject* Obj, PPropInfo Info);
VEL_API void SetInt64Prop(TObject* Obj, PPropInfo Info, int64_t Value);
VEL_API TMethod GetMethodProp(const TObject* Obj, PPropInfo Info);
VEL_API void SetMethodProp(TObject* Obj, PPropInfo Info, const TMethod& Value);
VEL_API Variant GetVariantProp(const TObject* Obj, PPropInfo Info);
VEL_API void SetVariantProp(TObject* Obj, PPropInfo Info, const Variant& Value);
// The object a class property holds, or null (also when it is not of
// MinClass, when MinClass is given).
VEL_API TObject* GetObjectProp(const TObject* Obj, PPropInfo Info, TClass MinClass = nullptr);
VEL_API TObject* GetObjectProp(const TObject* Obj, std::string_view PropName,
                               TClass MinClass = nullptr);
VEL_API void SetObjectProp(TObject* Obj, PPropInfo Info, TObject* Value);
// A set property as the names of its members, "a,b" or "[a,b]".
VEL_API std::string GetSetProp(const TObject* Obj, PPropInfo Info, bool Brackets = false);
VEL_API void SetSetProp(TObject* Obj, PPropInfo Info, std::string_view Value);
VEL_API std::string SetToString(PPropInfo Info, int32_t Value, bool Brackets = false);
VEL_API int32_t StringToSet(PPropInfo Info, std::string_view Value);
// Any property as a Variant and back (ordinals, strings, floats, int64,
// variants; enumerations as their names, sets as "[a,b]").
VEL_API Variant GetPropValue(const TObject* Obj, std::string_view PropName);
VEL_API void SetPropValue(TObject* Obj, std::string_view PropName, const Variant& Value);

// The name of an enumeration value (empty when out of range; an integer
// type gives the decimal text), and the value of a name (any letter case;
// -1 when unknown).
VEL_API std::string GetEnumName(PTypeInfo TypeInfo, int Value);
VEL_API int GetEnumValue(PTypeInfo TypeInfo, std::string_view Name);

// ---------------------------------------------------------------------------
// Class registry

VEL_API void RegisterClass(TClass Class);
VEL_API void RegisterClasses(std::initializer_list<TClass> Classes);
VEL_API void UnRegisterClass(TClass Class);
// The class registered under Name (any letter case), or null.
VEL_API TClass GetClass(std::string_view Name);
// The same; raises EClassNotFound "Class %s not found" when none.
VEL_API TClass FindClass(std::string_view Name);

// ---------------------------------------------------------------------------
// Registration (implementation)

namespace detail {

template <class C>
inline C* Self(TObject* Obj) {
  return static_cast<C*>(Obj);
}
template <class C>
inline const C* Self(const TObject* Obj) {
  return static_cast<const C*>(Obj);
}

// A reader or writer: a field, a getter, a setter, or none.
struct NoAccess {};
template <class C, class T>
struct FieldRef {
  T C::*Field;
  T Get(const TObject* O) const { return Self<C>(O)->*Field; }
  void Set(TObject* O, T V) const { Self<C>(O)->*Field = std::move(V); }
  const T* Ptr(const TObject* O) const { return &(Self<C>(O)->*Field); }
};
template <class C, class T, class G>
struct GetterRef {
  G Getter;
  T Get(const TObject* O) const { return (Self<C>(O)->*Getter)(); }
};
template <class C, class T, class S>
struct SetterRef {
  S Setter;
  void Set(TObject* O, T V) const { (Self<C>(O)->*Setter)(std::move(V)); }
};

// How a value of type T travels through the accessor channels.
template <class T>
constexpr TTypeKind KindOf() {
  return TypeInfoOf<T>()->Kind;
}

VEL_API std::string WideToAnsi(const std::u16string& S);
VEL_API std::u16string AnsiToWide(const std::string& S);

template <class T, class R, class W>
class PropAccessImpl final : public TPropAccess {
 public:
  PropAccessImpl(R Rd, W Wr) : FRead(Rd), FWrite(Wr) {
    CanRead = !std::is_same_v<R, NoAccess>;
    CanWrite = !std::is_same_v<W, NoAccess>;
  }

  T Load(const TObject* O) const {
    if constexpr (std::is_same_v<R, NoAccess>) {
      (void)O;
      Unsupported();
    } else {
      return FRead.Get(O);
    }
  }
  void Store(TObject* O, T V) const {
    if constexpr (std::is_same_v<W, NoAccess>) {
      (void)O;
      (void)V;
      ReadOnly();
    } else {
      FWrite.Set(O, std::move(V));
    }
  }

  static constexpr bool IsOrdinal =
      std::is_integral_v<T> && !std::is_same_v<T, int64_t> && !std::is_same_v<T, long long> &&
      !std::is_same_v<T, uint64_t>;

  int32_t GetOrd(const TObject* O) const override {
    if constexpr (IsOrdinal) return static_cast<int32_t>(Load(O));
    else if constexpr (std::is_enum_v<T>) return static_cast<int32_t>(Load(O));
    else if constexpr (IsTSet<T>::value) return static_cast<int32_t>(Load(O).ToOrd());
    else if constexpr (IsNamedInteger<T>::value) return static_cast<int32_t>(Load(O).Value);
    else Unsupported();
  }
  void SetOrd(TObject* O, int32_t V) const override {
    if constexpr (std::is_same_v<T, bool>) Store(O, V != 0);
    else if constexpr (IsOrdinal) Store(O, static_cast<T>(V));
    else if constexpr (std::is_enum_v<T>) Store(O, static_cast<T>(V));
    else if constexpr (IsTSet<T>::value) Store(O, T::FromOrd(static_cast<uint32_t>(V)));
    else if constexpr (IsNamedInteger<T>::value) Store(O, T(static_cast<decltype(T::Value)>(V)));
    else Unsupported();
  }
  int64_t GetInt64(const TObject* O) const override {
    if constexpr (std::is_same_v<T, int64_t> || std::is_same_v<T, long long>) return Load(O);
    else Unsupported();
  }
  void SetInt64(TObject* O, int64_t V) const override {
    if constexpr (std::is_same_v<T, int64_t> || std::is_same_v<T, long long>) Store(O, V);
    else Unsupported();
  }
  Extended GetFloat(const TObject* O) const override {
    if constexpr (std::is_floating_point_v<T>) return static_cast<Extended>(Load(O));
    else if constexpr (std::is_same_v<T, Currency> || std::is_same_v<T, Comp>)
      return static_cast<Extended>(Load(O));
    else if constexpr (std::is_same_v<T, TDateTime>) return static_cast<Extended>(Load(O).Value);
    else Unsupported();
  }
  void SetFloat(TObject* O, Extended V) const override {
    if constexpr (std::is_floating_point_v<T>) Store(O, static_cast<T>(V));
    else if constexpr (std::is_same_v<T, Currency> || std::is_same_v<T, Comp>) Store(O, T(V));
    else if constexpr (std::is_same_v<T, TDateTime>) Store(O, TDateTime(static_cast<double>(V)));
    else Unsupported();
  }
  int64_t GetCurrency(const TObject* O) const override {
    if constexpr (std::is_same_v<T, Currency>) return Load(O).Value;
    else return TPropAccess::GetCurrency(O);
  }
  void SetCurrency(TObject* O, int64_t Scaled) const override {
    if constexpr (std::is_same_v<T, Currency>) Store(O, Currency::FromScaled(Scaled));
    else TPropAccess::SetCurrency(O, Scaled);
  }
  std::string GetStr(const TObject* O) const override {
    if constexpr (std::is_same_v<T, std::string>) return Load(O);
    else if constexpr (std::is_same_v<T, ShortString>) return Load(O).str();
    else if constexpr (std::is_same_v<T, std::u16string>) return WideToAnsi(Load(O));
    else Unsupported();
  }
  void SetStr(TObject* O, const std::string& V) const override {
    if constexpr (std::is_same_v<T, std::string>) Store(O, V);
    else if constexpr (std::is_same_v<T, ShortString>) Store(O, ShortString(V));
    else if constexpr (std::is_same_v<T, std::u16string>) Store(O, AnsiToWide(V));
    else Unsupported();
  }
  std::u16string GetWStr(const TObject* O) const override {
    if constexpr (std::is_same_v<T, std::u16string>) return Load(O);
    else if constexpr (std::is_same_v<T, std::string> || std::is_same_v<T, ShortString>)
      return AnsiToWide(GetStr(O));
    else Unsupported();
  }
  void SetWStr(TObject* O, const std::u16string& V) const override {
    if constexpr (std::is_same_v<T, std::u16string>) Store(O, V);
    else if constexpr (std::is_same_v<T, std::string> || std::is_same_v<T, ShortString>)
      SetStr(O, WideToAnsi(V));
    else Unsupported();
  }
  Variant GetVariant(const TObject* O) const override {
    if constexpr (std::is_same_v<T, Variant>) return Load(O);
    else Unsupported();
  }
  void SetVariant(TObject* O, const Variant& V) const override {
    if constexpr (std::is_same_v<T, Variant>) Store(O, V);
    else Unsupported();
  }
  TObject* GetObject(const TObject* O) const override {
    if constexpr (std::is_pointer_v<T>) return const_cast<TObject*>(static_cast<const TObject*>(Load(O)));
    else Unsupported();
  }
  void SetObject(TObject* O, TObject* V) const override {
    if constexpr (std::is_pointer_v<T>) {
      using P = std::remove_pointer_t<T>;
      if (V && !dynamic_cast<P*>(V)) throw EPropertyError("Invalid property value");
      Store(O, static_cast<T>(static_cast<P*>(V)));
    } else {
      Unsupported();
    }
  }
  TMethod GetMethod(const TObject* O) const override {
    if constexpr (IsTEvent<T>::value) return static_cast<const TMethod&>(Load(O));
    else Unsupported();
  }
  void SetMethod(TObject* O, const TMethod& V) const override {
    if constexpr (IsTEvent<T>::value) Store(O, T(V));
    else Unsupported();
  }
  const std::string* StrField(const TObject* O) const override {
    if constexpr (std::is_same_v<T, std::string> && requires(const R& Rd) { Rd.Ptr(O); })
      return FRead.Ptr(O);
    else return nullptr;
  }

 private:
  R FRead;
  W FWrite;
};

template <class C>
struct StoredField final : TStoredAccess {
  bool C::*Field;
  explicit StoredField(bool C::*F) : Field(F) {}
  bool IsStored(const TObject* O) const override { return Self<C>(O)->*Field; }
};
template <class C>
struct StoredMethod final : TStoredAccess {
  bool (C::*Method)() const;
  explicit StoredMethod(bool (C::*M)() const) : Method(M) {}
  bool IsStored(const TObject* O) const override { return (Self<C>(O)->*Method)(); }
};

// Collects the members of one class while it is being built.
class VEL_API TClassBuilder {
 public:
  TClassBuilder(TMetaClass* Meta, bool Published);
  void AddProperty(std::unique_ptr<TPropInfo> Info);
  void AddMethod(const char* Name, void* Code);
  void AddHandler(uint32_t Msg, void (*Call)(TObject*, void*));
  // Builds the combined property lists, the type info and the lookups.
  TMetaClass* Finish();

 private:
  TMetaClass* FMeta;
  bool FPublished;
};

}  // namespace detail

// Registration items used inside VEL_PUBLISHED / VEL_IMPLEMENT.
namespace reg {

template <class T, class R, class W>
class PropItem {
 public:
  PropItem(const char* Name, R Rd, W Wr) : FName(Name), FRead(Rd), FWrite(Wr) {}

  // The declared default of an ordinal property (integer, char, enumeration,
  // boolean, set). Properties without it carry the no-default marker.
  template <class V>
  PropItem defaults(V Value) && {
    if constexpr (IsTSet<V>::value) FDefault = static_cast<int32_t>(Value.ToOrd());
    else FDefault = static_cast<int32_t>(Value);
    return std::move(*this);
  }
  PropItem nodefault() && {
    FDefault = NoDefault;
    return std::move(*this);
  }
  PropItem stored(bool Constant) && {
    FStored.Kind = skConstant;
    FStored.Constant = Constant;
    FStoredAccess.reset();
    return std::move(*this);
  }
  template <class C>
  PropItem stored(bool C::*Field) && {
    FStored.Kind = skField;
    FStoredAccess = std::make_unique<detail::StoredField<C>>(Field);
    return std::move(*this);
  }
  template <class C>
  PropItem stored(bool (C::*Method)() const) && {
    FStored.Kind = skMethod;
    FStoredAccess = std::make_unique<detail::StoredMethod<C>>(Method);
    return std::move(*this);
  }
  PropItem index(int32_t I) && {
    FIndex = I;
    return std::move(*this);
  }
  // Publishes the property under another type name (an alias such as
  // "TColor" made with MakeAliasTypeInfo) of the same kind.
  PropItem type(PTypeInfo Info) && {
    FType = Info;
    return std::move(*this);
  }

  void Apply(detail::TClassBuilder& B) {
    auto Info = std::make_unique<TPropInfo>();
    Info->PropType = FType ? FType : TypeInfoOf<T>();
    Info->Access = std::make_unique<detail::PropAccessImpl<T, R, W>>(FRead, FWrite);
    Info->GetProc = Info->Access->CanRead ? Info->Access.get() : nullptr;
    Info->SetProc = Info->Access->CanWrite ? Info->Access.get() : nullptr;
    Info->StoredProc = FStored;
    Info->StoredAccess = std::move(FStoredAccess);
    Info->StoredProc.Access = Info->StoredAccess.get();
    Info->Index = FIndex;
    Info->Default = FDefault;
    Info->Name = FName;
    B.AddProperty(std::move(Info));
  }

 private:
  const char* FName;
  R FRead;
  W FWrite;
  int32_t FDefault = NoDefault;
  int32_t FIndex = NoDefault;
  PTypeInfo FType = nullptr;
  TStoredProc FStored;
  std::unique_ptr<TStoredAccess> FStoredAccess;
};

// A field, read and written directly.
template <class C, class T>
  requires(!std::is_function_v<T>)
auto prop(const char* Name, T C::*Field) {
  return PropItem<T, detail::FieldRef<C, T>, detail::FieldRef<C, T>>(
      Name, detail::FieldRef<C, T>{Field}, detail::FieldRef<C, T>{Field});
}
// A field that is published read-only.
template <class C, class T>
  requires(!std::is_function_v<T>)
auto readonly_prop(const char* Name, T C::*Field) {
  return PropItem<T, detail::FieldRef<C, T>, detail::NoAccess>(
      Name, detail::FieldRef<C, T>{Field}, detail::NoAccess{});
}
// A getter only (read-only property).
template <class C, class RT>
auto prop(const char* Name, RT (C::*Getter)() const) {
  using T = std::remove_cvref_t<RT>;
  using G = RT (C::*)() const;
  return PropItem<T, detail::GetterRef<C, T, G>, detail::NoAccess>(
      Name, detail::GetterRef<C, T, G>{Getter}, detail::NoAccess{});
}
// A getter and a setter.
template <class C, class RT, class C2, class ST>
auto prop(const char* Name, RT (C::*Getter)() const, void (C2::*Setter)(ST)) {
  using T = std::remove_cvref_t<RT>;
  using G = RT (C::*)() const;
  using S = void (C2::*)(ST);
  return PropItem<T, detail::GetterRef<C, T, G>, detail::SetterRef<C2, T, S>>(
      Name, detail::GetterRef<C, T, G>{Getter}, detail::SetterRef<C2, T, S>{Setter});
}
// A field read directly and written through a setter.
template <class C, class T, class C2, class ST>
  requires(!std::is_function_v<T>)
auto prop(const char* Name, T C::*Field, void (C2::*Setter)(ST)) {
  using S = void (C2::*)(ST);
  return PropItem<T, detail::FieldRef<C, T>, detail::SetterRef<C2, T, S>>(
      Name, detail::FieldRef<C, T>{Field}, detail::SetterRef<C2, T, S>{Setter});
}

// A published method: MethodAddress(Name) gives MethodCode<M>().
struct MethodItem {
  const char* Name;
  void* Code;
  void Apply(detail::TClassBuilder& B) { B.AddMethod(Name, Code); }
};
template <auto M>
MethodItem method(const char* Name) {
  return MethodItem{Name, MethodCode<M>()};
}

namespace detail_msg {
template <auto M>
struct HandlerThunk;
template <class C, class MsgT, void (C::*M)(MsgT&)>
struct HandlerThunk<M> {
  static void Call(TObject* Self, void* Message) {
    (static_cast<C*>(Self)->*M)(*static_cast<MsgT*>(Message));
  }
};
}  // namespace detail_msg

// A message handler: Dispatch of a message whose first 32 bits are Msg
// calls M with the message record.
struct HandlerItem {
  uint32_t Msg;
  void (*Call)(TObject*, void*);
  void Apply(detail::TClassBuilder& B) { B.AddHandler(Msg, Call); }
};
template <auto M>
HandlerItem message(uint32_t Msg) {
  return HandlerItem{Msg, &detail_msg::HandlerThunk<M>::Call};
}

}  // namespace reg

namespace detail {

VEL_API std::recursive_mutex& ClassBuildLock();
VEL_API const char* ShortClassName(const char* QualifiedName);

// Holds the class reference of one class. Built on first use under one
// process-wide recursive lock; a class that refers to itself (or to a class
// that refers back) while being built gets the reference under
// construction, whose type info already exists.
struct TClassSlot {
  std::atomic<TMetaClass*> Ready{nullptr};
  TMetaClass* Building = nullptr;

  template <class F>
  TClass Get(F&& Build) {
    if (TMetaClass* M = Ready.load(std::memory_order_acquire)) return M;
    std::lock_guard<std::recursive_mutex> Lock(ClassBuildLock());
    if (TMetaClass* M = Ready.load(std::memory_order_relaxed)) return M;
    if (Building) return Building;
    Building = new TMetaClass;
    try {
      Build(Building);
    } catch (...) {
      Building = nullptr;
      throw;
    }
    Ready.store(Building, std::memory_order_release);
    return Building;
  }
};

template <class T, class... Items>
void BuildClass(TMetaClass* M, const char* Name, bool Published, Items&&... It) {
  M->Name = ShortClassName(Name);
  M->Parent = T::inherited::StaticClass();
  M->InstanceSize = sizeof(T);
  if constexpr (!std::is_abstract_v<T> && std::is_default_constructible_v<T>)
    M->PlainCreate = []() -> TObject* { return new T(); };
  if constexpr (requires { typename T::TCtorArg; }) {
    if constexpr (!std::is_abstract_v<T> && std::is_constructible_v<T, typename T::TCtorArg>)
      M->VirtualCreate = [](TObject* Arg) -> TObject* {
        using A = typename T::TCtorArg;
        return new T(static_cast<A>(Arg));
      };
  }
  TClassBuilder B(M, Published);
  (It.Apply(B), ...);
  B.Finish();
}

}  // namespace detail
}  // namespace vel

#define VEL_IMPLEMENT_CLASS_(T, PUBLISHED, ...)                                   \
  ::vel::TClass T::StaticClass() {                                                \
    static constinit ::vel::detail::TClassSlot Slot;                              \
    return Slot.Get([](::vel::TMetaClass* Meta) {                                 \
      using namespace ::vel::reg;                                                 \
      ::vel::detail::BuildClass<T>(Meta, #T, PUBLISHED __VA_OPT__(, ) __VA_ARGS__); \
    });                                                                           \
  }                                                                               \
  ::vel::TClass T::ClassType() const { return T::StaticClass(); }                \
  void T::VEL_PUBLISHED_or_VEL_IMPLEMENT_missing() {}

// Defines the class reference of T (declared with VEL_CLASS) with published
// run-time type information and the given members (prop, method, message).
#define VEL_PUBLISHED(T, ...) VEL_IMPLEMENT_CLASS_(T, true __VA_OPT__(, ) __VA_ARGS__)
// The same for a class that publishes nothing of its own; it has run-time
// type information only when an ancestor publishes. Members may still be
// given (published methods and message handlers).
#define VEL_IMPLEMENT(T, ...) VEL_IMPLEMENT_CLASS_(T, false __VA_OPT__(, ) __VA_ARGS__)
