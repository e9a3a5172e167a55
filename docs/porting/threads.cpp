// Delphi:
//   TPriceFeed = class(TThread)
//   protected procedure Execute; override;
//   end;
//   Feed := TPriceFeed.Create(False);
#include <atomic>

#include "vel/ThreadClasses.h"
#include "vel/rtl/Classes.h"

using namespace vel;

class TPriceFeed : public TThread {
  VEL_CLASS(TPriceFeed, TThread)
 public:
  // TThread(true): a thread must not run before its object is complete,
  // so the base is always created suspended and Resume() comes last.
  explicit TPriceFeed(bool CreateSuspended) : TThread(true) {
    if (!CreateSuspended) Resume();
  }
  // Execute uses this class's members: stop the thread before they go.
  ~TPriceFeed() override {
    Terminate();
    if (!Suspended()) WaitFor();
  }
  std::atomic<int> Ticks{0};

 protected:
  void Execute() override {
    while (!Terminated()) {
      ++Ticks;
      Synchronize([this] { LastShown = Ticks.load(); });  // runs on the main thread
      Sleep(10);
    }
  }

 private:
  int LastShown = 0;
};
VEL_IMPLEMENT(TPriceFeed)

// A message-queue thread: message handlers run on the worker; its queue
// exists as soon as the constructor returns.
class TQuoteDesk : public TMsgQueThread {
  VEL_CLASS(TQuoteDesk, TMsgQueThread)
 public:
  explicit TQuoteDesk(bool CreateSuspended) : TMsgQueThread(nullptr, true, false) {
    if (!CreateSuspended) Resume();  // last statement
  }
  ~TQuoteDesk() override { StopThread(true); }  // first statement

  void WMQuote(TMessage& Msg) { Msg.Result = static_cast<LRESULT>(Msg.WParam) * 2; }
};
VEL_IMPLEMENT(TQuoteDesk, message<&TQuoteDesk::WMQuote>(WM_USER + 7))

void QuoteDeskExample() {
  TQuoteDesk Desk(false);
  PostThreadMessage(Desk.ThreadID(), WM_USER + 7, 21, 0);  // succeeds at once
}  // the destructor posts the quit message and waits
