// COM-style interfaces, in process: GUIDs, HRESULT codes, IInterface with
// reference counting, the counted smart pointer IPtr, Supports, the locked
// interface list, IStream with adapters to and from TStream, IDispatch,
// per-thread apartments, marshalling of interfaces between threads, and the
// attachable COM object of persistent objects (IVCLComObject and its factory
// hook).
//
// Writing an interface:
//
//   struct IGreeter : IInterface {
//     VEL_INTERFACE_ID("{5D4F8A10-0000-4000-8000-000000000001}")
//     virtual std::string Greet() = 0;
//   };
//
// Every interface descends from IInterface through single inheritance and
// declares its own identifier; an interface pointer is therefore also a
// pointer to its IInterface part, which is what lets code that only knows an
// identifier at run time add and release references.
//
// Implementing interfaces:
//
//   class TGreeter : public TInterfacedObject, public IGreeter {
//     VEL_CLASS(TGreeter, TInterfacedObject)
//     VEL_INTERFACES(IGreeter)
//    public:
//     std::string Greet() override { return "hello"; }
//   };
//
// VEL_INTERFACES lists the interfaces the class adds (its interface table,
// searched by GetInterface and so by QueryInterface) and routes the IInterface
// methods of the new interfaces to the inherited implementation. A class
// whose table lists an interface only answers that identifier, not those of
// the interface's ancestors, unless they are listed too (as the runtime).
// Each interface a class inherits from is a separate part of the object, so
// when a class adds an interface whose ancestor (other than IInterface) a
// base class already implements, it overrides the ancestor's methods again,
// forwarding to the base (see VEL_CUSTOM_NOTIFIER_METHODS in
// velIntfClasses.h). For the same reason an object converts to IInterface*
// only through one of its interfaces: use GetIntf<IInterface>(Obj) or a
// static_cast to the interface meant.
//
// Reference counting: TInterfacedObject starts at 0 and frees itself when
// the count returns to 0. Hold such objects through IPtr from creation on and
// never delete them directly. Objects whose _AddRef/_Release return -1 (the
// "no reference" classes) are freed by their creator with delete. A
// constructor must not hand out counted references to itself: the count
// would reach 0 again before the object is complete.
//
// Thread safety: reference counts are atomic; an IPtr object, like any
// variable, must not be written by one thread while another uses it.
// TInterfaceList locks every operation. Apartment state is per thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <exception>
#include <mutex>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "vel/rtl/Streams.h"
#include "vel/rtl/System.h"

namespace vel {

// ---------------------------------------------------------------------------
// HRESULT

using HRESULT = int32_t;

namespace detail {
constexpr HRESULT HR(uint32_t Code) {
  return static_cast<HRESULT>(Code);
}
}  // namespace detail

inline constexpr HRESULT S_OK = 0;
inline constexpr HRESULT S_FALSE = 1;
inline constexpr HRESULT E_NOTIMPL = detail::HR(0x80004001);
inline constexpr HRESULT E_NOINTERFACE = detail::HR(0x80004002);
inline constexpr HRESULT E_POINTER = detail::HR(0x80004003);
inline constexpr HRESULT E_ABORT = detail::HR(0x80004004);
inline constexpr HRESULT E_FAIL = detail::HR(0x80004005);
inline constexpr HRESULT E_UNEXPECTED = detail::HR(0x8000FFFF);
inline constexpr HRESULT E_ACCESSDENIED = detail::HR(0x80070005);
inline constexpr HRESULT E_HANDLE = detail::HR(0x80070006);
inline constexpr HRESULT E_OUTOFMEMORY = detail::HR(0x8007000E);
inline constexpr HRESULT E_INVALIDARG = detail::HR(0x80070057);
inline constexpr HRESULT RPC_E_CHANGED_MODE = detail::HR(0x80010106);
inline constexpr HRESULT CO_E_NOTINITIALIZED = detail::HR(0x800401F0);
inline constexpr HRESULT CO_E_OBJNOTCONNECTED = detail::HR(0x800401FD);
inline constexpr HRESULT CLASS_E_NOAGGREGATION = detail::HR(0x80040110);
inline constexpr HRESULT CLASS_E_CLASSNOTAVAILABLE = detail::HR(0x80040111);
inline constexpr HRESULT REGDB_E_CLASSNOTREG = detail::HR(0x80040154);
inline constexpr HRESULT DISP_E_MEMBERNOTFOUND = detail::HR(0x80020003);
inline constexpr HRESULT DISP_E_UNKNOWNNAME = detail::HR(0x80020006);
inline constexpr HRESULT STG_E_INVALIDFUNCTION = detail::HR(0x80030001);
inline constexpr HRESULT STG_E_ACCESSDENIED = detail::HR(0x80030005);
inline constexpr HRESULT STG_E_INVALIDPOINTER = detail::HR(0x80030009);
inline constexpr HRESULT STG_E_WRITEFAULT = detail::HR(0x8003001D);
inline constexpr HRESULT STG_E_READFAULT = detail::HR(0x8003001E);
inline constexpr HRESULT STG_E_INVALIDPARAMETER = detail::HR(0x80030057);
inline constexpr HRESULT STG_E_MEDIUMFULL = detail::HR(0x80030070);
inline constexpr HRESULT STG_E_REVERTED = detail::HR(0x80030102);
inline constexpr HRESULT STG_E_CANTSAVE = detail::HR(0x80030103);

constexpr bool Succeeded(HRESULT Res) {
  return Res >= 0;
}
constexpr bool Failed(HRESULT Res) {
  return Res < 0;
}

// ---------------------------------------------------------------------------
// Exceptions and messages

VEL_EXCEPTION(EOleError, Exception);

// A failed HRESULT turned into an exception (OleCheck).
class VEL_API EOleSysError : public EOleError {
 public:
  // An empty Msg is replaced by the system text of ErrorCode, or by
  // "OLE error %.8X" when there is none.
  EOleSysError(std::string Msg, HRESULT ErrorCode, int32_t HelpContext = 0);
  const char* ClassName() const noexcept override { return "EOleSysError"; }
  HRESULT ErrorCode() const { return FErrorCode; }
  int32_t HelpContext() const { return FHelpContext; }

 private:
  HRESULT FErrorCode;
  int32_t FHelpContext;
};

inline constexpr const char* SInvalidGUID = "'%s' is not a valid GUID value";
inline constexpr const char* SOleError = "OLE error %.8X";
inline constexpr const char* SIntfCastError = "Interface not supported";

// The system's text for an HRESULT (without a final period, as the
// runtime's SysErrorMessage), or "" when it has none.
VEL_API std::string HResultMessage(HRESULT Code);
// Raises EOleSysError when Res is a failure code; returns Res otherwise.
VEL_API HRESULT OleCheck(HRESULT Res);
[[noreturn]] VEL_API void OleError(HRESULT ErrorCode);

// ---------------------------------------------------------------------------
// GUID

namespace detail {
[[noreturn]] VEL_API void RaiseInvalidGUID(std::string_view S);
constexpr int HexDigit(char C) {
  if (C >= '0' && C <= '9') return C - '0';
  if (C >= 'a' && C <= 'f') return C - 'a' + 10;
  if (C >= 'A' && C <= 'F') return C - 'A' + 10;
  return -1;
}
}  // namespace detail

// A 128-bit identifier, in memory as the platform lays it out: D1 to D3 as
// integers (little-endian when written byte by byte), D4 as eight bytes.
struct TGUID {
  uint32_t D1 = 0;
  uint16_t D2 = 0;
  uint16_t D3 = 0;
  uint8_t D4[8] = {0, 0, 0, 0, 0, 0, 0, 0};

  // Parses "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}" (hex digits in either
  // case). Raises EConvertError "'<S>' is not a valid GUID value"
  // otherwise; in a constant expression a bad text does not compile.
  static constexpr TGUID Parse(std::string_view S) {
    if (S.size() != 38 || S[0] != '{' || S[37] != '}' || S[9] != '-' || S[14] != '-' ||
        S[19] != '-' || S[24] != '-')
      detail::RaiseInvalidGUID(S);
    size_t Pos = 1;
    auto Hex = [&](int Digits) -> uint32_t {
      uint32_t V = 0;
      for (int I = 0; I < Digits; ++I) {
        if (S[Pos] == '-') ++Pos;
        int D = detail::HexDigit(S[Pos++]);
        if (D < 0) detail::RaiseInvalidGUID(S);
        V = V << 4 | static_cast<uint32_t>(D);
      }
      return V;
    };
    TGUID G;
    G.D1 = Hex(8);
    G.D2 = static_cast<uint16_t>(Hex(4));
    G.D3 = static_cast<uint16_t>(Hex(4));
    for (int I = 0; I < 8; ++I) G.D4[I] = static_cast<uint8_t>(Hex(2));
    return G;
  }

  friend constexpr bool operator==(const TGUID& A, const TGUID& B) {
    if (A.D1 != B.D1 || A.D2 != B.D2 || A.D3 != B.D3) return false;
    for (int I = 0; I < 8; ++I)
      if (A.D4[I] != B.D4[I]) return false;
    return true;
  }
};

using TIID = TGUID;
using TCLSID = TGUID;

inline constexpr TGUID GUID_NULL{};

// "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}" in upper case.
VEL_API std::string GUIDToString(const TGUID& G);
// See TGUID::Parse.
VEL_API TGUID StringToGUID(std::string_view S);
inline bool IsEqualGUID(const TGUID& A, const TGUID& B) {
  return A == B;
}
// A new random (version 4) GUID.
VEL_API TGUID CreateGUID();

// Declares the identifier of an interface (inside the interface body).
#define VEL_INTERFACE_ID(Text) \
 public:                       \
  static constexpr ::vel::TGUID InterfaceID = ::vel::TGUID::Parse(Text);

// The identifier of interface I.
template <class I>
inline constexpr const TGUID& IIDOf = I::InterfaceID;

// ---------------------------------------------------------------------------
// IInterface

struct VEL_API IInterface {
  VEL_INTERFACE_ID("{00000000-0000-0000-C000-000000000046}")
  // Stores a counted pointer to the interface IID of this object in *Obj
  // and returns S_OK, or stores null and returns E_NOINTERFACE.
  virtual HRESULT QueryInterface(const TGUID& IID, void** Obj) = 0;
  // Return the new count, or -1 for objects that are not reference counted.
  virtual int32_t _AddRef() = 0;
  virtual int32_t _Release() = 0;

 protected:
  ~IInterface() = default;
};
using IUnknown = IInterface;

namespace detail {
// The IInterface part of an interface pointer whose type is only known by
// identifier (every interface starts with its IInterface part).
inline IInterface* AsUnknown(void* Intf) {
  return static_cast<IInterface*>(Intf);
}
}  // namespace detail

// ---------------------------------------------------------------------------
// IPtr: the counted smart pointer

// Holds one counted reference to an interface: copying adds a reference,
// destruction and reassignment release it. Converts implicitly to I*, so it
// can be passed where the runtime passes an interface as a const parameter.
template <class I>
class IPtr {
 public:
  using element_type = I;

  IPtr() noexcept = default;
  IPtr(std::nullptr_t) noexcept {}
  // Adds a reference to P.
  IPtr(I* P) : FPtr(P) {
    if (FPtr) FPtr->_AddRef();
  }
  IPtr(const IPtr& Other) : IPtr(Other.FPtr) {}
  IPtr(IPtr&& Other) noexcept : FPtr(std::exchange(Other.FPtr, nullptr)) {}
  template <class J, class = std::enable_if_t<std::is_convertible_v<J*, I*>>>
  IPtr(const IPtr<J>& Other) : IPtr(static_cast<I*>(Other.get())) {}
  template <class J, class = std::enable_if_t<std::is_convertible_v<J*, I*>>>
  IPtr(IPtr<J>&& Other) noexcept : FPtr(static_cast<I*>(Other.Detach())) {}
  ~IPtr() {
    if (FPtr) FPtr->_Release();
  }

  IPtr& operator=(const IPtr& Other) {
    Reset(Other.FPtr);
    return *this;
  }
  IPtr& operator=(IPtr&& Other) noexcept {
    if (this != &Other) {
      I* Old = std::exchange(FPtr, std::exchange(Other.FPtr, nullptr));
      if (Old) Old->_Release();
    }
    return *this;
  }
  IPtr& operator=(I* P) {
    Reset(P);
    return *this;
  }
  IPtr& operator=(std::nullptr_t) {
    Reset(nullptr);
    return *this;
  }

  // Takes over a reference that the caller already holds (no _AddRef).
  static IPtr Attach(I* P) noexcept {
    IPtr R;
    R.FPtr = P;
    return R;
  }
  // Gives up the reference without releasing it.
  I* Detach() noexcept { return std::exchange(FPtr, nullptr); }
  // Replaces the held pointer (adding a reference to P first).
  void Reset(I* P = nullptr) {
    if (P) P->_AddRef();
    I* Old = std::exchange(FPtr, P);
    if (Old) Old->_Release();
  }
  // Releases the reference and returns the slot for an out parameter such
  // as QueryInterface's: X->QueryInterface(IIDOf<I>, P.Out()).
  void** Out() {
    Reset(nullptr);
    return reinterpret_cast<void**>(&FPtr);
  }

  I* get() const noexcept { return FPtr; }
  I* operator->() const noexcept { return FPtr; }
  I& operator*() const noexcept { return *FPtr; }
  operator I*() const noexcept { return FPtr; }

  // The interface J of the same object; raises EIntfCastError "Interface
  // not supported" when it has none (the runtime's "as"). A null pointer
  // gives null.
  template <class J>
  IPtr<J> As() const;

 private:
  I* FPtr = nullptr;
};

// ---------------------------------------------------------------------------
// Interface tables

namespace detail {
template <class Self, class... Is>
bool FindInterface(Self* S, const TGUID& IID, void** Obj) {
  bool Found = false;
  (void)((IID == IIDOf<Is>
              ? (Found = true, *Obj = static_cast<Is*>(S), static_cast<Is*>(S)->_AddRef(), true)
              : false) ||
         ...);
  return Found;
}
}  // namespace detail

// The interface table alone: GetInterface answers the listed interfaces,
// then asks the inherited table. For classes that implement the IInterface
// methods themselves.
#define VEL_INTERFACE_TABLE(...)                                                             \
 public:                                                                                     \
  bool GetInterface(const ::vel::TGUID& IID, void** Obj) override {                          \
    return ::vel::detail::FindInterface<std::remove_pointer_t<decltype(this)>, __VA_ARGS__>( \
               this, IID, Obj) ||                                                            \
           inherited::GetInterface(IID, Obj);                                                \
  }                                                                                          \
                                                                                             \
 private:

// The interface table with the IInterface methods of the listed interfaces
// routed to the inherited implementation (QueryInterface, _AddRef and
// _Release of the class's base).
#define VEL_INTERFACES(...)                                                     \
  VEL_INTERFACE_TABLE(__VA_ARGS__)                                              \
 public:                                                                        \
  ::vel::HRESULT QueryInterface(const ::vel::TGUID& IID, void** Obj) override { \
    return inherited::QueryInterface(IID, Obj);                                 \
  }                                                                             \
  int32_t _AddRef() override {                                                  \
    return inherited::_AddRef();                                                \
  }                                                                             \
  int32_t _Release() override {                                                 \
    return inherited::_Release();                                               \
  }                                                                             \
                                                                                \
 private:

// ---------------------------------------------------------------------------
// Supports

// Whether Instance answers IID; on success *Intf receives a counted pointer
// to that interface (for the untyped forms, release it through
// static_cast<IInterface*>(*Intf)->_Release()).
VEL_API bool Supports(IInterface* Instance, const TGUID& IID, void** Intf);
VEL_API bool Supports(IInterface* Instance, const TGUID& IID);
// The object forms look at the object's interface table (GetInterface)
// without going through QueryInterface.
VEL_API bool Supports(TObject* Instance, const TGUID& IID, void** Intf);
VEL_API bool Supports(TObject* Instance, const TGUID& IID);

template <class I>
bool Supports(IInterface* Instance, IPtr<I>& Intf) {
  return Supports(Instance, IIDOf<I>, Intf.Out());
}
template <class I, class J>
bool Supports(const IPtr<J>& Instance, IPtr<I>& Intf) {
  void** Out = Intf.Out();
  if (!Instance) return false;
  void* P = nullptr;
  if (Instance->QueryInterface(IIDOf<I>, &P) != S_OK || !P) return false;
  *Out = P;
  return true;
}
template <class I>
bool Supports(TObject* Instance, IPtr<I>& Intf) {
  return Supports(Instance, IIDOf<I>, Intf.Out());
}

[[noreturn]] VEL_API void RaiseIntfCastError();

template <class I>
template <class J>
IPtr<J> IPtr<I>::As() const {
  if (!FPtr) return IPtr<J>();
  void* P = nullptr;
  if (FPtr->QueryInterface(IIDOf<J>, &P) != S_OK || !P) RaiseIntfCastError();
  return IPtr<J>::Attach(static_cast<J*>(P));
}

// The interface I of object Obj, counted; raises EIntfCastError "Interface
// not supported" when the object has none. Null gives null.
template <class I>
IPtr<I> GetIntf(TObject* Obj) {
  IPtr<I> R;
  if (Obj && !Supports(Obj, IIDOf<I>, R.Out())) RaiseIntfCastError();
  return R;
}

// ---------------------------------------------------------------------------
// TInterfacedObject

// The reference-counted implementation of IInterface: starts at 0, frees
// itself when _Release brings the count back to 0. The count is atomic.
class VEL_API TInterfacedObject : public TObject, public IInterface {
  VEL_CLASS(TInterfacedObject, TObject)
  VEL_INTERFACE_TABLE(IInterface)
 public:
  TInterfacedObject() = default;
  ~TInterfacedObject() override;

  HRESULT QueryInterface(const TGUID& IID, void** Obj) override;
  int32_t _AddRef() override;
  int32_t _Release() override;
  int32_t RefCount() const { return FRefCount.load(std::memory_order_acquire); }

 protected:
  std::atomic<int32_t> FRefCount{0};
};

// ---------------------------------------------------------------------------
// TInterfaceList

struct VEL_API IInterfaceList : IInterface {
  VEL_INTERFACE_ID("{285DEA8A-B865-11D1-AAA7-00C04FB17A72}")
  virtual IPtr<IInterface> Get(int32_t Index) = 0;
  virtual int32_t GetCapacity() = 0;
  virtual int32_t GetCount() = 0;
  virtual void Put(int32_t Index, IInterface* Item) = 0;
  virtual void SetCapacity(int32_t NewCapacity) = 0;
  virtual void SetCount(int32_t NewCount) = 0;
  virtual void Clear() = 0;
  virtual void Delete(int32_t Index) = 0;
  virtual void Exchange(int32_t Index1, int32_t Index2) = 0;
  virtual IPtr<IInterface> First() = 0;
  virtual int32_t IndexOf(IInterface* Item) = 0;
  virtual int32_t Add(IInterface* Item) = 0;
  virtual void Insert(int32_t Index, IInterface* Item) = 0;
  virtual IPtr<IInterface> Last() = 0;
  virtual int32_t Remove(IInterface* Item) = 0;
  virtual void Lock() = 0;
  virtual void Unlock() = 0;
};

// A list of counted interface references. Every operation takes the list's
// recursive lock; Lock/Unlock make a series of operations atomic. Items are
// compared by pointer (the interface pointer passed in, not the object's
// identity). References leaving the list are released after the lock has
// been let go, so a destructor running then may use the list.
// Index errors raise EListError "List index out of bounds (%d)"; counts
// and capacities below 0 "List count out of bounds (%d)" and "List capacity
// out of bounds (%d)".
class VEL_API TInterfaceList : public TInterfacedObject, public IInterfaceList {
  VEL_CLASS(TInterfaceList, TInterfacedObject)
  VEL_INTERFACES(IInterfaceList)
 public:
  TInterfaceList() = default;
  ~TInterfaceList() override;

  IPtr<IInterface> Get(int32_t Index) override;
  IPtr<IInterface> Items(int32_t Index) { return Get(Index); }
  int32_t GetCapacity() override;
  int32_t GetCount() override;
  int32_t Count() { return GetCount(); }
  void Put(int32_t Index, IInterface* Item) override;
  void SetCapacity(int32_t NewCapacity) override;
  void SetCount(int32_t NewCount) override;
  void Clear() override;
  void Delete(int32_t Index) override;
  void Exchange(int32_t Index1, int32_t Index2) override;
  IPtr<IInterface> First() override;
  int32_t IndexOf(IInterface* Item) override;
  int32_t Add(IInterface* Item) override;
  void Insert(int32_t Index, IInterface* Item) override;
  IPtr<IInterface> Last() override;
  int32_t Remove(IInterface* Item) override;
  void Lock() override;
  void Unlock() override;

 private:
  void CheckIndex(int32_t Index) const;
  std::recursive_mutex FLock;
  std::vector<IPtr<IInterface>> FItems;
};

// ---------------------------------------------------------------------------
// IStream

struct FILETIME {
  uint32_t dwLowDateTime = 0;
  uint32_t dwHighDateTime = 0;
};

enum : uint32_t { STGTY_STORAGE = 1, STGTY_STREAM = 2, STGTY_LOCKBYTES = 3, STGTY_PROPERTY = 4 };
enum : uint32_t { STREAM_SEEK_SET = 0, STREAM_SEEK_CUR = 1, STREAM_SEEK_END = 2 };
enum : uint32_t { STATFLAG_DEFAULT = 0, STATFLAG_NONAME = 1, STATFLAG_NOOPEN = 2 };
enum : uint32_t { LOCK_WRITE = 1, LOCK_EXCLUSIVE = 2, LOCK_ONLYONCE = 4 };
enum : uint32_t { STGC_DEFAULT = 0, STGC_OVERWRITE = 1, STGC_ONLYIFCURRENT = 2 };

// Statistics of a stream or storage element. The name is held by value.
struct STATSTG {
  std::u16string pwcsName;
  uint32_t type = 0;
  uint64_t cbSize = 0;
  FILETIME mtime;
  FILETIME ctime;
  FILETIME atime;
  uint32_t grfMode = 0;
  uint32_t grfLocksSupported = 0;
  TCLSID clsid;
  uint32_t grfStateBits = 0;
  uint32_t reserved = 0;
};

struct VEL_API ISequentialStream : IInterface {
  VEL_INTERFACE_ID("{0C733A30-2A1C-11CE-ADE5-00AA0044077D}")
  virtual HRESULT Read(void* pv, uint32_t cb, uint32_t* pcbRead) = 0;
  virtual HRESULT Write(const void* pv, uint32_t cb, uint32_t* pcbWritten) = 0;
};

struct VEL_API IStream : ISequentialStream {
  VEL_INTERFACE_ID("{0000000C-0000-0000-C000-000000000046}")
  virtual HRESULT Seek(int64_t dlibMove, uint32_t dwOrigin, uint64_t* plibNewPosition) = 0;
  virtual HRESULT SetSize(uint64_t libNewSize) = 0;
  virtual HRESULT CopyTo(IStream* pstm, uint64_t cb, uint64_t* pcbRead, uint64_t* pcbWritten) = 0;
  virtual HRESULT Commit(uint32_t grfCommitFlags) = 0;
  virtual HRESULT Revert() = 0;
  virtual HRESULT LockRegion(uint64_t libOffset, uint64_t cb, uint32_t dwLockType) = 0;
  virtual HRESULT UnlockRegion(uint64_t libOffset, uint64_t cb, uint32_t dwLockType) = 0;
  virtual HRESULT Stat(STATSTG* pstatstg, uint32_t grfStatFlag) = 0;
  virtual HRESULT Clone(IStream** ppstm) = 0;
};

enum TStreamOwnership : uint8_t { soReference, soOwned };

// Exposes a TStream as IStream. With soOwned the adapter frees the stream
// when its last reference goes; with soReference the stream must outlive
// the adapter. Failures become HRESULTs, never exceptions:
//   Read: S_OK with the count moved (short at the end), STG_E_INVALIDPOINTER
//     for a null buffer, S_FALSE when the stream raised;
//   Write: S_OK with the count, STG_E_INVALIDPOINTER, STG_E_CANTSAVE;
//   Seek: STG_E_INVALIDFUNCTION for a bad origin or a stream that cannot
//     seek, STG_E_INVALIDPOINTER when the stream raised;
//   SetSize: E_FAIL when the size did not change as asked, E_UNEXPECTED
//     when the stream raised; CopyTo copies through a buffer;
//   Commit S_OK; Revert STG_E_REVERTED; LockRegion/UnlockRegion
//     STG_E_INVALIDFUNCTION; Stat gives type STGTY_STREAM, the size and
//     LOCK_WRITE; Clone E_NOTIMPL.
class VEL_API TStreamAdapter : public TInterfacedObject, public IStream {
  VEL_CLASS(TStreamAdapter, TInterfacedObject)
  VEL_INTERFACES(ISequentialStream, IStream)
 public:
  explicit TStreamAdapter(TStream* Stream, TStreamOwnership Ownership = soReference);
  ~TStreamAdapter() override;

  HRESULT Read(void* pv, uint32_t cb, uint32_t* pcbRead) override;
  HRESULT Write(const void* pv, uint32_t cb, uint32_t* pcbWritten) override;
  HRESULT Seek(int64_t dlibMove, uint32_t dwOrigin, uint64_t* plibNewPosition) override;
  HRESULT SetSize(uint64_t libNewSize) override;
  HRESULT CopyTo(IStream* pstm, uint64_t cb, uint64_t* pcbRead, uint64_t* pcbWritten) override;
  HRESULT Commit(uint32_t grfCommitFlags) override;
  HRESULT Revert() override;
  HRESULT LockRegion(uint64_t libOffset, uint64_t cb, uint32_t dwLockType) override;
  HRESULT UnlockRegion(uint64_t libOffset, uint64_t cb, uint32_t dwLockType) override;
  HRESULT Stat(STATSTG* pstatstg, uint32_t grfStatFlag) override;
  HRESULT Clone(IStream** ppstm) override;

  TStream* Stream() const { return FStream; }
  TStreamOwnership StreamOwnership() const { return FOwnership; }
  void SetStreamOwnership(TStreamOwnership Value) { FOwnership = Value; }

 private:
  TStream* FStream;
  TStreamOwnership FOwnership;
};

// Exposes an IStream as TStream; holds a counted reference to it. Failed
// calls raise EOleSysError with the system text of their HRESULT.
class VEL_API TOleStream : public TStream {
  VEL_CLASS(TOleStream, TStream)
 public:
  explicit TOleStream(IStream* Stream);
  ~TOleStream() override;
  int64_t Read(void* Buffer, int64_t Count) override;
  int64_t Write(const void* Buffer, int64_t Count) override;
  int64_t Seek(int64_t Offset, TSeekOrigin Origin) override;
  void SetSize(int64_t NewSize) override;
  IPtr<IStream> GetIStream() const { return FStream; }

 private:
  IPtr<IStream> FStream;
};

// ---------------------------------------------------------------------------
// IDispatch

struct VEL_API IDispatch : IInterface {
  VEL_INTERFACE_ID("{00020400-0000-0000-C000-000000000046}")
  virtual HRESULT GetTypeInfoCount(int32_t* Count) = 0;
  virtual HRESULT GetTypeInfo(int32_t Index, int32_t LocaleID, void** TypeInfo) = 0;
  virtual HRESULT GetIDsOfNames(const TGUID& IID, void* Names, int32_t NameCount, int32_t LocaleID,
                                void* DispIDs) = 0;
  virtual HRESULT Invoke(int32_t DispID, const TGUID& IID, int32_t LocaleID, uint16_t Flags,
                         void* Params, void* VarResult, void* ExcepInfo, void* ArgErr) = 0;
};

// ---------------------------------------------------------------------------
// Apartments

enum : uint32_t {
  COINIT_MULTITHREADED = 0x0,
  COINIT_APARTMENTTHREADED = 0x2,
  COINIT_DISABLE_OLE1DDE = 0x4,
  COINIT_SPEED_OVER_MEMORY = 0x8
};

enum APTTYPE : int32_t {
  APTTYPE_CURRENT = -1,
  APTTYPE_STA = 0,
  APTTYPE_MTA = 1,
  APTTYPE_NA = 2,
  APTTYPE_MAINSTA = 3
};

// Enters an apartment on the calling thread: the first call gives S_OK, a
// further call with the same model S_FALSE (each success must be matched
// by CoUninitialize), a call with the other model RPC_E_CHANGED_MODE (not
// counted). A non-null Reserved gives E_INVALIDARG.
VEL_API HRESULT CoInitializeEx(void* Reserved, uint32_t CoInit);
// CoInitializeEx with COINIT_APARTMENTTHREADED.
VEL_API HRESULT CoInitialize(void* Reserved);
// Leaves one level of the calling thread's apartment; after the last
// level the thread is in none. Extra calls do nothing.
VEL_API void CoUninitialize();
// The calling thread's apartment: APTTYPE_MAINSTA for the main thread's
// single-threaded apartment, APTTYPE_STA, APTTYPE_MTA; CO_E_NOTINITIALIZED
// outside any apartment, E_INVALIDARG for null arguments. The qualifier is
// always 0.
VEL_API HRESULT CoGetApartmentType(APTTYPE* AptType, int32_t* AptQualifier);

// Marshals Unk's interface IID for another thread of this process: the
// stream carries a counted reference to the interface. E_INVALIDARG for a
// null Unk or Stm, E_NOINTERFACE when Unk lacks IID. Calls through the
// unmarshalled pointer run directly on the calling thread (in-process, no
// proxy); objects shared this way must be safe for it.
VEL_API HRESULT CoMarshalInterThreadInterfaceInStream(const TGUID& IID, IInterface* Unk,
                                                      IStream** Stm);
// Takes the interface out of a stream made by the function above, queries
// it for IID into *Obj, and releases the stream in every case. E_INVALIDARG
// for a null argument or a stream that carries no interface, E_UNEXPECTED
// for a stream already unmarshalled, E_NOINTERFACE when the interface
// lacks IID.
VEL_API HRESULT CoGetInterfaceAndReleaseStream(IStream* Stm, const TGUID& IID, void** Obj);

// ---------------------------------------------------------------------------
// Attachable COM objects (VCLComObject)

// The interface of a COM object that wraps a persistent object: its
// IDispatch methods, safe-call exception handling, and free-on-release.
struct VEL_API IVCLComObject : IInterface {
  VEL_INTERFACE_ID("{E07892A0-F52F-11CF-BD2F-0020AF0E5B81}")
  virtual HRESULT GetTypeInfoCount(int32_t* Count) = 0;
  virtual HRESULT GetTypeInfo(int32_t Index, int32_t LocaleID, void** TypeInfo) = 0;
  virtual HRESULT GetIDsOfNames(const TGUID& IID, void* Names, int32_t NameCount, int32_t LocaleID,
                                void* DispIDs) = 0;
  virtual HRESULT Invoke(int32_t DispID, const TGUID& IID, int32_t LocaleID, uint16_t Flags,
                         void* Params, void* VarResult, void* ExcepInfo, void* ArgErr) = 0;
  virtual HRESULT SafeCallException(std::exception_ptr ExceptObject, void* ExceptAddr) = 0;
  // Asks the COM object to free the wrapped object when its own last
  // reference goes.
  virtual void FreeOnRelease() = 0;
};

// The slot an object offers for an attached COM object: a non-owning
// pointer, null when none is attached.
class VEL_API TVCLComObjectHolder {
 public:
  IVCLComObject* VCLComObject() const { return FVCLComObject; }
  void SetVCLComObject(IVCLComObject* Value) { FVCLComObject = Value; }

 protected:
  TVCLComObjectHolder() = default;
  virtual ~TVCLComObjectHolder();

 private:
  IVCLComObject* FVCLComObject = nullptr;
};

// The factory hook: called with an object that has no COM object yet; it
// may create one and attach it (for example new TVCLComObject(Obj)).
using TCreateVCLComObjectProc = void (*)(TObject* Obj);
VEL_API extern std::atomic<TCreateVCLComObjectProc> CreateVCLComObjectProc;

// The runtime's default when no handler is involved: E_UNEXPECTED.
VEL_API HRESULT DefaultSafeCallException(std::exception_ptr ExceptObject, void* ExceptAddr);

// A ready-made COM object to attach: reference counted, answering
// IInterface, IVCLComObject and IDispatch itself and, after them, every
// interface of the wrapped object's own table (so both share one identity).
// Its IDispatch methods return E_NOTIMPL (descendants supply automation).
// When its last reference goes it detaches from the object, and frees the
// object when FreeOnRelease was asked for. Freeing the wrapped object first
// detaches it (the object's destructor calls ObjectDestroyed).
class VEL_API TVCLComObject : public TInterfacedObject, public IVCLComObject, public IDispatch {
  VEL_CLASS(TVCLComObject, TInterfacedObject)
 public:
  // Attaches to Obj, which must offer a TVCLComObjectHolder slot (raises
  // EIntfCastError "Interface not supported" otherwise).
  explicit TVCLComObject(TObject* Obj);
  ~TVCLComObject() override;

  bool GetInterface(const TGUID& IID, void** Obj) override;
  HRESULT QueryInterface(const TGUID& IID, void** Obj) override {
    return TInterfacedObject::QueryInterface(IID, Obj);
  }
  int32_t _AddRef() override { return TInterfacedObject::_AddRef(); }
  int32_t _Release() override { return TInterfacedObject::_Release(); }

  HRESULT GetTypeInfoCount(int32_t* Count) override;
  HRESULT GetTypeInfo(int32_t Index, int32_t LocaleID, void** TypeInfo) override;
  HRESULT GetIDsOfNames(const TGUID& IID, void* Names, int32_t NameCount, int32_t LocaleID,
                        void* DispIDs) override;
  HRESULT Invoke(int32_t DispID, const TGUID& IID, int32_t LocaleID, uint16_t Flags, void* Params,
                 void* VarResult, void* ExcepInfo, void* ArgErr) override;
  HRESULT SafeCallException(std::exception_ptr ExceptObject, void* ExceptAddr) override;
  void FreeOnRelease() override;

  TObject* Object() const { return FObject; }
  // Called by the wrapped object's destructor.
  void ObjectDestroyed() { FObject = nullptr; }

 private:
  TObject* FObject;
  TVCLComObjectHolder* FHolder;
  bool FFreeOnRelease = false;
};

namespace detail {
// Detaches Holder's COM object when it is a TVCLComObject (for the
// destructors of objects that offer the slot).
VEL_API void DetachVCLComObject(TVCLComObjectHolder* Holder);
}  // namespace detail

}  // namespace vel
