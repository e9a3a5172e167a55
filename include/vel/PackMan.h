// The package manager: the process-wide registry of the plug-in packages
// loaded through it. It loads a package by name (LoadPackageEx), keeps it
// under a key index (1, 2, 3, ... never reused), remembers which component
// asked for it, loads the plug-ins named by the settings registry's Plugins
// value, and tells IPackageNotifier subscribers of each load before it
// happens. It never unloads anything: the unload operations find the
// package and do nothing, so a package stays loaded and listed until the
// process ends.
//
// Reached through PackageManager() only; constructing TPackageManager
// directly raises EPackageManager.
//
// Thread safety: one recursive lock, shared by all instances, serialises
// every package operation; subscribers are called with it held, on the
// loading thread, and may call back into the manager.
#pragma once

#include <cstdint>
#include <string>

#include "vel/Export.h"
#include "vel/velIntfClasses.h"
#include "vel/rtl/Components.h"
#include "vel/rtl/Lists.h"
#include "vel/rtl/Packages.h"

namespace vel {

VEL_EXCEPTION(EPackageManager, Exception);

inline constexpr const char* SPackageManagerInstanciated = "<Singleton/> already Instanciated";
inline constexpr const char* SPackageManagerCallSingleton =
    "Call Singleton() function to Reference this class";

// One record per load, in load order.
struct TLoadedPackage {
  HMODULE Handle = nullptr;
  std::string Name;  // as passed to the load
  int32_t KeyIndex = 0;
  TComponent* Owner = nullptr;  // not owned
  std::string Data;             // never set by this library
  uint32_t Tag = 0;             // never set by this library
};

using TFreeComponentEvent = TEvent<void(TObject* Sender, TComponent* Component)>;

// Reports the destruction of the components that asked it for a free
// notification through OnFreeComponent.
class VEL_API TFreeComponentNotifier : public TComponent {
  VEL_CLASS(TFreeComponentNotifier, TComponent)
 public:
  explicit TFreeComponentNotifier(TComponent* AOwner = nullptr) : TComponent(AOwner) {}
  ~TFreeComponentNotifier() override;
  TFreeComponentEvent OnFreeComponent;

 protected:
  void Notification(TComponent* AComponent, TOperation Operation) override;
  virtual void DoFreeNotify(TComponent* AComponent);
};

class VEL_API TCustomPackageManager : public TInterfacedPackageManager, public IResolveNotify {
  VEL_CLASS(TCustomPackageManager, TInterfacedPackageManager)
  VEL_INTERFACE_TABLE(IResolveNotify)
 public:
  TCustomPackageManager();
  ~TCustomPackageManager() override;

  // ISubscribe is answered by the notify source.
  HRESULT QueryInterface(const TGUID& IID, void** Obj) override;
  int32_t _AddRef() override { return inherited::_AddRef(); }
  int32_t _Release() override { return inherited::_Release(); }

  void Initialize() override;  // KeyCounter := 0
  void Terminate() override;   // UnloadPackages
  int32_t GetPackageCount() override;
  std::string GetPackage(int32_t Index) override;
  void Lock() override;
  void Unlock() override;
  // The key index of the package Name, loading it first when it is not
  // listed (names compare case-insensitively). Loader failures pass on.
  int32_t LoadPackageLib(const std::string& Name) override;
  void UnLoadPackageLib(const std::string& Name) override;
  // As LoadPackageLib; a new record remembers Owner (not null), which is
  // asked for a free notification.
  int32_t RegisterLoad(const std::string& Name, TComponent* Owner) override;
  void RegisterUnLoad(TComponent* Owner) override;
  // Loads every name of the settings registry's Plugins value (comma text),
  // each as a new record, even when already listed.
  void RegistryLoad(TComponent* Owner) override;
  void RegistryUnLoad() override;
  void DelayUnload(const std::string& Name, int32_t KeyIndex) override;
  virtual void DelayUnload(TComponent* Component, int32_t KeyIndex);

  // IResolveNotify: hands IPackageNotifier subscribers the notification in
  // progress.
  void DoNotify(ICustomNotifier* Notifier, const TGUID& IID, IInterface* Unk,
                int32_t Operation) override;

  bool Contains(const std::string& Name, int32_t& KeyIndex);
  int32_t IndexOfName(const std::string& Name);         // last match, -1 if none
  int32_t IndexOfKeyIndex(int32_t KeyIndex);            // last match, -1 if none
  int32_t IndexOfOwner(TComponent* Owner);              // last match, -1 if none
  // The first record named Name; Loaded tells whether there is one (the
  // result is then the last record examined, null for an empty list).
  TLoadedPackage* PackageLoaded(const std::string& Name, bool& Loaded);
  TLoadedPackage* Package(int32_t Index);
  void UnloadPackages();

  IPtr<ISubscribe> GetSubscribe();
  bool SubscribeAllocated() const { return static_cast<bool>(FSubscribe); }
  int32_t KeyCounter() const { return FKeyCounter; }
  const std::string& NotifyName() const { return FNotifyName; }
  int32_t NotifyIndex() const { return FNotifyIndex; }

 protected:
  virtual void InternalCreate();
  virtual void InternalDestroy();
  TLoadedPackage* InternalLoadPackage(const std::string& Name);
  void InternalUnLoadPackage(int32_t Index);
  TLoadedPackage* AllocPackage();
  void NotifyLoad(const std::string& Name, int32_t KeyIndex);
  void NotifyUnLoad(const std::string& Name, int32_t KeyIndex);
  void FreeComponent(TObject* Sender, TComponent* Component);
  void CreateSubscribe();
  void FreeSubscribe();
  void SubscribeNeeded();

  std::string FNotifyName;
  int32_t FNotifyIndex = 0;
  int32_t FKeyCounter = 0;
  TList* FPackages = nullptr;  // TLoadedPackage*
  IPtr<ISubscribe> FSubscribe;
  TFreeComponentNotifier* FFreeNotifier = nullptr;
};

class VEL_API TPackageManager : public TCustomPackageManager {
  VEL_CLASS(TPackageManager, TCustomPackageManager)
 public:
  // EPackageManager SPackageManagerInstanciated while the singleton exists,
  // SPackageManagerCallSingleton when not called by PackageManager().
  TPackageManager();
  ~TPackageManager() override;
  static IPtr<IPackageManager> PackageManager();
};

// The singleton, created on the first call.
VEL_API IPtr<IPackageManager> PackageManager();
// The singleton if it exists, else null.
VEL_API IPtr<IPackageManager> CurrentPackageManager();
// Releases the singleton (the PackMan unit's finalisation); the next
// PackageManager() makes a new one.
VEL_API void ReleasePackageManager();

}  // namespace vel
