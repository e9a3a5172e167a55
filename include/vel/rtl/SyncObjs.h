// Synchronisation objects: the recursive critical section, events and
// semaphores.
//
// The runtime's event class is called TEvent there; here that name already
// belongs to event properties (System.h), so the synchronisation event is
// TSyncEvent. TSimpleEvent keeps its name.
//
// Thread safety: every object of this unit may be used from any number of
// threads at once; that is its purpose. An object must not be freed while a
// thread still waits on it or holds it.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "vel/rtl/System.h"

namespace vel {

// A time-out meaning "wait for ever" (the platform's INFINITE).
inline constexpr uint32_t INFINITE = 0xFFFFFFFFu;

enum TWaitResult : uint8_t { wrSignaled, wrTimeout, wrAbandoned, wrError };

// The common base of the synchronisation objects. Acquire and Release do
// nothing here.
class VEL_API TSynchroObject : public TObject {
  VEL_CLASS(TSynchroObject, TObject)
 public:
  TSynchroObject() = default;
  ~TSynchroObject() override;
  virtual void Acquire();
  virtual void Release();
};

// A recursive lock: the thread that holds it may enter it again, and must
// leave it as often as it entered. Leaving a section that the calling thread
// does not hold is a programming error with undefined result, as with the
// platform's critical sections.
class VEL_API TCriticalSection : public TSynchroObject {
  VEL_CLASS(TCriticalSection, TSynchroObject)
 public:
  TCriticalSection() = default;
  ~TCriticalSection() override;
  void Acquire() override { FMutex.lock(); }
  void Release() override { FMutex.unlock(); }
  void Enter() { FMutex.lock(); }
  void Leave() { FMutex.unlock(); }
  // Enters when the section is free or already held by this thread;
  // returns false at once otherwise.
  bool TryEnter() { return FMutex.try_lock(); }

  // Lockable interface, so that std::lock_guard and std::unique_lock work.
  void lock() { FMutex.lock(); }
  void unlock() { FMutex.unlock(); }
  bool try_lock() { return FMutex.try_lock(); }

 private:
  std::recursive_mutex FMutex;
};

// An event: signalled or not. A manual-reset event stays signalled until
// ResetEvent and releases every waiter; an auto-reset event releases one
// waiter and becomes non-signalled again.
class VEL_API TSyncEvent : public TSynchroObject {
  VEL_CLASS(TSyncEvent, TSynchroObject)
 public:
  explicit TSyncEvent(bool ManualReset = true, bool InitialState = false)
      : FManualReset(ManualReset), FSignalled(InitialState) {}
  ~TSyncEvent() override;

  // Waits until the event is signalled (wrSignaled) or Timeout milliseconds
  // have passed (wrTimeout). INFINITE waits for ever; 0 only tests.
  TWaitResult WaitFor(uint32_t Timeout = INFINITE);
  void SetEvent();
  void ResetEvent();
  bool ManualReset() const { return FManualReset; }

  // Acquire waits for the event; Release signals it.
  void Acquire() override { WaitFor(INFINITE); }
  void Release() override { SetEvent(); }

 private:
  std::mutex FMutex;
  std::condition_variable FCond;
  const bool FManualReset;
  bool FSignalled;
};

// A manual-reset event that starts non-signalled.
class VEL_API TSimpleEvent : public TSyncEvent {
  VEL_CLASS(TSimpleEvent, TSyncEvent)
 public:
  TSimpleEvent() : TSyncEvent(true, false) {}
  ~TSimpleEvent() override;
};

// A counting semaphore with a maximum count.
class VEL_API TSemaphore : public TSynchroObject {
  VEL_CLASS(TSemaphore, TSynchroObject)
 public:
  // Raises ESyncObjectError when InitialCount is negative or above
  // MaximumCount, or MaximumCount is below 1.
  explicit TSemaphore(int32_t InitialCount = 0, int32_t MaximumCount = 1);
  ~TSemaphore() override;

  // Waits until the count is above zero and decrements it.
  TWaitResult WaitFor(uint32_t Timeout = INFINITE);
  // Adds Count; returns false and changes nothing when that would exceed
  // the maximum (or Count is below 1).
  bool ReleaseCount(int32_t Count);
  int32_t Count();

  void Acquire() override { WaitFor(INFINITE); }
  void Release() override { ReleaseCount(1); }

 private:
  std::mutex FMutex;
  std::condition_variable FCond;
  int32_t FCount;
  const int32_t FMaximum;
};

VEL_EXCEPTION(ESyncObjectError, Exception);

inline constexpr const char* SInvalidSemaphoreCount = "Invalid semaphore count (%d of %d)";

}  // namespace vel
