#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "thread_test_util.h"
#include "vel/rtl/Lists.h"
#include "vel/rtl/TypInfo.h"

namespace vel::test_lists {

using veltest::ErrorOf;

void* P(intptr_t N) {
  return reinterpret_cast<void*>(N);
}
intptr_t N(void* Ptr) {
  return reinterpret_cast<intptr_t>(Ptr);
}

std::vector<intptr_t> Items(const TList& L) {
  std::vector<intptr_t> R;
  for (int I = 0; I < L.Count(); ++I) R.push_back(N(L[I]));
  return R;
}

void Fill(TList& L, std::initializer_list<intptr_t> Values) {
  for (intptr_t V : Values) L.Add(P(V));
}

// Records every notification, and whether the item was still in the list
// when the notification came.
struct TEvent {
  intptr_t Item;
  TListNotification Action;
  bool StillListed;
  bool operator==(const TEvent&) const = default;
};

class TRecordingList : public TList {
 public:
  std::vector<TEvent> Log;
  ~TRecordingList() override { Clear(); }

 protected:
  void Notify(void* Ptr, TListNotification Action) override {
    Log.push_back({N(Ptr), Action, IndexOf(Ptr) >= 0});
  }
};

// Counts constructions and destructions; ASan reports a second delete.
class TCounted : public TObject {
  VEL_CLASS(TCounted, TObject)
 public:
  static inline int Alive = 0;
  static inline int Destroyed = 0;
  TCounted() { ++Alive; }
  ~TCounted() override {
    --Alive;
    ++Destroyed;
  }
};

class TCountedChild : public TCounted {
  VEL_CLASS(TCountedChild, TCounted)
};

}  // namespace vel::test_lists

namespace vel::test_lists {
VEL_IMPLEMENT(TCounted)
VEL_IMPLEMENT(TCountedChild)
}  // namespace vel::test_lists

namespace vel::test_lists {
namespace {

class ObjectListTest : public ::testing::Test {
 protected:
  void SetUp() override {
    TCounted::Alive = 0;
    TCounted::Destroyed = 0;
  }
};

// ---------------------------------------------------------------------------
// TList

TEST(TListTest, IndexErrorsCarryTheRuntimeMessages) {
  TList L;
  const std::string Index = "EListError: List index out of bounds (";
  EXPECT_EQ(ErrorOf([&] { L.First(); }), Index + "0)");
  EXPECT_EQ(ErrorOf([&] { L.Last(); }), Index + "-1)");
  Fill(L, {1, 2, 3});
  EXPECT_EQ(ErrorOf([&] { L.Get(3); }), Index + "3)");
  EXPECT_EQ(ErrorOf([&] { L.Get(-1); }), Index + "-1)");
  EXPECT_EQ(ErrorOf([&] { L.Put(7, nullptr); }), Index + "7)");
  EXPECT_EQ(ErrorOf([&] { L.Delete(3); }), Index + "3)");
  EXPECT_EQ(ErrorOf([&] { L.Insert(4, nullptr); }), Index + "4)");
  EXPECT_EQ(ErrorOf([&] { L.Insert(-1, nullptr); }), Index + "-1)");
  EXPECT_EQ(ErrorOf([&] { L.Exchange(0, 5); }), Index + "5)");
  EXPECT_EQ(ErrorOf([&] { L.Exchange(-2, 0); }), Index + "-2)");
  // Move checks the target first, as the runtime does.
  EXPECT_EQ(ErrorOf([&] { L.Move(9, 8); }), Index + "8)");
  EXPECT_EQ(ErrorOf([&] { L.Move(9, 1); }), Index + "9)");
  EXPECT_EQ(ErrorOf([&] { L.SetCapacity(2); }), "EListError: List capacity out of bounds (2)");
  EXPECT_EQ(ErrorOf([&] { L.SetCapacity(MaxListSize + 1); }),
            "EListError: List capacity out of bounds (134217728)");
  EXPECT_EQ(ErrorOf([&] { L.SetCount(-1); }), "EListError: List count out of bounds (-1)");
  // Failed calls change nothing.
  EXPECT_EQ(Items(L), (std::vector<intptr_t>{1, 2, 3}));
}

TEST(TListTest, GrowsLikeTheRuntime) {
  TList L;
  std::vector<int> Seen;
  for (int I = 0; I < 120; ++I) {
    L.Add(P(I + 1));
    if (Seen.empty() || Seen.back() != L.Capacity()) Seen.push_back(L.Capacity());
  }
  EXPECT_EQ(Seen, (std::vector<int>{4, 8, 12, 28, 44, 60, 76, 95, 118, 147}));
  L.Clear();
  EXPECT_EQ(L.Count(), 0);
  EXPECT_EQ(L.Capacity(), 0);
  EXPECT_EQ(L.List(), nullptr);
  // Expand grows only a full list.
  L.SetCapacity(3);
  L.Add(P(1));
  EXPECT_EQ(L.Expand()->Capacity(), 3);
  L.Add(P(2));
  L.Add(P(3));
  EXPECT_EQ(L.Expand()->Capacity(), 7);
}

TEST(TListTest, EditingOperations) {
  TList L;
  Fill(L, {10, 20, 30, 40, 50});
  L.Move(0, 3);
  L.Move(4, 1);
  EXPECT_EQ(Items(L), (std::vector<intptr_t>{20, 50, 30, 40, 10}));
  L.SetCount(7);  // new slots are null
  L.Put(1, nullptr);
  EXPECT_EQ(Items(L), (std::vector<intptr_t>{20, 0, 30, 40, 10, 0, 0}));
  L.Pack();
  EXPECT_EQ(Items(L), (std::vector<intptr_t>{20, 30, 40, 10}));
  EXPECT_EQ(L.Remove(P(30)), 1);
  EXPECT_EQ(L.Remove(P(30)), -1);
  EXPECT_EQ(L.Extract(P(99)), nullptr);
}

TEST(TListTest, NotificationsFollowTheRuntime) {
  TRecordingList L;
  L.Add(nullptr);  // null items are never announced
  L.Add(P(1));
  L.Insert(0, P(2));
  L.Put(2, P(1));  // same item: nothing
  L.Put(2, P(3));  // old deleted, then new added
  L.Move(0, 2);
  L.Exchange(0, 1);
  L.Sort([](void* A, void* B) { return N(A) < N(B) ? -1 : N(A) > N(B); });
  L.Pack();
  EXPECT_EQ(
      L.Log,
      (std::vector<TEvent>{
          {1, lnAdded, true}, {2, lnAdded, true}, {1, lnDeleted, false}, {3, lnAdded, true}}));
  EXPECT_EQ(Items(L), (std::vector<intptr_t>{2, 3}));

  L.Log.clear();
  L.Add(P(4));
  L.Add(nullptr);
  L.Add(P(5));
  EXPECT_EQ(L.Extract(P(3)), P(3));
  L.Remove(P(2));
  L.Delete(0);  // 4
  L.Clear();    // null, 5: from the end, nulls silent
  EXPECT_EQ(L.Log, (std::vector<TEvent>{{4, lnAdded, true},
                                        {5, lnAdded, true},
                                        {3, lnExtracted, false},
                                        {2, lnDeleted, false},
                                        {4, lnDeleted, false},
                                        {5, lnDeleted, false}}));

  L.Log.clear();
  Fill(L, {7, 8, 9});
  L.Log.clear();
  L.SetCount(1);
  EXPECT_EQ(L.Log, (std::vector<TEvent>{{9, lnDeleted, false}, {8, lnDeleted, false}}));
}

int CompareByValue(void* A, void* B) {
  return N(A) < N(B) ? -1 : N(A) > N(B) ? 1 : 0;
}

// The runtime's quicksort, also on empty, large and hostile input.
TEST(TListTest, SortMatchesTheRuntimeQuicksortAndIsSafeOnHostileInput) {
  // Items are 10*key + tag; the comparison looks at the key only, so the
  // order of equal keys shows the algorithm: the runtime's quicksort turns
  // [2a, 1a, 2b, 1b] into [1b, 1a, 2a, 2b] (a stable sort would not).
  TList L;
  Fill(L, {21, 11, 22, 12});
  L.Sort([](void* A, void* B) { return static_cast<int>(N(A) / 10 - N(B) / 10); });
  EXPECT_EQ(Items(L), (std::vector<intptr_t>{12, 11, 21, 22}));

  L.Clear();
  L.Sort(CompareByValue);  // no array at all
  EXPECT_EQ(L.Count(), 0);

  std::mt19937 Rng(7);
  std::vector<intptr_t> Expected;
  for (int I = 0; I < 100000; ++I) {
    intptr_t V = static_cast<intptr_t>(Rng() % 5000) + 1;
    L.Add(P(V));
    Expected.push_back(V);
  }
  L.Sort(CompareByValue);
  std::sort(Expected.begin(), Expected.end());
  EXPECT_EQ(Items(L), Expected);

  // Already sorted, reversed and all-equal inputs.
  L.Sort(CompareByValue);
  EXPECT_EQ(Items(L), Expected);
  std::reverse(Expected.begin(), Expected.end());
  L.Sort([](void* A, void* B) { return CompareByValue(B, A); });
  EXPECT_EQ(Items(L), Expected);
  L.Sort([](void*, void*) { return 0; });
  EXPECT_EQ(L.Count(), 100000);

  // Comparisons that contradict themselves must not run off the array or
  // lose items; the result is some permutation.
  static std::mt19937 Coin(3);
  std::reverse(Expected.begin(), Expected.end());  // ascending again
  for (auto Cmp : {+[](void*, void*) { return -1; }, +[](void*, void*) { return 1; },
                   +[](void*, void*) { return static_cast<int>(Coin() % 3) - 1; }}) {
    L.Sort(Cmp);
    std::vector<intptr_t> After = Items(L);
    std::sort(After.begin(), After.end());
    EXPECT_EQ(After, Expected);
  }
}

TEST(TListTest, AssignOperators) {
  auto Run = [](TListAssignOp Op) {
    TList Dest, Src;
    Fill(Dest, {1, 2, 3, 4, 5});
    Fill(Src, {3, 4, 6});
    Dest.Assign(&Src, Op);
    return Items(Dest);
  };
  EXPECT_EQ(Run(laCopy), (std::vector<intptr_t>{3, 4, 6}));
  EXPECT_EQ(Run(laAnd), (std::vector<intptr_t>{3, 4}));
  EXPECT_EQ(Run(laOr), (std::vector<intptr_t>{1, 2, 3, 4, 5, 6}));
  EXPECT_EQ(Run(laXor), (std::vector<intptr_t>{1, 2, 5, 6}));
  EXPECT_EQ(Run(laSrcUnique), (std::vector<intptr_t>{1, 2, 5}));
  EXPECT_EQ(Run(laDestUnique), (std::vector<intptr_t>{6}));

  // With two lists: copy A, then combine with B.
  TList A, B, Dest;
  Fill(A, {1, 2, 3});
  Fill(B, {2, 9});
  Fill(Dest, {7});
  Dest.Assign(&A, laOr, &B);
  EXPECT_EQ(Items(Dest), (std::vector<intptr_t>{1, 2, 3, 9}));
  // Assigning a list to itself keeps it.
  Dest.Assign(&Dest);
  EXPECT_EQ(Items(Dest), (std::vector<intptr_t>{1, 2, 3, 9}));
}

// ---------------------------------------------------------------------------
// TObjectList

TEST_F(ObjectListTest, OwningListFreesEachObjectOnce) {
  auto* L = new TObjectList;
  EXPECT_TRUE(L->OwnsObjects());
  TCounted* Objs[6];
  for (auto*& O : Objs) L->Add(O = new TCounted);
  EXPECT_EQ(TCounted::Alive, 6);

  L->Delete(0);
  EXPECT_EQ(TCounted::Destroyed, 1);
  EXPECT_EQ(L->Remove(Objs[1]), 0);
  EXPECT_EQ(TCounted::Destroyed, 2);
  L->SetItem(0, new TCounted);  // overwrites Objs[2]
  EXPECT_EQ(TCounted::Destroyed, 3);
  L->SetItem(0, L->GetItem(0));  // same object: kept
  EXPECT_EQ(TCounted::Destroyed, 3);
  EXPECT_EQ(L->Extract(Objs[3]), Objs[3]);
  EXPECT_EQ(TCounted::Destroyed, 3);
  EXPECT_EQ(L->IndexOf(Objs[3]), -1);
  delete Objs[3];
  L->Move(0, 1);  // moving never frees
  L->Exchange(0, 1);
  EXPECT_EQ(TCounted::Destroyed, 4);
  L->SetCount(1);
  EXPECT_EQ(TCounted::Destroyed, 6);
  L->Add(nullptr);
  delete L;  // one object left, and a null item
  EXPECT_EQ(TCounted::Destroyed, 7);
  EXPECT_EQ(TCounted::Alive, 0);

  // Clear and destruction free everything, however many.
  {
    TObjectList L2;
    for (int I = 0; I < 1000; ++I) L2.Add(new TCounted);
    L2.Clear();
    EXPECT_EQ(TCounted::Alive, 0);
    for (int I = 0; I < 10; ++I) L2.Add(new TCounted);
  }
  EXPECT_EQ(TCounted::Alive, 0);
  EXPECT_EQ(TCounted::Destroyed, 1017);
}

TEST_F(ObjectListTest, NonOwningListNeverFrees) {
  std::vector<TCounted*> Objs;
  {
    TObjectList L(false);
    for (int I = 0; I < 4; ++I) L.Add(Objs.emplace_back(new TCounted));
    L.Delete(0);
    L.Remove(Objs[1]);
    L.SetItem(0, nullptr);
  }
  {
    TObjectList L;  // owning, switched off before it goes
    for (TCounted* O : Objs) L.Add(O);
    L.SetOwnsObjects(false);
  }
  EXPECT_EQ(TCounted::Destroyed, 0);
  for (TCounted* O : Objs) delete O;
}

// An owned object whose destructor removes another object of the same list.
class TLinked : public TCounted {
 public:
  TObjectList* List = nullptr;
  TObject* Partner = nullptr;
  ~TLinked() override {
    if (List && Partner) List->Remove(Partner);
  }
};

TEST_F(ObjectListTest, DestructorsThatEditTheListDuringClear) {
  for (bool PartnerFirst : {true, false}) {
    TCounted::Alive = 0;
    auto* L = new TObjectList;
    auto* A = new TLinked;
    auto* B = new TCounted;
    A->List = L;
    A->Partner = B;
    if (PartnerFirst) {
      L->Add(B);
      L->Add(A);
    } else {
      L->Add(A);
      L->Add(B);
    }
    L->Add(new TCounted);
    delete L;
    EXPECT_EQ(TCounted::Alive, 0) << PartnerFirst;
  }
}

TEST_F(ObjectListTest, FindInstanceOfAndClassReference) {
  TObjectList L;
  L.Add(new TCounted);
  L.Add(nullptr);
  L.Add(new TCountedChild);
  L.Add(new TCounted);
  EXPECT_EQ(L.FindInstanceOf(TCountedChild::StaticClass()), 2);
  EXPECT_EQ(L.FindInstanceOf(TCounted::StaticClass()), 0);
  EXPECT_EQ(L.FindInstanceOf(TCounted::StaticClass(), true, 1), 3);
  EXPECT_EQ(L.FindInstanceOf(TCounted::StaticClass(), false, 1), 2);
  EXPECT_EQ(L.FindInstanceOf(TObject::StaticClass()), -1);
  EXPECT_EQ(L.FindInstanceOf(TObject::StaticClass(), false), 0);
  EXPECT_EQ(L.FindInstanceOf(TCounted::StaticClass(), true, 4), -1);

  // A list made from its class reference owns its objects.
  TObject* Made = TObjectList::StaticClass()->Create();
  auto* Made2 = dynamic_cast<TObjectList*>(Made);
  ASSERT_NE(Made2, nullptr);
  EXPECT_EQ(Made->ClassName(), "TObjectList");
  EXPECT_TRUE(Made->InheritsFrom(TList::StaticClass()));
  Made2->Add(new TCounted);
  int Before = TCounted::Destroyed;
  delete Made;
  EXPECT_EQ(TCounted::Destroyed, Before + 1);
}

}  // namespace
}  // namespace vel::test_lists
