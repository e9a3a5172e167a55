// The path operations of OleStorage: splitting rules, creation and deletion
// along paths, stream copies, components and string lists in streams, the
// list-index failures and the structure display.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "vel/OleStorage.h"
#include "vel/rtl/Filer.h"
#include "vel/rtl/SysUtils.h"
#include "vel/rtl/TypInfo.h"

using namespace vel;

namespace {

class StoragePaths : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* Base = std::getenv("VEL_TEST_TMPDIR");
    std::string Tmpl = std::string(Base && *Base ? Base : "/tmp") + "/vel_paths_XXXXXX";
    std::filesystem::create_directories(std::filesystem::path(Tmpl).parent_path());
    ASSERT_NE(::mkdtemp(Tmpl.data()), nullptr);
    Dir = Tmpl;
    Root = std::make_unique<TOleRootStorage>(Dir + "/paths.stg", 0x1012);
  }
  void TearDown() override {
    Root.reset();
    std::error_code Ec;
    std::filesystem::remove_all(Dir, Ec);
  }

  // "depth:name" for every element, depth first, each level sorted by name
  // (the engine's own order is the format's, not the test's concern).
  std::vector<std::string> Tree(IStorage* S = nullptr, int Depth = 1) {
    if (!S) S = Root->Storage();
    std::vector<std::pair<std::string, bool>> Level;
    TOleStorage W(S);
    W.ForEach([&](TObject*, const TElementInfo& I,
                  bool&) { Level.emplace_back(I.Name, I.ElementType == STGTY_STORAGE); },
              false);
    std::sort(Level.begin(), Level.end());
    std::vector<std::string> R;
    for (const auto& [Name, IsStorage] : Level) {
      R.push_back(std::to_string(Depth) + ":" + Name);
      if (IsStorage) {
        IPtr<IStorage> Sub;
        W.OpenStorage(Name, 0x12, Sub, false);
        for (std::string& E : Tree(Sub, Depth + 1)) R.push_back(std::move(E));
      }
    }
    return R;
  }

  std::string StreamText(const std::string& Path) {
    std::unique_ptr<TStream> S(ReadStreamByPath(Root.get(), Path, false));
    std::string R(static_cast<size_t>(S->GetSize()), '\0');
    S->ReadBuffer(R.data(), static_cast<int64_t>(R.size()));
    return R;
  }

  std::string Dir;
  std::unique_ptr<TOleRootStorage> Root;
};

std::string ExceptionText(const std::function<void()>& F) {
  try {
    F();
  } catch (const Exception& E) {
    return std::string(E.ClassName()) + ": " + E.Message();
  }
  return "<no exception>";
}

std::vector<std::string> Lines(const TStrings& L) {
  std::vector<std::string> R;
  for (int I = 0; I < L.Count(); ++I) R.push_back(L[I]);
  return R;
}

}  // namespace

TEST(TokenParse, SplitsAtEverySeparatorAndDropsATrailingEmptyPart) {
  struct {
    const char* Text;
    std::vector<std::string> Items;
  } Cases[] = {
      {"a\\b\\c", {"a", "b", "c"}},  {"a\\\\b", {"a", "", "b"}}, {"a\\b\\", {"a", "b"}},
      {"\\a", {"", "a"}},            {"\\", {""}},               {"", {}},
      {"a b\\c,d", {"a b", "c,d"}},  {"\\\\", {"", ""}},
  };
  for (const auto& C : Cases) {
    TStringList L;
    TokenParseToStrings(C.Text, '\\', &L);
    EXPECT_EQ(Lines(L), C.Items) << C.Text;
  }
  // The list is added to, not cleared; another separator works alike; a
  // null list is left alone.
  TStringList L;
  L.Add("kept");
  TokenParseToStrings("x;y", ';', &L);
  EXPECT_EQ(Lines(L), (std::vector<std::string>{"kept", "x", "y"}));
  TokenParseToStrings("x;y", ';', nullptr);
}

TEST(StringsDummy, StreamsAsTheComponentRuntimeWritesIt) {
  TStringsDummy D;
  TStringList Src;
  Src.Add("alpha");
  Src.Add("");
  D.SetStrings(&Src);
  Src.Add("not copied");
  TMemoryStream M;
  WriteComponent(&M, &D);
  const std::string Expected = std::string("TPF0") + "\x0DTStringsDummy" + '\x00' +
                               "\x0FStrings.Strings" + '\x01' + '\x06' + "\x05" "alpha" + '\x06' +
                               '\x00' + '\x00' + '\x00' + '\x00';
  ASSERT_EQ(M.GetSize(), static_cast<int64_t>(Expected.size()));
  EXPECT_EQ(std::string(static_cast<const char*>(M.Memory()), Expected.size()), Expected);
  TStringsDummy Back;
  M.SetPosition(0);
  ReadComponent(&M, &Back);
  EXPECT_EQ(Lines(*Back.Strings()), (std::vector<std::string>{"alpha", ""}));
}

TEST_F(StoragePaths, AddPathCreatesEachLevelOnce) {
  AddPath(Root.get(), "Clients\\1234");
  EXPECT_EQ(Tree(), (std::vector<std::string>{"1:Clients", "2:1234"}));
  AddPath(Root.get(), "Clients\\1234");
  AddPath(Root.get(), "Clients\\5678");
  EXPECT_EQ(Tree(), (std::vector<std::string>{"1:Clients", "2:1234", "2:5678"}));
}

TEST_F(StoragePaths, CommaTextSplitting) {
  // Blanks separate levels unless quoted; quoted items keep their text and
  // lose the blank only when the name is cleaned.
  AddPath(Root.get(), "a\\b c\\d");
  AddPath(Root.get(), "q\\\"r s\"\\t");
  EXPECT_EQ(Tree(), (std::vector<std::string>{"1:a", "2:b", "3:c", "4:d", "1:q", "2:rs", "3:t"}));
  IPtr<IStorage> S;
  StorageByPath(Root->Storage(), "a b\\c", 0x12, S, false);
  STATSTG St;
  ASSERT_EQ(S->Stat(&St, STATFLAG_DEFAULT), S_OK);
  EXPECT_EQ(St.pwcsName, u"c");
}

TEST_F(StoragePaths, ContentsListsStreamsOnlyAndCreatesTheStorage) {
  TStringList L;
  L.Add("old");
  ContentsByPath(Root.get(), "Clients\\1234", &L);
  EXPECT_EQ(L.Count(), 0);
  EXPECT_EQ(Tree(), (std::vector<std::string>{"1:Clients", "2:1234"}));
  TMemoryStream M;
  M.WriteBuffer("x", 1);
  for (const char* P : {"Clients\\1234\\Notes", "Clients\\1234\\Accounts"}) {
    M.SetPosition(0);
    WriteStreamByPath(Root.get(), P, &M);
  }
  AddPath(Root.get(), "Clients\\1234\\Sub");
  ContentsByPath(Root.get(), "Clients\\1234", &L);
  std::vector<std::string> Got = Lines(L);
  std::sort(Got.begin(), Got.end());
  EXPECT_EQ(Got, (std::vector<std::string>{"Accounts", "Notes"}));
  // An empty path lists nothing and creates nothing.
  L.Add("old");
  ContentsByPath(Root.get(), "", &L);
  EXPECT_EQ(L.Count(), 0);
}

TEST_F(StoragePaths, DeletePathRemovesTheLastElementOnly) {
  AddPath(Root.get(), "Clients\\1234\\Deep");
  TMemoryStream M;
  M.WriteBuffer("abc", 3);
  M.SetPosition(0);
  WriteStreamByPath(Root.get(), "Clients\\1234\\Notes", &M);
  M.SetPosition(0);
  WriteStreamByPath(Root.get(), "Clients\\Top", &M);
  EXPECT_TRUE(DeletePath(Root.get(), "Clients\\1234"));
  EXPECT_EQ(Tree(), (std::vector<std::string>{"1:Clients", "2:Top"}));
  EXPECT_TRUE(DeletePath(Root.get(), "Clients\\Top"));
  EXPECT_FALSE(DeletePath(Root.get(), "Clients\\Absent"));
  EXPECT_EQ(ExceptionText([&] { DeletePath(Root.get(), "Nowhere\\X"); }),
            "EOleStorageError: Open Storage Nowhere Failed");
  EXPECT_EQ(Tree(), (std::vector<std::string>{"1:Clients"}));
}

TEST_F(StoragePaths, WriteStreamKeepsTheOldTailAndNeedsTheWholeSource) {
  TMemoryStream M;
  M.WriteBuffer("abcdef", 6);
  M.SetPosition(0);
  WriteStreamByPath(Root.get(), "Data\\Blob", &M);
  EXPECT_EQ(StreamText("Data\\Blob"), "abcdef");
  TMemoryStream Short;
  Short.WriteBuffer("XY", 2);
  Short.SetPosition(0);
  WriteStreamByPath(Root.get(), "Data\\Blob", &Short);
  EXPECT_EQ(StreamText("Data\\Blob"), "XYcdef");
  // The source's full size is copied from its position: from the middle
  // there are too few bytes.
  M.SetPosition(3);
  EXPECT_EQ(ExceptionText([&] { WriteStreamByPath(Root.get(), "Data\\Other", &M); }),
            "EReadError: Stream read error");
}

TEST_F(StoragePaths, LoadAndReadStreams) {
  TMemoryStream Target;
  Target.WriteBuffer("keep", 4);
  AddPath(Root.get(), "Data");
  {
    // An empty element stream leaves the target as it was.
    std::unique_ptr<TOleStorage> Data(Root->OpenOleStorage("Data", 0x12, false));
    std::unique_ptr<TStream> Empty(Data->OpenOleStream("Empty", 0x12, true));
  }
  LoadStreamByPath(Root.get(), "Data\\Empty", &Target);
  EXPECT_EQ(Target.GetSize(), 4);
  TMemoryStream Src;
  Src.WriteBuffer("12345", 5);
  Src.SetPosition(0);
  WriteStreamByPath(Root.get(), "Data\\Full", &Src);
  LoadStreamByPath(Root.get(), "Data\\Full", &Target);
  EXPECT_EQ(std::string(static_cast<const char*>(Target.Memory()), 9), "keep12345");
  // Without the create flag missing elements fail with their own name.
  EXPECT_EQ(ExceptionText([&] { LoadStreamByPath(Root.get(), "Data\\Gone", &Target); }),
            "EOleStorageError: Open Stream Gone Failed");
  EXPECT_EQ(ExceptionText([&] { LoadStreamByPath(Root.get(), "Nope\\Full", &Target); }),
            "EOleStorageError: Open Storage Nope Failed");
  EXPECT_EQ(ExceptionText([&] { delete ReadStreamByPath(Root.get(), "Data\\Gone", false); }),
            "EOleStorageError: Open Stream Gone Failed");
  // A stream at the root is reached by the token functions.
  Src.SetPosition(0);
  WriteStreamByPath(Root.get(), "AtRoot", &Src);
  EXPECT_EQ(StreamText("AtRoot"), "12345");
  // The stream returned for reading is read-only.
  std::unique_ptr<TStream> R(ReadStreamByPath(Root.get(), "Data\\Full", false));
  EXPECT_THROW(R->WriteBuffer("z", 1), Exception);
}

TEST_F(StoragePaths, InterfacePathsAndTheirListIndexErrors) {
  IPtr<IStorage> S;
  IPtr<IStream> T;
  EXPECT_EQ(ExceptionText([&] { StorageByPath(Root->Storage(), "", 0x12, S, true); }),
            "EListError: List index out of bounds (-1)");
  EXPECT_EQ(ExceptionText([&] { StreamByPath(Root->Storage(), "Notes", 0x12, T, true); }),
            "EListError: List index out of bounds (-1)");
  EXPECT_EQ(ExceptionText([&] { StorageByPath(Root->Storage(), "A\\B", 0x12, S, false); }),
            "EOleStorageError: Open Storage A Failed");
  StorageByPath(Root->Storage(), "A\\B", 0x12, S, true);
  ASSERT_TRUE(S);
  S = nullptr;
  StreamByPath(Root->Storage(), "A\\B\\Notes", 0x12, T, true);
  uint32_t N = 0;
  ASSERT_EQ(T->Write("note", 4, &N), S_OK);
  T = nullptr;
  // The storages of the last call stay open until the next call: opening
  // A again directly is refused while they are held.
  IPtr<IStorage> Direct;
  EXPECT_NE(ExceptionText([&] { Root->OpenStorage("A", 0x12, Direct, false); }),
            "<no exception>");
  StreamByName(Root->Storage(), "RootStream", 0x12, T, true);
  ASSERT_TRUE(T);
  T = nullptr;
  // An empty path clears the list before it fails, which lets A go.
  EXPECT_THROW(StorageByPath(Root->Storage(), "", 0x12, S, false), EListError);
  Root->OpenStorage("A", 0x12, Direct, false);
  EXPECT_TRUE(Direct);
  Direct = nullptr;
  EXPECT_EQ(Tree(), (std::vector<std::string>{"1:A", "2:B", "3:Notes", "1:RootStream"}));
  // Root-wrapper paths with nothing in them hit the string list's index
  // error the same way.
  EXPECT_EQ(ExceptionText([&] { DeletePath(Root.get(), ""); }),
            "EStringListError: List index out of bounds (-1)");
}

TEST_F(StoragePaths, StringsAndComponentsRoundTrip) {
  TStringList Out;
  Out.Add("first line");
  Out.Add("second, with \"quotes\"");
  Out.Add("");
  WriteStringsToStream(Root.get(), "Lists\\Names", &Out);
  TStringList In;
  In.Add("replaced");
  ReadStringsFromStream(Root.get(), "Lists\\Names", &In, false);
  EXPECT_EQ(Lines(In), Lines(Out));
  // Reading an empty (just created) stream leaves the list alone.
  ReadStringsFromStream(Root.get(), "Lists\\Fresh", &In, true);
  EXPECT_EQ(Lines(In), Lines(Out));
  // The stream holds the component stream of a TStringsDummy.
  EXPECT_EQ(StreamText("Lists\\Names").substr(0, 18), std::string("TPF0\x0DTStringsDummy", 18));
  // The interface forms work on direct children.
  TStringsDummy D;
  D.SetStrings(&Out);
  WriteComponentToStream(Root->Storage(), "Direct", &D);
  TStringsDummy Back;
  ReadComponentFromStream(Root->Storage(), "Direct", &Back, false);
  EXPECT_EQ(Lines(*Back.Strings()), Lines(Out));
  EXPECT_EQ(ExceptionText([&] { ReadComponentFromStream(Root->Storage(), "None", &Back, false); }),
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
  std::vector<std::string> Calls;
};

}  // namespace

VEL_IMPLEMENT(TRecordingDisplay)

TEST_F(StoragePaths, DisplayFileStructureWalksDepthFirst) {
  AddPath(Root.get(), "Only\\Child");
  TMemoryStream M;
  WriteStreamByPath(Root.get(), "Only\\Child\\Leaf", &M);
  IPtr<TRecordingDisplay> D(new TRecordingDisplay);
  DisplayFileStructure(Root.get(), D.get());
  // The root's name is its file name.
  EXPECT_EQ(D->Calls, (std::vector<std::string>{"begin " + Dir + "/paths.stg", "1:Only", "2:Child",
                                                "3:Leaf", "end"}));
  // From a file name: the file must be a compound file.
  const std::string Plain = Dir + "/plain.txt";
  {
    TFileStream F(Plain, fmCreate);
    F.WriteBuffer("not a compound file, just text....", 34);
  }
  EXPECT_EQ(ExceptionText([&] { DisplayFileStructure(Plain, D.get()); }),
            "EOleStorageError: " + Plain + " is not a structured storage file.");
  Root.reset();
  D->Calls.clear();
  DisplayFileStructure(Dir + "/paths.stg", D.get());
  EXPECT_EQ(D->Calls.size(), 5u);
}
