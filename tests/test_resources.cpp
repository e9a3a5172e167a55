// The resource reader and the platform calls on it: PE32, PE32+, the ELF
// resource section and .res files; version queries (paths, letter case,
// lengths, Windows-1252 conversion); package information; damaged files.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "ResourceFiles.h"
#include "vel/rtl/Resources.h"

using namespace vel;
using namespace restest;
using vel_test::Raised;

namespace {

enum class TForm { PE32, PE32Plus, Elf64, Elf32BE, Res };

// The entries in the file form Form: a .res file as is, or inside a module.
Bytes Wrap(TForm Form, const std::vector<TResSpecEntry>& Entries) {
  if (Form == TForm::PE32 || Form == TForm::PE32Plus)
    return BuildPE(Form == TForm::PE32Plus, Entries);
  if (Form == TForm::Res) return BuildResFile(Entries);
  return BuildElf(Form == TForm::Elf64, BuildResFile(Entries));
}

// The version block of a file, read as applications read it.
std::vector<uint8_t> ReadBlock(const std::string& File) {
  uint32_t Handle = 99;
  const uint32_t Size = GetFileVersionInfoSizeA(File.c_str(), &Handle);
  EXPECT_EQ(Handle, 0u);
  std::vector<uint8_t> Block(Size);
  if (Size) {
    EXPECT_TRUE(GetFileVersionInfoA(File.c_str(), Handle, Size, Block.data()));
  }
  return Block;
}

std::string Query(std::vector<uint8_t>& Block, const char* Path, uint32_t* LenOut = nullptr) {
  void* P = nullptr;
  uint32_t Len = 0;
  if (!VerQueryValueA(Block.data(), Path, &P, &Len)) return "<none>";
  if (LenOut) *LenOut = Len;
  return static_cast<const char*>(P);
}

class ResourceForms : public ::testing::TestWithParam<TForm> {};

TEST_P(ResourceForms, VersionQueriesAnswerAsWindowsDoes) {
  TScratch Dir;
  TPackageInfoDesc Info;
  const auto Entries = PackageResources(SampleVersion(), "Product tree package", Info);
  const std::string File = Dir.Write("ProdTree.bpl", Wrap(GetParam(), Entries));
  const size_t ResourceSize = Entries[0].Data.size();

  uint32_t Handle = 7;
  EXPECT_EQ(GetFileVersionInfoSizeA(File.c_str(), &Handle), ResourceSize * 2 + 4);
  std::vector<uint8_t> Block = ReadBlock(File);
  ASSERT_EQ(0, std::memcmp(Block.data(), Entries[0].Data.data(), ResourceSize));

  void* P = nullptr;
  uint32_t Len = 0;
  ASSERT_TRUE(VerQueryValueA(Block.data(), "\\", &P, &Len));
  EXPECT_EQ(Len, 52u);
  uint32_t Fixed[13];
  std::memcpy(Fixed, P, sizeof Fixed);
  EXPECT_EQ(Fixed[0], 0xFEEF04BDu);
  EXPECT_EQ(Fixed[2], 0x00020001u);
  EXPECT_EQ(Fixed[3], 0x00030004u);

  ASSERT_TRUE(VerQueryValueA(Block.data(), "\\VarFileInfo\\Translation", &P, &Len));
  EXPECT_EQ(Len, 4u);
  uint32_t Translation;
  std::memcpy(&Translation, P, 4);
  EXPECT_EQ(Translation, 0x04E40409u);

  // Keys and the table name match in any letter case; doubled backslashes
  // are tolerated; the length counts the terminating NUL as the resource
  // does.
  const struct {
    const char* Path;
    const char* Value;
    uint32_t Len;
  } Queries[] = {
      {"\\StringFileInfo\\040904e4\\CompanyName", "Velmont Ltd", 12},
      {"\\STRINGFILEINFO\\040904E4\\companyname", "Velmont Ltd", 12},
      {"\\\\StringFileInfo\\040904e4\\\\FileVersion", "2.1.3.4", 8},
      {"\\StringFileInfo\\040904e4\\LegalTrademarks", "", 1},
      {"\\StringFileInfo\\040904e4\\Comments", "<none>", 0},
      {"\\StringFileInfo\\040704e4\\CompanyName", "<none>", 0},
      {"\\StringFileInfo\\040904e4\\CompanyNam", "<none>", 0},
  };
  for (const auto& Q : Queries) {
    Len = 0;
    EXPECT_EQ(Query(Block, Q.Path, &Len), Q.Value) << Q.Path;
    EXPECT_EQ(Len, Q.Len) << Q.Path;
  }
  EXPECT_EQ(GetPackageDescription(File.c_str()), "Product tree package");
}

INSTANTIATE_TEST_SUITE_P(Forms, ResourceForms,
                         ::testing::Values(TForm::PE32, TForm::PE32Plus, TForm::Elf64,
                                           TForm::Elf32BE, TForm::Res));

TEST(Resources, StringsComeBackInWindows1252) {
  TScratch Dir;
  TVersionResourceDesc V;
  V.Tables.push_back({0x0407,
                      0x04E4,
                      {{"CompanyName", "Caf\xC3\xA9 M\xC3\xBCller \xE2\x82\xAC"},  // Café Müller €
                       {"Comments", "\xCE\xA9 \xF0\x9F\x98\x80!"},                 // Ω, an emoji
                       {"Gr\u00F6\u00DFe", "x"}}});                                // Größe
  V.Translations.push_back({0x0407, 0x04E4});
  std::vector<uint8_t> Block = ReadBlock(Dir.Write("a.dll", VersionPE(false, V, 0x0407)));
  uint32_t Len = 0;
  EXPECT_EQ(Query(Block, "\\StringFileInfo\\040704e4\\CompanyName", &Len),
            "Caf\xE9 M\xFCller \x80");
  EXPECT_EQ(Len, 14u);
  // One '?' per character Windows-1252 cannot hold; the length stays the
  // resource's count of UTF-16 units.
  EXPECT_EQ(Query(Block, "\\StringFileInfo\\040704e4\\Comments", &Len), "? ?!");
  EXPECT_EQ(Len, 6u);
  // Keys given in Windows-1252 match their UTF-16 form without regard to case.
  EXPECT_EQ(Query(Block, "\\StringFileInfo\\040704e4\\GR\xD6\xDF\x45"), "x");  // "GRÖßE"
}

TEST(Resources, ShortBuffersNeverReadOrWriteOutside) {
  TScratch Dir;
  const auto Entries = PackageResources(SampleVersion(), "d", {});
  const std::string File = Dir.Write("p.bpl", BuildPE(false, Entries));
  const uint32_t Full = GetFileVersionInfoSizeA(File.c_str(), nullptr);
  for (uint32_t Len : {0u, 3u, 4u, 10u, 100u, Full / 2, Full / 2 + 4, Full - 1}) {
    std::vector<uint8_t> Block(Len + 64, 0xCC);
    const bool Ok = GetFileVersionInfoA(File.c_str(), 0, Len, Block.data());
    EXPECT_EQ(Ok, Len >= 4) << Len;
    for (size_t I = Len; I < Block.size(); ++I) ASSERT_EQ(Block[I], 0xCC) << Len;
    if (!Ok) continue;
    void* P;
    uint32_t L;
    // Queries on a cut block may fail but stay within it.
    if (VerQueryValueA(Block.data(), "\\StringFileInfo\\040904e4\\CompanyName", &P, &L)) {
      EXPECT_STREQ(static_cast<const char*>(P), "Velmont Ltd");
    }
    for (size_t I = Len; I < Block.size(); ++I) ASSERT_EQ(Block[I], 0xCC) << Len;
  }
}

TEST(Resources, LookupByTypeNameAndLanguage) {
  std::vector<TResSpecEntry> E = {
      {TResId::FromId(RT_BITMAP), TResId::FromName("LOGO"), 0x0407, {1}},
      {TResId::FromId(RT_BITMAP), TResId::FromName("LOGO"), 0x0409, {2}},
      {TResId::FromId(RT_BITMAP), TResId::FromName("Other"), 0x0000, {3}},
      {TResId::FromName("CUSTOM"), TResId::FromId(5), 0x0416, {4, 4}}};
  for (bool Plus : {false, true}) {
    auto M = TResourceModule::LoadFromBytes(BuildPE(Plus, E), "mem");
    EXPECT_EQ(M->Format(), Plus ? TResourceFormat::rfPE32Plus : TResourceFormat::rfPE32);
    ASSERT_EQ(M->Entries().size(), 4u);
    auto Byte = [&](const TResourceEntry* R) { return R ? int(M->Data(*R)[0]) : -1; };
    EXPECT_EQ(Byte(M->Find(TResId::FromId(RT_BITMAP), TResId::FromName("logo"))), 2);
    EXPECT_EQ(Byte(M->Find(TResId::FromId(RT_BITMAP), TResId::FromName("LOGO"), 0x0407)), 1);
    EXPECT_EQ(Byte(M->Find(TResId::FromId(RT_BITMAP), TResId::FromName("LOGO"), 0x0416)), -1);
    EXPECT_EQ(Byte(M->Find(TResId::FromId(RT_BITMAP), TResId::FromName("OTHER"))), 3);
    EXPECT_EQ(Byte(M->Find(TResId::FromName("custom"), TResId::FromId(5))), 4);
    EXPECT_EQ(Byte(M->Find(TResId::FromName("custom"), TResId::FromName("5"))), -1);
  }
}

TEST(Resources, FilesThatAreNotModules) {
  TScratch Dir;
  const std::string Missing = Dir.Path("missing.bpl");
  const std::string Text = Dir.Write("notes.bpl", Bytes{'h', 'e', 'l', 'l', 'o'});
  const std::string NoRsrc = Dir.Write("empty.dll", BuildPE(false, {}));
  const std::string NoVersion = Dir.Write(
      "nover.dll", BuildPE(true, {{TResId::FromId(RT_RCDATA), TResId::FromId(1), 0, {1, 2}}}));
  for (const std::string& F : {Missing, Text, NoRsrc, NoVersion, Dir.Path("")}) {
    uint32_t H = 5;
    EXPECT_EQ(GetFileVersionInfoSizeA(F.c_str(), &H), 0u) << F;
    uint8_t Buf[64];
    EXPECT_FALSE(GetFileVersionInfoA(F.c_str(), 0, sizeof Buf, Buf)) << F;
  }
  EXPECT_EQ(GetFileVersionInfoSizeA(nullptr, nullptr), 0u);

  auto Message = [](const std::string& F) {
    return Raised<EResourceError>([&] { TResourceModule::LoadFromFile(F); });
  };
  EXPECT_EQ(Message(Missing), "Cannot open " + Missing + ": No such file or directory");
  EXPECT_EQ(Message(Text), Text + " is not a valid resource module");
  EXPECT_EQ(Message(NoRsrc), "no error");
  EXPECT_EQ(GetPackageDescription(NoRsrc.c_str()), "");
  EXPECT_THROW(GetPackageDescription(Missing.c_str()), EResourceError);
}

// Every prefix of a valid file, and the file with each byte of its headers
// and resource directory flipped, is either read or refused cleanly; the
// sanitizer builds check that nothing is read outside.
TEST(Resources, DamagedFilesAreRefusedOrReadWithinBounds) {
  const auto Entries = PackageResources(SampleVersion(), "d", {pfRunOnly, {"rtl"}, {{"A", 0}}, ""});
  for (TForm Form : {TForm::PE32, TForm::PE32Plus, TForm::Elf64, TForm::Elf32BE, TForm::Res}) {
    const Bytes Good = Wrap(Form, Entries);
    size_t Refused = 0;
    for (size_t N = 0; N < Good.size(); N += (N < 1024 ? 1 : 7)) {
      try {
        auto M = TResourceModule::LoadFromBytes(Bytes(Good.begin(), Good.begin() + N), "cut");
        for (const auto& E : M->Entries()) ASSERT_LE(E.Offset + E.Size, N);
      } catch (const EResourceError&) {
        ++Refused;
      }
    }
    EXPECT_GT(Refused, 0u);
    for (size_t I = 0; I < std::min<size_t>(Good.size(), 1200); ++I) {
      Bytes Bad = Good;
      Bad[I] ^= 0xA5;
      try {
        auto M = TResourceModule::LoadFromBytes(Bad, "bad");
        for (const auto& E : M->Entries()) ASSERT_LE(E.Offset + E.Size, Bad.size());
        uint32_t Flags;
        GetPackageInfo(*M, nullptr, Flags, nullptr);
      } catch (const Exception&) {
      }
    }
  }
}

// A resource directory whose leaf points back at a directory would walk
// the tree again; the reader refuses it.
TEST(Resources, DirectoryLoopsAreBounded) {
  Bytes PE = BuildPE(false, {{TResId::FromId(RT_RCDATA), TResId::FromId(1), 0, {1}}});
  // Root -> type dir at 0x18 -> name dir; make the name dir's entry point at
  // the type dir as a directory again.
  const size_t Rsrc = 0x200;
  const uint32_t TypeDir = PE[Rsrc + 20] | PE[Rsrc + 21] << 8;
  const size_t NameDir = (PE[Rsrc + TypeDir + 20] | PE[Rsrc + TypeDir + 21] << 8);
  Put32(PE, Rsrc + NameDir + 20, 0x80000000u | 0);
  EXPECT_THROW(TResourceModule::LoadFromBytes(PE, "loop"), EResourceError);
}

TEST(Resources, PackageInformationWithEveryFlag) {
  TPackageInfoDesc Desc;
  Desc.Flags = pfPackageModule | pfDesignOnly | pfRunOnly | pfIgnoreDupUnits;
  Desc.Requires = {"rtl", "vcl", "VeluBase60"};
  Desc.Contains = {{"ProdTree", ufMainUnit | ufPackageUnit},
                   {"TreeWeak", ufWeakUnit},
                   {"TreeOrg", ufOrgWeakUnit},
                   {"Implicit", ufImplicitUnit},
                   {"Plain", 0}};
  Desc.PackageName = "ProdTree";
  auto M = TResourceModule::LoadFromBytes(
      BuildPE(true, PackageResources(SampleVersion(), "x", Desc)), "ProdTree.bpl");
  uint32_t Flags = 0;
  std::vector<std::string> Seen;
  int Marker = 0;
  GetPackageInfo(
      *M, &Marker, Flags,
      [&](const std::string& Name, TNameType Type, uint8_t UnitFlags, void* Param) {
        EXPECT_EQ(Param, &Marker);
        Seen.push_back(std::to_string(Type) + ":" + Name + ":" + std::to_string(UnitFlags));
      });
  EXPECT_EQ(Flags, Desc.Flags);
  EXPECT_EQ(Seen, (std::vector<std::string>{"1:rtl:0", "1:vcl:0", "1:VeluBase60:0", "0:ProdTree:3",
                                            "0:TreeWeak:4", "0:TreeOrg:8", "0:Implicit:16",
                                            "0:Plain:0", "2:ProdTree:0"}));
}

TEST(Resources, PackageInformationErrors) {
  auto None = TResourceModule::LoadFromBytes(BuildPE(false, {}), "none.bpl");
  uint32_t Flags = 0;
  EXPECT_EQ(Raised<EPackageError>([&] { GetPackageInfo(*None, nullptr, Flags, nullptr); }),
            "none.bpl does not contain package information");
  // Counts beyond the resource, and a name without its NUL.
  Bytes Good = BuildPackageInfoResource({pfRunOnly, {"rtl"}, {{"Unit1", 0}}, ""});
  for (Bytes Bad : {Bytes{1, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0x7F},
                    Bytes(Good.begin(), Good.begin() + 12), Bytes{1, 2}}) {
    auto M = TResourceModule::LoadFromBytes(
        BuildResFile({{TResId::FromId(RT_RCDATA), TResId::FromName("PACKAGEINFO"), 0, Bad}}),
        "bad.bpl");
    int Calls = 0;
    EXPECT_EQ(Raised<EPackageError>(
                  [&] { GetPackageInfo(*M, nullptr, Flags, [&](auto&&...) { ++Calls; }); }),
              "Package information of bad.bpl is damaged");
    EXPECT_EQ(Calls, 0);
  }
}

// Resources compiled by a real resource compiler (binutils' windres) and
// linked into PE32 and PE32+ DLLs by the MinGW linkers.
TEST(Resources, WindresCompiledDlls) {
  for (const char* Prefix : {"i686-w64-mingw32-", "x86_64-w64-mingw32-"}) {
    const std::string Windres = std::string(Prefix) + "windres", Ld = std::string(Prefix) + "ld";
    if (!HaveTool(Windres) || !HaveTool(Ld)) GTEST_SKIP() << "binutils-mingw-w64 not installed";
    TScratch Dir;
    std::ofstream(Dir.Path("v.rc"), std::ios::binary) << R"(1 VERSIONINFO
FILEVERSION 3,1,4,1
PRODUCTVERSION 3,1,0,0
FILEOS 0x4
FILETYPE 0x2
BEGIN
  BLOCK "StringFileInfo"
  BEGIN
    BLOCK "041304E4"
    BEGIN
      VALUE "CompanyName", "Velmont Caf)"
                                                         "\xE9"
                                                         R"(\0"
      VALUE "FileVersion", "3.1.4.1\0"
    END
  END
  BLOCK "VarFileInfo"
  BEGIN
    VALUE "Translation", 0x413, 1252
  END
END
DESCRIPTION RCDATA { L"Compiled description\0" }
)";
    const std::string Cmd = "cd '" + Dir.Path("") + "' && " + Windres +
                            " --preprocessor=cat -c 1252 v.rc -O coff -o v.o && " + Ld +
                            " --dll -e 0 -o v.dll v.o";
    ASSERT_EQ(std::system(Cmd.c_str()), 0) << Cmd;
    const std::string Dll = Dir.Path("v.dll");
    auto M = TResourceModule::LoadFromFile(Dll);
    EXPECT_EQ(M->Format(),
              Prefix[0] == 'i' ? TResourceFormat::rfPE32 : TResourceFormat::rfPE32Plus);
    std::vector<uint8_t> Block = ReadBlock(Dll);
    ASSERT_FALSE(Block.empty());
    EXPECT_EQ(Query(Block, "\\StringFileInfo\\041304E4\\CompanyName"), "Velmont Caf\xE9");
    EXPECT_EQ(Query(Block, "\\StringFileInfo\\041304E4\\FileVersion"), "3.1.4.1");
    uint32_t Len = 0;
    void* P = nullptr;
    ASSERT_TRUE(VerQueryValueA(Block.data(), "\\", &P, &Len));
    uint32_t Fixed[4];
    std::memcpy(Fixed, P, sizeof Fixed);
    EXPECT_EQ(Fixed[2], 0x00030001u);
    EXPECT_EQ(Fixed[3], 0x00040001u);
    EXPECT_EQ(GetPackageDescription(Dll.c_str()), "Compiled description");
  }
}

}  // namespace
