// The compound-file wrappers: name cleaning and shortening, flags, element
// records and times, opening and creating elements with their messages, the
// walk and Contains, the root's Open, New and Save with compaction.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "vel/OleStorage.h"
#include "vel/rtl/SysUtils.h"

using namespace vel;

namespace {

// A scratch directory under $VEL_TEST_TMPDIR, removed afterwards.
class OleFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* Base = std::getenv("VEL_TEST_TMPDIR");
    std::string Tmpl = std::string(Base && *Base ? Base : "/tmp") + "/vel_ole_XXXXXX";
    std::filesystem::create_directories(std::filesystem::path(Tmpl).parent_path());
    ASSERT_NE(::mkdtemp(Tmpl.data()), nullptr);
    Dir = Tmpl;
  }
  void TearDown() override {
    std::error_code Ec;
    std::filesystem::remove_all(Dir, Ec);
  }
  std::string Path(const std::string& Name) const { return Dir + "/" + Name; }

  // A new file holding Clients\1234 (stream Notes "hello"), a stream
  // \x05SummaryInformation and a stream Top at the root.
  std::unique_ptr<TOleRootStorage> MakeSample(const std::string& Name) {
    auto Root = std::make_unique<TOleRootStorage>(Path(Name), 0x1012);
    {
      IPtr<IStorage> Clients, Client;
      Root->CreateStorage("Clients", 0x1012, Clients);
      TOleStorage C(Clients);
      C.CreateStorage("1234", 0x1012, Client);
      IPtr<IStream> Notes;
      TOleStorage(Client).CreateStream("Notes", 0x1012, Notes);
      uint32_t N = 0;
      EXPECT_EQ(Notes->Write("hello", 5, &N), S_OK);
    }
    IPtr<IStream> S;
    IStream* P = nullptr;
    const std::u16string Summary = u"\x05SummaryInformation";
    EXPECT_EQ(Root->Storage()->CreateStream(Summary.c_str(), 0x1012, 0, 0, &P), S_OK);
    S = IPtr<IStream>::Attach(P);
    S = nullptr;
    Root->CreateStream("Top", 0x1012, S);
    return Root;
  }

  std::string Dir;
};

std::string ExceptionMessage(const std::function<void()>& F) {
  try {
    F();
  } catch (const Exception& E) {
    return E.Message();
  }
  return "<no exception>";
}

// Sets TZ for the test's process (each case runs in its own process).
void SetTimeZone(const char* Tz) {
  ::setenv("TZ", Tz, 1);
  ::tzset();
}

FILETIME MakeFileTime(uint64_t Ticks) {
  FILETIME F;
  F.dwLowDateTime = static_cast<uint32_t>(Ticks);
  F.dwHighDateTime = static_cast<uint32_t>(Ticks >> 32);
  return F;
}

uint64_t Ticks(const FILETIME& F) {
  return (static_cast<uint64_t>(F.dwHighDateTime) << 32) | F.dwLowDateTime;
}

}  // namespace

// ---------------------------------------------------------------------------
// Names, flags, records: no file needed

TEST(OleStorageNames, CleaningDeletesEveryForbiddenCharacterAnywhere) {
  struct {
    const char* In;
    const char* Out;
  } Cases[] = {
      {"Client Data.2004/05", "ClientData200405"},
      {" !$%&*,-./:;=?@[\\]^{}~", ""},
      {"a b!c$d%e&f*g,h-i.j/k:l;m=n?o@p[q\\r]s^t{u}v~w", "abcdefghijklmnopqrstuvw"},
      // Kept: quotes, hash, parentheses, plus, underscore, digits, accents.
      {"#'\"()+_<>|`9\xE9", "#'\"()+_<>|`9\xE9"},
  };
  TCustomOleStorage S(nullptr);
  for (const auto& C : Cases) {
    EXPECT_EQ(CleanElementName(C.In), C.Out) << C.In;
    EXPECT_EQ(S.GetValidName(C.In), C.Out) << C.In;
  }
  // Nothing was shortened, so no list was made.
  EXPECT_EQ(S.GetLongNames()->Count(), 0);
}

TEST(OleStorageNames, LongNamesAreNumberedPerWrapper) {
  const std::string A40(40, 'a');
  const std::string B40 = std::string(39, 'b') + "!";  // cleaned to 39 characters
  TCustomOleStorage S(nullptr);
  // 30 characters (after cleaning) stay; 31 are shortened.
  EXPECT_EQ(S.GetValidName(std::string(30, 'x') + " "), std::string(30, 'x'));
  EXPECT_EQ(S.GetValidName(A40), std::string(29, 'a') + "0");
  EXPECT_EQ(S.GetValidName(A40), std::string(29, 'a') + "0");
  EXPECT_EQ(S.GetValidName(B40), std::string(29, 'b') + "1");
  EXPECT_EQ(S.GetValidName(std::string(31, 'c')), std::string(29, 'c') + "2");
  for (char C = 'd'; C <= 'j'; ++C) S.GetValidName(std::string(35, C));
  // The eleventh long name: two digits, so 28 characters.
  EXPECT_EQ(S.GetValidName(std::string(31, 'k')), std::string(28, 'k') + "10");
  TStringList* L = S.GetLongNames();
  ASSERT_EQ(L->Count(), 11);
  EXPECT_EQ((*L)[0], A40 + "=" + std::string(29, 'a') + "0");
  EXPECT_EQ((*L)[1], std::string(39, 'b') + "=" + std::string(29, 'b') + "1");
  // A fresh wrapper numbers from 0 again.
  TCustomOleStorage T(nullptr);
  EXPECT_EQ(T.GetValidName(B40), std::string(29, 'b') + "0");
}

TEST(OleStorageNames, IsFlagSetComparesTheLow16Bits) {
  struct {
    uint32_t Value, Flag;
    bool Set;
  } Cases[] = {
      {0x1012, 0x1000, true}, {0x0012, 0x1000, false}, {0x0012, 0x0012, true},
      {0x0002, 0x0012, false}, {0x0000, 0x0000, true},  {0x00000, 0x10000, true},
      {0x11000, 0x21000, true}, {0xFFFF, 0x8001, true}, {0x7FFF, 0x8001, false},
  };
  for (const auto& C : Cases)
    EXPECT_EQ(IsFlagSet(C.Value, C.Flag), C.Set) << std::hex << C.Value << " " << C.Flag;
}

TEST(OleStorageNames, TranslateStatStgNamesAndFields) {
  STATSTG S;
  S.pwcsName = u"\x05SummaryInformation";
  S.type = STGTY_STREAM;
  S.cbSize = 0x123456789ULL;
  S.grfMode = 0x12;
  S.grfLocksSupported = 2;
  S.clsid = TGUID::Parse("{00020906-0000-0000-C000-000000000046}");
  S.grfStateBits = 0xA5A5A5A5;
  TElementInfo I = TranslateStatStg(S);
  EXPECT_EQ(I.Name, "#5SummaryInformation");
  EXPECT_EQ(I.ElementType, STGTY_STREAM);
  EXPECT_EQ(I.Size, 0x123456789ULL);
  EXPECT_EQ(I.Mode, 0x12u);
  EXPECT_EQ(I.LocksSupported, 2u);
  EXPECT_EQ(GUIDToString(I.ClassID), "{00020906-0000-0000-C000-000000000046}");
  EXPECT_EQ(I.StateBits, 0xA5A5A5A5u);
  EXPECT_EQ(static_cast<double>(I.Modified), 0.0);  // unset times give 0

  const struct {
    std::u16string In;
    std::string Out;
  } Names[] = {{u"\x01" u"CompObj", "#1CompObj"},
               {u"\x1F", "#31"},
               {u" x", " x"},
               {u"Caf\u00e9\u20ac", "Caf\xE9\x80"},
               {u"", ""}};
  for (const auto& N : Names) {
    S.pwcsName = N.In;
    EXPECT_EQ(TranslateStatStg(S).Name, N.Out);
  }
}

TEST(OleStorageNames, FileTimesBecomeLocalDateTimes) {
  // 2004-05-06 07:08:09.5 UTC.
  const uint64_t T = 127283008895000000ULL;
  SetTimeZone("UTC0");
  const double Utc = static_cast<double>(FileTimeToLocalDateTime(MakeFileTime(T)));
  EXPECT_NEAR(Utc, static_cast<double>(EncodeDate(2004, 5, 6)) +
                       static_cast<double>(EncodeTime(7, 8, 9, 500)),
              1e-9);
  EXPECT_EQ(Ticks(LocalDateTimeToFileTime(TDateTime(Utc))), T);
  // Five hours west, no daylight saving: the local time is 02:08:09.5.
  SetTimeZone("EST5");
  const double East = static_cast<double>(FileTimeToLocalDateTime(MakeFileTime(T)));
  EXPECT_NEAR(East, Utc - 5.0 / 24, 1e-9);
  EXPECT_EQ(Ticks(LocalDateTimeToFileTime(TDateTime(East))), T);
  // With daylight saving in force on that date (Central Europe: +2 h).
  SetTimeZone("CET-1CEST,M3.5.0,M10.5.0/3");
  const double Cest = static_cast<double>(FileTimeToLocalDateTime(MakeFileTime(T)));
  EXPECT_NEAR(Cest, Utc + 2.0 / 24, 1e-9);
  EXPECT_EQ(Ticks(LocalDateTimeToFileTime(TDateTime(Cest))), T);
  EXPECT_EQ(Ticks(LocalDateTimeToFileTime(TDateTime(0))), 0u);
  // Any 64-bit value from a file converts; dates outside the file-time
  // range give 0.
  EXPECT_GT(static_cast<double>(FileTimeToLocalDateTime(MakeFileTime(~0ULL))), 2958465.0);
  EXPECT_EQ(Ticks(LocalDateTimeToFileTime(TDateTime(1e300))), 0u);
  EXPECT_EQ(Ticks(LocalDateTimeToFileTime(TDateTime(-1e6))), 0u);
}

// ---------------------------------------------------------------------------
// Wrappers on files

TEST_F(OleFiles, OpenMissingFile) {
  const std::string Name = Path("missing.stg");
  EXPECT_EQ(ExceptionMessage([&] { delete TOleRootStorage::Open(Name, 0x12, false); }),
            "Unable to open " + Name + ", file not found");
  EXPECT_FALSE(FileExists(Name));
  std::unique_ptr<TOleRootStorage> R(TOleRootStorage::Open(Name, 0x12, true));
  EXPECT_EQ(R->Mode(), 0x1012);
  EXPECT_TRUE(FileExists(Name));
  R.reset();
  // Now present: opened without the create flag, contents kept.
  {
    std::unique_ptr<TOleRootStorage> W(TOleRootStorage::Open(Name, 0x12, true));
    EXPECT_EQ(W->Mode(), 0x12);
    IPtr<IStream> S;
    W->CreateStream("Kept", 0x1012, S);
  }
  std::unique_ptr<TOleRootStorage> Again(TOleRootStorage::Open(Name, 0x12, true));
  EXPECT_TRUE(Again->Contains("kept", false));
}

TEST_F(OleFiles, OpenElementFailuresNameTheCallersName) {
  auto Root = MakeSample("open.stg");
  IPtr<IStorage> Sub;
  IPtr<IStream> Str;
  EXPECT_EQ(ExceptionMessage([&] { Root->OpenStorage("No Such/Thing", 0x12, Sub, false); }),
            "Open Storage No Such/Thing Failed");
  EXPECT_EQ(ExceptionMessage([&] { Root->OpenStream("No Such.Stream", 0x12, Str, false); }),
            "Open Stream No Such.Stream Failed");
  // A stream is not a storage and a storage is not a stream.
  EXPECT_EQ(ExceptionMessage([&] { Root->OpenStorage("Top", 0x12, Sub, false); }),
            "Open Storage Top Failed");
  EXPECT_EQ(ExceptionMessage([&] { Root->OpenStream("Clients", 0x12, Str, false); }),
            "Open Stream Clients Failed");
  // With create-if-missing they are made, under the cleaned name.
  Root->OpenStorage("No Such/Thing", 0x12, Sub, true);
  ASSERT_TRUE(Sub);
  STATSTG St;
  ASSERT_EQ(Sub->Stat(&St, STATFLAG_DEFAULT), S_OK);
  EXPECT_EQ(St.pwcsName, u"NoSuchThing");
  Sub = nullptr;
  Root->OpenStream("New.Stream", 0x12, Str, true);
  ASSERT_TRUE(Str);
  Str = nullptr;
  EXPECT_TRUE(Root->Contains("NoSuchThing", false));
  EXPECT_TRUE(Root->Contains("NewStream", false));
  // Creating what exists raises the engine's error with its code.
  try {
    Root->CreateStorage("Clients", 0x12, Sub);
    ADD_FAILURE() << "no exception";
  } catch (const EOleSysError& E) {
    EXPECT_EQ(E.ErrorCode(), STG_E_FILEALREADYEXISTS);
  }
}

TEST_F(OleFiles, BooleanOperationsReportFailureByFalse) {
  auto Root = MakeSample("bools.stg");
  EXPECT_FALSE(Root->DestroyElement("Absent"));
  EXPECT_FALSE(Root->RenameElement("Absent", "Other"));
  EXPECT_FALSE(Root->RenameElement("Top", "Clients"));  // name taken
  EXPECT_TRUE(Root->RenameElement("Top", "Top Two"));
  EXPECT_TRUE(Root->Contains("TopTwo", false));
  EXPECT_FALSE(Root->SetElementTimes("Absent", Now(), Now(), Now()));
  EXPECT_TRUE(Root->DestroyElement("TopTwo"));
  EXPECT_FALSE(Root->Contains("TopTwo", false));
  TCustomOleStorage Empty(nullptr);
  IPtr<IEnumSTATSTG> E;
  EXPECT_FALSE(Empty.EnumElements(E));
  EXPECT_FALSE(Empty.Commit(0));
  EXPECT_FALSE(Empty.CopyTo(Root->Storage()));
}

TEST_F(OleFiles, ClassStateBitsAndTimesReadBack) {
  SetTimeZone("CET-1CEST,M3.5.0,M10.5.0/3");
  auto Root = MakeSample("times.stg");
  const TCLSID Cls = TGUID::Parse("{12345678-9ABC-DEF0-1122-334455667788}");
  EXPECT_TRUE(Root->SetClass(Cls));
  EXPECT_TRUE(Root->SetStateBits(0xF0F0, 0xFFFF));
  EXPECT_TRUE(Root->SetStateBits(0x0001, 0x00FF));  // only the low byte changes
  const TDateTime Created(EncodeDate(2004, 5, 6) + EncodeTime(7, 8, 9, 0));
  const TDateTime Modified(EncodeDate(2005, 1, 2) + EncodeTime(3, 4, 5, 0));
  EXPECT_TRUE(Root->SetElementTimes("Clients", Created, Created, Modified));
  STATSTG St;
  Root->Stat(St, STATFLAG_DEFAULT);
  TElementInfo Self = Root->TranslateStatStg(St);
  EXPECT_EQ(Self.ClassID, Cls);
  EXPECT_EQ(Self.StateBits, 0xF001u);
  std::vector<TElementInfo> Seen;
  Root->ForEach([&](TObject*, const TElementInfo& I, bool&) { Seen.push_back(I); }, false);
  bool Found = false;
  for (const TElementInfo& I : Seen)
    if (I.Name == "Clients") {
      Found = true;
      EXPECT_EQ(I.ElementType, STGTY_STORAGE);
      EXPECT_NEAR(static_cast<double>(I.Created), static_cast<double>(Created), 1e-8);
      EXPECT_NEAR(static_cast<double>(I.Modified), static_cast<double>(Modified), 1e-8);
    }
  EXPECT_TRUE(Found);
}

TEST_F(OleFiles, WalkIsDepthFirstWithDepthsAndStops) {
  auto Root = MakeSample("walk.stg");
  std::vector<std::string> Visits;
  Root->ForEach(
      [&](TObject* Sender, const TElementInfo& I, bool&) {
        EXPECT_EQ(Sender, Root.get());
        EXPECT_TRUE(I.Storage);
        Visits.push_back(std::to_string(I.Depth) + ":" + I.Name + ":" +
                         std::to_string(I.ElementType) + ":" + std::to_string(I.Size));
      },
      true);
  // The engine gives each storage's elements in its own order; the nesting
  // is what matters: 1234 follows Clients, Notes follows 1234.
  ASSERT_EQ(Visits.size(), 5u);
  auto At = [&](const std::string& V) {
    return std::find(Visits.begin(), Visits.end(), V) - Visits.begin();
  };
  EXPECT_EQ(At("2:1234:1:0"), At("1:Clients:1:0") + 1);
  EXPECT_EQ(At("3:Notes:2:5"), At("2:1234:1:0") + 1);
  EXPECT_LT(At("1:#5SummaryInformation:2:0"), 5);
  EXPECT_LT(At("1:Top:2:0"), 5);
  // Without recursion only the first level; clearing the flag stops at once.
  int Count = 0;
  Root->ForEach([&](TObject*, const TElementInfo&, bool&) { ++Count; }, false);
  EXPECT_EQ(Count, 3);
  Count = 0;
  Root->ForEach([&](TObject*, const TElementInfo&, bool& C) { C = ++Count < 2; }, true);
  EXPECT_EQ(Count, 2);
}

TEST_F(OleFiles, ContainsMatchesTranslatedNamesIgnoringCase) {
  auto Root = MakeSample("contains.stg");
  EXPECT_TRUE(Root->Contains("#5SummaryInformation", false));
  EXPECT_TRUE(Root->Contains("#5summaryinformation", false));
  EXPECT_FALSE(Root->Contains("\x05SummaryInformation", false));
  EXPECT_TRUE(Root->Contains("CLIENTS", false));
  EXPECT_FALSE(Root->Contains("notes", false));
  EXPECT_TRUE(Root->Contains("notes", true));
  EXPECT_FALSE(Root->Contains("nothing", true));
  // Storages opened by the walk are released again: the element opens.
  IPtr<IStorage> C;
  Root->OpenStorage("Clients", 0x12, C, false);
  EXPECT_TRUE(C);
}

TEST_F(OleFiles, SubWrappersAndOleStreams) {
  auto Root = MakeSample("wrappers.stg");
  {
    std::unique_ptr<TOleStorage> Clients(Root->OpenOleStorage("Clients", 0x12, false));
    std::unique_ptr<TOleStorage> Client(Clients->OpenOleStorage("1234", 0x12, false));
    std::unique_ptr<TStream> Notes(Client->OpenOleStream("Notes", 0x12, false));
    std::string Buf(5, '\0');
    Notes->ReadBuffer(Buf.data(), 5);
    EXPECT_EQ(Buf, "hello");
    EXPECT_EQ(Client->GetName(), "1234");
    // Open share-exclusive: a second open of the same element fails.
    IPtr<IStream> Twice;
    EXPECT_EQ(ExceptionMessage([&] { Client->OpenStream("Notes", 0x12, Twice, false); }),
              "Open Stream Notes Failed");
    std::unique_ptr<TStream> Fresh(Client->CreateOleStream("Fresh", 0x1012));
    Fresh->WriteBuffer("abc", 3);
    std::unique_ptr<TOleStorage> Made(Client->CreateOleStorage("Made", 0x1012));
    EXPECT_EQ(Made->GetName(), "Made");
  }
  std::unique_ptr<TOleStorage> Client(
      std::unique_ptr<TOleStorage>(Root->OpenOleStorage("Clients", 0x12, false))
          ->OpenOleStorage("1234", 0x12, false));
  EXPECT_TRUE(Client->Contains("Fresh", false));
  EXPECT_TRUE(Client->Contains("Made", false));
}

TEST_F(OleFiles, LongElementNamesWithinOneWrapper) {
  const std::string Long = "Portfolio valuation for the year 2004, second half";
  const std::string Short = "Portfoliovaluationfortheyear20";
  {
    auto Root = std::make_unique<TOleRootStorage>(Path("long.stg"), 0x1012);
    std::unique_ptr<TStream> S(Root->OpenOleStream(Long, 0x12, true));
    S->WriteBuffer("x", 1);
    S.reset();
    EXPECT_TRUE(Root->Contains(Short, false));
    std::unique_ptr<TStream> Again(Root->OpenOleStream(Long, 0x12, false));
    EXPECT_EQ(Again->GetSize(), 1);
    Again.reset();
    // A second long name with the same first 29 characters gets its own
    // element within this wrapper.
    std::unique_ptr<TStream> Other(
        Root->OpenOleStream("Portfolio valuation for the year 2005, first half", 0x12, true));
    EXPECT_EQ(Other->GetSize(), 0);
    EXPECT_TRUE(Root->Contains("Portfoliovaluationfortheyear21", false));
  }
  // A new wrapper numbers afresh: the 2005 name, met first now, gets the
  // short name the 2004 name had, so it reaches the 2004 element.
  std::unique_ptr<TOleRootStorage> Root(TOleRootStorage::Open(Path("long.stg"), 0x12, false));
  std::unique_ptr<TStream> S(
      Root->OpenOleStream("Portfolio valuation for the year 2005, first half", 0x12, false));
  EXPECT_EQ(S->GetSize(), 1);
  EXPECT_EQ(Root->GetLongNames()->Count(), 1);
}

TEST_F(OleFiles, SecondOpenerIsRefused) {
  auto Root = MakeSample("shared.stg");
  try {
    TOleRootStorage Second(Path("shared.stg"), 0x12);
    ADD_FAILURE() << "second open succeeded";
  } catch (const EOleSysError& E) {
    EXPECT_EQ(E.ErrorCode(), STG_E_SHAREVIOLATION);
  }
}

TEST_F(OleFiles, NewMakesDistinctFilesInTheTemporaryFolder) {
  ::setenv("TMPDIR", Dir.c_str(), 1);
  std::unique_ptr<TOleRootStorage> A(TOleRootStorage::New(0x12));
  std::unique_ptr<TOleRootStorage> B(TOleRootStorage::New(0x12));
  for (TOleRootStorage* R : {A.get(), B.get()}) {
    EXPECT_EQ(ExtractFilePath(R->FileName()), Dir + "/");
    EXPECT_EQ(ExtractFileName(R->FileName()).substr(0, 4), "~tmp");
    EXPECT_TRUE(FileExists(R->FileName()));
    EXPECT_EQ(R->Mode(), 0x1012);
  }
  EXPECT_NE(A->FileName(), B->FileName());
}

TEST_F(OleFiles, SaveUnderTheSameNameCompacts) {
  const std::string Name = Path("compact.stg");
  auto Root = MakeSample("compact.stg");
  {
    std::unique_ptr<TStream> Big(Root->CreateOleStream("Big", 0x1012));
    const std::string Block(1 << 20, 'z');
    Big->WriteBuffer(Block.data(), static_cast<int64_t>(Block.size()));
  }
  Root->Save(Name, false);
  const auto WithBig = std::filesystem::file_size(Name);
  EXPECT_TRUE(Root->DestroyElement("Big"));
  // Another spelling of the same file counts as the same name.
  Root->Save(Dir + "/./compact.stg", false);
  const auto Without = std::filesystem::file_size(Name);
  EXPECT_LT(Without, WithBig / 8);
  EXPECT_FALSE(FileExists(ChangeFileExt(Name, ".~bak")));
  // The create flag is gone, the object works on the reopened file.
  EXPECT_EQ(Root->Mode(), 0x12);
  EXPECT_TRUE(Root->Contains("Notes", true));
  EXPECT_FALSE(Root->Contains("Big", false));
}

TEST_F(OleFiles, SaveRefusesWhenABackupIsLeftOver) {
  const std::string Name = Path("left.stg");
  auto Root = MakeSample("left.stg");
  {
    TFileStream Leftover(ChangeFileExt(Name, ".~bak"), fmCreate);
    Leftover.WriteBuffer("junk", 4);
  }
  try {
    Root->Save(Name, false);
    ADD_FAILURE() << "no exception";
  } catch (const EOleSysError& E) {
    EXPECT_EQ(E.ErrorCode(), STG_E_FILEALREADYEXISTS);
  }
  // The object has its file open again, and the file is intact.
  EXPECT_TRUE(Root->Contains("Notes", true));
  Root.reset();
  std::unique_ptr<TOleRootStorage> Again(TOleRootStorage::Open(Name, 0x12, false));
  EXPECT_TRUE(Again->Contains("Notes", true));
}

TEST_F(OleFiles, SaveUnderAnotherName) {
  auto Root = MakeSample("first.stg");
  Root->Save(Path("copy.stg"), false);
  EXPECT_EQ(Root->FileName(), Path("first.stg"));
  EXPECT_TRUE(Root->Contains("Notes", true));
  Root->Save(Path("taken.stg"), true);
  EXPECT_EQ(Root->FileName(), Path("taken.stg"));
  // This object now holds taken.stg; the copy opens on its own.
  std::unique_ptr<TOleRootStorage> Copy(TOleRootStorage::Open(Path("copy.stg"), 0x12, false));
  EXPECT_TRUE(Copy->Contains("#5SummaryInformation", false));
  EXPECT_TRUE(Copy->Contains("Notes", true));
  EXPECT_FALSE(FileExists(Path("copy.~bak")));
  try {
    TOleRootStorage Busy(Path("taken.stg"), 0x12);
    ADD_FAILURE() << "taken.stg is not held by the saved object";
  } catch (const EOleSysError&) {
  }
}

TEST_F(OleFiles, CompressFileKeepsTheTree) {
  const std::string Name = Path("tree.stg");
  MakeSample("tree.stg").reset();
  CompressFile(Name);
  std::unique_ptr<TOleRootStorage> R(TOleRootStorage::Open(Name, 0x12, false));
  std::vector<std::string> Names;
  R->ForEach([&](TObject*, const TElementInfo& I, bool&) { Names.push_back(I.Name); }, true);
  std::sort(Names.begin(), Names.end());
  EXPECT_EQ(Names, (std::vector<std::string>{"#5SummaryInformation", "1234", "Clients", "Notes",
                                             "Top"}));
}
