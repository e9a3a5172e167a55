#include "vel/rtl/Components.h"

#include <algorithm>

#include "vel/rtl/Lists.h"
#include "vel/rtl/SysUtils.h"
#include "vel/rtl/TypInfo.h"

namespace vel {

namespace {
constexpr const char* SListIndexError = "List index out of bounds (%d)";
constexpr const char* SInvalidName = "'%s' is not a valid component name";
constexpr const char* SDuplicateName = "A component named %s already exists";

bool IsValidIdent(const std::string& S) {
  if (S.empty()) return false;
  auto Alpha = [](char C) { return (C >= 'A' && C <= 'Z') || (C >= 'a' && C <= 'z') || C == '_'; };
  if (!Alpha(S[0])) return false;
  for (char C : S)
    if (!Alpha(C) && !(C >= '0' && C <= '9')) return false;
  return true;
}

// Removes P from V searching from the end: lists are emptied last first.
template <class T>
void EraseFromBack(std::vector<T*>& V, T* P) {
  for (size_t I = V.size(); I-- > 0;)
    if (V[I] == P) {
      V.erase(V.begin() + static_cast<std::ptrdiff_t>(I));
      return;
    }
}
}  // namespace

// Name and Tag are published (so that streams can carry them) but never
// streamed by the object streamers; Name is not stored.
VEL_PUBLISHED(TComponent,
              prop("Name", &TComponent::Name, &TComponent::SetName).stored(false),
              prop("Tag", &TComponent::Tag, &TComponent::SetTag).defaults(0))

TComponent::TComponent(TComponent* AOwner) {
  if (AOwner) AOwner->InsertComponent(this);
}

TComponent::~TComponent() {
  Destroying();
  // Tell everyone that asked; each answer may change the list.
  while (!FFreeNotifies.empty()) {
    TComponent* Other = FFreeNotifies.back();
    FFreeNotifies.pop_back();
    // The other side forgets us (and stops notifying us).
    Other->RemoveNotification(this);
    Other->Notification(this, opRemove);
  }
  DestroyComponents();
  if (FOwner) FOwner->RemoveComponent(this);
}

TComponent* TComponent::Components(int Index) const {
  if (Index < 0 || Index >= ComponentCount())
    throw EListError(Format(SListIndexError, {Index}));
  return FComponents[static_cast<size_t>(Index)];
}

int TComponent::ComponentIndex() const {
  if (!FOwner) return -1;
  const auto& L = FOwner->FComponents;
  auto It = std::find(L.begin(), L.end(), this);
  return It == L.end() ? -1 : static_cast<int>(It - L.begin());
}

void TComponent::SetComponentIndex(int Value) {
  if (!FOwner) return;
  auto& L = FOwner->FComponents;
  int Cur = ComponentIndex();
  if (Cur < 0) return;
  if (Value < 0) Value = 0;
  int Count = static_cast<int>(L.size());
  if (Value >= Count) Value = Count - 1;
  if (Value == Cur) return;
  L.erase(L.begin() + Cur);
  L.insert(L.begin() + Value, this);
}

TComponent* TComponent::FindComponent(std::string_view AName) const {
  if (AName.empty()) return nullptr;
  for (TComponent* C : FComponents)
    if (SameText(C->FName, AName)) return C;
  return nullptr;
}

void TComponent::SetName(const std::string& NewName) {
  if (FName == NewName) return;
  if (!NewName.empty() && !IsValidIdent(NewName))
    throw EComponentError(Format(SInvalidName, {EscapeControlChars(NewName)}));
  if (FOwner) FOwner->ValidateRename(this, FName, NewName);
  else ValidateRename(nullptr, FName, NewName);
  FName = NewName;
}

void TComponent::ValidateRename(TComponent* AComponent, const std::string& CurName,
                                const std::string& NewName) {
  if (AComponent && !SameText(CurName, NewName)) {
    TComponent* Existing = FindComponent(NewName);
    if (Existing && Existing != AComponent)
      throw EComponentError(Format(SDuplicateName, {EscapeControlChars(NewName)}));
  }
}

void TComponent::InsertComponent(TComponent* AComponent) {
  if (!AComponent) return;
  ValidateRename(AComponent, std::string(), AComponent->FName);
  if (AComponent->FOwner) AComponent->FOwner->RemoveComponent(AComponent);
  Insert(AComponent);
  Notification(AComponent, opInsert);
}

void TComponent::RemoveComponent(TComponent* AComponent) {
  if (!AComponent || AComponent->FOwner != this) return;
  Notification(AComponent, opRemove);
  Remove(AComponent);
}

void TComponent::Insert(TComponent* AComponent) {
  FComponents.push_back(AComponent);
  AComponent->FOwner = this;
}

void TComponent::Remove(TComponent* AComponent) {
  EraseFromBack(FComponents, AComponent);
  AComponent->FOwner = nullptr;
}

void TComponent::DestroyComponents() {
  while (!FComponents.empty()) {
    TComponent* C = FComponents.back();
    // Detach first so that the child's destructor does not search for it.
    // Components that asked for free notification hear of their removal.
    if (C->FComponentState.Contains(csFreeNotification)) Notification(C, opRemove);
    FComponents.pop_back();
    C->FOwner = nullptr;
    delete C;
  }
}

void TComponent::Destroying() {
  if (FComponentState.Contains(csDestroying)) return;
  FComponentState.Include(csDestroying);
  for (TComponent* C : FComponents) C->Destroying();
}

void TComponent::FreeNotification(TComponent* AComponent) {
  if (!AComponent || AComponent == this) return;
  if (FOwner && AComponent->FOwner == FOwner) return;  // siblings hear of each other anyway
  if (std::find(FFreeNotifies.begin(), FFreeNotifies.end(), AComponent) == FFreeNotifies.end())
    FFreeNotifies.push_back(AComponent);
  if (std::find(AComponent->FFreeNotifies.begin(), AComponent->FFreeNotifies.end(), this) ==
      AComponent->FFreeNotifies.end())
    AComponent->FFreeNotifies.push_back(this);
  FComponentState.Include(csFreeNotification);
}

void TComponent::RemoveNotification(TComponent* AComponent) {
  auto It = std::find(FFreeNotifies.begin(), FFreeNotifies.end(), AComponent);
  if (It != FFreeNotifies.end()) FFreeNotifies.erase(It);
}

void TComponent::RemoveFreeNotification(TComponent* AComponent) {
  if (!AComponent) return;
  RemoveNotification(AComponent);
  AComponent->RemoveNotification(this);
}

void TComponent::Notification(TComponent* AComponent, TOperation Operation) {
  if (Operation == opRemove && AComponent) RemoveFreeNotification(AComponent);
  // Owned components may be removed while they are told: walk by index
  // from the end and re-check the bound.
  int I = ComponentCount() - 1;
  while (I >= 0) {
    FComponents[static_cast<size_t>(I)]->Notification(AComponent, Operation);
    --I;
    if (I >= ComponentCount()) I = ComponentCount() - 1;
  }
}

void TComponent::Loaded() { FComponentState.Exclude(csLoading); }

std::string TComponent::GetNamePath() const { return FName; }

void TComponent::SetComponentStateFlag(TComponentStateItem Flag, bool On) {
  if (On) FComponentState.Include(Flag);
  else FComponentState.Exclude(Flag);
}

// ---------------------------------------------------------------------------
// Collections

VEL_IMPLEMENT(TCollectionItem)

TCollectionItem::TCollectionItem(TCollection* ACollection) { SetCollection(ACollection); }

TCollectionItem::~TCollectionItem() { SetCollection(nullptr); }

void TCollectionItem::SetCollection(TCollection* Value) {
  if (FCollection == Value) return;
  if (FCollection) FCollection->RemoveItem(this);
  if (Value) Value->InsertItem(this);
}

int TCollectionItem::Index() const {
  if (!FCollection) return -1;
  const auto& L = FCollection->FItems;
  auto It = std::find(L.begin(), L.end(), this);
  return It == L.end() ? -1 : static_cast<int>(It - L.begin());
}

void TCollectionItem::SetIndex(int Value) {
  if (FCollection && Value != Index()) FCollection->MoveItem(this, Value);
}

std::string TCollectionItem::GetDisplayName() const { return ClassName(); }

std::string TCollectionItem::GetNamePath() const {
  if (!FCollection) return ClassName();
  return Format("%s[%d]", {FCollection->GetNamePath(), Index()});
}

TPersistent* TCollectionItem::GetOwner() const { return FCollection; }

void TCollectionItem::Changed(bool AllItems) {
  if (FCollection && FCollection->UpdateCount() == 0) FCollection->Update(AllItems ? nullptr : this);
}

VEL_IMPLEMENT(TCollection)

TCollection::TCollection(TClass AItemClass) : FItemClass(AItemClass) {}

TCollection::~TCollection() {
  FUpdateCount = 1;
  Clear();
}

TCollectionItem* TCollection::Add() {
  TObject* Obj = FItemClass->CreateWith(this);
  TCollectionItem* Item = Obj && Obj->InheritsFrom(TCollectionItem::StaticClass())
                              ? static_cast<TCollectionItem*>(Obj)
                              : nullptr;
  if (!Item) {
    delete Obj;
    throw EInvalidCast("Invalid class typecast");
  }
  // Item classes without the collection constructor are attached here.
  if (Item->FCollection != this) Item->SetCollection(this);
  return Item;
}

TCollectionItem* TCollection::Insert(int Index) {
  TCollectionItem* Item = Add();
  Item->SetIndex(Index);
  return Item;
}

void TCollection::CheckIndex(int Index) const {
  if (Index < 0 || Index >= Count()) throw EListError(Format(SListIndexError, {Index}));
}

void TCollection::Delete(int Index) {
  CheckIndex(Index);
  TCollectionItem* Item = FItems[static_cast<size_t>(Index)];
  Notify(Item, cnDeleting);
  delete Item;
}

void TCollection::Clear() {
  if (FItems.empty()) return;
  BeginUpdate();
  while (!FItems.empty()) {
    TCollectionItem* Item = FItems.back();
    Notify(Item, cnDeleting);
    delete Item;  // removes itself
  }
  EndUpdate();
}

TCollectionItem* TCollection::Items(int Index) const {
  CheckIndex(Index);
  return FItems[static_cast<size_t>(Index)];
}

void TCollection::SetItem(int Index, TCollectionItem* Value) { Items(Index)->Assign(Value); }

TCollectionItem* TCollection::FindItemID(int ID) const {
  for (TCollectionItem* I : FItems)
    if (I->FID == ID) return I;
  return nullptr;
}

void TCollection::BeginUpdate() { ++FUpdateCount; }

void TCollection::EndUpdate() {
  if (FUpdateCount > 0) --FUpdateCount;
  Changed();
}

void TCollection::Changed() {
  if (FUpdateCount == 0) Update(nullptr);
}

void TCollection::Update(TCollectionItem*) {}

void TCollection::Notify(TCollectionItem*, TCollectionNotification) {}

void TCollection::Assign(TPersistent* Source) {
  if (auto* Src = dynamic_cast<TCollection*>(Source)) {
    BeginUpdate();
    try {
      Clear();
      for (TCollectionItem* I : Src->FItems) Add()->Assign(I);
    } catch (...) {
      EndUpdate();
      throw;
    }
    EndUpdate();
    return;
  }
  TPersistent::Assign(Source);
}

std::string TCollection::GetNamePath() const {
  TPersistent* Owner = GetOwner();
  if (!Owner) return ClassName();
  std::string S = Owner->GetNamePath();
  if (S.empty()) return ClassName();
  return S + ".Items";  // the collection property's name is not known here
}

void TCollection::InsertItem(TCollectionItem* Item) {
  FItems.push_back(Item);
  Item->FCollection = this;
  Item->FID = FNextID++;
  Notify(Item, cnAdded);
  Changed();
}

void TCollection::RemoveItem(TCollectionItem* Item) {
  Notify(Item, cnExtracting);
  EraseFromBack(FItems, Item);
  Item->FCollection = nullptr;
  Changed();
}

void TCollection::MoveItem(TCollectionItem* Item, int NewIndex) {
  auto It = std::find(FItems.begin(), FItems.end(), Item);
  if (It == FItems.end()) return;
  FItems.erase(It);
  if (NewIndex < 0) NewIndex = 0;
  if (NewIndex > Count()) NewIndex = Count();
  FItems.insert(FItems.begin() + NewIndex, Item);
  Changed();
}

VEL_IMPLEMENT(TOwnedCollection)

TOwnedCollection::TOwnedCollection(TPersistent* AOwner, TClass AItemClass)
    : TCollection(AItemClass), FOwner(AOwner) {}

// ---------------------------------------------------------------------------
// Component lists

// Receives the free notifications of the components in a list.
class TComponentList::TNexus : public TComponent {
 public:
  explicit TNexus(TComponentList* AList) : FList(AList) {}
  void Notification(TComponent* AComponent, TOperation Operation) override {
    if (Operation == opRemove && FList && AComponent) FList->Extract(AComponent);
    TComponent::Notification(AComponent, Operation);
  }
  TComponentList* FList;
};

VEL_IMPLEMENT(TComponentList)

TComponentList::TComponentList(bool AOwnsObjects)
    : TObjectList(AOwnsObjects), FNexus(new TNexus(this)) {}

TComponentList::~TComponentList() {
  // Clear here, while this class's Notify still runs, so that every
  // component forgets the nexus before it goes.
  Clear();
  FNexus->FList = nullptr;
  delete FNexus;
}

void TComponentList::Notify(void* Ptr, TListNotification Action) {
  if (Ptr) {
    auto* C = static_cast<TComponent*>(Ptr);
    if (Action == lnAdded) C->FreeNotification(FNexus);
    else C->RemoveFreeNotification(FNexus);
  }
  TObjectList::Notify(Ptr, Action);
}

}  // namespace vel
