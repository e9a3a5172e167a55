// Message-queue throughput and Synchronize latency.
//
// PostToThreadQueue posts batches of thread messages from the benchmark's
// thread to a consumer thread blocked in GetMessage and waits until each
// batch has been taken off the queue, so the rate is end to end.
// MutexCondvarQueue does the same with a minimal queue (std::deque, one
// mutex, one condition variable notified on every push): the baseline the
// runtime's queue is compared with, measured in the same run.
// SynchronizeRoundTrip times each Synchronize call of a worker thread while
// the main thread serves them (in WaitFor) and reports the median and the
// 99th percentile in microseconds.
#include <benchmark/benchmark.h>
#include <sched.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "vel/rtl/Messages.h"
#include "vel/rtl/Threads.h"
#include "vel/rtl/TypInfo.h"

using namespace vel;

namespace {

constexpr int Batch = 1 << 14;

void BM_PostToThreadQueue(benchmark::State& State) {
  std::atomic<int64_t> Consumed{0};
  std::atomic<DWORD> Tid{0};
  std::thread Consumer([&] {
    TMsg M;
    PeekMessage(&M, 0, 0, 0, PM_NOREMOVE);
    Tid = GetCurrentThreadId();
    while (GetMessage(&M, 0, 0, 0) > 0) Consumed.fetch_add(1, std::memory_order_release);
  });
  while (!Tid) std::this_thread::yield();
  int64_t Sent = 0;
  for (auto _ : State) {
    for (int I = 0; I < Batch; ++I) {
      while (!PostThreadMessage(Tid, WM_USER, static_cast<WPARAM>(I), 0)) sched_yield();
    }
    Sent += Batch;
    while (Consumed.load(std::memory_order_acquire) < Sent) sched_yield();
  }
  PostThreadMessage(Tid, WM_QUIT, 0, 0);
  Consumer.join();
  State.SetItemsProcessed(Sent);
}

// The baseline: a minimal locked queue.
class TBaselineQueue {
 public:
  void Push(const TMsg& M) {
    {
      std::lock_guard<std::mutex> L(FLock);
      FItems.push_back(M);
    }
    FCond.notify_one();
  }
  TMsg Pop() {
    std::unique_lock<std::mutex> L(FLock);
    FCond.wait(L, [this] { return !FItems.empty(); });
    TMsg M = FItems.front();
    FItems.pop_front();
    return M;
  }

 private:
  std::mutex FLock;
  std::condition_variable FCond;
  std::deque<TMsg> FItems;
};

void BM_MutexCondvarQueue(benchmark::State& State) {
  TBaselineQueue Q;
  std::atomic<int64_t> Consumed{0};
  std::thread Consumer([&] {
    for (;;) {
      TMsg M = Q.Pop();
      if (M.message == WM_QUIT) break;
      Consumed.fetch_add(1, std::memory_order_release);
    }
  });
  int64_t Sent = 0;
  for (auto _ : State) {
    TMsg M;
    M.message = WM_USER;
    for (int I = 0; I < Batch; ++I) {
      M.wParam = static_cast<WPARAM>(I);
      Q.Push(M);
    }
    Sent += Batch;
    while (Consumed.load(std::memory_order_acquire) < Sent) sched_yield();
  }
  TMsg Quit;
  Quit.message = WM_QUIT;
  Q.Push(Quit);
  Consumer.join();
  State.SetItemsProcessed(Sent);
}

class TSyncWorker final : public TThread {
 public:
  explicit TSyncWorker(int Rounds) : TThread(true), FRounds(Rounds) {
    Samples.reserve(static_cast<size_t>(Rounds));
    Resume();
  }
  std::vector<double> Samples;  // microseconds
  int Served = 0;

 protected:
  void Execute() override {
    for (int I = 0; I < FRounds; ++I) {
      auto Start = std::chrono::steady_clock::now();
      Synchronize([this] { ++Served; });
      auto End = std::chrono::steady_clock::now();
      Samples.push_back(std::chrono::duration<double, std::micro>(End - Start).count());
    }
  }

 private:
  int FRounds;
};

void BM_SynchronizeRoundTrip(benchmark::State& State) {
  constexpr int Rounds = 20000;
  std::vector<double> All;
  for (auto _ : State) {
    auto Start = std::chrono::steady_clock::now();
    auto* W = new TSyncWorker(Rounds);
    W->WaitFor();  // the main thread serves the requests here
    auto End = std::chrono::steady_clock::now();
    State.SetIterationTime(std::chrono::duration<double>(End - Start).count());
    if (W->Served != Rounds) State.SkipWithError("lost Synchronize calls");
    All.insert(All.end(), W->Samples.begin(), W->Samples.end());
    delete W;
  }
  std::sort(All.begin(), All.end());
  if (!All.empty()) {
    State.counters["median_us"] = All[All.size() / 2];
    State.counters["p99_us"] = All[All.size() * 99 / 100];
  }
  State.SetItemsProcessed(static_cast<int64_t>(All.size()));
}

}  // namespace

BENCHMARK(BM_PostToThreadQueue)->UseRealTime();
BENCHMARK(BM_MutexCondvarQueue)->UseRealTime();
BENCHMARK(BM_SynchronizeRoundTrip)->UseManualTime()->Iterations(3);

BENCHMARK_MAIN();
