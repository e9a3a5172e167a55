// The library's worker threads: TCustomThread (a looping Execute with hooks,
// a status set and an exception policy), TCustomNotifyThread and
// ThreadClasses::TNotifyThread (windows the thread notifies), TMsgQueThread
// (serves its own message queue, dispatching messages to message-handler
// methods) and TTaskThread (runs one method once and frees itself); and
// the check routine Verify.
//
// The execute loop (on the worker): DoStartExecute; then, until Terminated
// is seen at the top of a round: DoBeginLoop, SafeExecute, DoEndLoop. An
// Exception (vel::Exception or a descendant) raised by a round is reported
// on the main thread (OnException through Synchronize, else the
// application's error dialog), the worker waiting for the report, and the
// loop goes on; anything else ends the thread. DoFinishExecute runs last in
// every case. A thread terminated before it started (its Execute never
// runs) still runs DoStartExecute and DoFinishExecute once.
//
// Construction: every constructor builds the thread suspended, registers it
// with the thread manager and resumes it at its end unless CreateSuspended.
// C++ builds a derived class's part only after its base constructors, so a
// class derived from one of these that adds members passes true as
// CreateSuspended to its base and calls Resume() as the last statement of
// its own constructor when its caller asked for a running thread, as the
// classes here do. For the same reason a derived class whose SafeExecute
// uses its own members stops the thread at the start of its own destructor
// (StopThread).
//
// Destruction stops the thread first (Terminate, and for a message-queue
// thread the quit message, then waiting for it; on the main thread
// Synchronize requests are served meanwhile), then frees the parts.
//
// Names: the thread class that makes RegisterNotify public is
// vel::ThreadClasses::TNotifyThread; vel::TNotifyThread is the interfaced
// notification object of velIntfClasses.h.
#pragma once

#include <atomic>
#include <cstdint>

#include "vel/ExtendedClasses.h"
#include "vel/rtl/Components.h"
#include "vel/rtl/Messages.h"
#include "vel/velThreads.h"

namespace vel {

VEL_EXCEPTION(EThreadError, Exception);

enum TEnumThreadStatus : uint8_t { tsExecuting, tsIdle, tsBusy };
// One byte, bit n = value n.
using TThreadStatus = TSet<TEnumThreadStatus>;

enum TApartmentType : uint8_t { atSTA, atMTA };

// (Sender: the thread; E: the exception being reported.)
using TThreadExceptionEvent = TEvent<void(TObject* Sender, Exception* E)>;

// If Condition is false: inside a shared library (always, for this
// library's callers) shows Msg in a message box captioned "Server Error"
// with the error icon (style 16), then raises Exception with Msg.
VEL_API void Verify(bool Condition, const std::string& Msg);
inline constexpr const char* SServerError = "Server Error";

class VEL_API TCustomThread : public TBaseThread {
  VEL_CLASS(TCustomThread, TBaseThread)
 public:
  TCustomThread(TComponent* AOwner, bool CreateSuspended, bool FreeOnTerminate);
  TCustomThread(bool CreateSuspended, bool FreeOnTerminate)
      : TCustomThread(nullptr, CreateSuspended, FreeOnTerminate) {}
  ~TCustomThread() override;

  TComponent* Owner() const { return FOwner; }
  // Read from any thread; changed by the worker.
  TThreadStatus Status() const {
    return TThreadStatus::FromOrd(FStatus.load(std::memory_order_acquire));
  }
  // Add or remove one value (0..7); larger values change nothing.
  void IncludeStatus(int Value);
  void ExcludeStatus(int Value);
  // The exception being reported (valid only during its report).
  Exception* LastException() const { return FLastException; }

  // Called on the main thread for every exception a round raises.
  TThreadExceptionEvent OnException;

 protected:
  void Execute() override;
  void DoTerminate() override;

  // Set-up and tear-down of this class's part (owner, free-on-terminate),
  // run by this class's constructor and destructor.
  void InternalCreate(TComponent* AOwner, bool FreeOnTerminate);
  void InternalDestroy() {}

  virtual void DoStartExecute() { IncludeStatus(tsExecuting); }
  virtual void DoFinishExecute() { ExcludeStatus(tsExecuting); }
  virtual void DoBeginLoop() {}
  virtual void DoEndLoop() {}
  // One round of the thread's work.
  virtual void SafeExecute() = 0;

  // Reports E on the main thread and waits for the report.
  virtual void HandleException(Exception& E);
  void SafeOnException();
  void SafeShowException();

  // Ends the thread and waits for it, unless called by the thread itself.
  // With PostQuit the quit message is posted to the thread (retried until
  // its queue exists) to wake a GetMessage wait. A thread that is still
  // suspended is resumed terminated (FreeOnTerminate cleared, since its
  // owner is freeing it): it skips SafeExecute but runs DoStartExecute,
  // DoFinishExecute and OnTerminate once, as a thread freed before it ran
  // does in the component runtime.
  void StopThread(bool PostQuit);

 private:
  TComponent* FOwner = nullptr;
  std::atomic<uint8_t> FStatus{0};
  Exception* FLastException = nullptr;
  bool FExecuted = false;
};

// A thread that notifies windows: the list of receivers with their window
// handles. An owner that is a windowed control (TWinControl) is registered
// with its window on creation.
class VEL_API TCustomNotifyThread : public TCustomThread {
  VEL_CLASS(TCustomNotifyThread, TCustomThread)
 public:
  TCustomNotifyThread(TComponent* AOwner, bool CreateSuspended, bool FreeOnTerminate);
  TCustomNotifyThread(bool CreateSuspended, bool FreeOnTerminate)
      : TCustomNotifyThread(nullptr, CreateSuspended, FreeOnTerminate) {}
  ~TCustomNotifyThread() override;

  TThreadNotifyList* NotifyList() const { return FNotifyList; }
  bool NotifyOwner() const { return FNotifyOwner; }
  // Registers (true) or unregisters (false) the owner; an unchanged value
  // does nothing.
  void SetNotifyOwner(bool Value);

 protected:
  void InternalCreate();
  void InternalDestroy();
  // Adds (Receiver, Handle) when both are set.
  virtual void RegisterNotify(TObject* Receiver, uint32_t Handle);
  // Deletes Receiver's entry (ENotifyError when it has none).
  virtual void UnRegisterNotify(TObject* Receiver);
  void RegisterOwner();
  void UnRegisterOwner();

 private:
  TThreadNotifyList* FNotifyList = nullptr;
  bool FNotifyOwner = false;
};

namespace ThreadClasses {

// TCustomNotifyThread with RegisterNotify and UnRegisterNotify public.
class VEL_API TNotifyThread : public TCustomNotifyThread {
  VEL_CLASS(TNotifyThread, TCustomNotifyThread)
 public:
  TNotifyThread(TComponent* AOwner, bool CreateSuspended, bool FreeOnTerminate)
      : TCustomNotifyThread(AOwner, CreateSuspended, FreeOnTerminate) {}
  TNotifyThread(bool CreateSuspended, bool FreeOnTerminate)
      : TCustomNotifyThread(nullptr, CreateSuspended, FreeOnTerminate) {}
  ~TNotifyThread() override;
  using TCustomNotifyThread::RegisterNotify;
  using TCustomNotifyThread::UnRegisterNotify;
};

}  // namespace ThreadClasses

// (Sender: the thread; Msg: the message taken from the queue.)
using TThreadMsgEvent = TEvent<void(TObject* Sender, TMsg& Msg)>;

// A thread serving its own message queue. Other threads post to it by
// thread identifier (PostThreadMessage); each message is dispatched to the
// thread object's message handler for its number (message<&C::M>(Number)
// in VEL_IMPLEMENT; unhandled numbers are consumed), with OnMsgReceived
// before and OnMsgProcessed after, both on the main thread. The quit
// message (WM_QUIT) ends the thread without events.
//
// Status: {tsExecuting, tsIdle} while waiting for a message, {tsExecuting,
// tsBusy} from taking one until the next wait.
//
// The thread's queue exists when the constructor returns, also for a
// thread created suspended: messages posted from then on are kept and
// served in order once the thread runs. (A plain TThread gets its queue
// only when it first asks for messages; posts before that fail.)
class VEL_API TMsgQueThread : public ThreadClasses::TNotifyThread {
  VEL_CLASS(TMsgQueThread, ThreadClasses::TNotifyThread)
 public:
  TMsgQueThread(TComponent* AOwner, bool CreateSuspended, bool FreeOnTerminate);
  TMsgQueThread(bool CreateSuspended, bool FreeOnTerminate)
      : TMsgQueThread(nullptr, CreateSuspended, FreeOnTerminate) {}
  ~TMsgQueThread() override;

  // Posts WM_QUIT to the thread's own queue; whether the post succeeded.
  bool PostTerminate();
  // Dispatches {Msg, WParam, LParam, Result 0} to this object's message
  // handlers on the calling thread and returns Result (0 when unhandled).
  virtual LRESULT Perform(UINT Msg, WPARAM WParam, LPARAM LParam);
  // The message last taken from the queue (the worker's; read it from
  // the events).
  const TMsg& CurrentMsg() const { return FCurrentMsg; }

  TThreadMsgEvent OnMsgReceived;
  TThreadMsgEvent OnMsgProcessed;

 protected:
  void SafeExecute() override;
  virtual void HandleThreadMessage(TMsg& Msg);
  virtual void DoMessageProcessed();
  virtual void DoMessageReceived();
  virtual void ProcessMessage(TMsg& Msg);
  void SetAsBusy();
  void SetAsIdle();

 private:
  void SafeOnMsgReceived();
  void SafeOnMsgProcessed();
  TMsg FCurrentMsg;
};

class TTaskThread;
using TTaskThreadMethod = TEvent<void(TTaskThread* Sender)>;

// Runs Task once on a new thread, then terminates and frees itself; the
// termination handler (OnTerminate) runs on the main thread first. An
// exception from the task is reported like any round's. Do not keep the
// object: it is gone once the handler has run.
class VEL_API TTaskThread : public TCustomThread {
  VEL_CLASS(TTaskThread, TCustomThread)
 public:
  TTaskThread(bool CreateSuspended, TNotifyEvent OnTerminate, TTaskThreadMethod Task);
  ~TTaskThread() override;

  TTaskThreadMethod Task;

 protected:
  void SafeExecute() override;
};

}  // namespace vel
