// Hash tables: bucket choice, key equality across variant types, the debug
// trace of the lock, walking while removing, and the table's invariants after
// four threads have worked on it at once.
#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <thread>
#include <vector>

#include "vel/rtl/Debug.h"
#include "vel/velHash.h"

using namespace vel;

namespace {

template <class F>
std::string ErrorOf(F&& Fn) {
  try {
    Fn();
  } catch (const EHashError& E) {
    return E.what();
  }
  return "no EHashError";
}

// A descendant with many buckets and FNV-1a over the key's string form.
class TFnvTable : public TCustomHashTable {
 public:
  int32_t HashSize() const override { return 65536; }
  int32_t HashFunc(const Variant& Key) const override {
    uint32_t H = 2166136261u;
    for (const char C : VarToStr(Key)) H = (H ^ static_cast<uint8_t>(C)) * 16777619u;
    return static_cast<int32_t>(H & 0xFFFF);
  }
};

// Every invariant of the structure: both lists consistent and complete, each
// item in the chain of its own bucket, counts matching, keys unique.
void CheckInvariants(TCustomHashTable& T) {
  T.LockTable();
  const int32_t Size = T.HashSize();
  std::set<const THashItem*> All;
  const THashItem* Prev = nullptr;
  for (const THashItem* I = T.First(); I; I = I->Next) {
    ASSERT_EQ(I->Prev, Prev);
    ASSERT_TRUE(All.insert(I).second) << "cycle in the all-items list";
    ASSERT_GE(I->Index, 0);
    ASSERT_LT(I->Index, Size);
    Prev = I;
  }
  ASSERT_EQ(static_cast<int32_t>(All.size()), T.Count());
  int64_t Sum = 0;
  size_t InChains = 0;
  std::set<std::string> Keys;
  for (int32_t B = 0; B < Size; ++B) {
    const THashBucket& Bucket = T.Buckets()[B];
    int32_t Len = 0;
    const THashItem* BPrev = nullptr;
    for (const THashItem* I = Bucket.First; I; I = I->BucketNext) {
      ASSERT_EQ(I->BucketPrev, BPrev);
      ASSERT_EQ(I->Index, B);
      ASSERT_TRUE(All.count(I));
      ASSERT_TRUE(Keys.insert(VarToStr(I->Key)).second) << "duplicate key";
      BPrev = I;
      ++Len;
    }
    ASSERT_EQ(Len, Bucket.Count);
    Sum += Len;
    InChains += static_cast<size_t>(Len);
  }
  ASSERT_EQ(Sum, T.Count());
  ASSERT_EQ(InChains, All.size());
  T.UnlockTable();
}

// Records what each visit sees and optionally removes or raises.
class TWalker : public TObject {
 public:
  explicit TWalker(TCustomHashTable* T) : Table(T) {}
  void Visit(THashItem* Item) {
    Seen.push_back(VarToStr(Item->Key));
    if (RaiseAt == Seen.back()) throw Exception("stop");
    if (Remove) Table->RemoveItem(Item->Key);
  }
  TCustomHashTable* Table;
  std::vector<std::string> Seen;
  bool Remove = false;
  std::string RaiseAt;
};

}  // namespace

TEST(StringKeyHashTable, BucketsFollowTheByteSum) {
  TStringKeyHashTable T;
  struct {
    Variant Key;
    int32_t Bucket;
  } const Cases[] = {
      {Variant(""), 0},           {Variant(), 0},
      {Variant("ab"), 195},       {Variant("ba"), 195},
      {Variant("Ab"), 163},       {Variant(12), 99},
      {Variant("12"), 99},        {Variant("\xFF\x01"), 0},
      {Variant(std::string(300, 'z')), 300 * 122 % 256},
  };
  for (const auto& C : Cases) EXPECT_EQ(T.HashFunc(C.Key), C.Bucket) << VarToStr(C.Key);
  EXPECT_EQ(T.HashSize(), 256);
}

TEST(StringKeyHashTable, KeysValuesAndErrors) {
  TStringKeyHashTable T;
  T.AddItem("ab", "first");
  T.AddItem("ba", "second");
  EXPECT_EQ(T.BucketCountByKey("ab"), 2);
  EXPECT_EQ(T.BucketCountByIdx(195), 2);
  EXPECT_EQ(T.GetValue("ba")->Text(), "second\r\n");

  // 12 and "12" are one key.
  T.AddItem(12, "twelve");
  EXPECT_EQ(ErrorOf([&] { T.AddItem("12", "again"); }), "Hash key already exists");
  EXPECT_EQ(T.Count(), 3);
  EXPECT_EQ(T.GetValue("12")->Text(), "twelve\r\n");
  EXPECT_EQ(ErrorOf([&] { T.GetValue("missing"); }), "Hash key not found");
  EXPECT_EQ(ErrorOf([&] { T.RemoveItem("missing"); }), "Hash key not found");
  EXPECT_EQ(ErrorOf([&] { T.BucketCountByIdx(-1); }), "Bucket index out of bounds");
  EXPECT_EQ(ErrorOf([&] { T.BucketCountByIdx(256); }), "Bucket index out of bounds");
  EXPECT_EQ(T.BucketCountByIdx(255), 0);
  EXPECT_EQ(T.Count(), 3);

  // SetValue copies; a missing key is ignored.
  TStringList L;
  L.Add("x");
  L.Add("y");
  T.SetValue("ab", &L);
  T.SetValue("nothing", &L);
  L.Clear();
  EXPECT_EQ(T.GetValue("ab")->Text(), "x\r\ny\r\n");
  EXPECT_FALSE(T.KeyExists("nothing"));

  T.RemoveItem("ab");
  EXPECT_FALSE(T.KeyExists("ab"));
  EXPECT_TRUE(T.KeyExists("ba"));
  EXPECT_EQ(T.BucketCountByKey("ba"), 1);
  CheckInvariants(T);

  T.Clear();
  EXPECT_EQ(T.Count(), 0);
  EXPECT_EQ(T.First(), nullptr);
  for (const char* K : {"ab", "ba", "12"}) EXPECT_FALSE(T.KeyExists(K));
  for (int32_t I = 0; I < 256; ++I) ASSERT_EQ(T.BucketCountByIdx(I), 0);
  T.AddItem("ab", "back");
  CheckInvariants(T);
}

TEST(StringKeyHashTable, LockWritesTheDebugTrace) {
  std::vector<std::string> Lines;
  TDebugOutputSink Saved = SetDebugOutputSink([&](const std::string& S) { Lines.push_back(S); });
  {
    TStringKeyHashTable T;
    EXPECT_EQ(Lines, std::vector<std::string>{"InitializeCriticalSection"});
    Lines.clear();
    T.AddItem("k", "v");  // AddItem and its nested FindItem
    EXPECT_EQ(Lines, std::vector<std::string>(2, "EnterCriticalSection"));
    Lines.clear();
    T.BucketCountByIdx(0);  // no lock
    EXPECT_TRUE(Lines.empty());
    T.LockTable();
    T.UnlockTable();  // writes nothing
    EXPECT_EQ(Lines, std::vector<std::string>{"EnterCriticalSection"});
    Lines.clear();
  }
  // Destroy, then Clear inside it, then the lock goes.
  EXPECT_EQ(Lines, (std::vector<std::string>{"EnterCriticalSection", "EnterCriticalSection",
                                             "DeleteCriticalSection"}));
  SetDebugOutputSink(Saved);
}

TEST(StringKeyHashTable, WalkItemsNewestFirstAndMayRemove) {
  TStringKeyHashTable T;
  for (const char* K : {"A", "B", "C"}) T.AddItem(K, K);
  TWalker W(&T);
  T.WalkItems(TWalkItemProc::Bind<&TWalker::Visit>(&W));
  EXPECT_EQ(W.Seen, (std::vector<std::string>{"C", "B", "A"}));
  EXPECT_EQ(VarToStr(T.First()->Key), "C");

  // Removing the visited item: every item is still visited once, and the
  // table is consistent (and empty) afterwards.
  TWalker R(&T);
  R.Remove = true;
  T.WalkItems(TWalkItemProc::Bind<&TWalker::Visit>(&R));
  EXPECT_EQ(R.Seen, (std::vector<std::string>{"C", "B", "A"}));
  EXPECT_EQ(T.Count(), 0);
  EXPECT_EQ(T.First(), nullptr);
  CheckInvariants(T);
  T.AddItem("D", "d");
  CheckInvariants(T);
}

// Removing an item not yet visited skips it; adding during a walk puts the
// item at the real head; clearing ends the walk.
class TMutator : public TObject {
 public:
  explicit TMutator(TCustomHashTable* T) : Table(T) {}
  void Visit(THashItem* Item) {
    const std::string K = VarToStr(Item->Key);
    Seen.push_back(K);
    if (K == "D" && Table->KeyExists("C")) Table->RemoveItem("C");  // the cursor
    if (K == "B" && !Table->KeyExists("E")) Table->AddItem("E", "e");
    if (K == "A" && ClearAtA) Table->Clear();
  }
  TCustomHashTable* Table;
  std::vector<std::string> Seen;
  bool ClearAtA = false;
};

TEST(StringKeyHashTable, WalkItemsSurvivesChangesByProc) {
  TStringKeyHashTable T;
  for (const char* K : {"A", "B", "C", "D"}) T.AddItem(K, K);
  TMutator M(&T);
  T.WalkItems(TWalkItemProc::Bind<&TMutator::Visit>(&M));
  EXPECT_EQ(M.Seen, (std::vector<std::string>{"D", "B", "A"}));
  CheckInvariants(T);
  EXPECT_EQ(VarToStr(T.First()->Key), "E");
  EXPECT_EQ(T.Count(), 4);

  TMutator C(&T);
  C.ClearAtA = true;
  T.WalkItems(TWalkItemProc::Bind<&TMutator::Visit>(&C));
  EXPECT_EQ(C.Seen, (std::vector<std::string>{"E", "D", "B", "A"}));
  EXPECT_EQ(T.Count(), 0);
  EXPECT_EQ(T.First(), nullptr);
  CheckInvariants(T);
}

TEST(StringKeyHashTable, WalkItemsRaisingReleasesLock) {
  TStringKeyHashTable T;
  for (const char* K : {"A", "B", "C"}) T.AddItem(K, K);
  TWalker W(&T);
  W.RaiseAt = "B";
  EXPECT_THROW(T.WalkItems(TWalkItemProc::Bind<&TWalker::Visit>(&W)), Exception);
  // The cursor stays at the item after the one visited; the items before it
  // are still found, and freed with the table.
  EXPECT_EQ(VarToStr(T.First()->Key), "A");
  EXPECT_TRUE(T.KeyExists("C"));
  EXPECT_EQ(T.Count(), 3);
  std::atomic<bool> Done{false};
  std::thread Other([&] {
    T.KeyExists("A");
    Done = true;
  });
  Other.join();
  EXPECT_TRUE(Done);
}

TEST(HashTableConcurrency, FourThreadsKeepInvariants) {
  TFnvTable T;
  constexpr int KThreads = 4, KPerThread = 25000;
  std::atomic<int> Failures{0};
  std::vector<std::thread> Threads;
  for (int N = 0; N < KThreads; ++N) {
    Threads.emplace_back([&, N] {
      for (int I = 0; I < KPerThread; ++I) T.AddItem("key-" + std::to_string(N) + "-" + std::to_string(I), "v");
      for (int I = 0; I < KPerThread; ++I) {
        if (!T.KeyExists("key-" + std::to_string(N) + "-" + std::to_string(I))) ++Failures;
      }
      // Remove every odd key; adding one that exists must fail.
      for (int I = 1; I < KPerThread; I += 2) T.RemoveItem("key-" + std::to_string(N) + "-" + std::to_string(I));
      try {
        T.AddItem("key-" + std::to_string(N) + "-0", "dup");
        ++Failures;
      } catch (const EHashError&) {
      }
    });
  }
  for (auto& Th : Threads) Th.join();
  EXPECT_EQ(Failures.load(), 0);
  EXPECT_EQ(T.Count(), KThreads * KPerThread / 2);
  CheckInvariants(T);
  for (int N = 0; N < KThreads; ++N) {
    EXPECT_TRUE(T.KeyExists("key-" + std::to_string(N) + "-0"));
    EXPECT_FALSE(T.KeyExists("key-" + std::to_string(N) + "-1"));
  }
}
