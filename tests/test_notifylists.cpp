// Typed lists, method lists and notify lists: delivery to windows (posted),
// objects (dispatched in the caller's thread) and threads (posted thread
// messages), the lists' error messages and the shared lock of the thread
// notify list.
#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <thread>
#include <vector>

#include "thread_test_util.h"
#include "vel/ExtendedClasses.h"
#include "vel/rtl/SysUtils.h"
#include "vel/rtl/Threads.h"
#include "vel/rtl/TypInfo.h"

using namespace vel;
using veltest::ErrorOf;

namespace nltest {

constexpr UINT WM_NOTE = WM_USER + 1;
constexpr UINT WM_FAIL = WM_USER + 2;

// Every receiver writes "<name>:<msg>/<wparam>/<lparam>" to one log.
class TReceiver : public TObject {
  VEL_CLASS(TReceiver, TObject)
 public:
  TReceiver(std::vector<std::string>* Log = nullptr, std::string Name = "")
      : FLog(Log), FName(std::move(Name)) {}
  DWORD LastThread = 0;
  void WMNote(TMessage& M) {
    LastThread = GetCurrentThreadId();
    FLog->push_back(FName + ":" + std::to_string(M.Msg - WM_USER) + "/" +
                    std::to_string(static_cast<intptr_t>(M.WParam)) + "/" +
                    std::to_string(M.LParam));
  }
  void WMFail(TMessage&) { throw EConvertError("boom"); }

 private:
  std::vector<std::string>* FLog;
  std::string FName;
};

// A thread with a queue that records the thread messages it receives.
class TQueueThread final : public TThread {
  VEL_CLASS(TQueueThread, TThread)
 public:
  TQueueThread() : TThread(true) { Resume(); }
  TSimpleEvent Ready;
  std::vector<TMsg> Got;

 protected:
  void Execute() override {
    TMsg M;
    PeekMessage(&M, 0, 0, 0, PM_NOREMOVE);
    Ready.SetEvent();
    while (GetMessage(&M, 0, 0, 0) > 0) Got.push_back(M);
  }
};

// Exposes the lock hooks.
class TOpenThreadNotifyList : public TThreadNotifyList {
  VEL_CLASS(TOpenThreadNotifyList, TThreadNotifyList)
 public:
  using TThreadNotifyList::DoEnter;
  using TThreadNotifyList::DoLeave;
  using TThreadNotifyList::TThreadNotifyList;
};

class THolder : public TObject {
 public:
  int Calls = 0;
  TObject* Last = nullptr;
  void First(TObject* Sender) {
    ++Calls;
    Last = Sender;
  }
  void Second(TObject*) { Calls += 100; }
};

}  // namespace nltest

using namespace nltest;
VEL_IMPLEMENT(TReceiver, message<&TReceiver::WMNote>(WM_NOTE), message<&TReceiver::WMFail>(WM_FAIL))
VEL_IMPLEMENT(TQueueThread)
VEL_IMPLEMENT(TOpenThreadNotifyList)

TEST(NotifyLists, IntegerListSortsSignedAndKeepsValues) {
  TIntegerList L;
  for (int32_t V : {3, -1, 2, INT32_MIN, INT32_MAX}) L.Add(V);
  L.Insert(0, 0);
  L.Sort();
  std::vector<int32_t> Got;
  for (int I = 0; I < L.Count(); ++I) Got.push_back(L.GetItem(I));
  EXPECT_EQ(Got, std::vector<int32_t>({INT32_MIN, -1, 0, 2, 3, INT32_MAX}));
  EXPECT_EQ(L.First(), INT32_MIN);
  EXPECT_EQ(L.Last(), INT32_MAX);
  EXPECT_TRUE(L.Contains(-1));
  EXPECT_EQ(L.IndexOf(2), 3);
  EXPECT_EQ(L.Extract(2), 2);
  EXPECT_FALSE(L.Contains(2));
  EXPECT_EQ(L.Extract(42), 0);
  EXPECT_EQ(L.Remove(3), 3);
  L.SetItem(0, 5);
  EXPECT_EQ(L[0], 5);
  EXPECT_EQ(ErrorOf([&] { L.GetItem(9); }), "EListError: List index out of bounds (9)");

  THandleList H;
  H.Add(HWND(0x7FFFFFFF));
  EXPECT_EQ(H[0], 0x7FFFFFFF);
}

TEST(NotifyLists, NotifyEventListCallsOnlyTheFirstMethodOfASender) {
  THolder H;
  TObject S1, S2;
  TNotifyEventList L;
  L.Add(TNotifyEvent(), &S1);  // no code: ignored
  EXPECT_EQ(L.Count(), 0);
  L.Add(TNotifyEvent::Bind<&THolder::First>(&H), &S1);
  L.Add(TNotifyEvent::Bind<&THolder::Second>(&H), &S1);
  L.Add(TNotifyEvent::Bind<&THolder::Second>(&H), &S2);
  EXPECT_EQ(L.Count(), 3);
  L.Notify(&S1);
  EXPECT_EQ(H.Calls, 1);
  EXPECT_EQ(H.Last, &S1);
  L.Notify(&S2);
  EXPECT_EQ(H.Calls, 101);
  TObject Unknown;
  L.Notify(&Unknown);
  EXPECT_EQ(H.Calls, 101);

  EXPECT_EQ(L.IndexOf(&S2), 2);
  EXPECT_EQ(L.IndexOf(&Unknown), -1);
  EXPECT_EQ(L.FindSender(&Unknown), nullptr);
  TMethodData D = L.GetItem(0);
  EXPECT_EQ(D.Sender, &S1);
  EXPECT_EQ(D.Data, static_cast<void*>(static_cast<TObject*>(&H)));
  L.Delete(0);  // the second method of S1 now answers
  L.Notify(&S1);
  EXPECT_EQ(H.Calls, 201);
  EXPECT_EQ(ErrorOf([&] { L.Delete(5); }), "EListError: List index out of bounds (5)");
  L.Clear();
  EXPECT_EQ(L.Count(), 0);
}

TEST(NotifyLists, NotifyMsgListPostsToEveryWindowInOrderUntilAnEntryWithoutHandle) {
  Application->ProcessMessages();
  std::vector<std::string> Log;
  TReceiver A(&Log, "A"), B(&Log, "B");
  HWND WA = AllocateHWnd(&A), WB = AllocateHWnd(&B), Gone = AllocateHWnd(&B);
  DeallocateHWnd(Gone);

  TNotifyMsgList L;
  L.Add(nullptr, 5);
  L.Add(&A, 0);
  EXPECT_EQ(L.Count(), 0);
  L.Add(&B, WB);
  L.Add(&A, Gone);  // a refused post is not an error
  L.Add(&A, WA);
  EXPECT_EQ(L.Count(), 3);
  L.Notify(WM_NOTE, -1, 7);
  EXPECT_TRUE(Log.empty());  // posted, not called
  Application->ProcessMessages();
  EXPECT_EQ(Log, std::vector<std::string>({"B:1/-1/7", "A:1/-1/7"}));

  TObject Stranger;
  EXPECT_EQ(ErrorOf([&] { L.Delete(&Stranger); }),
            "ENotifyError: Object not found in notification list");
  L.Add(&B, WB);
  L.Delete(&B);  // the first entry of B only
  EXPECT_EQ(L.Count(), 3);
  Log.clear();
  L.Notify(WM_NOTE, 1, 2);
  Application->ProcessMessages();
  EXPECT_EQ(Log, std::vector<std::string>({"A:1/1/2", "B:1/1/2"}));

  // An entry without a handle ends the broadcast: the failure's own text
  // passes the handle text to %d, which the formatter refuses, and its
  // error is what the caller sees.
  TNotifyMsgList L2;
  L2.Add(&A, WA);
  L2.Add(&A);  // no handle
  L2.Add(&B, WB);
  Log.clear();
  EXPECT_EQ(ErrorOf([&] { L2.Notify(WM_NOTE, 0, 0); }),
            "EConvertError: Format 'Postmessage() Failed in NotifyMsgList, HWND: %d, MSGID: "
            "%d\n\r%s' invalid or incompatible with argument");
  Application->ProcessMessages();
  EXPECT_EQ(Log, std::vector<std::string>({"A:1/0/0"}));  // B never posted
  DeallocateHWnd(WA);
  DeallocateHWnd(WB);
}

TEST(NotifyLists, NotifyDispatchListCallsHandlersInTheCallersThread) {
  std::vector<std::string> Log;
  TReceiver A(&Log, "A"), B(&Log, "B");
  TNotifyDispatchList L;
  L.Add(nullptr);
  L.Add(&A);
  L.Add(&B);
  L.Add(&A);
  TMessage M;
  M.Msg = WM_NOTE;
  M.WParam = 3;
  M.LParam = 4;
  std::thread Caller([&] { L.Notify(&M); });
  Caller.join();
  EXPECT_EQ(Log, std::vector<std::string>({"A:1/3/4", "B:1/3/4", "A:1/3/4"}));
  EXPECT_NE(A.LastThread, MainThreadID());

  Log.clear();
  TReceiver Failing(&Log, "F");
  TNotifyDispatchList L2;
  L2.Add(&Failing);
  L2.Add(&A);
  M.Msg = WM_FAIL;
  EXPECT_EQ(ErrorOf([&] { L2.Notify(&M); }), "EConvertError: boom");
  EXPECT_TRUE(Log.empty());
}

TEST(NotifyLists, ThreadNotifyListLocksOnlyWhenAsked) {
  std::vector<std::string> Log;
  TReceiver A(&Log, "A");
  TOpenThreadNotifyList L;
  EXPECT_TRUE(L.LockDisabled);
  L.Add(&A, 123);
  EXPECT_FALSE(L.Entered());
  L.LockDisabled = false;
  L.Add(&A, 124);
  EXPECT_TRUE(L.Entered());
  L.Delete(&A);
  EXPECT_EQ(L.Count(), 1);
  TObject Stranger;
  EXPECT_EQ(ErrorOf([&] { L.Delete(&Stranger); }),
            "ENotifyError: Object not found in notification list");

  // Many threads changing one list under the lock.
  std::vector<std::thread> Ts;
  std::vector<TReceiver> Rs(4);
  for (int T = 0; T < 4; ++T)
    Ts.emplace_back([&, T] {
      for (int I = 0; I < 300; ++I) {
        L.Add(&Rs[static_cast<size_t>(T)], static_cast<uint32_t>(1000 + I));
        if (I % 3 == 0) L.Delete(&Rs[static_cast<size_t>(T)]);
      }
    });
  for (auto& T : Ts) T.join();
  EXPECT_EQ(L.Count(), 1 + 4 * 200);

  // Nested entry on one thread; another thread waits for the outer leave.
  L.DoEnter();
  L.DoEnter();
  std::atomic<bool> Added{false};
  std::thread Other([&] {
    L.Add(&A, 77);
    Added = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_FALSE(Added);
  L.DoLeave();
  std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_FALSE(Added);
  L.DoLeave();
  Other.join();
  EXPECT_TRUE(Added);
}

TEST(NotifyLists, SharedLockSurvivesListsComingAndGoing) {
  auto* First = new TOpenThreadNotifyList;
  First->LockDisabled = false;
  TSimpleEvent Inside, Release;
  std::thread Holder([&] {
    First->DoEnter();
    Inside.SetEvent();
    Release.WaitFor();
    First->DoLeave();  // leaves the section it entered, though replaced since
  });
  Inside.WaitFor();
  // Each construction installs a new section, each destruction retires it.
  auto* Second = new TOpenThreadNotifyList;
  Second->LockDisabled = false;
  TReceiver R;
  Second->Add(&R, 5);  // the new section is free
  delete Second;
  auto* Third = new TOpenThreadNotifyList;
  Third->LockDisabled = false;
  Third->Add(&R, 6);
  Release.SetEvent();
  Holder.join();
  delete Third;
  First->Add(&R, 7);  // no current section: a new one is made
  EXPECT_EQ(First->Count(), 1);
  delete First;
}

TEST(NotifyLists, SearchNotifyListDeliversByOption) {
  std::vector<std::string> Log;
  TReceiver Folder(&Log, "Folder"), Found(&Log, "Found"), Both(&Log, "Both");
  auto* Worker = new TQueueThread;
  Worker->Ready.WaitFor();

  TSearchNotifyList L;
  L.Add(&Folder, {noFolderChange});
  L.Add(&Found, {noFoundFile});
  L.Add(Worker, {noFoundFile});
  L.Add(&Both, {noFolderChange, noFoundFile});
  EXPECT_EQ(L.Count(), 4);
  EXPECT_EQ(L.IndexOF(Worker), 2);

  TMessage M;
  M.Msg = WM_NOTE;
  M.WParam = 11;
  M.LParam = 12;
  L.Notify(&M, noFoundFile);
  EXPECT_EQ(Log, std::vector<std::string>({"Found:1/11/12", "Both:1/11/12"}));
  Log.clear();
  L.Notify(&M, noFolderChange);
  EXPECT_EQ(Log, std::vector<std::string>({"Folder:1/11/12", "Both:1/11/12"}));
  Log.clear();
  L.Notify(&M, static_cast<TSearchNotifyOption>(8));
  EXPECT_TRUE(Log.empty());

  PostThreadMessage(Worker->ThreadID(), WM_QUIT, 0, 0);
  Worker->WaitFor();
  ASSERT_EQ(Worker->Got.size(), 1u);  // the number only
  EXPECT_EQ(Worker->Got[0].message, WM_NOTE);
  EXPECT_EQ(Worker->Got[0].wParam, 0u);
  EXPECT_EQ(Worker->Got[0].lParam, 0);
  // A thread without a queue any more: the post fails quietly.
  EXPECT_FALSE(L.DispatchNotification(&M, Worker));

  L.Delete(Worker);
  EXPECT_EQ(L.IndexOF(Worker), -1);
  EXPECT_EQ(ErrorOf([&] { L.Delete(Worker); }),
            "ENotifyError: Object not found in notification list");
  delete Worker;

  M.Msg = WM_FAIL;
  EXPECT_EQ(ErrorOf([&] { L.Notify(&M, noFoundFile); }),
            "ENotifyError: Message Dispatch Failure : Class: TReceiver,  MsgId: 1026\n\r"
            "Reason: boom");
  L.Add(nullptr, {noFolderChange});
  M.Msg = WM_NOTE;
  Log.clear();
  EXPECT_EQ(ErrorOf([&] { L.Notify(&M, noFolderChange); }),
            "ENotifyError: Message Dispatch Failure : Class: ,  MsgId: 1025\n\rReason: Invalid "
            "pointer operation");
  EXPECT_EQ(Log, std::vector<std::string>({"Folder:1/11/12", "Both:1/11/12"}));
}
