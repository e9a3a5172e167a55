// The thread classes: the execute loop and its exception reports, the
// status set, message-queue and task threads, the window object, the
// subscribe thread's registration rules, the thread manager's singleton,
// notifications, data requests and shutdown.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "vel/ThreadClasses.h"
#include "vel/rtl/Controls.h"
#include "vel/rtl/SysUtils.h"
#include "vel/rtl/TypInfo.h"

using namespace vel;

namespace tctest {

constexpr UINT WM_WORK = WM_USER + 10;
constexpr UINT WM_FAILWORK = WM_USER + 11;
constexpr UINT WM_NOHANDLER = WM_USER + 12;

// Serves the main thread's side (Synchronize requests and posted messages)
// until Done holds or Ms milliseconds have passed; returns Done().
bool PumpUntil(const std::function<bool()>& Done, int Ms = 10000) {
  const auto End = std::chrono::steady_clock::now() + std::chrono::milliseconds(Ms);
  while (!Done()) {
    if (std::chrono::steady_clock::now() > End) return false;
    Application->ProcessMessages();
    CheckSynchronize(2);
  }
  return true;
}

// A string list behind an interface, to carry through a data request.
struct IStringsAdapter : IInterface {
  VEL_INTERFACE_ID("{0C7E0B1E-5D7A-4F1B-9A57-6C2D3E4F5A61}")
  virtual void Append(const std::string& S) = 0;
};

class TStringsAdapter : public TInterfacedObject, public IStringsAdapter {
  VEL_CLASS(TStringsAdapter, TInterfacedObject)
  VEL_INTERFACES(IStringsAdapter)
 public:
  std::mutex Lock;
  std::vector<std::string> Lines;
  void Append(const std::string& S) override {
    std::lock_guard<std::mutex> L(Lock);
    Lines.push_back(S);
  }
};

// Collects message boxes.
struct TDialogLog {
  std::mutex Lock;
  std::vector<std::string> Lines;
  TDialogSink Old;
  TDialogLog() {
    Old = SetDialogSink([this](const std::string& Text, const std::string& Caption, UINT Type) {
      std::lock_guard<std::mutex> L(Lock);
      Lines.push_back(Caption + "|" + Text + "|" + std::to_string(Type));
      return IDOK;
    });
  }
  ~TDialogLog() { SetDialogSink(Old); }
  size_t Count() {
    std::lock_guard<std::mutex> L(Lock);
    return Lines.size();
  }
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
  void OnReceived(TObject*, TMsg& M) {
    AllOnMain &= GetCurrentThreadId() == MainThreadID();
    Events.push_back("received " + std::to_string(M.message - WM_USER));
  }
  void OnProcessed(TObject*, TMsg& M) {
    AllOnMain &= GetCurrentThreadId() == MainThreadID();
    Events.push_back("processed " + std::to_string(M.message - WM_USER));
  }
  void OnTerminate(TObject*) {
    AllOnMain &= GetCurrentThreadId() == MainThreadID();
    ++Terminated;
  }
};

// A round that fails every time, with its number.
class TFailingThread : public TCustomThread {
  VEL_CLASS(TFailingThread, TCustomThread)
 public:
  TFailingThread() : TCustomThread(nullptr, true, false) {}
  ~TFailingThread() override { StopThread(false); }
  std::atomic<int> Rounds{0};

 protected:
  void SafeExecute() override {
    throw EThreadError("round " + std::to_string(++Rounds));
  }
};

// Logs its hooks; DoStartExecute can be held until the test lets it go.
class THookThread : public TCustomThread {
  VEL_CLASS(THookThread, TCustomThread)
 public:
  explicit THookThread(bool HoldStart) : TCustomThread(nullptr, true, false), FHold(HoldStart) {}
  ~THookThread() override { StopThread(false); }
  TSimpleEvent Started;
  TSimpleEvent Release;
  std::mutex Lock;
  std::vector<std::string> Log;

 protected:
  void Note(const char* S) {
    std::lock_guard<std::mutex> L(Lock);
    Log.push_back(S);
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
  void DoBeginLoop() override { Note("begin"); }
  void SafeExecute() override { Note("round"); }

 private:
  bool FHold;
};

// A message-queue worker: WM_WORK returns WParam * 2 and records the status
// it runs with; WM_FAILWORK raises; data requests are answered at once, or
// held and answered in reverse order once two have arrived.
class TWorker : public TMsgQueThread {
  VEL_CLASS(TWorker, TMsgQueThread)
 public:
  explicit TWorker(bool CreateSuspended = false, bool FreeOnTerminate = false,
                   TComponent* AOwner = nullptr)
      : TMsgQueThread(AOwner, true, FreeOnTerminate) {
    if (!CreateSuspended) Resume();
  }
  ~TWorker() override { StopThread(true); }

  std::atomic<uint32_t> StatusInWork{0};
  std::atomic<int> Worked{0};
  bool HoldRequests = false;
  TSimpleEvent AnswerFirst;  // set by the test to let the held first answer go
  std::atomic<int> Seen{0};  // requests received

  void WMWork(TMessage& M) {
    StatusInWork = Status().ToOrd();
    M.Result = static_cast<LRESULT>(M.WParam * 2);
    ++Worked;
  }
  void WMFailWork(TMessage&) { throw EConvertError("cannot work"); }
  void WMDataRequest(TMessage& M) {
    auto* R = reinterpret_cast<TRequestRecord*>(M.WParam);
    IPtr<IStringsAdapter> Target;
    if (TakeRequestInterface(R, Target.Out()) == S_OK) Target->Append(R->Data + " done");
    ++Seen;
    if (!HoldRequests) {
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

// Counts its destruction.
class TCountedTask : public TTaskThread {
  VEL_CLASS(TCountedTask, TTaskThread)
 public:
  TCountedTask(TNotifyEvent OnEnd, TTaskThreadMethod Task, std::atomic<int>* Destroyed)
      : TTaskThread(true, OnEnd, Task), FDestroyed(Destroyed) {}
  ~TCountedTask() override { ++*FDestroyed; }

 private:
  std::atomic<int>* FDestroyed;
};

class TTasks : public TObject {
 public:
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

// Records thread notifications: "<operation>:<thread id>".
class TThreadWatcher : public TThreadNotifier {
  VEL_CLASS(TThreadWatcher, TThreadNotifier)
 public:
  using TThreadNotifier::TThreadNotifier;
  std::mutex Lock;
  std::vector<std::string> Log;
  void ThreadNotification(IInterface* Unk, int32_t Operation) override {
    IPtr<IThread> T;
    ASSERT_TRUE(Supports(Unk, T));
    std::lock_guard<std::mutex> L(Lock);
    Log.push_back(std::to_string(Operation) + ":" + std::to_string(T->GetThreadID()));
  }
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
VEL_IMPLEMENT(TFailingThread)
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

TEST(ThreadClasses, EveryFailingRoundIsReportedOnTheMainThreadAndTheLoopGoesOn) {
  TRecorder Rec;
  auto* T = new TFailingThread;
  Rec.Thread = T;
  T->OnException = TThreadExceptionEvent::Bind<&TRecorder::OnError>(&Rec);
  T->Resume();
  ASSERT_TRUE(PumpUntil([&] { return Rec.Errors.size() >= 5; }));
  // The worker waits for each report, so no round is skipped or doubled.
  EXPECT_EQ(Rec.Errors[0], "round 1");
  EXPECT_EQ(Rec.Errors[4], "round 5");
  for (size_t I = 0; I < Rec.Errors.size(); ++I)
    EXPECT_EQ(Rec.Errors[I], "round " + std::to_string(I + 1));
  EXPECT_TRUE(Rec.AllOnMain);
  EXPECT_TRUE(Rec.SawLastException);
  EXPECT_TRUE(T->Status().Contains(tsExecuting));
  EXPECT_FALSE(T->Finished());
  delete T;  // terminates the loop and waits for it
}

TEST(ThreadClasses, WithoutOnExceptionTheApplicationShowsEachError) {
  TDialogLog Dialogs;
  auto* T = new TFailingThread;
  T->Resume();
  ASSERT_TRUE(PumpUntil([&] { return Dialogs.Count() >= 3; }));
  delete T;
  std::lock_guard<std::mutex> L(Dialogs.Lock);
  EXPECT_EQ(Dialogs.Lines[0], Application->Title() + "|round 1.|" +
                                  std::to_string(MB_OK | MB_ICONSTOP));
  EXPECT_EQ(Dialogs.Lines[2].substr(0, Application->Title().size() + 9),
            Application->Title() + "|round 3.");
}

TEST(ThreadClasses, TerminateBeforeTheFirstRoundStillRunsStartAndFinishOnce) {
  // Terminated while DoStartExecute runs: the loop's first test ends it.
  auto* T = new THookThread(true);
  T->Resume();
  ASSERT_EQ(T->Started.WaitFor(10000), wrSignaled);
  T->Terminate();
  T->Release.SetEvent();
  T->WaitFor();
  EXPECT_EQ(T->Log, (std::vector<std::string>{"start", "finish"}));
  EXPECT_TRUE(T->Status().Empty());
  delete T;

  // Terminated before it was ever resumed.
  auto* U = new THookThread(false);
  U->Terminate();
  U->Resume();
  U->WaitFor();
  EXPECT_EQ(U->Log, (std::vector<std::string>{"start", "finish"}));
  delete U;
}

TEST(ThreadClasses, StatusValuesAboveSevenChangeNothing) {
  auto* T = new TWorker(true);
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

TEST(ThreadClasses, VerifyShowsServerErrorAndRaises) {
  TDialogLog Dialogs;
  EXPECT_NO_THROW(Verify(true, "fine"));
  EXPECT_EQ(Dialogs.Count(), 0u);
  try {
    Verify(false, "x");
    FAIL() << "Verify(false) returned";
  } catch (const Exception& E) {
    EXPECT_STREQ(E.ClassName(), "Exception");
    EXPECT_EQ(E.Message(), "x");
  }
  ASSERT_EQ(Dialogs.Count(), 1u);
  EXPECT_EQ(Dialogs.Lines[0], "Server Error|x|16");
}

// ---------------------------------------------------------------------------
// Message-queue threads

TEST(MsgQueThread, StatusThroughItsLifeAndEventsAroundEachMessage) {
  TRecorder Rec;
  auto* T = new TWorker(true);
  EXPECT_TRUE(T->Status().Empty());
  T->OnMsgReceived = TThreadMsgEvent::Bind<&TRecorder::OnReceived>(&Rec);
  T->OnMsgProcessed = TThreadMsgEvent::Bind<&TRecorder::OnProcessed>(&Rec);
  T->Resume();
  ASSERT_TRUE(PumpUntil([&] { return T->Status() == TThreadStatus{tsExecuting, tsIdle}; }));

  ASSERT_TRUE(PostThreadMessage(T->ThreadID(), WM_WORK, 21, 0));
  ASSERT_TRUE(PostThreadMessage(T->ThreadID(), WM_NOHANDLER, 0, 0));
  ASSERT_TRUE(PumpUntil([&] { return Rec.Events.size() == 4; }));
  EXPECT_EQ(Rec.Events, (std::vector<std::string>{"received 10", "processed 10", "received 12",
                                                    "processed 12"}));
  EXPECT_EQ(TThreadStatus::FromOrd(T->StatusInWork), (TThreadStatus{tsExecuting, tsBusy}));
  EXPECT_TRUE(Rec.AllOnMain);
  ASSERT_TRUE(PumpUntil([&] { return T->Status() == TThreadStatus{tsExecuting, tsIdle}; }));

  // The quit message ends it without events.
  ASSERT_TRUE(T->PostTerminate());
  T->WaitFor();
  EXPECT_EQ(Rec.Events.size(), 4u);
  EXPECT_EQ(T->Status(), TThreadStatus{tsIdle});
  EXPECT_TRUE(T->Terminated());
  EXPECT_EQ(T->CurrentMsg().message, WM_QUIT);
  EXPECT_FALSE(T->PostTerminate());  // its queue is gone
  delete T;
}

TEST(MsgQueThread, PerformDispatchesOnTheCallersThread) {
  auto* T = new TWorker(true);
  EXPECT_EQ(T->Perform(WM_WORK, 50, 0), 100);
  EXPECT_EQ(T->Perform(WM_NOHANDLER, 1, 2), 0);
  EXPECT_EQ(T->Worked, 1);
  EXPECT_THROW(T->Perform(WM_FAILWORK, 0, 0), EConvertError);
  delete T;  // never started
}

TEST(MsgQueThread, AFailingMessageIsReportedAndTheNextOneServed) {
  TRecorder Rec;
  auto* T = new TWorker(true);
  Rec.Thread = T;
  T->OnException = TThreadExceptionEvent::Bind<&TRecorder::OnError>(&Rec);
  T->Resume();
  ASSERT_TRUE(PumpUntil([&] { return PostThreadMessage(T->ThreadID(), WM_FAILWORK, 0, 0); }));
  ASSERT_TRUE(PostThreadMessage(T->ThreadID(), WM_WORK, 1, 0));
  ASSERT_TRUE(PumpUntil([&] { return T->Worked == 1; }));
  EXPECT_EQ(Rec.Errors, std::vector<std::string>{"cannot work"});
  delete T;  // posts the quit message and waits
}

// The queue exists once the constructor returns, running or suspended:
// posts made at once are all served, in order. A plain thread keeps the
// runtime's rule (no queue until it asks for messages), and a worker freed
// before it ever ran leaves no queue behind.
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
  TTasks Tasks;
  std::atomic<int> Destroyed{0};

  auto* A = new TCountedTask(TNotifyEvent::Bind<&TRecorder::OnTerminate>(&Rec),
                             TTaskThreadMethod::Bind<&TTasks::Run>(&Tasks), &Destroyed);
  const DWORD ATid = A->ThreadID();
  A->Resume();
  ASSERT_TRUE(PumpUntil([&] { return Destroyed == 1; }));
  EXPECT_EQ(Rec.Terminated, 1);
  EXPECT_EQ(Tasks.Ran, 1);
  EXPECT_EQ(Tasks.RanOn, ATid);

  // No task: terminates at once, the handler still fires.
  auto* B = new TCountedTask(TNotifyEvent::Bind<&TRecorder::OnTerminate>(&Rec), nullptr,
                             &Destroyed);
  B->Resume();
  ASSERT_TRUE(PumpUntil([&] { return Destroyed == 2; }));
  EXPECT_EQ(Rec.Terminated, 2);

  // A raising task: reported, then the same end.
  auto* C = new TCountedTask(TNotifyEvent::Bind<&TRecorder::OnTerminate>(&Rec),
                             TTaskThreadMethod::Bind<&TTasks::Fail>(&Tasks), &Destroyed);
  C->Resume();
  ASSERT_TRUE(PumpUntil([&] { return Destroyed == 3; }));
  EXPECT_EQ(Rec.Terminated, 3);
  EXPECT_EQ(Tasks.Ran, 2);
  ASSERT_EQ(Dialogs.Count(), 1u);
  EXPECT_NE(Dialogs.Lines[0].find("|task failed.|"), std::string::npos);
  EXPECT_TRUE(Rec.AllOnMain);
}

// ---------------------------------------------------------------------------
// Windows

TEST(WindowsHandle, MadeOnFirstUseNeverTwiceAndOnlyTheReceiverHandles) {
  try {
    TWindowsHandle Bad(nullptr);
    FAIL() << "created without receiver";
  } catch (const EWindowsHandleError& E) {
    EXPECT_EQ(E.Message(), "Receiver can not be nil");
  }
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
  EXPECT_FALSE(IsWindow(H));
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
  try {
    delete new TThreadManager;
    FAIL() << "constructed directly";
  } catch (const EThreadManager& E) {
    EXPECT_EQ(E.Message(), "Thread Manager already Instanciated");
  }
  A = nullptr;
  B = nullptr;
  ReleaseThreadManager();
  EXPECT_FALSE(CurrentThreadManager());
  try {
    delete new TThreadManager;
    FAIL() << "constructed directly";
  } catch (const EThreadManager& E) {
    EXPECT_EQ(E.Message(), "Call ThreadManager() function to Reference this class");
  }
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
  EXPECT_EQ(Watcher->Log.size(), 6u);  // destruction sends nothing more
  delete Watcher;
}

TEST_F(ThreadManagerTest, RequestsAnsweredOutOfOrderCompleteWaitForRequests) {
  TThreadManager* M = Manager();
  EXPECT_TRUE(M->Completed());
  M->WaitForRequests();  // nothing outstanding: returns at once

  auto* W = new TWorker(true);
  W->HoldRequests = true;
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
  W->HoldRequests = false;
  EXPECT_EQ(M->SendDataRequest(Tid, IIDOf<IStringsAdapter>, Target, "third"), Tid);
  M->WaitForRequests();
  delete W;
}

TEST_F(ThreadManagerTest, UnknownAnswersAreIgnored) {
  TThreadManager* M = Manager();
  auto* W = new TWorker(true);
  W->HoldRequests = true;
  W->Resume();
  const int32_t Tid = static_cast<int32_t>(W->ThreadID());
  M->SendDataRequest(Tid, IIDOf<IStringsAdapter>, nullptr, "a");
  const HWND MgrWnd = M->GetHandle();
  PostMessage(MgrWnd, WM_COMPLETEDREQUEST, static_cast<WPARAM>(Tid + 77), 0);
  ASSERT_TRUE(PumpUntil([&] { return W->Seen == 1; }));
  Application->ProcessMessages();
  EXPECT_EQ(M->RequestCount(), 1);
  EXPECT_FALSE(M->Completed());
  M->SendDataRequest(Tid, IIDOf<IStringsAdapter>, nullptr, "b");
  W->AnswerFirst.SetEvent();
  M->WaitForRequests();
  EXPECT_EQ(M->RequestCount(), 0);
  delete W;
}

TEST_F(ThreadManagerTest, PostsAreRetriedUntilTheWorkersQueueExists) {
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
  M->SendDataRequest(static_cast<int32_t>(Tid), IIDOf<IStringsAdapter>, Target, "late");
  Starter.join();
  M->WaitForRequests();
  EXPECT_EQ(static_cast<TStringsAdapter*>(Target.get())->Lines,
            std::vector<std::string>{"late done"});
  delete W;
}

TEST_F(ThreadManagerTest, WaitForRequestsOffTheMainThreadWaitsForTheMainLoop) {
  TThreadManager* M = Manager();
  auto* W = new TWorker(false);
  std::atomic<bool> Done{false};
  std::thread Other([&] {
    IPtr<IStringsAdapter> Target(new TStringsAdapter);
    M->SendDataRequest(static_cast<int32_t>(W->ThreadID()), IIDOf<IStringsAdapter>, Target, "x");
    M->WaitForRequests();
    Done = true;
  });
  ASSERT_TRUE(PumpUntil([&] { return Done.load(); }));
  Other.join();
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
  ASSERT_EQ(Watcher->Log.size(), 4u);
  for (auto& Line : Watcher->Log) EXPECT_EQ(Line.substr(0, 2), "1:");
  EXPECT_FALSE(Watcher->GetSubscribe());
  delete Watcher;
}

// ---------------------------------------------------------------------------
// Faults found under load: colliding request identifiers, notifications
// that synchronise, threads freed suspended, requests nobody took.

namespace tctest {

// Answers a data request only when the test opens its gate; checks, at
// answer time, that the record still holds what the test sent.
class TGatedWorker : public TMsgQueThread {
  VEL_CLASS(TGatedWorker, TMsgQueThread)
 public:
  explicit TGatedWorker(std::string Expect) : TMsgQueThread(nullptr, true, false), FExpect(std::move(Expect)) {
    Resume();
  }
  ~TGatedWorker() override {
    Gate.SetEvent();
    StopThread(true);
  }
  TSimpleEvent Gate;
  std::atomic<int> Seen{0};
  std::atomic<int> Answered{0};
  std::atomic<bool> DataIntact{true};
  // Counts requests without ever reading or answering them (the test
  // answers in the worker's place).
  std::atomic<bool> Ignore{false};

  void WMDataRequest(TMessage& M) {
    auto* R = reinterpret_cast<TRequestRecord*>(M.WParam);
    ++Seen;
    if (Ignore) return;
    Gate.WaitFor(INFINITE);
    if (R->Data != FExpect) DataIntact = false;
    ++Answered;
    NotifyMgr(WM_COMPLETEDREQUEST, static_cast<WPARAM>(R->ID), 0);
  }

 private:
  std::string FExpect;
};

// Synchronises with the main thread from every notification it gets on
// another thread, and asks the manager for its count from there.
class TSyncWatcher : public TThreadNotifier {
  VEL_CLASS(TSyncWatcher, TThreadNotifier)
 public:
  using TThreadNotifier::TThreadNotifier;
  ~TSyncWatcher() override { Unsubscribe(); }
  std::atomic<int> Notified{0};
  std::atomic<int> Synced{0};
  void ThreadNotification(IInterface*, int32_t) override {
    ++Notified;
    if (GetCurrentThreadId() == MainThreadID()) return;
    TThread::Synchronize(nullptr, [this] {
      if (IPtr<IThreadManager> M = CurrentThreadManager()) (void)M->GetCount();
      ++Synced;
    });
  }
};

// Ends the process with a message when a test has not finished in time,
// so that a deadlock fails the case instead of hanging it.
class TWatchdog {
 public:
  TWatchdog(const char* What, int Seconds) : FThread([this, What, Seconds] {
      std::unique_lock<std::mutex> L(FLock);
      if (!FDone.wait_for(L, std::chrono::seconds(Seconds), [this] { return FFinished; })) {
        std::fprintf(stderr, "deadlock: %s did not finish within %d s\n", What, Seconds);
        std::abort();
      }
    }) {}
  ~TWatchdog() {
    {
      std::lock_guard<std::mutex> L(FLock);
      FFinished = true;
    }
    FDone.notify_all();
    FThread.join();
  }

 private:
  std::mutex FLock;
  std::condition_variable FDone;
  bool FFinished = false;
  std::thread FThread;
};

// A request-less worker that frees itself: its end unregisters it on its
// own thread.
class TShortTask : public TTaskThread {
  VEL_CLASS(TShortTask, TTaskThread)
 public:
  TShortTask() : TTaskThread(true, nullptr, nullptr) {}
};

// Counts its own destruction.
class TCountingAdapter : public TStringsAdapter {
  VEL_CLASS(TCountingAdapter, TStringsAdapter)
 public:
  explicit TCountingAdapter(std::atomic<int>* Destroyed) : FDestroyed(Destroyed) {}
  ~TCountingAdapter() override { ++*FDestroyed; }

 private:
  std::atomic<int>* FDestroyed;
};

// Logs its hooks into a list that outlives it.
class TLoggedHooks : public TCustomThread {
  VEL_CLASS(TLoggedHooks, TCustomThread)
 public:
  explicit TLoggedHooks(std::vector<std::string>* Log) : TCustomThread(nullptr, true, false), FLog(Log) {}
  ~TLoggedHooks() override { StopThread(false); }

 protected:
  void DoStartExecute() override { FLog->push_back("start"); }
  void DoFinishExecute() override { FLog->push_back("finish"); }
  void SafeExecute() override { FLog->push_back("round"); }

 private:
  std::vector<std::string>* FLog;
};

}  // namespace tctest

VEL_IMPLEMENT(TLoggedHooks)
VEL_IMPLEMENT(TGatedWorker, message<&TGatedWorker::WMDataRequest>(WM_DATAREQUEST))
VEL_IMPLEMENT(TSyncWatcher)
VEL_IMPLEMENT(TShortTask)
VEL_IMPLEMENT(TCountingAdapter)

TEST_F(ThreadManagerTest, ThreadsWhoseIdentifiersDifferByOneKeepSeparateRequests) {
  TThreadManager* M = Manager();
  // Two workers with consecutive identifiers (the usual case on Linux;
  // retried a few times in case another thread slipped between).
  std::unique_ptr<TGatedWorker> A, B;
  for (int Try = 0; Try < 20; ++Try) {
    A = std::make_unique<TGatedWorker>("for A");
    B = std::make_unique<TGatedWorker>("for B");
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
  TGatedWorker W("x");
  const auto Tid = static_cast<int32_t>(W.ThreadID());
  W.Gate.SetEvent();
  EXPECT_EQ(M->SendDataRequest(Tid, IIDOf<IStringsAdapter>, nullptr, "x"), Tid);
  M->WaitForRequests();
  W.Ignore = true;
  // Requests at index 0 and 1; once the first is answered, a third takes
  // index 1 again, where Tid + 1 is still outstanding.
  const int32_t First = M->SendDataRequest(Tid, IIDOf<IStringsAdapter>, nullptr, "x");
  const int32_t Second = M->SendDataRequest(Tid, IIDOf<IStringsAdapter>, nullptr, "x");
  EXPECT_EQ(Second, First + 1);
  PostMessage(M->GetHandle(), WM_COMPLETEDREQUEST, static_cast<WPARAM>(First), 0);
  ASSERT_TRUE(PumpUntil([&] { return M->RequestCount() == 1; }));
  const int32_t Third = M->SendDataRequest(Tid, IIDOf<IStringsAdapter>, nullptr, "x");
  EXPECT_NE(Third, Second);
  EXPECT_EQ(Third, Second + 1);
  PostMessage(M->GetHandle(), WM_COMPLETEDREQUEST, static_cast<WPARAM>(Second), 0);
  ASSERT_TRUE(PumpUntil([&] { return M->RequestCount() == 1; }));
  PostMessage(M->GetHandle(), WM_COMPLETEDREQUEST, static_cast<WPARAM>(Third), 0);
  ASSERT_TRUE(PumpUntil([&] { return M->Completed(); }));
  EXPECT_EQ(W.Seen, 4);
}

TEST_F(ThreadManagerTest, SubscribersThatSynchroniseDoNotDeadlockTheMainThread) {
  TWatchdog Guard("register/unregister/TerminateThreads with synchronising subscribers", 60);
  IPtr<IThreadManager> M = ThreadManager();
  auto* Watcher = new TSyncWatcher(M.As<ISubscribe>());
  // Workers end on their own threads (synchronising from their
  // notifications) while the main thread registers new threads and
  // terminates all of them.
  for (int Round = 0; Round < 40; ++Round) {
    for (int I = 0; I < 4; ++I) (new TShortTask)->Resume();
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
  EXPECT_EQ(Watcher->Notified.load(), 2 * 40 * 7);
  delete Watcher;
}

TEST_F(ThreadManagerTest, ANotifierLeavingWhileNotifiedOnAnotherThreadIsWaitedFor) {
  TWatchdog Guard("RemoveNotifier during a notification", 30);
  IPtr<IThreadManager> M = ThreadManager();
  // Removing (and freeing) the watcher on the main thread while a worker's
  // notification to it synchronises: the removal serves the worker's
  // request and returns after the call, so the watcher is never used
  // freed.
  for (int Round = 0; Round < 20; ++Round) {
    // Added once complete: threads are notifying meanwhile.
    auto* Watcher = new TSyncWatcher(nullptr);
    M.As<ISubscribe>()->AddNotifier(Watcher->AsCustomNotifier());
    (new TShortTask)->Resume();
    Sleep(Round % 3);
    delete Watcher;
  }
  ASSERT_TRUE(PumpUntil([&] { return M->GetCount() == 0; }));
}

TEST(ThreadClasses, AThreadFreedSuspendedRunsStartFinishAndOnTerminateOnce) {
  TRecorder Rec;
  std::vector<std::string> Log;
  auto* T = new TLoggedHooks(&Log);
  T->OnTerminate = TNotifyEvent::Bind<&TRecorder::OnTerminate>(&Rec);
  T->SetFreeOnTerminate(true);  // freed by its owner all the same
  ASSERT_TRUE(T->Suspended());
  delete T;
  EXPECT_EQ(Log, (std::vector<std::string>{"start", "finish"}));
  EXPECT_EQ(Rec.Terminated, 1);
  EXPECT_TRUE(Rec.AllOnMain);
}

TEST_F(ThreadManagerTest, RequestsNoWorkerTookAreReleasedWithTheManager) {
  std::atomic<int> Destroyed{0};
  {
    TThreadManager* M = Manager();
    TGatedWorker W("kept");
    {
      IPtr<IStringsAdapter> Target(new TCountingAdapter(&Destroyed));
      M->SendDataRequest(static_cast<int32_t>(W.ThreadID()), IIDOf<IStringsAdapter>, Target, "kept");
    }
    ASSERT_TRUE(PumpUntil([&] { return W.Seen == 1; }));
    EXPECT_EQ(Destroyed, 0);  // the marshalled reference keeps it
  }  // the worker ends with the request unanswered and its interface untaken
  ReleaseThreadManager();
  EXPECT_EQ(Destroyed, 1);
}
