#include "vel/velIntfClasses.h"

#include <algorithm>

#include "vel/rtl/SysUtils.h"
#include "vel/rtl/TypInfo.h"

namespace vel {

VEL_IMPLEMENT(TCustomNotifier)
VEL_IMPLEMENT(TNotifier)
VEL_IMPLEMENT(TPackageNotifier)
VEL_IMPLEMENT(TMessageNotifier)
VEL_IMPLEMENT(TThreadNotifier)
VEL_IMPLEMENT(TNotifyThread)
VEL_IMPLEMENT(TCustomSubscribeNotify)
VEL_IMPLEMENT(TSubscribeNotify)
VEL_IMPLEMENT(TExSubscribeNotify)

// ---------------------------------------------------------------------------
// Notifiers

TCustomNotifier::TCustomNotifier(ISubscribe* ASubscribe) : FSubscribe(ASubscribe) {
  if (ASubscribe) ASubscribe->AddNotifier(this);
}

TCustomNotifier::~TCustomNotifier() {
  Unsubscribe();
}

void TCustomNotifier::Unsubscribe() {
  if (FSubscribe) {
    // Keeps the source alive while it lets go of this notifier; releasing
    // this last reference may free the source.
    IPtr<ISubscribe> Source(FSubscribe);
    Source->RemoveNotifier(this);
    FSubscribe = nullptr;
  }
}

IPtr<ISubscribe> TCustomNotifier::GetSubscribe() {
  return FSubscribe;
}

void TCustomNotifier::SetSubscribe(ISubscribe* Value) {
  FSubscribe = Value;
}

TNotifier::~TNotifier() = default;

void TNotifier::Notification(IInterface* Unk, int32_t Operation) {
  if (OnNotification.Assigned()) OnNotification(this, Unk, Operation);
}

TPackageNotifier::~TPackageNotifier() = default;

void TPackageNotifier::PackageNotification(const std::string& PackageName, int32_t PackageIndex,
                                           TPackageOperation Operation) {
  switch (Operation) {
    case poPackageLoad:
      if (OnPackageLoad.Assigned()) OnPackageLoad(this, PackageName, PackageIndex);
      break;
    case poPackageUnload:
      if (OnPackageUnload.Assigned()) OnPackageUnload(this, PackageName, PackageIndex);
      break;
    default:
      throw EPackageNotifierError(Format(SPackageNotificationInvalidOperation, {PackageName}));
  }
}

TMessageNotifier::~TMessageNotifier() = default;
TThreadNotifier::~TThreadNotifier() = default;
TNotifyThread::~TNotifyThread() = default;

// ---------------------------------------------------------------------------
// Sources

TCustomSubscribeNotify::~TCustomSubscribeNotify() {
  ClearNotifiers();
  FreeList();
}

void TCustomSubscribeNotify::CreateList() {
  FList = new TList;
}

void TCustomSubscribeNotify::FreeList() {
  if (FList) FreeAndNil(FList);
  FIds.clear();
}

void TCustomSubscribeNotify::ListNeeded() {
  if (!FList) CreateList();
}

const void* TCustomSubscribeNotify::Identity(IInterface* Intf) {
  if (!Intf) return nullptr;
  // A TObject sub-object keeps its address through the whole destruction,
  // unlike the most derived object, which shrinks as destructors run.
  if (auto* O = dynamic_cast<TObject*>(Intf)) return O;
  return dynamic_cast<const void*>(Intf);
}

int32_t TCustomSubscribeNotify::IndexOfNotifier(ICustomNotifier* Notifier) const {
  if (!FList || !Notifier) return -1;
  // The same pointer first: the usual case, and no cast needed.
  const int32_t Direct = FList->IndexOf(Notifier);
  if (Direct >= 0) return Direct;
  const auto It = std::find(FIds.begin(), FIds.end(), Identity(Notifier));
  return It == FIds.end() ? -1 : static_cast<int32_t>(It - FIds.begin());
}

std::vector<ICustomNotifier*> TCustomSubscribeNotify::Notifiers() const {
  std::vector<ICustomNotifier*> R;
  if (!FList) return R;
  R.reserve(static_cast<size_t>(FList->Count()));
  for (int32_t I = 0, N = FList->Count(); I < N; ++I)
    R.push_back(static_cast<ICustomNotifier*>(FList->Get(I)));
  return R;
}

void TCustomSubscribeNotify::AddNotifier(ICustomNotifier* Notifier) {
  if (!Notifier) return;
  ListNeeded();
  if (IndexOfNotifier(Notifier) >= 0) return;
  FList->Add(Notifier);
  FIds.push_back(Identity(Notifier));
  Notifier->SetSubscribe(this);
}

void TCustomSubscribeNotify::RemoveNotifier(ICustomNotifier* Notifier) {
  const int32_t Index = IndexOfNotifier(Notifier);
  if (Index < 0) return;
  Notifier->SetSubscribe(nullptr);
  FList->Delete(Index);
  FIds.erase(FIds.begin() + Index);
}

void TCustomSubscribeNotify::ClearNotifiers() {
  if (!FList) return;
  for (int I = FList->Count() - 1; I >= 0; --I)
    RemoveNotifier(static_cast<ICustomNotifier*>(FList->Get(I)));
}

TSubscribeNotify::~TSubscribeNotify() = default;

void TSubscribeNotify::Notify(IInterface* Unk, int32_t Operation) {
  if (!FEnabled || !FList) return;
  const int Count = FList->Count();
  for (int I = 0; I < Count; ++I) {
    auto* Entry = static_cast<ICustomNotifier*>(FList->Get(I));
    auto* N = dynamic_cast<INotifier*>(Entry);
    if (!N) RaiseIntfCastError();
    N->Notification(Unk, Operation);
  }
}

TExSubscribeNotify::TExSubscribeNotify(IResolveNotify* AResolveNotify) {
  SetResolveNotify(AResolveNotify);
}

TExSubscribeNotify::~TExSubscribeNotify() {
  FResolveNotify = nullptr;
}

void TExSubscribeNotify::Notify(const TGUID& IID, IInterface* Unk, int32_t Operation) {
  if (!FEnabled || !FList || !FResolveNotify) return;
  const int Count = FList->Count();
  for (int I = 0; I < Count; ++I) {
    auto* Entry = static_cast<ICustomNotifier*>(FList->Get(I));
    void* Intf = nullptr;
    if (!Supports(static_cast<IInterface*>(Entry), IID, &Intf)) continue;
    // The interface obtained is an IID interface; notifier interfaces begin
    // with their ICustomNotifier part.
    struct TRelease {
      void* P;
      ~TRelease() { detail::AsUnknown(P)->_Release(); }
    } Release{Intf};
    FResolveNotify->DoNotify(static_cast<ICustomNotifier*>(Intf), IID, Unk, Operation);
  }
}

}  // namespace vel
