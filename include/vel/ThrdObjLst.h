// TThreadObjectList: an ordered list of object references shared by several
// threads. The list may hold null entries and duplicates; indexes are 0-based.
//
// Removing an entry (Delete, Remove, Clear, destruction of the list) destroys
// the object, whether or not the list was created as owning its objects.
// OwnsObjects only decides what happens to an entry that SetItems replaces:
// an owning list destroys it, a non-owning one leaves it alone.
//
// Thread safety: every operation takes the list's recursive lock for its
// whole duration and releases it on return or when it raises. An object
// returned by Items, First or Last is no longer protected once the call
// returns: another thread may remove, and so destroy, it. Callers that need
// several operations to be atomic (Count followed by Items, or the use of an
// entry across calls) wrap them in Lock/Unlock; the pairs may nest on one
// thread. The list must not be destroyed while another thread is inside one
// of its operations or holds its lock.
#pragma once

#include "vel/rtl/Lists.h"
#include "vel/rtl/SyncObjs.h"
#include "vel/rtl/System.h"

namespace vel {

VEL_EXCEPTION(EThreadObjectListError, Exception);

// Raised by GetItems/SetItems (and so First/Last) for an index outside
// 0..Count-1, filled with the index.
inline constexpr const char* SThreadObjectListIndexError = "List index out of bounds (%d)";

class VEL_API TThreadObjectList : public TObject {
  VEL_CLASS(TThreadObjectList, TObject)
 public:
  explicit TThreadObjectList(bool OwnsObjects = true);
  // Destroys every remaining entry (last to first), then the list.
  ~TThreadObjectList() override;

  // Appends Item (may be null) and returns its index.
  int Add(TObject* Item);
  // Inserts Item before Index (0..Count); EListError for another index.
  void Insert(int Index, TObject* Item);
  // Removes the entry at Index and destroys its object (a null entry is
  // just removed). EListError for a bad index; nothing changes then.
  void Delete(int Index);
  // Removes the first entry equal to Item and destroys it. Returns the
  // index it had, or -1 (nothing destroyed) when Item is not listed.
  int Remove(TObject* Item);
  // The index of the first entry equal to Item, -1 if none.
  int IndexOf(TObject* Item) const;
  // Swaps two entries; EListError for a bad index.
  void Exchange(int Index1, int Index2);
  // Removes and destroys every entry, from the last to the first.
  void Clear();

  // EThreadObjectListError "List index out of bounds (<Index>)" when Index
  // is outside 0..Count-1.
  TObject* GetItems(int Index) const;
  // Stores Item at Index (same range check). The replaced entry is
  // destroyed only when the list owns its objects.
  void SetItems(int Index, TObject* Item);
  TObject* Items(int Index) const { return GetItems(Index); }
  // GetItems(0) and GetItems(Count - 1): on an empty list they raise with
  // 0 and -1.
  TObject* First() const;
  TObject* Last() const;

  int GetCount() const;
  int Count() const { return GetCount(); }
  bool GetOwnsObjects() const;
  bool OwnsObjects() const { return GetOwnsObjects(); }

  // Enter and leave the list's lock, to make a series of operations atomic.
  // Recursive: the holding thread may call Lock again and must call Unlock
  // as often.
  void Lock() const { FLock.Enter(); }
  void Unlock() const { FLock.Leave(); }

 protected:
  // Creates the underlying list (called by the constructor).
  void InternalCreate(bool OwnsObjects);
  // Clears the list and frees the underlying list (called by the
  // destructor).
  void InternalDestroy();
  // Removes the entry at Index and destroys its object. Called with the
  // lock held.
  void InternalDelete(int Index);

  // The entries. Access only with the lock held.
  TObjectList* FList = nullptr;

 private:
  mutable TCriticalSection FLock;
};

}  // namespace vel
