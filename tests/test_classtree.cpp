// The class tree streamer: one line per nested object, by class name
// without its prefix letter, a tab deeper per level; nothing else.
#include <gtest/gtest.h>

#include "vel/StreamClasses.h"

using namespace vel;

namespace ctree {

class TAddress : public TPersistent {
  VEL_CLASS(TAddress, TPersistent)
 public:
  std::string Street = "High St";
};

class TPerson : public TPersistent {
  VEL_CLASS(TPerson, TPersistent)
 public:
  ~TPerson() override { delete Address; }
  std::string FullName = "Ann";
  int32_t Age = 40;
  TAddress* Address = new TAddress;
};

class TLot : public TCollectionItem {
  VEL_CLASS(TLot, TCollectionItem)
 public:
  explicit TLot(TCollection* C = nullptr) : TCollectionItem(C) {}
  ~TLot() override { delete Where; }
  int32_t Units = 5;
  TAddress* Where = new TAddress;
};

class TTreeRoot : public TComponent {
  VEL_CLASS(TTreeRoot, TComponent)
 public:
  explicit TTreeRoot(TComponent* AOwner = nullptr) : TComponent(AOwner) {}
  ~TTreeRoot() override {
    delete Client;
    delete Lots;
  }
  std::string Title = "Root";
  int32_t Count = 3;
  double Ratio = 0.5;
  TPerson* Client = new TPerson;
  TCollection* Lots = new TCollection(TLot::StaticClass());
  TPerson* Nobody = nullptr;
};

}  // namespace ctree

using namespace ctree;

VEL_PUBLISHED(TAddress, prop("Street", &TAddress::Street))
VEL_PUBLISHED(TPerson, prop("FullName", &TPerson::FullName), prop("Age", &TPerson::Age),
              prop("Address", &TPerson::Address))
VEL_PUBLISHED(TLot, prop("Units", &TLot::Units), prop("Where", &TLot::Where))
VEL_PUBLISHED(TTreeRoot, prop("Title", &TTreeRoot::Title), prop("Count", &TTreeRoot::Count),
              prop("Ratio", &TTreeRoot::Ratio), prop("Client", &TTreeRoot::Client),
              prop("Lots", &TTreeRoot::Lots), prop("Nobody", &TTreeRoot::Nobody))

namespace {

template <class F>
std::string Tree(TObject* Obj, F&& Setup) {
  TMemoryStream S;
  TClassTreeStreamer T(&S);
  Setup(T);
  T.SaveToStream(Obj);
  return std::string(static_cast<const char*>(S.Memory()), static_cast<size_t>(S.GetSize()));
}
std::string Tree(TObject* Obj) {
  return Tree(Obj, [](TClassTreeStreamer&) {});
}

}  // namespace

TEST(ClassTreeStreamer, ThreeLevelGraph) {
  TTreeRoot Root;
  Root.SetName("Main");  // names never appear: only classes do
  Root.Lots->Add();
  Root.Lots->Add();
  // Root, its person, the person's address; the collection, each lot two
  // levels below it (the item level indents without a line of its own)
  // and each lot's address. Values of other kinds and the null object
  // leave no trace.
  EXPECT_EQ(Tree(&Root),
            "TreeRoot"
            "\r\tPerson"
            "\r\t\tAddress"
            "\r\tCollection"
            "\r\t\t\tLot"
            "\r\t\t\t\tAddress"
            "\r\t\t\tLot"
            "\r\t\t\t\tAddress");
}

TEST(ClassTreeStreamer, PrefixSettings) {
  TPerson P;
  EXPECT_EQ(Tree(&P), "Person\r\tAddress");
  EXPECT_EQ(Tree(&P, [](TClassTreeStreamer& T) { T.SetStripPrefix(false); }),
            "TPerson\r\tTAddress");
  EXPECT_EQ(Tree(&P, [](TClassTreeStreamer& T) { T.SetPrefixLength(3); }), "rson\r\tdress");
  // A prefix as long as the name leaves nothing to write, not a failure;
  // while the stream is still empty a line gets no break and no indent.
  EXPECT_EQ(Tree(&P, [](TClassTreeStreamer& T) { T.SetPrefixLength(8); }), "");
  EXPECT_EQ(Tree(&P, [](TClassTreeStreamer& T) { T.SetPrefixLength(7); }), "s");
  // The inherited switches still apply.
  EXPECT_EQ(Tree(&P,
                 [](TClassTreeStreamer& T) {
                   T.SetIndentChar(' ');
                   T.SetIndentSize(3);
                   T.SetWantBlocks(true);
                 }),
            "Person\r   Address\r   end\rend >");
  // Other kinds come back when asked for.
  EXPECT_EQ(Tree(&P, [](TClassTreeStreamer& T) { T.SetTypeKinds(DefaultStreamTypeKinds); }),
            "Person\r\tAddress\r\t\tStreet = 'High St'\r\tAge = '40'\r\tFullName = 'Ann'");
}
