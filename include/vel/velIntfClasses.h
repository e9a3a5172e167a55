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
#pragma once

#include <string>

#include "vel/rtl/Com.h"
#include "vel/rtl/Lists.h"
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
  // Subscribes to ASubscribe (when not null).
  explicit TCustomNotifier(ISubscribe* ASubscribe = nullptr);
  // Unsubscribes from the source it is attached to, if any.
  ~TCustomNotifier() override;

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

  // Appends Notifier unless it is already listed (by reference), then
  // attaches it (SetSubscribe with this source). A listed notifier is left
  // alone; a null one is ignored.
  void AddNotifier(ICustomNotifier* Notifier) override;
  // Detaches Notifier (SetSubscribe(nullptr)) and removes it; does nothing
  // when it is not listed.
  void RemoveNotifier(ICustomNotifier* Notifier) override;
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

}  // namespace vel
