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
using vel_test::Joined;

namespace {

const std::string SampleLines =
    "CompanyName=Velmont Ltd|FileDescription=Product "
    "tree|FileVersion=2.1.3.4|InternalName=ProdTree|"
    "LegalCopyright=(c) Velmont|LegalTrademarks=|OriginalFilename=ProdTree.bpl|ProductName=Corvane|"
    "ProductVersion=2.0|Comments=";

// "<class>: <message>" of what reading File raises, or "".
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
  const std::string File = Dir.Write("ProdTree.bpl", VersionPE(true, SampleVersion()));
  TVersionInfo A;
  EXPECT_EQ(Joined(A.GetVersionInfo(File)), SampleLines);
  EXPECT_EQ(A.CompanyName() + "," + A.GetVersionItem(vlProductVersion) + "," +
                GetStrProp(&A, "OriginalFilename"),
            "Velmont Ltd,2.0,ProdTree.bpl");
  uint32_t Translation, Fixed[4];
  std::memcpy(&Translation, A.Translation(), 4);
  std::memcpy(Fixed, A.FixedFileInfo(), sizeof Fixed);
  EXPECT_EQ(Translation, 0x04E40409u);
  EXPECT_EQ(Fixed[0], 0xFEEF04BDu);
  EXPECT_EQ(A.Size(), int32_t(A.Buffer().size()));
  velVersionInfo::TVersionInfo B;
  EXPECT_EQ(Joined(B.GetVersionInfo(File)), SampleLines);
  EXPECT_EQ(B.GetVersionItem(velVersionInfo::vlInternalName), "ProdTree");
}

TEST(VersionInfo, MessagesNameTheFile) {
  TScratch Dir;
  TVersionResourceDesc NoTranslation = SampleVersion();
  NoTranslation.Translations.clear();
  // Cut the fixed file information (at offset 40, after the key) to 40
  // bytes and shorten the root by as much.
  auto Short = BuildVersionResource(SampleVersion());
  Short.erase(Short.begin() + 80, Short.begin() + 92);
  Short[2] = 40;
  Put16(Short, 0, uint16_t(Short.size()));
  const struct {
    std::string File;
    std::string Format;
  } Cases[] = {
      {Dir.Path("missing.dll"), "No Version Info Available For %s."},
      {Dir.Write("text.dll", Bytes{'M', 'Z', 'x'}), "No Version Info Available For %s."},
      {Dir.Write("nover.dll", BuildPE(false, {})), "No Version Info Available For %s."},
      {Dir.Write("notrans.dll", VersionPE(false, NoTranslation)),
       "Cannot Obtain Language Translation Info for %s."},
      {Dir.Write("short.dll",
                 BuildPE(false, {{TResId::FromId(RT_VERSION), TResId::FromId(1), 0, Short}})),
       "Unable to Read Fixed File Info of %s."},
  };
  for (const auto& C : Cases) {
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
  const std::string L = Joined(A.GetVersionInfo(Dir.Write("x.dll", VersionPE(false, V))));
  EXPECT_EQ(L.substr(0, L.find('|')), "CompanyName=Deutsch");
  EXPECT_EQ(L.substr(L.rfind('|')), "|Comments=");  // present only in the table not chosen
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

// SetFileName reads once per new name and keeps the values on an error.
TEST(VersionInfo, SetFileNameReadsOncePerNewName) {
  TScratch Dir;
  const std::string Good = Dir.Write("a.dll", VersionPE(false, SampleVersion())),
                    Bad = Dir.Path("missing.dll");
  TCountingInfo A;
  A.SetFileName(Good);
  A.SetFileName(Good);
  SetStrProp(&A, "FileName", Good);
  EXPECT_EQ(A.Reads, 1);
  EXPECT_THROW(A.SetFileName(Bad), EVersionInfoError);
  EXPECT_EQ(A.Reads, 2);
  EXPECT_EQ(A.FileName(), Bad);
  EXPECT_EQ(Joined(A.Items()), SampleLines);
  EXPECT_EQ(A.CompanyName(), "Velmont Ltd");
}

TEST(PackageInfo, ExtensionMustBeExactlyBplOrDpl) {
  TScratch Dir;
  const Bytes PE = BuildPE(false, PackageResources(SampleVersion(), "d", {}));
  for (const char* Name :
       {"P.BPL", "P.dll", "P.Bpl", "P", "P.bpl.bak", "P.dcp", "P.bpl", "P.dpl"}) {
    const std::string File = Dir.Write(Name, PE);
    const bool Valid = File.ends_with(".bpl") || File.ends_with(".dpl");
    EXPECT_EQ(Raised<TPackageInfo>(File),
              Valid ? "" : "EPackageInfoError: " + File + " is not a valid Delphi Package");
    if (Valid) {
      TPackageInfo Info;
      EXPECT_EQ(Info.GetVersionInfo(File)->Count(), 10) << Name;
    }
  }
}

TEST(PackageInfo, LookupGivesUsageUnitsAndRequirements) {
  TScratch Dir;
  const struct {
    uint32_t Flags;
    TPackageUsage Usage;
    const char* Line;
  } Cases[] = {{pfPackageModule, puNone, "PackageUsage="},
               {pfPackageModule | pfDesignOnly, puDesignTime, "PackageUsage=Design Time"},
               {pfPackageModule | pfRunOnly | pfNeverBuild, puRunTime, "PackageUsage=Run Time"},
               {pfDesignOnly | pfRunOnly | pfIgnoreDupUnits, puDesignAndRunTime,
                "PackageUsage=Design And Run Time"}};
  for (const auto& C : Cases) {
    const TPackageInfoDesc Desc{C.Flags,
                                {"rtl", "VelClassesLib"},
                                {{"ProdTree", ufMainUnit}, {"TreeView, Ext", 0}},
                                "ProdTree"};
    const std::string File =
        Dir.Write("ProdTree.bpl",
                  BuildPE(true, PackageResources(SampleVersion(), "Tree \xE2\x82\xAC", Desc)));
    TPackageInfo Info;
    const std::string Plain = SampleLines + "|PackageDescription=Tree \x80";
    EXPECT_EQ(Joined(Info.LookupPackageInfo(File, false)), Plain);
    EXPECT_EQ(Info.ContainsUnits()->Count(), 0);
    EXPECT_EQ(Joined(Info.LookupPackageInfo(File, true)),
              Plain + "|" + C.Line +
                  "|Contains=(ProdTree,\"TreeView, Ext\")|Requires=(rtl,VelClassesLib)");
    EXPECT_EQ(Info.PackageUsage(), C.Usage);
    EXPECT_EQ(GetOrdProp(&Info, "PackageUsage"), int(C.Usage));
    EXPECT_EQ(Info.RequiresPackages()->CommaText(), "rtl,VelClassesLib");
  }
  // Details of a package without package information raise.
  const std::string Plain = Dir.Write("plain.bpl", VersionPE(false, SampleVersion()));
  TPackageInfo Info;
  EXPECT_EQ(Info.LookupPackageInfo(Plain, false)->Count(), 11);
  EXPECT_THROW(Info.LookupPackageInfo(Plain, true), EPackageError);
}

}  // namespace
