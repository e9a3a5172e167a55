// Message queues, hidden windows and the main thread's message loop.
//
// One registry (a shared lock over two maps) knows every thread's queue and
// every window. Posting takes the registry's shared lock to find the queue,
// then the queue's own mutex to append: the registry lock keeps the queue
// alive while it is used, since a queue is removed (under the exclusive
// lock) before it is freed. Each queue is read by its owner thread only, so
// its condition variable has at most one waiter.
//
// Posted messages live in a ring buffer that only grows, so a queue in
// steady use allocates nothing per message. Messages sent across threads
// and Synchronize requests are records on the waiting thread's stack,
// linked into the target queue; the waiting thread sleeps until the
// record is completed under a mutex that it then takes itself, so the
// completing thread never touches the record after the waiter may have
// returned.
#include "vel/rtl/Messages.h"

#include <errno.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>

#include "vel/rtl/SysUtils.h"
#include "vel/rtl/Threads.h"
#include "vel/rtl/TypInfo.h"

namespace vel {

namespace {

constexpr const char* SCheckSynchronizeError =
    "CheckSynchronize called from thread $%x, which is NOT the main thread";
constexpr const char* SOutOfWindowHandles = "Out of window handles";
constexpr const char* SUnknownException = "Unknown exception";
constexpr const char* SWakeupFdError = "System Error.  Code: %d.\r\n%s";

// The most messages one queue holds; further posts fail with
// ERROR_NOT_ENOUGH_QUOTA until its thread catches up.
constexpr size_t MaxQueuedMessages = size_t(1) << 20;

constexpr HWND FirstHandle = 0x100;
constexpr HWND LastHandle = 0x7FFFFFFF;
// The place of a Synchronize request among the main thread's posted
// messages (never a window handle, never returned to callers).
constexpr HWND HWND_SYNCMARK = 0xFFFFFFFEu;

thread_local DWORD tlsLastError = 0;

DWORD CurrentTid() {
  static thread_local const DWORD Tid = static_cast<DWORD>(syscall(SYS_gettid));
  return Tid;
}

DWORD GMainThreadId = 0;

struct TQueue;

// A message sent from another thread, waiting to be processed.
struct TSentItem {
  TSentItem* Next = nullptr;
  HWND Wnd = 0;
  UINT Msg = 0;
  WPARAM WParam = 0;
  LPARAM LParam = 0;
  LRESULT Result = 0;
  std::exception_ptr Error;
  // The sender's own queue, whose mutex guards Done; null when the sender
  // has none, then Lock/Cond below are used.
  TQueue* Waiter = nullptr;
  std::mutex Lock;
  std::condition_variable Cond;
  bool Done = false;
};

// A Synchronize request.
struct TSyncItem {
  TSyncItem* Next = nullptr;
  const std::function<void()>* Method = nullptr;
  std::exception_ptr Error;
  std::mutex Lock;
  std::condition_variable Cond;
  bool Done = false;
};

template <class T>
struct TFifo {
  T* Head = nullptr;
  T* Tail = nullptr;
  bool Empty() const { return Head == nullptr; }
  void Push(T* Item) {
    Item->Next = nullptr;
    if (Tail)
      Tail->Next = Item;
    else
      Head = Item;
    Tail = Item;
  }
  T* Pop() {
    T* Item = Head;
    if (Item) {
      Head = Item->Next;
      if (!Head) Tail = nullptr;
    }
    return Item;
  }
  T* TakeAll() {
    T* Item = Head;
    Head = Tail = nullptr;
    return Item;
  }
};

// A growing ring buffer of posted messages.
class TMsgRing {
 public:
  TMsgRing() = default;
  TMsgRing(const TMsgRing&) = delete;
  TMsgRing& operator=(const TMsgRing&) = delete;
  ~TMsgRing() { delete[] FBuf; }

  size_t Count() const { return FCount; }
  TMsg& At(size_t I) { return FBuf[(FHead + I) & (FCap - 1)]; }
  void Push(const TMsg& M) {
    if (FCount == FCap) Grow();
    FBuf[(FHead + FCount) & (FCap - 1)] = M;
    ++FCount;
  }
  void Erase(size_t I) {
    if (I == 0) {
      FHead = (FHead + 1) & (FCap - 1);
    } else {
      for (size_t J = I; J + 1 < FCount; ++J) At(J) = At(J + 1);
    }
    --FCount;
  }
  void Clear() { FHead = FCount = 0; }
  // Removes every message for which Drop holds, keeping the order.
  template <class Pred>
  void RemoveIf(Pred Drop) {
    size_t Kept = 0;
    for (size_t I = 0; I < FCount; ++I)
      if (!Drop(At(I))) At(Kept++) = At(I);
    FCount = Kept;
  }
  // Empties the ring and gives its memory back.
  void Release() {
    delete[] FBuf;
    FBuf = nullptr;
    FCap = FHead = FCount = 0;
  }

 private:
  void Grow() {
    size_t NewCap = FCap ? FCap * 2 : 64;
    TMsg* N = new TMsg[NewCap];
    for (size_t I = 0; I < FCount; ++I) N[I] = At(I);
    delete[] FBuf;
    FBuf = N;
    FCap = NewCap;
    FHead = 0;
  }

  TMsg* FBuf = nullptr;
  size_t FCap = 0;
  size_t FHead = 0;
  size_t FCount = 0;
};

struct TQueue {
  DWORD ThreadId = 0;
  bool IsMain = false;
  std::mutex M;
  std::condition_variable CV;
  int Waiters = 0;
  TMsgRing Posted;
  TFifo<TSentItem> Sent;
  TFifo<TSyncItem> Sync;  // main thread only
  size_t Marks = 0;       // sync marks in Posted
  bool QuitPending = false;
  int QuitCode = 0;
  bool Wake = false;
  bool Open = false;  // the thread has asked for messages
  bool Dead = false;  // the thread has ended
  int Fd = -1;        // wake-up descriptor (main thread only)
  bool FdSignalled = false;

  bool Busy() const { return Posted.Count() || !Sent.Empty() || !Sync.Empty() || QuitPending; }

  // With M held, after something arrived.
  void SignalFdLocked() {
    if (Fd >= 0 && !FdSignalled) {
      uint64_t One = 1;
      ssize_t R;
      do {
        R = ::write(Fd, &One, sizeof One);
      } while (R < 0 && errno == EINTR);
      FdSignalled = true;
    }
  }
  // With M held: once nothing is waiting, the wake flag is consumed and
  // the descriptor cleared.
  void IdleLocked() {
    if (Busy()) return;
    Wake = false;
    if (FdSignalled) {
      uint64_t Value;
      ssize_t R;
      do {
        R = ::read(Fd, &Value, sizeof Value);
      } while (R < 0 && errno == EINTR);
      FdSignalled = false;
    }
  }
};

// A window's procedure: a method, or a receiver's Dispatch.
struct TWindow {
  TQueue* Queue = nullptr;
  TWndMethod Method;
  TObject* Receiver = nullptr;
};

struct TRegistry {
  std::shared_mutex Lock;
  // Queues are shared with the posting threads' caches (see
  // PostThreadMessage), so a queue object outlives its thread until the
  // last cache lets go of it.
  std::unordered_map<DWORD, std::shared_ptr<TQueue>> Queues;
  std::unordered_map<HWND, TWindow> Windows;
  HWND NextHandle = FirstHandle;
};

// Never freed: threads may still post while the process exits.
TRegistry& Reg() {
  static TRegistry* R = new TRegistry;
  return *R;
}

TQueue* MainQueue() {
  static TQueue* Q = [] {
    auto Q = std::make_shared<TQueue>();
    Q->ThreadId = GMainThreadId ? GMainThreadId : CurrentTid();
    Q->IsMain = true;
    std::unique_lock<std::shared_mutex> L(Reg().Lock);
    Reg().Queues[Q->ThreadId] = Q;  // never removed
    return Q.get();
  }();
  return Q;
}

void DestroyQueue(TQueue* Q);

// The calling thread's queue slot; the queue ends with the thread (except
// the main thread's, which lives as long as the process).
struct TQueueSlot {
  TQueue* Q = nullptr;
  ~TQueueSlot() {
    if (Q && !Q->IsMain) DestroyQueue(Q);
  }
};
thread_local TQueueSlot tlsQueue;

TQueue* CurrentQueue() {
  if (TQueue* Q = tlsQueue.Q) return Q;
  TQueue* Q;
  if (CurrentTid() == MainThreadID()) {
    Q = MainQueue();
    std::lock_guard<std::mutex> L(Q->M);
    Q->Open = true;
  } else {
    // A queue made for this thread by its creator (detail::CreateThreadQueue)
    // is taken over; messages already posted to it stay in order.
    std::unique_lock<std::shared_mutex> L(Reg().Lock);
    std::shared_ptr<TQueue>& Slot = Reg().Queues[CurrentTid()];
    if (!Slot) {
      Slot = std::make_shared<TQueue>();
      Slot->ThreadId = CurrentTid();
      Slot->Open = true;
    }
    Q = Slot.get();
  }
  tlsQueue.Q = Q;
  return Q;
}

// Completes a sent message: the sender wakes and may return at once, so the
// item is not touched after the completing lock is let go.
void CompleteSent(TSentItem* S, LRESULT Result, std::exception_ptr Error) {
  S->Result = Result;
  S->Error = std::move(Error);
  if (TQueue* W = S->Waiter) {
    std::lock_guard<std::mutex> L(W->M);
    S->Done = true;
    W->CV.notify_one();
  } else {
    std::lock_guard<std::mutex> L(S->Lock);
    S->Done = true;
    S->Cond.notify_one();
  }
}

void CompleteSync(TSyncItem* S) {
  std::lock_guard<std::mutex> L(S->Lock);
  S->Done = true;
  S->Cond.notify_one();
}

void DestroyQueue(TQueue* Q) {
  std::shared_ptr<TQueue> Owner;  // the registry's reference, dropped last
  {
    std::unique_lock<std::shared_mutex> L(Reg().Lock);
    auto It = Reg().Queues.find(Q->ThreadId);
    if (It != Reg().Queues.end() && It->second.get() == Q) {
      Owner = std::move(It->second);
      Reg().Queues.erase(It);
    }
    for (auto W = Reg().Windows.begin(); W != Reg().Windows.end();) {
      if (W->second.Queue == Q)
        W = Reg().Windows.erase(W);
      else
        ++W;
    }
  }
  TSentItem* Pending;
  {
    std::lock_guard<std::mutex> L(Q->M);
    Q->Dead = true;
    Q->Posted.Release();
    Pending = Q->Sent.TakeAll();
  }
  while (Pending) {
    TSentItem* Next = Pending->Next;
    CompleteSent(Pending, 0, nullptr);
    Pending = Next;
  }
}

struct TWindowCall {
  TWndMethod Method;
  TObject* Receiver = nullptr;
  bool Found = false;
};

// The procedure of Wnd, when Wnd belongs to Owner (or to anyone when Owner
// is null).
TWindowCall FindWindow(HWND Wnd, TQueue* Owner) {
  TWindowCall C;
  std::shared_lock<std::shared_mutex> L(Reg().Lock);
  auto It = Reg().Windows.find(Wnd);
  if (It == Reg().Windows.end()) return C;
  if (Owner && It->second.Queue != Owner) return C;
  C.Method = It->second.Method;
  C.Receiver = It->second.Receiver;
  C.Found = true;
  return C;
}

LRESULT CallWindow(const TWindowCall& C, UINT Msg, WPARAM WParam, LPARAM LParam) {
  TMessage M;
  M.Msg = Msg;
  M.WParam = WParam;
  M.LParam = LParam;
  if (C.Receiver)
    C.Receiver->Dispatch(&M);
  else if (C.Method.Assigned())
    C.Method(M);
  return M.Result;
}

void ProcessSent(TQueue* Q, TSentItem* S) {
  TWindowCall C = FindWindow(S->Wnd, Q);
  if (!C.Found) {
    CompleteSent(S, 0, nullptr);
    return;
  }
  LRESULT R = 0;
  std::exception_ptr E;
  try {
    R = CallWindow(C, S->Msg, S->WParam, S->LParam);
  } catch (...) {
    E = std::current_exception();
  }
  CompleteSent(S, R, std::move(E));
}

void RunSyncList(TSyncItem* S) {
  while (S) {
    TSyncItem* Next = S->Next;
    try {
      (*S->Method)();
    } catch (...) {
      S->Error = std::current_exception();
    }
    CompleteSync(S);
    S = Next;
  }
}

// With L holding Q->M: processes one sent message or the pending
// Synchronize requests, if any; returns whether it did (L is held again on
// return).
// The helpers below run with L holding Q->M; each returns whether it did
// something (L is held again on return).

// Processes one message sent from another thread.
bool ServeSent(TQueue* Q, std::unique_lock<std::mutex>& L) {
  TSentItem* S = Q->Sent.Pop();
  if (!S) return false;
  L.unlock();
  ProcessSent(Q, S);
  L.lock();
  return true;
}

// Runs the waiting Synchronize requests (main thread).
bool ServeSync(TQueue* Q, std::unique_lock<std::mutex>& L) {
  if (!Q->IsMain || Q->Sync.Empty()) return false;
  TSyncItem* List = Q->Sync.TakeAll();
  L.unlock();
  RunSyncList(List);
  L.lock();
  return true;
}

// Synchronize requests keep their place among posted messages: a request
// made after a post runs after that message has been retrieved. A mark at
// the front of the queue runs the requests waiting.
bool ServeFrontMark(TQueue* Q, std::unique_lock<std::mutex>& L) {
  if (!Q->Posted.Count() || Q->Posted.At(0).hwnd != HWND_SYNCMARK) return false;
  Q->Posted.Erase(0);
  --Q->Marks;
  ServeSync(Q, L);
  return true;
}

bool Matches(const TMsg& M, HWND Wnd, UINT Min, UINT Max) {
  if (Wnd == HWND_THREADONLY) {
    if (M.hwnd != 0) return false;
  } else if (Wnd != 0 && M.hwnd != Wnd) {
    return false;
  }
  if (M.message == WM_QUIT) return true;
  if (Min == 0 && Max == 0) return true;
  return M.message >= Min && M.message <= Max;
}

// The retrieval loop of GetMessage and PeekMessage.
bool Retrieve(TQueue* Q, TMsg* Out, HWND Wnd, UINT Min, UINT Max, bool Remove, bool Wait) {
  const bool AnyMessage = Wnd == 0 && Min == 0 && Max == 0;
  std::unique_lock<std::mutex> L(Q->M);
  for (;;) {
    if (ServeSent(Q, L) || ServeFrontMark(Q, L)) continue;
    size_t N = Q->Posted.Count();
    for (size_t I = 0; I < N; ++I) {
      const TMsg& Candidate = Q->Posted.At(I);
      if (Candidate.hwnd == HWND_SYNCMARK) continue;
      if (AnyMessage || Matches(Candidate, Wnd, Min, Max)) {
        *Out = Q->Posted.At(I);
        if (Remove) {
          Q->Posted.Erase(I);
          Q->IdleLocked();
        }
        return true;
      }
      if (AnyMessage) break;
    }
    if (Q->QuitPending && (Wnd == 0 || Wnd == HWND_THREADONLY)) {
      *Out = TMsg();
      Out->message = WM_QUIT;
      Out->wParam = static_cast<WPARAM>(static_cast<intptr_t>(Q->QuitCode));
      Out->time = GetTickCount();
      if (Remove) {
        Q->QuitPending = false;
        Q->IdleLocked();
      }
      return true;
    }
    // Nothing for the caller: requests still behind other messages run now
    // rather than wait for a loop that is not going to take those.
    if (ServeSync(Q, L)) continue;
    Q->IdleLocked();
    if (!Wait) return false;
    ++Q->Waiters;
    Q->CV.wait(L);
    --Q->Waiters;
  }
}

// Appends M to Q; the caller keeps Q alive (the registry's shared lock or
// a shared_ptr).
bool PostToQueue(TQueue* Q, const TMsg& M) {
  bool Notify;
  {
    std::lock_guard<std::mutex> L(Q->M);
    if (!Q->Open || Q->Dead) {
      tlsLastError = ERROR_INVALID_THREAD_ID;
      return false;
    }
    if (Q->Posted.Count() >= MaxQueuedMessages) {
      tlsLastError = ERROR_NOT_ENOUGH_QUOTA;
      return false;
    }
    Q->Posted.Push(M);
    Notify = Q->Waiters > 0;
    Q->SignalFdLocked();
  }
  if (Notify) Q->CV.notify_one();
  return true;
}

TMsg MakeMsg(HWND Wnd, UINT Msg, WPARAM WParam, LPARAM LParam) {
  TMsg M;
  M.hwnd = Wnd;
  M.message = Msg;
  M.wParam = WParam;
  M.lParam = LParam;
  M.time = GetTickCount();
  return M;
}

// Signals the main queue after a change made under its lock.
void WakeMain(TQueue* Q, bool Notify) {
  if (Notify) Q->CV.notify_one();
}

// ---------------------------------------------------------------------------
// Dialog sink

struct TDialogState {
  std::mutex Lock;
  std::shared_ptr<const TDialogSink> Sink;
};

TDialogState& DialogState() {
  static TDialogState* S = new TDialogState;
  return *S;
}

int DefaultDialog(const std::string& Text, const std::string& Caption, UINT) {
  std::string Line = Caption + ": " + Text + "\n";
  std::fwrite(Line.data(), 1, Line.size(), stderr);
  std::fflush(stderr);
  return IDOK;
}

std::string DefaultTitle() {
  std::string Name = program_invocation_short_name ? program_invocation_short_name : "";
  size_t Dot = Name.rfind('.');
  if (Dot != std::string::npos && Dot > 0) Name.resize(Dot);
  return Name;
}

// Set up when the library is loaded, on the loading thread.
struct TInit {
  TInit() {
    GMainThreadId = CurrentTid();
    MainQueue();
  }
} Init;

}  // namespace

// ---------------------------------------------------------------------------
// Threads

DWORD GetCurrentThreadId() {
  return CurrentTid();
}

DWORD MainThreadID() {
  return GMainThreadId ? GMainThreadId : MainQueue()->ThreadId;
}

DWORD GetTickCount() {
  // The coarse clock is enough for a millisecond count that the platform
  // itself only advances every 10 to 16 ms, and it is much cheaper.
  timespec T;
  clock_gettime(CLOCK_MONOTONIC_COARSE, &T);
  return static_cast<DWORD>(static_cast<uint64_t>(T.tv_sec) * 1000u +
                            static_cast<uint64_t>(T.tv_nsec) / 1000000u);
}

DWORD GetLastError() {
  return tlsLastError;
}
void SetLastError(DWORD Code) {
  tlsLastError = Code;
}

// ---------------------------------------------------------------------------
// Windows

namespace {

HWND RegisterWindow(TWndMethod Method, TObject* Receiver, TQueue* Q) {
  TRegistry& R = Reg();
  std::unique_lock<std::shared_mutex> L(R.Lock);
  if (R.Windows.size() >= static_cast<size_t>(LastHandle - FirstHandle))
    throw EOutOfMemory(SOutOfWindowHandles);
  HWND H;
  do {
    H = R.NextHandle;
    R.NextHandle = H >= LastHandle ? FirstHandle : H + 1;
  } while (R.Windows.count(H));
  TWindow& W = R.Windows[H];
  W.Queue = Q;
  W.Method = Method;
  W.Receiver = Receiver;
  return H;
}

}  // namespace

HWND AllocateHWnd(TWndMethod Method) {
  return RegisterWindow(Method, nullptr, CurrentQueue());
}

HWND AllocateHWnd(TObject* Receiver) {
  return RegisterWindow(TWndMethod(), Receiver, CurrentQueue());
}

namespace {
// The main thread's queue, opened for posts: a window of the main thread
// gives it a queue as if the main thread had made the window itself.
TQueue* OpenMainQueue() {
  TQueue* Q = MainQueue();
  std::lock_guard<std::mutex> L(Q->M);
  Q->Open = true;
  return Q;
}
}  // namespace

HWND AllocateMainThreadHWnd(TWndMethod Method) {
  return RegisterWindow(Method, nullptr, OpenMainQueue());
}

HWND AllocateMainThreadHWnd(TObject* Receiver) {
  return RegisterWindow(TWndMethod(), Receiver, OpenMainQueue());
}

void DeallocateHWnd(HWND Wnd) {
  std::unique_lock<std::shared_mutex> L(Reg().Lock);
  Reg().Windows.erase(Wnd);
}

bool IsWindow(HWND Wnd) {
  std::shared_lock<std::shared_mutex> L(Reg().Lock);
  return Reg().Windows.count(Wnd) != 0;
}

DWORD GetWindowThreadProcessId(HWND Wnd, DWORD* ProcessId) {
  std::shared_lock<std::shared_mutex> L(Reg().Lock);
  auto It = Reg().Windows.find(Wnd);
  if (It == Reg().Windows.end()) {
    tlsLastError = ERROR_INVALID_WINDOW_HANDLE;
    return 0;
  }
  if (ProcessId) *ProcessId = static_cast<DWORD>(getpid());
  return It->second.Queue->ThreadId;
}

// ---------------------------------------------------------------------------
// Posting, sending, retrieving

bool PostMessage(HWND Wnd, UINT Msg, WPARAM WParam, LPARAM LParam) {
  if (Wnd == 0) return PostThreadMessage(CurrentTid(), Msg, WParam, LParam);
  std::shared_lock<std::shared_mutex> L(Reg().Lock);
  auto It = Reg().Windows.find(Wnd);
  if (It == Reg().Windows.end()) {
    tlsLastError = ERROR_INVALID_WINDOW_HANDLE;
    return false;
  }
  return PostToQueue(It->second.Queue, MakeMsg(Wnd, Msg, WParam, LParam));
}

namespace {
// The queue a thread last posted to, so that a stream of posts to one
// thread does not go through the registry each time. A cached queue whose
// thread has ended refuses the post, and the registry is asked again.
struct TPostCache {
  DWORD ThreadId = 0;
  std::shared_ptr<TQueue> Queue;
};
thread_local TPostCache tlsPostCache;
}  // namespace

bool PostThreadMessage(DWORD ThreadId, UINT Msg, WPARAM WParam, LPARAM LParam) {
  if (ThreadId == CurrentTid()) CurrentQueue();  // posting to oneself asks for a queue
  const TMsg M = MakeMsg(0, Msg, WParam, LParam);
  TPostCache& C = tlsPostCache;
  if (C.Queue && C.ThreadId == ThreadId) {
    if (PostToQueue(C.Queue.get(), M)) return true;
    if (tlsLastError == ERROR_NOT_ENOUGH_QUOTA) return false;
    C.Queue.reset();  // that thread has ended
  }
  {
    std::shared_lock<std::shared_mutex> L(Reg().Lock);
    auto It = Reg().Queues.find(ThreadId);
    if (It == Reg().Queues.end()) {
      tlsLastError = ERROR_INVALID_THREAD_ID;
      return false;
    }
    C.ThreadId = ThreadId;
    C.Queue = It->second;
  }
  return PostToQueue(C.Queue.get(), M);
}

LRESULT SendMessage(HWND Wnd, UINT Msg, WPARAM WParam, LPARAM LParam) {
  TSentItem Item;
  Item.Wnd = Wnd;
  Item.Msg = Msg;
  Item.WParam = WParam;
  Item.LParam = LParam;
  // The main thread waits on its queue even before it has asked for
  // messages, so that it serves Synchronize requests meanwhile.
  TQueue* Own = tlsQueue.Q;
  if (!Own && CurrentTid() == MainThreadID()) Own = MainQueue();
  {
    std::shared_lock<std::shared_mutex> L(Reg().Lock);
    auto It = Reg().Windows.find(Wnd);
    if (It == Reg().Windows.end()) {
      tlsLastError = ERROR_INVALID_WINDOW_HANDLE;
      return 0;
    }
    TQueue* Target = It->second.Queue;
    if (Target->ThreadId == CurrentTid()) {
      TWindowCall C;
      C.Method = It->second.Method;
      C.Receiver = It->second.Receiver;
      L.unlock();
      return CallWindow(C, Msg, WParam, LParam);
    }
    Item.Waiter = Own;
    bool Notify;
    {
      std::lock_guard<std::mutex> QL(Target->M);
      if (Target->Dead) return 0;
      Target->Sent.Push(&Item);
      Notify = Target->Waiters > 0;
      Target->SignalFdLocked();
    }
    if (Notify) Target->CV.notify_one();
  }
  if (Own) {
    // Serve what is sent to this thread while waiting for the answer.
    std::unique_lock<std::mutex> L(Own->M);
    while (!Item.Done) {
      if (ServeSent(Own, L) || ServeSync(Own, L)) continue;
      ++Own->Waiters;
      Own->CV.wait(L);
      --Own->Waiters;
    }
  } else {
    std::unique_lock<std::mutex> L(Item.Lock);
    Item.Cond.wait(L, [&] { return Item.Done; });
  }
  if (Item.Error) std::rethrow_exception(Item.Error);
  return Item.Result;
}

int GetMessage(TMsg* Msg, HWND Wnd, UINT MsgFilterMin, UINT MsgFilterMax) {
  if (!Msg) {
    tlsLastError = ERROR_INVALID_PARAMETER;
    return -1;
  }
  if (Wnd != 0 && Wnd != HWND_THREADONLY && !IsWindow(Wnd)) {
    tlsLastError = ERROR_INVALID_WINDOW_HANDLE;
    return -1;
  }
  Retrieve(CurrentQueue(), Msg, Wnd, MsgFilterMin, MsgFilterMax, true, true);
  return Msg->message == WM_QUIT ? 0 : 1;
}

bool PeekMessage(TMsg* Msg, HWND Wnd, UINT MsgFilterMin, UINT MsgFilterMax, UINT RemoveMsg) {
  if (!Msg) {
    tlsLastError = ERROR_INVALID_PARAMETER;
    return false;
  }
  return Retrieve(CurrentQueue(), Msg, Wnd, MsgFilterMin, MsgFilterMax,
                  (RemoveMsg & PM_REMOVE) != 0, false);
}

LRESULT DispatchMessage(const TMsg* Msg) {
  if (!Msg || Msg->hwnd == 0) return 0;
  TQueue* Own = tlsQueue.Q;
  if (!Own) return 0;
  TWindowCall C = FindWindow(Msg->hwnd, Own);
  if (!C.Found) return 0;
  return CallWindow(C, Msg->message, Msg->wParam, Msg->lParam);
}

void WaitMessage() {
  TQueue* Q = CurrentQueue();
  std::unique_lock<std::mutex> L(Q->M);
  for (;;) {
    if (ServeSent(Q, L) || ServeFrontMark(Q, L)) {
      Q->IdleLocked();
      return;
    }
    if (Q->Posted.Count() || Q->QuitPending) return;
    if (ServeSync(Q, L)) {
      Q->IdleLocked();
      return;
    }
    if (Q->Wake) {
      Q->Wake = false;
      Q->IdleLocked();
      return;
    }
    ++Q->Waiters;
    Q->CV.wait(L);
    --Q->Waiters;
  }
}

void PostQuitMessage(int ExitCode) {
  TQueue* Q = CurrentQueue();
  std::lock_guard<std::mutex> L(Q->M);
  Q->QuitPending = true;
  Q->QuitCode = ExitCode;
  Q->SignalFdLocked();
}

// ---------------------------------------------------------------------------
// Synchronize support

bool CheckSynchronize(uint32_t Timeout) {
  DWORD Tid = CurrentTid();
  if (Tid != MainThreadID())
    throw EThread(Format(SCheckSynchronizeError, {static_cast<int64_t>(Tid)}));
  TQueue* Q = MainQueue();
  TSyncItem* List;
  {
    std::unique_lock<std::mutex> L(Q->M);
    if (Q->Sync.Empty() && !Q->Wake && Timeout != 0) {
      auto Ready = [Q] { return !Q->Sync.Empty() || Q->Wake; };
      ++Q->Waiters;
      if (Timeout == INFINITE)
        Q->CV.wait(L, Ready);
      else
        Q->CV.wait_for(L, std::chrono::milliseconds(Timeout), Ready);
      --Q->Waiters;
    }
    Q->Wake = false;
    List = Q->Sync.TakeAll();
    if (Q->Marks) {
      Q->Posted.RemoveIf([](const TMsg& M) { return M.hwnd == HWND_SYNCMARK; });
      Q->Marks = 0;
    }
    Q->IdleLocked();
  }
  bool Ran = List != nullptr;
  RunSyncList(List);
  return Ran;
}

void SynchronizeWithMainThread(const std::function<void()>& Method) {
  if (CurrentTid() == MainThreadID()) {
    Method();
    return;
  }
  TSyncItem Item;
  Item.Method = &Method;
  TQueue* Q = MainQueue();
  bool Notify;
  {
    std::lock_guard<std::mutex> L(Q->M);
    Q->Sync.Push(&Item);
    if (Q->Open) {
      Q->Posted.Push(MakeMsg(HWND_SYNCMARK, WM_NULL, 0, 0));
      ++Q->Marks;
    }
    Notify = Q->Waiters > 0;
    Q->SignalFdLocked();
  }
  WakeMain(Q, Notify);
  {
    std::unique_lock<std::mutex> L(Item.Lock);
    Item.Cond.wait(L, [&] { return Item.Done; });
  }
  if (Item.Error) std::rethrow_exception(Item.Error);
}

void WakeMainThread() {
  TQueue* Q = MainQueue();
  bool Notify;
  {
    std::lock_guard<std::mutex> L(Q->M);
    Q->Wake = true;
    Notify = Q->Waiters > 0;
    Q->SignalFdLocked();
  }
  WakeMain(Q, Notify);
}

int MainThreadWakeupFd() {
  TQueue* Q = MainQueue();
  std::lock_guard<std::mutex> L(Q->M);
  if (Q->Fd < 0) {
    int Fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (Fd < 0) {
      int Err = errno;
      throw EOSError(Format(SWakeupFdError, {Err, std::strerror(Err)}));
    }
    Q->Fd = Fd;
    if (Q->Busy() || Q->Wake) Q->SignalFdLocked();
  }
  return Q->Fd;
}

void detail::ReleaseThreadQueue() {
  TQueue* Q = tlsQueue.Q;
  if (!Q) {
    // A queue made by the creator that this thread never asked for.
    // Only this thread removes its own entry, so Q stays valid once the
    // lock is let go.
    if (CurrentTid() == MainThreadID()) return;
    std::shared_lock<std::shared_mutex> L(Reg().Lock);
    auto It = Reg().Queues.find(CurrentTid());
    if (It == Reg().Queues.end()) return;
    Q = It->second.get();
  }
  if (Q->IsMain) return;
  tlsQueue.Q = nullptr;
  DestroyQueue(Q);
}

bool detail::CreateThreadQueue(DWORD ThreadId) {
  if (ThreadId == 0) {
    tlsLastError = ERROR_INVALID_THREAD_ID;
    return false;
  }
  if (ThreadId == MainThreadID()) {
    OpenMainQueue();
    return true;
  }
  std::unique_lock<std::shared_mutex> L(Reg().Lock);
  std::shared_ptr<TQueue>& Slot = Reg().Queues[ThreadId];
  if (!Slot) {
    Slot = std::make_shared<TQueue>();
    Slot->ThreadId = ThreadId;
    Slot->Open = true;
  }
  return true;
}

// ---------------------------------------------------------------------------
// Dialog sink

TDialogSink SetDialogSink(TDialogSink Sink) {
  TDialogState& S = DialogState();
  std::shared_ptr<const TDialogSink> New;
  if (Sink) New = std::make_shared<const TDialogSink>(std::move(Sink));
  std::shared_ptr<const TDialogSink> Old;
  {
    std::lock_guard<std::mutex> L(S.Lock);
    Old = std::exchange(S.Sink, std::move(New));
  }
  return Old ? *Old : TDialogSink();
}

int MessageBoxA(HWND, const std::string& Text, const std::string& Caption, UINT Type) {
  std::shared_ptr<const TDialogSink> Sink;
  {
    TDialogState& S = DialogState();
    std::lock_guard<std::mutex> L(S.Lock);
    Sink = S.Sink;
  }
  if (Sink && *Sink) return (*Sink)(Text, Caption, Type);
  return DefaultDialog(Text, Caption, Type);
}

// ---------------------------------------------------------------------------
// TApplication

VEL_IMPLEMENT(TApplication)

TApplication* Application = new TApplication(nullptr);

TApplication::TApplication(TComponent* AOwner) : TComponent(AOwner), FTitle(DefaultTitle()) {}

TApplication::~TApplication() = default;

bool TApplication::ProcessMessage(TMsg& Msg) {
  if (!PeekMessage(&Msg, 0, 0, 0, PM_REMOVE)) return false;
  if (Msg.message == WM_QUIT) {
    FTerminated.store(true, std::memory_order_release);
    return true;
  }
  try {
    DispatchMessage(&Msg);
  } catch (...) {
    HandleException(this);
  }
  return true;
}

void TApplication::ProcessMessages() {
  TMsg Msg;
  while (ProcessMessage(Msg)) {
  }
}

void TApplication::HandleMessage() {
  TMsg Msg;
  if (!ProcessMessage(Msg)) WaitMessage();
}

void TApplication::Run() {
  FTerminated.store(false, std::memory_order_release);
  while (!Terminated()) {
    try {
      HandleMessage();
    } catch (...) {
      HandleException(this);
    }
  }
}

void TApplication::Terminate() {
  TQueue* Q = MainQueue();
  bool Notify;
  {
    std::lock_guard<std::mutex> L(Q->M);
    Q->QuitPending = true;
    Q->QuitCode = 0;
    Notify = Q->Waiters > 0;
    Q->SignalFdLocked();
  }
  WakeMain(Q, Notify);
}

void TApplication::HandleException(TObject* Sender) {
  HandleException(Sender, std::current_exception());
}

void TApplication::HandleException(TObject* Sender, std::exception_ptr E) {
  if (!E) return;
  try {
    std::rethrow_exception(E);
  } catch (const EAbort&) {
  } catch (const std::exception& X) {
    if (OnException.Assigned())
      OnException(Sender, X);
    else
      ShowException(X);
  } catch (...) {
    Exception X(SUnknownException);
    if (OnException.Assigned())
      OnException(Sender, X);
    else
      ShowException(X);
  }
}

void TApplication::ShowException(const std::exception& E) {
  std::string Msg = E.what();
  if (!Msg.empty() && static_cast<unsigned char>(Msg.back()) > '.') Msg += '.';
  MessageBoxA(0, Msg, FTitle, MB_OK | MB_ICONSTOP);
}

}  // namespace vel
