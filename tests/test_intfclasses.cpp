// Interfaced persistent classes: their own IInterface without a COM object,
// forwarding to an attached COM object, the collection that never forwards
// reference counting, and the factory hook with TVCLComObject.
#include <gtest/gtest.h>

#include <atomic>
#include <vector>

#include "thread_test_util.h"
#include "vel/IntfClasses.h"
#include "vel/rtl/TypInfo.h"

using namespace vel;
using veltest::ErrorOf;

namespace intftest {

struct IExtra : IInterface {
  VEL_INTERFACE_ID("{7E0A1C22-3333-4000-8000-00000000B001}")
  virtual int Value() = 0;
};

// A COM object that records every call it receives.
class TFakeCom : public TInterfacedObject, public IVCLComObject {
  VEL_CLASS(TFakeCom, TInterfacedObject)
  VEL_INTERFACE_TABLE(IVCLComObject)
 public:
  int Queries = 0, AddRefs = 0, Releases = 0, FreeOnReleases = 0, SafeCalls = 0;
  TGUID LastIID;
  std::vector<uintptr_t> InvokeArgs;

  HRESULT QueryInterface(const TGUID& IID, void** Obj) override {
    ++Queries;
    LastIID = IID;
    return TInterfacedObject::QueryInterface(IID, Obj);
  }
  int32_t _AddRef() override {
    ++AddRefs;
    return TInterfacedObject::_AddRef();
  }
  int32_t _Release() override {
    ++Releases;
    return TInterfacedObject::_Release();
  }
  HRESULT GetTypeInfoCount(int32_t* Count) override {
    *Count = 7;
    return S_OK;
  }
  HRESULT GetTypeInfo(int32_t Index, int32_t LocaleID, void** TypeInfo) override {
    *TypeInfo = reinterpret_cast<void*>(static_cast<uintptr_t>(Index * 1000 + LocaleID));
    return S_FALSE;
  }
  HRESULT GetIDsOfNames(const TGUID& IID, void* Names, int32_t NameCount, int32_t LocaleID,
                        void* DispIDs) override {
    LastIID = IID;
    InvokeArgs = {reinterpret_cast<uintptr_t>(Names), static_cast<uintptr_t>(NameCount),
                  static_cast<uintptr_t>(LocaleID), reinterpret_cast<uintptr_t>(DispIDs)};
    return DISP_E_UNKNOWNNAME;
  }
  HRESULT Invoke(int32_t DispID, const TGUID& IID, int32_t LocaleID, uint16_t Flags, void* Params,
                 void* VarResult, void* ExcepInfo, void* ArgErr) override {
    LastIID = IID;
    InvokeArgs = {static_cast<uintptr_t>(DispID),         static_cast<uintptr_t>(LocaleID),
                  static_cast<uintptr_t>(Flags),          reinterpret_cast<uintptr_t>(Params),
                  reinterpret_cast<uintptr_t>(VarResult), reinterpret_cast<uintptr_t>(ExcepInfo),
                  reinterpret_cast<uintptr_t>(ArgErr)};
    return DISP_E_MEMBERNOTFOUND;
  }
  HRESULT SafeCallException(std::exception_ptr, void*) override {
    ++SafeCalls;
    return E_ABORT;
  }
  void FreeOnRelease() override { ++FreeOnReleases; }
};

std::atomic<int> Live{0};

// A persistent object with an interface of its own.
class TExtraPersistent : public TIntfPersistent, public IExtra {
  VEL_CLASS(TExtraPersistent, TIntfPersistent)
  VEL_INTERFACES(IExtra)
 public:
  TExtraPersistent() { ++Live; }
  ~TExtraPersistent() override { --Live; }
  int Value() override { return 5; }
};

class TQuietThread final : public TIntfThread {
  VEL_CLASS(TQuietThread, TIntfThread)
 public:
  TQuietThread() : TIntfThread(true) {}

 protected:
  void Execute() override {}
};

// Restores the factory hook after a test.
struct THookGuard {
  TCreateVCLComObjectProc Old = CreateVCLComObjectProc.load();
  ~THookGuard() { CreateVCLComObjectProc = Old; }
};

}  // namespace intftest

using namespace intftest;
VEL_IMPLEMENT(TFakeCom)
VEL_IMPLEMENT(TExtraPersistent)
VEL_IMPLEMENT(TQuietThread)

TEST(IntfClasses, WithoutComObjectTheyAnswerAloneAndCountNothing) {
  THookGuard G;
  CreateVCLComObjectProc = nullptr;
  TIntfPersistent P;
  TIntfCollection C;
  TIntfCollectionItem Item;
  TIntfComponentList CL;
  TIntfPersistentList PL;
  TAutoPersistent AP;
  TQuietThread T;
  std::vector<IInterface*> All = {&P, &C, &Item, &CL, &PL, static_cast<TIntfPersistent*>(&AP), &T};
  for (IInterface* I : All) {
    for (int K = 0; K < 100; ++K) {
      EXPECT_EQ(I->_AddRef(), -1);
      EXPECT_EQ(I->_Release(), -1);
    }
    void* Obj = nullptr;
    EXPECT_EQ(I->QueryInterface(IIDOf<IInterface>, &Obj), S_OK);
    EXPECT_EQ(Obj, I);
    Obj = reinterpret_cast<void*>(1);
    EXPECT_EQ(I->QueryInterface(IIDOf<IExtra>, &Obj), E_NOINTERFACE);
    EXPECT_EQ(Obj, nullptr);
    EXPECT_EQ(I->QueryInterface(IIDOf<IInterface>, nullptr), E_POINTER);
  }
  EXPECT_EQ(P.SafeCallException(nullptr, nullptr), E_UNEXPECTED);
  P.FreeOnRelease();  // nothing to tell
  EXPECT_EQ(ErrorOf([&] { P.GetComObject(); }), "EIntfClassError: No Com Support inmplemented");

  IPtr<IDispatch> Disp;
  ASSERT_TRUE(Supports(static_cast<TObject*>(&AP), Disp));
  int32_t Count = -1;
  EXPECT_EQ(Disp->GetTypeInfoCount(&Count), E_NOTIMPL);
  EXPECT_EQ(Disp->Invoke(1, GUID_NULL, 0, 0, nullptr, nullptr, nullptr, nullptr), E_NOTIMPL);
  EXPECT_EQ(Disp->GetIDsOfNames(GUID_NULL, nullptr, 0, 0, nullptr), E_NOTIMPL);
  void* TI = nullptr;
  EXPECT_EQ(Disp->GetTypeInfo(0, 0, &TI), E_NOTIMPL);
  T.Resume();
  T.WaitFor();
}

TEST(IntfClasses, AttachedComObjectAnswersEverythingButACollectionsCounting) {
  IPtr<TFakeCom> Fake(new TFakeCom);
  TAutoPersistent AP;
  AP.SetVCLComObject(Fake);
  IInterface* Unk = static_cast<TIntfPersistent*>(&AP);

  // Even IDispatch, which the object itself implements, is the COM
  // object's to answer (and it has none).
  void* Obj = nullptr;
  EXPECT_EQ(Unk->QueryInterface(IIDOf<IDispatch>, &Obj), E_NOINTERFACE);
  EXPECT_EQ(Fake->Queries, 1);
  EXPECT_EQ(Fake->LastIID, IIDOf<IDispatch>);
  ASSERT_EQ(Unk->QueryInterface(IIDOf<IVCLComObject>, &Obj), S_OK);
  EXPECT_EQ(Obj, static_cast<IVCLComObject*>(Fake.get()));
  static_cast<IVCLComObject*>(Obj)->_Release();

  int Before = Fake->RefCount();
  EXPECT_EQ(Unk->_AddRef(), Before + 1);
  EXPECT_EQ(Unk->_Release(), Before);

  IDispatch* Disp = &AP;
  int32_t Count = 0;
  EXPECT_EQ(Disp->GetTypeInfoCount(&Count), S_OK);
  EXPECT_EQ(Count, 7);
  void* TI = nullptr;
  EXPECT_EQ(Disp->GetTypeInfo(2, 9, &TI), S_FALSE);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(TI), 2009u);
  const TGUID Iid = StringToGUID("{00000000-0000-0000-0000-0000000000AB}");
  int Dummy[4];
  EXPECT_EQ(Disp->Invoke(17, Iid, 1033, 2, &Dummy[0], &Dummy[1], &Dummy[2], &Dummy[3]),
            DISP_E_MEMBERNOTFOUND);
  EXPECT_EQ(Fake->LastIID, Iid);
  EXPECT_EQ(Fake->InvokeArgs,
            std::vector<uintptr_t>({17, 1033, 2, reinterpret_cast<uintptr_t>(&Dummy[0]),
                                    reinterpret_cast<uintptr_t>(&Dummy[1]),
                                    reinterpret_cast<uintptr_t>(&Dummy[2]),
                                    reinterpret_cast<uintptr_t>(&Dummy[3])}));
  EXPECT_EQ(Disp->GetIDsOfNames(Iid, &Dummy[0], 3, 1031, &Dummy[1]), DISP_E_UNKNOWNNAME);
  EXPECT_EQ(Fake->InvokeArgs[1], 3u);
  EXPECT_EQ(Fake->InvokeArgs[2], 1031u);

  EXPECT_EQ(AP.SafeCallException(nullptr, nullptr), E_ABORT);
  EXPECT_EQ(Fake->SafeCalls, 1);
  AP.FreeOnRelease();
  EXPECT_EQ(Fake->FreeOnReleases, 1);
  IPtr<IInterface> Com = AP.GetComObject();
  IPtr<IInterface> FakeUnk = Fake.As<IInterface>();
  EXPECT_EQ(Com.get(), FakeUnk.get());
  AP.SetVCLComObject(nullptr);

  // A collection never forwards reference counting, though it forwards
  // queries; its items do forward.
  TIntfCollection C;
  TIntfCollectionItem Item;
  C.SetVCLComObject(Fake);
  Item.SetVCLComObject(Fake);
  const int Refs = Fake->RefCount(), AddRefs = Fake->AddRefs, Queries = Fake->Queries;
  EXPECT_EQ(static_cast<IInterface*>(&C)->_AddRef(), -1);
  EXPECT_EQ(static_cast<IInterface*>(&C)->_Release(), -1);
  EXPECT_EQ(Fake->AddRefs, AddRefs);
  EXPECT_EQ(static_cast<IInterface*>(&C)->QueryInterface(IIDOf<IExtra>, &Obj), E_NOINTERFACE);
  EXPECT_EQ(Fake->Queries, Queries + 1);
  EXPECT_EQ(static_cast<IInterface*>(&Item)->_AddRef(), Refs + 1);
  EXPECT_EQ(static_cast<IInterface*>(&Item)->_Release(), Refs);
  EXPECT_EQ(Fake->AddRefs, AddRefs + 1);
  C.SetVCLComObject(nullptr);
  Item.SetVCLComObject(nullptr);
}

TEST(IntfClasses, FactoryHookSharesIdentityAndLifetime) {
  THookGuard G;
  CreateVCLComObjectProc = [](TObject* Obj) { new TVCLComObject(Obj); };
  Live = 0;

  // FreeOnRelease: the last reference to the COM object frees the object.
  auto* P = new TExtraPersistent;
  {
    IPtr<IInterface> Com = P->GetComObject();
    ASSERT_NE(P->VCLComObject(), nullptr);
    // The object's own interfaces are reached through the COM object, and
    // their references count on it.
    IPtr<IExtra> Extra;
    ASSERT_TRUE(Supports(Com.get(), Extra));
    EXPECT_EQ(Extra->Value(), 5);
    IPtr<IDispatch> Disp = Com.As<IDispatch>();
    int32_t N = -1;
    EXPECT_EQ(Disp->GetTypeInfoCount(&N), E_NOTIMPL);
    EXPECT_EQ(Com.As<IInterface>().get(), Com.get());
    P->FreeOnRelease();
  }
  EXPECT_EQ(Live, 0);

  // Without it the COM object only detaches.
  P = new TExtraPersistent;
  P->GetComObject();
  EXPECT_EQ(P->VCLComObject(), nullptr);
  EXPECT_EQ(Live, 1);

  // The object freed first: the COM object lives on, detached.
  IPtr<IInterface> Com = P->GetComObject();
  auto* Wrapper = dynamic_cast<TVCLComObject*>(P->VCLComObject());
  ASSERT_NE(Wrapper, nullptr);
  EXPECT_EQ(Wrapper->Object(), P);
  delete P;
  EXPECT_EQ(Wrapper->Object(), nullptr);
  IPtr<IExtra> Extra;
  EXPECT_FALSE(Supports(Com.get(), Extra));
  Com = nullptr;
  EXPECT_EQ(Live, 0);

  // A hook that attaches nothing leaves the error.
  CreateVCLComObjectProc = [](TObject*) {};
  TIntfPersistent Plain;
  EXPECT_THROW(Plain.GetComObject(), EIntfClassError);
  // TVCLComObject needs an object that offers the slot.
  TObject NoSlot;
  EXPECT_THROW(TVCLComObject Bad(&NoSlot), EIntfCastError);
}
