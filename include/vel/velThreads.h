// The thread manager and the base of every managed thread.
//
// TBaseThread registers itself with the process-wide thread manager when it
// is created and leaves it when it is terminated or freed. The manager
// (reached only through ThreadManager()) keeps the list of live threads,
// tells IThreadNotifier subscribers when a thread starts or ends,
// terminates all threads when it goes, and carries data requests from the
// main thread to worker threads:
//
//   main thread                               worker (a message-queue thread)
//   SendDataRequest(ThreadID, IID, Intf, Data)
//     -> PostThreadMessage(1825, record)  ->  handler for 1825:
//                                               TakeRequestInterface(record)
//                                               ...work...
//                                               NotifyMgr(1826, record->ID)
//   WaitForRequests()  <- manager's window <-
//     (the manager frees the record)
//
// The record belongs to the manager: a worker reads it and answers with its
// ID, the main thread frees it when the answer arrives. Workers never touch
// the request list.
//
// Shutdown: ReleaseThreadManager() (the velThreads unit's finalisation, run
// when the library is unloaded or its Finalize is called)
// releases the singleton; when that was the last reference the manager
// terminates every registered thread, wakes message-queue threads with the
// quit message and waits until every thread it ever registered has ended.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>

#include "vel/rtl/Com.h"
#include "vel/rtl/Lists.h"
#include "vel/velIntfClasses.h"

namespace vel {

VEL_EXCEPTION(EThreadManager, Exception);

inline constexpr const char* SThreadManagerInstanciated = "Thread Manager already Instanciated";
inline constexpr const char* SThreadManagerReference =
    "Call ThreadManager() function to Reference this class";

// Posted by the manager to a worker thread: WParam is the TRequestRecord*,
// LParam 0.
inline constexpr UINT WM_DATAREQUEST = 1825;
// Posted by a worker to the manager's window: WParam is the request's ID.
inline constexpr UINT WM_COMPLETEDREQUEST = 1826;

// A data request as the worker receives it.
struct TRequestRecord {
  // The record's index in the request list when it was added plus the
  // target thread's identifier; when that sum names another outstanding
  // request, the next number that names none.
  int32_t ID = 0;
  // The interface the request concerns.
  TGUID IID{};
  // The interface marshalled for the worker (take it with
  // TakeRequestInterface), or null.
  IStream* Stream = nullptr;
  // The request's text argument.
  std::string Data;
};

// Worker side: takes the request's interface out of its stream into *Obj
// (a counted reference to the IID interface) and clears Stream, so the
// record no longer refers to it. Results as CoGetInterfaceAndReleaseStream;
// E_INVALIDARG when the record carries no stream.
VEL_API HRESULT TakeRequestInterface(TRequestRecord* Request, void** Obj);

// A thread that registers with the thread manager on creation (the manager
// gives it its window handle) and leaves it on Terminate and destruction.
class VEL_API TBaseThread : public TInterfacedThread {
  VEL_CLASS(TBaseThread, TInterfacedThread)
 public:
  explicit TBaseThread(bool CreateSuspended);
  ~TBaseThread() override;
  // The runtime's Terminate, then leaves the thread manager.
  void Terminate() override;

 private:
  // Leaves the manager's list when still registered; when the object is
  // being destroyed, also waits until no other thread is notifying about it
  // or terminating it.
  void LeaveManager(bool Destroying);
};

// The singleton thread manager with data requests.
//
// Thread safety: as TInterfacedThreadManager; SendDataRequest may be called
// from any thread. WaitForRequests on the main thread runs the message loop
// until every request is answered; on another thread it waits (without a
// message loop) for the main thread to handle the answers.
class VEL_API TThreadManager : public TInterfacedThreadManager, public IThreadDataRequests {
  VEL_CLASS(TThreadManager, TInterfacedThreadManager)
  VEL_INTERFACES(IThreadDataRequests)
 public:
  // Only ThreadManager() constructs the manager: EThreadManager "Thread
  // Manager already Instanciated" while a singleton exists, else "Call
  // ThreadManager() function to Reference this class".
  TThreadManager();
  // Terminates and joins the threads, then frees the records still listed
  // (with the interfaces no worker took).
  ~TThreadManager() override;

  // The singleton (ThreadManager()).
  static IPtr<IThreadManager> ThreadManager();

  // Sets Completed.
  void Initialize() override;
  // Lists a request, posts it (message 1825) to ThreadID, retrying every
  // millisecond up to 1000 posts while the thread has no queue yet, and
  // returns its ID: index + ThreadID, unique among the outstanding requests
  // (the next free number when that sum is taken), so the second of two
  // requests to one thread gets the first's ID + 1 while the first is
  // listed. A request that could not be posted stays listed.
  int32_t SendDataRequest(int32_t ThreadID, const TGUID& IID, IInterface* Intf,
                          const std::string& Data) override;
  // Returns once no request is outstanding; never times out.
  void WaitForRequests() override;

  bool Completed() const { return FCompleted.load(std::memory_order_acquire); }
  // Requests still outstanding.
  int32_t RequestCount();

 protected:
  // Message 1826 on the main thread: frees the record whose ID is WParam
  // (there is at most one).
  void WMCompletedRequest(TMessage& Message);

  void CreateList();
  void FreeList();
  bool ListAllocated() const { return FRequests != nullptr; }
  void ListNeeded();

 private:
  // Whether an outstanding request other than Except has ID (under
  // FRequestLock).
  bool IDOutstanding(int32_t ID, const TRequestRecord* Except) const;
  std::atomic<bool> FCompleted{false};
  TList* FRequests = nullptr;  // TRequestRecord*
  std::mutex FRequestLock;
  std::condition_variable FRequestDone;

  friend VEL_API IPtr<IThreadManager> ThreadManager();
  struct TCreateKey {};
  static TCreateKey CheckCreation();
  explicit TThreadManager(TCreateKey);
};

// The process-wide thread manager, created on first call; the same object
// until ReleaseThreadManager.
VEL_API IPtr<IThreadManager> ThreadManager();
// The thread manager when one exists, without creating one.
VEL_API IPtr<IThreadManager> CurrentThreadManager();
// Releases the singleton (the unit's finalisation, run when the library is
// unloaded; hosts and tests may call it earlier). The manager goes with its
// last reference, terminating and joining its threads. A later
// ThreadManager() makes a new one.
VEL_API void ReleaseThreadManager();

}  // namespace vel
