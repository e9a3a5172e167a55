#include "vel/rtl/Threads.h"

#include <errno.h>
#include <sched.h>

#include <chrono>
#include <cstring>
#include <thread>

#include "vel/rtl/SysUtils.h"
#include "vel/rtl/TypInfo.h"

namespace vel {

VEL_IMPLEMENT(TThread)

TThread::TThread(bool CreateSuspended) {
  FState.store(CreateSuspended ? tsCreated : tsRunning, std::memory_order_relaxed);
  int Err = pthread_create(&FHandle, nullptr, &TThread::ThreadProc, this);
  if (Err != 0) throw EThread(Format(SThreadCreateError, {std::strerror(Err)}));
  std::unique_lock<std::mutex> L(FLock);
  FCond.wait(L, [this] { return FIdKnown; });
  FExitState->ThreadID = FThreadID;
}

TThread::~TThread() {
  // A thread that frees its own object (FreeOnTerminate) has detached
  // itself already.
  if (FJoined) return;
  {
    std::lock_guard<std::mutex> L(FLock);
    FTerminated.store(true, std::memory_order_release);
    if (FState.load(std::memory_order_relaxed) == tsCreated) {
      FState.store(tsAbandoned, std::memory_order_release);
      FExitState->Started.store(true, std::memory_order_release);
      FCond.notify_all();
    }
  }
  WaitFor();
  pthread_join(FHandle, nullptr);
  FJoined = true;
}

void* TThread::ThreadProc(void* Arg) {
  auto* T = static_cast<TThread*>(Arg);
  {
    std::lock_guard<std::mutex> L(T->FLock);
    T->FThreadID = GetCurrentThreadId();
    T->FIdKnown = true;
    T->FCond.notify_all();
  }
  bool Abandoned;
  {
    std::unique_lock<std::mutex> L(T->FLock);
    T->FCond.wait(L, [T] { return T->FState.load(std::memory_order_relaxed) != tsCreated; });
    Abandoned = T->FState.load(std::memory_order_relaxed) == tsAbandoned;
  }
  if (!Abandoned) {
    if (!T->Terminated()) {
      try {
        T->Execute();
      } catch (...) {
        T->FFatalException = std::current_exception();
      }
    }
    try {
      T->DoTerminate();
    } catch (...) {
      if (!T->FFatalException) T->FFatalException = std::current_exception();
    }
  }
  bool Free = !Abandoned && T->FreeOnTerminate();
  std::shared_ptr<TThreadExitState> Exit = T->FExitState;
  detail::ReleaseThreadQueue();
  {
    std::lock_guard<std::mutex> L(T->FLock);
    T->FFinished.store(true, std::memory_order_release);
    T->FCond.notify_all();
  }
  // A main thread waiting in WaitFor sleeps in CheckSynchronize.
  WakeMainThread();
  if (Free) {
    pthread_detach(pthread_self());
    T->FJoined = true;
    delete T;
  }
  Exit->Exited.store(true, std::memory_order_release);
  WakeMainThread();
  return nullptr;
}

void TThread::Resume() {
  std::lock_guard<std::mutex> L(FLock);
  if (FState.load(std::memory_order_relaxed) == tsCreated) {
    FState.store(tsRunning, std::memory_order_release);
    FExitState->Started.store(true, std::memory_order_release);
    FCond.notify_all();
  }
}

uint32_t TThread::WaitFor() {
  if (GetCurrentThreadId() == FThreadID)
    throw EThread(Format(SThreadError, {std::strerror(EDEADLK), EDEADLK}));
  if (GetCurrentThreadId() == MainThreadID()) {
    // Serve Synchronize requests (the thread's OnTerminate among them)
    // until the thread has finished; its end wakes CheckSynchronize.
    while (!Finished()) CheckSynchronize(INFINITE);
  } else {
    std::unique_lock<std::mutex> L(FLock);
    FCond.wait(L, [this] { return FFinished.load(std::memory_order_relaxed); });
  }
  return static_cast<uint32_t>(FReturnValue);
}

bool TThread::WaitFor(uint32_t Timeout) {
  if (Timeout == INFINITE) {
    WaitFor();
    return true;
  }
  if (GetCurrentThreadId() == FThreadID)
    throw EThread(Format(SThreadError, {std::strerror(EDEADLK), EDEADLK}));
  const auto Deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(Timeout);
  if (GetCurrentThreadId() == MainThreadID()) {
    while (!Finished()) {
      auto Left = std::chrono::duration_cast<std::chrono::milliseconds>(
          Deadline - std::chrono::steady_clock::now());
      if (Left.count() <= 0) break;
      CheckSynchronize(static_cast<uint32_t>(Left.count()));
    }
  } else {
    std::unique_lock<std::mutex> L(FLock);
    FCond.wait_until(L, Deadline, [this] { return FFinished.load(std::memory_order_relaxed); });
  }
  return Finished();
}

void TThread::Synchronize(const TThreadMethod& Method) {
  SynchronizeWithMainThread([&Method] { Method(); });
}

void TThread::Synchronize(const std::function<void()>& Method) {
  SynchronizeWithMainThread(Method);
}

void TThread::Synchronize(TThread*, const std::function<void()>& Method) {
  SynchronizeWithMainThread(Method);
}

void TThread::DoTerminate() {
  if (OnTerminate.Assigned()) Synchronize([this] { OnTerminate(this); });
}

void Sleep(uint32_t Milliseconds) {
  if (Milliseconds == 0) {
    sched_yield();
    return;
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(Milliseconds));
}

}  // namespace vel
