// COM servers in process: class factories (IClassFactory, IClassFactory2),
// the server object that counts locks and live objects, and the COM object
// base class that factories create.
//
//   class TLedger : public TComObject, public ILedger { ... };
//   TComObjectFactory Factory(ComServer(), ComClassOf<TLedger>(), CLSID_Ledger,
//                             "Ledger", "", ciMultiInstance, tmApartment);
//   IPtr<ILedger> L;
//   OleCheck(Factory.CreateInstance(nullptr, IIDOf<ILedger>, L.Out()));
//
// Factories are not reference counted (their creator frees them, after the
// objects they made). Aggregation and licence keys are not supported:
// an outer object gives CLASS_E_NOAGGREGATION; licence keys are ignored.
//
// Thread safety: the server's counts are atomic; a factory may create
// objects from any thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "vel/rtl/Com.h"

namespace vel {

inline constexpr HRESULT CLASS_E_NOTLICENSED = detail::HR(0x80040112);

struct TLicInfo {
  int32_t cbLicInfo = sizeof(TLicInfo);
  bool fRuntimeKeyAvail = false;
  bool fLicVerified = false;
};

struct VEL_API IClassFactory : IInterface {
  VEL_INTERFACE_ID("{00000001-0000-0000-C000-000000000046}")
  virtual HRESULT CreateInstance(IInterface* UnkOuter, const TGUID& IID, void** Obj) = 0;
  virtual HRESULT LockServer(bool fLock) = 0;
};

struct VEL_API IClassFactory2 : IClassFactory {
  VEL_INTERFACE_ID("{B196B28F-BAB4-101A-B69C-00AA00341D07}")
  virtual HRESULT GetLicInfo(TLicInfo* LicInfo) = 0;
  virtual HRESULT RequestLicKey(uint32_t Reserved, std::u16string* Key) = 0;
  virtual HRESULT CreateInstanceLic(IInterface* UnkOuter, IInterface* Reserved, const TGUID& IID,
                                    const std::u16string& Key, void** Obj) = 0;
};

enum TThreadingModel : uint8_t { tmSingle, tmApartment, tmFree, tmBoth, tmNeutral };
enum TClassInstancing : uint8_t { ciInternal, ciSingleInstance, ciMultiInstance };

// The COM server of the process: whether it is an in-process (library)
// server, the number of server locks and of live COM objects.
class VEL_API TComServer {
 public:
  // False by default (an executable server); a package that serves its
  // objects in process sets it.
  bool IsInprocServer() const { return FInproc.load(); }
  void SetInprocServer(bool Value) { FInproc.store(Value); }
  // LockServer(true) / (false) of any factory.
  void LockServer(bool Lock) { Lock ? ++FLocks : --FLocks; }
  int32_t LockCount() const { return FLocks.load(); }
  int32_t ObjectCount() const { return FObjects.load(); }
  void CountObject(bool Created) { Created ? ++FObjects : --FObjects; }

 private:
  std::atomic<bool> FInproc{false};
  std::atomic<int32_t> FLocks{0};
  std::atomic<int32_t> FObjects{0};
};

VEL_API TComServer& ComServer();

class TComObjectFactory;

// A reference-counted COM object made by a factory; counted by the server
// while it lives. When it was made in an apartment thread that serves it
// (see OleUtils.h), a release from another thread that leaves only the
// apartment's own reference wakes that thread with WM_NULL, as the release
// call of a COM proxy reaches the object's apartment.
class VEL_API TComObject : public TInterfacedObject {
  VEL_CLASS(TComObject, TInterfacedObject)
 public:
  explicit TComObject(TComObjectFactory* Factory = nullptr);
  ~TComObject() override;
  int32_t _Release() override;
  TComObjectFactory* Factory() const { return FFactory; }
  // The thread that serves the object, 0 for none.
  uint32_t ServingThread() const { return FServingThread; }

  // Objects created on the calling thread while this is set record the
  // thread as serving them (set by apartment threads around creation).
  static void SetServingCurrentThread(bool Value);

 private:
  TComObjectFactory* FFactory;
  uint32_t FServingThread = 0;
};

using TComObjectCreator = TComObject* (*)(TComObjectFactory* Factory);

template <class T>
TComObjectCreator ComClassOf() {
  return [](TComObjectFactory* Factory) -> TComObject* { return new T(Factory); };
}

// A class factory for one COM class. Not reference counted.
class VEL_API TComObjectFactory : public TInterfacedObject, public IClassFactory2 {
  VEL_CLASS(TComObjectFactory, TInterfacedObject)
  VEL_INTERFACE_TABLE(IClassFactory, IClassFactory2)
 public:
  HRESULT QueryInterface(const TGUID& IID, void** Obj) override {
    return TInterfacedObject::QueryInterface(IID, Obj);
  }
  TComObjectFactory(TComServer& Server, TComObjectCreator ComClass, const TGUID& ClassID,
                    const std::string& ClassName, const std::string& Description,
                    TClassInstancing Instancing, TThreadingModel ThreadingModel = tmSingle);
  ~TComObjectFactory() override;
  int32_t _AddRef() override { return -1; }
  int32_t _Release() override { return -1; }

  // CreateInstanceLic without a key.
  HRESULT CreateInstance(IInterface* UnkOuter, const TGUID& IID, void** Obj) override;
  // Counts a server lock up or down.
  HRESULT LockServer(bool fLock) override;
  HRESULT GetLicInfo(TLicInfo* LicInfo) override;
  // CLASS_E_NOTLICENSED: no keys are handed out.
  HRESULT RequestLicKey(uint32_t Reserved, std::u16string* Key) override;
  // E_POINTER for a null Obj; CLASS_E_NOAGGREGATION with an outer object;
  // otherwise a new object queried for IID (E_NOINTERFACE frees it again);
  // E_UNEXPECTED when creating it raised.
  HRESULT CreateInstanceLic(IInterface* UnkOuter, IInterface* Reserved, const TGUID& IID,
                            const std::u16string& Key, void** Obj) override;

  // A new object of the class (not yet counted by any reference).
  virtual TComObject* CreateComObject(IInterface* Controller);

  TComServer& Server() const { return FServer; }
  const TGUID& ClassID() const { return FClassID; }
  const std::string& ClassName() const { return FClassName; }
  const std::string& Description() const { return FDescription; }
  TClassInstancing Instancing() const { return FInstancing; }
  TThreadingModel ThreadingModel() const { return FThreadingModel; }

 private:
  TComServer& FServer;
  TComObjectCreator FComClass;
  TGUID FClassID;
  std::string FClassName;
  std::string FDescription;
  TClassInstancing FInstancing;
  TThreadingModel FThreadingModel;
};

// The factory of classes described by a type library; the type library
// itself is not used on this platform, so it behaves as TComObjectFactory.
class VEL_API TTypedComObjectFactory : public TComObjectFactory {
  VEL_CLASS(TTypedComObjectFactory, TComObjectFactory)
 public:
  using TComObjectFactory::TComObjectFactory;
  ~TTypedComObjectFactory() override;
};

// The factory of automation classes (objects answering IDispatch).
class VEL_API TAutoObjectFactory : public TTypedComObjectFactory {
  VEL_CLASS(TAutoObjectFactory, TTypedComObjectFactory)
 public:
  using TTypedComObjectFactory::TTypedComObjectFactory;
  ~TAutoObjectFactory() override;
};

}  // namespace vel
