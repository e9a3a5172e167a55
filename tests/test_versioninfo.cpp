// The version and package information classes: ExtendedClasses'
// TVersionInfo and TPackageInfo components and velVersionInfo's plain
// TVersionInfo, over files assembled in the test.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ResourceFiles.h"
#include "vel/ExtendedClasses.h"
#include "vel/rtl/SysUtils.h"
#include "vel/rtl/TypInfo.h"
#include "vel/velVersionInfo.h"

using namespace vel;
using namespace restest;

namespace {

const std::vector<std::string> SampleLines = {
    "CompanyName=Velmont Ltd",       "FileDescription=Product tree",
    "FileVersion=2.1.3.4",           "InternalName=ProdTree",
    "LegalCopyright=(c) Velmont",    "LegalTrademarks=",
    "OriginalFilename=ProdTree.bpl", "ProductName=Corvane",
    "ProductVersion=2.0",            "Comments="};

std::vector<std::string> Lines(TStrings* S) {
  std::vector<std::string> R;
  for (int I = 0; I < S->Count(); ++I) R.push_back(S->Get(I));
  return R;
}

std::string VersionFile(const TScratch& Dir, const std::string& Name, const TVersionResourceDesc& V,
                        bool Plus = false) {
  return Dir.Write(Name, BuildPE(Plus, {{TResId::FromId(RT_VERSION), TResId::FromId(1), 0x0409,
                                         BuildVersionResource(V)}}));
}

// The message both classes raise for File, or "" when nothing is raised.
template <class T>
std::string Raised(const std::string& File) {
  T Info;
  try {
    Info.GetVersionInfo(File);
  } catch (const Exception& E) {
    return std::string(E.ClassName()) + ": " + E.what();
  }
  return "";
}

TEST(VersionInfo, BothClassesReadTheTenStrings) {
  TScratch Dir;
  const std::string File = VersionFile(Dir, "ProdTree.bpl", SampleVersion(), true);
  TVersionInfo A;
  EXPECT_EQ(Lines(A.GetVersionInfo(File)), SampleLines);
  EXPECT_EQ(A.CompanyName(), "Velmont Ltd");
  EXPECT_EQ(A.GetVersionItem(vlProductVersion), "2.0");
  EXPECT_EQ(GetStrProp(&A, "OriginalFilename"), "ProdTree.bpl");
  uint32_t Translation, Fixed[4];
  std::memcpy(&Translation, A.Translation(), 4);
  std::memcpy(Fixed, A.FixedFileInfo(), sizeof Fixed);
  EXPECT_EQ(Translation, 0x04E40409u);
  EXPECT_EQ(Fixed[0], 0xFEEF04BDu);
  EXPECT_EQ(A.Size(), int32_t(A.Buffer().size()));

  velVersionInfo::TVersionInfo B;
  EXPECT_EQ(Lines(B.GetVersionInfo(File)), SampleLines);
  EXPECT_EQ(B.GetVersionItem(velVersionInfo::vlInternalName), "ProdTree");
}

TEST(VersionInfo, MessagesNameTheFile) {
  TScratch Dir;
  TVersionResourceDesc NoTranslation = SampleVersion();
  NoTranslation.Translations.clear();
  TVersionResourceDesc Short = SampleVersion();
  auto ShortBytes = BuildVersionResource(Short);
  // Cut the fixed file information (at offset 40, after the key) to 40
  // bytes and shorten the root by as much.
  ShortBytes.erase(ShortBytes.begin() + 80, ShortBytes.begin() + 92);
  ShortBytes[2] = 40;
  Put16(ShortBytes, 0, uint16_t(ShortBytes.size()));
  struct TCase {
    std::string File;
    std::string Format;
  } Cases[] = {
      {Dir.Path("missing.dll"), "No Version Info Available For %s."},
      {Dir.Write("text.dll", Bytes{'M', 'Z', 'x'}), "No Version Info Available For %s."},
      {Dir.Write("nover.dll", BuildPE(false, {})), "No Version Info Available For %s."},
      {VersionFile(Dir, "notrans.dll", NoTranslation), "Cannot Obtain Language Translation Info for %s."},
      {Dir.Write("short.dll", BuildPE(false, {{TResId::FromId(RT_VERSION), TResId::FromId(1), 0,
                                              ShortBytes}})),
       "Unable to Read Fixed File Info of %s."},
  };
  for (const TCase& C : Cases) {
    const std::string Msg = vel::Format(C.Format, {C.File});
    EXPECT_EQ(Raised<TVersionInfo>(C.File), "EVersionInfoError: " + Msg);
    EXPECT_EQ(Raised<velVersionInfo::TVersionInfo>(C.File), "EVersionInfo: " + Msg);
  }
}

TEST(VersionInfo, OnlyTheFirstTranslationEntryIsUsed) {
  TScratch Dir;
  TVersionResourceDesc V;
  V.Tables.push_back({0x0409, 0x04E4, {{"CompanyName", "English"}, {"Comments", "en"}}});
  V.Tables.push_back({0x0407, 0x04B0, {{"CompanyName", "Deutsch"}}});
  V.Translations = {{0x0407, 0x04B0}, {0x0409, 0x04E4}};
  TVersionInfo A;
  const auto L = Lines(A.GetVersionInfo(VersionFile(Dir, "x.dll", V)));
  EXPECT_EQ(L.front(), "CompanyName=Deutsch");
  EXPECT_EQ(L.back(), "Comments=");  // present only in the table not chosen
}

class TCountingInfo : public TVersionInfo {
 public:
  int Reads = 0;

 protected:
  void ReadFileVersionInfo() override {
    ++Reads;
    TVersionInfo::ReadFileVersionInfo();
  }
};

TEST(VersionInfo, SetFileNameReadsOncePerNewNameAndKeepsValuesOnError) {
  TScratch Dir;
  const std::string Good = VersionFile(Dir, "a.dll", SampleVersion());
  TCountingInfo A;
  A.SetFileName(Good);
  A.SetFileName(Good);
  EXPECT_EQ(A.Reads, 1);
  SetStrProp(&A, "FileName", Good);
  EXPECT_EQ(A.Reads, 1);
  const std::string Bad = Dir.Path("missing.dll");
  EXPECT_THROW(A.SetFileName(Bad), EVersionInfoError);
  EXPECT_EQ(A.Reads, 2);
  EXPECT_EQ(A.FileName(), Bad);
  EXPECT_EQ(Lines(A.Items()), SampleLines);
  EXPECT_EQ(A.CompanyName(), "Velmont Ltd");
}

TEST(PackageInfo, ExtensionMustBeExactlyBplOrDpl) {
  TScratch Dir;
  const Bytes PE = BuildPE(false, PackageResources(SampleVersion(), "d", {}));
  for (const char* Name : {"P.BPL", "P.dll", "P.Bpl", "P", "P.bpl.bak", "P.dcp"}) {
    const std::string File = Dir.Write(Name, PE);
    TPackageInfo Info;
    try {
      Info.GetVersionInfo(File);
      ADD_FAILURE() << Name;
    } catch (const EPackageInfoError& E) {
      EXPECT_EQ(std::string(E.what()), File + " is not a valid Delphi Package");
    }
  }
  for (const char* Name : {"P.bpl", "P.dpl"}) {
    TPackageInfo Info;
    EXPECT_EQ(Info.GetVersionInfo(Dir.Write(Name, PE))->Count(), 10) << Name;
  }
}

TEST(PackageInfo, LookupGivesUsageUnitsAndRequirements) {
  TScratch Dir;
  struct TCase {
    uint32_t Flags;
    TPackageUsage Usage;
    const char* Line;
  } Cases[] = {{pfPackageModule, puNone, "PackageUsage="},
               {pfPackageModule | pfDesignOnly, puDesignTime, "PackageUsage=Design Time"},
               {pfPackageModule | pfRunOnly | pfNeverBuild, puRunTime, "PackageUsage=Run Time"},
               {pfDesignOnly | pfRunOnly | pfIgnoreDupUnits, puDesignAndRunTime,
                "PackageUsage=Design And Run Time"}};
  for (const TCase& C : Cases) {
    TPackageInfoDesc Desc{C.Flags, {"rtl", "VelClassesLib"}, {{"ProdTree", ufMainUnit}, {"TreeView, Ext", 0}}, "ProdTree"};
    const std::string File =
        Dir.Write("ProdTree.bpl", BuildPE(true, PackageResources(SampleVersion(), "Tree \xE2\x82\xAC", Desc)));
    TPackageInfo Info;
    std::vector<std::string> Want = SampleLines;
    Want.push_back("PackageDescription=Tree \x80");
    EXPECT_EQ(Lines(Info.LookupPackageInfo(File, false)), Want);
    EXPECT_EQ(Info.ContainsUnits()->Count(), 0);
    Want.push_back(C.Line);
    Want.push_back("Contains=(ProdTree,\"TreeView, Ext\")");
    Want.push_back("Requires=(rtl,VelClassesLib)");
    EXPECT_EQ(Lines(Info.LookupPackageInfo(File, true)), Want);
    EXPECT_EQ(Info.PackageUsage(), C.Usage);
    EXPECT_EQ(GetOrdProp(&Info, "PackageUsage"), int(C.Usage));
    EXPECT_EQ(Info.RequiresPackages()->CommaText(), "rtl,VelClassesLib");
  }
}

TEST(PackageInfo, DetailsOfAPackageWithoutPackageInformationRaise) {
  TScratch Dir;
  const std::string File = VersionFile(Dir, "plain.bpl", SampleVersion());
  TPackageInfo Info;
  EXPECT_EQ(Info.LookupPackageInfo(File, false)->Count(), 11);
  EXPECT_THROW(Info.LookupPackageInfo(File, true), EPackageError);
}

}  // namespace
