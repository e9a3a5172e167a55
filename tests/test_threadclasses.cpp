// The thread classes: the execute loop and its exception reports, the
// status set, message-queue and task threads, the window object, the
// subscribe thread's registration rules, the thread manager's singleton,
// notifications, data requests and shutdown, and the faults found under
// load (colliding request identifiers, notifications that synchronise,
// threads freed suspended, requests nobody took).
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "thread_test_util.h"
#include "vel/ThreadClasses.h"
#include "vel/rtl/Controls.h"
#include "vel/rtl/TypInfo.h"

using namespace vel;
using veltest::ErrorOf;
using veltest::PumpUntil;
using veltest::TDialogLog;

namespace tctest {

constexpr UINT WM_WORK = WM_USER + 10;
constexpr UINT WM_FAILWORK = WM_USER + 11;
constexpr UINT WM_NOHANDLER = WM_USER + 12;

// A string list behind an interface, to carry through a data request;
// counts its destruction when given a counter.
struct IStringsAdapter : IInterface {
  VEL_INTERFACE_ID("{0C7E0B1E-5D7A-4F1B-9A57-6C2D3E4F5A61}")
  virtual void Append(const std::string& S) = 0;
};

class TStringsAdapter : public TInterfacedObject, public IStringsAdapter {
  VEL_CLASS(TStringsAdapter, TInterfacedObject)
  VEL_INTERFACES(IStringsAdapter)
 public:
  explicit TStringsAdapter(std::atomic<int>* Destroyed = nullptr) : FDestroyed(Destroyed) {}
  ~TStringsAdapter() override {
    if (FDestroyed) ++*FDestroyed;
  }
  std::mutex Lock;
  std::vector<std::string> Lines;
  void Append(const std::string& S) override {
    std::lock_guard<std::mutex> L(Lock);
    Lines.push_back(S);
  }

 private:
  std::atomic<int>* FDestroyed;
};

// Records what a thread reports to the main thread.
class TRecorder : public TObject {
 public:
  std::vector<std::string> Errors;
  std::vector<std::string> Events;
  bool AllOnMain = true;
  bool SawLastException = true;
  TCustomThread* Thread = nullptr;
  std::atomic<int> Terminated{0};

  void OnError(TObject* Sender, Exception* E) {
    AllOnMain &= GetCurrentThreadId() == MainThreadID();
    if (Thread) SawLastException &= Thread->LastException() == E && Sender == Thread;
    Errors.push_back(E->Message());
  }
  void OnReceived(TObject*, TMsg& M) { Event("received ", M); }
  void OnProcessed(TObject*, TMsg& M) { Event("processed ", M); }
  void Event(const char* What, TMsg& M) {
    AllOnMain &= GetCurrentThreadId() == MainThreadID();
    Events.push_back(What + std::to_string(M.message - WM_USER));
  }
  void OnTerminate(TObject*) {
    AllOnMain &= GetCurrentThreadId() == MainThreadID();
    ++Terminated;
  }
  // Tasks for task threads.
  std::atomic<int> Ran{0};
  DWORD RanOn = 0;
  void Run(TTaskThread*) {
    RanOn = GetCurrentThreadId();
    ++Ran;
  }
  void Fail(TTaskThread*) {
    ++Ran;
    throw EConvertError("task failed");
  }
};

// Logs its hooks into a list that outlives it (or its own), or fails every
// round with the round's number; DoStartExecute can be held until the test
// lets it go.
class THookThread : public TCustomThread {
  VEL_CLASS(THookThread, TCustomThread)
 public:
  explicit THookThread(bool Fail, bool HoldStart = false, std::vector<std::string>* Log = nullptr)
      : TCustomThread(nullptr, true, false),
        FFail(Fail),
        FHold(HoldStart),
        FLog(Log ? Log : &FOwnLog) {}
  ~THookThread() override { StopThread(false); }
  TSimpleEvent Started;
  TSimpleEvent Release;
  std::atomic<int> Rounds{0};

 protected:
  void Note(const char* S) {
    std::lock_guard<std::mutex> L(FLock);
    FLog->push_back(S);
  }
  void DoStartExecute() override {
    TCustomThread::DoStartExecute();
    Note("start");
    Started.SetEvent();
    if (FHold) Release.WaitFor(INFINITE);
  }
  void DoFinishExecute() override {
    TCustomThread::DoFinishExecute();
    Note("finish");
  }
  void DoBeginLoop() override {
    if (!FFail) Note("begin");
  }
  void SafeExecute() override {
    if (FFail) throw EThreadError("round " + std::to_string(++Rounds));
    Note("round");
  }

 private:
  bool FFail, FHold;
  std::mutex FLock;
  std::vector<std::string> FOwnLog;
  std::vector<std::string>* FLog;
};

// A message-queue worker: WM_WORK returns WParam * 2 and records the status
// it runs with; WM_FAILWORK raises. Data requests, by Mode: Answer hands
// the request's interface its data plus " done" and answers at once;
// HoldPair does the same but answers the second of two first and the first
// once AnswerFirst is set; Gated answers once Gate is set, checking then
// that the record still holds Expect; Ignore never reads or answers (the
// test answers in the worker's place). Neither of the last two takes the
// request's interface.
class TWorker : public TMsgQueThread {
  VEL_CLASS(TWorker, TMsgQueThread)
 public:
  enum TMode { Answer, HoldPair, Gated, Ignore };
  explicit TWorker(bool CreateSuspended = false, bool FreeOnTerminate = false,
                   TComponent* AOwner = nullptr)
      : TMsgQueThread(AOwner, true, FreeOnTerminate) {
    if (!CreateSuspended) Resume();
  }
  ~TWorker() override {
    Gate.SetEvent();
    StopThread(true);
  }

  std::atomic<uint32_t> StatusInWork{0};
  std::atomic<int> Worked{0};
  std::atomic<TMode> Mode{Answer};
  std::string Expect;
  TSimpleEvent AnswerFirst, Gate;
  std::atomic<int> Seen{0}, Answered{0};
  std::atomic<bool> DataIntact{true};

  void WMWork(TMessage& M) {
    StatusInWork = Status().ToOrd();
    M.Result = static_cast<LRESULT>(M.WParam * 2);
    ++Worked;
  }
  void WMFailWork(TMessage&) { throw EConvertError("cannot work"); }
  void WMDataRequest(TMessage& M) {
    auto* R = reinterpret_cast<TRequestRecord*>(M.WParam);
    ++Seen;
    if (Mode == Ignore) return;
    if (Mode == Gated) {
      Gate.WaitFor(INFINITE);
      if (R->Data != Expect) DataIntact = false;
      ++Answered;
      NotifyMgr(WM_COMPLETEDREQUEST, static_cast<WPARAM>(R->ID), 0);
      return;
    }
    IPtr<IStringsAdapter> Target;
    if (TakeRequestInterface(R, Target.Out()) == S_OK) Target->Append(R->Data + " done");
    if (Mode == Answer) {
      NotifyMgr(WM_COMPLETEDREQUEST, static_cast<WPARAM>(R->ID), 0);
      return;
    }
    Held.push_back(R->ID);
    if (Held.size() == 2) {
      NotifyMgr(WM_COMPLETEDREQUEST, static_cast<WPARAM>(Held[1]), 0);
      AnswerFirst.WaitFor(INFINITE);
      NotifyMgr(WM_COMPLETEDREQUEST, static_cast<WPARAM>(Held[0]), 0);
    }
  }
  using TCustomThread::IncludeStatus;

 private:
  std::vector<int32_t> Held;
};

// A running worker that answers requests only once its gate opens.
std::unique_ptr<TWorker> GatedWorker(const std::string& Expect) {
  auto W = std::make_unique<TWorker>(true);
  W->Mode = TWorker::Gated;
  W->Expect = Expect;
  W->Resume();
  return W;
}

// A managed thread of the runtime's kind: its queue appears only with its
// first GetMessage. Answers data requests like TWorker.
class TPlainLoopThread : public TBaseThread {
  VEL_CLASS(TPlainLoopThread, TBaseThread)
 public:
  TPlainLoopThread() : TBaseThread(true) {}
  ~TPlainLoopThread() override {
    Terminate();
    Resume();
    while (!WaitFor(10)) PostThreadMessage(ThreadID(), WM_QUIT, 0, 0);
  }

 protected:
  void Execute() override {
    TMsg Msg;
    while (GetMessage(&Msg, 0, 0, 0) > 0) {
      if (Msg.message != WM_DATAREQUEST) continue;
      auto* R = reinterpret_cast<TRequestRecord*>(Msg.wParam);
      IPtr<IStringsAdapter> Target;
      if (TakeRequestInterface(R, Target.Out()) == S_OK) Target->Append(R->Data + " done");
      NotifyMgr(WM_COMPLETEDREQUEST, static_cast<WPARAM>(R->ID), 0);
    }
  }
};

// A task thread that counts its destruction when given a counter.
class TCountedTask : public TTaskThread {
  VEL_CLASS(TCountedTask, TTaskThread)
 public:
  TCountedTask(TNotifyEvent OnEnd = nullptr, TTaskThreadMethod Task = nullptr,
               std::atomic<int>* Destroyed = nullptr)
      : TTaskThread(true, OnEnd, Task), FDestroyed(Destroyed) {}
  ~TCountedTask() override {
    if (FDestroyed) ++*FDestroyed;
  }

 private:
  std::atomic<int>* FDestroyed;
};

// Records thread notifications as "<operation>:<thread id>". With Sync it
// also synchronises with the main thread from every notification it gets on
// another thread, and asks the manager for its count from there.
class TThreadWatcher : public TThreadNotifier {
  VEL_CLASS(TThreadWatcher, TThreadNotifier)
 public:
  explicit TThreadWatcher(ISubscribe* Source, bool Sync = false)
      : TThreadNotifier(Source), FSync(Sync) {}
  ~TThreadWatcher() override { Unsubscribe(); }
  std::mutex Lock;
  std::vector<std::string> Log;
  std::atomic<int> Synced{0};
  void ThreadNotification(IInterface* Unk, int32_t Operation) override {
    IPtr<IThread> T;
    ASSERT_TRUE(Supports(Unk, T));
    {
      std::lock_guard<std::mutex> L(Lock);
      Log.push_back(std::to_string(Operation) + ":" + std::to_string(T->GetThreadID()));
    }
    if (!FSync || GetCurrentThreadId() == MainThreadID()) return;
    TThread::Synchronize(nullptr, [this] {
      if (IPtr<IThreadManager> M = CurrentThreadManager()) (void)M->GetCount();
      ++Synced;
    });
  }
  size_t Count() {
    std::lock_guard<std::mutex> L(Lock);
    return Log.size();
  }

 private:
  bool FSync;
};

// A receiver of window messages.
class TWindowReceiver : public TObject {
  VEL_CLASS(TWindowReceiver, TObject)
 public:
  std::vector<std::string> Got;
  int Defaults = 0;
  void WMWork(TMessage& M) {
    Got.push_back(std::to_string(M.Msg - WM_USER) + "/" + std::to_string(M.WParam));
    M.Result = 42;
  }
  void DefaultHandler(void*) override { ++Defaults; }
};

// Ends the process (SIGALRM) when a test has not finished in time, so that
// a deadlock fails the case instead of hanging it.
struct TWatchdog {
  explicit TWatchdog(unsigned Seconds) { alarm(Seconds); }
  ~TWatchdog() { alarm(0); }
};

// Every test starts and ends with a fresh thread manager.
class ThreadManagerTest : public ::testing::Test {
 protected:
  void SetUp() override { ReleaseThreadManager(); }
  void TearDown() override { ReleaseThreadManager(); }
  TThreadManager* Manager() {
    return static_cast<TThreadManager*>(static_cast<IThreadManager*>(ThreadManager()));
  }
};

}  // namespace tctest

using namespace tctest;
VEL_IMPLEMENT(THookThread)
VEL_IMPLEMENT(TWorker, message<&TWorker::WMWork>(WM_WORK),
              message<&TWorker::WMFailWork>(WM_FAILWORK),
              message<&TWorker::WMDataRequest>(WM_DATAREQUEST))
VEL_IMPLEMENT(TCountedTask)
VEL_IMPLEMENT(TPlainLoopThread)
VEL_IMPLEMENT(TThreadWatcher)
VEL_IMPLEMENT(TWindowReceiver, message<&TWindowReceiver::WMWork>(WM_WORK))
VEL_IMPLEMENT(TStringsAdapter)

// ---------------------------------------------------------------------------
// The execute loop

TEST(ThreadClasses, FailingRoundsGoToOnExceptionOrTheApplicationAndTheLoopGoesOn) {
  TDialogLog Dialogs;
  TRecorder Rec;
  auto* T = new THookThread(true);
  Rec.Thread = T;
  T->OnException = TThreadExceptionEvent::Bind<&TRecorder::OnError>(&Rec);
  T->Resume();
  ASSERT_TRUE(PumpUntil([&] { return Rec.Errors.size() >= 5; }));
  // The worker waits for each report, so no round is skipped or doubled.
  for (size_t I = 0; I < Rec.Errors.size(); ++I)
    EXPECT_EQ(Rec.Errors[I], "round " + std::to_string(I + 1));
  EXPECT_TRUE(Rec.AllOnMain);
  EXPECT_TRUE(Rec.SawLastException);
  EXPECT_TRUE(T->Status().Contains(tsExecuting));
  EXPECT_FALSE(T->Finished());
  delete T;  // terminates the loop and waits for it
  EXPECT_EQ(Dialogs.Count(), 0u);

  // Without OnException the application shows each error.
  T = new THookThread(true);
  T->Resume();
  ASSERT_TRUE(PumpUntil([&] { return Dialogs.Count() >= 3; }));
  delete T;
  EXPECT_EQ(Dialogs.Line(0),
            Application->Title() + "|round 1.|" + std::to_string(MB_OK | MB_ICONSTOP));
  EXPECT_EQ(Dialogs.Line(2).substr(0, Application->Title().size() + 9),
            Application->Title() + "|round 3.");
}

// Terminated while DoStartExecute runs (the loop's first test ends it),
// terminated before it was ever resumed, or freed suspended by its owner
// although it frees itself: start and finish run once, OnTerminate once on
// the main thread, and no round runs.
TEST(ThreadClasses, AThreadThatNeverLoopsRunsStartFinishAndOnTerminateOnce) {
  for (int Way = 0; Way < 3; ++Way) {
    SCOPED_TRACE(Way);
    TRecorder Rec;
    std::vector<std::string> Log;
    auto* T = new THookThread(false, Way == 0, &Log);
    T->OnTerminate = TNotifyEvent::Bind<&TRecorder::OnTerminate>(&Rec);
    if (Way == 0) {
      T->Resume();
      ASSERT_EQ(T->Started.WaitFor(10000), wrSignaled);
      T->Terminate();
      T->Release.SetEvent();
    } else if (Way == 1) {
      T->Terminate();
      T->Resume();
    } else {
      T->SetFreeOnTerminate(true);
      ASSERT_TRUE(T->Suspended());
    }
    if (Way < 2) {
      T->WaitFor();
      EXPECT_TRUE(T->Status().Empty());
    }
    delete T;
    EXPECT_EQ(Log, (std::vector<std::string>{"start", "finish"}));
    EXPECT_EQ(Rec.Terminated, 1);
    EXPECT_TRUE(Rec.AllOnMain);
  }
}

TEST(ThreadClasses, VerifyShowsServerErrorAndRaises) {
  TDialogLog Dialogs;
  EXPECT_NO_THROW(Verify(true, "fine"));
  EXPECT_EQ(Dialogs.Count(), 0u);
  EXPECT_EQ(ErrorOf([] { Verify(false, "x"); }), "Exception: x");
  ASSERT_EQ(Dialogs.Count(), 1u);
  EXPECT_EQ(Dialogs.Line(0), "Server Error|x|16");
}

// ---------------------------------------------------------------------------
// Message-queue threads

// Each message is announced before and after it runs, on the main thread;
// a failing one is reported (and not announced as processed) and the next
// one served.
TEST(MsgQueThread, StatusThroughItsLifeEventsAroundEachMessageAndFailures) {
  TRecorder Rec;
  auto* T = new TWorker(true);
  Rec.Thread = T;
  EXPECT_TRUE(T->Status().Empty());
  T->OnMsgReceived = TThreadMsgEvent::Bind<&TRecorder::OnReceived>(&Rec);
  T->OnMsgProcessed = TThreadMsgEvent::Bind<&TRecorder::OnProcessed>(&Rec);
  T->OnException = TThreadExceptionEvent::Bind<&TRecorder::OnError>(&Rec);
  T->Resume();
  ASSERT_TRUE(PumpUntil([&] { return T->Status() == TThreadStatus{tsExecuting, tsIdle}; }));

  for (UINT Msg : {WM_WORK, WM_NOHANDLER, WM_FAILWORK, WM_WORK})
    ASSERT_TRUE(PostThreadMessage(T->ThreadID(), Msg, 21, 0));
  ASSERT_TRUE(PumpUntil([&] { return Rec.Events.size() == 7; }));
  EXPECT_EQ(Rec.Events,
            (std::vector<std::string>{"received 10", "processed 10", "received 12", "processed 12",
                                      "received 11", "received 10", "processed 10"}));
  EXPECT_EQ(Rec.Errors, std::vector<std::string>{"cannot work"});
  EXPECT_TRUE(Rec.SawLastException);
  EXPECT_EQ(T->Worked, 2);
  EXPECT_EQ(TThreadStatus::FromOrd(T->StatusInWork), (TThreadStatus{tsExecuting, tsBusy}));
  EXPECT_TRUE(Rec.AllOnMain);
  ASSERT_TRUE(PumpUntil([&] { return T->Status() == TThreadStatus{tsExecuting, tsIdle}; }));

  // The quit message ends it without events.
  ASSERT_TRUE(T->PostTerminate());
  T->WaitFor();
  EXPECT_EQ(Rec.Events.size(), 7u);
  EXPECT_EQ(T->Status(), TThreadStatus{tsIdle});
  EXPECT_TRUE(T->Terminated());
  EXPECT_EQ(T->CurrentMsg().message, WM_QUIT);
  EXPECT_FALSE(T->PostTerminate());  // its queue is gone
  delete T;
}

// Perform dispatches on the caller's thread; status values above seven
// change nothing.
TEST(MsgQueThread, PerformAndStatusOfAThreadNeverStarted) {
  auto* T = new TWorker(true);
  EXPECT_EQ(T->Perform(WM_WORK, 50, 0), 100);
  EXPECT_EQ(T->Perform(WM_NOHANDLER, 1, 2), 0);
  EXPECT_EQ(T->Worked, 1);
  EXPECT_THROW(T->Perform(WM_FAILWORK, 0, 0), EConvertError);

  T->IncludeStatus(8);
  T->IncludeStatus(-1);
  EXPECT_EQ(T->Status().ToOrd(), 0u);
  T->IncludeStatus(7);
  EXPECT_EQ(T->Status().ToOrd(), 0x80u);
  T->ExcludeStatus(9);
  EXPECT_EQ(T->Status().ToOrd(), 0x80u);
  T->ExcludeStatus(7);
  EXPECT_EQ(T->Status().ToOrd(), 0u);
  delete T;
}

// The queue exists once the constructor returns, running or suspended:
// posts made at once are all served, in order. A worker freed before it
// ever ran leaves no queue behind.
TEST(MsgQueThread, TakesPostsAsSoonAsItsConstructorReturns) {
  for (bool Suspended : {false, true}) {
    SCOPED_TRACE(Suspended ? "created suspended" : "created running");
    auto* T = new TWorker(Suspended);
    for (WPARAM I = 1; I <= 50; ++I) ASSERT_TRUE(PostThreadMessage(T->ThreadID(), WM_WORK, I, 0));
    if (Suspended) {
      Sleep(20);
      EXPECT_EQ(T->Worked, 0);
      T->Resume();
    }
    ASSERT_TRUE(PumpUntil([&] { return T->Worked == 50; }));
    EXPECT_EQ(T->CurrentMsg().wParam, 50u);  // the last one posted was served last
    delete T;
  }

  auto* Never = new TWorker(true);
  const DWORD Tid = Never->ThreadID();
  ASSERT_TRUE(PostThreadMessage(Tid, WM_WORK, 1, 0));
  delete Never;
  SetLastError(0);
  EXPECT_FALSE(PostThreadMessage(Tid, WM_WORK, 1, 0));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_THREAD_ID);
}

// ---------------------------------------------------------------------------
// Task threads

TEST(TaskThread, RunsOnceTerminatesAndFreesItselfEvenWhenTheTaskFails) {
  TDialogLog Dialogs;
  TRecorder Rec;
  std::atomic<int> Destroyed{0};
  // A task, no task (terminates at once, the handler still fires), and a
  // raising task (reported, then the same end).
  const struct {
    TTaskThreadMethod Task;
    int RanAfter;
  } Rows[] = {{TTaskThreadMethod::Bind<&TRecorder::Run>(&Rec), 1},
              {nullptr, 1},
              {TTaskThreadMethod::Bind<&TRecorder::Fail>(&Rec), 2}};
  for (int I = 0; I < 3; ++I) {
    SCOPED_TRACE(I);
    auto* T = new TCountedTask(TNotifyEvent::Bind<&TRecorder::OnTerminate>(&Rec), Rows[I].Task,
                               &Destroyed);
    const DWORD Tid = T->ThreadID();
    T->Resume();
    ASSERT_TRUE(PumpUntil([&] { return Destroyed == I + 1; }));
    EXPECT_EQ(Rec.Terminated, I + 1);
    EXPECT_EQ(Rec.Ran, Rows[I].RanAfter);
    if (I == 0) {
      EXPECT_EQ(Rec.RanOn, Tid);
    }
  }
  ASSERT_EQ(Dialogs.Count(), 1u);
  EXPECT_NE(Dialogs.Line(0).find("|task failed.|"), std::string::npos);
  EXPECT_TRUE(Rec.AllOnMain);
}

// ---------------------------------------------------------------------------
// Windows

TEST(WindowsHandle, MadeOnFirstUseNeverTwiceAndOnlyTheReceiverHandles) {
  EXPECT_EQ(ErrorOf([] { TWindowsHandle Bad(nullptr); }),
            "EWindowsHandleError: Receiver can not be nil");
  TWindowReceiver Rec;
  IPtr<IAllocHandle> W(new TWindowsHandle(&Rec));
  EXPECT_FALSE(W->HandleAllocated());
  const HWND H = W->GetHandle();
  EXPECT_NE(H, 0u);
  EXPECT_TRUE(IsWindow(H));
  EXPECT_EQ(W->GetHandle(), H);
  EXPECT_EQ(SendMessage(H, WM_WORK, 7, 0), 42);
  EXPECT_EQ(SendMessage(H, WM_NOHANDLER, 0, 0), 0);
  EXPECT_EQ(Rec.Got, std::vector<std::string>{"10/7"});
  EXPECT_EQ(Rec.Defaults, 1);

  W->FreeHandle();
  EXPECT_FALSE(IsWindow(H));
  EXPECT_TRUE(W->HandleAllocated());
  EXPECT_EQ(W->GetHandle(), H);  // the old handle, no new window
  EXPECT_FALSE(PostMessage(H, WM_WORK, 0, 0));
}

TEST(SubscribeThread, RegistrationRulesAndNotificationOrder) {
  TWindowReceiver RecA, RecB;
  const HWND A = AllocateHWnd(&RecA);
  const HWND B = AllocateHWnd(&RecB);
  IPtr<ISubscribeThread> S(new TSubscribeThread);
  auto* Obj = static_cast<TSubscribeThread*>(S.get());
  S->RegisterHandle(A);
  S->RegisterHandle(A);  // A sits at index 0: added again
  S->RegisterHandle(B);
  S->RegisterHandle(B);  // B sits at index 2: not added
  ASSERT_EQ(Obj->Handles().Count(), 3);
  EXPECT_EQ(static_cast<HWND>(Obj->Handles()[0]), A);
  EXPECT_EQ(static_cast<HWND>(Obj->Handles()[1]), A);
  EXPECT_EQ(static_cast<HWND>(Obj->Handles()[2]), B);

  IPtr<INotifyThread> N = S.As<INotifyThread>();
  N->ThreadNotify(WM_WORK, 5, 0);
  Application->ProcessMessages();
  EXPECT_EQ(RecA.Got, (std::vector<std::string>{"10/5", "10/5"}));
  EXPECT_EQ(RecB.Got, std::vector<std::string>{"10/5"});

  S->UnRegisterHandle(A);  // first occurrence at index 0: kept
  EXPECT_EQ(Obj->Handles().Count(), 3);
  S->UnRegisterHandle(B);
  EXPECT_EQ(Obj->Handles().Count(), 2);
  S->UnRegisterHandle(B);  // not listed
  EXPECT_EQ(Obj->Handles().Count(), 2);
  DeallocateHWnd(A);
  DeallocateHWnd(B);
  N->ThreadNotify(WM_WORK, 6, 0);  // posts to dead windows are ignored
}

TEST(NotifyThread, AWindowedOwnerIsRegisteredAndSetNotifyOwnerToggles) {
  TWinControl Control;
  TComponent Plain;
  auto* T = new TWorker(true, false, &Control);
  EXPECT_TRUE(T->NotifyOwner());
  EXPECT_TRUE(Control.HandleAllocated());
  EXPECT_EQ(T->NotifyList()->Count(), 1);
  T->SetNotifyOwner(false);
  EXPECT_EQ(T->NotifyList()->Count(), 0);
  EXPECT_NO_THROW(T->SetNotifyOwner(false));  // unchanged: no second delete
  T->SetNotifyOwner(true);
  EXPECT_EQ(T->NotifyList()->Count(), 1);
  T->RegisterNotify(&Plain, 0);  // no handle: ignored
  T->RegisterNotify(nullptr, 5);
  EXPECT_EQ(T->NotifyList()->Count(), 1);
  delete T;

  auto* U = new TWorker(true, false, &Plain);
  EXPECT_FALSE(U->NotifyOwner());
  EXPECT_EQ(U->NotifyList()->Count(), 0);
  delete U;
}

// ---------------------------------------------------------------------------
// The thread manager

TEST_F(ThreadManagerTest, SingletonAndItsMessages) {
  IPtr<IThreadManager> A = ThreadManager();
  IPtr<IThreadManager> B = TThreadManager::ThreadManager();
  EXPECT_EQ(A.get(), B.get());
  EXPECT_EQ(ErrorOf([] { delete new TThreadManager; }),
            "EThreadManager: Thread Manager already Instanciated");
  A = nullptr;
  B = nullptr;
  ReleaseThreadManager();
  EXPECT_FALSE(CurrentThreadManager());
  EXPECT_EQ(ErrorOf([] { delete new TThreadManager; }),
            "EThreadManager: Call ThreadManager() function to Reference this class");
  // The failed constructions left no singleton behind; the next call makes
  // a new one whose window belongs to the main thread.
  EXPECT_FALSE(CurrentThreadManager());
  IPtr<IHandle> H = ThreadManager().As<IHandle>();
  EXPECT_EQ(GetWindowThreadProcessId(H->GetHandle()), MainThreadID());
  EXPECT_EQ(ThreadManager()->GetCount(), 0);
}

TEST_F(ThreadManagerTest, ThreadsRegisterLeaveAndAreNotifiedOncePerOperation) {
  IPtr<IThreadManager> M = ThreadManager();
  auto* Watcher = new TThreadWatcher(M.As<ISubscribe>());
  const HWND MgrWnd = M.As<IHandle>()->GetHandle();
  std::vector<TWorker*> Workers;
  for (int I = 0; I < 3; ++I) Workers.push_back(new TWorker(false));
  ASSERT_EQ(M->GetCount(), 3);
  for (auto* W : Workers) EXPECT_EQ(W->ThreadMgrHwnd(), static_cast<int32_t>(MgrWnd));
  EXPECT_EQ(M->FindThread(Workers[1]->ThreadID()).get(), static_cast<IThread*>(Workers[1]));
  M->RegisterThread(Workers[0]);  // listed already: nothing
  EXPECT_EQ(M->GetCount(), 3);

  // NotifyMgr reaches the manager's window only while registered.
  Workers[0]->NotifyMgr(WM_WORK, 1, 0);
  TMsg Msg;
  EXPECT_TRUE(PeekMessage(&Msg, MgrWnd, WM_WORK, WM_WORK, PM_REMOVE));

  M->TerminateThreads();
  EXPECT_EQ(M->GetCount(), 0);
  for (auto* W : Workers) {
    EXPECT_EQ(W->ThreadMgrHwnd(), 0);
    EXPECT_TRUE(W->Terminated());
  }
  Workers[0]->NotifyMgr(WM_WORK, 2, 0);
  EXPECT_FALSE(PeekMessage(&Msg, MgrWnd, WM_WORK, WM_WORK, PM_REMOVE));

  std::vector<std::string> Expected;
  for (auto* W : Workers) Expected.push_back("0:" + std::to_string(W->ThreadID()));
  for (int I = 2; I >= 0; --I) Expected.push_back("1:" + std::to_string(Workers[I]->ThreadID()));
  EXPECT_EQ(Watcher->Log, Expected);
  for (auto* W : Workers) delete W;  // wakes each with the quit message
  EXPECT_EQ(Watcher->Count(), 6u);   // destruction sends nothing more
  delete Watcher;
}

// Answers out of order complete WaitForRequests; answers to no request are
// ignored; a request without an interface is answered all the same.
TEST_F(ThreadManagerTest, RequestsAnsweredOutOfOrderCompleteWaitForRequests) {
  TThreadManager* M = Manager();
  EXPECT_TRUE(M->Completed());
  M->WaitForRequests();  // nothing outstanding: returns at once

  auto* W = new TWorker(true);
  W->Mode = TWorker::HoldPair;
  W->Resume();
  IPtr<IStringsAdapter> Target(new TStringsAdapter);
  auto* Lines = static_cast<TStringsAdapter*>(Target.get());
  const int32_t Tid = static_cast<int32_t>(W->ThreadID());
  const int32_t First = M->SendDataRequest(Tid, IIDOf<IStringsAdapter>, Target, "first");
  const int32_t Second = M->SendDataRequest(Tid, IIDOf<IStringsAdapter>, Target, "second");
  EXPECT_EQ(First, Tid);
  EXPECT_EQ(Second, First + 1);
  EXPECT_FALSE(M->Completed());

  // The worker answers the second request and holds the first.
  ASSERT_TRUE(PumpUntil([&] { return M->RequestCount() == 1; }));
  PostMessage(M->GetHandle(), WM_COMPLETEDREQUEST, static_cast<WPARAM>(Tid + 77), 0);
  Application->ProcessMessages();
  EXPECT_EQ(M->RequestCount(), 1);
  EXPECT_FALSE(M->Completed());
  W->AnswerFirst.SetEvent();
  M->WaitForRequests();
  EXPECT_TRUE(M->Completed());
  EXPECT_EQ(M->RequestCount(), 0);
  {
    std::lock_guard<std::mutex> L(Lines->Lock);
    EXPECT_EQ(Lines->Lines, (std::vector<std::string>{"first done", "second done"}));
  }
  // The identifiers start again from the empty list.
  W->Mode = TWorker::Answer;
  EXPECT_EQ(M->SendDataRequest(Tid, IIDOf<IStringsAdapter>, nullptr, "third"), Tid);
  M->WaitForRequests();
  EXPECT_EQ(W->Seen, 3);
  delete W;
}

// Posts to a worker whose queue does not exist yet are retried until it
// does; WaitForRequests off the main thread waits for the main loop.
TEST_F(ThreadManagerTest, PostsAreRetriedUntilTheQueueExistsAndWaitsOffTheMainThread) {
  TThreadManager* M = Manager();
  auto* W = new TPlainLoopThread;
  const DWORD Tid = W->ThreadID();
  // No queue yet: a plain post fails.
  SetLastError(0);
  ASSERT_FALSE(PostThreadMessage(Tid, WM_NULL, 0, 0));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_THREAD_ID);
  std::thread Starter([W] {
    Sleep(30);
    W->Resume();
  });
  IPtr<IStringsAdapter> Target(new TStringsAdapter);
  auto* Lines = static_cast<TStringsAdapter*>(Target.get());
  M->SendDataRequest(static_cast<int32_t>(Tid), IIDOf<IStringsAdapter>, Target, "late");
  Starter.join();
  M->WaitForRequests();
  EXPECT_EQ(Lines->Lines, std::vector<std::string>{"late done"});

  std::atomic<bool> Done{false};
  std::thread Other([&] {
    M->SendDataRequest(static_cast<int32_t>(Tid), IIDOf<IStringsAdapter>, Target, "off");
    M->WaitForRequests();
    Done = true;
  });
  ASSERT_TRUE(PumpUntil([&] { return Done.load(); }));
  Other.join();
  std::lock_guard<std::mutex> L(Lines->Lock);
  EXPECT_EQ(Lines->Lines, (std::vector<std::string>{"late done", "off done"}));
  delete W;
}

TEST_F(ThreadManagerTest, ReleasingTheManagerTerminatesAndJoinsWaitingQueueThreads) {
  std::vector<std::shared_ptr<const TThreadExitState>> Exits;
  TRecorder Rec;
  for (int I = 0; I < 4; ++I) {
    // Freed by themselves when they end; nobody else stops them.
    auto* W = new TWorker(true, true);
    W->OnTerminate = TNotifyEvent::Bind<&TRecorder::OnTerminate>(&Rec);
    Exits.push_back(W->ExitState());
    W->Resume();
  }
  IPtr<IThreadManager> M = ThreadManager();
  auto* Watcher = new TThreadWatcher(M.As<ISubscribe>());
  ASSERT_TRUE(PumpUntil([&] {
    for (int I = 0; I < M->GetCount(); ++I)
      if (!static_cast<TWorker*>(M->GetThread(I).get())->Status().Contains(tsIdle)) return false;
    return true;
  }));
  ASSERT_EQ(M->GetCount(), 4);
  M = nullptr;
  ReleaseThreadManager();
  for (auto& E : Exits) EXPECT_TRUE(E->Exited);
  EXPECT_EQ(Rec.Terminated, 4);  // their OnTerminate ran on this thread meanwhile
  EXPECT_TRUE(Rec.AllOnMain);
  // One toTerminate each, sent while the manager went; the source it
  // belonged to detached the watcher.
  ASSERT_EQ(Watcher->Count(), 4u);
  for (auto& Line : Watcher->Log) EXPECT_EQ(Line.substr(0, 2), "1:");
  EXPECT_FALSE(Watcher->GetSubscribe());
  delete Watcher;
}

// ---------------------------------------------------------------------------
// Faults found under load

TEST_F(ThreadManagerTest, ThreadsWhoseIdentifiersDifferByOneKeepSeparateRequests) {
  TThreadManager* M = Manager();
  // Two workers with consecutive identifiers (the usual case on Linux;
  // retried a few times in case another thread slipped between).
  std::unique_ptr<TWorker> A, B;
  for (int Try = 0; Try < 20; ++Try) {
    A = GatedWorker("for A");
    B = GatedWorker("for B");
    if (B->ThreadID() == A->ThreadID() + 1) break;
  }
  ASSERT_EQ(B->ThreadID(), A->ThreadID() + 1);
  const auto TidA = static_cast<int32_t>(A->ThreadID());
  const auto TidB = static_cast<int32_t>(B->ThreadID());

  // Index 0 + (T + 1) and index 1 + T: the same sum.
  const int32_t ForB = M->SendDataRequest(TidB, IIDOf<IStringsAdapter>, nullptr, "for B");
  const int32_t ForA = M->SendDataRequest(TidA, IIDOf<IStringsAdapter>, nullptr, "for A");
  EXPECT_EQ(ForB, TidB);
  EXPECT_NE(ForA, ForB);
  ASSERT_TRUE(PumpUntil([&] { return A->Seen == 1 && B->Seen == 1; }));

  // A's answer completes A's request only.
  A->Gate.SetEvent();
  ASSERT_TRUE(PumpUntil([&] { return M->RequestCount() == 1; }));
  Application->ProcessMessages();
  EXPECT_EQ(M->RequestCount(), 1);
  EXPECT_FALSE(M->Completed());
  B->Gate.SetEvent();
  M->WaitForRequests();
  EXPECT_TRUE(M->Completed());
  EXPECT_TRUE(A->DataIntact);
  EXPECT_TRUE(B->DataIntact);  // B read its record after A's answer
  EXPECT_EQ(A->Answered + B->Answered, 2);
}

TEST_F(ThreadManagerTest, AReusedIndexGetsAnIdentifierNoOutstandingRequestHas) {
  TThreadManager* M = Manager();
  auto W = GatedWorker("x");
  const auto Tid = static_cast<int32_t>(W->ThreadID());
  W->Gate.SetEvent();
  EXPECT_EQ(M->SendDataRequest(Tid, IIDOf<IStringsAdapter>, nullptr, "x"), Tid);
  M->WaitForRequests();
  W->Mode = TWorker::Ignore;
  // Requests at index 0 and 1; once the first is answered, a third takes
  // index 1 again, where Tid + 1 is still outstanding.
  const int32_t First = M->SendDataRequest(Tid, IIDOf<IStringsAdapter>, nullptr, "x");
  const int32_t Second = M->SendDataRequest(Tid, IIDOf<IStringsAdapter>, nullptr, "x");
  EXPECT_EQ(Second, First + 1);
  PostMessage(M->GetHandle(), WM_COMPLETEDREQUEST, static_cast<WPARAM>(First), 0);
  ASSERT_TRUE(PumpUntil([&] { return M->RequestCount() == 1; }));
  const int32_t Third = M->SendDataRequest(Tid, IIDOf<IStringsAdapter>, nullptr, "x");
  EXPECT_EQ(Third, Second + 1);
  PostMessage(M->GetHandle(), WM_COMPLETEDREQUEST, static_cast<WPARAM>(Second), 0);
  ASSERT_TRUE(PumpUntil([&] { return M->RequestCount() == 1; }));
  PostMessage(M->GetHandle(), WM_COMPLETEDREQUEST, static_cast<WPARAM>(Third), 0);
  ASSERT_TRUE(PumpUntil([&] { return M->Completed(); }));
  EXPECT_EQ(W->Seen, 4);
}

TEST_F(ThreadManagerTest, SubscribersThatSynchroniseDoNotDeadlockTheMainThread) {
  TWatchdog Guard(60);
  IPtr<IThreadManager> M = ThreadManager();
  auto* Watcher = new TThreadWatcher(M.As<ISubscribe>(), true);
  // Workers end on their own threads (synchronising from their
  // notifications) while the main thread registers new threads and
  // terminates all of them.
  for (int Round = 0; Round < 40; ++Round) {
    for (int I = 0; I < 4; ++I) (new TCountedTask)->Resume();
    std::vector<std::unique_ptr<TWorker>> Workers;
    for (int I = 0; I < 3; ++I) Workers.push_back(std::make_unique<TWorker>(false));
    M->TerminateThreads();
    Workers.clear();
    Application->ProcessMessages();
  }
  ASSERT_TRUE(PumpUntil([&] { return M->GetCount() == 0; }));
  M = nullptr;
  ReleaseThreadManager();
  EXPECT_GT(Watcher->Synced.load(), 0);  // some notifications did synchronise
  // Every thread was announced and seen leaving: 40 * 7 threads.
  EXPECT_EQ(Watcher->Count(), 2u * 40 * 7);
  delete Watcher;
}

TEST_F(ThreadManagerTest, ANotifierLeavingWhileNotifiedOnAnotherThreadIsWaitedFor) {
  TWatchdog Guard(30);
  IPtr<IThreadManager> M = ThreadManager();
  // Removing (and freeing) the watcher on the main thread while a worker's
  // notification to it synchronises: the removal serves the worker's
  // request and returns after the call, so the watcher is never used
  // freed.
  for (int Round = 0; Round < 20; ++Round) {
    // Added once complete: threads are notifying meanwhile.
    auto* Watcher = new TThreadWatcher(nullptr, true);
    M.As<ISubscribe>()->AddNotifier(Watcher->AsCustomNotifier());
    (new TCountedTask)->Resume();
    Sleep(Round % 3);
    delete Watcher;
  }
  ASSERT_TRUE(PumpUntil([&] { return M->GetCount() == 0; }));
}

TEST_F(ThreadManagerTest, RequestsNoWorkerTookAreReleasedWithTheManager) {
  std::atomic<int> Destroyed{0};
  {
    TThreadManager* M = Manager();
    auto W = GatedWorker("kept");
    {
      IPtr<IStringsAdapter> Target(new TStringsAdapter(&Destroyed));
      M->SendDataRequest(static_cast<int32_t>(W->ThreadID()), IIDOf<IStringsAdapter>, Target,
                         "kept");
    }
    ASSERT_TRUE(PumpUntil([&] { return W->Seen == 1; }));
    EXPECT_EQ(Destroyed, 0);  // the marshalled reference keeps it
  }  // the worker ends with the request unanswered and its interface untaken
  ReleaseThreadManager();
  EXPECT_EQ(Destroyed, 1);
}
