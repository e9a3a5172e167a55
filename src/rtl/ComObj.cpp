#include "vel/rtl/ComObj.h"

#include "vel/rtl/Messages.h"
#include "vel/rtl/TypInfo.h"

namespace vel {

VEL_IMPLEMENT(TComObject)
VEL_IMPLEMENT(TComObjectFactory)
VEL_IMPLEMENT(TTypedComObjectFactory)
VEL_IMPLEMENT(TAutoObjectFactory)

TComServer& ComServer() {
  static TComServer Server;
  return Server;
}

namespace {
thread_local bool ServingCurrentThread = false;
}

void TComObject::SetServingCurrentThread(bool Value) {
  ServingCurrentThread = Value;
}

TComObject::TComObject(TComObjectFactory* Factory) : FFactory(Factory) {
  if (ServingCurrentThread) FServingThread = GetCurrentThreadId();
  (Factory ? Factory->Server() : ComServer()).CountObject(true);
}

TComObject::~TComObject() {
  (FFactory ? FFactory->Server() : ComServer()).CountObject(false);
}

int32_t TComObject::_Release() {
  const uint32_t Serving = FServingThread;
  int32_t Count = TInterfacedObject::_Release();
  // Only the serving thread's own reference is left: wake its message loop
  // so that it sees the object is no longer used from outside.
  if (Count == 1 && Serving != 0 && Serving != GetCurrentThreadId())
    PostThreadMessage(Serving, WM_NULL, 0, 0);
  return Count;
}

TComObjectFactory::TComObjectFactory(TComServer& Server, TComObjectCreator ComClass,
                                     const TGUID& ClassID, const std::string& ClassName,
                                     const std::string& Description, TClassInstancing Instancing,
                                     TThreadingModel ThreadingModel)
    : FServer(Server),
      FComClass(ComClass),
      FClassID(ClassID),
      FClassName(ClassName),
      FDescription(Description),
      FInstancing(Instancing),
      FThreadingModel(ThreadingModel) {}

TComObjectFactory::~TComObjectFactory() = default;
TTypedComObjectFactory::~TTypedComObjectFactory() = default;
TAutoObjectFactory::~TAutoObjectFactory() = default;

HRESULT TComObjectFactory::CreateInstance(IInterface* UnkOuter, const TGUID& IID, void** Obj) {
  return CreateInstanceLic(UnkOuter, nullptr, IID, std::u16string(), Obj);
}

HRESULT TComObjectFactory::LockServer(bool fLock) {
  FServer.LockServer(fLock);
  return S_OK;
}

HRESULT TComObjectFactory::GetLicInfo(TLicInfo* LicInfo) {
  if (!LicInfo) return E_POINTER;
  *LicInfo = TLicInfo{};
  LicInfo->fLicVerified = true;
  return S_OK;
}

HRESULT TComObjectFactory::RequestLicKey(uint32_t, std::u16string* Key) {
  if (Key) Key->clear();
  return CLASS_E_NOTLICENSED;
}

TComObject* TComObjectFactory::CreateComObject(IInterface*) {
  return FComClass ? FComClass(this) : new TComObject(this);
}

HRESULT TComObjectFactory::CreateInstanceLic(IInterface* UnkOuter, IInterface*, const TGUID& IID,
                                             const std::u16string&, void** Obj) {
  if (!Obj) return E_POINTER;
  *Obj = nullptr;
  if (UnkOuter) return CLASS_E_NOAGGREGATION;
  try {
    // The object holds its first reference through the query; a failed
    // query leaves the count at 0 and the holder below frees it.
    IPtr<IInterface> Holder(static_cast<TInterfacedObject*>(CreateComObject(UnkOuter)));
    return Holder->QueryInterface(IID, Obj);
  } catch (...) {
    return E_UNEXPECTED;
  }
}

}  // namespace vel
