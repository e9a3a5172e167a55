// The thread classes of the velIntfClasses unit: TInterfacedThread, the
// window object, the abstract interfaced bases, TSubscribeThread and the
// thread manager's base.
#include <typeinfo>

#include "vel/rtl/Debug.h"
#include "vel/rtl/SysUtils.h"
#include "vel/rtl/TypInfo.h"
#include "vel/velIntfClasses.h"

namespace vel {

VEL_IMPLEMENT(TInterfacedThread)
VEL_IMPLEMENT(TInterfacedHandle)
VEL_IMPLEMENT(TInterfacedAllocHandle)
VEL_IMPLEMENT(TInterfacedApplicationService)
VEL_IMPLEMENT(TInterfacedPackageManager)
VEL_IMPLEMENT(TInterfacedSubscribeThread)
VEL_IMPLEMENT(TWindowsHandle)
VEL_IMPLEMENT(TSubscribeThread)
VEL_IMPLEMENT(TInterfacedThreadManager)

// ---------------------------------------------------------------------------
// TInterfacedThread

TInterfacedThread::TInterfacedThread(bool CreateSuspended) : TIntfThread(true) {
  if (!CreateSuspended) Resume();
}

TInterfacedThread::~TInterfacedThread() = default;

void TInterfacedThread::NotifyMgr(UINT Msg, WPARAM WParam, LPARAM LParam) {
  const int32_t Wnd = GetThreadMgrHwnd();
  if (Wnd > 0) PostMessage(static_cast<HWND>(Wnd), Msg, WParam, LParam);
}

void TInterfacedThread::Terminate() {
  TThread::Terminate();
}

// ---------------------------------------------------------------------------
// Abstract bases

TInterfacedHandle::~TInterfacedHandle() = default;
TInterfacedAllocHandle::~TInterfacedAllocHandle() = default;
TInterfacedApplicationService::~TInterfacedApplicationService() = default;
TInterfacedPackageManager::~TInterfacedPackageManager() = default;
TInterfacedSubscribeThread::~TInterfacedSubscribeThread() = default;

// ---------------------------------------------------------------------------
// TWindowsHandle

TWindowsHandle::TWindowsHandle(TObject* Receiver) : FReceiver(Receiver) {
  if (!Receiver) throw EWindowsHandleError(SReceiverNil);
}

TWindowsHandle::~TWindowsHandle() {
  FreeHandle();
}

HWND TWindowsHandle::GetHandle() {
  HandleNeeded();
  return FWindowHandle;
}

void TWindowsHandle::HandleNeeded() {
  if (!HandleAllocated()) CreateHandle();
}

void TWindowsHandle::CreateHandle() {
  FWindowHandle = AllocateHWnd(TWndMethod::Bind<&TWindowsHandle::WndProc>(this));
}

void TWindowsHandle::FreeHandle() {
  // The handle is kept: the object never makes a second window.
  if (HandleAllocated()) DeallocateHWnd(FWindowHandle);
}

void TWindowsHandle::WndProc(TMessage& Message) {
  if (FReceiver) FReceiver->Dispatch(&Message);
}

// ---------------------------------------------------------------------------
// TSubscribeThread

TSubscribeThread::TSubscribeThread() : FHandles(new THandleList) {}

TSubscribeThread::~TSubscribeThread() {
  delete FHandles;
}

void TSubscribeThread::ThreadNotify(UINT Msg, int32_t WParam, int32_t LParam) {
  const int N = FHandles->Count();
  for (int I = 0; I < N; ++I)
    PostMessage(static_cast<HWND>(FHandles->GetItem(I)), Msg,
                static_cast<WPARAM>(static_cast<uint32_t>(WParam)), LParam);
}

void TSubscribeThread::RegisterHandle(HWND Handle) {
  if (FHandles->IndexOf(static_cast<int32_t>(Handle)) < 1) FHandles->Add(Handle);
}

void TSubscribeThread::UnRegisterHandle(HWND Handle) {
  const int Index = FHandles->IndexOf(static_cast<int32_t>(Handle));
  if (Index > 0) FHandles->Delete(Index);
}

// ---------------------------------------------------------------------------
// TInterfacedThreadManager

namespace {

// The manager's window lives on the main thread, whichever thread made the
// manager: answers posted to it are handled by the main thread's loop.
class TMainThreadWindowsHandle : public TWindowsHandle {
  VEL_CLASS(TMainThreadWindowsHandle, TWindowsHandle)
 public:
  explicit TMainThreadWindowsHandle(TObject* Receiver) : TWindowsHandle(Receiver) {}
  void CreateHandle() override {
    FWindowHandle = AllocateMainThreadHWnd(TWndMethod::Bind<&TWindowsHandle::WndProc>(this));
  }
};

}  // namespace

VEL_IMPLEMENT(TMainThreadWindowsHandle)

TInterfacedThreadManager::TInterfacedThreadManager()
    : FStrings(new TStringList), FThreads(new TInterfaceList) {
  // Made now, so that every later GetHandle only reads it.
  auto* Window = new TMainThreadWindowsHandle(this);
  FAllocHandle = static_cast<IAllocHandle*>(Window);
  FAllocHandle->HandleNeeded();
  FSubscribe = static_cast<ISubscribe*>(new TExSubscribeNotify(this));
}

TInterfacedThreadManager::~TInterfacedThreadManager() {
  TerminateThreads();
  JoinThreads();
  {
    std::lock_guard<std::recursive_mutex> L(FLock);
    FSubscribe = nullptr;
  }
  delete FStrings;
  FAllocHandle = nullptr;
  FThreads = nullptr;
}

int32_t TInterfacedThreadManager::GetCount() {
  return FThreads->GetCount();
}

IPtr<IThread> TInterfacedThreadManager::GetThread(int32_t Index) {
  return FThreads->Get(Index).As<IThread>();
}

void TInterfacedThreadManager::Initialize() {}

void TInterfacedThreadManager::RegisterThread(IThread* Thread) {
  if (!Thread) return;
  std::lock_guard<std::recursive_mutex> L(FLock);
  if (FThreads->IndexOf(Thread) >= 0) return;
  FThreads->Add(Thread);
  Thread->SetThreadMgrHwnd(static_cast<int32_t>(GetHandle()));
  // Kept so that the destructor can wait for the thread even after its
  // object has gone.
  if (auto* T = dynamic_cast<TThread*>(Thread)) {
    std::erase_if(FExits, [](const auto& E) { return E->Exited.load(std::memory_order_acquire); });
    FExits.push_back(T->ExitState());
  }
  if (IPtr<IExNotify> N; Supports(FSubscribe, N))
    N->Notify(IIDOf<IThreadNotifier>, Thread, toExecute);
}

void TInterfacedThreadManager::UnRegisterThread(IThread* Thread) {
  if (!Thread) return;
  std::lock_guard<std::recursive_mutex> L(FLock);
  if (FThreads->IndexOf(Thread) < 0) return;
  Thread->SetThreadMgrHwnd(0);
  FThreads->Remove(Thread);
  if (IPtr<IExNotify> N; Supports(FSubscribe, N))
    N->Notify(IIDOf<IThreadNotifier>, Thread, toTerminate);
}

void TInterfacedThreadManager::TerminateThreads() {
  // Holding the lock keeps every listed thread registered, and so alive
  // (a thread leaves the list before its object goes), while it is told
  // to end.
  std::lock_guard<std::recursive_mutex> L(FLock);
  for (int32_t I = FThreads->GetCount() - 1; I >= 0; --I) {
    if (I >= FThreads->GetCount()) continue;
    IPtr<IThread> T = FThreads->Get(I).As<IThread>();
    T->Terminate();
    // A thread whose Terminate reached another manager (or none, while this
    // one is being freed) is still listed: take it out here.
    UnRegisterThread(T);
  }
  FThreads->Clear();
}

IPtr<IThread> TInterfacedThreadManager::FindThread(uint32_t ThreadID) {
  std::lock_guard<std::recursive_mutex> L(FLock);
  for (int32_t I = 0, N = FThreads->GetCount(); I < N; ++I) {
    IPtr<IThread> T = FThreads->Get(I).As<IThread>();
    if (T->GetThreadID() == ThreadID) return T;
  }
  return nullptr;
}

void TInterfacedThreadManager::JoinThreads() {
  std::vector<std::shared_ptr<const TThreadExitState>> Exits;
  {
    std::lock_guard<std::recursive_mutex> L(FLock);
    Exits.swap(FExits);
  }
  std::vector<bool> QuitPosted(Exits.size(), false);
  const bool OnMain = GetCurrentThreadId() == MainThreadID();
  const DWORD Start = GetTickCount();
  bool Reported = false;
  for (;;) {
    bool Waiting = false;
    for (size_t I = 0; I < Exits.size(); ++I) {
      const auto& E = *Exits[I];
      if (E.Exited.load(std::memory_order_acquire) || !E.Started.load(std::memory_order_acquire))
        continue;
      if (E.ThreadID == GetCurrentThreadId()) continue;  // freed by one of its own threads
      Waiting = true;
      if (!QuitPosted[I]) QuitPosted[I] = PostThreadMessage(E.ThreadID, WM_QUIT, 0, 0);
    }
    if (!Waiting) return;
    if (!Reported && GetTickCount() - Start > 5000) {
      Reported = true;
      OutputDebugStringA("Thread manager: still waiting for threads to end");
    }
    if (OnMain)
      CheckSynchronize(1);
    else
      Sleep(1);
  }
}

void TInterfacedThreadManager::AddNotifier(ICustomNotifier* Notifier) {
  std::lock_guard<std::recursive_mutex> L(FLock);
  if (FSubscribe) FSubscribe->AddNotifier(Notifier);
}

void TInterfacedThreadManager::RemoveNotifier(ICustomNotifier* Notifier) {
  std::lock_guard<std::recursive_mutex> L(FLock);
  if (FSubscribe) FSubscribe->RemoveNotifier(Notifier);
}

void TInterfacedThreadManager::DoNotify(ICustomNotifier* Notifier, const TGUID& IID,
                                        IInterface* Unk, int32_t Operation) {
  if (IID == IIDOf<IThreadNotifier>)
    static_cast<IThreadNotifier*>(Notifier)->ThreadNotification(Unk, Operation);
}

HWND TInterfacedThreadManager::GetHandle() {
  return FAllocHandle->GetHandle();
}

}  // namespace vel
