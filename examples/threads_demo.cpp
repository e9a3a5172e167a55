// The threads example: a worker thread projects the growth of a few client
// portfolios and posts each result to a hidden window of the main thread;
// when it is done it asks the main thread (Synchronize) to broadcast the
// news to every subscriber of a notify source. Its OnTerminate, run on the
// main thread, ends the application's message loop.
//
// Exits with 0 when every result and every notification arrived in order.
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "vel/rtl/Messages.h"
#include "vel/rtl/SysUtils.h"
#include "vel/rtl/Threads.h"
#include "vel/rtl/TypInfo.h"
#include "vel/velIntfClasses.h"

using namespace vel;

namespace demo {

constexpr UINT WM_PROJECTION = WM_USER + 100;

struct TPortfolio {
  const char* Client;
  double Capital;
  double Rate;  // yearly
};

const std::vector<TPortfolio> Portfolios = {
    {"Ashworth", 120000.0, 0.045},
    {"Brennan", 56000.0, 0.031},
    {"Castell", 310000.0, 0.052},
    {"Dunmore", 18500.0, 0.060},
};

constexpr int Years = 10;

// The main thread's receiver of projections: a hidden window dispatches
// WM_PROJECTION to its handler.
class TProjectionWindow : public TObject {
  VEL_CLASS(TProjectionWindow, TObject)
 public:
  TProjectionWindow() : FHandle(AllocateHWnd(this)) {}
  ~TProjectionWindow() override { DeallocateHWnd(FHandle); }
  HWND Handle() const { return FHandle; }

  // WParam: portfolio index; LParam: projected value in cents.
  void WMProjection(TMessage& Msg) {
    const TPortfolio& P = Portfolios.at(Msg.WParam);
    std::printf("  %-9s %12.2f -> %12.2f after %d years (thread %s)\n", P.Client, P.Capital,
                static_cast<double>(Msg.LParam) / 100.0, Years,
                GetCurrentThreadId() == MainThreadID() ? "main" : "worker");
    Received.push_back(static_cast<int>(Msg.WParam));
    Msg.Result = 1;
  }

  std::vector<int> Received;

 private:
  HWND FHandle;
};

// Computes the projections off the main thread.
class TProjectionThread final : public TThread {
  VEL_CLASS(TProjectionThread, TThread)
 public:
  TProjectionThread(HWND Target, INotify* Done, TNotifyEvent Ended)
      : TThread(true), FTarget(Target), FDone(Done) {
    OnTerminate = Ended;
    Resume();
  }

 protected:
  void Execute() override {
    for (size_t I = 0; I < Portfolios.size() && !Terminated(); ++I) {
      const TPortfolio& P = Portfolios[I];
      double Value = P.Capital * std::pow(1.0 + P.Rate, Years);
      auto Cents = static_cast<LPARAM>(std::llround(Value * 100.0));
      if (!PostMessage(FTarget, WM_PROJECTION, I, Cents))
        throw EThread("the projection window is gone");
    }
    // Subscribers belong to the main thread: broadcast there.
    Synchronize([this] { FDone->Notify(nullptr, static_cast<int32_t>(Portfolios.size())); });
  }

 private:
  HWND FTarget;
  INotify* FDone;
};

// Prints what its notifiers hear and ends the loop when the worker ends.
class TConsole : public TObject {
 public:
  std::vector<std::string> Heard;
  const std::vector<int>* Results = nullptr;
  size_t ResultsAtBroadcast = 0;
  void Ledger(TObject*, IInterface*, int32_t Count) {
    ResultsAtBroadcast = Results->size();
    Heard.push_back("ledger");
    std::printf("  ledger: %d projections filed\n", Count);
  }
  void Screen(TObject*, IInterface*, int32_t Count) {
    Heard.push_back("screen");
    std::printf("  screen: %d projections ready to show\n", Count);
  }
  void WorkerEnded(TObject* Sender) {
    auto* T = static_cast<TThread*>(Sender);
    std::printf("worker ended on the %s thread\n",
                GetCurrentThreadId() == MainThreadID() ? "main" : "worker");
    Failed = T->FatalException() != nullptr;
    Application->Terminate();
  }
  bool Failed = false;
};

}  // namespace demo

using namespace demo;
VEL_IMPLEMENT(TProjectionWindow, message<&TProjectionWindow::WMProjection>(WM_PROJECTION))
VEL_IMPLEMENT(TProjectionThread)

int main() {
  TConsole Console;
  TProjectionWindow Window;
  Console.Results = &Window.Received;

  // A notify source with two subscribers, in subscription order.
  IPtr<INotify> Done(new TSubscribeNotify);
  IPtr<ISubscribe> Subscribe = Done.As<ISubscribe>();
  auto* Ledger = new TNotifier(Subscribe);
  Ledger->OnNotification = TNotifierEvent::Bind<&TConsole::Ledger>(&Console);
  auto* Screen = new TNotifier(Subscribe);
  Screen->OnNotification = TNotifierEvent::Bind<&TConsole::Screen>(&Console);

  std::printf("projecting %zu portfolios on a worker thread:\n", Portfolios.size());
  auto* Worker = new TProjectionThread(Window.Handle(), Done,
                                       TNotifyEvent::Bind<&TConsole::WorkerEnded>(&Console));
  Application->Run();
  Worker->WaitFor();
  delete Worker;

  delete Ledger;
  delete Screen;

  // The broadcast was requested after the last post, so it ran after every
  // projection had been shown.
  bool Ok = !Console.Failed && Window.Received == std::vector<int>({0, 1, 2, 3}) &&
            Console.Heard == std::vector<std::string>({"ledger", "screen"}) &&
            Console.ResultsAtBroadcast == 4;
  std::printf("%s\n", Ok ? "all results and notifications arrived in order"
                         : "results or notifications are missing");
  return Ok ? 0 : 1;
}
