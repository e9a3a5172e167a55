// vel stg: the exact ls listing, the editing commands, compaction and the
// exit statuses, run through the built program.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "vel/OleStorage.h"
#include "vel/rtl/StructuredStorage.h"
#include "vel/rtl/SysUtils.h"

using namespace vel;

namespace {

struct TRun {
  int Status;
  std::string Out, Err;
};

class VelStg : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* Base = std::getenv("VEL_TEST_TMPDIR");
    std::string Tmpl = std::string(Base && *Base ? Base : "/tmp") + "/vel_stg_XXXXXX";
    std::filesystem::create_directories(std::filesystem::path(Tmpl).parent_path());
    ASSERT_NE(::mkdtemp(Tmpl.data()), nullptr);
    Dir = Tmpl;
    File = Dir + "/doc.stg";
  }
  void TearDown() override {
    std::error_code Ec;
    std::filesystem::remove_all(Dir, Ec);
  }

  static std::string Quote(const std::string& S) {
    std::string R = "'";
    for (char C : S) R += C == '\'' ? std::string("'\\''") : std::string(1, C);
    return R + "'";
  }
  static std::string Slurp(const std::string& Path) {
    std::ifstream F(Path, std::ios::binary);
    std::stringstream S;
    S << F.rdbuf();
    return S.str();
  }
  TRun Run(const std::vector<std::string>& Args, const std::string& Stdin = "") {
    std::string Cmd = Quote(VEL_TOOL_PATH) + " stg";
    for (const std::string& A : Args) Cmd += " " + Quote(A);
    std::ofstream(Dir + "/in", std::ios::binary) << Stdin;
    Cmd += " <" + Quote(Dir + "/in") + " >" + Quote(Dir + "/out") + " 2>" + Quote(Dir + "/err");
    const int Raw = std::system(Cmd.c_str());
    return {WIFEXITED(Raw) ? WEXITSTATUS(Raw) : -1, Slurp(Dir + "/out"), Slurp(Dir + "/err")};
  }

  std::string Dir, File;
};

FILETIME FT(uint64_t V) {
  FILETIME F;
  F.dwLowDateTime = static_cast<uint32_t>(V);
  F.dwHighDateTime = static_cast<uint32_t>(V >> 32);
  return F;
}

std::vector<std::string> SplitLines(const std::string& S) {
  std::vector<std::string> R;
  std::stringstream In(S);
  for (std::string L; std::getline(In, L);) R.push_back(L);
  return R;
}

void WriteStream(IStorage* Stg, const std::u16string& Name, const std::string& Bytes) {
  IStream* P = nullptr;
  ASSERT_EQ(Stg->CreateStream(Name.c_str(), 0x1012, 0, 0, &P), S_OK);
  IPtr<IStream> S = IPtr<IStream>::Attach(P);
  uint32_t N = 0;
  ASSERT_EQ(S->Write(Bytes.data(), static_cast<uint32_t>(Bytes.size()), &N), S_OK);
}

}  // namespace

TEST_F(VelStg, LsWritesTheExactListing) {
  {
    IStorage* P = nullptr;
    ASSERT_EQ(StgCreateDocfile(Utf8ToWide(File).c_str(), 0x1012, 0, &P), S_OK);
    IPtr<IStorage> Root = IPtr<IStorage>::Attach(P);
    ASSERT_EQ(Root->CreateStorage(u"A", 0x1012, 0, 0, &P), S_OK);
    IPtr<IStorage> A = IPtr<IStorage>::Attach(P);
    WriteStream(A, u"x1", "hello");
    ASSERT_EQ(A->SetClass(TGUID::Parse("{0B1C2D3E-4F50-6172-8394-A5B6C7D8E9FA}")), S_OK);
    ASSERT_EQ(A->SetStateBits(0xDEADBEEF, 0xFFFFFFFF), S_OK);
    A = nullptr;
    WriteStream(Root, u"BB", "");
    WriteStream(Root, u"\x05SummaryInformation", "abc");
    WriteStream(Root, u"Caf\u00e9", "");
    const FILETIME C = FT(0x01C4331F2B3C4D5EULL), M = FT(0x01D0AABBCCDDEEFFULL);
    ASSERT_EQ(Root->SetElementTimes(u"A", &C, nullptr, &M), S_OK);
    ASSERT_EQ(Root->SetElementTimes(nullptr, &C, nullptr, &M), S_OK);
    ASSERT_EQ(Root->SetClass(TGUID::Parse("{00020906-0000-0000-C000-000000000046}")), S_OK);
    ASSERT_EQ(Root->Commit(0), S_OK);
  }
  const TRun R = Run({"ls", File});
  ASSERT_EQ(R.Status, 0) << R.Err;
  EXPECT_EQ(R.Err, "");
  std::vector<std::string> Lines = SplitLines(R.Out);
  ASSERT_EQ(Lines.size(), 7u) << R.Out;
  const std::string Zero = "0000000000000000";
  EXPECT_EQ(Lines[0], "0\t1\t<root>\t0\t{00020906-0000-0000-C000-000000000046}\t0x00000000\t-\t"
                      "01c4331f2b3c4d5e\t01d0aabbccddeeff");
  EXPECT_EQ(Lines[6], "elements 1 4");
  const std::string StorageA =
      "1\t1\tA\t0\t{0B1C2D3E-4F50-6172-8394-A5B6C7D8E9FA}\t0xdeadbeef\t-\t01c4331f2b3c4d5e\t"
      "01d0aabbccddeeff";
  const std::string Null = "{00000000-0000-0000-0000-000000000000}\t0x00000000\t";
  const std::vector<std::string> Expected = {
      StorageA,
      "2\t2\tx1\t5\t" + Null +
          "2cf24dba5fb0a30e26e83b2ac5b9e29e1b161e5c1fa7425e73043362938b9824\t" + Zero + "\t" + Zero,
      "1\t2\tBB\t0\t" + Null +
          "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855\t" + Zero + "\t" + Zero,
      "1\t2\t#5SummaryInformation\t3\t" + Null +
          "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad\t" + Zero + "\t" + Zero,
      "1\t2\tCaf\xC3\xA9\t0\t" + Null +
          "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855\t" + Zero + "\t" + Zero,
  };
  std::vector<std::string> Body(Lines.begin() + 1, Lines.end() - 1);
  // Depth first: the stream of A comes right after A.
  const auto AAt = std::find(Body.begin(), Body.end(), StorageA);
  ASSERT_NE(AAt, Body.end()) << R.Out;
  ASSERT_NE(AAt + 1, Body.end());
  EXPECT_EQ(*(AAt + 1), Expected[1]);
  std::vector<std::string> Want = Expected;
  std::sort(Body.begin(), Body.end());
  std::sort(Want.begin(), Want.end());
  EXPECT_EQ(Body, Want);
}

TEST_F(VelStg, EditingCommands) {
  const std::string Src = Dir + "/src.bin";
  std::string Big(100000, '\0');
  for (size_t I = 0; I < Big.size(); ++I) Big[I] = static_cast<char>(I * 7 + I / 251);
  std::ofstream(Src, std::ios::binary) << Big;
  // put makes the file and the storages on the way.
  ASSERT_EQ(Run({"put", File, "Clients/1234/Notes", Src}).Status, 0);
  EXPECT_EQ(Run({"cat", File, "Clients\\1234\\Notes"}).Out, Big);
  // A shorter put replaces the stream whole.
  ASSERT_EQ(Run({"put", File, "Clients/1234/Notes", "-"}, "short").Status, 0);
  EXPECT_EQ(Run({"cat", File, "Clients/1234/Notes"}).Out, "short");
  ASSERT_EQ(Run({"put", File, "#5SummaryInformation", "-"}, "sum").Status, 0);
  EXPECT_EQ(Run({"cat", File, "#5SummaryInformation"}).Out, "sum");
  ASSERT_EQ(Run({"mkdir", File, "Archive/2004"}).Status, 0);
  ASSERT_EQ(Run({"mv", File, "Clients/1234/Notes", "Archive/2004/Old notes"}).Status, 0);
  EXPECT_EQ(Run({"cat", File, "Archive/2004/Old notes"}).Out, "short");
  ASSERT_EQ(Run({"mv", File, "Archive/2004/Old notes", "Archive/2004/Renamed"}).Status, 0);
  EXPECT_EQ(Run({"cat", File, "Archive/2004/Renamed"}).Out, "short");
  ASSERT_EQ(Run({"rm", File, "Clients"}).Status, 0);
  std::vector<std::string> Lines = SplitLines(Run({"ls", File}).Out);
  ASSERT_FALSE(Lines.empty());
  EXPECT_EQ(Lines.back(), "elements 2 2");
}

TEST_F(VelStg, FailuresGoToStderrWithStatus1) {
  TRun R = Run({"ls", Dir + "/absent.stg"});
  EXPECT_EQ(R.Status, 1);
  EXPECT_EQ(R.Out, "");
  EXPECT_NE(R.Err.find("vel: " + Dir + "/absent.stg"), std::string::npos) << R.Err;
  ASSERT_EQ(Run({"put", File, "A/B", "-"}, "x").Status, 0);
  for (const std::vector<std::string>& Args :
       {std::vector<std::string>{"cat", File, "A/Missing"}, {"cat", File, "A"},
        {"rm", File, "Nothing"}, {"mv", File, "Nothing", "Other"}, {"cat", File, "/"}}) {
    R = Run(Args);
    EXPECT_EQ(R.Status, 1) << Args[0] << " " << Args[2];
    EXPECT_EQ(R.Out, "");
    EXPECT_EQ(R.Err.rfind("vel: ", 0), 0u) << R.Err;
  }
  // Not a compound file.
  std::ofstream(Dir + "/plain.txt") << "plain text, long enough to hold a header? no.";
  EXPECT_EQ(Run({"ls", Dir + "/plain.txt"}).Status, 1);
  // A wrong command line.
  EXPECT_EQ(Run({"cat", File}).Status, 2);
}

TEST_F(VelStg, CompactDropsFreeSpaceAndKeepsTheListing) {
  const std::string Src = Dir + "/src.bin";
  std::ofstream(Src, std::ios::binary) << std::string(2000000, 'q');
  ASSERT_EQ(Run({"put", File, "Big", Src}).Status, 0);
  ASSERT_EQ(Run({"put", File, "Keep/Small", "-"}, "small").Status, 0);
  ASSERT_EQ(Run({"put", File, "Keep/Mid", "-"}, std::string(5000, 'm')).Status, 0);
  ASSERT_EQ(Run({"rm", File, "Big"}).Status, 0);
  const std::string Before = Run({"ls", File}).Out;
  const auto SizeBefore = std::filesystem::file_size(File);
  const TRun R = Run({"compact", File});
  ASSERT_EQ(R.Status, 0) << R.Err;
  EXPECT_EQ(R.Err, "");  // no bar when stderr is not a terminal
  EXPECT_LT(std::filesystem::file_size(File) * 10, SizeBefore);
  EXPECT_FALSE(std::filesystem::exists(Dir + "/doc.~bak"));
  EXPECT_EQ(Run({"ls", File}).Out, Before);
}
