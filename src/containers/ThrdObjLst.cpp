#include "vel/ThrdObjLst.h"

#include <mutex>

#include "vel/rtl/SysUtils.h"
#include "vel/rtl/TypInfo.h"

namespace vel {

VEL_IMPLEMENT(TThreadObjectList)

namespace {
using TGuard = std::lock_guard<TCriticalSection>;
}  // namespace

TThreadObjectList::TThreadObjectList(bool OwnsObjects) {
  // The lock (a member) exists before the list is created.
  InternalCreate(OwnsObjects);
}

TThreadObjectList::~TThreadObjectList() {
  InternalDestroy();
}

void TThreadObjectList::InternalCreate(bool OwnsObjects) {
  TGuard G(FLock);
  FList = new TObjectList(OwnsObjects);
}

void TThreadObjectList::InternalDestroy() {
  Clear();
  TGuard G(FLock);
  delete FList;
  FList = nullptr;
}

void TThreadObjectList::InternalDelete(int Index) {
  // Reading the entry first applies the underlying list's range check
  // before anything changes.
  TObject* Obj = FList->GetItem(Index);
  // The slot is emptied and deleted before the object is destroyed. An
  // empty slot is deleted without a notification, so an owning FList does
  // not free the object a second time and the one delete below is the only
  // one. Deleting the slot first also means that a destructor that looks at
  // this list (on this thread, through the recursive lock) no longer finds
  // the dying object in it.
  FList->List()[Index] = nullptr;
  FList->Delete(Index);
  delete Obj;
}

int TThreadObjectList::Add(TObject* Item) {
  TGuard G(FLock);
  return FList->Add(Item);
}

void TThreadObjectList::Insert(int Index, TObject* Item) {
  TGuard G(FLock);
  FList->Insert(Index, Item);
}

void TThreadObjectList::Delete(int Index) {
  TGuard G(FLock);
  InternalDelete(Index);
}

int TThreadObjectList::Remove(TObject* Item) {
  TGuard G(FLock);
  int Result = FList->IndexOf(Item);
  if (Result > -1) InternalDelete(Result);
  return Result;
}

int TThreadObjectList::IndexOf(TObject* Item) const {
  TGuard G(FLock);
  return FList->IndexOf(Item);
}

void TThreadObjectList::Exchange(int Index1, int Index2) {
  TGuard G(FLock);
  FList->Exchange(Index1, Index2);
}

void TThreadObjectList::Clear() {
  TGuard G(FLock);
  if (!FList) return;
  // From the last entry to the first, so that no deletion shifts an entry
  // still to be visited. The count is re-read each time: the destructor of
  // a removed object may itself remove or add entries on this thread.
  while (FList->Count() > 0) InternalDelete(FList->Count() - 1);
  FList->Clear();  // also releases the array
}

TObject* TThreadObjectList::GetItems(int Index) const {
  TGuard G(FLock);
  if (Index < 0 || Index >= FList->Count())
    throw EThreadObjectListError(Format(SThreadObjectListIndexError, {Index}));
  return FList->GetItem(Index);
}

void TThreadObjectList::SetItems(int Index, TObject* Item) {
  TGuard G(FLock);
  if (Index < 0 || Index >= FList->Count())
    throw EThreadObjectListError(Format(SThreadObjectListIndexError, {Index}));
  FList->SetItem(Index, Item);
}

TObject* TThreadObjectList::First() const {
  TGuard G(FLock);
  return GetItems(0);
}

TObject* TThreadObjectList::Last() const {
  // Holding the lock makes the count and the read one step.
  TGuard G(FLock);
  return GetItems(FList->Count() - 1);
}

int TThreadObjectList::GetCount() const {
  TGuard G(FLock);
  return FList->Count();
}

bool TThreadObjectList::GetOwnsObjects() const {
  TGuard G(FLock);
  return FList->OwnsObjects();
}

}  // namespace vel
