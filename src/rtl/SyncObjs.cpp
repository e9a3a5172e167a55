#include "vel/rtl/SyncObjs.h"

#include <chrono>

#include "vel/rtl/SysUtils.h"
#include "vel/rtl/TypInfo.h"

namespace vel {

VEL_IMPLEMENT(TSynchroObject)
VEL_IMPLEMENT(TCriticalSection)
VEL_IMPLEMENT(TSyncEvent)
VEL_IMPLEMENT(TSimpleEvent)
VEL_IMPLEMENT(TSemaphore)

TSynchroObject::~TSynchroObject() = default;
void TSynchroObject::Acquire() {}
void TSynchroObject::Release() {}

TCriticalSection::~TCriticalSection() = default;

namespace {

// Waits on Cond until Ready() holds or Timeout milliseconds have passed;
// returns whether Ready() holds.
template <class Pred>
bool WaitUntil(std::condition_variable& Cond, std::unique_lock<std::mutex>& Lock, uint32_t Timeout,
               Pred Ready) {
  if (Timeout == INFINITE) {
    Cond.wait(Lock, Ready);
    return true;
  }
  return Cond.wait_for(Lock, std::chrono::milliseconds(Timeout), Ready);
}

}  // namespace

TSyncEvent::~TSyncEvent() = default;

TWaitResult TSyncEvent::WaitFor(uint32_t Timeout) {
  std::unique_lock<std::mutex> Lock(FMutex);
  if (!WaitUntil(FCond, Lock, Timeout, [this] { return FSignalled; })) return wrTimeout;
  if (!FManualReset) FSignalled = false;
  return wrSignaled;
}

void TSyncEvent::SetEvent() {
  {
    std::lock_guard<std::mutex> Lock(FMutex);
    FSignalled = true;
  }
  if (FManualReset)
    FCond.notify_all();
  else
    FCond.notify_one();
}

void TSyncEvent::ResetEvent() {
  std::lock_guard<std::mutex> Lock(FMutex);
  FSignalled = false;
}

TSimpleEvent::~TSimpleEvent() = default;

TSemaphore::TSemaphore(int32_t InitialCount, int32_t MaximumCount)
    : FCount(InitialCount), FMaximum(MaximumCount) {
  if (MaximumCount < 1 || InitialCount < 0 || InitialCount > MaximumCount)
    throw ESyncObjectError(Format(SInvalidSemaphoreCount, {InitialCount, MaximumCount}));
}

TSemaphore::~TSemaphore() = default;

TWaitResult TSemaphore::WaitFor(uint32_t Timeout) {
  std::unique_lock<std::mutex> Lock(FMutex);
  if (!WaitUntil(FCond, Lock, Timeout, [this] { return FCount > 0; })) return wrTimeout;
  --FCount;
  return wrSignaled;
}

bool TSemaphore::ReleaseCount(int32_t Count) {
  {
    std::lock_guard<std::mutex> Lock(FMutex);
    if (Count < 1 || Count > FMaximum - FCount) return false;
    FCount += Count;
  }
  if (Count == 1)
    FCond.notify_one();
  else
    FCond.notify_all();
  return true;
}

int32_t TSemaphore::Count() {
  std::lock_guard<std::mutex> Lock(FMutex);
  return FCount;
}

}  // namespace vel
