// The library's notification interfaces and the interfaces of its hidden
// windows, application services and threads, with their fixed identifiers
// (they must stay as they are so that queries across modules agree), and
// the enumerations and event types that go with them.
//
// Methods are listed in slot order after the three IInterface methods.
#pragma once

#include <cstdint>
#include <string>

#include "vel/rtl/Com.h"
#include "vel/rtl/Messages.h"
#include "vel/rtl/System.h"

namespace vel {

struct ISubscribe;

// ---------------------------------------------------------------------------
// Enumerations and events

enum TPackageOperation : uint8_t { poPackageLoad, poPackageUnload };
enum TThreadOperation : uint8_t { toExecute, toTerminate, toFeedback };

// (Sender: the notifier object; Unk; Operation)
using TNotifierEvent = TEvent<void(TObject* Sender, IInterface* Unk, int32_t Operation)>;
// (Sender: the notifier object; PackageName; PackageIndex)
using TNotifyPackageEvent =
    TEvent<void(TObject* Sender, const std::string& PackageName, int32_t PackageIndex)>;

// ---------------------------------------------------------------------------
// Notifiers: the receiving side

struct VEL_API ICustomNotifier : IInterface {
  VEL_INTERFACE_ID("{9482D394-E663-4ECC-B472-D815015F4B80}")
  // A counted reference to the source this notifier is attached to.
  virtual IPtr<ISubscribe> GetSubscribe() = 0;
  // Stores the source without counting it.
  virtual void SetSubscribe(ISubscribe* Value) = 0;
};

struct VEL_API INotifier : ICustomNotifier {
  VEL_INTERFACE_ID("{E41415D7-55F1-4CFE-AE4A-1DEF9CF99C9E}")
  virtual void Notification(IInterface* Unk, int32_t Operation) = 0;
};

struct VEL_API IPackageNotifier : ICustomNotifier {
  VEL_INTERFACE_ID("{F89A9BB0-28E4-4F43-9ABF-D14EE2446763}")
  virtual void PackageNotification(const std::string& PackageName, int32_t PackageIndex,
                                   TPackageOperation Operation) = 0;
};

struct VEL_API IMessageNotifier : ICustomNotifier {
  VEL_INTERFACE_ID("{1C224C12-A123-11D5-8FFE-0000F6B2E357}")
  // Receives a message record; implementing classes decide what to do.
  virtual void MessageNotification(TMessage& Message) = 0;
};

struct VEL_API IThreadNotifier : ICustomNotifier {
  VEL_INTERFACE_ID("{11F11B61-A22D-11D5-9000-0000F6B2E357}")
  // Called by the thread manager with the thread (Unk) and a
  // TThreadOperation.
  virtual void ThreadNotification(IInterface* Unk, int32_t Operation) = 0;
};

struct VEL_API ILogNotifier : ICustomNotifier {
  VEL_INTERFACE_ID("{F09B9289-E567-4552-BFBF-5D1A924A5EEB}")
  // A log line (Msg) of category LogCat.
  virtual void NotifyMsg(const std::u16string& Msg, int32_t LogCat) = 0;
};

// ---------------------------------------------------------------------------
// Sources: the broadcasting side

struct VEL_API ISubscribe : IInterface {
  VEL_INTERFACE_ID("{5F81562A-4986-4D81-9FDE-CF67D754B9D6}")
  virtual void AddNotifier(ICustomNotifier* Notifier) = 0;
  virtual void RemoveNotifier(ICustomNotifier* Notifier) = 0;
};

struct VEL_API ICustomNotify : IInterface {
  VEL_INTERFACE_ID("{FB3A0060-462B-4B2B-9889-62385C877F8D}")
  virtual bool GetEnabled() = 0;
  virtual void SetEnabled(bool Value) = 0;
};

struct VEL_API INotify : ICustomNotify {
  VEL_INTERFACE_ID("{18FC0E81-C9E1-4E70-9A6A-FDA4C2BF532B}")
  virtual void Notify(IInterface* Unk, int32_t Operation) = 0;
};

struct VEL_API IExNotify : ICustomNotify {
  VEL_INTERFACE_ID("{79A08244-377C-4A2C-A52F-DBFED09558D9}")
  virtual void Notify(const TGUID& IID, IInterface* Unk, int32_t Operation) = 0;
};

// The resolver of a resolved broadcast. Notifier is the interface IID of
// the subscriber (obtained by a query, so it really is an IID interface
// whose first part is ICustomNotifier); the resolver turns it into that
// interface with static_cast once it has recognised IID, e.g.
//   if (IID == IIDOf<IPackageNotifier>)
//     static_cast<IPackageNotifier*>(Notifier)->PackageNotification(...);
struct VEL_API IResolveNotify : IInterface {
  VEL_INTERFACE_ID("{7CC9EFE2-AD1C-4AEA-A1BB-1A378C20E4A3}")
  virtual void DoNotify(ICustomNotifier* Notifier, const TGUID& IID, IInterface* Unk,
                        int32_t Operation) = 0;
};

struct VEL_API INotifyThread : IInterface {
  VEL_INTERFACE_ID("{E82F06CB-94BF-478E-86E8-2F351FA003F3}")
  // Posts Msg with its parameters to the windows the thread notifies.
  virtual void ThreadNotify(UINT Msg, int32_t WParam, int32_t LParam) = 0;
};

struct VEL_API ISubscribeThread : IInterface {
  VEL_INTERFACE_ID("{B28760B7-E398-4C1E-8372-EED87C86BBE8}")
  virtual void RegisterHandle(HWND Handle) = 0;
  virtual void UnRegisterHandle(HWND Handle) = 0;
};

// ---------------------------------------------------------------------------
// Windows and application services

struct VEL_API IHandle : IInterface {
  VEL_INTERFACE_ID("{F8C1AAE1-7E98-4310-8A51-6487AABC2327}")
  virtual HWND GetHandle() = 0;
};

struct VEL_API IAllocHandle : IHandle {
  VEL_INTERFACE_ID("{B1C9EFE2-10D2-4656-8C3E-BC3F0AEE8607}")
  virtual bool HandleAllocated() = 0;
  virtual void HandleNeeded() = 0;
  virtual void CreateHandle() = 0;
  virtual void FreeHandle() = 0;
};

struct VEL_API IWindowsProcedure : IInterface {
  VEL_INTERFACE_ID("{33133365-936F-41FC-8ECB-1C41B6AF2296}")
  virtual void WndProc(TMessage& Message) = 0;
};

struct VEL_API IApplicationService : IInterface {
  VEL_INTERFACE_ID("{5B1AFB97-7097-4A8E-80A8-6FD3CF9A08EF}")
  virtual void Initialize() = 0;
  virtual void Terminate() = 0;
};

class TComponent;

// The package manager's service interface (PackMan implements it).
struct VEL_API IPackageManager : IApplicationService {
  VEL_INTERFACE_ID("{A3B85A4A-FE2D-4CB9-B069-FEC56DCE9824}")
  virtual int32_t GetPackageCount() = 0;
  virtual std::string GetPackage(int32_t Index) = 0;
  virtual void Lock() = 0;
  virtual void Unlock() = 0;
  virtual int32_t LoadPackageLib(const std::string& Name) = 0;
  virtual void UnLoadPackageLib(const std::string& Name) = 0;
  virtual int32_t RegisterLoad(const std::string& Name, TComponent* Owner) = 0;
  virtual void RegisterUnLoad(TComponent* Owner) = 0;
  virtual void RegistryLoad(TComponent* Owner) = 0;
  virtual void RegistryUnLoad() = 0;
  virtual void DelayUnload(const std::string& Name, int32_t KeyIndex) = 0;
};

// Serialises work on a shared object across threads.
struct VEL_API IThreadSync : IInterface {
  VEL_INTERFACE_ID("{37AA8C06-E609-4BBC-8415-44FD79CE4ACB}")
  virtual void Lock() = 0;
  virtual void Unlock() = 0;
};
inline constexpr TGUID IID_IPackageManager = IPackageManager::InterfaceID;
inline constexpr TGUID IID_IThreadSync = IThreadSync::InterfaceID;

// ---------------------------------------------------------------------------
// Threads

// How the thread manager sees a thread.
struct VEL_API IThread : IInterface {
  VEL_INTERFACE_ID("{996C6761-A1FA-11D5-8FFF-0000F6B2E357}")
  virtual int32_t GetThreadMgrHwnd() = 0;
  virtual void SetThreadMgrHwnd(int32_t Value) = 0;
  virtual uint32_t GetThreadID() = 0;
  virtual bool GetTerminated() = 0;
  virtual uintptr_t GetHandle() = 0;
  virtual void Terminate() = 0;
};

struct VEL_API IThreadDataRequests : IInterface {
  VEL_INTERFACE_ID("{FCC29B67-ABA4-43B1-92E4-6D80DB5F09A1}")
  virtual int32_t SendDataRequest(int32_t ThreadID, const TGUID& IID, IInterface* Intf,
                                  const std::string& Data) = 0;
  virtual void WaitForRequests() = 0;
};

// The process-wide registry of worker threads (see velThreads.h).
struct VEL_API IThreadManager : IInterface {
  VEL_INTERFACE_ID("{4CBAA3D8-9B9C-11D5-8FF8-0000F6B2E357}")
  virtual int32_t GetCount() = 0;
  // The registered thread at Index; EListError "List index out of bounds
  // (%d)" outside 0..GetCount-1.
  virtual IPtr<IThread> GetThread(int32_t Index) = 0;
  virtual void Initialize() = 0;
  virtual void RegisterThread(IThread* Thread) = 0;
  virtual void UnRegisterThread(IThread* Thread) = 0;
  virtual void TerminateThreads() = 0;
  // The registered thread whose GetThreadID is ThreadID, or null.
  virtual IPtr<IThread> FindThread(uint32_t ThreadID) = 0;
};
inline constexpr TGUID IID_IThreadManager = IThreadManager::InterfaceID;

// Identifiers of interfaces declared by the units that implement them.

// The name of an interface of this unit (or of IInterface, IDispatch,
// IStream) with identifier IID, e.g. "INotifier"; other identifiers give
// their text form "{...}". For diagnostics.
VEL_API std::string InterfaceName(const TGUID& IID);

}  // namespace vel
