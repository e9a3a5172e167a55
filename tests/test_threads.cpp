// TThread (creation, Synchronize, OnTerminate, WaitFor, FreeOnTerminate,
// FatalException) and the synchronisation objects.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "thread_test_util.h"
#include "vel/rtl/Messages.h"
#include "vel/rtl/SyncObjs.h"
#include "vel/rtl/SysUtils.h"
#include "vel/rtl/Threads.h"
#include "vel/rtl/TypInfo.h"

using namespace vel;
using veltest::ErrorOf;

namespace thrtest {

// Runs a function as its Execute; created suspended.
class TWorker final : public TThread {
  VEL_CLASS(TWorker, TThread)
 public:
  explicit TWorker(std::function<void(TWorker*)> Body) : TThread(true), FBody(std::move(Body)) {}
  using TThread::SetReturnValue;
  std::atomic<int> Runs{0};

 protected:
  void Execute() override {
    ++Runs;
    if (FBody) FBody(this);
  }

 private:
  std::function<void(TWorker*)> FBody;
};

// Receives OnTerminate.
class TWatcher : public TObject {
 public:
  std::atomic<int> Calls{0};
  std::atomic<DWORD> Thread{0};
  TObject* Sender = nullptr;
  void Terminated(TObject* S) {
    ++Calls;
    Thread = GetCurrentThreadId();
    Sender = S;
  }
};

}  // namespace thrtest

using namespace thrtest;
VEL_IMPLEMENT(TWorker)

// A suspended thread has its identity but does not run; another worker
// thread waiting for it gets its return value.
TEST(Threads, SuspendedThreadHasItsIdentityButDoesNotRun) {
  auto* T = new TWorker([](TWorker* Self) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    Self->SetReturnValue(17);
  });
  EXPECT_TRUE(T->Suspended());
  EXPECT_NE(T->ThreadID(), 0u);
  EXPECT_NE(T->ThreadID(), MainThreadID());
  EXPECT_NE(T->Handle(), 0u);
  uint32_t Got = 0;
  std::thread Waiter([&] { Got = T->WaitFor(); });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(T->Runs, 0);
  EXPECT_FALSE(T->Finished());
  T->Resume();
  Waiter.join();
  EXPECT_EQ(Got, 17u);
  EXPECT_EQ(T->WaitFor(), 17u);
  EXPECT_TRUE(T->Finished());
  EXPECT_FALSE(T->Suspended());
  EXPECT_EQ(T->Runs, 1);
  T->Resume();  // nothing more happens
  delete T;
}

TEST(Threads, SynchronizeRunsOnTheMainThreadWhileTheWorkerWaits) {
  std::atomic<bool> AfterSync{false};
  std::atomic<bool> WorkerWaited{false};
  DWORD RanOn = 0;
  int Order = 0, SyncAt = 0;
  auto* T = new TWorker([&](TWorker* Self) {
    Self->Synchronize([&] {
      RanOn = GetCurrentThreadId();
      // The worker is still inside Synchronize.
      WorkerWaited = !AfterSync;
      SyncAt = ++Order;
    });
    AfterSync = true;
  });
  T->Resume();
  T->WaitFor();  // serves the request
  EXPECT_EQ(RanOn, MainThreadID());
  EXPECT_TRUE(WorkerWaited);
  EXPECT_TRUE(AfterSync);
  EXPECT_EQ(SyncAt, 1);
  delete T;

  // On the main thread, Synchronize calls the method directly.
  bool Direct = false;
  TThread::Synchronize(nullptr, [&] { Direct = GetCurrentThreadId() == MainThreadID(); });
  EXPECT_TRUE(Direct);
}

// A synchronised method's exception is raised in the worker; WaitFor from
// the thread itself is refused; caught there, neither is kept as fatal.
TEST(Threads, SynchronizedExceptionsAndWaitForOnItselfRaiseInTheWorker) {
  std::string Caught, Refused;
  auto* T = new TWorker([&](TWorker* Self) {
    Caught = ErrorOf([&] { Self->Synchronize([] { throw EConvertError("bad value"); }); });
    Refused = ErrorOf([&] { Self->WaitFor(); });
  });
  T->Resume();
  T->WaitFor();
  EXPECT_EQ(Caught, "EConvertError: bad value");
  EXPECT_EQ(Refused, "EThread: Thread Error: Resource deadlock avoided (35)");
  EXPECT_EQ(T->FatalException(), nullptr);
  delete T;
}

// OnTerminate runs on the main thread before WaitFor returns, also for a
// thread terminated before it started (which skips Execute).
TEST(Threads, OnTerminateRunsOnTheMainThreadBeforeWaitForReturns) {
  for (bool TerminateFirst : {false, true}) {
    SCOPED_TRACE(TerminateFirst ? "terminated before start" : "ran");
    TWatcher W;
    auto* T = new TWorker(nullptr);
    T->OnTerminate = TNotifyEvent::Bind<&TWatcher::Terminated>(&W);
    if (TerminateFirst) T->Terminate();
    T->Resume();
    T->WaitFor();
    EXPECT_EQ(T->Runs, TerminateFirst ? 0 : 1);
    EXPECT_EQ(W.Calls, 1);
    EXPECT_EQ(W.Thread, MainThreadID());
    EXPECT_EQ(W.Sender, T);
    delete T;
  }
  // Freed before it ever ran: neither Execute nor OnTerminate, no hang.
  TWatcher W2;
  auto* Never = new TWorker(nullptr);
  Never->OnTerminate = TNotifyEvent::Bind<&TWatcher::Terminated>(&W2);
  delete Never;
  EXPECT_EQ(W2.Calls, 0);
}

TEST(Threads, ExceptionLeavingExecuteIsKept) {
  auto* T = new TWorker([](TWorker*) { throw EConvertError("'x' is not a valid integer value"); });
  T->Resume();
  T->WaitFor();
  ASSERT_NE(T->FatalException(), nullptr);
  EXPECT_EQ(ErrorOf([&] { std::rethrow_exception(T->FatalException()); }),
            "EConvertError: 'x' is not a valid integer value");
  delete T;
}

TEST(Threads, ManyWorkersSynchronizeAgainstOneMainThread) {
  constexpr int Workers = 4, Rounds = 200;
  int Counter = 0;  // touched on the main thread only
  std::vector<TWorker*> Ts;
  for (int I = 0; I < Workers; ++I)
    Ts.push_back(new TWorker([&](TWorker* Self) {
      for (int R = 0; R < Rounds; ++R) Self->Synchronize([&] { ++Counter; });
    }));
  for (TWorker* T : Ts) T->Resume();
  for (TWorker* T : Ts) {
    T->WaitFor();
    delete T;
  }
  EXPECT_EQ(Counter, Workers * Rounds);
}

TEST(SyncObjs, CriticalSectionIsRecursiveAndExclusive) {
  TCriticalSection CS;
  CS.Enter();
  CS.Enter();
  std::atomic<bool> OtherGot{true};
  std::thread([&] { OtherGot = CS.TryEnter(); }).join();
  EXPECT_FALSE(OtherGot);
  CS.Leave();
  CS.Leave();
  std::thread([&] {
    OtherGot = CS.TryEnter();
    if (OtherGot) CS.Leave();
  }).join();
  EXPECT_TRUE(OtherGot);

  int64_t Sum = 0;
  std::vector<std::thread> Ts;
  for (int T = 0; T < 4; ++T)
    Ts.emplace_back([&] {
      for (int I = 0; I < 10000; ++I) {
        std::lock_guard<TCriticalSection> L(CS);
        CS.Acquire();  // nested
        ++Sum;
        CS.Release();
      }
    });
  for (auto& T : Ts) T.join();
  EXPECT_EQ(Sum, 40000);
}

TEST(SyncObjs, EventsReleaseWaitersByTheirResetKind) {
  TSimpleEvent Manual;
  EXPECT_EQ(Manual.WaitFor(0), wrTimeout);
  std::atomic<int> Woken{0};
  std::vector<std::thread> Ts;
  for (int I = 0; I < 3; ++I)
    Ts.emplace_back([&] {
      if (Manual.WaitFor(5000) == wrSignaled) ++Woken;
    });
  Manual.SetEvent();
  for (auto& T : Ts) T.join();
  EXPECT_EQ(Woken, 3);
  EXPECT_EQ(Manual.WaitFor(0), wrSignaled);  // stays signalled
  Manual.ResetEvent();
  EXPECT_EQ(Manual.WaitFor(0), wrTimeout);

  TSyncEvent Auto(false, true);
  EXPECT_FALSE(Auto.ManualReset());
  EXPECT_EQ(Auto.WaitFor(0), wrSignaled);
  EXPECT_EQ(Auto.WaitFor(0), wrTimeout);  // consumed by the first waiter
  auto Start = std::chrono::steady_clock::now();
  EXPECT_EQ(Auto.WaitFor(30), wrTimeout);
  EXPECT_GE(std::chrono::steady_clock::now() - Start, std::chrono::milliseconds(25));
}

TEST(SyncObjs, SemaphoreCountsUpToItsMaximum) {
  TSemaphore S(1, 2);
  EXPECT_EQ(S.WaitFor(0), wrSignaled);
  EXPECT_EQ(S.WaitFor(0), wrTimeout);
  EXPECT_TRUE(S.ReleaseCount(2));
  EXPECT_FALSE(S.ReleaseCount(1));
  EXPECT_FALSE(S.ReleaseCount(0));
  EXPECT_EQ(S.Count(), 2);
  EXPECT_EQ(ErrorOf([] { TSemaphore Bad(2, 1); }),
            "ESyncObjectError: Invalid semaphore count (2 of 1)");
}
