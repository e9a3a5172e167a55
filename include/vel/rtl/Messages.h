// Window and thread messages: message records, per-thread message queues,
// hidden windows, posting and sending, the message loop primitives, the
// main thread's side of Synchronize, the application object, and the
// dialog sink (MessageBoxA).
//
// Queues. A thread gets a message queue the first time it asks for
// messages (GetMessage, PeekMessage, WaitMessage) or creates a window
// (AllocateHWnd). Until then PostThreadMessage to it fails and returns
// false, as on the platform; callers that race with a thread's start retry.
// A message-queue thread (TMsgQueThread) has its queue made by its creator,
// so it takes posts as soon as its constructor returns.
// A queue goes away with its thread, together with the thread's windows;
// what was still queued is dropped. Posted messages are delivered in the
// order they were posted to one queue.
//
// Windows. AllocateHWnd creates a hidden window owned by the calling
// thread; its messages are dispatched on that thread only (DispatchMessage
// ignores windows of other threads). The window procedure is a method
// (TWndMethod) or an object's Dispatch, so message handlers registered with
// message<&C::Handler>(Msg) receive the TMessage record. A handle is a
// 32-bit number, never 0, never reused while the process lives (up to
// 2^31 windows).
//
// Sending. SendMessage to a window of the calling thread calls the window
// procedure directly. To a window of another thread it waits until that
// thread has processed the message (inside its GetMessage, PeekMessage,
// WaitMessage or its own wait in SendMessage) and returns the result; an
// exception raised by the window procedure is raised again in the sender.
// While it waits, the sender processes messages sent to its own windows,
// so two threads sending to each other do not deadlock. If the window or
// its thread goes away first, SendMessage returns 0.
//
// The main thread. MainThreadID is the thread that loaded the library.
// Synchronize requests of other threads (Threads.h) are run by the main
// thread inside GetMessage, PeekMessage, WaitMessage, SendMessage's wait,
// CheckSynchronize and TThread::WaitFor, so any message loop of the main
// thread serves them. A message loop runs them in their place among the
// messages posted to the main thread: a request made after a post runs
// after that message has been retrieved, or as soon as the loop would
// otherwise wait or come back empty-handed.
//
// Driving the main thread from another event loop (Qt, GLib): watch
// MainThreadWakeupFd() for readability and call Application->
// ProcessMessages() when it is readable. The descriptor becomes readable
// when a message is posted or sent to the main thread, a Synchronize
// request arrives, or a thread ends (for WaitFor); it is cleared when the
// main thread's queue has been emptied.
//
// Thread safety: every function may be called from any thread; those that
// retrieve or dispatch messages work on the calling thread's own queue.
#pragma once

#include <cstdint>
#include <exception>
#include <functional>
#include <string>

#include "vel/rtl/Components.h"
#include "vel/rtl/SyncObjs.h"
#include "vel/rtl/System.h"

namespace vel {

// ---------------------------------------------------------------------------
// Types and message records

using HWND = uint32_t;
using UINT = uint32_t;
using DWORD = uint32_t;
using WPARAM = uintptr_t;
using LPARAM = intptr_t;
using LRESULT = intptr_t;

struct TPoint {
  int32_t X = 0;
  int32_t Y = 0;
};

// A queued message as GetMessage and PeekMessage return it.
struct TMsg {
  HWND hwnd = 0;
  UINT message = 0;
  WPARAM wParam = 0;
  LPARAM lParam = 0;
  DWORD time = 0;  // GetTickCount at posting
  TPoint pt;
};
using tagMSG = TMsg;
using MSG = TMsg;

// The record a window procedure and message handlers receive. Msg comes
// first so that TObject::Dispatch routes it by message number.
struct TMessage {
  UINT Msg = 0;
  WPARAM WParam = 0;
  LPARAM LParam = 0;
  LRESULT Result = 0;
};

// A window procedure: a method taking the message record.
using TWndMethod = TEvent<void(TMessage&)>;

inline constexpr UINT WM_NULL = 0x0000;
inline constexpr UINT WM_DESTROY = 0x0002;
inline constexpr UINT WM_CLOSE = 0x0010;
inline constexpr UINT WM_QUIT = 0x0012;
inline constexpr UINT WM_TIMER = 0x0113;
inline constexpr UINT WM_USER = 0x0400;
inline constexpr UINT WM_APP = 0x8000;

inline constexpr UINT PM_NOREMOVE = 0x0000;
inline constexpr UINT PM_REMOVE = 0x0001;
inline constexpr UINT PM_NOYIELD = 0x0002;

// GetMessage/PeekMessage window filter that selects thread messages only.
inline constexpr HWND HWND_THREADONLY = 0xFFFFFFFFu;

// Error codes of GetLastError.
inline constexpr DWORD ERROR_SUCCESS = 0;
inline constexpr DWORD ERROR_INVALID_PARAMETER = 87;
inline constexpr DWORD ERROR_INVALID_WINDOW_HANDLE = 1400;
inline constexpr DWORD ERROR_INVALID_THREAD_ID = 1444;
inline constexpr DWORD ERROR_NOT_ENOUGH_QUOTA = 1816;

// ---------------------------------------------------------------------------
// Threads

// The calling thread's identifier (its kernel thread id).
VEL_API DWORD GetCurrentThreadId();
// The main thread's identifier: the thread that loaded the library.
VEL_API DWORD MainThreadID();
// Milliseconds since an arbitrary start, wrapping at 2^32.
VEL_API DWORD GetTickCount();
// The calling thread's last error code, set by the functions below that
// fail by result.
VEL_API DWORD GetLastError();
VEL_API void SetLastError(DWORD Code);

// ---------------------------------------------------------------------------
// Windows

// Creates a hidden window owned by the calling thread (giving the thread a
// queue) whose procedure is Method. Raises EOutOfMemory when no handle is
// left.
VEL_API HWND AllocateHWnd(TWndMethod Method);
// The same with Receiver->Dispatch as procedure: the message record goes to
// the receiver's handler for its number, or to its DefaultHandler.
VEL_API HWND AllocateHWnd(TObject* Receiver);
// The same, but the window belongs to the main thread whichever thread
// calls: its messages are dispatched by the main thread's message loop.
// For objects that live on the main thread but may be created by a worker
// (the thread manager's window).
VEL_API HWND AllocateMainThreadHWnd(TWndMethod Method);
VEL_API HWND AllocateMainThreadHWnd(TObject* Receiver);
// Destroys the window: later posts to it fail, queued messages for it are
// no longer dispatched, pending sends to it return 0. Unknown handles are
// ignored.
VEL_API void DeallocateHWnd(HWND Wnd);
VEL_API bool IsWindow(HWND Wnd);
// The thread that owns Wnd, or 0 when there is no such window.
VEL_API DWORD GetWindowThreadProcessId(HWND Wnd, DWORD* ProcessId = nullptr);

// ---------------------------------------------------------------------------
// Posting, sending, retrieving

// Queues the message for Wnd's thread. Wnd 0 posts a thread message to the
// calling thread. False, with GetLastError
// ERROR_INVALID_WINDOW_HANDLE, when the window does not exist.
VEL_API bool PostMessage(HWND Wnd, UINT Msg, WPARAM WParam, LPARAM LParam);
// Queues a thread message (hwnd 0). False, with GetLastError
// ERROR_INVALID_THREAD_ID, when the thread has no queue (not yet, or no
// longer); a thread posting to itself gets its queue made. False with
// ERROR_NOT_ENOUGH_QUOTA when the queue already holds 2^20 messages.
VEL_API bool PostThreadMessage(DWORD ThreadId, UINT Msg, WPARAM WParam, LPARAM LParam);
// Calls Wnd's procedure and returns its result (see the header comment for
// other threads). 0 for an unknown window.
VEL_API LRESULT SendMessage(HWND Wnd, UINT Msg, WPARAM WParam, LPARAM LParam);

inline bool PostMessageA(HWND Wnd, UINT Msg, WPARAM WParam, LPARAM LParam) {
  return PostMessage(Wnd, Msg, WParam, LParam);
}
inline bool PostThreadMessageA(DWORD ThreadId, UINT Msg, WPARAM WParam, LPARAM LParam) {
  return PostThreadMessage(ThreadId, Msg, WParam, LParam);
}
inline LRESULT SendMessageA(HWND Wnd, UINT Msg, WPARAM WParam, LPARAM LParam) {
  return SendMessage(Wnd, Msg, WParam, LParam);
}

// Waits for the next message of the calling thread's queue that passes the
// filter and removes it into *Msg. Filter: Wnd 0 takes any message,
// HWND_THREADONLY only thread messages, another handle only that window's;
// MsgFilterMin/Max 0/0 take every number, otherwise the inclusive range
// (WM_QUIT passes any range). Returns 0 when the message is WM_QUIT, -1
// for a null Msg or an unknown window filter (GetLastError tells which),
// and 1 otherwise. Messages sent from other threads, and on the main thread
// Synchronize requests, are processed while waiting.
VEL_API int GetMessage(TMsg* Msg, HWND Wnd, UINT MsgFilterMin, UINT MsgFilterMax);
// Like GetMessage without waiting: true when a message was found (removed
// with PM_REMOVE, left in place with PM_NOREMOVE).
VEL_API bool PeekMessage(TMsg* Msg, HWND Wnd, UINT MsgFilterMin, UINT MsgFilterMax, UINT RemoveMsg);
// Calls the procedure of Msg->hwnd when that window belongs to the calling
// thread and returns its result; 0 for thread messages and other windows.
// Exceptions from the procedure propagate.
VEL_API LRESULT DispatchMessage(const TMsg* Msg);
// Blocks until the calling thread's queue holds a message (processing sent
// messages and, on the main thread, Synchronize requests meanwhile, after
// which it returns as well).
VEL_API void WaitMessage();
// Asks the calling thread's message loop to end: GetMessage returns
// WM_QUIT (wParam ExitCode) once no other message is waiting.
VEL_API void PostQuitMessage(int ExitCode);

inline int GetMessageA(TMsg* Msg, HWND Wnd, UINT Min, UINT Max) {
  return GetMessage(Msg, Wnd, Min, Max);
}
inline bool PeekMessageA(TMsg* Msg, HWND Wnd, UINT Min, UINT Max, UINT Remove) {
  return PeekMessage(Msg, Wnd, Min, Max, Remove);
}
inline LRESULT DispatchMessageA(const TMsg* Msg) {
  return DispatchMessage(Msg);
}

// ---------------------------------------------------------------------------
// Synchronize support

// Runs the Synchronize requests waiting for the main thread; waits up to
// Timeout milliseconds (INFINITE for ever) for one when none is waiting.
// Returns true when it ran at least one. Also returns, false, when a
// thread ends. Raises EThread "CheckSynchronize called from thread $%x,
// which is NOT the main thread" on another thread.
VEL_API bool CheckSynchronize(uint32_t Timeout = 0);

// Runs Method on the main thread and returns when it has run there (at
// once, directly, on the main thread itself). An exception raised by
// Method is raised again in the calling thread. TThread::Synchronize is
// built on this.
VEL_API void SynchronizeWithMainThread(const std::function<void()>& Method);

// Wakes the main thread's waits (CheckSynchronize, WaitMessage) and its
// wake-up descriptor without a message.
VEL_API void WakeMainThread();

// The wake-up descriptor of the main thread's queue (an eventfd), created
// on first call and kept for the life of the process. Do not read or close
// it; the runtime clears it.
VEL_API int MainThreadWakeupFd();

namespace detail {
// Ends the calling thread's queue and windows now rather than at thread
// exit (TThread does this before it reports itself finished, so posts to a
// finished thread fail at once). Nothing on the main thread.
VEL_API void ReleaseThreadQueue();
// Gives the thread ThreadId its message queue now, before that thread asks
// for messages, so that posts to it succeed from this call on; the thread
// takes the queue over on its first GetMessage or PeekMessage. Only for a
// thread that is alive and ends through library code that releases the
// queue (TThread does): TMsgQueThread makes its worker's queue this way
// before its constructor returns. False (ERROR_INVALID_THREAD_ID) for 0.
VEL_API bool CreateThreadQueue(DWORD ThreadId);
}  // namespace detail

// ---------------------------------------------------------------------------
// Dialog sink

inline constexpr UINT MB_OK = 0x00000000;
inline constexpr UINT MB_OKCANCEL = 0x00000001;
inline constexpr UINT MB_YESNO = 0x00000004;
inline constexpr UINT MB_ICONHAND = 0x00000010;
inline constexpr UINT MB_ICONSTOP = MB_ICONHAND;
inline constexpr UINT MB_ICONERROR = MB_ICONHAND;
inline constexpr UINT MB_ICONQUESTION = 0x00000020;
inline constexpr UINT MB_ICONWARNING = 0x00000030;
inline constexpr UINT MB_ICONINFORMATION = 0x00000040;

inline constexpr int IDOK = 1;
inline constexpr int IDCANCEL = 2;
inline constexpr int IDYES = 6;
inline constexpr int IDNO = 7;

// Receives every message box: the text, the caption and the style flags;
// returns the button pressed (IDOK ...).
using TDialogSink =
    std::function<int(const std::string& Text, const std::string& Caption, UINT Type)>;

// Installs Sink and returns the previous one; an empty function restores
// the default, which writes "<Caption>: <Text>" and a line feed to stderr
// and returns IDOK. The sink is called without any runtime lock held.
VEL_API TDialogSink SetDialogSink(TDialogSink Sink);
// Shows a message box through the dialog sink. The owner window is ignored.
VEL_API int MessageBoxA(HWND Wnd, const std::string& Text, const std::string& Caption, UINT Type);

// ---------------------------------------------------------------------------
// The application object

using TExceptionEvent = TEvent<void(TObject* Sender, const std::exception& E)>;

// The main thread's message loop and error reporting. Its methods that
// process messages must be called on the main thread.
class VEL_API TApplication : public TComponent {
  VEL_CLASS(TApplication, TComponent)
 public:
  explicit TApplication(TComponent* AOwner = nullptr);
  ~TApplication() override;

  // Processes every message waiting in the calling thread's queue (and the
  // Synchronize requests on the main thread), then returns. A WM_QUIT
  // marks the application terminated.
  void ProcessMessages();
  // Processes one message; when none is waiting, runs pending Synchronize
  // requests or waits for the next message.
  void HandleMessage();
  // HandleMessage until terminated; exceptions go to HandleException. Run
  // clears Terminated when it starts (a quit posted before still ends it at
  // once), so it may be run again.
  void Run();
  // Ends Run: posts the quit message to the main thread (from any thread).
  void Terminate();
  bool Terminated() const { return FTerminated.load(std::memory_order_acquire); }

  // Reports the exception being handled (call inside a catch block): to
  // OnException when assigned, else to ShowException. EAbort is silent.
  void HandleException(TObject* Sender);
  void HandleException(TObject* Sender, std::exception_ptr E);
  // Shows E's message in a message box with the application's title and
  // MB_OK | MB_ICONSTOP; a message not ending in '.' or a character below
  // it gets a '.' appended.
  void ShowException(const std::exception& E);

  const std::string& Title() const { return FTitle; }
  void SetTitle(const std::string& Value) { FTitle = Value; }
  // See MainThreadWakeupFd.
  int WakeupHandle() const { return MainThreadWakeupFd(); }

  TExceptionEvent OnException;

 private:
  bool ProcessMessage(TMsg& Msg);
  std::atomic<bool> FTerminated{false};
  std::string FTitle;
};

// The application object, created when the library is loaded.
VEL_API extern TApplication* Application;

}  // namespace vel
