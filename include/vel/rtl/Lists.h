// The runtime's pointer list (TList) and object list (TObjectList).
//
// TList holds untyped pointers in one contiguous array that grows like the
// runtime's (by 4 up to a capacity of 8, by 16 up to 64, then by a quarter).
// Every change that adds or removes a non-null item calls the virtual
// Notify, which is how TObjectList frees the objects it owns.
//
// Notify and destruction: C++ does not dispatch virtual calls to a derived
// class from a base destructor. ~TList clears without reaching overrides of
// Notify; ~TObjectList clears with its own Notify (so owned objects are
// freed). A further subclass that needs its Notify for the items left at
// destruction calls Clear() in its own destructor.
//
// Thread safety: none. A list may be used by one thread at a time.
#pragma once

#include <cstdint>

#include "vel/rtl/System.h"

namespace vel {

VEL_EXCEPTION(EListError, Exception);

// The largest count and capacity a list accepts.
inline constexpr int MaxListSize = INT32_MAX / 16;

enum TListNotification : uint8_t { lnAdded, lnExtracted, lnDeleted };

// Combinations for TList::Assign (with the two lists A and B of the call;
// "12345, 346" gives the result in the comment).
enum TListAssignOp : uint8_t {
  laCopy,        // 346: replace with the source
  laAnd,         // 34: keep only items also in the source
  laOr,          // 123456: add source items not yet present
  laXor,         // 1256: items in exactly one of the lists
  laSrcUnique,   // 125: keep only items not in the source
  laDestUnique   // 6: only source items that were not in this list
};

using TListSortCompare = int (*)(void* Item1, void* Item2);

class VEL_API TList : public TObject {
  VEL_CLASS(TList, TObject)
 public:
  TList() = default;
  ~TList() override;

  // Appends Item and returns its index.
  int Add(void* Item);
  // Inserts Item before position Index (0..Count).
  void Insert(int Index, void* Item);
  // Removes the item at Index; notifies lnDeleted for a non-null item.
  void Delete(int Index);
  // Removes the first occurrence of Item; returns its former index or -1.
  int Remove(void* Item);
  // Removes the first occurrence of Item without lnDeleted (lnExtracted is
  // sent instead); returns Item, or null when it is not in the list.
  void* Extract(void* Item);
  int IndexOf(void* Item) const;

  void* Get(int Index) const;
  void Put(int Index, void* Item);
  void* Items(int Index) const { return Get(Index); }
  void* operator[](int Index) const { return Get(Index); }

  int Count() const { return FCount; }
  // Growing fills the new slots with null; shrinking deletes from the end.
  void SetCount(int NewCount);
  int Capacity() const { return FCapacity; }
  void SetCapacity(int NewCapacity);

  // Deletes every item (from the last to the first) and frees the array.
  virtual void Clear();
  void Exchange(int Index1, int Index2);
  // Moves the item at CurIndex to NewIndex; no notification is sent.
  void Move(int CurIndex, int NewIndex);
  void* First() const { return Get(0); }
  void* Last() const { return Get(FCount - 1); }
  // Grows the capacity when the list is full; returns this list.
  TList* Expand();
  // Deletes every null item.
  void Pack();
  // Sorts with the runtime's quicksort; Compare returns <0, 0 or >0.
  void Sort(TListSortCompare Compare);
  // Combines this list with ListA (or, when ListB is given, copies ListA
  // first and then combines with ListB).
  void Assign(TList* ListA, TListAssignOp AOperator = laCopy, TList* ListB = nullptr);

  // The raw array of Count() items (null when the capacity is 0).
  void** List() const { return FList; }

 protected:
  virtual void Notify(void* Ptr, TListNotification Action);
  virtual void Grow();
  [[noreturn]] static void Error(const char* Msg, int Data);

 private:
  void** FList = nullptr;
  int FCount = 0;
  int FCapacity = 0;
};

// A list of objects that, while OwnsObjects is true, frees each object it
// loses through Delete, Remove, Clear, SetCount, Put or its destruction.
// Extract hands the object back without freeing it. The same object added
// twice to an owning list is freed twice, as with the runtime's list.
class VEL_API TObjectList : public TList {
  VEL_CLASS(TObjectList, TList)
 public:
  explicit TObjectList(bool AOwnsObjects = true) : FOwnsObjects(AOwnsObjects) {}
  ~TObjectList() override;

  int Add(TObject* AObject) { return TList::Add(AObject); }
  void Insert(int Index, TObject* AObject) { TList::Insert(Index, AObject); }
  int IndexOf(TObject* AObject) const { return TList::IndexOf(AObject); }
  int Remove(TObject* AObject) { return TList::Remove(AObject); }
  TObject* Extract(TObject* Item) { return static_cast<TObject*>(TList::Extract(Item)); }

  TObject* GetItem(int Index) const { return static_cast<TObject*>(Get(Index)); }
  void SetItem(int Index, TObject* AObject) { Put(Index, AObject); }
  TObject* Items(int Index) const { return GetItem(Index); }
  TObject* operator[](int Index) const { return GetItem(Index); }
  TObject* First() const { return static_cast<TObject*>(TList::First()); }
  TObject* Last() const { return static_cast<TObject*>(TList::Last()); }

  bool OwnsObjects() const { return FOwnsObjects; }
  void SetOwnsObjects(bool Value) { FOwnsObjects = Value; }

  // The index of the first object from AStartAt on whose class is AClass
  // (AExact) or descends from it; -1 when none. Null items never match.
  int FindInstanceOf(TClass AClass, bool AExact = true, int AStartAt = 0) const;

 protected:
  void Notify(void* Ptr, TListNotification Action) override;

 private:
  bool FOwnsObjects;
};

namespace detail {

// Sorts positions L..R the way the runtime's quicksort does (middle pivot,
// Hoare partition, the pivot followed by index), so that equal items end
// in the same order as on Windows. Compare(I, J) compares the items at
// positions I and J; Exchange(I, J) swaps them. Unlike the runtime's, the
// scans never leave L..R even when Compare is inconsistent, the recursion
// goes into the smaller part (stack depth O(log n)), and a partition depth
// beyond a generous bound finishes with heapsort, so the time stays
// O(n log n) on any input.
template <class Cmp, class Swp>
void HeapSortRange(int L, int R, Cmp& Compare, Swp& Exchange) {
  const int N = R - L + 1;
  auto SiftDown = [&](int Root, int End) {  // End: one past the heap
    for (;;) {
      int Child = 2 * Root + 1;
      if (Child >= End) return;
      if (Child + 1 < End && Compare(L + Child, L + Child + 1) < 0) ++Child;
      if (Compare(L + Root, L + Child) >= 0) return;
      Exchange(L + Root, L + Child);
      Root = Child;
    }
  };
  for (int Start = N / 2 - 1; Start >= 0; --Start) SiftDown(Start, N);
  for (int End = N - 1; End > 0; --End) {
    Exchange(L, L + End);
    SiftDown(0, End);
  }
}

template <class Cmp, class Swp>
void QuickSortRange(int L, int R, Cmp& Compare, Swp& Exchange, int Budget) {
  while (L < R) {
    if (Budget-- <= 0) {
      HeapSortRange(L, R, Compare, Exchange);
      return;
    }
    int I = L, J = R, P = L + (R - L) / 2;
    do {
      while (I < R && Compare(I, P) < 0) ++I;
      while (J > L && Compare(J, P) > 0) --J;
      if (I <= J) {
        if (I != J) Exchange(I, J);
        if (P == I)
          P = J;
        else if (P == J)
          P = I;
        ++I;
        --J;
      }
    } while (I <= J);
    if (J - L < R - I) {
      if (L < J) QuickSortRange(L, J, Compare, Exchange, Budget);
      L = I;
    } else {
      if (I < R) QuickSortRange(I, R, Compare, Exchange, Budget);
      R = J;
    }
  }
}

template <class Cmp, class Swp>
void RuntimeQuickSort(int Count, Cmp Compare, Swp Exchange) {
  if (Count < 2) return;
  int Budget = 16;
  for (int N = Count; N > 1; N >>= 1) Budget += 4;
  QuickSortRange(0, Count - 1, Compare, Exchange, Budget);
}

}  // namespace detail

}  // namespace vel
