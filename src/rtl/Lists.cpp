#include "vel/rtl/Lists.h"

#include <cstdlib>
#include <cstring>
#include <string>
#include <unordered_set>
#include <vector>

#include "vel/rtl/TypInfo.h"

namespace vel {

namespace {
constexpr const char* SListIndexError = "List index out of bounds (%d)";
constexpr const char* SListCapacityError = "List capacity out of bounds (%d)";
constexpr const char* SListCountError = "List count out of bounds (%d)";
constexpr const char* SOutOfMemory = "Out of memory";

// Replaces the one %d of a list message with Data.
std::string FormatListMessage(const char* Msg, int Data) {
  std::string S(Msg);
  size_t P = S.find("%d");
  if (P != std::string::npos) S.replace(P, 2, std::to_string(Data));
  return S;
}
}  // namespace

VEL_IMPLEMENT(TList)
VEL_IMPLEMENT(TObjectList)

// ---------------------------------------------------------------------------
// TList

TList::~TList() {
  // Overrides of Notify are gone by now (see the header); this only
  // releases the array. Derived lists clear in their own destructors.
  Clear();
}

void TList::Error(const char* Msg, int Data) { throw EListError(FormatListMessage(Msg, Data)); }

int TList::Add(void* Item) {
  int Result = FCount;
  if (Result == FCapacity) Grow();
  FList[Result] = Item;
  ++FCount;
  if (Item) Notify(Item, lnAdded);
  return Result;
}

void TList::Insert(int Index, void* Item) {
  if (Index < 0 || Index > FCount) Error(SListIndexError, Index);
  if (FCount == FCapacity) Grow();
  if (Index < FCount)
    std::memmove(FList + Index + 1, FList + Index,
                 static_cast<size_t>(FCount - Index) * sizeof(void*));
  FList[Index] = Item;
  ++FCount;
  if (Item) Notify(Item, lnAdded);
}

void TList::Delete(int Index) {
  if (Index < 0 || Index >= FCount) Error(SListIndexError, Index);
  void* Temp = FList[Index];
  --FCount;
  if (Index < FCount)
    std::memmove(FList + Index, FList + Index + 1,
                 static_cast<size_t>(FCount - Index) * sizeof(void*));
  // The item is out of the list before anyone hears of it, so a handler
  // (or the destructor of an owned object) sees a consistent list.
  if (Temp) Notify(Temp, lnDeleted);
}

int TList::Remove(void* Item) {
  int Result = IndexOf(Item);
  if (Result >= 0) Delete(Result);
  return Result;
}

void* TList::Extract(void* Item) {
  int I = IndexOf(Item);
  if (I < 0) return nullptr;
  // Nulling the slot first keeps Delete from sending lnDeleted.
  FList[I] = nullptr;
  Delete(I);
  Notify(Item, lnExtracted);
  return Item;
}

int TList::IndexOf(void* Item) const {
  for (int I = 0; I < FCount; ++I)
    if (FList[I] == Item) return I;
  return -1;
}

void* TList::Get(int Index) const {
  if (Index < 0 || Index >= FCount) Error(SListIndexError, Index);
  return FList[Index];
}

void TList::Put(int Index, void* Item) {
  if (Index < 0 || Index >= FCount) Error(SListIndexError, Index);
  void* Temp = FList[Index];
  if (Item == Temp) return;
  FList[Index] = Item;
  if (Temp) Notify(Temp, lnDeleted);
  if (Item) Notify(Item, lnAdded);
}

void TList::SetCount(int NewCount) {
  if (NewCount < 0 || NewCount > MaxListSize) Error(SListCountError, NewCount);
  if (NewCount > FCapacity) SetCapacity(NewCount);
  if (NewCount > FCount) {
    std::memset(FList + FCount, 0, static_cast<size_t>(NewCount - FCount) * sizeof(void*));
    FCount = NewCount;
    return;
  }
  // One by one from the end, re-reading the count each time: a Notify
  // handler may itself remove items.
  while (FCount > NewCount) Delete(FCount - 1);
}

void TList::SetCapacity(int NewCapacity) {
  if (NewCapacity < FCount || NewCapacity > MaxListSize) Error(SListCapacityError, NewCapacity);
  if (NewCapacity == FCapacity) return;
  if (NewCapacity == 0) {
    std::free(FList);
    FList = nullptr;
  } else {
    void* P = std::realloc(FList, static_cast<size_t>(NewCapacity) * sizeof(void*));
    if (!P) throw EOutOfMemory(SOutOfMemory);
    FList = static_cast<void**>(P);
  }
  FCapacity = NewCapacity;
}

void TList::Clear() {
  SetCount(0);
  SetCapacity(0);
}

void TList::Exchange(int Index1, int Index2) {
  if (Index1 < 0 || Index1 >= FCount) Error(SListIndexError, Index1);
  if (Index2 < 0 || Index2 >= FCount) Error(SListIndexError, Index2);
  void* Item = FList[Index1];
  FList[Index1] = FList[Index2];
  FList[Index2] = Item;
}

void TList::Move(int CurIndex, int NewIndex) {
  if (CurIndex == NewIndex) return;
  if (NewIndex < 0 || NewIndex >= FCount) Error(SListIndexError, NewIndex);
  if (CurIndex < 0 || CurIndex >= FCount) Error(SListIndexError, CurIndex);
  void* Item = FList[CurIndex];
  if (CurIndex < NewIndex)
    std::memmove(FList + CurIndex, FList + CurIndex + 1,
                 static_cast<size_t>(NewIndex - CurIndex) * sizeof(void*));
  else
    std::memmove(FList + NewIndex + 1, FList + NewIndex,
                 static_cast<size_t>(CurIndex - NewIndex) * sizeof(void*));
  FList[NewIndex] = Item;
}

void TList::Grow() {
  int Delta;
  if (FCapacity > 64)
    Delta = FCapacity / 4;
  else if (FCapacity > 8)
    Delta = 16;
  else
    Delta = 4;
  int NewCapacity = FCapacity + Delta;
  if (NewCapacity > MaxListSize) {
    if (FCapacity >= MaxListSize) Error(SListCapacityError, NewCapacity);
    NewCapacity = MaxListSize;
  }
  SetCapacity(NewCapacity);
}

TList* TList::Expand() {
  if (FCount == FCapacity) Grow();
  return this;
}

void TList::Pack() {
  // Null items send no notification, so one compacting pass does it.
  int J = 0;
  for (int I = 0; I < FCount; ++I)
    if (FList[I]) FList[J++] = FList[I];
  FCount = J;
}

void TList::Sort(TListSortCompare Compare) {
  if (!FList || FCount < 2 || !Compare) return;
  void** L = FList;
  detail::RuntimeQuickSort(
      FCount, [L, Compare](int I, int J) { return Compare(L[I], L[J]); },
      [L](int I, int J) {
        void* T = L[I];
        L[I] = L[J];
        L[J] = T;
      });
}

void TList::Assign(TList* ListA, TListAssignOp AOperator, TList* ListB) {
  TList* Source;
  if (ListB) {
    Source = ListB;
    Assign(ListA);
  } else {
    Source = ListA;
  }
  if (!Source) return;

  // Snapshots keep every operator correct when Source is this list.
  std::vector<void*> Src(Source->FList, Source->FList + Source->FCount);
  auto Contains = [](const std::unordered_set<void*>& Set, void* P) { return Set.count(P) != 0; };

  switch (AOperator) {
    case laCopy: {
      if (Source == this) return;
      Clear();
      SetCapacity(Source->FCapacity);
      for (void* P : Src) Add(P);
      break;
    }
    case laAnd: {
      std::unordered_set<void*> InSrc(Src.begin(), Src.end());
      for (int I = FCount - 1; I >= 0; --I)
        if (I < FCount && !Contains(InSrc, FList[I])) Delete(I);
      break;
    }
    case laOr: {
      std::unordered_set<void*> Mine(FList, FList + FCount);
      for (void* P : Src)
        if (Mine.insert(P).second) Add(P);
      break;
    }
    case laXor: {
      std::unordered_set<void*> Mine(FList, FList + FCount);
      std::unordered_set<void*> InSrc(Src.begin(), Src.end());
      std::vector<void*> ToAdd;
      for (void* P : Src)
        if (!Contains(Mine, P)) ToAdd.push_back(P);
      for (int I = FCount - 1; I >= 0; --I)
        if (I < FCount && Contains(InSrc, FList[I])) Delete(I);
      int Needed = FCount + static_cast<int>(ToAdd.size());
      if (FCapacity < Needed) SetCapacity(Needed);
      for (void* P : ToAdd) Add(P);
      break;
    }
    case laSrcUnique: {
      std::unordered_set<void*> InSrc(Src.begin(), Src.end());
      for (int I = FCount - 1; I >= 0; --I)
        if (I < FCount && Contains(InSrc, FList[I])) Delete(I);
      break;
    }
    case laDestUnique: {
      std::unordered_set<void*> Mine(FList, FList + FCount);
      std::vector<void*> Keep;
      for (void* P : Src)
        if (!Contains(Mine, P)) Keep.push_back(P);
      Clear();
      for (void* P : Keep) Add(P);
      break;
    }
  }
}

void TList::Notify(void*, TListNotification) {}

// ---------------------------------------------------------------------------
// TObjectList

TObjectList::~TObjectList() {
  // Runs while this class's Notify is still in force, so owned objects are
  // freed here.
  Clear();
}

int TObjectList::FindInstanceOf(TClass AClass, bool AExact, int AStartAt) const {
  if (AStartAt < 0) AStartAt = 0;
  for (int I = AStartAt; I < Count(); ++I) {
    TObject* Obj = GetItem(I);
    if (!Obj) continue;
    if (AExact ? Obj->ClassType() == AClass : Obj->InheritsFrom(AClass)) return I;
  }
  return -1;
}

void TObjectList::Notify(void* Ptr, TListNotification Action) {
  if (FOwnsObjects && Action == lnDeleted) delete static_cast<TObject*>(Ptr);
  TList::Notify(Ptr, Action);
}

}  // namespace vel
