// A message-queue worker driven from an application's own poll() loop.
//
// The application does not run Application->Run(): it has its own event
// loop (here poll(); Qt's QSocketNotifier or GLib's g_unix_fd_add work the
// same way). It watches the runtime's wake-up descriptor and, when it is
// readable, lets Application->ProcessMessages() deliver what arrived for
// the main thread: posted messages, Synchronize requests, thread ends.
//
// The worker is a TMsgQueThread: the main thread posts it one message per
// portfolio; it values each and posts the result back to a hidden window
// of the main thread. Exits with 0 when every valuation arrived.
#include <poll.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <memory>

#include "vel/ThreadClasses.h"
#include "vel/rtl/Messages.h"

using namespace vel;

constexpr UINT WM_VALUE_PORTFOLIO = WM_USER + 1;  // to the worker: WParam = portfolio
constexpr UINT WM_VALUATION = WM_USER + 2;        // to the main window: LParam = cents

struct TPortfolio {
  const char* Client;
  double Capital;
  double Rate;
};
const TPortfolio Portfolios[] = {
    {"Ashworth", 120000.0, 0.045}, {"Brennan", 56000.0, 0.031}, {"Castell", 310000.0, 0.052}};
constexpr int PortfolioCount = 3;

// The worker. Construction follows the thread rules of the library:
//  - the base is created suspended (true), so the thread cannot run before
//    this object is complete; Resume() is the constructor's last statement;
//  - the destructor stops the thread first (StopThread posts the quit
//    message and waits), so the handlers never run on a half-destroyed
//    object.
// Its queue exists once the constructor returns: posts never fail for
// want of it.
class TValuationWorker : public TMsgQueThread {
  VEL_CLASS(TValuationWorker, TMsgQueThread)
 public:
  TValuationWorker(HWND Reply, bool CreateSuspended)
      : TMsgQueThread(nullptr, true, false), FReply(Reply) {
    if (!CreateSuspended) Resume();
  }
  ~TValuationWorker() override { StopThread(true); }

  // Message handlers take the message record; they are listed in
  // VEL_IMPLEMENT below (Delphi: procedure ...(var Msg: TMessage); message
  // WM_VALUE_PORTFOLIO;).
  void WMValuePortfolio(TMessage& Msg) {
    const TPortfolio& P = Portfolios[Msg.WParam];
    const double Value = P.Capital * std::pow(1.0 + P.Rate, 10);
    PostMessage(FReply, WM_VALUATION, Msg.WParam, static_cast<LPARAM>(std::llround(Value * 100)));
  }

 private:
  HWND FReply;
};
VEL_IMPLEMENT(TValuationWorker,
              message<&TValuationWorker::WMValuePortfolio>(WM_VALUE_PORTFOLIO))

// The main thread's receiver: a hidden window dispatching to a handler.
class TResults : public TObject {
  VEL_CLASS(TResults, TObject)
 public:
  TResults() : FHandle(AllocateHWnd(this)) {}
  ~TResults() override { DeallocateHWnd(FHandle); }
  HWND Handle() const { return FHandle; }

  void WMValuation(TMessage& Msg) {
    std::printf("  %-9s %12.2f in ten years\n", Portfolios[Msg.WParam].Client,
                static_cast<double>(Msg.LParam) / 100.0);
    ++Received;
  }
  int Received = 0;

 private:
  HWND FHandle;
};
VEL_IMPLEMENT(TResults, message<&TResults::WMValuation>(WM_VALUATION))

int main() {
  TResults Results;
  auto Worker = std::make_unique<TValuationWorker>(Results.Handle(), false);

  // Posting right after creation is safe.
  for (int I = 0; I < PortfolioCount; ++I)
    if (!PostThreadMessage(Worker->ThreadID(), WM_VALUE_PORTFOLIO, static_cast<WPARAM>(I), 0)) {
      std::printf("post failed: error %u\n", GetLastError());
      return 1;
    }

  // The application's loop. The descriptor is the runtime's: never read or
  // close it; ProcessMessages clears it once the queue is empty.
  pollfd Watched[] = {{MainThreadWakeupFd(), POLLIN, 0}};
  while (Results.Received < PortfolioCount) {
    const int Ready = poll(Watched, 1, 10000);
    if (Ready < 0 && errno == EINTR) continue;
    if (Ready <= 0) {
      std::printf("no answer within 10 s\n");
      return 1;
    }
    Application->ProcessMessages();
  }

  Worker.reset();  // stops and joins the worker
  std::printf("%d valuations received\n", Results.Received);
  return 0;
}
