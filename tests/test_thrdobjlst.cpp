// The locked object list: every removal destroys the object exactly once
// whatever the ownership flag, index errors leave the list unchanged and the
// lock free, and the lock serialises concurrent use (nested on one thread).
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "thread_test_util.h"
#include "vel/ThrdObjLst.h"

using namespace vel;
using namespace std::chrono_literals;

namespace tolt {

// Records each destruction by id: Deaths[Id] counts how often the object was
// destroyed and Order lists the ids in the order they died.
struct TGraveyard {
  explicit TGraveyard(int N) : Deaths(static_cast<size_t>(N)) {}
  std::vector<std::atomic<int>> Deaths;
  std::vector<int> Order;  // only written by single-threaded tests
  bool KeepOrder = true;
  int Total() const {
    int T = 0;
    for (auto& D : Deaths) T += D.load();
    return T;
  }
};

class TCounted : public TObject {
 public:
  static constexpr uint32_t Alive = 0xA11CEu;
  TCounted(TGraveyard& G, int Id) : FGrave(G), FId(Id) {}
  ~TCounted() override {
    Magic = 0;
    FGrave.Deaths[static_cast<size_t>(FId)].fetch_add(1);
    if (FGrave.KeepOrder) FGrave.Order.push_back(FId);
  }
  int Id() const { return FId; }
  uint32_t Magic = Alive;

 private:
  TGraveyard& FGrave;
  int FId;
};

// Gives tests a way to drop a slot without destroying what it points to
// (needed after removing one of two entries for the same object).
class TProbeList : public TThreadObjectList {
 public:
  using TThreadObjectList::TThreadObjectList;
  void Forget(int Index) {
    Lock();
    FList->List()[Index] = nullptr;
    FList->Delete(Index);
    Unlock();
  }
};

std::vector<int> Ids(const TThreadObjectList& L) {
  std::vector<int> R;
  for (int I = 0; I < L.Count(); ++I) {
    auto* C = static_cast<TCounted*>(L.Items(I));
    R.push_back(C ? C->Id() : -1);
  }
  return R;
}

// True when another thread can take the list's lock within a few seconds.
// If the lock was leaked by this thread, it is given back once here so that
// the helper thread can finish and be joined.
bool OtherThreadCanEnter(TThreadObjectList& L) {
  std::atomic<bool> Done{false};
  std::thread T([&] {
    (void)L.GetCount();
    Done = true;
  });
  auto Deadline = std::chrono::steady_clock::now() + 5s;
  while (!Done && std::chrono::steady_clock::now() < Deadline) std::this_thread::sleep_for(1ms);
  bool Ok = Done;
  if (!Ok) L.Unlock();
  T.join();
  return Ok;
}

// Fn must raise Error ("<class>: <message>") and leave L's lock free for
// other threads.
void ExpectRaise(TThreadObjectList& L, const std::string& Error, const std::function<void()>& Fn) {
  EXPECT_EQ(veltest::ErrorOf(Fn), Error);
  EXPECT_TRUE(OtherThreadCanEnter(L)) << "lock still held after " << Error;
}

}  // namespace tolt

using namespace tolt;

TEST(ThreadObjectListRemoval, EveryRemovalDestroysExactlyOnceWhateverOwnership) {
  for (bool Owns : {true, false}) {
    SCOPED_TRACE(Owns ? "owning" : "not owning");
    TGraveyard G(8);
    std::vector<TCounted*> O;
    TThreadObjectList L(Owns);
    EXPECT_EQ(L.OwnsObjects(), Owns);
    for (int I = 0; I < 6; ++I) {
      O.push_back(new TCounted(G, I));
      EXPECT_EQ(L.Add(O.back()), I);
    }

    L.Delete(1);
    EXPECT_EQ(G.Deaths[1], 1);
    EXPECT_EQ(Ids(L), (std::vector<int>{0, 2, 3, 4, 5}));

    EXPECT_EQ(L.Remove(O[4]), 3);
    EXPECT_EQ(G.Deaths[4], 1);
    EXPECT_EQ(Ids(L), (std::vector<int>{0, 2, 3, 5}));
    EXPECT_EQ(G.Total(), 2);

    G.Order.clear();
    L.Clear();
    EXPECT_EQ(L.Count(), 0);
    EXPECT_EQ(G.Order, (std::vector<int>{5, 3, 2, 0}));  // last entry first

    // Destroying the list destroys what is left, also last first.
    G.Order.clear();
    {
      TThreadObjectList L2(Owns);
      L2.Add(new TCounted(G, 6));
      L2.Add(nullptr);
      L2.Add(new TCounted(G, 7));
    }
    EXPECT_EQ(G.Order, (std::vector<int>{7, 6}));
    for (int I = 0; I < 8; ++I) EXPECT_EQ(G.Deaths[static_cast<size_t>(I)], 1) << I;
  }
}

TEST(ThreadObjectListRemoval, UnlistedObjectsNullEntriesAndDuplicates) {
  for (bool Owns : {true, false}) {
    SCOPED_TRACE(Owns ? "owning" : "not owning");
    TGraveyard G(3);
    auto* A = new TCounted(G, 0);
    auto* B = new TCounted(G, 1);
    auto* Stranger = new TCounted(G, 2);
    TProbeList L(Owns);
    L.Add(A);
    L.Add(nullptr);
    L.Add(B);
    L.Add(A);

    // Not listed: -1, nothing destroyed, nothing moved.
    EXPECT_EQ(L.Remove(Stranger), -1);
    EXPECT_EQ(L.IndexOf(Stranger), -1);
    EXPECT_EQ(G.Total(), 0);
    EXPECT_EQ(L.Count(), 4);
    delete Stranger;

    // A null entry is found, removed and nothing is destroyed.
    EXPECT_EQ(L.IndexOf(nullptr), 1);
    EXPECT_EQ(L.Remove(nullptr), 1);
    EXPECT_EQ(L.Count(), 3);
    L.Insert(1, nullptr);
    L.Delete(1);
    EXPECT_EQ(G.Total(), 1);  // only Stranger so far

    // A listed twice: only the first occurrence goes.
    EXPECT_EQ(L.Remove(A), 0);
    EXPECT_EQ(G.Deaths[0], 1);
    EXPECT_EQ(L.Count(), 2);
    EXPECT_EQ(L.Items(0), B);
    EXPECT_EQ(L.IndexOf(A), 1);  // the stale second slot, compared only
    L.Forget(1);
    EXPECT_EQ(L.Count(), 1);
    EXPECT_EQ(G.Deaths[1], 0);
  }
}

TEST(ThreadObjectListRemoval, SetItemsFollowsTheOwnershipFlag) {
  TGraveyard G(6);
  {
    TThreadObjectList Owning;  // default: owns its objects
    EXPECT_TRUE(Owning.OwnsObjects());
    auto* A = new TCounted(G, 0);
    Owning.Add(A);
    Owning.SetItems(0, A);  // storing the same object again frees nothing
    EXPECT_EQ(G.Deaths[0], 0);
    Owning.SetItems(0, new TCounted(G, 1));
    EXPECT_EQ(G.Deaths[0], 1);
    Owning.SetItems(0, nullptr);
    EXPECT_EQ(G.Deaths[1], 1);
    EXPECT_EQ(Owning.Items(0), nullptr);
    Owning.SetItems(0, new TCounted(G, 2));
  }
  EXPECT_EQ(G.Deaths[2], 1);

  auto* Kept = new TCounted(G, 3);
  {
    TThreadObjectList Plain(false);
    Plain.Add(Kept);
    Plain.SetItems(0, new TCounted(G, 4));
    EXPECT_EQ(G.Deaths[3], 0);
    EXPECT_EQ(static_cast<TCounted*>(Plain.First())->Id(), 4);
  }
  EXPECT_EQ(G.Deaths[4], 1);
  EXPECT_EQ(G.Deaths[3], 0);
  delete Kept;
  EXPECT_EQ(G.Total(), 5);
}

TEST(ThreadObjectListRemoval, DestructorsMayUseTheListWhileItIsCleared) {
  // An object that, when destroyed, looks itself up and removes its partner
  // from the same list, on the thread that already holds the lock.
  struct TLinked : TCounted {
    TLinked(TGraveyard& G, int Id, TThreadObjectList& L, bool& SawSelf)
        : TCounted(G, Id), List(L), SawSelf(SawSelf) {}
    ~TLinked() override {
      if (List.IndexOf(this) >= 0) SawSelf = true;
      if (Partner) List.Remove(Partner);
    }
    TThreadObjectList& List;
    bool& SawSelf;
    TObject* Partner = nullptr;
  };
  TGraveyard G(4);
  bool SawSelf = false;
  {
    TThreadObjectList L(true);
    auto* P0 = new TLinked(G, 0, L, SawSelf);
    auto* P2 = new TLinked(G, 2, L, SawSelf);
    L.Add(P0);
    L.Add(new TLinked(G, 1, L, SawSelf));
    L.Add(new TCounted(G, 3));
    L.Add(P2);
    P2->Partner = P0;  // Clear destroys P2 first, which removes P0
    L.Delete(1);
    L.Clear();
    EXPECT_EQ(L.Count(), 0);
  }
  // A dying object is no longer listed when its destructor runs.
  EXPECT_FALSE(SawSelf);
  for (int I = 0; I < 4; ++I) EXPECT_EQ(G.Deaths[static_cast<size_t>(I)], 1) << I;
  // P2's own destructor body removes P0 before P2's base part records it.
  EXPECT_EQ(G.Order, (std::vector<int>{1, 0, 2, 3}));
}

TEST(ThreadObjectListErrors, BadIndexesRaiseWithTheIndexAndChangeNothing) {
  for (bool Owns : {true, false}) {
    SCOPED_TRACE(Owns ? "owning" : "not owning");
    TGraveyard G(3);
    TThreadObjectList L(Owns);

    const std::string ObjErr = "EThreadObjectListError: List index out of bounds (";
    const std::string ListErr = "EListError: List index out of bounds (";
    ExpectRaise(L, ObjErr + "-1)", [&] { L.Last(); });
    ExpectRaise(L, ObjErr + "0)", [&] { L.First(); });
    L.Add(new TCounted(G, 0));
    L.Add(new TCounted(G, 1));
    auto* Spare = new TCounted(G, 2);
    ExpectRaise(L, ObjErr + "2)", [&] { L.GetItems(2); });
    ExpectRaise(L, ObjErr + "-7)", [&] { L.Items(-7); });
    ExpectRaise(L, ObjErr + "2)", [&] { L.SetItems(2, Spare); });
    ExpectRaise(L, ObjErr + "-1)", [&] { L.SetItems(-1, Spare); });
    // Delete, Insert and Exchange report through the underlying list.
    ExpectRaise(L, ListErr + "2)", [&] { L.Delete(2); });
    ExpectRaise(L, ListErr + "-1)", [&] { L.Delete(-1); });
    ExpectRaise(L, ListErr + "3)", [&] { L.Insert(3, Spare); });
    ExpectRaise(L, ListErr + "5)", [&] { L.Exchange(0, 5); });
    ExpectRaise(L, ListErr + "-2)", [&] { L.Exchange(-2, 0); });

    EXPECT_EQ(Ids(L), (std::vector<int>{0, 1}));
    EXPECT_EQ(G.Total(), 0);
    EXPECT_EQ(static_cast<TCounted*>(L.Last())->Id(), 1);

    // The boundaries themselves are accepted.
    L.Insert(2, Spare);
    L.Exchange(0, 2);
    EXPECT_EQ(Ids(L), (std::vector<int>{2, 1, 0}));
    EXPECT_EQ(L.First(), Spare);
  }
}

TEST(ThreadObjectListLocking, NestedLockHoldsOffOtherThreadsUntilTheOuterUnlock) {
  TGraveyard G(2);
  G.KeepOrder = false;
  TThreadObjectList L;
  std::atomic<bool> Started{false}, OuterReleased{false}, Finished{false};
  std::atomic<bool> SawRelease{false};

  L.Lock();
  L.Lock();
  L.Add(new TCounted(G, 0));  // no deadlock on the holding thread

  std::thread Other([&] {
    Started = true;
    L.Add(new TCounted(G, 1));
    SawRelease = OuterReleased.load();
    Finished = true;
  });
  while (!Started) std::this_thread::yield();
  std::this_thread::sleep_for(50ms);
  EXPECT_FALSE(Finished);
  L.Unlock();  // inner
  std::this_thread::sleep_for(50ms);
  EXPECT_FALSE(Finished);
  EXPECT_EQ(L.Count(), 1);  // the other thread's Add has not happened
  OuterReleased = true;
  L.Unlock();  // outer
  Other.join();
  EXPECT_TRUE(SawRelease);
  EXPECT_EQ(L.Count(), 2);
}

TEST(ThreadObjectListLocking, ConcurrentAddRemoveAndReadKeepCountsAndObjectsIntact) {
  constexpr int PerProducer = 1500;
  constexpr int Producers = 2;
  constexpr int Total = PerProducer * Producers + 2 * 500;
  TGraveyard G(Total);
  G.KeepOrder = false;
  std::atomic<int> Consumed{0};
  std::atomic<int> BadReads{0};
  {
    TThreadObjectList L(false);
    std::vector<std::thread> T;
    // Producers append objects that consumers delete from the end.
    for (int P = 0; P < Producers; ++P)
      T.emplace_back([&, P] {
        for (int I = 0; I < PerProducer; ++I) L.Add(new TCounted(G, P * PerProducer + I));
      });
    for (int C = 0; C < 2; ++C)
      T.emplace_back([&] {
        while (Consumed.load() < Producers * PerProducer / 2) {
          L.Lock();
          // Count, read and delete as one step under the outer lock.
          // Only producer objects: the other writers' objects are theirs
          // to remove.
          if (L.Count() > 0) {
            auto* Obj = static_cast<TCounted*>(L.Last());
            if (!Obj || Obj->Magic != TCounted::Alive) ++BadReads;
            if (Obj && Obj->Id() < Producers * PerProducer) {
              L.Delete(L.Count() - 1);
              ++Consumed;
            }
          }
          L.Unlock();
        }
      });
    // Two threads add and remove their own objects by identity.
    for (int W = 0; W < 2; ++W)
      T.emplace_back([&, W] {
        int Base = Producers * PerProducer + W * 500;
        for (int I = 0; I < 500; ++I) {
          auto* Obj = new TCounted(G, Base + I);
          L.Insert(0, Obj);
          if (L.Remove(Obj) < 0) ++BadReads;
        }
      });
    // A reader walks the list under the lock and checks every entry.
    T.emplace_back([&] {
      for (int R = 0; R < 200; ++R) {
        L.Lock();
        for (int I = 0; I < L.Count(); ++I) {
          auto* Obj = static_cast<TCounted*>(L.Items(I));
          if (!Obj || Obj->Magic != TCounted::Alive) ++BadReads;
        }
        L.Unlock();
      }
    });
    for (auto& Th : T) Th.join();
    EXPECT_EQ(L.Count() + Consumed.load(), Producers * PerProducer);
    EXPECT_EQ(G.Total(), Consumed.load() + 1000);
  }
  EXPECT_EQ(BadReads.load(), 0);
  for (int I = 0; I < Total; ++I) EXPECT_EQ(G.Deaths[static_cast<size_t>(I)], 1) << I;
}
