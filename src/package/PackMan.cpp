#include "vel/PackMan.h"

#include <memory>
#include <mutex>

#include "vel/CorRegistry.h"
#include "vel/rtl/StringLists.h"
#include "vel/rtl/SyncObjs.h"
#include "vel/rtl/SysUtils.h"
#include "vel/rtl/TypInfo.h"

namespace vel {

VEL_IMPLEMENT(TFreeComponentNotifier)
VEL_IMPLEMENT(TCustomPackageManager)
VEL_IMPLEMENT(TPackageManager)

namespace {

// The lock every package operation takes; recursive, so that a subscriber
// may call back into the manager from its notification. One per process,
// whatever the number of managers; never destroyed, since free
// notifications may arrive while the process exits.
std::recursive_mutex& PackageLock() {
  static auto* M = new std::recursive_mutex;
  return *M;
}

// Takes the manager's lock through its virtual Lock and leaves it through
// Unlock, also when the operation raises.
class TLockGuard {
 public:
  explicit TLockGuard(TCustomPackageManager* M) : FM(M) { FM->Lock(); }
  ~TLockGuard() { FM->Unlock(); }
  TLockGuard(const TLockGuard&) = delete;
  TLockGuard& operator=(const TLockGuard&) = delete;

 private:
  TCustomPackageManager* FM;
};

struct TSingleton {
  std::mutex Lock;
  IPtr<IPackageManager> Manager;
};
TSingleton& Singleton() {
  static auto* S = new TSingleton;
  return *S;
}
// False only while PackageManager() constructs the manager on this thread.
thread_local bool tlsCreationGuard = true;

}  // namespace

// ---------------------------------------------------------------------------
// TFreeComponentNotifier

TFreeComponentNotifier::~TFreeComponentNotifier() = default;

void TFreeComponentNotifier::Notification(TComponent* AComponent, TOperation Operation) {
  TComponent::Notification(AComponent, Operation);
  if (Operation == opRemove) DoFreeNotify(AComponent);
}

void TFreeComponentNotifier::DoFreeNotify(TComponent* AComponent) {
  if (OnFreeComponent) OnFreeComponent(this, AComponent);
}

// ---------------------------------------------------------------------------
// TCustomPackageManager

TCustomPackageManager::TCustomPackageManager() {
  InternalCreate();
}

TCustomPackageManager::~TCustomPackageManager() {
  InternalDestroy();
}

void TCustomPackageManager::InternalCreate() {
  FPackages = new TList;
  FFreeNotifier = new TFreeComponentNotifier(nullptr);
  FFreeNotifier->OnFreeComponent = TFreeComponentEvent::Bind<&TCustomPackageManager::FreeComponent>(this);
}

void TCustomPackageManager::InternalDestroy() {
  delete FFreeNotifier;
  FFreeNotifier = nullptr;
  FreeSubscribe();
  if (FPackages) {
    // The packages stay loaded; only the records go.
    for (int I = 0; I < FPackages->Count(); ++I) delete static_cast<TLoadedPackage*>(FPackages->Get(I));
    delete FPackages;
    FPackages = nullptr;
  }
}

HRESULT TCustomPackageManager::QueryInterface(const TGUID& IID, void** Obj) {
  if (IID == IIDOf<ISubscribe>) {
    IPtr<ISubscribe> S = GetSubscribe();
    *Obj = S.Detach();
    return S_OK;
  }
  return inherited::QueryInterface(IID, Obj);
}

void TCustomPackageManager::Initialize() {
  FKeyCounter = 0;
}

void TCustomPackageManager::Terminate() {
  UnloadPackages();
}

void TCustomPackageManager::Lock() {
  PackageLock().lock();
}

void TCustomPackageManager::Unlock() {
  PackageLock().unlock();
}

int32_t TCustomPackageManager::GetPackageCount() {
  TLockGuard G(this);
  return FPackages->Count();
}

TLoadedPackage* TCustomPackageManager::Package(int32_t Index) {
  TLockGuard G(this);
  return static_cast<TLoadedPackage*>(FPackages->Get(Index));
}

std::string TCustomPackageManager::GetPackage(int32_t Index) {
  TLockGuard G(this);
  return Package(Index)->Name;
}

TLoadedPackage* TCustomPackageManager::AllocPackage() {
  auto P = std::make_unique<TLoadedPackage>();
  P->KeyIndex = ++FKeyCounter;
  FPackages->Add(P.get());
  return P.release();
}

TLoadedPackage* TCustomPackageManager::InternalLoadPackage(const std::string& Name) {
  // Subscribers hear of the package, with the key index it is about to
  // get, before it is loaded; a failed load records nothing.
  NotifyLoad(Name, FKeyCounter + 1);
  HMODULE Handle = LoadPackageEx(Name, false);
  TLoadedPackage* P = AllocPackage();
  P->Name = Name;
  P->Handle = Handle;
  return P;
}

void TCustomPackageManager::InternalUnLoadPackage(int32_t /*Index*/) {
  // Packages are never unloaded: code of theirs may still be referenced
  // from anywhere in the process.
}

int32_t TCustomPackageManager::LoadPackageLib(const std::string& Name) {
  TLockGuard G(this);
  int32_t Result = -1;
  if (!Contains(Name, Result)) Result = InternalLoadPackage(Name)->KeyIndex;
  return Result;
}

int32_t TCustomPackageManager::RegisterLoad(const std::string& Name, TComponent* Owner) {
  TLockGuard G(this);
  int32_t Result = -1;
  if (!Contains(Name, Result)) {
    TLoadedPackage* P = InternalLoadPackage(Name);
    Result = P->KeyIndex;
    P->Owner = Owner;
    if (Owner) Owner->FreeNotification(FFreeNotifier);
  }
  return Result;
}

void TCustomPackageManager::RegistryLoad(TComponent* Owner) {
  TLockGuard G(this);
  TStringList Names;
  Names.SetCommaText(CorvaneRegistry()->Plugins);
  for (int I = 0; I < Names.Count(); ++I) {
    TLoadedPackage* P = InternalLoadPackage(Names.Get(I));
    P->Owner = Owner;
    if (Owner) Owner->FreeNotification(FFreeNotifier);
  }
}

void TCustomPackageManager::UnLoadPackageLib(const std::string& Name) {
  TLockGuard G(this);
  const int32_t I = IndexOfName(Name);
  if (I >= 0) InternalUnLoadPackage(I);
}

void TCustomPackageManager::RegisterUnLoad(TComponent* Owner) {
  TLockGuard G(this);
  const int32_t I = IndexOfOwner(Owner);
  if (I >= 0) InternalUnLoadPackage(I);
}

void TCustomPackageManager::RegistryUnLoad() {
  TLockGuard G(this);
  for (int32_t I = 0; I < FPackages->Count(); ++I) InternalUnLoadPackage(I);
}

void TCustomPackageManager::UnloadPackages() {
  TLockGuard G(this);
  for (int32_t I = FPackages->Count() - 1; I >= 0; --I) InternalUnLoadPackage(I);
}

void TCustomPackageManager::DelayUnload(const std::string&, int32_t) {}

void TCustomPackageManager::DelayUnload(TComponent*, int32_t) {}

bool TCustomPackageManager::Contains(const std::string& Name, int32_t& KeyIndex) {
  TLockGuard G(this);
  const int32_t I = IndexOfName(Name);
  if (I < 0) return false;
  KeyIndex = Package(I)->KeyIndex;
  return true;
}

int32_t TCustomPackageManager::IndexOfName(const std::string& Name) {
  TLockGuard G(this);
  for (int32_t I = FPackages->Count() - 1; I >= 0; --I)
    if (AnsiSameText(Package(I)->Name, Name)) return I;
  return -1;
}

int32_t TCustomPackageManager::IndexOfKeyIndex(int32_t KeyIndex) {
  TLockGuard G(this);
  for (int32_t I = FPackages->Count() - 1; I >= 0; --I)
    if (Package(I)->KeyIndex == KeyIndex) return I;
  return -1;
}

int32_t TCustomPackageManager::IndexOfOwner(TComponent* Owner) {
  TLockGuard G(this);
  for (int32_t I = FPackages->Count() - 1; I >= 0; --I)
    if (Package(I)->Owner == Owner) return I;
  return -1;
}

TLoadedPackage* TCustomPackageManager::PackageLoaded(const std::string& Name, bool& Loaded) {
  TLockGuard G(this);
  Loaded = false;
  TLoadedPackage* P = nullptr;
  for (int32_t I = 0; I < FPackages->Count(); ++I) {
    P = Package(I);
    if (AnsiSameText(P->Name, Name)) {
      Loaded = true;
      break;
    }
  }
  return P;
}

void TCustomPackageManager::FreeComponent(TObject* /*Sender*/, TComponent* Component) {
  RegisterUnLoad(Component);
}

void TCustomPackageManager::NotifyLoad(const std::string& Name, int32_t KeyIndex) {
  FNotifyName = Name;
  FNotifyIndex = KeyIndex;
  // Nobody ever subscribed: the source was never made and nothing is sent.
  if (!SubscribeAllocated()) return;
  IPtr<IExNotify> N;
  if (Supports(FSubscribe.get(), IIDOf<IExNotify>, N.Out()))
    N->Notify(IIDOf<IPackageNotifier>, nullptr, poPackageLoad);
}

void TCustomPackageManager::NotifyUnLoad(const std::string& Name, int32_t KeyIndex) {
  FNotifyName = Name;
  FNotifyIndex = KeyIndex;
  if (!SubscribeAllocated()) return;
  IPtr<IExNotify> N;
  if (Supports(FSubscribe.get(), IIDOf<IExNotify>, N.Out()))
    N->Notify(IIDOf<IPackageNotifier>, nullptr, poPackageUnload);
}

void TCustomPackageManager::DoNotify(ICustomNotifier* Notifier, const TGUID& IID, IInterface*,
                                     int32_t Operation) {
  if (IID == IIDOf<IPackageNotifier>)
    static_cast<IPackageNotifier*>(Notifier)->PackageNotification(
        FNotifyName, FNotifyIndex, static_cast<TPackageOperation>(Operation));
}

void TCustomPackageManager::CreateSubscribe() {
  FSubscribe = IPtr<ISubscribe>(
      static_cast<ISubscribe*>(new TExSubscribeNotify(static_cast<IResolveNotify*>(this))));
}

void TCustomPackageManager::FreeSubscribe() {
  FSubscribe = nullptr;
}

void TCustomPackageManager::SubscribeNeeded() {
  if (!SubscribeAllocated()) CreateSubscribe();
}

IPtr<ISubscribe> TCustomPackageManager::GetSubscribe() {
  TLockGuard G(this);
  SubscribeNeeded();
  return FSubscribe;
}

// ---------------------------------------------------------------------------
// TPackageManager and the singleton

TPackageManager::TPackageManager() {
  // The checks run after the base constructor, as a Pascal constructor
  // runs them before the inherited one: a refused construction frees what
  // the base made.
  // Inside PackageManager() (guard cleared) the singleton does not exist
  // yet and its lock is held.
  if (tlsCreationGuard) {
    const bool Exists = static_cast<bool>(CurrentPackageManager());
    throw EPackageManager(Exists ? SPackageManagerInstanciated : SPackageManagerCallSingleton);
  }
}

TPackageManager::~TPackageManager() = default;

IPtr<IPackageManager> TPackageManager::PackageManager() {
  return vel::PackageManager();
}

IPtr<IPackageManager> PackageManager() {
  TSingleton& S = Singleton();
  std::lock_guard<std::mutex> L(S.Lock);
  if (!S.Manager) {
    tlsCreationGuard = false;
    try {
      S.Manager = IPtr<IPackageManager>(static_cast<IPackageManager*>(new TPackageManager));
    } catch (...) {
      tlsCreationGuard = true;
      throw;
    }
    tlsCreationGuard = true;
  }
  return S.Manager;
}

IPtr<IPackageManager> CurrentPackageManager() {
  TSingleton& S = Singleton();
  std::lock_guard<std::mutex> L(S.Lock);
  return S.Manager;
}

void ReleasePackageManager() {
  IPtr<IPackageManager> Last;
  {
    TSingleton& S = Singleton();
    std::lock_guard<std::mutex> L(S.Lock);
    Last = std::move(S.Manager);
  }
  Last = nullptr;
}

}  // namespace vel
