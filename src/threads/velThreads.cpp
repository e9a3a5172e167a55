#include "vel/velThreads.h"

#include <cstring>

#include "vel/rtl/SysUtils.h"
#include "vel/rtl/TypInfo.h"

namespace vel {

VEL_IMPLEMENT(TBaseThread)
VEL_IMPLEMENT(TThreadManager, message<&TThreadManager::WMCompletedRequest>(WM_COMPLETEDREQUEST))

namespace {

// The singleton and its lock. Never destroyed as statics: threads may still
// ask for the manager while the process exits.
struct TSingleton {
  std::mutex Lock;
  IPtr<IThreadManager> Manager;
};
TSingleton& Singleton() {
  static TSingleton* S = new TSingleton;
  return *S;
}

// False only while ThreadManager() constructs the manager on this thread.
thread_local bool tlsCreationGuard = true;

}  // namespace

HRESULT TakeRequestInterface(TRequestRecord* Request, void** Obj) {
  if (!Request || !Obj) return E_INVALIDARG;
  IStream* Stm = Request->Stream;
  if (!Stm) {
    *Obj = nullptr;
    return E_INVALIDARG;
  }
  Request->Stream = nullptr;
  return CoGetInterfaceAndReleaseStream(Stm, Request->IID, Obj);
}

// ---------------------------------------------------------------------------
// TBaseThread

TBaseThread::TBaseThread(bool CreateSuspended) : TInterfacedThread(true) {
  IPtr<IThread> Self;
  if (Supports(static_cast<TObject*>(this), Self)) ThreadManager()->RegisterThread(Self);
  if (!CreateSuspended) Resume();
}

TBaseThread::~TBaseThread() {
  LeaveManager();
}

void TBaseThread::Terminate() {
  TInterfacedThread::Terminate();
  LeaveManager();
}

void TBaseThread::LeaveManager() {
  if (GetThreadMgrHwnd() <= 0) return;
  IPtr<IThread> Self;
  // The manager that exists now, never a new one: a thread may end while
  // the manager is being freed.
  if (Supports(static_cast<TObject*>(this), Self))
    if (IPtr<IThreadManager> M = CurrentThreadManager()) M->UnRegisterThread(Self);
}

// ---------------------------------------------------------------------------
// The singleton

IPtr<IThreadManager> ThreadManager() {
  TSingleton& S = Singleton();
  std::lock_guard<std::mutex> L(S.Lock);
  if (!S.Manager) {
    tlsCreationGuard = false;
    try {
      auto* M = new TThreadManager;
      S.Manager = static_cast<IThreadManager*>(M);
    } catch (...) {
      tlsCreationGuard = true;
      throw;
    }
    tlsCreationGuard = true;
  }
  return S.Manager;
}

IPtr<IThreadManager> CurrentThreadManager() {
  TSingleton& S = Singleton();
  std::lock_guard<std::mutex> L(S.Lock);
  return S.Manager;
}

void ReleaseThreadManager() {
  IPtr<IThreadManager> Last;
  {
    TSingleton& S = Singleton();
    std::lock_guard<std::mutex> L(S.Lock);
    Last = std::move(S.Manager);
  }
  // Released outside the lock: the manager's destruction waits for threads
  // that may ask for the manager on their way out.
  Last = nullptr;
}

// ---------------------------------------------------------------------------
// TThreadManager

TThreadManager::TCreateKey TThreadManager::CheckCreation() {
  // ThreadManager() clears the guard of its own thread while it holds the
  // singleton lock and knows there is no manager; any other construction
  // finds the guard set.
  if (!tlsCreationGuard) return {};
  if (CurrentThreadManager()) throw EThreadManager(SThreadManagerInstanciated);
  throw EThreadManager(SThreadManagerReference);
}

TThreadManager::TThreadManager() : TThreadManager(CheckCreation()) {}

TThreadManager::TThreadManager(TCreateKey) {
  Initialize();
}

TThreadManager::~TThreadManager() {
  // The threads go first: a worker may still be reading a record.
  TerminateThreads();
  JoinThreads();
  FreeList();
}

IPtr<IThreadManager> TThreadManager::ThreadManager() {
  return ::vel::ThreadManager();
}

void TThreadManager::Initialize() {
  TInterfacedThreadManager::Initialize();
  FCompleted.store(true, std::memory_order_release);
}

void TThreadManager::CreateList() {
  FRequests = new TList;
}

void TThreadManager::FreeList() {
  std::lock_guard<std::mutex> L(FRequestLock);
  if (!FRequests) return;
  for (int I = FRequests->Count() - 1; I >= 0; --I) {
    delete static_cast<TRequestRecord*>(FRequests->Get(I));
  }
  delete FRequests;
  FRequests = nullptr;
}

void TThreadManager::ListNeeded() {
  if (!ListAllocated()) CreateList();
}

int32_t TThreadManager::RequestCount() {
  std::lock_guard<std::mutex> L(FRequestLock);
  return FRequests ? FRequests->Count() : 0;
}

int32_t TThreadManager::SendDataRequest(int32_t ThreadID, const TGUID& IID, IInterface* Intf,
                                        const std::string& Data) {
  IPtr<IInterface> Hold(Intf);
  auto* R = new TRequestRecord;
  R->IID = IID;
  R->Data = Data;
  if (Intf) {
    IStream* Stm = nullptr;
    if (CoMarshalInterThreadInterfaceInStream(IID, Intf, &Stm) == S_OK) R->Stream = Stm;
  }
  {
    std::lock_guard<std::mutex> L(FRequestLock);
    ListNeeded();
    R->ID = FRequests->Add(R) + ThreadID;
    if (FRequests->Count() > 0) FCompleted.store(false, std::memory_order_release);
  }
  const int32_t ID = R->ID;
  // A thread that has just been created may not have its queue yet.
  bool Posted = false;
  for (int Attempt = 1; Attempt <= 1000 && !Posted; ++Attempt) {
    Posted = PostThreadMessage(static_cast<DWORD>(ThreadID), WM_DATAREQUEST,
                               reinterpret_cast<WPARAM>(R), 0);
    if (!Posted && Attempt < 1000) Sleep(1);
  }
  // Once posted, the stream is the worker's to take; one that never left
  // is released here (the request itself stays listed).
  if (!Posted && R->Stream) {
    std::lock_guard<std::mutex> L(FRequestLock);
    if (R->Stream) {
      R->Stream->_Release();
      R->Stream = nullptr;
    }
  }
  return ID;
}

void TThreadManager::WMCompletedRequest(TMessage& Message) {
  const int32_t ID = static_cast<int32_t>(static_cast<uint32_t>(Message.WParam));
  {
    std::lock_guard<std::mutex> L(FRequestLock);
    if (!FRequests) return;
    for (int I = FRequests->Count() - 1; I >= 0; --I) {
      auto* R = static_cast<TRequestRecord*>(FRequests->Get(I));
      if (R && R->ID == ID) {
        delete R;
        FRequests->Put(I, nullptr);
        FRequests->Delete(I);
      }
    }
    if (FRequests->Count() == 0) FCompleted.store(true, std::memory_order_release);
  }
  FRequestDone.notify_all();
}

void TThreadManager::WaitForRequests() {
  auto Done = [this] {
    return FCompleted.load(std::memory_order_acquire) || !FRequests || FRequests->Count() == 0;
  };
  {
    std::lock_guard<std::mutex> L(FRequestLock);
    if (Done()) return;
  }
  if (GetCurrentThreadId() == MainThreadID()) {
    for (;;) {
      Application->ProcessMessages();
      {
        std::lock_guard<std::mutex> L(FRequestLock);
        if (Done()) return;
      }
      WaitMessage();
    }
  }
  std::unique_lock<std::mutex> L(FRequestLock);
  FRequestDone.wait(L, Done);
}

}  // namespace vel
