#include "vel/velThreads.h"

#include "threads/UsePins.h"

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
  LeaveManager(true);
}

void TBaseThread::Terminate() {
  TInterfacedThread::Terminate();
  LeaveManager(false);
}

void TBaseThread::LeaveManager(bool Destroying) {
  IPtr<IThread> Self;
  if (GetThreadMgrHwnd() > 0) {
    // The manager that exists now, never a new one: a thread may end while
    // the manager is being freed.
    if (Supports(static_cast<TObject*>(this), Self))
      if (IPtr<IThreadManager> M = CurrentThreadManager()) M->UnRegisterThread(Self);
  }
  // Another thread may still be telling subscribers about this thread, or
  // terminating it from the manager's list: the object stays until it is
  // done. (The manager marks threads by their TObject.)
  if (Destroying) detail::WaitUnpinned(static_cast<TObject*>(this));
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
    auto* R = static_cast<TRequestRecord*>(FRequests->Get(I));
    // The interface of a request that no worker took is released with it
    // (the threads have ended: nobody else can take it now).
    if (R && R->Stream) R->Stream->_Release();
    delete R;
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
    // Index + thread identifier, as callers know it; but thread identifiers
    // are consecutive numbers and indexes are reused once answers remove
    // records, so that sum may already name an outstanding request. Then
    // the next free number is taken: an answer must complete exactly the
    // request it names.
    const int32_t Index = FRequests->Add(R);
    uint32_t ID = static_cast<uint32_t>(Index) + static_cast<uint32_t>(ThreadID);
    while (IDOutstanding(static_cast<int32_t>(ID), R)) ++ID;
    R->ID = static_cast<int32_t>(ID);
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

bool TThreadManager::IDOutstanding(int32_t ID, const TRequestRecord* Except) const {
  for (int I = 0, N = FRequests->Count(); I < N; ++I) {
    auto* R = static_cast<const TRequestRecord*>(FRequests->Get(I));
    if (R && R != Except && R->ID == ID) return true;
  }
  return false;
}

void TThreadManager::WMCompletedRequest(TMessage& Message) {
  const int32_t ID = static_cast<int32_t>(static_cast<uint32_t>(Message.WParam));
  {
    std::lock_guard<std::mutex> L(FRequestLock);
    if (!FRequests) return;
    for (int I = FRequests->Count() - 1; I >= 0; --I) {
      auto* R = static_cast<TRequestRecord*>(FRequests->Get(I));
      if (R && R->ID == ID) {
        // The worker has answered, so it is done with the record; an
        // interface it did not take is released here.
        if (R->Stream) R->Stream->_Release();
        delete R;
        FRequests->Put(I, nullptr);
        FRequests->Delete(I);
        break;  // identifiers are unique among outstanding requests
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
