// Ownership of components and collection items, free notification, names,
// and Assign between persistent objects.
#include <gtest/gtest.h>

#include "storage_test_util.h"
#include "vel/rtl/Components.h"
#include "vel/rtl/Lists.h"
#include "vel/rtl/TypInfo.h"

using namespace vel;
using storage_test::ErrorOf;

namespace comp {

// Counts live instances so that tests can tell what was freed.
struct Counter {
  int Live = 0;
  int Freed = 0;
};

class TCounted : public TComponent {
  VEL_CLASS(TCounted, TComponent)
 public:
  explicit TCounted(TComponent* AOwner = nullptr) : TComponent(AOwner) {}
  TCounted(TComponent* AOwner, Counter* C) : TComponent(AOwner), FCounter(C) { ++C->Live; }
  ~TCounted() override {
    if (FCounter) {
      --FCounter->Live;
      ++FCounter->Freed;
    }
  }
  // Every removal notification that reached this component, in order.
  std::vector<std::pair<TComponent*, TOperation>> Heard;
  void Notification(TComponent* AComponent, TOperation Operation) override {
    Heard.emplace_back(AComponent, Operation);
    TComponent::Notification(AComponent, Operation);
  }

 private:
  Counter* FCounter = nullptr;
};

class TItem : public TCollectionItem {
  VEL_CLASS(TItem, TCollectionItem)
 public:
  explicit TItem(TCollection* C = nullptr) : TCollectionItem(C) { ++Live; }
  ~TItem() override { --Live; }
  int32_t Value = 0;
  void Assign(TPersistent* Source) override {
    if (auto* S = dynamic_cast<TItem*>(Source)) {
      Value = S->Value;
      return;
    }
    TCollectionItem::Assign(Source);
  }
  static inline int Live = 0;
};

}  // namespace comp

using namespace comp;
VEL_IMPLEMENT(TCounted)
VEL_PUBLISHED(TItem, prop("Value", &TItem::Value))

TEST(Components, OwnerFreesOwnedComponentsOnce) {
  Counter C;
  auto* Root = new TCounted(nullptr, &C);
  auto* A = new TCounted(Root, &C);
  auto* B = new TCounted(Root, &C);
  new TCounted(A, &C);  // grandchild
  EXPECT_EQ(C.Live, 4);
  EXPECT_EQ(Root->ComponentCount(), 2);
  EXPECT_EQ(Root->Components(0), A);
  EXPECT_EQ(B->ComponentIndex(), 1);
  EXPECT_EQ(A->Owner(), Root);

  // Freeing a child removes it from its owner.
  delete B;
  EXPECT_EQ(Root->ComponentCount(), 1);
  EXPECT_EQ(C.Freed, 1);

  delete Root;
  EXPECT_EQ(C.Live, 0);
  EXPECT_EQ(C.Freed, 4);
}

TEST(Components, InsertRemoveAndIndexErrors) {
  TComponent Owner1, Owner2;
  auto* X = new TComponent(&Owner1);
  Owner2.InsertComponent(X);  // moves it
  EXPECT_EQ(Owner1.ComponentCount(), 0);
  EXPECT_EQ(X->Owner(), &Owner2);
  Owner2.RemoveComponent(X);
  EXPECT_EQ(X->Owner(), nullptr);
  delete X;
  EXPECT_EQ(ErrorOf([&] { Owner1.Components(0); }), "EListError: List index out of bounds (0)");
}

TEST(Components, NamesAreValidatedAndUniquePerOwner) {
  TComponent Owner;
  auto* A = new TComponent(&Owner);
  auto* B = new TComponent(&Owner);
  A->SetName("Button1");
  EXPECT_EQ(Owner.FindComponent("BUTTON1"), A);
  EXPECT_EQ(ErrorOf([&] { B->SetName("button1"); }),
            "EComponentError: A component named button1 already exists");
  EXPECT_EQ(ErrorOf([&] { B->SetName("1abc"); }),
            "EComponentError: '1abc' is not a valid component name");
  A->SetName("BUTTON1");  // a change of letter case only is allowed
  EXPECT_EQ(A->Name(), "BUTTON1");
  B->SetName("");
  EXPECT_EQ(Owner.FindComponent(""), nullptr);
  // Inserting a component whose name is taken fails and leaves it alone.
  TComponent Stranger;
  auto* C = new TComponent(&Stranger);
  C->SetName("Button1");
  EXPECT_THROW(Owner.InsertComponent(C), EComponentError);
  EXPECT_EQ(C->Owner(), &Stranger);
  // Name and Tag are published; Name is never stored.
  EXPECT_FALSE(IsStoredProp(A, "Name"));
  SetOrdProp(A, "Tag", 12);
  EXPECT_EQ(A->Tag(), 12);
  SetStrProp(A, "Name", "Renamed");
  EXPECT_EQ(A->Name(), "Renamed");
}

TEST(Components, FreeNotificationReachesOtherTrees) {
  Counter C;
  auto* Watcher = new TCounted(nullptr, &C);
  auto* Watched = new TCounted(nullptr, &C);
  Watched->FreeNotification(Watcher);
  delete Watched;
  ASSERT_EQ(Watcher->Heard.size(), 1u);
  EXPECT_EQ(Watcher->Heard[0].first, Watched);
  EXPECT_EQ(Watcher->Heard[0].second, opRemove);

  // Both directions, and no notice after RemoveFreeNotification.
  auto* Other = new TCounted(nullptr, &C);
  Other->FreeNotification(Watcher);
  Other->RemoveFreeNotification(Watcher);
  delete Other;
  EXPECT_EQ(Watcher->Heard.size(), 1u);

  auto* Peer = new TCounted(nullptr, &C);
  Watcher->FreeNotification(Peer);
  delete Watcher;  // the peer hears of the watcher's end
  ASSERT_EQ(Peer->Heard.size(), 1u);
  EXPECT_EQ(Peer->Heard[0].second, opRemove);
  delete Peer;  // must not notify the freed watcher (the sanitizers would see it)
  EXPECT_EQ(C.Live, 0);
}

TEST(Components, OwnerHearsInsertAndRemoveAndPassesThemOn) {
  Counter C;
  TCounted Root(nullptr, &C);
  auto* Child = new TCounted(&Root, &C);
  ASSERT_EQ(Root.Heard.size(), 1u);
  EXPECT_EQ(Root.Heard[0].second, opInsert);
  auto* Second = new TCounted(&Root, &C);
  // The first child heard of its sibling's arrival through the owner.
  ASSERT_EQ(Child->Heard.size(), 1u);
  EXPECT_EQ(Child->Heard[0].first, Second);
  delete Second;
  EXPECT_EQ(Root.Heard.back().first, Second);
  EXPECT_EQ(Root.Heard.back().second, opRemove);
  EXPECT_EQ(Child->Heard.back().second, opRemove);
}

TEST(Collections, AddCreatesItemsOfTheItemClassAndOwnsThem) {
  {
    TCollection Col(TItem::StaticClass());
    auto* A = static_cast<TItem*>(Col.Add());
    auto* B = static_cast<TItem*>(Col.Add());
    EXPECT_EQ(A->ClassType(), TItem::StaticClass());
    EXPECT_EQ(A->Collection(), &Col);
    EXPECT_EQ(Col.Count(), 2);
    EXPECT_EQ(B->Index(), 1);
    EXPECT_EQ(Col.FindItemID(B->ID()), B);
    EXPECT_EQ(TItem::Live, 2);
    delete A;  // an item freed on its own leaves the collection
    EXPECT_EQ(Col.Count(), 1);
    EXPECT_EQ(Col.Items(0), B);
    Col.Add();
    Col.Add();
    Col.Delete(0);
    EXPECT_EQ(TItem::Live, 2);
    B = static_cast<TItem*>(Col.Items(0));
    B->SetIndex(1);
    EXPECT_EQ(Col.Items(1), B);
    EXPECT_EQ(ErrorOf([&] { Col.Items(2); }), "EListError: List index out of bounds (2)");
  }
  EXPECT_EQ(TItem::Live, 0);  // the collection freed the rest
}

TEST(Collections, AssignCopiesItemsAndMovingBetweenCollections) {
  TCollection Src(TItem::StaticClass()), Dst(TItem::StaticClass());
  for (int I = 0; I < 3; ++I) static_cast<TItem*>(Src.Add())->Value = I * 10;
  Dst.Add();
  Dst.Assign(&Src);
  ASSERT_EQ(Dst.Count(), 3);
  EXPECT_EQ(static_cast<TItem*>(Dst.Items(2))->Value, 20);
  TCollectionItem* Moved = Src.Items(0);
  Moved->SetCollection(&Dst);
  EXPECT_EQ(Src.Count(), 2);
  EXPECT_EQ(Dst.Count(), 4);
  EXPECT_EQ(Dst.Items(3), Moved);
  Dst.Clear();
  EXPECT_EQ(Dst.Count(), 0);
  EXPECT_EQ(TItem::Live, 2);
}

TEST(Persistent, AssignErrorsNameBothClasses) {
  TPersistent A;
  TCollection B;
  EXPECT_EQ(ErrorOf([&] { A.Assign(&B); }),
            "EConvertError: Cannot assign a TCollection to a TPersistent");
  EXPECT_EQ(ErrorOf([&] { A.Assign(nullptr); }),
            "EConvertError: Cannot assign a nil to a TPersistent");
}

TEST(ComponentLists, ForgetComponentsFreedElsewhereAndFreeTheRest) {
  Counter C;
  {
    TComponentList Owning;  // owns its components
    auto* A = new TCounted(nullptr, &C);
    auto* B = new TCounted(nullptr, &C);
    auto* D = new TCounted(nullptr, &C);
    Owning.Add(A);
    Owning.Add(B);
    Owning.Add(D);
    delete B;  // freed elsewhere: the list drops it instead of keeping a dangling pointer
    ASSERT_EQ(Owning.Count(), 2);
    EXPECT_EQ(Owning.Items(0), A);
    EXPECT_EQ(Owning.Items(1), D);
    EXPECT_EQ(Owning.Extract(D), D);  // handed back, not freed
    EXPECT_EQ(C.Live, 2);
    delete D;
    EXPECT_EQ(Owning.Count(), 1);
  }
  EXPECT_EQ(C.Live, 0);  // the owning list freed A exactly once

  auto* Kept = new TCounted(nullptr, &C);
  {
    TComponentList Borrowing(false);
    Borrowing.Add(Kept);
  }
  EXPECT_EQ(C.Live, 1);  // a list that does not own never frees
  delete Kept;           // and the list no longer watches it
  EXPECT_EQ(C.Live, 0);
  EXPECT_TRUE(TComponentList::StaticClass()->InheritsFrom(TObjectList::StaticClass()));
}
