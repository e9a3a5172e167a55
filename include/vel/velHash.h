// Thread-safe chained hash tables mapping a variant key to a list of strings.
//
// TCustomHashTable holds the storage, the locking and the list logic; a
// descendant supplies the number of buckets (HashSize) and the hash function
// (HashFunc). TStringKeyHashTable is the concrete table: 256 buckets, the
// sum of the bytes of the key's string form.
//
// Every item is linked twice: at the head of its bucket's chain
// (BucketNext/BucketPrev) and at the head of the list of all items of the
// table (Next towards older items, Prev towards newer ones), which serves
// Clear and WalkItems. Keys are unique under the runtime's variant equality
// (Variants.h: strings case-sensitively, a string and a number as numbers,
// so 12 and "12" are the same key).
//
// Thread safety: one recursive lock per table guards everything; any thread
// may call any operation, and WalkItems' callback may call the table again
// on the same thread. BucketCountByIdx and BucketCountByKey read without the
// lock. Every LockTable writes "EnterCriticalSection" to the debug output
// (Debug.h); construction and destruction write "InitializeCriticalSection"
// and "DeleteCriticalSection". While the debug output is silent the trace
// costs one atomic load.
//
// Failures raise EHashError with "Hash key not found", "Hash key already
// exists" or "Bucket index out of bounds"; a failed operation leaves the
// table unchanged and the lock released.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <vector>

#include "vel/Export.h"
#include "vel/rtl/StringLists.h"
#include "vel/rtl/SyncObjs.h"
#include "vel/rtl/System.h"
#include "vel/rtl/Variants.h"

namespace vel {

VEL_EXCEPTION(EHashError, Exception);

enum THashErrMsg : uint8_t { hKeyNotFound, hKeyExists, hIndexOutOfBounds };

inline constexpr const char* SHashKeyNotFound = "Hash key not found";
inline constexpr const char* SHashKeyExists = "Hash key already exists";
inline constexpr const char* SHashIndexOutOfBounds = "Bucket index out of bounds";

inline constexpr const char* SHashInitializeCriticalSection = "InitializeCriticalSection";
inline constexpr const char* SHashDeleteCriticalSection = "DeleteCriticalSection";
inline constexpr const char* SHashEnterCriticalSection = "EnterCriticalSection";

// One entry of a table, owned by it. Destroying an item clears its key and
// frees its Values; it does not unlink the item (the table does that first).
class VEL_API THashItem : public TObject {
  VEL_CLASS(THashItem, TObject)
 public:
  THashItem();
  ~THashItem() override;

  int32_t Index = 0;              // bucket index, set when added
  THashItem* Next = nullptr;      // all-items list, towards older items
  THashItem* Prev = nullptr;      // all-items list, towards newer items
  THashItem* BucketNext = nullptr;
  THashItem* BucketPrev = nullptr;
  Variant Key;                    // not to be changed while in the table
  TStringList* Values;            // created empty, owned
};

using TWalkItemProc = TEvent<void(THashItem* AItem)>;

// One bucket: the length of its chain and the chain's head.
struct THashBucket {
  int32_t Count = 0;
  THashItem* First = nullptr;
};

class VEL_API TCustomHashTable : public TObject {
  VEL_CLASS(TCustomHashTable, TObject)
 public:
  TCustomHashTable();
  ~TCustomHashTable() override;

  // The number of buckets; constant for the life of the table.
  virtual int32_t HashSize() const = 0;
  // The bucket of Key, in 0 .. HashSize-1. Takes no lock.
  virtual int32_t HashFunc(const Variant& Key) const = 0;

  void LockTable();
  void UnlockTable();
  // The item with Key, or null when Silent (else EHashError "Hash key not
  // found"). Idx < 0 means the bucket is computed with HashFunc; an index
  // outside the buckets finds nothing.
  THashItem* FindItem(const Variant& Key, bool Silent = false, int32_t Idx = -1);
  [[noreturn]] void HashError(THashErrMsg Msg) const;
  // Adds Key with Values holding the one line Value; "Hash key already
  // exists" when present. A HashFunc result outside the buckets raises
  // "Bucket index out of bounds".
  void AddItem(const Variant& Key, const std::string& Value);
  // The Values of Key's item (owned by the item); "Hash key not found".
  TStringList* GetValue(const Variant& Key);
  // Assigns Strings to the Values of Key's item; a missing key is ignored.
  void SetValue(const Variant& Key, TStrings* Strings);
  // "Hash key not found" when absent.
  void RemoveItem(const Variant& Key);
  void Clear();
  // Calls Proc for every item, newest first, with the lock held. Proc may
  // remove or keep the item it is given, remove others (an item removed
  // before its turn is not visited), add items (they go to the head, behind
  // the walk) or clear the table (the walk ends). When Proc raises, the
  // exception passes with the lock released, and the table's head is left
  // at the item after the one being visited (the walk's cursor), as it
  // always has been: the items before it drop out of the all-items list.
  void WalkItems(TWalkItemProc Proc);
  bool KeyExists(const Variant& Key);
  // "Bucket index out of bounds" unless 0 <= Idx < HashSize. No lock.
  int32_t BucketCountByIdx(int32_t Idx);
  // The count of Key's bucket. No lock; raises "Bucket index out of
  // bounds" when HashFunc gives an index outside the buckets.
  int32_t BucketCountByKey(const Variant& Key);

  // The state, for inspection with the table locked: the newest item (head
  // of the all-items list), the number of items, and the bucket array.
  THashItem* First() const { return FFirst; }
  int32_t Count() const { return FCount; }
  const THashBucket* Buckets() { return BucketArray(); }

 protected:
  // The bucket array, allocated zero-filled with HashSize entries on first
  // use (a constructor cannot reach the descendant's HashSize).
  THashBucket* BucketArray();

 private:
  // A lookup aid beside each bucket's chain: the chain's items in reverse
  // chain order (oldest first), each with a fingerprint of its key when that
  // is an 8-bit string (never 0; 0 for other keys). Two such keys are equal
  // exactly when their bytes are, so a string lookup compares only the items
  // with its fingerprint or with other key types, in chain order, while the
  // fingerprints of a long chain sit in a few cache lines.
  struct TChainEntry {
    uint32_t Print;
    THashItem* Item;
  };
  using TChainIndex = std::vector<TChainEntry>;

  THashBucket* AllocateBuckets();
  void Unlink(THashItem* Item);

  TCriticalSection FLock;
  THashItem* FFirst = nullptr;
  std::vector<THashItem*> FWalkHeads;  // heads remembered by running walks
  std::atomic<THashBucket*> FBuckets{nullptr};
  TChainIndex* FChains = nullptr;      // one per bucket
  int32_t FBucketCount = 0;
  int32_t FCount = 0;
  std::mutex FAllocLock;
};

// 256 buckets; the hash is the sum of the bytes of the key's string form
// (VarToStr: 12 gives "12"), modulo 256. Case is not folded.
class VEL_API TStringKeyHashTable : public TCustomHashTable {
  VEL_CLASS(TStringKeyHashTable, TCustomHashTable)
 public:
  TStringKeyHashTable() = default;
  ~TStringKeyHashTable() override;
  int32_t HashSize() const override;
  int32_t HashFunc(const Variant& Key) const override;
};

}  // namespace vel
