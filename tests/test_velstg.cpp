// vel stg: the exact ls listing, the editing commands, compaction and the
// exit statuses, run through the built program.
#include <sys/wait.h>

#include <fstream>
#include <sstream>

#include "storage_test_util.h"
#include "vel/rtl/SysUtils.h"

using namespace vel;
using namespace storage_test;

namespace {

struct TRun {
  int Status;
  std::string Out, Err;
};

std::string Slurp(const std::string& Path) {
  std::ifstream F(Path, std::ios::binary);
  std::stringstream S;
  S << F.rdbuf();
  return S.str();
}

class VelStg : public ScratchDir {
 protected:
  // Runs vel stg with Args and Stdin, capturing the outputs.
  TRun Run(const std::vector<std::string>& Args, const std::string& Stdin = "") {
    auto Quote = [](const std::string& S) {
      std::string R = "'";
      for (char C : S) R += C == '\'' ? std::string("'\\''") : std::string(1, C);
      return R + "'";
    };
    std::string Cmd = Quote(VEL_TOOL_PATH) + " stg";
    for (const std::string& A : Args) Cmd += " " + Quote(A);
    std::ofstream(Path("in"), std::ios::binary) << Stdin;
    Cmd += " <" + Quote(Path("in")) + " >" + Quote(Path("out")) + " 2>" + Quote(Path("err"));
    const int Raw = std::system(Cmd.c_str());
    return {WIFEXITED(Raw) ? WEXITSTATUS(Raw) : -1, Slurp(Path("out")), Slurp(Path("err"))};
  }
  void SetUp() override {
    ScratchDir::SetUp();
    File = Path("doc.stg");
  }
  std::string File;
};

FILETIME FT(uint64_t V) {
  return FILETIME{static_cast<uint32_t>(V), static_cast<uint32_t>(V >> 32)};
}

std::vector<std::string> SplitLines(const std::string& S) {
  std::vector<std::string> R;
  std::stringstream In(S);
  for (std::string L; std::getline(In, L);) R.push_back(L);
  return R;
}

void WriteStream(TOleStorage& Stg, const std::string& Name, const std::string& Bytes) {
  std::unique_ptr<TStream>(Stg.CreateOleStream(Name, 0x1012))
      ->WriteBuffer(Bytes.data(), static_cast<int64_t>(Bytes.size()));
}

}  // namespace

TEST_F(VelStg, LsWritesTheExactListing) {
  const FILETIME C = FT(0x01C4331F2B3C4D5EULL), M = FT(0x01D0AABBCCDDEEFFULL);
  {
    TOleRootStorage Root(File, 0x1012);
    {
      std::unique_ptr<TOleStorage> A(Root.CreateOleStorage("A", 0x1012));
      WriteStream(*A, "x1", "hello");
      A->SetClass(TGUID::Parse("{0B1C2D3E-4F50-6172-8394-A5B6C7D8E9FA}"));
      A->SetStateBits(0xDEADBEEF, 0xFFFFFFFF);
    }
    WriteStream(Root, "BB", "");
    WriteStream(Root, "\x05SummaryInformation", "abc");
    WriteStream(Root, "Caf\xE9", "");
    ASSERT_EQ(Root.Storage()->SetElementTimes(u"A", &C, nullptr, &M), S_OK);
    ASSERT_EQ(Root.Storage()->SetElementTimes(nullptr, &C, nullptr, &M), S_OK);
    Root.SetClass(TGUID::Parse("{00020906-0000-0000-C000-000000000046}"));
  }
  const TRun R = Run({"ls", File});
  ASSERT_EQ(R.Status, 0) << R.Err;
  EXPECT_EQ(R.Err, "");
  const std::string Times = "\t01c4331f2b3c4d5e\t01d0aabbccddeeff\n";
  auto Stream = [](const std::string& Head, const std::string& Sha) {
    return Head + "\t{00000000-0000-0000-0000-000000000000}\t0x00000000\t" + Sha +
           "\t0000000000000000\t0000000000000000\n";
  };
  const std::string Empty = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
  // Depth first, each level in the format's order of names (shorter first).
  EXPECT_EQ(R.Out, "0\t1\t<root>\t0\t{00020906-0000-0000-C000-000000000046}\t0x00000000\t-" +
                       Times + "1\t1\tA\t0\t{0B1C2D3E-4F50-6172-8394-A5B6C7D8E9FA}\t0xdeadbeef\t-" +
                       Times +
                       Stream("2\t2\tx1\t5",
                              "2cf24dba5fb0a30e26e83b2ac5b9e29e1b161e5c1fa7425e73043362938b9824") +
                       Stream("1\t2\tBB\t0", Empty) + Stream("1\t2\tCaf\xC3\xA9\t0", Empty) +
                       Stream("1\t2\t#5SummaryInformation\t3",
                              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad") +
                       "elements 1 4\n");
}

TEST_F(VelStg, EditingCommandsAndFailures) {
  const std::string Src = Dir + "/src.bin";
  std::string Big(100000, '\0');
  for (size_t I = 0; I < Big.size(); ++I) Big[I] = static_cast<char>(I * 7 + I / 251);
  std::ofstream(Src, std::ios::binary) << Big;
  ASSERT_EQ(Run({"put", File, "Clients/1234/Notes", Src}).Status, 0);  // makes file and path
  EXPECT_EQ(Run({"cat", File, "Clients\\1234\\Notes"}).Out, Big);
  ASSERT_EQ(Run({"put", File, "Clients/1234/Notes", "-"}, "short").Status, 0);  // replaces whole
  EXPECT_EQ(Run({"cat", File, "Clients/1234/Notes"}).Out, "short");
  ASSERT_EQ(Run({"put", File, "#5SummaryInformation", "-"}, "sum").Status, 0);
  EXPECT_EQ(Run({"cat", File, "#5SummaryInformation"}).Out, "sum");
  ASSERT_EQ(Run({"mkdir", File, "Archive/2004"}).Status, 0);
  ASSERT_EQ(Run({"mv", File, "Clients/1234/Notes", "Archive/2004/Old notes"}).Status, 0);
  ASSERT_EQ(Run({"mv", File, "Archive/2004/Old notes", "Archive/2004/Renamed"}).Status, 0);
  EXPECT_EQ(Run({"cat", File, "Archive/2004/Renamed"}).Out, "short");
  ASSERT_EQ(Run({"rm", File, "Clients"}).Status, 0);
  EXPECT_EQ(SplitLines(Run({"ls", File}).Out).back(), "elements 2 2");
  // Failures: stderr, status 1, nothing on stdout.
  for (const std::vector<std::string>& Args : {std::vector<std::string>{"ls", Dir + "/absent.stg"},
                                               {"ls", Src},
                                               {"cat", File, "Archive"},
                                               {"cat", File, "A/Missing"},
                                               {"rm", File, "Nothing"},
                                               {"mv", File, "Nothing", "X"},
                                               {"cat", File, "/"},
                                               {"put", File, "Archive", "-"}}) {
    const TRun R = Run(Args);
    EXPECT_EQ(R.Status, 1) << Args[0] << " " << Args[1];
    EXPECT_EQ(R.Out, "");
    EXPECT_EQ(R.Err.rfind("vel: ", 0), 0u) << R.Err;
  }
  EXPECT_EQ(Run({"cat", File}).Status, 2);  // wrong command line
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
