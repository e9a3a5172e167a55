// The compound-file wrappers: name cleaning and shortening, element records
// and times, element opening with its messages, the walk and Contains, the
// root's Open, New and Save with compaction, and share-exclusive files
// refused to openers in other processes.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <memory>

#include "storage_test_util.h"
#include "vel/rtl/SysUtils.h"

using namespace vel;
using namespace storage_test;

namespace {

class OleFiles : public ScratchDir {
 protected:
  // Clients\1234\Notes ("hello"), \x05SummaryInformation and Top.
  std::unique_ptr<TOleRootStorage> MakeSample(const std::string& Name) {
    auto Root = std::make_unique<TOleRootStorage>(Path(Name), 0x1012);
    {
      std::unique_ptr<TOleStorage> C(Root->CreateOleStorage("Clients", 0x1012));
      std::unique_ptr<TOleStorage> Client(C->CreateOleStorage("1234", 0x1012));
      std::unique_ptr<TStream>(Client->CreateOleStream("Notes", 0x1012))->WriteBuffer("hello", 5);
    }
    IStream* P = nullptr;
    EXPECT_EQ(Root->Storage()->CreateStream(u"\x05SummaryInformation", 0x1012, 0, 0, &P), S_OK);
    P->_Release();
    delete Root->CreateOleStream("Top", 0x1012);
    return Root;
  }
};

void SetTimeZone(const char* Tz) {
  ::setenv("TZ", Tz, 1);  // each case runs in its own process
  ::tzset();
}

FILETIME MakeFileTime(uint64_t T) {
  return FILETIME{static_cast<uint32_t>(T), static_cast<uint32_t>(T >> 32)};
}

uint64_t Ticks(const FILETIME& F) {
  return (static_cast<uint64_t>(F.dwHighDateTime) << 32) | F.dwLowDateTime;
}

}  // namespace

TEST(OleStorageNames, ValidNamesAreCleanedAndLongOnesNumbered) {
  struct {
    const char* In;
    const char* Out;
  } Cases[] = {
      {"Client Data.2004/05", "ClientData200405"},
      {"a b!c$d%e&f*g,h-i.j/k:l;m=n?o@p[q\\r]s^t{u}v~w", "abcdefghijklmnopqrstuvw"},
      {"#'\"()+_<>|`9\xE9", "#'\"()+_<>|`9\xE9"},  // kept
  };
  TCustomOleStorage S(nullptr);
  for (const auto& C : Cases) EXPECT_EQ(S.GetValidName(C.In), C.Out) << C.In;
  EXPECT_EQ(S.GetLongNames()->Count(), 0);
  // Long names are numbered per wrapper.
  const std::string A40(40, 'a');
  const std::string B40 = std::string(39, 'b') + "!";  // 39 once cleaned
  EXPECT_EQ(S.GetValidName(std::string(30, 'x') + " "), std::string(30, 'x'));
  EXPECT_EQ(S.GetValidName(A40), std::string(29, 'a') + "0");
  EXPECT_EQ(S.GetValidName(A40), std::string(29, 'a') + "0");
  EXPECT_EQ(S.GetValidName(B40), std::string(29, 'b') + "1");
  for (char C = 'c'; C <= 'j'; ++C) S.GetValidName(std::string(31, C));
  EXPECT_EQ(S.GetValidName(std::string(31, 'k')), std::string(28, 'k') + "10");
  ASSERT_EQ(S.GetLongNames()->Count(), 11);
  EXPECT_EQ((*S.GetLongNames())[1], std::string(39, 'b') + "=" + std::string(29, 'b') + "1");
  TCustomOleStorage T(nullptr);
  EXPECT_EQ(T.GetValidName(B40), std::string(29, 'b') + "0");
}

TEST(OleStorageNames, FlagsAndStatusRecords) {
  EXPECT_TRUE(IsFlagSet(0x1012, 0x1000));
  EXPECT_FALSE(IsFlagSet(0x0002, 0x0012));
  EXPECT_TRUE(IsFlagSet(0x0000, 0x10000));  // only the low 16 bits count
  STATSTG S;
  S.cbSize = 0x123456789ULL;
  const std::pair<std::u16string, std::string> Names[] = {
      {u"\x05SummaryInformation", "#5SummaryInformation"},
      {u"\x1F", "#31"},
      {u" x", " x"},
      {u"Caf\u00e9\u20ac", "Caf\xE9\x80"}};
  for (const auto& [In, Out] : Names) {
    S.pwcsName = In;
    EXPECT_EQ(TranslateStatStg(S).Name, Out);
  }
  EXPECT_EQ(TranslateStatStg(S).Size, 0x123456789ULL);
  EXPECT_EQ(static_cast<double>(TranslateStatStg(S).Modified), 0.0);  // unset time
}

TEST(OleStorageNames, FileTimesBecomeLocalDateTimes) {
  const uint64_t T = 127283008895000000ULL;  // 2004-05-06 07:08:09.5 UTC
  const double Utc = static_cast<double>(EncodeDate(2004, 5, 6) + EncodeTime(7, 8, 9, 500));
  const std::pair<const char*, double> Zones[] = {
      {"UTC0", 0}, {"EST5", -5.0 / 24}, {"CET-1CEST,M3.5.0,M10.5.0/3", 2.0 / 24}};
  for (const auto& [Zone, Offset] : Zones) {
    SetTimeZone(Zone);
    const TDateTime Local = FileTimeToLocalDateTime(MakeFileTime(T));
    EXPECT_NEAR(static_cast<double>(Local), Utc + Offset, 1e-9) << Zone;
    EXPECT_EQ(Ticks(LocalDateTimeToFileTime(Local)), T) << Zone;
  }
  EXPECT_EQ(Ticks(LocalDateTimeToFileTime(TDateTime(0))), 0u);
  EXPECT_GT(static_cast<double>(FileTimeToLocalDateTime(MakeFileTime(~0ULL))), 2958465.0);
  EXPECT_EQ(Ticks(LocalDateTimeToFileTime(TDateTime(1e300))), 0u);
}

TEST_F(OleFiles, OpenMissingFile) {
  const std::string Name = Path("missing.stg");
  EXPECT_EQ(ErrorOf([&] { delete TOleRootStorage::Open(Name, 0x12, false); }),
            "EOleStorageError: Unable to open " + Name + ", file not found");
  EXPECT_FALSE(FileExists(Name));
  std::unique_ptr<TOleRootStorage> R(TOleRootStorage::Open(Name, 0x12, true));
  EXPECT_EQ(R->Mode(), 0x1012);
  delete R->CreateOleStream("Kept", 0x1012);
  R.reset();
  R.reset(TOleRootStorage::Open(Name, 0x12, true));  // exists now: not truncated
  EXPECT_EQ(R->Mode(), 0x12);
  EXPECT_TRUE(R->Contains("kept", false));
}

TEST_F(OleFiles, OpeningElements) {
  auto Root = MakeSample("open.stg");
  IPtr<IStorage> Sub;
  IPtr<IStream> Str;
  EXPECT_EQ(ErrorOf([&] { Root->OpenStorage("No Such/Thing", 0x12, Sub, false); }),
            "EOleStorageError: Open Storage No Such/Thing Failed");
  EXPECT_EQ(ErrorOf([&] { Root->OpenStream("No.Stream", 0x12, Str, false); }),
            "EOleStorageError: Open Stream No.Stream Failed");
  EXPECT_EQ(ErrorOf([&] { Root->OpenStorage("Top", 0x12, Sub, false); }),
            "EOleStorageError: Open Storage Top Failed");
  EXPECT_EQ(ErrorOf([&] { Root->OpenStream("Clients", 0x12, Str, false); }),
            "EOleStorageError: Open Stream Clients Failed");
  Root->OpenStorage("No Such/Thing", 0x12, Sub, true);
  STATSTG St;
  ASSERT_EQ(Sub->Stat(&St, STATFLAG_DEFAULT), S_OK);
  EXPECT_EQ(St.pwcsName, u"NoSuchThing");
  // Open share-exclusive: the same element cannot be opened twice.
  IPtr<IStorage> Twice;
  EXPECT_EQ(ErrorOf([&] { Root->OpenStorage("NoSuchThing", 0x12, Twice, false); }),
            "EOleStorageError: Open Storage NoSuchThing Failed");
  Root->OpenStream("New.Stream", 0x12, Str, true);
  EXPECT_TRUE(Str);
  EXPECT_EQ(SysErrorCode([&] { Root->CreateStorage("Clients", 0x12, Sub); }),
            STG_E_FILEALREADYEXISTS);
  // The Boolean operations answer false instead of raising.
  EXPECT_FALSE(Root->RenameElement("Top", "Clients"));
  EXPECT_TRUE(Root->DestroyElement("Top"));
  EXPECT_FALSE(Root->DestroyElement("Top"));
}

TEST_F(OleFiles, WalkContainsAndLocalTimes) {
  SetTimeZone("CET-1CEST,M3.5.0,M10.5.0/3");
  auto Root = MakeSample("walk.stg");
  const TDateTime Created(EncodeDate(2004, 5, 6) + EncodeTime(7, 8, 9, 0));
  const TDateTime Modified(EncodeDate(2005, 1, 2) + EncodeTime(3, 4, 5, 0));
  EXPECT_TRUE(Root->SetElementTimes("Clients", Created, Created, Modified));
  std::vector<std::string> Visits;
  Root->ForEach(
      [&](TObject* Sender, const TElementInfo& I, bool&) {
        EXPECT_EQ(Sender, Root.get());
        Visits.push_back(std::to_string(I.Depth) + ":" + I.Name + ":" + std::to_string(I.Size));
        if (I.Name != "Clients") return;
        EXPECT_NEAR(static_cast<double>(I.Created), static_cast<double>(Created), 1e-8);
        EXPECT_NEAR(static_cast<double>(I.Modified), static_cast<double>(Modified), 1e-8);
      },
      true);
  ASSERT_EQ(Visits.size(), 5u);
  auto At = [&](const std::string& V) { return std::find(Visits.begin(), Visits.end(), V); };
  ASSERT_NE(At("1:Clients:0"), Visits.end());
  EXPECT_EQ(At("2:1234:0"), At("1:Clients:0") + 1);  // depth first
  EXPECT_EQ(At("3:Notes:5"), At("1:Clients:0") + 2);
  int Count = 0;
  Root->ForEach([&](TObject*, const TElementInfo&, bool& C) { C = ++Count < 2; }, true);
  EXPECT_EQ(Count, 2);
  EXPECT_TRUE(Root->Contains("#5summaryINFORMATION", false));
  EXPECT_FALSE(Root->Contains("\x05SummaryInformation", false));
  EXPECT_FALSE(Root->Contains("notes", false));
  EXPECT_TRUE(Root->Contains("notes", true));
  EXPECT_FALSE(Root->Contains("nothing", true));
  // The walk let its storages go again.
  delete Root->OpenOleStorage("Clients", 0x12, false);
}

TEST_F(OleFiles, LongElementNamesLastAsLongAsTheWrapper) {
  const std::string Y2004 = "Portfolio valuation for the year 2004, second half";
  const std::string Y2005 = "Portfolio valuation for the year 2005, first half";
  {
    auto Root = std::make_unique<TOleRootStorage>(Path("long.stg"), 0x1012);
    std::unique_ptr<TStream>(Root->OpenOleStream(Y2004, 0x12, true))->WriteBuffer("x", 1);
    EXPECT_TRUE(Root->Contains("Portfoliovaluationfortheyear20", false));
    EXPECT_EQ(std::unique_ptr<TStream>(Root->OpenOleStream(Y2004, 0x12, false))->GetSize(), 1);
    EXPECT_EQ(std::unique_ptr<TStream>(Root->OpenOleStream(Y2005, 0x12, true))->GetSize(), 0);
    EXPECT_TRUE(Root->Contains("Portfoliovaluationfortheyear21", false));
  }
  // A new wrapper numbers afresh: the 2005 name, met first, now reaches
  // the element the 2004 name made.
  std::unique_ptr<TOleRootStorage> Root(TOleRootStorage::Open(Path("long.stg"), 0x12, false));
  EXPECT_EQ(std::unique_ptr<TStream>(Root->OpenOleStream(Y2005, 0x12, false))->GetSize(), 1);
}

TEST_F(OleFiles, NewFilesInTheTemporaryFolder) {
  ::setenv("TMPDIR", Dir.c_str(), 1);
  std::unique_ptr<TOleRootStorage> A(TOleRootStorage::New(0x12));
  std::unique_ptr<TOleRootStorage> B(TOleRootStorage::New(0x12));
  EXPECT_NE(A->FileName(), B->FileName());
  for (TOleRootStorage* R : {A.get(), B.get()}) {
    EXPECT_EQ(R->FileName().rfind(Dir + "/~tmp", 0), 0u) << R->FileName();
    EXPECT_TRUE(FileExists(R->FileName()));
    EXPECT_EQ(R->Mode(), 0x1012);
  }
}

TEST_F(OleFiles, SaveCompactsCopiesAndTakesNames) {
  const std::string Name = Path("first.stg");
  auto Root = MakeSample("first.stg");
  const std::string Block(1 << 20, 'z');
  std::unique_ptr<TStream>(Root->CreateOleStream("Big", 0x1012))
      ->WriteBuffer(Block.data(), static_cast<int64_t>(Block.size()));
  Root->Save(Name, false);
  const auto WithBig = std::filesystem::file_size(Name);
  EXPECT_TRUE(Root->DestroyElement("Big"));
  Root->Save(Dir + "/./first.stg", false);  // another spelling of the same file
  EXPECT_LT(std::filesystem::file_size(Name), WithBig / 8);
  EXPECT_FALSE(FileExists(ChangeFileExt(Name, ".~bak")));
  EXPECT_EQ(Root->Mode(), 0x12);  // reopening must not truncate
  EXPECT_TRUE(Root->Contains("Notes", true));
  EXPECT_FALSE(Root->Contains("Big", false));
  // A backup left over refuses the compaction; the file is reopened intact.
  TFileStream(ChangeFileExt(Name, ".~bak"), fmCreate).WriteBuffer("junk", 4);
  EXPECT_EQ(SysErrorCode([&] { Root->Save(Name, false); }), STG_E_FILEALREADYEXISTS);
  EXPECT_TRUE(Root->Contains("Notes", true));
  // Under another name: a copy, unless the name is taken.
  Root->Save(Path("copy.stg"), false);
  EXPECT_EQ(Root->FileName(), Name);
  Root->Save(Path("taken.stg"), true);
  EXPECT_EQ(Root->FileName(), Path("taken.stg"));
  EXPECT_EQ(SysErrorCode([&] { TOleRootStorage Busy(Path("taken.stg"), 0x12); }),
            STG_E_SHAREVIOLATION);
  std::unique_ptr<TOleRootStorage> Copy(TOleRootStorage::Open(Path("copy.stg"), 0x12, false));
  EXPECT_TRUE(Copy->Contains("#5SummaryInformation", false));
  EXPECT_TRUE(Copy->Contains("Notes", true));
  EXPECT_FALSE(FileExists(Path("copy.~bak")));
}

// A file a wrapper holds in one process is refused to every opener in
// another, through the engine and through the wrappers, until it is freed;
// readers that share reading coexist.
TEST_F(OleFiles, ShareExclusiveRefusesOtherProcesses) {
  const std::string Name = Path("held.stg");
  const std::u16string W = StgUtf8ToName(Name);
  MakeSample("held.stg").reset();
  int Ready[2], Go[2];
  ASSERT_EQ(pipe(Ready), 0);
  ASSERT_EQ(pipe(Go), 0);
  const pid_t Child = fork();
  if (Child == 0) {
    char C = 'n';
    try {
      TOleRootStorage Held(Name, 0x12);
      C = 'y';
      (void)!write(Ready[1], &C, 1);
      (void)!read(Go[0], &C, 1);
    } catch (...) {
      (void)!write(Ready[1], &C, 1);
    }
    _exit(0);
  }
  char C = 0;
  ASSERT_EQ(read(Ready[0], &C, 1), 1);
  ASSERT_EQ(C, 'y');
  EXPECT_EQ(ErrorOf([&] { TOleRootStorage Second(Name, 0x12); }),
            "EOleSysError: OLE error 80030020");
  EXPECT_EQ(SysErrorCode([&] { delete TOleRootStorage::Open(Name, 0x10, false); }),
            STG_E_SHAREVIOLATION);
  EXPECT_EQ(SysErrorCode([&] { TOleRootStorage Replace(Name, 0x1012); }), STG_E_SHAREVIOLATION);
  EXPECT_EQ(SysErrorCode([&] { CompressFile(Name); }), STG_E_SHAREVIOLATION);
  IPtr<IStorage> R, R2;
  EXPECT_EQ(StgOpenStorage(W.c_str(), nullptr, STGM_READ | STGM_SHARE_DENY_NONE, nullptr, 0,
                           reinterpret_cast<IStorage**>(R.Out())),
            STG_E_SHAREVIOLATION);
  (void)!write(Go[1], "x", 1);
  int Status = 0;
  ASSERT_EQ(waitpid(Child, &Status, 0), Child);
  // Nothing was replaced or truncated; the same rules hold within a process.
  std::unique_ptr<TOleRootStorage> Root(TOleRootStorage::Open(Name, 0x12, false));
  EXPECT_TRUE(Root->Contains("Notes", true));
  EXPECT_EQ(SysErrorCode([&] { TOleRootStorage Second(Name, 0x12); }), STG_E_SHAREVIOLATION);
  Root.reset();
  constexpr uint32_t Shared = STGM_READ | STGM_SHARE_DENY_WRITE;
  EXPECT_EQ(
      StgOpenStorage(W.c_str(), nullptr, Shared, nullptr, 0, reinterpret_cast<IStorage**>(R.Out())),
      S_OK);
  EXPECT_EQ(StgOpenStorage(W.c_str(), nullptr, Shared, nullptr, 0,
                           reinterpret_cast<IStorage**>(R2.Out())),
            S_OK);
  EXPECT_EQ(SysErrorCode([&] { TOleRootStorage Writer(Name, 0x12); }), STG_E_SHAREVIOLATION);
}
