// The threads example: a worker thread projects the growth of a few client
// portfolios and posts each result to a hidden window of the main thread;
// when it is done it asks the main thread (Synchronize) to broadcast the
// news to every subscriber of a notify source. Its OnTerminate, run on the
// main thread, ends the application's message loop.
//
// Then a valuation desk, a message-queue thread registered with the thread
// manager, answers data requests: the main thread sends one request per
// client (the client's name and an interface to file the answer through)
// and waits for all of them with WaitForRequests.
//
// Exits with 0 when every result and every notification arrived in order
// and every request was answered.
#include <cmath>
#include <cstdio>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "vel/ThreadClasses.h"

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

// Where the valuation desk files its answers; called on the desk's thread.
struct IValuationFile : IInterface {
  VEL_INTERFACE_ID("{6B0F3C1A-2E4D-4B7C-9A1E-5D3F2C1B0A99}")
  virtual void File(const std::string& Client, double Value) = 0;
};

class TValuationFile : public TInterfacedObject, public IValuationFile {
  VEL_CLASS(TValuationFile, TInterfacedObject)
  VEL_INTERFACES(IValuationFile)
 public:
  void File(const std::string& Client, double Value) override {
    std::lock_guard<std::mutex> L(FLock);
    Values[Client] = Value;
  }
  std::map<std::string, double> Values;

 private:
  std::mutex FLock;
};

// Values a client's portfolio at the five-year mark for every data
// request (message 1825) and answers the thread manager (1826).
class TValuationDesk final : public TMsgQueThread {
  VEL_CLASS(TValuationDesk, TMsgQueThread)
 public:
  TValuationDesk() : TMsgQueThread(nullptr, true, false) { Resume(); }
  ~TValuationDesk() override { StopThread(true); }

  void WMDataRequest(TMessage& Msg) {
    auto* Request = reinterpret_cast<TRequestRecord*>(Msg.WParam);
    IPtr<IValuationFile> Target;
    if (TakeRequestInterface(Request, Target.Out()) == S_OK) {
      for (const TPortfolio& P : Portfolios)
        if (Request->Data == P.Client) Target->File(P.Client, P.Capital * std::pow(1.0 + P.Rate, 5));
    }
    NotifyMgr(WM_COMPLETEDREQUEST, static_cast<WPARAM>(Request->ID), 0);
  }
};

}  // namespace demo

using namespace demo;
VEL_IMPLEMENT(TProjectionWindow, message<&TProjectionWindow::WMProjection>(WM_PROJECTION))
VEL_IMPLEMENT(TProjectionThread)
VEL_IMPLEMENT(TValuationFile)
VEL_IMPLEMENT(TValuationDesk, message<&TValuationDesk::WMDataRequest>(WM_DATAREQUEST))

namespace demo {

// Sends one data request per client to the desk and waits for the answers.
bool RunValuationDesk() {
  std::printf("asking the valuation desk for five-year values:\n");
  IPtr<IThreadManager> Manager = ThreadManager();
  IPtr<IThreadDataRequests> Requests = Manager.As<IThreadDataRequests>();
  auto* Desk = new TValuationDesk;
  IPtr<IValuationFile> File(new TValuationFile);
  for (const TPortfolio& P : Portfolios)
    Requests->SendDataRequest(static_cast<int32_t>(Desk->ThreadID()), IIDOf<IValuationFile>,
                              File, P.Client);
  Requests->WaitForRequests();  // runs the main thread's message loop meanwhile
  auto& Values = static_cast<TValuationFile*>(File.get())->Values;
  for (const auto& [Client, Value] : Values) std::printf("  %-9s %12.2f\n", Client.c_str(), Value);
  const bool Ok = Values.size() == Portfolios.size() &&
                  static_cast<TThreadManager*>(Manager.get())->Completed();
  delete Desk;  // wakes the desk with the quit message and waits for it
  std::printf("%s\n", Ok ? "every request was answered" : "requests are missing");
  return Ok;
}

}  // namespace demo

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
  Ok = RunValuationDesk() && Ok;
  return Ok ? 0 : 1;
}
