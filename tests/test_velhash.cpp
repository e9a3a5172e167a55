// Hash tables: bucket choice, key equality across variant types, the debug
// trace of the lock, walking while the table changes, and the table's
// invariants after four threads have worked on it at once.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <set>
#include <thread>
#include <vector>

#include "fnv_hash_table.h"
#include "storage_test_util.h"
#include "vel/rtl/Debug.h"
#include "vel/velHash.h"

using namespace vel;
using storage_test::ErrorOf;
using TKeys = std::vector<std::string>;

namespace {

// Every invariant of the structure: the all-items list consistent and
// complete, each item in the chain of its own bucket, counts matching, keys
// unique.
void CheckInvariants(TCustomHashTable& T) {
  T.LockTable();
  std::set<const THashItem*> All;
  const THashItem* Prev = nullptr;
  for (const THashItem* I = T.First(); I; Prev = I, I = I->Next) {
    ASSERT_EQ(I->Prev, Prev);
    ASSERT_TRUE(All.insert(I).second) << "cycle in the all-items list";
  }
  ASSERT_EQ(static_cast<int32_t>(All.size()), T.Count());
  size_t InChains = 0;
  std::set<std::string> Keys;
  for (int32_t B = 0; B < T.HashSize(); ++B) {
    int32_t Len = 0;
    const THashItem* BPrev = nullptr;
    for (const THashItem* I = T.Buckets()[B].First; I; BPrev = I, I = I->BucketNext, ++Len) {
      ASSERT_EQ(I->BucketPrev, BPrev);
      ASSERT_EQ(I->Index, B);
      ASSERT_TRUE(All.count(I));
      ASSERT_TRUE(Keys.insert(VarToStr(I->Key)).second) << "duplicate key";
    }
    ASSERT_EQ(Len, T.Buckets()[B].Count);
    InChains += static_cast<size_t>(Len);
  }
  ASSERT_EQ(InChains, All.size());
  T.UnlockTable();
}

// Records the key of each visit, then lets the case act on the table.
class TWalker : public TObject {
 public:
  void Visit(THashItem* Item) {
    Seen.push_back(VarToStr(Item->Key));
    if (Then) Then(Seen.back());
  }
  TKeys Walk(TCustomHashTable& T, std::function<void(const std::string&)> Action = {}) {
    Seen.clear();
    Then = std::move(Action);
    T.WalkItems(TWalkItemProc::Bind<&TWalker::Visit>(this));
    return Seen;
  }
  TKeys Seen;
  std::function<void(const std::string&)> Then;
};

}  // namespace

TEST(StringKeyHashTable, BucketsFollowTheByteSum) {
  TStringKeyHashTable T;
  struct {
    Variant Key;
    int32_t Bucket;
  } const Cases[] = {
      {Variant(""), 0},
      {Variant(), 0},
      {Variant("ab"), 195},
      {Variant("ba"), 195},
      {Variant("Ab"), 163},
      {Variant(12), 99},
      {Variant("12"), 99},
      {Variant("\xFF\x01"), 0},
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

  // 12 and "12" are one key; failures change nothing.
  T.AddItem(12, "twelve");
  EXPECT_EQ(ErrorOf([&] { T.AddItem("12", "again"); }), "EHashError: Hash key already exists");
  EXPECT_EQ(T.GetValue("12")->Text(), "twelve\r\n");
  EXPECT_EQ(ErrorOf([&] { T.GetValue("missing"); }), "EHashError: Hash key not found");
  EXPECT_EQ(ErrorOf([&] { T.RemoveItem("missing"); }), "EHashError: Hash key not found");
  for (const int32_t Idx : {-1, 256}) {
    EXPECT_EQ(ErrorOf([&] { T.BucketCountByIdx(Idx); }), "EHashError: Bucket index out of bounds");
  }
  EXPECT_EQ(T.BucketCountByIdx(255), 0);
  EXPECT_EQ(T.Count(), 3);

  // SetValue copies; a missing key is ignored.
  TStringList L;
  L.SetText("x\ny");
  T.SetValue("ab", &L);
  T.SetValue("nothing", &L);
  L.Clear();
  EXPECT_EQ(T.GetValue("ab")->Text(), "x\r\ny\r\n");
  EXPECT_FALSE(T.KeyExists("nothing"));

  T.RemoveItem("ab");
  EXPECT_FALSE(T.KeyExists("ab"));
  EXPECT_EQ(T.BucketCountByKey("ba"), 1);

  // Clear empties every bucket (the invariants check their counts).
  T.Clear();
  EXPECT_EQ(T.Count(), 0);
  EXPECT_FALSE(T.KeyExists("ba"));
  CheckInvariants(T);
}

TEST(StringKeyHashTable, LockWritesTheDebugTrace) {
  TKeys Lines;
  TDebugOutputSink Saved = SetDebugOutputSink([&](const std::string& S) { Lines.push_back(S); });
  {
    TStringKeyHashTable T;
    EXPECT_EQ(Lines, TKeys{"InitializeCriticalSection"});
    Lines.clear();
    T.AddItem("k", "v");  // AddItem and its nested FindItem
    EXPECT_EQ(Lines, TKeys(2, "EnterCriticalSection"));
    Lines.clear();
    T.BucketCountByIdx(0);  // no lock
    EXPECT_TRUE(Lines.empty());
    T.LockTable();
    T.UnlockTable();  // writes nothing
    EXPECT_EQ(Lines, TKeys{"EnterCriticalSection"});
    Lines.clear();
  }
  // Destroy, then Clear inside it, then the lock goes.
  EXPECT_EQ(Lines,
            (TKeys{"EnterCriticalSection", "EnterCriticalSection", "DeleteCriticalSection"}));
  SetDebugOutputSink(Saved);
}

// Newest first; the visited item may be removed, an item not yet visited
// removed (it is skipped), items added (at the real head, behind the walk)
// and the table cleared (the walk ends); the table stays consistent.
TEST(StringKeyHashTable, WalkItemsSurvivesChangesByProc) {
  TStringKeyHashTable T;
  TWalker W;
  for (const char* K : {"A", "B", "C"}) T.AddItem(K, K);
  EXPECT_EQ(W.Walk(T), (TKeys{"C", "B", "A"}));
  EXPECT_EQ(W.Walk(T, [&](const std::string& K) { T.RemoveItem(K); }), (TKeys{"C", "B", "A"}));
  EXPECT_EQ(T.Count(), 0);
  EXPECT_EQ(T.First(), nullptr);
  CheckInvariants(T);

  for (const char* K : {"A", "B", "C", "D"}) T.AddItem(K, K);
  EXPECT_EQ(W.Walk(T,
                   [&](const std::string& K) {
                     if (K == "D") T.RemoveItem("C");  // the cursor
                     if (K == "B") T.AddItem("E", "e");
                   }),
            (TKeys{"D", "B", "A"}));
  CheckInvariants(T);
  EXPECT_EQ(VarToStr(T.First()->Key), "E");
  EXPECT_EQ(T.Count(), 4);

  EXPECT_EQ(W.Walk(T,
                   [&](const std::string& K) {
                     if (K == "A") T.Clear();
                   }),
            (TKeys{"E", "D", "B", "A"}));
  EXPECT_EQ(T.Count(), 0);
  EXPECT_EQ(T.First(), nullptr);
  CheckInvariants(T);
}

TEST(StringKeyHashTable, WalkItemsRaisingReleasesLock) {
  TStringKeyHashTable T;
  for (const char* K : {"A", "B", "C"}) T.AddItem(K, K);
  TWalker W;
  EXPECT_THROW(W.Walk(T,
                      [](const std::string& K) {
                        if (K == "B") throw Exception("stop");
                      }),
               Exception);
  // The cursor stays at the item after the one visited; the items before it
  // are still found, and freed with the table.
  EXPECT_EQ(VarToStr(T.First()->Key), "A");
  EXPECT_TRUE(T.KeyExists("C"));
  EXPECT_EQ(T.Count(), 3);
  std::atomic<bool> Done{false};
  std::thread Other([&] { Done = T.KeyExists("A"); });
  Other.join();
  EXPECT_TRUE(Done);
}

TEST(HashTableConcurrency, FourThreadsKeepInvariants) {
  TFnvTable T;
  constexpr int KThreads = 4, KPerThread = 25000;
  const auto Key = [](int N, int I) {
    return "key-" + std::to_string(N) + "-" + std::to_string(I);
  };
  std::atomic<int> Failures{0};
  std::vector<std::thread> Threads;
  for (int N = 0; N < KThreads; ++N) {
    Threads.emplace_back([&, N] {
      for (int I = 0; I < KPerThread; ++I) T.AddItem(Key(N, I), "v");
      for (int I = 0; I < KPerThread; ++I) Failures += !T.KeyExists(Key(N, I));
      // Remove every odd key; adding one that exists must fail.
      for (int I = 1; I < KPerThread; I += 2) T.RemoveItem(Key(N, I));
      try {
        T.AddItem(Key(N, 0), "dup");
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
    EXPECT_TRUE(T.KeyExists(Key(N, 0)));
    EXPECT_FALSE(T.KeyExists(Key(N, 1)));
  }
}
