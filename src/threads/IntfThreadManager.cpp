// The thread classes of the velIntfClasses unit: TInterfacedThread, the
// window object, the abstract interfaced bases, TSubscribeThread and the
// thread manager's base.
#include <typeinfo>

#include "threads/UsePins.h"
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

// The lock of the thread list and the subscriber list. One for the process
// and never destroyed: the notify source and threads on their way out may
// outlive the manager that used it.
std::recursive_mutex& ThreadManagerLock() {
  static auto* Lock = new std::recursive_mutex;
  return *Lock;
}

// The manager's notify source. Notifiers leave it directly (a notifier
// holds its source, not the manager), so the source itself takes the
// manager's lock for every change of its list, and a removal returns only
// once no call to that notifier is under way on another thread.
class TThreadSubscribeNotify : public TExSubscribeNotify {
  VEL_CLASS(TThreadSubscribeNotify, TExSubscribeNotify)
 public:
  explicit TThreadSubscribeNotify(IResolveNotify* Resolver) : TExSubscribeNotify(Resolver) {}
  void AddNotifier(ICustomNotifier* Notifier) override {
    std::lock_guard<std::recursive_mutex> L(ThreadManagerLock());
    TExSubscribeNotify::AddNotifier(Notifier);
  }
  void RemoveNotifier(ICustomNotifier* Notifier) override {
    {
      std::lock_guard<std::recursive_mutex> L(ThreadManagerLock());
      TExSubscribeNotify::RemoveNotifier(Notifier);
    }
    if (Notifier) detail::WaitUnpinned(Identity(Notifier));
  }
};

}  // namespace

VEL_IMPLEMENT(TMainThreadWindowsHandle)
VEL_IMPLEMENT(TThreadSubscribeNotify)

TInterfacedThreadManager::TInterfacedThreadManager()
    : FLock(ThreadManagerLock()), FStrings(new TStringList), FThreads(new TInterfaceList) {
  // Made now, so that every later GetHandle only reads it.
  auto* Window = new TMainThreadWindowsHandle(this);
  FAllocHandle = static_cast<IAllocHandle*>(Window);
  FAllocHandle->HandleNeeded();
  FSubscribe = static_cast<ISubscribe*>(new TThreadSubscribeNotify(this));
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
  const void* Id = TCustomSubscribeNotify::Identity(Thread);
  {
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
    // Taken under the lock, so the thread's destructor (which leaves the
    // list under this lock, then waits for the mark) cannot slip between.
    detail::PinObject(Id);
  }
  struct TUnpin {
    const void* Id;
    ~TUnpin() { detail::UnpinObject(Id); }
  } Unpin{Id};
  NotifyThreadOperation(Thread, toExecute);
}

void TInterfacedThreadManager::UnRegisterThread(IThread* Thread) {
  if (!Thread) return;
  const void* Id = TCustomSubscribeNotify::Identity(Thread);
  {
    std::lock_guard<std::recursive_mutex> L(FLock);
    if (FThreads->IndexOf(Thread) < 0) return;
    Thread->SetThreadMgrHwnd(0);
    FThreads->Remove(Thread);
    detail::PinObject(Id);
  }
  struct TUnpin {
    const void* Id;
    ~TUnpin() { detail::UnpinObject(Id); }
  } Unpin{Id};
  NotifyThreadOperation(Thread, toTerminate);
}

void TInterfacedThreadManager::NotifyThreadOperation(IThread* Thread, int32_t Operation) {
  // The subscribers as they are now; each one is checked again and marked
  // as in use just before its call, so that RemoveNotifier can wait until
  // a call to it under way on another thread has returned.
  std::vector<ICustomNotifier*> Targets;
  IPtr<ISubscribe> Source;  // keeps S alive
  TExSubscribeNotify* S = nullptr;
  {
    std::lock_guard<std::recursive_mutex> L(FLock);
    S = FSubscribe ? dynamic_cast<TExSubscribeNotify*>(FSubscribe.get()) : nullptr;
    if (!S || !S->GetEnabled()) return;
    Source = FSubscribe;
    Targets = S->Notifiers();
  }
  for (ICustomNotifier* Entry : Targets) {
    const void* Id;
    {
      std::lock_guard<std::recursive_mutex> L(FLock);
      const int32_t Index = S->IndexOfEntry(Entry);
      if (Index < 0 || !S->GetEnabled()) continue;  // removed meanwhile
      Id = S->EntryIdentity(Index);
      detail::PinObject(Id);
    }
    struct TUnpin {
      const void* Id;
      ~TUnpin() { detail::UnpinObject(Id); }
    } Unpin{Id};
    void* Intf = nullptr;
    if (!Supports(static_cast<IInterface*>(Entry), IIDOf<IThreadNotifier>, &Intf)) continue;
    // The interface obtained is an IThreadNotifier; notifier interfaces
    // begin with their ICustomNotifier part.
    struct TRelease {
      void* P;
      ~TRelease() { detail::AsUnknown(P)->_Release(); }
    } Release{Intf};
    // The source's resolver is this manager; called directly, without a
    // counted reference, since this may run from the manager's destructor.
    DoNotify(static_cast<ICustomNotifier*>(Intf), IIDOf<IThreadNotifier>, Thread, Operation);
  }
}

void TInterfacedThreadManager::TerminateThreads() {
  // The listed threads as they are now, each marked as in use: a thread
  // leaves the list under the lock before its object goes and then waits
  // for the mark, so every thread of the snapshot stays alive until it has
  // been told to end. No lock is held while threads are terminated and
  // subscribers notified.
  std::vector<IThread*> Snapshot;
  {
    std::lock_guard<std::recursive_mutex> L(FLock);
    for (int32_t I = 0, N = FThreads->GetCount(); I < N; ++I) {
      IPtr<IThread> T = FThreads->Get(I).As<IThread>();
      Snapshot.push_back(T.get());
      detail::PinObject(TCustomSubscribeNotify::Identity(T.get()));
    }
  }
  struct TUnpinRest {
    std::vector<IThread*>& List;
    size_t Done = 0;
    ~TUnpinRest() {
      for (size_t I = 0; I < List.size() - Done; ++I)
        detail::UnpinObject(TCustomSubscribeNotify::Identity(List[I]));
    }
  } Unpin{Snapshot};
  for (size_t I = Snapshot.size(); I-- > 0;) {
    IThread* T = Snapshot[I];
    T->Terminate();
    // A thread whose Terminate reached another manager (or none, while this
    // one is being freed) is still listed: take it out here.
    UnRegisterThread(T);
    detail::UnpinObject(TCustomSubscribeNotify::Identity(T));
    ++Unpin.Done;
  }
  std::lock_guard<std::recursive_mutex> L(FLock);
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
  IPtr<ISubscribe> Source;
  {
    std::lock_guard<std::recursive_mutex> L(FLock);
    Source = FSubscribe;
  }
  // The source locks its list itself.
  if (Source) Source->AddNotifier(Notifier);
}

void TInterfacedThreadManager::RemoveNotifier(ICustomNotifier* Notifier) {
  IPtr<ISubscribe> Source;
  {
    std::lock_guard<std::recursive_mutex> L(FLock);
    Source = FSubscribe;
  }
  // The source waits for a call to the notifier under way on another
  // thread, without the lock: once this returns, the notifier is neither
  // called nor referred to any more.
  if (Source) Source->RemoveNotifier(Notifier);
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
