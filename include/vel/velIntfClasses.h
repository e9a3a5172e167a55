// Publish/subscribe notification: notifiers (the receiving side) and
// subscribe-notify sources (the broadcasting side).
//
// A notifier is created with the source's ISubscribe and so subscribes
// itself; freeing it unsubscribes it. Notifiers are not reference counted
// (_AddRef/_Release return -1): whoever creates one frees it with delete.
// Sources are reference counted: hold them through IPtr. A source keeps
// plain (uncounted) references to its notifiers and a notifier a plain
// reference to its source; a source that goes first detaches its
// notifiers, a notifier that goes first removes itself.
//
// Broadcasts run synchronously in the caller's thread, in subscription
// order, over the count taken when the broadcast began: a subscriber that
// removes itself or another one during a broadcast makes the broadcast skip
// the entry that moved into the freed place and fail at its end with the
// list's "List index out of bounds (%d)"; subscribers added during a
// broadcast are not reached by it. Exceptions from a subscriber end the
// broadcast and reach the caller.
//
// Thread safety: none; a source and its notifiers belong to one thread at a
// time (other threads marshal to it first).
//
// The unit also holds the interfaced building blocks of the thread classes:
// TInterfacedThread (a thread the thread manager sees through IThread),
// TWindowsHandle (a hidden window owned by an object), the abstract
// interfaced bases, TSubscribeThread (window handles a thread posts its
// notifications to) and TInterfacedThreadManager (the thread list, the
// manager's window and its notifications; velThreads.h adds the singleton
// and the data requests). Their thread rules are given with each class.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "vel/ExtendedClasses.h"
#include "vel/IntfClasses.h"
#include "vel/rtl/Com.h"
#include "vel/rtl/Lists.h"
#include "vel/rtl/StringLists.h"
#include "vel/velInterfaces.h"

namespace vel {

VEL_EXCEPTION(EKnownError, Exception);
VEL_EXCEPTION(EPackageNotifierError, Exception);

inline constexpr const char* SPackageNotificationInvalidOperation =
    "Package Notification, invalid operation (%s)";

// ---------------------------------------------------------------------------
// Notifiers

// Holds its source without counting it; AddRef and Release return -1.
class VEL_API TCustomNotifier : public TInterfacedObject, public ICustomNotifier {
  VEL_CLASS(TCustomNotifier, TInterfacedObject)
  VEL_INTERFACE_TABLE(ICustomNotifier)
 public:
  // Subscribes to ASubscribe (when not null). That makes the object
  // reachable before its derived parts are constructed: a notifier that
  // other threads may notify while it is being made is created without a
  // source and added to it once complete.
  explicit TCustomNotifier(ISubscribe* ASubscribe = nullptr);
  // Unsubscribes from the source it is attached to, if any.
  ~TCustomNotifier() override;
  // Leaves the source it is attached to, if any. A C++ object loses its
  // derived parts before this base destructor runs, so a descendant that
  // overrides a notification method and may be freed while another thread
  // notifies it calls Unsubscribe first in its own destructor: the source
  // then stops calling it (the thread manager also waits for a call under
  // way) while the override still exists.
  void Unsubscribe();

  HRESULT QueryInterface(const TGUID& IID, void** Obj) override {
    return TInterfacedObject::QueryInterface(IID, Obj);
  }
  int32_t _AddRef() override { return -1; }
  int32_t _Release() override { return -1; }

  IPtr<ISubscribe> GetSubscribe() override;
  void SetSubscribe(ISubscribe* Value) override;
  // The reference under which this notifier subscribes.
  ICustomNotifier* AsCustomNotifier() { return this; }

 protected:
  ISubscribe* FSubscribe = nullptr;
};

// Routes the ICustomNotifier methods of a further interface of a notifier
// class to TCustomNotifier.
#define VEL_CUSTOM_NOTIFIER_METHODS                        \
 public:                                                   \
  ::vel::IPtr<::vel::ISubscribe> GetSubscribe() override { \
    return ::vel::TCustomNotifier::GetSubscribe();         \
  }                                                        \
  void SetSubscribe(::vel::ISubscribe* Value) override {   \
    ::vel::TCustomNotifier::SetSubscribe(Value);           \
  }                                                        \
                                                           \
 private:

// Turns Notification into the OnNotification event.
class VEL_API TNotifier : public TCustomNotifier, public INotifier {
  VEL_CLASS(TNotifier, TCustomNotifier)
  VEL_INTERFACES(INotifier)
  VEL_CUSTOM_NOTIFIER_METHODS
 public:
  explicit TNotifier(ISubscribe* ASubscribe = nullptr) : TCustomNotifier(ASubscribe) {}
  ~TNotifier() override;
  // Calls OnNotification(this, Unk, Operation) when it is assigned.
  void Notification(IInterface* Unk, int32_t Operation) override;

  TNotifierEvent OnNotification;
};

// Turns PackageNotification into OnPackageLoad / OnPackageUnload.
class VEL_API TPackageNotifier : public TCustomNotifier, public IPackageNotifier {
  VEL_CLASS(TPackageNotifier, TCustomNotifier)
  VEL_INTERFACES(IPackageNotifier)
  VEL_CUSTOM_NOTIFIER_METHODS
 public:
  explicit TPackageNotifier(ISubscribe* ASubscribe = nullptr) : TCustomNotifier(ASubscribe) {}
  ~TPackageNotifier() override;
  // poPackageLoad calls OnPackageLoad, poPackageUnload OnPackageUnload
  // (each when assigned) with (this, PackageName, PackageIndex). Any other
  // operation raises EPackageNotifierError "Package Notification, invalid
  // operation (<PackageName>)".
  void PackageNotification(const std::string& PackageName, int32_t PackageIndex,
                           TPackageOperation Operation) override;

  TNotifyPackageEvent OnPackageLoad;
  TNotifyPackageEvent OnPackageUnload;
};

// A notifier for IMessageNotifier; descendants implement its method.
class VEL_API TMessageNotifier : public TCustomNotifier, public IMessageNotifier {
  VEL_CLASS(TMessageNotifier, TCustomNotifier)
  VEL_INTERFACES(IMessageNotifier)
  VEL_CUSTOM_NOTIFIER_METHODS
 public:
  explicit TMessageNotifier(ISubscribe* ASubscribe = nullptr) : TCustomNotifier(ASubscribe) {}
  ~TMessageNotifier() override;
};

// A notifier for IThreadNotifier; descendants implement its method.
class VEL_API TThreadNotifier : public TCustomNotifier, public IThreadNotifier {
  VEL_CLASS(TThreadNotifier, TCustomNotifier)
  VEL_INTERFACES(IThreadNotifier)
  VEL_CUSTOM_NOTIFIER_METHODS
 public:
  explicit TThreadNotifier(ISubscribe* ASubscribe = nullptr) : TCustomNotifier(ASubscribe) {}
  ~TThreadNotifier() override;
};

// A reference-counted INotifyThread; descendants implement its method.
class VEL_API TNotifyThread : public TInterfacedObject, public INotifyThread {
  VEL_CLASS(TNotifyThread, TInterfacedObject)
  VEL_INTERFACES(INotifyThread)
 public:
  TNotifyThread() = default;
  ~TNotifyThread() override;
};

// ---------------------------------------------------------------------------
// Sources

// The list of subscribers and the Enabled switch. The list is created on
// the first AddNotifier.
class VEL_API TCustomSubscribeNotify : public TInterfacedObject,
                                       public ICustomNotify,
                                       public ISubscribe {
  VEL_CLASS(TCustomSubscribeNotify, TInterfacedObject)
  VEL_INTERFACES(ICustomNotify, ISubscribe)
 public:
  TCustomSubscribeNotify() = default;
  // Detaches every notifier (ClearNotifiers of this class: a descendant
  // that overrides ClearNotifiers and needs its version here calls it in
  // its own destructor), then frees the list.
  ~TCustomSubscribeNotify() override;

  // Appends Notifier unless the object is already listed, then attaches it
  // (SetSubscribe with this source). Objects are compared by identity (see
  // Identity), so one object added through two of its interfaces is listed
  // once. A listed notifier is left alone; a null one is ignored.
  void AddNotifier(ICustomNotifier* Notifier) override;
  // Detaches Notifier (SetSubscribe(nullptr)) and removes the entry of the
  // same object, whichever interface it was added through; does nothing
  // when it is not listed.
  void RemoveNotifier(ICustomNotifier* Notifier) override;
  // Index of the entry of Notifier's object, or -1.
  int32_t IndexOfNotifier(ICustomNotifier* Notifier) const;
  // Index of the entry that is this very pointer, or -1 (no cast, so also
  // for a pointer whose object may be gone).
  int32_t IndexOfEntry(ICustomNotifier* Entry) const { return FList ? FList->IndexOf(Entry) : -1; }
  // The identity of the entry at Index, as taken when it was added.
  const void* EntryIdentity(int32_t Index) const { return FIds[static_cast<size_t>(Index)]; }
  // The listed notifiers, in order (not counted).
  std::vector<ICustomNotifier*> Notifiers() const;
  // The object behind an interface pointer, the same whichever of its
  // interfaces is given, also while the object is being destroyed: its
  // TObject when it is one, else its most derived address.
  static const void* Identity(IInterface* Intf);
  // Removes every notifier, the last added first.
  virtual void ClearNotifiers();

  bool GetEnabled() override { return FEnabled; }
  void SetEnabled(bool Value) override { FEnabled = Value; }
  // Number of subscribers (0 while the list does not exist).
  int32_t NotifierCount() const { return FList ? FList->Count() : 0; }
  bool ListAllocated() const { return FList != nullptr; }

 protected:
  void CreateList();
  void FreeList();
  void ListNeeded();

  bool FEnabled = true;
  TList* FList = nullptr;  // ICustomNotifier*, not counted
  // Identity of each entry of FList, taken when it was added: a notifier
  // that leaves from its destructor can no longer be asked about the
  // interfaces of its already destroyed parts.
  std::vector<const void*> FIds;
};

// Routes the ICustomNotify methods of a further interface of a source class
// to TCustomSubscribeNotify.
#define VEL_CUSTOM_NOTIFY_METHODS                       \
 public:                                                \
  bool GetEnabled() override {                          \
    return ::vel::TCustomSubscribeNotify::GetEnabled(); \
  }                                                     \
  void SetEnabled(bool Value) override {                \
    ::vel::TCustomSubscribeNotify::SetEnabled(Value);   \
  }                                                     \
                                                        \
 private:

// The plain broadcast: Notify calls Notification on every subscriber.
class VEL_API TSubscribeNotify : public TCustomSubscribeNotify, public INotify {
  VEL_CLASS(TSubscribeNotify, TCustomSubscribeNotify)
  VEL_INTERFACES(INotify)
  VEL_CUSTOM_NOTIFY_METHODS
 public:
  TSubscribeNotify() = default;
  ~TSubscribeNotify() override;
  // Nothing when disabled or when nobody ever subscribed. Every subscriber
  // must be an INotifier (otherwise EIntfCastError "Interface not
  // supported" ends the broadcast).
  void Notify(IInterface* Unk, int32_t Operation) override;
};

// The resolved broadcast: Notify hands every subscriber that supports IID
// to the resolver, which holds this source (the resolver is not counted).
class VEL_API TExSubscribeNotify : public TCustomSubscribeNotify, public IExNotify {
  VEL_CLASS(TExSubscribeNotify, TCustomSubscribeNotify)
  VEL_INTERFACES(IExNotify)
  VEL_CUSTOM_NOTIFY_METHODS
 public:
  explicit TExSubscribeNotify(IResolveNotify* AResolveNotify = nullptr);
  ~TExSubscribeNotify() override;
  // Nothing when disabled, when nobody ever subscribed or when no resolver
  // is set. Subscribers that do not support IID are skipped.
  void Notify(const TGUID& IID, IInterface* Unk, int32_t Operation) override;

  IPtr<IResolveNotify> GetResolveNotify() const { return FResolveNotify; }
  void SetResolveNotify(IResolveNotify* Value) { FResolveNotify = Value; }

 private:
  IResolveNotify* FResolveNotify = nullptr;
};

// ---------------------------------------------------------------------------
// Threads, windows and the thread manager's base

VEL_EXCEPTION(EWindowsHandleError, Exception);

inline constexpr const char* SReceiverNil = "Receiver can not be nil";

// A runtime thread that the thread manager sees through IThread. Like the
// runtime's TIntfThread it is not reference counted (its owner frees it),
// so the manager's counted references do not keep it alive.
//
// Construction follows the runtime thread's rule: pass true to the base
// and call Resume() as the last statement of the most derived constructor
// that offers running creation.
class VEL_API TInterfacedThread : public TIntfThread, public IThread {
  VEL_CLASS(TInterfacedThread, TIntfThread)
  VEL_INTERFACES(IThread)
 public:
  explicit TInterfacedThread(bool CreateSuspended);
  ~TInterfacedThread() override;

  // Posts Msg to the thread manager's window when the thread is registered
  // (ThreadMgrHwnd > 0); nothing otherwise. The post's result is ignored.
  virtual void NotifyMgr(UINT Msg, WPARAM WParam, LPARAM LParam);
  // The runtime's Terminate; TBaseThread also leaves the thread manager.
  void Terminate() override;

  int32_t GetThreadMgrHwnd() override { return FThreadMgrHwnd.load(std::memory_order_acquire); }
  void SetThreadMgrHwnd(int32_t Value) override {
    FThreadMgrHwnd.store(Value, std::memory_order_release);
  }
  uint32_t GetThreadID() override { return ThreadID(); }
  bool GetTerminated() override { return Terminated(); }
  uintptr_t GetHandle() override { return Handle(); }
  int32_t ThreadMgrHwnd() const { return FThreadMgrHwnd.load(std::memory_order_acquire); }

 private:
  std::atomic<int32_t> FThreadMgrHwnd{0};
};

// Abstract interfaced bases: reference-counted objects whose interface
// methods descendants supply.
class VEL_API TInterfacedHandle : public TInterfacedObject, public IHandle {
  VEL_CLASS(TInterfacedHandle, TInterfacedObject)
  VEL_INTERFACES(IHandle)
 public:
  ~TInterfacedHandle() override;
};

class VEL_API TInterfacedAllocHandle : public TInterfacedHandle, public IAllocHandle {
  VEL_CLASS(TInterfacedAllocHandle, TInterfacedHandle)
  VEL_INTERFACES(IAllocHandle)
 public:
  ~TInterfacedAllocHandle() override;
};

class VEL_API TInterfacedApplicationService : public TInterfacedObject,
                                              public IApplicationService {
  VEL_CLASS(TInterfacedApplicationService, TInterfacedObject)
  VEL_INTERFACES(IApplicationService)
 public:
  ~TInterfacedApplicationService() override;
};

class VEL_API TInterfacedPackageManager : public TInterfacedApplicationService,
                                          public IPackageManager,
                                          public IThreadSync {
  VEL_CLASS(TInterfacedPackageManager, TInterfacedApplicationService)
  VEL_INTERFACES(IPackageManager, IThreadSync)
 public:
  ~TInterfacedPackageManager() override;
  // IPackageManager's IApplicationService part is the same service.
  void Initialize() override = 0;
  void Terminate() override = 0;
};

class VEL_API TInterfacedSubscribeThread : public TNotifyThread, public ISubscribeThread {
  VEL_CLASS(TInterfacedSubscribeThread, TNotifyThread)
  VEL_INTERFACES(ISubscribeThread)
 public:
  ~TInterfacedSubscribeThread() override;
};

// A hidden window owned by an object: its messages go to the receiver's
// message handlers (Dispatch; unhandled numbers to its DefaultHandler, never
// to a system default procedure). The window is made on the first
// GetHandle/HandleNeeded by the calling thread, which then owns it and
// dispatches its messages, and is destroyed by FreeHandle or with the
// object. It is never made twice: after FreeHandle, HandleAllocated stays
// true and GetHandle returns the destroyed window's handle (posts to it
// fail; handles are never reused).
class VEL_API TWindowsHandle : public TInterfacedAllocHandle, public IWindowsProcedure {
  VEL_CLASS(TWindowsHandle, TInterfacedAllocHandle)
  VEL_INTERFACES(IWindowsProcedure)
 public:
  // EWindowsHandleError "Receiver can not be nil" for a null Receiver. The
  // receiver is not owned and must outlive the window.
  explicit TWindowsHandle(TObject* Receiver);
  ~TWindowsHandle() override;

  HWND GetHandle() override;
  bool HandleAllocated() override { return FWindowHandle != 0; }
  void HandleNeeded() override;
  void CreateHandle() override;
  void FreeHandle() override;
  void WndProc(TMessage& Message) override;
  TObject* Receiver() const { return FReceiver; }

 protected:
  HWND FWindowHandle = 0;
  TObject* FReceiver;
};

// Window handles a thread posts its notifications to. Registration keeps
// its long-standing rules: RegisterHandle adds a handle unless it is
// already listed at an index above 0 (so the first handle may be listed
// twice), UnRegisterHandle removes a handle only when it is listed at an
// index above 0 (so the first one is never removed). Registration belongs
// to one thread; ThreadNotify only posts and may be called from any thread
// while the list does not change.
class VEL_API TSubscribeThread : public TInterfacedSubscribeThread {
  VEL_CLASS(TSubscribeThread, TInterfacedSubscribeThread)
 public:
  TSubscribeThread();
  ~TSubscribeThread() override;

  // Posts the message to every listed handle in order (a duplicate gets it
  // once per entry); failed posts are ignored.
  void ThreadNotify(UINT Msg, int32_t WParam, int32_t LParam) override;
  void RegisterHandle(HWND Handle) override;
  void UnRegisterHandle(HWND Handle) override;
  const THandleList& Handles() const { return *FHandles; }

 private:
  THandleList* FHandles;
};

// The thread list, the manager's window and the notifications of threads
// starting (toExecute) and ending (toTerminate), delivered through a
// resolved broadcast to IThreadNotifier subscribers.
//
// The window belongs to the main thread whichever thread makes the manager,
// so answers posted to it are dispatched by the main thread's message loop
// to the manager's message handlers (and to nothing else).
//
// Thread safety: every method may be called from any thread. One lock
// makes each change of the thread list and of the subscriber list atomic;
// it is never held while a subscriber is called or a thread is told to
// end. Notifications run in the thread that registers or ends a thread,
// after the list has changed, so a subscriber may Synchronize with the main
// thread and may call back into the manager, and the main thread may
// register and terminate threads at any time. What keeps this safe without
// the lock: a thread about which a notification is under way, or which
// TerminateThreads is ending, is marked as in use, and a thread object's
// destruction waits until no other thread has it marked; RemoveNotifier
// likewise returns only once no call to that notifier is under way on
// another thread (on the main thread both waits serve Synchronize).
class VEL_API TInterfacedThreadManager : public TInterfacedObject,
                                         public IThreadManager,
                                         public IResolveNotify,
                                         public ISubscribe,
                                         public IHandle {
  VEL_CLASS(TInterfacedThreadManager, TInterfacedObject)
  VEL_INTERFACES(IThreadManager, IResolveNotify, ISubscribe, IHandle)
 public:
  TInterfacedThreadManager();
  // Terminates the registered threads, waits until every thread that was
  // ever registered and has started has ended (see JoinThreads), then frees
  // the notify source, the window and the list.
  ~TInterfacedThreadManager() override;

  int32_t GetCount() override;
  IPtr<IThread> GetThread(int32_t Index) override;
  // Does nothing here.
  void Initialize() override;
  // Adds Thread unless listed, gives it the window handle and notifies
  // toExecute. A listed thread is left alone.
  void RegisterThread(IThread* Thread) override;
  // Clears the thread's window handle, removes it and notifies toTerminate.
  // Unknown threads are ignored.
  void UnRegisterThread(IThread* Thread) override;
  // Calls Terminate on every registered thread, the last first (each one
  // leaves the list on the way; one that does not is removed here with its
  // notification), then clears the list. Threads blocked in a wait of
  // their own are not woken here; the destructor wakes and joins them.
  void TerminateThreads() override;
  IPtr<IThread> FindThread(uint32_t ThreadID) override;

  void AddNotifier(ICustomNotifier* Notifier) override;
  void RemoveNotifier(ICustomNotifier* Notifier) override;
  // IThreadNotifier subscribers get ThreadNotification(Unk, Operation);
  // other identifiers are ignored.
  void DoNotify(ICustomNotifier* Notifier, const TGUID& IID, IInterface* Unk,
                int32_t Operation) override;
  // The manager's window.
  HWND GetHandle() override;
  IPtr<IAllocHandle> AllocHandle() const { return FAllocHandle; }

 protected:
  // Waits until every thread ever registered here that has started has run
  // to its end, posting each one the quit message (WM_QUIT) until a post
  // succeeds so that message-queue threads waiting for messages wake up.
  // On the main thread, Synchronize requests (OnTerminate, OnException) are
  // served meanwhile. Threads still suspended are not waited for (they run
  // nothing until resumed or freed).
  void JoinThreads();
  // Tells the IThreadNotifier subscribers about Thread (the resolved
  // broadcast), without holding the lock.
  void NotifyThreadOperation(IThread* Thread, int32_t Operation);

  // Guards the thread list and the subscriber list (one lock for the
  // process, shared with the notify source).
  std::recursive_mutex& FLock;

 private:
  TStringList* FStrings;
  IPtr<IInterfaceList> FThreads;
  IPtr<IAllocHandle> FAllocHandle;
  IPtr<ISubscribe> FSubscribe;
  std::vector<std::shared_ptr<const TThreadExitState>> FExits;
};

}  // namespace vel
