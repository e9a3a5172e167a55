#include "vel/velHash.h"

#include <algorithm>
#include <cstring>

#include "vel/rtl/Debug.h"
#include "vel/rtl/TypInfo.h"

namespace vel {

VEL_IMPLEMENT(THashItem)
VEL_IMPLEMENT(TCustomHashTable)
VEL_IMPLEMENT(TStringKeyHashTable)

namespace {

// The debug trace of the table's lock; skipped while nobody listens.
inline void Trace(const char* Text) {
  if (DebugOutputActive()) OutputDebugStringA(Text);
}

// The fingerprint of the chain index: FNV-1a of an 8-bit string key's
// bytes, with the low bit set; 0 for keys of other types, which compare by
// value across types.
uint32_t KeyPrint(const Variant& Key) {
  if (Key.VType() != varString) return 0;
  uint32_t H = 2166136261u;
  for (const char C : Key.AsString()) H = (H ^ static_cast<uint8_t>(C)) * 16777619u;
  return H | 1u;
}

}  // namespace

// ---------------------------------------------------------------------------
// THashItem

THashItem::THashItem() : Values(new TStringList) {}

THashItem::~THashItem() {
  Key.Clear();
  delete Values;
}

// ---------------------------------------------------------------------------
// TCustomHashTable

TCustomHashTable::TCustomHashTable() {
  Trace(SHashInitializeCriticalSection);
}

TCustomHashTable::~TCustomHashTable() {
  LockTable();
  Clear();
  delete[] FBuckets.load(std::memory_order_relaxed);
  FBuckets.store(nullptr, std::memory_order_relaxed);
  delete[] FChains;
  FChains = nullptr;
  UnlockTable();
  Trace(SHashDeleteCriticalSection);
}

THashBucket* TCustomHashTable::BucketArray() {
  THashBucket* B = FBuckets.load(std::memory_order_acquire);
  return B ? B : AllocateBuckets();
}

THashBucket* TCustomHashTable::AllocateBuckets() {
  std::lock_guard<std::mutex> G(FAllocLock);
  if (THashBucket* B = FBuckets.load(std::memory_order_acquire)) return B;
  const int32_t N = std::max<int32_t>(HashSize(), 0);
  auto* B = new THashBucket[N]();
  try {
    FChains = new TChainIndex[N];
  } catch (...) {
    delete[] B;
    throw;
  }
  FBucketCount = N;
  FBuckets.store(B, std::memory_order_release);
  return B;
}

void TCustomHashTable::LockTable() {
  Trace(SHashEnterCriticalSection);
  FLock.Enter();
}

void TCustomHashTable::UnlockTable() {
  FLock.Leave();
}

void TCustomHashTable::HashError(THashErrMsg Msg) const {
  switch (Msg) {
    case hKeyNotFound: throw EHashError(SHashKeyNotFound);
    case hKeyExists: throw EHashError(SHashKeyExists);
    case hIndexOutOfBounds: break;
  }
  throw EHashError(SHashIndexOutOfBounds);
}

namespace {
// LockTable/UnlockTable around a scope.
struct TTableLock {
  explicit TTableLock(TCustomHashTable* T) : Table(T) { Table->LockTable(); }
  ~TTableLock() { Table->UnlockTable(); }
  TCustomHashTable* Table;
};
}  // namespace

THashItem* TCustomHashTable::FindItem(const Variant& Key, bool Silent, int32_t Idx) {
  TTableLock L(this);
  THashBucket* B = BucketArray();
  if (Idx < 0) Idx = HashFunc(Key);
  (void)B;
  if (Idx >= 0 && Idx < FBucketCount) {
    // The chain from its head along BucketNext, through the index.
    const TChainIndex& Chain = FChains[Idx];
    const uint32_t Print = Chain.empty() ? 0 : KeyPrint(Key);
    for (auto It = Chain.rbegin(); It != Chain.rend(); ++It) {
      if (Print != 0 && It->Print != 0 && It->Print != Print) continue;
      if (It->Item->Key == Key) return It->Item;
    }
  }
  if (!Silent) HashError(hKeyNotFound);
  return nullptr;
}

void TCustomHashTable::AddItem(const Variant& Key, const std::string& Value) {
  const Variant& K = Key;  // read before anything changes; no copy needed
  TTableLock L(this);
  THashBucket* B = BucketArray();
  const int32_t Idx = HashFunc(K);
  if (Idx < 0 || Idx >= FBucketCount) HashError(hIndexOutOfBounds);
  if (FindItem(K, true, Idx)) HashError(hKeyExists);
  auto* Item = new THashItem;
  try {
    Item->Key = K;
    Item->Values->Add(Value);
    FChains[Idx].push_back({KeyPrint(K), Item});
  } catch (...) {
    delete Item;
    throw;
  }
  Item->Index = Idx;
  // During a walk FFirst is the walk's cursor; the real head is the one the
  // outermost walk remembered.
  THashItem*& Head = FWalkHeads.empty() ? FFirst : FWalkHeads.front();
  if (Head) Head->Prev = Item;
  Item->Next = Head;
  Head = Item;
  THashBucket& Bucket = B[Idx];
  if (Bucket.First) Bucket.First->BucketPrev = Item;
  Item->BucketNext = Bucket.First;
  Bucket.First = Item;
  ++FCount;
  ++Bucket.Count;
}

TStringList* TCustomHashTable::GetValue(const Variant& Key) {
  return FindItem(Key, false, -1)->Values;
}

void TCustomHashTable::SetValue(const Variant& Key, TStrings* Strings) {
  TTableLock L(this);
  if (THashItem* Item = FindItem(Key, true, -1)) Item->Values->Assign(Strings);
}

void TCustomHashTable::Unlink(THashItem* Item) {
  if (Item->Next) Item->Next->Prev = Item->Prev;
  if (FWalkHeads.empty()) {
    if (!Item->Prev) FFirst = Item->Next;
  } else {
    // Inside a walk: a remembered head or the cursor that is removed moves on
    // to the next item, so neither is left pointing at a freed item.
    for (THashItem*& H : FWalkHeads)
      if (H == Item) H = Item->Next;
    if (FFirst == Item) FFirst = Item->Next;
  }
  if (Item->Prev) Item->Prev->Next = Item->Next;
  THashBucket& Bucket = FBuckets.load(std::memory_order_relaxed)[Item->Index];
  TChainIndex& Chain = FChains[Item->Index];
  for (auto It = Chain.begin(); It != Chain.end(); ++It) {
    if (It->Item == Item) {
      Chain.erase(It);
      break;
    }
  }
  if (Item->BucketNext) Item->BucketNext->BucketPrev = Item->BucketPrev;
  if (!Item->BucketPrev) Bucket.First = Item->BucketNext;
  else Item->BucketPrev->BucketNext = Item->BucketNext;
  --FCount;
  --Bucket.Count;
}

void TCustomHashTable::RemoveItem(const Variant& Key) {
  const Variant K = Key;
  TTableLock L(this);
  THashItem* Item = FindItem(K, false, -1);
  Unlink(Item);
  delete Item;
}

void TCustomHashTable::Clear() {
  TTableLock L(this);
  FCount = 0;
  // Every item is in exactly one bucket chain, also one that a raising walk
  // left outside the all-items list, so the items are freed bucket by bucket.
  if (THashBucket* B = FBuckets.load(std::memory_order_relaxed)) {
    std::memset(static_cast<void*>(B), 0, sizeof(THashBucket) * FBucketCount);
    for (int32_t I = 0; I < FBucketCount; ++I) {
      for (const TChainEntry& E : FChains[I]) delete E.Item;
      FChains[I].clear();
    }
  }
  // Inside a walk the walk ends.
  FFirst = nullptr;
  for (THashItem*& H : FWalkHeads) H = nullptr;
}

void TCustomHashTable::WalkItems(TWalkItemProc Proc) {
  TTableLock L(this);
  // FFirst is the cursor: it moves past an item before Proc sees it, so
  // Proc may free that item. The head is remembered on a stack (walks may
  // nest) that RemoveItem, AddItem and Clear keep up to date.
  FWalkHeads.push_back(FFirst);
  try {
    while (FFirst) {
      THashItem* Item = FFirst;
      FFirst = Item->Next;
      Proc(Item);
    }
  } catch (...) {
    // The head is not put back: FFirst stays at the item after the one
    // being visited.
    FWalkHeads.pop_back();
    throw;
  }
  FFirst = FWalkHeads.back();
  FWalkHeads.pop_back();
}

bool TCustomHashTable::KeyExists(const Variant& Key) {
  return FindItem(Key, true, -1) != nullptr;
}

int32_t TCustomHashTable::BucketCountByIdx(int32_t Idx) {
  const THashBucket* B = BucketArray();
  if (Idx < 0 || Idx >= FBucketCount) HashError(hIndexOutOfBounds);
  return B[Idx].Count;
}

int32_t TCustomHashTable::BucketCountByKey(const Variant& Key) {
  const THashBucket* B = BucketArray();
  const int32_t Idx = HashFunc(Key);
  if (Idx < 0 || Idx >= FBucketCount) HashError(hIndexOutOfBounds);
  return B[Idx].Count;
}

// ---------------------------------------------------------------------------
// TStringKeyHashTable

TStringKeyHashTable::~TStringKeyHashTable() = default;

int32_t TStringKeyHashTable::HashSize() const {
  return 256;
}

int32_t TStringKeyHashTable::HashFunc(const Variant& Key) const {
  const Variant Copy = Key;
  const std::string S = VarToStr(Copy);
  uint32_t Sum = 0;  // wraps as the 32-bit accumulator does
  for (const char C : S) Sum += static_cast<uint8_t>(C);
  return static_cast<int32_t>(Sum) % HashSize();
}

}  // namespace vel
