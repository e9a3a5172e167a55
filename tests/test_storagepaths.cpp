// The path operations of OleStorage: splitting rules, creation and deletion
// along paths, stream copies, string lists in streams, the list-index
// failures and the structure display.
#include <algorithm>
#include <memory>

#include "storage_test_util.h"
#include "vel/rtl/Filer.h"
#include "vel/rtl/SysUtils.h"
#include "vel/rtl/TypInfo.h"

using namespace vel;
using namespace storage_test;

namespace {

class StoragePaths : public ScratchDir {
 protected:
  void SetUp() override {
    ScratchDir::SetUp();
    Root = std::make_unique<TOleRootStorage>(Path("paths.stg"), 0x1012);
  }
  void TearDown() override {
    Root.reset();
    ScratchDir::TearDown();
  }

  // "depth:name" per element, depth first, in the engine's order of names
  // (shorter first).
  TNames Tree() {
    TNames R;
    Root->ForEach([&](TObject*, const TElementInfo& I,
                      bool&) { R.push_back(std::to_string(I.Depth) + ":" + I.Name); },
                  true);
    return R;
  }

  void Write(const std::string& Path, const std::string& Bytes) {
    TStringStream S(Bytes);
    WriteStreamByPath(Root.get(), Path, &S);
  }
  std::string Read(const std::string& Path) {
    std::unique_ptr<TStream> S(ReadStreamByPath(Root.get(), Path, false));
    TStringStream R;
    R.CopyFrom(S.get(), 0);
    return R.DataString();
  }

  std::unique_ptr<TOleRootStorage> Root;
};

}  // namespace

TEST(TokenParse, SplitsAtEverySeparatorAndDropsATrailingEmptyPart) {
  const std::pair<const char*, TNames> Cases[] = {{"a\\b\\c", {"a", "b", "c"}},
                                                  {"a\\\\b", {"a", "", "b"}},
                                                  {"a\\b\\", {"a", "b"}},
                                                  {"\\a", {"", "a"}},
                                                  {"\\", {""}},
                                                  {"", {}},
                                                  {"a b\\c,d", {"a b", "c,d"}}};
  for (const auto& [Text, Items] : Cases) {
    TStringList L;
    TokenParseToStrings(Text, '\\', &L);
    EXPECT_EQ(Lines(L), Items) << Text;
  }
  TStringList L;
  L.Add("kept");
  TokenParseToStrings("x;y", ';', &L);
  EXPECT_EQ(Lines(L), (TNames{"kept", "x", "y"}));
  TokenParseToStrings("x;y", ';', nullptr);
}

TEST(StringsDummy, StreamsAsTheComponentRuntimeWritesIt) {
  TStringsDummy D;
  TStringList Src;
  Src.Add("alpha");
  Src.Add("");
  D.SetStrings(&Src);
  TStringStream M;
  WriteComponent(&M, &D);
  const char Expected[] =
      "TPF0\x0DTStringsDummy\x00\x0FStrings.Strings\x01\x06\x05"
      "alpha\x06\x00\x00\x00\x00";
  EXPECT_EQ(M.DataString(), std::string(Expected, sizeof Expected - 1));
}

TEST_F(StoragePaths, AddDeleteAndSplitting) {
  AddPath(Root.get(), "Clients\\1234");
  AddPath(Root.get(), "Clients\\1234");  // changes nothing
  AddPath(Root.get(), "a\\b c\\d");      // blanks separate: four levels
  AddPath(Root.get(), "q\\\"r s\"\\t");  // quoted: one level, cleaned to rs
  EXPECT_EQ(Tree(),
            (TNames{"1:a", "2:b", "3:c", "4:d", "1:q", "2:rs", "3:t", "1:Clients", "2:1234"}));
  Write("Clients\\1234\\Notes", "abc");
  EXPECT_TRUE(DeletePath(Root.get(), "Clients\\1234"));
  EXPECT_FALSE(DeletePath(Root.get(), "Clients\\Absent"));
  EXPECT_TRUE(DeletePath(Root.get(), "a"));
  EXPECT_TRUE(DeletePath(Root.get(), "q"));
  EXPECT_EQ(ErrorOf([&] { DeletePath(Root.get(), "Nowhere\\X"); }),
            "EOleStorageError: Open Storage Nowhere Failed");
  EXPECT_EQ(ErrorOf([&] { DeletePath(Root.get(), ""); }),
            "EStringListError: List index out of bounds (-1)");
  EXPECT_EQ(Tree(), (TNames{"1:Clients"}));
}

TEST_F(StoragePaths, WalksStopDescendingAtTheDepthLimit) {
  std::string Deep = "L";
  for (int I = 1; I < MaxStorageDepth + 8; ++I) Deep += "\\L";
  AddPath(Root.get(), Deep);
  int Deepest = 0, Count = 0;
  Root->ForEach(
      [&](TObject*, const TElementInfo& I, bool&) {
        Deepest = std::max(Deepest, I.Depth);
        ++Count;
      },
      true);
  EXPECT_EQ(Deepest, MaxStorageDepth);
  EXPECT_EQ(Count, MaxStorageDepth);
}

TEST_F(StoragePaths, ContentsListsStreamsOnly) {
  TStringList L;
  L.Add("old");
  ContentsByPath(Root.get(), "Clients\\1234", &L);  // made when missing
  EXPECT_EQ(L.Count(), 0);
  Write("Clients\\1234\\Notes", "x");
  Write("Clients\\1234\\Accounts", "x");
  AddPath(Root.get(), "Clients\\1234\\Sub");
  ContentsByPath(Root.get(), "Clients\\1234", &L);
  TNames Got = Lines(L);
  std::sort(Got.begin(), Got.end());
  EXPECT_EQ(Got, (TNames{"Accounts", "Notes"}));
  ContentsByPath(Root.get(), "", &L);
  EXPECT_EQ(L.Count(), 0);
}

TEST_F(StoragePaths, StreamCopies) {
  Write("Data\\Blob", "abcdef");
  Write("Data\\Blob", "XY");  // no truncation: the old tail stays
  EXPECT_EQ(Read("Data\\Blob"), "XYcdef");
  TStringStream Mid("123456");
  Mid.SetPosition(3);  // Size bytes from the position: too few
  EXPECT_EQ(ErrorOf([&] { WriteStreamByPath(Root.get(), "Data\\Other", &Mid); }),
            "EReadError: Stream read error");
  Write("AtRoot", "12345");
  EXPECT_EQ(Read("AtRoot"), "12345");
  TStringStream Target("keep");
  Target.Seek(0, soEnd);
  delete std::unique_ptr<TOleStorage>(Root->OpenOleStorage("Data", 0x12, false))
      ->OpenOleStream("Empty", 0x12, true);
  LoadStreamByPath(Root.get(), "Data\\Empty", &Target);
  LoadStreamByPath(Root.get(), "AtRoot", &Target);
  EXPECT_EQ(Target.DataString(), "keep12345");
  EXPECT_EQ(ErrorOf([&] { LoadStreamByPath(Root.get(), "Data\\Gone", &Target); }),
            "EOleStorageError: Open Stream Gone Failed");
  EXPECT_EQ(ErrorOf([&] { delete ReadStreamByPath(Root.get(), "Nope\\X", false); }),
            "EOleStorageError: Open Storage Nope Failed");
  std::unique_ptr<TStream> R(ReadStreamByPath(Root.get(), "AtRoot", false));
  EXPECT_THROW(R->WriteBuffer("z", 1), Exception);  // opened for reading
}

TEST_F(StoragePaths, InterfacePathsKeepTheirStoragesOpen) {
  IPtr<IStorage> S;
  IPtr<IStream> T;
  EXPECT_EQ(ErrorOf([&] { StreamByPath(Root->Storage(), "Notes", 0x12, T, true); }),
            "EListError: List index out of bounds (-1)");
  EXPECT_EQ(ErrorOf([&] { StorageByPath(Root->Storage(), "A\\B", 0x12, S, false); }),
            "EOleStorageError: Open Storage A Failed");
  StreamByPath(Root->Storage(), "A\\B\\Notes", 0x12, T, true);
  ASSERT_TRUE(T);
  T = nullptr;
  // A and B stay open until the next path call.
  IPtr<IStorage> Direct;
  EXPECT_EQ(ErrorOf([&] { Root->OpenStorage("A", 0x12, Direct, false); }),
            "EOleStorageError: Open Storage A Failed");
  // An empty path clears the list before it fails, which lets them go.
  EXPECT_EQ(ErrorOf([&] { StorageByPath(Root->Storage(), "", 0x12, S, true); }),
            "EListError: List index out of bounds (-1)");
  StreamByName(Root->Storage(), "RootStream", 0x12, T, true);
  T = nullptr;
  EXPECT_EQ(Tree(), (TNames{"1:A", "2:B", "3:Notes", "1:RootStream"}));
}

TEST_F(StoragePaths, StringListsAndComponents) {
  TStringList Out;
  Out.Add("first line");
  Out.Add("second, with \"quotes\"");
  Out.Add("");
  WriteStringsToStream(Root.get(), "Lists\\Names", &Out);
  TStringList In;
  In.Add("replaced");
  ReadStringsFromStream(Root.get(), "Lists\\Names", &In, false);
  EXPECT_EQ(Lines(In), Lines(Out));
  ReadStringsFromStream(Root.get(), "Lists\\Fresh", &In, true);  // empty: left alone
  EXPECT_EQ(Lines(In), Lines(Out));
  EXPECT_EQ(Read("Lists\\Names").substr(0, 18), "TPF0\x0DTStringsDummy");
  TStringsDummy D, Back;
  D.SetStrings(&Out);
  WriteComponentToStream(Root->Storage(), "Direct", &D);
  ReadComponentFromStream(Root->Storage(), "Direct", &Back, false);
  EXPECT_EQ(Lines(*Back.Strings()), Lines(Out));
  EXPECT_EQ(ErrorOf([&] { ReadComponentFromStream(Root->Storage(), "None", &Back, false); }),
            "EOleStorageError: Open Stream None Failed");
}

namespace {

class TRecordingDisplay : public TInterfacedObject, public IDisplayStorageTree {
  VEL_CLASS(TRecordingDisplay, TInterfacedObject)
  VEL_INTERFACES(IDisplayStorageTree)
 public:
  void BeginDisplay(const std::string& RootName) override { Calls.push_back("begin " + RootName); }
  void DisplayElement(const TElementInfo& Info) override {
    Calls.push_back(std::to_string(Info.Depth) + ":" + Info.Name);
  }
  void EndDisplay() override { Calls.push_back("end"); }
  TNames Calls;
};

}  // namespace

VEL_IMPLEMENT(TRecordingDisplay)

TEST_F(StoragePaths, DisplayFileStructure) {
  Write("Only\\Child\\Leaf", "");
  IPtr<TRecordingDisplay> D(new TRecordingDisplay);
  DisplayFileStructure(Root.get(), D.get());
  const TNames Expected{"begin " + Dir + "/paths.stg", "1:Only", "2:Child", "3:Leaf", "end"};
  EXPECT_EQ(D->Calls, Expected);
  const std::string Plain = Dir + "/plain.txt";
  TFileStream(Plain, fmCreate).WriteBuffer("not a compound file, just some text", 35);
  EXPECT_EQ(ErrorOf([&] { DisplayFileStructure(Plain, D.get()); }),
            "EOleStorageError: " + Plain + " is not a structured storage file.");
  Root.reset();
  D->Calls.clear();
  DisplayFileStructure(Dir + "/paths.stg", D.get());
  EXPECT_EQ(D->Calls, Expected);
}
