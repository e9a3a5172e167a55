#include "vel/ThreadClasses.h"

#include "vel/rtl/Controls.h"
#include "vel/rtl/TypInfo.h"

namespace vel {

VEL_IMPLEMENT(TCustomThread)
VEL_IMPLEMENT(TCustomNotifyThread)
VEL_IMPLEMENT(ThreadClasses::TNotifyThread)
VEL_IMPLEMENT(TMsgQueThread)
VEL_IMPLEMENT(TTaskThread)

void Verify(bool Condition, const std::string& Msg) {
  if (Condition) return;
  // The library is always a shared object, so the message box is shown.
  MessageBoxA(0, Msg, SServerError, MB_ICONERROR);
  throw Exception(Msg);
}

// ---------------------------------------------------------------------------
// TCustomThread

TCustomThread::TCustomThread(TComponent* AOwner, bool CreateSuspended, bool FreeOnTerminate)
    : TBaseThread(true) {
  InternalCreate(AOwner, FreeOnTerminate);
  if (!CreateSuspended) Resume();
}

TCustomThread::~TCustomThread() {
  StopThread(false);
  InternalDestroy();
}

void TCustomThread::InternalCreate(TComponent* AOwner, bool FreeOnTerminate) {
  SetFreeOnTerminate(FreeOnTerminate);
  FOwner = AOwner;
}

void TCustomThread::IncludeStatus(int Value) {
  if (Value < 0 || Value > 7) return;
  FStatus.fetch_or(static_cast<uint8_t>(1u << Value), std::memory_order_acq_rel);
}

void TCustomThread::ExcludeStatus(int Value) {
  if (Value < 0 || Value > 7) return;
  FStatus.fetch_and(static_cast<uint8_t>(~(1u << Value)), std::memory_order_acq_rel);
}

void TCustomThread::Execute() {
  FExecuted = true;
  DoStartExecute();
  try {
    while (!Terminated()) {
      try {
        DoBeginLoop();
        SafeExecute();
        DoEndLoop();
      } catch (Exception& E) {
        HandleException(E);
      }
    }
  } catch (...) {
    DoFinishExecute();
    throw;
  }
  DoFinishExecute();
}

void TCustomThread::DoTerminate() {
  // The runtime skips Execute for a thread terminated before it started;
  // the start and finish hooks still run once for it.
  if (!FExecuted) {
    FExecuted = true;
    DoStartExecute();
    DoFinishExecute();
  }
  TBaseThread::DoTerminate();
}

void TCustomThread::HandleException(Exception& E) {
  FLastException = &E;
  struct TClear {
    Exception*& P;
    ~TClear() { P = nullptr; }
  } Clear{FLastException};
  if (OnException.Assigned())
    Synchronize(TThreadMethod::Bind<&TCustomThread::SafeOnException>(this));
  else
    Synchronize(TThreadMethod::Bind<&TCustomThread::SafeShowException>(this));
}

void TCustomThread::SafeOnException() {
  OnException(this, FLastException);
}

void TCustomThread::SafeShowException() {
  if (FLastException) Application->ShowException(*FLastException);
}

void TCustomThread::StopThread(bool PostQuit) {
  if (Finished() || GetCurrentThreadId() == ThreadID()) return;
  if (Suspended()) {
    // A thread freed before it ever ran is resumed terminated, as the
    // component runtime does: it skips the loop but runs its start and
    // finish hooks and OnTerminate. The object is being freed by its
    // owner, so the thread must not free it a second time.
    SetFreeOnTerminate(false);
    Terminate();
    Resume();
    WaitFor();
    return;
  }
  Terminate();
  bool QuitPosted = !PostQuit;
  do {
    if (!QuitPosted) QuitPosted = PostThreadMessage(ThreadID(), WM_QUIT, 0, 0);
  } while (!WaitFor(QuitPosted ? INFINITE : 1));
}

// ---------------------------------------------------------------------------
// TCustomNotifyThread

TCustomNotifyThread::TCustomNotifyThread(TComponent* AOwner, bool CreateSuspended,
                                         bool FreeOnTerminate)
    : TCustomThread(AOwner, true, FreeOnTerminate) {
  InternalCreate();
  if (!CreateSuspended) Resume();
}

TCustomNotifyThread::~TCustomNotifyThread() {
  StopThread(false);
  InternalDestroy();
}

void TCustomNotifyThread::InternalCreate() {
  FNotifyList = new TThreadNotifyList(nullptr);
  RegisterOwner();
}

void TCustomNotifyThread::InternalDestroy() {
  delete FNotifyList;
  FNotifyList = nullptr;
}

void TCustomNotifyThread::RegisterNotify(TObject* Receiver, uint32_t Handle) {
  if (Receiver && Handle != 0) FNotifyList->Add(Receiver, Handle);
}

void TCustomNotifyThread::UnRegisterNotify(TObject* Receiver) {
  FNotifyList->Delete(Receiver);
}

void TCustomNotifyThread::RegisterOwner() {
  FNotifyOwner = false;
  if (Owner() && Owner()->InheritsFrom(TWinControl::StaticClass())) {
    auto* Control = static_cast<TWinControl*>(Owner());
    RegisterNotify(Control, Control->Handle());
    FNotifyOwner = true;
  }
}

void TCustomNotifyThread::UnRegisterOwner() {
  UnRegisterNotify(Owner());
  FNotifyOwner = false;
}

void TCustomNotifyThread::SetNotifyOwner(bool Value) {
  if (Value == FNotifyOwner) return;
  FNotifyOwner = Value;
  if (Value)
    RegisterOwner();
  else
    UnRegisterOwner();
}

ThreadClasses::TNotifyThread::~TNotifyThread() = default;

// ---------------------------------------------------------------------------
// TMsgQueThread

TMsgQueThread::TMsgQueThread(TComponent* AOwner, bool CreateSuspended, bool FreeOnTerminate)
    : ThreadClasses::TNotifyThread(AOwner, true, FreeOnTerminate) {
  // The worker's queue is made here, while the worker is still suspended,
  // so that posts made as soon as this constructor returns are kept.
  detail::CreateThreadQueue(ThreadID());
  if (!CreateSuspended) Resume();
}

TMsgQueThread::~TMsgQueThread() {
  StopThread(true);
}

bool TMsgQueThread::PostTerminate() {
  return PostThreadMessage(ThreadID(), WM_QUIT, 0, 0);
}

LRESULT TMsgQueThread::Perform(UINT Msg, WPARAM WParam, LPARAM LParam) {
  TMessage M;
  M.Msg = Msg;
  M.WParam = WParam;
  M.LParam = LParam;
  M.Result = 0;
  Dispatch(&M);
  return M.Result;
}

void TMsgQueThread::SetAsBusy() {
  ExcludeStatus(tsIdle);
  IncludeStatus(tsBusy);
}

void TMsgQueThread::SetAsIdle() {
  ExcludeStatus(tsBusy);
  IncludeStatus(tsIdle);
}

void TMsgQueThread::SafeExecute() {
  SetAsIdle();
  GetMessage(&FCurrentMsg, 0, 0, 0);
  if (FCurrentMsg.message == WM_QUIT) {
    Terminate();
    return;
  }
  HandleThreadMessage(FCurrentMsg);
}

void TMsgQueThread::HandleThreadMessage(TMsg& Msg) {
  TMsg Copy = Msg;
  SetAsBusy();
  DoMessageReceived();
  ProcessMessage(Copy);
  DoMessageProcessed();
}

void TMsgQueThread::ProcessMessage(TMsg& Msg) {
  Perform(Msg.message, Msg.wParam, Msg.lParam);
}

void TMsgQueThread::DoMessageReceived() {
  if (OnMsgReceived.Assigned())
    Synchronize(TThreadMethod::Bind<&TMsgQueThread::SafeOnMsgReceived>(this));
}

void TMsgQueThread::DoMessageProcessed() {
  if (OnMsgProcessed.Assigned())
    Synchronize(TThreadMethod::Bind<&TMsgQueThread::SafeOnMsgProcessed>(this));
}

void TMsgQueThread::SafeOnMsgReceived() {
  OnMsgReceived(this, FCurrentMsg);
}

void TMsgQueThread::SafeOnMsgProcessed() {
  OnMsgProcessed(this, FCurrentMsg);
}

// ---------------------------------------------------------------------------
// TTaskThread

TTaskThread::TTaskThread(bool CreateSuspended, TNotifyEvent OnTerminate, TTaskThreadMethod Task)
    : TCustomThread(nullptr, true, true), Task(Task) {
  this->OnTerminate = OnTerminate;
  if (!CreateSuspended) Resume();
}

TTaskThread::~TTaskThread() = default;

void TTaskThread::SafeExecute() {
  struct TEnd {
    TTaskThread* T;
    ~TEnd() { T->Terminate(); }
  } End{this};
  if (Terminated()) return;
  if (Task.Assigned()) Task(this);
}

}  // namespace vel
