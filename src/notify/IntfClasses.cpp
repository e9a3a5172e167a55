#include "vel/IntfClasses.h"

#include "vel/rtl/TypInfo.h"

namespace vel {

namespace {

HRESULT ForwardQuery(TObject* Self, TVCLComObjectHolder* Holder, const TGUID& IID, void** Obj) {
  if (IVCLComObject* C = Holder->VCLComObject()) return C->QueryInterface(IID, Obj);
  if (!Obj) return E_POINTER;
  if (Self->GetInterface(IID, Obj)) return S_OK;
  *Obj = nullptr;
  return E_NOINTERFACE;
}

int32_t ForwardAddRef(TVCLComObjectHolder* Holder) {
  if (IVCLComObject* C = Holder->VCLComObject()) return C->_AddRef();
  return -1;
}

int32_t ForwardRelease(TVCLComObjectHolder* Holder) {
  if (IVCLComObject* C = Holder->VCLComObject()) return C->_Release();
  return -1;
}

HRESULT ForwardSafeCall(TVCLComObjectHolder* Holder, std::exception_ptr E, void* Addr) {
  if (IVCLComObject* C = Holder->VCLComObject()) return C->SafeCallException(std::move(E), Addr);
  return DefaultSafeCallException(std::move(E), Addr);
}

void ForwardFreeOnRelease(TVCLComObjectHolder* Holder) {
  if (IVCLComObject* C = Holder->VCLComObject()) C->FreeOnRelease();
}

IPtr<IInterface> ComObjectOf(TObject* Self, TVCLComObjectHolder* Holder) {
  if (!Holder->VCLComObject()) {
    if (TCreateVCLComObjectProc Proc = CreateVCLComObjectProc.load()) Proc(Self);
  }
  IVCLComObject* C = Holder->VCLComObject();
  if (!C) throw EIntfClassError(SNoComSupport);
  IPtr<IInterface> R;
  if (C->QueryInterface(IIDOf<IInterface>, R.Out()) != S_OK) RaiseIntfCastError();
  return R;
}

}  // namespace

// The shared members, defined once per class.
#define VEL_DEFINE_INTF_MEMBERS(T, ADDREF, RELEASE)                                 \
  HRESULT T::QueryInterface(const TGUID& IID, void** Obj) {                         \
    return ForwardQuery(this, this, IID, Obj);                                      \
  }                                                                                 \
  int32_t T::_AddRef() {                                                            \
    return ADDREF;                                                                  \
  }                                                                                 \
  int32_t T::_Release() {                                                           \
    return RELEASE;                                                                 \
  }                                                                                 \
  HRESULT T::SafeCallException(std::exception_ptr ExceptObject, void* ExceptAddr) { \
    return ForwardSafeCall(this, std::move(ExceptObject), ExceptAddr);              \
  }                                                                                 \
  void T::FreeOnRelease() {                                                         \
    ForwardFreeOnRelease(this);                                                     \
  }                                                                                 \
  IPtr<IInterface> T::GetComObject() {                                              \
    return ComObjectOf(this, this);                                                 \
  }                                                                                 \
  T::~T() = default;

#define VEL_DEFINE_INTF_CLASS(T) \
  VEL_DEFINE_INTF_MEMBERS(T, ForwardAddRef(this), ForwardRelease(this))

VEL_IMPLEMENT(TIntfPersistent)
VEL_IMPLEMENT(TIntfThread)
VEL_IMPLEMENT(TIntfCollection)
VEL_IMPLEMENT(TIntfCollectionItem)
VEL_IMPLEMENT(TIntfComponentList)
VEL_IMPLEMENT(TIntfPersistentList)

VEL_DEFINE_INTF_CLASS(TIntfPersistent)
VEL_DEFINE_INTF_CLASS(TIntfThread)
VEL_DEFINE_INTF_MEMBERS(TIntfCollection, -1, -1)
VEL_DEFINE_INTF_CLASS(TIntfCollectionItem)
VEL_DEFINE_INTF_CLASS(TIntfComponentList)
VEL_DEFINE_INTF_CLASS(TIntfPersistentList)

// ---------------------------------------------------------------------------
// IDispatch of the TAuto... classes

#define VEL_DEFINE_AUTO_CLASS(T)                                                               \
  HRESULT T::GetTypeInfoCount(int32_t* Count) {                                                \
    if (IVCLComObject* C = VCLComObject()) return C->GetTypeInfoCount(Count);                  \
    return E_NOTIMPL;                                                                          \
  }                                                                                            \
  HRESULT T::GetTypeInfo(int32_t Index, int32_t LocaleID, void** TypeInfo) {                   \
    if (IVCLComObject* C = VCLComObject()) return C->GetTypeInfo(Index, LocaleID, TypeInfo);   \
    return E_NOTIMPL;                                                                          \
  }                                                                                            \
  HRESULT T::GetIDsOfNames(const TGUID& IID, void* Names, int32_t NameCount, int32_t LocaleID, \
                           void* DispIDs) {                                                    \
    if (IVCLComObject* C = VCLComObject())                                                     \
      return C->GetIDsOfNames(IID, Names, NameCount, LocaleID, DispIDs);                       \
    return E_NOTIMPL;                                                                          \
  }                                                                                            \
  HRESULT T::Invoke(int32_t DispID, const TGUID& IID, int32_t LocaleID, uint16_t Flags,        \
                    void* Params, void* VarResult, void* ExcepInfo, void* ArgErr) {            \
    if (IVCLComObject* C = VCLComObject())                                                     \
      return C->Invoke(DispID, IID, LocaleID, Flags, Params, VarResult, ExcepInfo, ArgErr);    \
    return E_NOTIMPL;                                                                          \
  }                                                                                            \
  T::~T() = default;                                                                           \
  VEL_IMPLEMENT(T)

VEL_DEFINE_AUTO_CLASS(TAutoPersistent)
VEL_DEFINE_AUTO_CLASS(TAutoCollection)
VEL_DEFINE_AUTO_CLASS(TAutoCollectionItem)
VEL_DEFINE_AUTO_CLASS(TAutoComponentList)
VEL_DEFINE_AUTO_CLASS(TAutoPersistentList)

}  // namespace vel
