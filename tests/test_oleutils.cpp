// COM apartment threads and class factories: entering apartments, an STA
// thread with a marshalled interface, and factories that serve each object
// in its own apartment thread.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "thread_test_util.h"
#include "vel/OleUtils.h"
#include "vel/rtl/TypInfo.h"

using namespace vel;
using veltest::WaitServing;

namespace {

APTTYPE CurrentApartment() {
  APTTYPE T = APTTYPE_CURRENT;
  int32_t Q = 0;
  return Succeeded(CoGetApartmentType(&T, &Q)) ? T : APTTYPE_CURRENT;
}

bool ThreadAlive(uint32_t Tid) {
  return std::filesystem::exists("/proc/self/task/" + std::to_string(Tid));
}

}  // namespace

TEST(InitializeCOM, EntersAndLeavesTheApartmentAsked) {
  std::string Got;
  std::thread([&] {
    for (TApartmentType Type : {atSTA, atMTA}) {
      InitializeCOM(true, Type);
      Got += std::to_string(CurrentApartment()) + " ";
      InitializeCOM(false, Type);
      Got += std::to_string(CurrentApartment()) + " ";
    }
    try {
      InitializeCOM(true, static_cast<TApartmentType>(2));
    } catch (const Exception& E) {
      Got += E.Message() + " " + std::to_string(CurrentApartment());
    }
  }).join();
  EXPECT_EQ(Got, std::to_string(APTTYPE_STA) + " " + std::to_string(APTTYPE_CURRENT) + " " +
                     std::to_string(APTTYPE_MTA) + " " + std::to_string(APTTYPE_CURRENT) +
                     " Apartment type not supported. " + std::to_string(APTTYPE_CURRENT));
}

namespace {

struct ICallee : IInterface {
  VEL_INTERFACE_ID("{6C0E6A52-3F7B-4E59-9B8B-4B1F2E7D6A01}")
  virtual int32_t Call(int32_t Value) = 0;
};

class TCallee : public TInterfacedObject, public ICallee {
  VEL_CLASS(TCallee, TInterfacedObject)
  VEL_INTERFACES(ICallee)
 public:
  std::atomic<uint32_t> CalledOn{0};
  int32_t Call(int32_t Value) override {
    CalledOn = GetCurrentThreadId();
    return Value * 2;
  }
};

struct TOutcome {
  std::atomic<bool> Done{false};
  std::atomic<int32_t> Answer{0};
  std::atomic<uint32_t> Thread{0};
  std::atomic<int> Apartment{-9};
  std::atomic<bool> Executing{false};
};

class TCallingThread : public TSTAThread {
  VEL_CLASS(TCallingThread, TSTAThread)
 public:
  TCallingThread(TOutcome* Out, IInterface* Callee)
      : TSTAThread(true, IIDOf<ICallee>, Callee), FOut(Out) {
    Resume();
  }
  explicit TCallingThread(TOutcome* Out) : TSTAThread(true), FOut(Out) { Resume(); }
  ~TCallingThread() override {
    StopThread(false);
    FOut->Done = true;
  }

 protected:
  void SafeExecute() override {
    FOut->Thread = GetCurrentThreadId();
    FOut->Apartment = CurrentApartment();
    FOut->Executing = Status().Contains(tsExecuting);
    if (Intf) FOut->Answer = Intf.As<ICallee>()->Call(21);
    Terminate();
  }

 private:
  TOutcome* FOut;
};

}  // namespace

VEL_IMPLEMENT(TCallee)
VEL_IMPLEMENT(TCallingThread)

TEST(STAThread, CallsTheInterfaceMarshalledFromItsCreator) {
  IPtr<TCallee> Callee(new TCallee);
  TOutcome Out, Without;
  new TCallingThread(&Out, static_cast<ICallee*>(Callee.get()));
  new TCallingThread(&Without);
  ASSERT_TRUE(WaitServing([&] { return Out.Done && Without.Done; }));
  EXPECT_EQ(Out.Answer, 42);
  EXPECT_EQ(Callee->CalledOn, Out.Thread);
  EXPECT_NE(Out.Thread, GetCurrentThreadId());
  EXPECT_EQ(Out.Apartment, APTTYPE_STA);
  EXPECT_TRUE(Out.Executing);
  // The thread's own reference goes with it (just after it reports done).
  EXPECT_TRUE(WaitServing([&] { return Callee->RefCount() == 1; }));
  // Without an interface the status never gains tsExecuting.
  EXPECT_EQ(Without.Apartment, APTTYPE_STA);
  EXPECT_FALSE(Without.Executing);
  EXPECT_EQ(Without.Answer, 0);
}

TEST(STAThread, MarshallingFailureRaisesInTheConstructor) {
  // TInterfacedObject answers IInterface only, not ICallee.
  IPtr<IInterface> Plain(static_cast<IInterface*>(new TInterfacedObject));
  TOutcome Out;
  try {
    new TCallingThread(&Out, Plain);
    FAIL() << "no exception";
  } catch (const EOleSysError& E) {
    EXPECT_EQ(E.ErrorCode(), E_NOINTERFACE);
  }
  EXPECT_EQ(Out.Thread, 0u);  // never ran
}

// ---------------------------------------------------------------------------
// Factories

namespace {

struct ILedger : IInterface {
  VEL_INTERFACE_ID("{6C0E6A52-3F7B-4E59-9B8B-4B1F2E7D6A02}")
  virtual uint32_t CreatedOn() = 0;
};

struct TLedgerLog {
  std::mutex Lock;
  std::vector<std::pair<uint32_t, uint32_t>> Freed;  // (created on, freed on)
  std::vector<int> Apartments;
};
TLedgerLog* LedgerLog = nullptr;

class TLedger : public TComObject, public ILedger {
  VEL_CLASS(TLedger, TComObject)
  VEL_INTERFACES(ILedger)
 public:
  explicit TLedger(TComObjectFactory* Factory)
      : TComObject(Factory), FCreatedOn(GetCurrentThreadId()) {
    std::lock_guard<std::mutex> G(LedgerLog->Lock);
    LedgerLog->Apartments.push_back(CurrentApartment());
  }
  ~TLedger() override {
    std::lock_guard<std::mutex> G(LedgerLog->Lock);
    LedgerLog->Freed.emplace_back(FCreatedOn, GetCurrentThreadId());
  }
  uint32_t CreatedOn() override { return FCreatedOn; }

 private:
  uint32_t FCreatedOn;
};

const TGUID CLSID_Ledger = TGUID::Parse("{6C0E6A52-3F7B-4E59-9B8B-4B1F2E7D6A03}");

class Factories : public ::testing::Test {
 protected:
  void SetUp() override {
    LedgerLog = &Log;
    ComServer().SetInprocServer(false);
  }
  void TearDown() override {
    ComServer().SetInprocServer(false);
    LedgerLog = nullptr;
  }
  // The three factory classes for one threading model.
  std::vector<std::unique_ptr<TComObjectFactory>> Make(TThreadingModel Model) {
    std::vector<std::unique_ptr<TComObjectFactory>> R;
    R.emplace_back(new TComObjectFactory2(ComServer(), ComClassOf<TLedger>(), CLSID_Ledger,
                                          "Ledger", "", ciMultiInstance, Model));
    R.emplace_back(new TTypedComObjectFactory2(ComServer(), ComClassOf<TLedger>(), CLSID_Ledger,
                                               "Ledger", "", ciMultiInstance, Model));
    R.emplace_back(new TAutoObjectFactory2(ComServer(), ComClassOf<TLedger>(), CLSID_Ledger,
                                           "Ledger", "", ciMultiInstance, Model));
    return R;
  }
  size_t FreedCount() {
    std::lock_guard<std::mutex> G(Log.Lock);
    return Log.Freed.size();
  }
  TLedgerLog Log;
};

}  // namespace

VEL_IMPLEMENT(TLedger)

TEST_F(Factories, EachObjectLivesInItsOwnApartmentThreadUntilReleased) {
  const int32_t Objects = ComServer().ObjectCount();
  for (auto& Factory : Make(tmApartment)) {
    SCOPED_TRACE(Factory->ClassType()->ClassName());
    Log.Freed.clear();
    Log.Apartments.clear();
    IPtr<ILedger> A, B;
    ASSERT_EQ(Factory->CreateInstance(nullptr, IIDOf<ILedger>, A.Out()), S_OK);
    ASSERT_EQ(Factory->CreateInstance(nullptr, IIDOf<ILedger>, B.Out()), S_OK);
    const uint32_t TA = A->CreatedOn(), TB = B->CreatedOn();
    EXPECT_NE(TA, TB);
    EXPECT_NE(TA, GetCurrentThreadId());
    EXPECT_TRUE(ThreadAlive(TA) && ThreadAlive(TB));
    EXPECT_EQ(Log.Apartments, (std::vector<int>{APTTYPE_STA, APTTYPE_STA}));
    EXPECT_EQ(ComServer().LockCount(), 0);
    EXPECT_EQ(ComServer().ObjectCount(), Objects + 2);

    IPtr<ILedger> Again = A;  // a second outside reference keeps it
    A = nullptr;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(FreedCount(), 0u);
    Again = nullptr;
    ASSERT_TRUE(WaitServing([&] { return FreedCount() == 1; }));
    ASSERT_TRUE(WaitServing([&] { return !ThreadAlive(TA); }));
    EXPECT_TRUE(ThreadAlive(TB));
    B = nullptr;
    ASSERT_TRUE(WaitServing([&] { return FreedCount() == 2 && !ThreadAlive(TB); }));
    // Each object was freed by its own apartment thread.
    EXPECT_EQ(Log.Freed, (std::vector<std::pair<uint32_t, uint32_t>>{{TA, TA}, {TB, TB}}));
    EXPECT_EQ(ComServer().ObjectCount(), Objects);
  }
}

// In a library module or with another threading model the object is made
// on the calling thread, as the runtime makes it; with the apartment model
// in an executable, on an apartment thread that hands failures back.
TEST_F(Factories, WhereObjectsAreMadeAndTheFailureCodes) {
  const int32_t Objects = ComServer().ObjectCount();
  struct Case {
    bool Inproc;
    TThreadingModel Model;
  };
  for (const Case& C : {Case{true, tmApartment}, Case{false, tmSingle}, Case{false, tmFree},
                        Case{false, tmBoth}, Case{false, tmNeutral}, Case{false, tmApartment}}) {
    ComServer().SetInprocServer(C.Inproc);
    const bool OwnThread = !C.Inproc && C.Model == tmApartment;
    for (auto& Factory : Make(C.Model)) {
      SCOPED_TRACE(std::to_string(C.Inproc) + " " + std::to_string(int(C.Model)));
      IPtr<ILedger> L;
      ASSERT_EQ(Factory->CreateInstance(nullptr, IIDOf<ILedger>, L.Out()), S_OK);
      EXPECT_EQ(L->CreatedOn() != GetCurrentThreadId(), OwnThread);
      L = nullptr;
      // The runtime's failure codes, unchanged.
      IPtr<IInterface> Outer(static_cast<IInterface*>(new TInterfacedObject));
      void* Obj = &Obj;
      EXPECT_EQ(Factory->CreateInstance(Outer, IIDOf<ILedger>, &Obj), CLASS_E_NOAGGREGATION);
      EXPECT_EQ(Obj, nullptr);
      Obj = &Obj;
      EXPECT_EQ(Factory->CreateInstance(nullptr, IIDOf<ICallee>, &Obj), E_NOINTERFACE);
      EXPECT_EQ(Obj, nullptr);
      EXPECT_EQ(Factory->CreateInstance(nullptr, IIDOf<ILedger>, nullptr), E_POINTER);
    }
  }
  // Every object, also those made for an unsupported interface, was freed
  // (in its own thread for the apartment model).
  ASSERT_TRUE(WaitServing([&] { return ComServer().ObjectCount() == Objects; }));
  EXPECT_EQ(ComServer().LockCount(), 0);
}
