// Data request round trip through the thread manager.
//
// DataRequestRoundTrip: the main thread sends a data request
// (SendDataRequest) to a message-queue worker, the worker takes the
// request's interface, calls it and answers (message 1826 to the manager's
// window), and the main thread waits for the answer (WaitForRequests). Each
// round trip is timed; the median and 99th percentile are reported in
// microseconds.
// CondvarPingPong: the baseline, measured in the same run: one request and
// one answer between two threads through a mutex and two condition
// variables, the least any cross-thread round trip costs.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "vel/ThreadClasses.h"
#include "vel/rtl/TypInfo.h"

using namespace vel;

namespace {

struct ICounter : IInterface {
  VEL_INTERFACE_ID("{8E1D2C3B-4A59-4687-9F0A-1B2C3D4E5F60}")
  virtual void Add(int Value) = 0;
};

class TCounter : public TInterfacedObject, public ICounter {
  VEL_CLASS(TCounter, TInterfacedObject)
  VEL_INTERFACES(ICounter)
 public:
  std::atomic<int64_t> Total{0};
  void Add(int Value) override { Total.fetch_add(Value, std::memory_order_relaxed); }
};

class TAnswerer : public TMsgQueThread {
  VEL_CLASS(TAnswerer, TMsgQueThread)
 public:
  TAnswerer() : TMsgQueThread(nullptr, true, false) { Resume(); }
  ~TAnswerer() override { StopThread(true); }
  void WMDataRequest(TMessage& M) {
    auto* R = reinterpret_cast<TRequestRecord*>(M.WParam);
    IPtr<ICounter> C;
    if (TakeRequestInterface(R, C.Out()) == S_OK) C->Add(static_cast<int>(R->Data.size()));
    NotifyMgr(WM_COMPLETEDREQUEST, static_cast<WPARAM>(R->ID), 0);
  }
};

void Report(benchmark::State& State, std::vector<double>& Samples) {
  std::sort(Samples.begin(), Samples.end());
  if (Samples.empty()) return;
  State.counters["median_us"] = Samples[Samples.size() / 2];
  State.counters["p99_us"] = Samples[Samples.size() * 99 / 100];
  State.SetItemsProcessed(static_cast<int64_t>(Samples.size()));
}

void BM_DataRequestRoundTrip(benchmark::State& State) {
  IPtr<IThreadManager> Intf = ThreadManager();
  auto* M = static_cast<TThreadManager*>(Intf.get());
  auto* W = new TAnswerer;
  IPtr<ICounter> Counter(new TCounter);
  const int32_t Tid = static_cast<int32_t>(W->ThreadID());
  // The first request waits for the worker's queue.
  M->SendDataRequest(Tid, IIDOf<ICounter>, Counter, "warm");
  M->WaitForRequests();
  std::vector<double> Samples;
  for (auto _ : State) {
    auto Start = std::chrono::steady_clock::now();
    M->SendDataRequest(Tid, IIDOf<ICounter>, Counter, "request");
    M->WaitForRequests();
    auto End = std::chrono::steady_clock::now();
    const double Us = std::chrono::duration<double, std::micro>(End - Start).count();
    Samples.push_back(Us);
    State.SetIterationTime(Us / 1e6);
  }
  const int64_t Expected = 4 + 7 * static_cast<int64_t>(Samples.size());
  if (static_cast<TCounter*>(Counter.get())->Total != Expected)
    State.SkipWithError("lost requests");
  delete W;
  Report(State, Samples);
}

void BM_CondvarPingPong(benchmark::State& State) {
  std::mutex Lock;
  std::condition_variable AskCv, AnswerCv;
  int Asked = 0, Answered = 0;
  bool Stop = false;
  std::thread Server([&] {
    std::unique_lock<std::mutex> L(Lock);
    for (;;) {
      AskCv.wait(L, [&] { return Stop || Asked > Answered; });
      if (Stop) return;
      ++Answered;
      AnswerCv.notify_one();
    }
  });
  std::vector<double> Samples;
  for (auto _ : State) {
    auto Start = std::chrono::steady_clock::now();
    {
      std::unique_lock<std::mutex> L(Lock);
      ++Asked;
      AskCv.notify_one();
      AnswerCv.wait(L, [&] { return Answered == Asked; });
    }
    auto End = std::chrono::steady_clock::now();
    const double Us = std::chrono::duration<double, std::micro>(End - Start).count();
    Samples.push_back(Us);
    State.SetIterationTime(Us / 1e6);
  }
  {
    std::lock_guard<std::mutex> L(Lock);
    Stop = true;
  }
  AskCv.notify_one();
  Server.join();
  Report(State, Samples);
}

}  // namespace

VEL_IMPLEMENT(TCounter)
VEL_IMPLEMENT(TAnswerer, message<&TAnswerer::WMDataRequest>(WM_DATAREQUEST))

BENCHMARK(BM_DataRequestRoundTrip)->UseManualTime()->Iterations(20000)->Repetitions(3);
BENCHMARK(BM_CondvarPingPong)->UseManualTime()->Iterations(20000)->Repetitions(3);

BENCHMARK_MAIN();
