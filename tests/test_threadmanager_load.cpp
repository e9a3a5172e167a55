// The thread manager under load: message-queue workers flooded with
// ordinary messages from several threads while the main thread sends data
// requests that the workers answer out of order, then shutdown while the
// workers are still busy. VEL_LOAD_ROUNDS=N repeats the run N times (the
// long variant); by default it runs once, in a few seconds.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "vel/ThreadClasses.h"
#include "vel/rtl/SysUtils.h"
#include "vel/rtl/TypInfo.h"

using namespace vel;

namespace loadtest {

constexpr UINT WM_LOAD = WM_USER + 40;
constexpr int kWorkers = 8;
constexpr int kPosters = 4;
constexpr int kMessagesPerPoster = 25000;  // 100,000 in all
constexpr int kRequests = 2000;
constexpr int kBatch = 5;

struct IRequestSink : IInterface {
  VEL_INTERFACE_ID("{5B0D2C71-8E43-4A1F-B9C6-2A7E1D0F3C58}")
  virtual void Took(int32_t N) = 0;
};

// Counts, per request number, how often a worker took the request's
// interface.
class TRequestSink : public TInterfacedObject, public IRequestSink {
  VEL_CLASS(TRequestSink, TInterfacedObject)
  VEL_INTERFACES(IRequestSink)
 public:
  std::vector<std::atomic<int>> Taken = std::vector<std::atomic<int>>(kRequests);
  void Took(int32_t N) override {
    if (N >= 0 && N < kRequests) ++Taken[static_cast<size_t>(N)];
  }
};

// Per request: what the worker read from the record when it answered.
struct TAnswerLog {
  std::vector<std::atomic<int>> Answers = std::vector<std::atomic<int>>(kRequests);
  std::vector<std::atomic<int32_t>> IDs = std::vector<std::atomic<int32_t>>(kRequests);
  std::atomic<int> Garbled{0};
};

// Checks that the messages of each poster arrive in the order they were
// posted; holds data requests and answers them in reverse batches of five,
// reading each record only when it answers it.
class TLoadWorker : public TMsgQueThread {
  VEL_CLASS(TLoadWorker, TMsgQueThread)
 public:
  explicit TLoadWorker(TAnswerLog* Log) : TMsgQueThread(nullptr, true, false), FLog(Log) {
    for (auto& N : FNext) N = 0;
    Resume();
  }
  ~TLoadWorker() override { StopThread(true); }

  std::atomic<int> Received{0};
  std::atomic<int> OutOfOrder{0};

  void WMLoad(TMessage& M) {
    const auto Poster = static_cast<size_t>(M.WParam);
    if (Poster >= FNext.size() || M.LParam != FNext[Poster]) ++OutOfOrder;
    if (Poster < FNext.size()) FNext[Poster] = M.LParam + 1;
    ++Received;
  }

  void WMDataRequest(TMessage& M) {
    auto* R = reinterpret_cast<TRequestRecord*>(M.WParam);
    IPtr<IRequestSink> Sink;
    const int32_t N = RequestNumber(R->Data);
    if (TakeRequestInterface(R, Sink.Out()) == S_OK) Sink->Took(N);
    FHeld.push_back(R);
    if (FHeld.size() < kBatch) return;
    for (auto It = FHeld.rbegin(); It != FHeld.rend(); ++It) {
      TRequestRecord* H = *It;
      // Read now, after the answers to the later requests of the batch:
      // an answer that freed another request's record shows here.
      const int32_t Number = RequestNumber(H->Data);
      if (Number < 0) {
        ++FLog->Garbled;
      } else {
        ++FLog->Answers[static_cast<size_t>(Number)];
        FLog->IDs[static_cast<size_t>(Number)] = H->ID;
      }
      NotifyMgr(WM_COMPLETEDREQUEST, static_cast<WPARAM>(H->ID), 0);
    }
    FHeld.clear();
  }

 private:
  static int32_t RequestNumber(const std::string& Data) {
    if (Data.size() < 5 || Data.compare(0, 4, "req ") != 0) return -1;
    int32_t N = 0;
    if (!TryStrToInt(Data.substr(4), N) || N < 0 || N >= kRequests) return -1;
    return N;
  }

  TAnswerLog* FLog;
  std::vector<TRequestRecord*> FHeld;
  std::array<LPARAM, kPosters> FNext;
};

int Rounds() {
  const char* V = std::getenv("VEL_LOAD_ROUNDS");
  const int N = V ? std::atoi(V) : 1;
  return N > 0 ? N : 1;
}

}  // namespace loadtest

using namespace loadtest;
VEL_IMPLEMENT(TRequestSink)
VEL_IMPLEMENT(TLoadWorker, message<&TLoadWorker::WMLoad>(WM_LOAD),
              message<&TLoadWorker::WMDataRequest>(WM_DATAREQUEST))

TEST(ThreadManagerLoad, RequestsAmongFloodedWorkersCompleteOnceWithTheirOwnData) {
  for (int Round = 0, N = Rounds(); Round < N; ++Round) {
    SCOPED_TRACE("round " + std::to_string(Round));
    ReleaseThreadManager();
    TThreadManager* M =
        static_cast<TThreadManager*>(static_cast<IThreadManager*>(ThreadManager()));
    TAnswerLog Log;
    std::vector<std::unique_ptr<TLoadWorker>> Workers;
    for (int I = 0; I < kWorkers; ++I) Workers.push_back(std::make_unique<TLoadWorker>(&Log));
    std::vector<DWORD> Tids;
    for (auto& W : Workers) Tids.push_back(W->ThreadID());

    // Posters: each sends its messages to the workers in turn, numbered per
    // worker, retrying while a queue is full or not made yet; they stop
    // when the workers are gone.
    std::atomic<bool> Stop{false};
    std::atomic<int> Posted{0};
    std::vector<std::thread> Posters;
    for (int P = 0; P < kPosters; ++P)
      Posters.emplace_back([&, P] {
        std::vector<LPARAM> Next(kWorkers, 0);
        for (int I = 0; I < kMessagesPerPoster && !Stop; ++I) {
          const int W = (I * 7 + P) % kWorkers;
          while (!PostThreadMessage(Tids[W], WM_LOAD, static_cast<WPARAM>(P), Next[W])) {
            if (Stop) return;
            Sleep(0);
          }
          ++Next[W];
          ++Posted;
        }
      });

    IPtr<IRequestSink> Sink(new TRequestSink);
    auto* Taken = static_cast<TRequestSink*>(Sink.get());
    std::vector<int32_t> Sent(kRequests);
    for (int I = 0; I < kRequests; ++I) {
      Sent[I] = M->SendDataRequest(static_cast<int32_t>(Tids[I % kWorkers]), IIDOf<IRequestSink>, Sink,
                                   "req " + std::to_string(I));
      if (I % 10 == 9) Application->ProcessMessages();
    }
    M->WaitForRequests();
    EXPECT_TRUE(M->Completed());
    EXPECT_EQ(M->RequestCount(), 0);
    EXPECT_EQ(Log.Garbled, 0);
    for (int I = 0; I < kRequests; ++I) {
      ASSERT_EQ(Log.Answers[I], 1) << "request " << I;
      ASSERT_EQ(Log.IDs[I], Sent[I]) << "request " << I;
      ASSERT_EQ(Taken->Taken[I], 1) << "request " << I;
    }

    // Shutdown while the posters are still flooding the workers.
    const int PostedAtShutdown = Posted;
    ReleaseThreadManager();
    for (auto& W : Workers) {
      EXPECT_TRUE(W->Finished());
      EXPECT_EQ(W->OutOfOrder, 0);
    }
    Stop = true;
    for (auto& T : Posters) T.join();
    int Received = 0;
    for (auto& W : Workers) Received += W->Received;
    EXPECT_LE(Received, Posted.load());
    EXPECT_GT(PostedAtShutdown, 0);
    Workers.clear();
  }
}
