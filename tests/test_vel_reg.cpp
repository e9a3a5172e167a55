// Tests of the vel tool's reg subcommands, run as a separate process on the
// vel program of the same build tree.
#include <sys/wait.h>
#include <unistd.h>

#include <sys/wait.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "TestSupport.h"

using namespace vel_test;

namespace {

class VelReg : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!std::filesystem::exists(Tool)) GTEST_SKIP() << "no vel program beside the tests";
  }
  // Runs "vel reg ARGS" with the hives in the scratch folder; keeps stdout
  // and stderr.
  int Run(const std::string& Args) {
    const std::string Cmd = "VEL_REGISTRY_DIR='" + Dir + "/hives' '" + Tool.string() + "' reg " +
                            Args + " >'" + Dir + "/out' 2>'" + Dir + "/err'";
    const int Status = std::system(Cmd.c_str());
    Out = ReadFile(Dir + "/out");
    Err = ReadFile(Dir + "/err");
    return WIFEXITED(Status) ? WEXITSTATUS(Status) : -1;
  }
  const std::filesystem::path Tool =
      std::filesystem::canonical("/proc/self/exe").parent_path().parent_path() / "tools/vel/vel";
  TScratch Scratch;
  const std::string Dir = Scratch.Dir;
  std::string Out, Err;
};

}  // namespace

TEST_F(VelReg, SetQueryExportDeleteImport) {
  const char* Key = "'HKCU\\Software\\Velmont\\Tool'";
  struct Case {
    const char* Args;
    const char* Line;
  };
  const Case Cases[] = {
      {"Width REG_DWORD 0x7b", "\"Width\"=dword:0000007b"},
      {"Caption REG_SZ 'Caf\xC3\xA9 \"x\" C:\\dir'",
       "\"Caption\"=\"Caf\xC3\xA9 \\\"x\\\" C:\\\\dir\""},
      {"Path REG_EXPAND_SZ '%P%'", "\"Path\"=hex(2):25,00,50,00,25,00,00,00"},
      {"List REG_MULTI_SZ 'a\\0b'", "\"List\"=hex(7):61,00,00,00,62,00,00,00,00,00"},
      {"Big REG_QWORD 4294967296", "\"Big\"=hex(b):00,00,00,00,01,00,00,00"},
      {"@ REG_BINARY '01,02,ff'", "@=hex:01,02,ff"},
  };
  std::string All;
  for (const Case& C : Cases) {
    ASSERT_EQ(Run(std::string("set ") + Key + " " + C.Args), 0) << Err;
    All += std::string(C.Line) + "\n";
  }
  ASSERT_EQ(Run(std::string("query ") + Key), 0) << Err;
  EXPECT_EQ(Out, All);
  ASSERT_EQ(Run("query 'HKEY_CURRENT_USER\\software\\velmont\\tool' caption"), 0);
  EXPECT_EQ(Out, std::string(Cases[1].Line) + "\n");

  ASSERT_EQ(Run("export 'HKCU\\Software\\Velmont' '" + Dir + "/v.reg' --v5"), 0) << Err;
  EXPECT_EQ(ReadFile(Dir + "/v.reg").substr(0, 4), std::string("\xFF\xFEW\0", 4));
  ASSERT_EQ(Run("delete 'HKCU\\Software\\Velmont'"), 0) << Err;
  EXPECT_EQ(Run(std::string("query ") + Key), 1);
  EXPECT_EQ(Err, "vel: Key not found: HKCU\\Software\\Velmont\\Tool\n");
  ASSERT_EQ(Run("import '" + Dir + "/v.reg'"), 0) << Err;
  ASSERT_EQ(Run(std::string("query ") + Key), 0);
  EXPECT_EQ(Out, All);
  ASSERT_EQ(Run(std::string("delete ") + Key + " Width"), 0) << Err;
  EXPECT_EQ(Run(std::string("query ") + Key + " Width"), 1);
  EXPECT_EQ(Err, "vel: Failed to get data for 'Width'\n");
}

TEST_F(VelReg, ErrorsGoToStderrWithStatus) {
  struct Case {
    std::string Args;
    int Status;
    std::string Err;
  };
  WriteFile(Dir + "/bad.reg", "REGEDIT4\r\n[HKCU\\X]\r\n\"a\"=dword:zz\r\n");
  const Case Cases[] = {
      {"set 'HKCU\\X' v REG_FOO 1", 1, "vel: Unknown value type 'REG_FOO'\n"},
      {"set 'HKCU\\X' v REG_DWORD 4294967296", 1,
       "vel: '4294967296' is not a valid integer value\n"},
      {"set 'HKCU\\X' v REG_BINARY 0g", 1, "vel: '0g' is not valid hexadecimal data\n"},
      {"set 'HKXX\\X' v REG_SZ a", 1, "vel: Unknown root key 'HKXX'\n"},
      {"import '" + Dir + "/bad.reg'", 1, "vel: Invalid dword value on line 3\n"},
      {"delete 'HKCU\\Nothing'", 1, "vel: Key not found: HKCU\\Nothing\n"},
  };
  for (const Case& C : Cases) {
    EXPECT_EQ(Run(C.Args), C.Status) << C.Args;
    EXPECT_EQ(Err, C.Err) << C.Args;
  }
  EXPECT_EQ(Run("query"), 2);
  // Nothing of the failed commands reached the hive.
  EXPECT_EQ(Run("query 'HKCU\\X'"), 1);
}
