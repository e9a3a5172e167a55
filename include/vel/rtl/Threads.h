// TThread: a POSIX thread behind the runtime's thread object, with
// Synchronize, OnTerminate on the main thread, WaitFor and FreeOnTerminate;
// and Sleep.
//
// Life of a thread:
//  - The constructor starts the POSIX thread at once and returns when the
//    thread's identifier is known (ThreadID and Handle are valid from then
//    on, also for a suspended thread). The thread then waits until Resume
//    (or Start) unless it was created running.
//  - A thread must not run before its object is complete: it calls the
//    derived class's Execute, and in C++ the derived part of an object (its
//    members and even its virtual functions) exists only once the derived
//    constructor has run. So a class that offers running creation passes
//    true to TThread and resumes as the last statement of its own
//    constructor, and a class derived from it does the same in turn:
//      TWorker(bool CreateSuspended) : TThread(true) {
//        ...set-up...
//        if (!CreateSuspended) Resume();
//      }
//    TThread(false) itself would start the thread before the derived
//    constructors have run (it does start it at once): always pass true to
//    TThread and resume as above.
//  - The thread runs Execute unless Terminated was set before it started.
//    An exception leaving Execute is kept in FatalException.
//  - Then DoTerminate runs on the thread: it calls OnTerminate on the main
//    thread through Synchronize. Then the thread's message queue and
//    windows go away (posts to it fail from now on), the thread is finished
//    (WaitFor returns ReturnValue) and, with FreeOnTerminate, the object
//    frees itself.
//  - Freeing a thread object that has not finished sets Terminated, starts
//    it if it was suspended (a thread freed before it ever ran skips
//    Execute and DoTerminate), waits for it and joins it. A derived class
//    whose Execute may still be running when the object is freed must wait
//    for the thread in its own destructor (Terminate, then WaitFor): once
//    the derived part is destroyed, Execute must not be running any more.
//
// Synchronize runs a method on the main thread while the calling thread
// waits; on the main thread it calls the method directly. The main thread
// serves requests in its message loop, in CheckSynchronize and in WaitFor
// (Messages.h), so a main thread that waits for a worker with WaitFor does
// not deadlock with the worker's Synchronize or OnTerminate. A main thread
// blocked elsewhere does deadlock with it, as on the platform.
//
// Thread safety: Terminate, Terminated, Resume, WaitFor, ThreadID, Handle
// and Finished may be called from any thread. OnTerminate and
// FreeOnTerminate are set before the thread starts.
#pragma once

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>

#include "vel/rtl/Messages.h"
#include "vel/rtl/System.h"

namespace vel {

VEL_EXCEPTION(EThread, Exception);

inline constexpr const char* SThreadCreateError = "Thread creation error: %s";
inline constexpr const char* SThreadError = "Thread Error: %s (%d)";

// A method run by Synchronize.
using TThreadMethod = TEvent<void()>;

// What stays known about a thread after its object may be gone (a
// FreeOnTerminate thread frees itself): whether it ever left the suspended
// state, and whether its POSIX thread has run its last library code. Lets
// a shutdown wait for threads it does not own.
struct TThreadExitState {
  std::atomic<bool> Started{false};
  std::atomic<bool> Exited{false};
  uint32_t ThreadID = 0;
};

class VEL_API TThread : public TObject {
  VEL_CLASS(TThread, TObject)
 public:
  // Raises EThread "Thread creation error: <reason>" when the system
  // refuses a thread.
  explicit TThread(bool CreateSuspended);
  ~TThread() override;

  // Lets a suspended thread run; does nothing once it runs.
  void Resume();
  void Start() { Resume(); }
  // Sets Terminated; Execute is expected to test it and return.
  void Terminate() { FTerminated.store(true, std::memory_order_release); }
  bool Terminated() const { return FTerminated.load(std::memory_order_acquire); }
  // Waits until the thread has finished (its OnTerminate has run) and
  // returns ReturnValue. On the main thread, Synchronize requests are
  // served while waiting. Raises EThread "Thread Error: Resource deadlock
  // avoided (35)" when called by the thread itself. Must not be called on a
  // FreeOnTerminate thread, which may be gone.
  uint32_t WaitFor();
  // Waits at most Timeout milliseconds (INFINITE for ever) for the thread to
  // finish, serving Synchronize requests on the main thread; returns
  // Finished(). Same restrictions as WaitFor.
  bool WaitFor(uint32_t Timeout);
  // Shared with the thread, so it may be kept beyond the object's life.
  std::shared_ptr<const TThreadExitState> ExitState() const { return FExitState; }

  bool FreeOnTerminate() const { return FFreeOnTerminate.load(std::memory_order_acquire); }
  void SetFreeOnTerminate(bool Value) { FFreeOnTerminate.store(Value, std::memory_order_release); }
  bool Suspended() const { return FState.load(std::memory_order_acquire) == tsCreated; }
  // True once the thread has run DoTerminate.
  bool Finished() const { return FFinished.load(std::memory_order_acquire); }
  // The POSIX thread, as a number.
  uintptr_t Handle() const { return static_cast<uintptr_t>(FHandle); }
  // The kernel thread id (what PostThreadMessage takes).
  uint32_t ThreadID() const { return FThreadID; }
  // The exception that left Execute (or OnTerminate), or null.
  std::exception_ptr FatalException() const { return FFatalException; }
  int32_t ReturnValue() const { return FReturnValue; }

  // Runs Method on the main thread and waits for it; an exception it
  // raises is raised again here.
  void Synchronize(const TThreadMethod& Method);
  void Synchronize(const std::function<void()>& Method);
  // The same for any thread, also one without a TThread object.
  static void Synchronize(TThread* Thread, const std::function<void()>& Method);

  // Called on the main thread (with this thread as Sender) after Execute.
  TNotifyEvent OnTerminate;

 protected:
  virtual void Execute() = 0;
  // Calls OnTerminate through Synchronize when it is assigned.
  virtual void DoTerminate();
  void SetReturnValue(int32_t Value) { FReturnValue = Value; }

 private:
  enum TState : int { tsCreated, tsRunning, tsAbandoned };
  static void* ThreadProc(void* Arg);

  pthread_t FHandle{};
  uint32_t FThreadID = 0;
  std::atomic<int> FState{tsCreated};
  std::atomic<bool> FTerminated{false};
  std::atomic<bool> FFreeOnTerminate{false};
  std::atomic<bool> FFinished{false};
  bool FJoined = false;
  int32_t FReturnValue = 0;
  std::exception_ptr FFatalException;
  std::shared_ptr<TThreadExitState> FExitState = std::make_shared<TThreadExitState>();
  std::mutex FLock;
  std::condition_variable FCond;
  bool FIdKnown = false;
};

// Suspends the calling thread for Milliseconds (0 yields the processor).
VEL_API void Sleep(uint32_t Milliseconds);

}  // namespace vel
