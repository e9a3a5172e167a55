// Thread message queues, hidden windows, posting and sending, the message
// loop primitives, the main thread's wake-up descriptor, and the
// application object with its dialog sink.
#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

#include "thread_test_util.h"
#include "vel/rtl/Messages.h"
#include "vel/rtl/SysUtils.h"
#include "vel/rtl/Threads.h"
#include "vel/rtl/TypInfo.h"

using namespace vel;
using veltest::ErrorOf;
using veltest::TDialogLog;

namespace msgtest {

constexpr UINT WM_DOUBLE = WM_USER + 1;
constexpr UINT WM_FAIL = WM_USER + 2;
constexpr UINT WM_ASKBACK = WM_USER + 3;
constexpr UINT WM_SYNC = WM_USER + 4;

// Records what reaches it; WM_DOUBLE answers twice its WParam.
class TReceiver : public TObject {
  VEL_CLASS(TReceiver, TObject)
 public:
  struct TSeen {
    UINT Msg;
    WPARAM WParam;
    LPARAM LParam;
    DWORD Thread;
  };
  std::vector<TSeen> Seen;
  int Unhandled = 0;
  HWND AskBackTo = 0;
  DWORD SyncedOn = 0;

  void WMDouble(TMessage& M) {
    Seen.push_back({M.Msg, M.WParam, M.LParam, GetCurrentThreadId()});
    M.Result = static_cast<LRESULT>(M.WParam * 2);
  }
  void WMFail(TMessage&) { throw EConvertError("boom"); }
  void WMAskBack(TMessage& M) { M.Result = SendMessage(AskBackTo, WM_DOUBLE, M.WParam, 0) + 1; }
  // Needs the main thread, which may be inside SendMessage.
  void WMSync(TMessage& M) {
    SynchronizeWithMainThread([&] { SyncedOn = GetCurrentThreadId(); });
    M.Result = 5;
  }
  void DefaultHandler(void*) override { ++Unhandled; }
  void WndProc(TMessage& M) { Dispatch(&M); }
};

bool Readable(int Fd, int TimeoutMs) {
  pollfd P{Fd, POLLIN, 0};
  return poll(&P, 1, TimeoutMs) == 1 && (P.revents & POLLIN);
}

// Empties the main thread's queue left by earlier tests.
void DrainMain() {
  Application->ProcessMessages();
  while (CheckSynchronize(0)) {
  }
}

}  // namespace msgtest

using namespace msgtest;
VEL_IMPLEMENT(TReceiver, message<&TReceiver::WMDouble>(WM_DOUBLE),
              message<&TReceiver::WMFail>(WM_FAIL), message<&TReceiver::WMAskBack>(WM_ASKBACK),
              message<&TReceiver::WMSync>(WM_SYNC))

// A thread's queue exists from its first request for messages, or from the
// queue its creator makes for it (as TMsgQueThread does for its worker),
// until the thread ends; posts made before the thread asks are found there
// in order.
TEST(Messages, ThreadQueueExistsFromItsFirstRequestOrItsCreatorUntilTheThreadEnds) {
  SetLastError(0);
  EXPECT_FALSE(detail::CreateThreadQueue(0));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_THREAD_ID);
  for (bool ByCreator : {false, true}) {
    SCOPED_TRACE(ByCreator ? "made by its creator" : "made by the thread");
    std::atomic<DWORD> Tid{0};
    TSimpleEvent Started, Go, Asked;
    std::vector<TMsg> Got;
    std::thread Worker([&] {
      Tid = GetCurrentThreadId();
      Started.SetEvent();
      Go.WaitFor();
      TMsg M;
      // Peeking at a queue that does not exist yet creates it.
      EXPECT_EQ(PeekMessage(&M, 0, 0, 0, PM_NOREMOVE) != 0, ByCreator);
      Asked.SetEvent();
      while (GetMessage(&M, 0, 0, 0) > 0) Got.push_back(M);
    });
    auto Post = [&](WPARAM From, WPARAM To) {
      for (WPARAM I = From; I <= To; ++I) EXPECT_TRUE(PostThreadMessage(Tid, WM_USER, I, 2));
    };
    Started.WaitFor();
    EXPECT_FALSE(PostThreadMessage(Tid, WM_USER, 1, 2));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_THREAD_ID);
    if (ByCreator) {
      EXPECT_TRUE(detail::CreateThreadQueue(Tid));
      Post(1, 3);
      EXPECT_TRUE(detail::CreateThreadQueue(Tid));  // a second call keeps what is queued
      Post(4, 4);
    }
    Go.SetEvent();
    Asked.WaitFor();
    if (!ByCreator) Post(1, 4);
    EXPECT_TRUE(PostThreadMessage(Tid, WM_QUIT, 0, 0));
    Worker.join();
    ASSERT_EQ(Got.size(), 4u);
    for (size_t I = 0; I < Got.size(); ++I) EXPECT_EQ(Got[I].wParam, I + 1);
    EXPECT_EQ(Got[0].hwnd, 0u);
    EXPECT_EQ(Got[0].message, WM_USER);
    EXPECT_EQ(Got[0].lParam, 2);
    EXPECT_FALSE(PostThreadMessage(Tid, WM_USER, 0, 0));  // gone with its thread
    EXPECT_EQ(GetLastError(), ERROR_INVALID_THREAD_ID);
  }
}

TEST(Messages, PostedMessagesKeepTheirOrderPerQueue) {
  constexpr int PerProducer = 5000;
  std::atomic<DWORD> Tid{0};
  TSimpleEvent Ready;
  std::vector<TMsg> Got;
  std::thread Consumer([&] {
    TMsg M;
    PeekMessage(&M, 0, 0, 0, PM_NOREMOVE);
    Tid = GetCurrentThreadId();
    Ready.SetEvent();
    int R;
    while ((R = GetMessage(&M, 0, 0, 0)) > 0) Got.push_back(M);
    EXPECT_EQ(R, 0);
    EXPECT_EQ(M.message, WM_QUIT);
  });
  Ready.WaitFor();
  std::vector<std::thread> Producers;
  for (int P = 0; P < 2; ++P)
    Producers.emplace_back([&, P] {
      for (int I = 0; I < PerProducer; ++I)
        ASSERT_TRUE(PostThreadMessage(Tid, WM_USER + P, static_cast<WPARAM>(I), P));
    });
  for (auto& P : Producers) P.join();
  PostThreadMessage(Tid, WM_QUIT, 0, 0);
  Consumer.join();
  ASSERT_EQ(Got.size(), 2u * PerProducer);
  WPARAM Next[2] = {0, 0};
  for (const TMsg& M : Got) {
    int P = static_cast<int>(M.lParam);
    ASSERT_EQ(M.message, WM_USER + static_cast<UINT>(P));
    ASSERT_EQ(M.wParam, Next[P]) << "producer " << P;
    ++Next[P];
  }
}

TEST(Messages, QuitEndsGetMessageAndPeekMessageFilters) {
  std::thread Worker([] {
    TMsg M;
    // A posted WM_QUIT is seen in turn, after what was queued before it.
    PostMessage(0, WM_USER, 1, 0);
    PostThreadMessage(GetCurrentThreadId(), WM_QUIT, 5, 0);
    PostMessage(0, WM_USER, 2, 0);
    EXPECT_EQ(GetMessage(&M, 0, 0, 0), 1);
    EXPECT_EQ(M.wParam, 1u);
    EXPECT_EQ(GetMessage(&M, 0, 0, 0), 0);
    EXPECT_EQ(M.wParam, 5u);
    // PostQuitMessage waits until the queue is empty.
    PostQuitMessage(7);
    EXPECT_EQ(GetMessage(&M, 0, 0, 0), 1);
    EXPECT_EQ(M.wParam, 2u);
    EXPECT_EQ(GetMessage(&M, 0, 0, 0), 0);
    EXPECT_EQ(M.message, WM_QUIT);
    EXPECT_EQ(M.wParam, 7u);
    EXPECT_FALSE(PeekMessage(&M, 0, 0, 0, PM_REMOVE));

    // PeekMessage and its filters on the same, now empty, queue.
    TReceiver R;
    HWND W = AllocateHWnd(&R);
    PostMessage(W, WM_USER + 10, 1, 0);
    PostMessage(0, WM_USER + 20, 2, 0);
    PostMessage(0, WM_USER + 30, 3, 0);
    ASSERT_TRUE(PeekMessage(&M, 0, 0, 0, PM_NOREMOVE));
    EXPECT_EQ(M.hwnd, W);
    ASSERT_TRUE(PeekMessage(&M, 0, 0, 0, PM_NOREMOVE));  // still there
    EXPECT_EQ(M.wParam, 1u);
    // Thread messages only, then a range, taken out of order.
    ASSERT_TRUE(PeekMessage(&M, HWND_THREADONLY, WM_USER + 25, WM_USER + 35, PM_REMOVE));
    EXPECT_EQ(M.wParam, 3u);
    EXPECT_FALSE(PeekMessage(&M, HWND_THREADONLY, WM_USER + 25, WM_USER + 35, PM_REMOVE));
    ASSERT_TRUE(PeekMessage(&M, W, 0, 0, PM_REMOVE));
    EXPECT_EQ(M.wParam, 1u);
    EXPECT_FALSE(PeekMessage(&M, W, 0, 0, PM_REMOVE));
    // WM_QUIT passes any range.
    PostThreadMessage(GetCurrentThreadId(), WM_QUIT, 0, 0);
    ASSERT_TRUE(PeekMessage(&M, 0, WM_USER + 100, WM_USER + 200, PM_REMOVE));
    EXPECT_EQ(M.message, WM_QUIT);
    ASSERT_TRUE(PeekMessage(&M, 0, 0, 0, PM_REMOVE));
    EXPECT_EQ(M.wParam, 2u);
    EXPECT_EQ(GetMessage(nullptr, 0, 0, 0), -1);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    DeallocateHWnd(W);
    EXPECT_EQ(GetMessage(&M, W, 0, 0), -1);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_WINDOW_HANDLE);
  });
  Worker.join();
}

TEST(Messages, HiddenWindowsDispatchToMessageHandlers) {
  std::thread Worker([] {
    TReceiver R;
    HWND W = AllocateHWnd(&R);
    ASSERT_NE(W, 0u);
    EXPECT_TRUE(IsWindow(W));
    EXPECT_EQ(GetWindowThreadProcessId(W), GetCurrentThreadId());
    EXPECT_EQ(SendMessage(W, WM_DOUBLE, 21, 0), 42);  // same thread: direct call
    EXPECT_EQ(SendMessage(W, WM_USER + 99, 0, 0), 0);
    EXPECT_EQ(R.Unhandled, 1);
    EXPECT_THROW(SendMessage(W, WM_FAIL, 0, 0), EConvertError);

    ASSERT_TRUE(PostMessage(W, WM_DOUBLE, 4, -9));
    TMsg M;
    ASSERT_EQ(GetMessage(&M, 0, 0, 0), 1);
    EXPECT_EQ(M.hwnd, W);
    EXPECT_EQ(DispatchMessage(&M), 8);
    ASSERT_EQ(R.Seen.size(), 2u);
    EXPECT_EQ(R.Seen[1].LParam, -9);
    M.hwnd = 0;
    EXPECT_EQ(DispatchMessage(&M), 0);  // a thread message has no window

    // A window procedure given as a method.
    HWND W2 = AllocateHWnd(TWndMethod::Bind<&TReceiver::WndProc>(&R));
    EXPECT_NE(W2, W);
    EXPECT_EQ(SendMessage(W2, WM_DOUBLE, 50, 0), 100);

    // After DeallocateHWnd nothing reaches the receiver.
    PostMessage(W, WM_DOUBLE, 1, 0);
    DeallocateHWnd(W);
    EXPECT_FALSE(IsWindow(W));
    EXPECT_FALSE(PostMessage(W, WM_DOUBLE, 1, 0));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_WINDOW_HANDLE);
    EXPECT_EQ(SendMessage(W, WM_DOUBLE, 1, 0), 0);
    ASSERT_EQ(GetMessage(&M, 0, 0, 0), 1);  // queued before: still retrieved
    EXPECT_EQ(DispatchMessage(&M), 0);
    EXPECT_EQ(R.Seen.size(), 3u);
    DeallocateHWnd(W2);
  });
  Worker.join();
}

TEST(Messages, SendMessageAcrossThreadsWaitsForTheOwner) {
  DrainMain();
  TReceiver MainR, WorkerR;
  HWND MainWnd = AllocateHWnd(&MainR);
  WorkerR.AskBackTo = MainWnd;
  std::atomic<HWND> WorkerWnd{0};
  std::atomic<DWORD> WorkerTid{0};
  TSimpleEvent Ready;
  std::thread Worker([&] {
    WorkerWnd = AllocateHWnd(&WorkerR);
    WorkerTid = GetCurrentThreadId();
    Ready.SetEvent();
    TMsg M;
    while (GetMessage(&M, 0, 0, 0) > 0) DispatchMessage(&M);
    DeallocateHWnd(WorkerWnd);
  });
  Ready.WaitFor();
  EXPECT_EQ(SendMessage(WorkerWnd, WM_DOUBLE, 5, 0), 10);
  ASSERT_EQ(WorkerR.Seen.size(), 1u);
  EXPECT_EQ(WorkerR.Seen[0].Thread, WorkerTid.load());
  EXPECT_EQ(ErrorOf([&] { SendMessage(WorkerWnd, WM_FAIL, 0, 0); }), "EConvertError: boom");
  // The worker's handler sends back to the main thread's window while the
  // main thread waits for it: served inside the wait, no deadlock.
  EXPECT_EQ(SendMessage(WorkerWnd, WM_ASKBACK, 7, 0), 15);
  ASSERT_EQ(MainR.Seen.size(), 1u);
  EXPECT_EQ(MainR.Seen[0].Thread, MainThreadID());
  // So is a Synchronize request the worker's handler makes meanwhile.
  EXPECT_EQ(SendMessage(WorkerWnd, WM_SYNC, 0, 0), 5);
  EXPECT_EQ(WorkerR.SyncedOn, MainThreadID());
  PostThreadMessage(WorkerTid, WM_QUIT, 0, 0);
  Worker.join();
  DeallocateHWnd(MainWnd);
}

// The main thread has not asked for messages yet, so it has no queue of its
// own; it still serves the Synchronize request of the handler it waits for.
TEST(Messages, MainThreadWithoutAQueueServesSynchronizeWhileItSends) {
  TReceiver R;
  std::atomic<HWND> W{0};
  std::atomic<DWORD> Tid{0};
  std::thread Worker([&] {
    W = AllocateHWnd(&R);
    Tid = GetCurrentThreadId();
    TMsg M;
    while (GetMessage(&M, 0, 0, 0) > 0) DispatchMessage(&M);
    DeallocateHWnd(W);
  });
  while (!Tid) std::this_thread::yield();
  EXPECT_EQ(SendMessage(W, WM_SYNC, 0, 0), 5);
  EXPECT_EQ(R.SyncedOn, MainThreadID());
  PostThreadMessage(Tid, WM_QUIT, 0, 0);
  Worker.join();
}

// A window of another thread is neither dispatched here nor served while
// its owner does not pump; a send to it returns 0 once the owner is gone.
TEST(Messages, OtherThreadsWindowsAreNotDispatchedHereAndSendsEndWithTheOwner) {
  TReceiver R;
  std::atomic<HWND> W{0};
  TSimpleEvent Ready, Quit;
  std::thread Owner([&] {
    W = AllocateHWnd(&R);
    Ready.SetEvent();
    Quit.WaitFor();  // never pumps
  });
  Ready.WaitFor();
  TMsg M;
  M.hwnd = W;
  M.message = WM_DOUBLE;
  M.wParam = 1;
  EXPECT_EQ(DispatchMessage(&M), 0);
  auto Result = std::async(std::launch::async, [&] { return SendMessage(W, WM_DOUBLE, 3, 0); });
  EXPECT_EQ(Result.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  Quit.SetEvent();
  Owner.join();
  EXPECT_EQ(Result.get(), 0);
  EXPECT_TRUE(R.Seen.empty());
  EXPECT_FALSE(IsWindow(W));
}

TEST(Messages, WakeupDescriptorFollowsTheMainQueue) {
  ASSERT_EQ(GetCurrentThreadId(), MainThreadID());
  int Fd = MainThreadWakeupFd();
  ASSERT_GE(Fd, 0);
  EXPECT_EQ(Application->WakeupHandle(), Fd);
  DrainMain();
  EXPECT_FALSE(Readable(Fd, 0));

  TReceiver R;
  HWND W = AllocateHWnd(&R);
  std::thread Poster([&] { PostMessage(W, WM_DOUBLE, 3, 0); });
  Poster.join();
  EXPECT_TRUE(Readable(Fd, 2000));
  EXPECT_TRUE(R.Seen.empty());  // nothing runs until the loop asks
  Application->ProcessMessages();
  ASSERT_EQ(R.Seen.size(), 1u);
  EXPECT_FALSE(Readable(Fd, 0));

  // A Synchronize request wakes it as well.
  std::atomic<bool> RanOnMain{false};
  std::thread Worker([&] {
    SynchronizeWithMainThread([&] { RanOnMain = GetCurrentThreadId() == MainThreadID(); });
  });
  EXPECT_TRUE(Readable(Fd, 2000));
  Application->ProcessMessages();
  Worker.join();
  EXPECT_TRUE(RanOnMain);
  EXPECT_FALSE(Readable(Fd, 0));
  DeallocateHWnd(W);
}

TEST(Messages, SynchronizeKeepsItsPlaceAmongPostedMessages) {
  DrainMain();
  std::vector<std::string> Order;
  struct TLogger : TObject {
    std::vector<std::string>* Order;
    void WndProc(TMessage& M) { Order->push_back("post " + std::to_string(M.WParam)); }
  } Logger;
  Logger.Order = &Order;
  HWND W = AllocateHWnd(TWndMethod::Bind<&TLogger::WndProc>(&Logger));
  std::atomic<bool> Done{false};
  std::thread Worker([&] {
    for (int I = 1; I <= 3; ++I) PostMessage(W, WM_USER, static_cast<WPARAM>(I), 0);
    SynchronizeWithMainThread([&] { Order.push_back("sync"); });
    PostMessage(W, WM_USER, 4, 0);
    Done = true;
  });
  while (!Done) {
    Application->ProcessMessages();
    std::this_thread::yield();
  }
  Worker.join();
  Application->ProcessMessages();
  EXPECT_EQ(Order, std::vector<std::string>({"post 1", "post 2", "post 3", "sync", "post 4"}));

  // A loop that filters out what stands before a request still serves it.
  Order.clear();
  PostMessage(W, WM_USER + 50, 9, 0);
  std::thread Worker2([&] { SynchronizeWithMainThread([&] { Order.push_back("sync"); }); });
  TMsg M;
  while (Order.empty()) PeekMessage(&M, 0, WM_USER, WM_USER + 1, PM_REMOVE);
  Worker2.join();
  EXPECT_EQ(Order, std::vector<std::string>({"sync"}));
  Application->ProcessMessages();
  EXPECT_EQ(Order, std::vector<std::string>({"sync", "post 9"}));
  DeallocateHWnd(W);
}

TEST(Messages, ApplicationRunsUntilTerminated) {
  DrainMain();
  TReceiver R;
  HWND W = AllocateHWnd(&R);
  std::thread Worker([&] {
    for (int I = 1; I <= 3; ++I) PostMessage(W, WM_DOUBLE, static_cast<WPARAM>(I), 0);
    Application->Terminate();
  });
  Application->Run();
  Worker.join();
  EXPECT_TRUE(Application->Terminated());
  ASSERT_EQ(R.Seen.size(), 3u);
  for (int I = 0; I < 3; ++I) EXPECT_EQ(R.Seen[static_cast<size_t>(I)].WParam, WPARAM(I + 1));
  DeallocateHWnd(W);
}

TEST(Messages, ExceptionsGoToTheDialogSinkOrOnException) {
  DrainMain();
  TDialogLog Dialogs;
  Application->SetTitle("Adviser");
  // A full stop is added unless the text ends in one, "!" or "?".
  for (const char* Text : {"Disk full", "Done.", "Bang!", "Really?"})
    Application->ShowException(Exception(Text));
  EXPECT_EQ(Dialogs.Lines, (std::vector<std::string>{"Adviser|Disk full.|16", "Adviser|Done.|16",
                                                     "Adviser|Bang!|16", "Adviser|Really?.|16"}));
  Dialogs.Lines.clear();
  try {
    throw EAbort("silent");
  } catch (...) {
    Application->HandleException(nullptr);
  }
  EXPECT_TRUE(Dialogs.Lines.empty());

  // A window procedure failing inside the message loop is reported.
  TReceiver R;
  HWND W = AllocateHWnd(&R);
  PostMessage(W, WM_FAIL, 0, 0);
  Application->ProcessMessages();
  EXPECT_EQ(Dialogs.Lines, std::vector<std::string>{"Adviser|boom.|16"});

  struct THandler : TObject {
    std::string Got;
    TObject* Sender = nullptr;
    void OnException(TObject* S, const std::exception& E) {
      Sender = S;
      Got = E.what();
    }
  } H;
  Application->OnException = TExceptionEvent::Bind<&THandler::OnException>(&H);
  PostMessage(W, WM_FAIL, 0, 0);
  Application->ProcessMessages();
  Application->OnException = nullptr;
  EXPECT_EQ(H.Got, "boom");
  EXPECT_EQ(H.Sender, Application);
  EXPECT_EQ(Dialogs.Count(), 1u);

  EXPECT_EQ(MessageBoxA(0, "Question", "Title", MB_YESNO), IDOK);
  EXPECT_EQ(Dialogs.Line(1), "Title|Question|" + std::to_string(MB_YESNO));
  DeallocateHWnd(W);
}

TEST(Messages, CheckSynchronizeBelongsToTheMainThread) {
  std::string Message;
  DWORD Tid = 0;
  std::thread Worker([&] {
    Tid = GetCurrentThreadId();
    Message = ErrorOf([] { CheckSynchronize(0); });
  });
  Worker.join();
  EXPECT_EQ(Message,
            "EThread: " + Format("CheckSynchronize called from thread $%x, which is NOT the main "
                                 "thread",
                                 {static_cast<int64_t>(Tid)}));
  EXPECT_FALSE(CheckSynchronize(0));
}
