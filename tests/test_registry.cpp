// Tests of the runtime's registry: vel/rtl/Registry.h.
#include "vel/rtl/Registry.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "vel/rtl/StringLists.h"

using namespace vel;
using namespace vel_test;

namespace {

// Every case gets its own hive folder through VEL_REGISTRY_DIR.
using Registry = ScratchTest;

std::string RegError(const std::function<void()>& Fn) {
  return Raised<ERegistryException>(Fn);
}

Bytes Utf16(std::u16string_view S) {
  Bytes B;
  for (const char16_t C : S) B.insert(B.end(), {uint8_t(C), uint8_t(C >> 8)});
  B.insert(B.end(), {0, 0});
  return B;
}

// Starts Body in a child process that exits with what Body returns.
pid_t Spawn(const std::function<int()>& Body) {
  const pid_t Pid = ::fork();
  if (Pid == 0) ::_exit(Body());
  return Pid;
}

// The exit status of a spawned child, or -1 when it did not exit.
int ExitStatus(pid_t Pid) {
  int Status = 0;
  if (Pid < 0 || ::waitpid(Pid, &Status, 0) != Pid || !WIFEXITED(Status)) return -1;
  return WEXITSTATUS(Status);
}

}  // namespace

// Each typed write stores the bytes Windows holds for it, and a second
// accessor (its own connection) reads them back.
TEST_F(Registry, TypedWritesStoreWindowsBytes) {
  TRegistry R;
  ASSERT_TRUE(R.OpenKey("Software\\Test", true));
  const uint8_t Bin[] = {0, 1, 0xFE, 0xFF};
  const struct {
    const char* Name;
    std::function<void()> Write;
    TRegValue Expected;
  } Cases[] = {
      {"Int", [&] { R.WriteInteger("Int", -2); }, {REG_DWORD, {0xFE, 0xFF, 0xFF, 0xFF}}},
      {"Big", [&] { R.WriteInteger("Big", 0x12345678); }, {REG_DWORD, {0x78, 0x56, 0x34, 0x12}}},
      {"True", [&] { R.WriteBool("True", true); }, {REG_DWORD, {1, 0, 0, 0}}},
      {"Str", [&] { R.WriteString("Str", "Caf\xE9 \x80"); }, {REG_SZ, Utf16(u"Caf\u00E9 \u20AC")}},
      {"Empty", [&] { R.WriteString("Empty", ""); }, {REG_SZ, {0, 0}}},
      {"Exp", [&] { R.WriteExpandString("Exp", "%HOME%"); }, {REG_EXPAND_SZ, Utf16(u"%HOME%")}},
      {"Bin", [&] { R.WriteBinaryData("Bin", Bin, 4); }, {REG_BINARY, {0, 1, 0xFE, 0xFF}}},
  };
  for (const auto& C : Cases) {
    C.Write();
    TRegValue V;
    ASSERT_TRUE(R.ReadValue(C.Name, V)) << C.Name;
    EXPECT_EQ(V, C.Expected) << C.Name;
  }
  TRegistry R2(KEY_READ);
  ASSERT_TRUE(R2.OpenKey("\\SOFTWARE\\test", false));
  EXPECT_EQ(R2.ReadInteger("int"), -2);
  EXPECT_EQ(R2.ReadInteger("Big"), 0x12345678);
  EXPECT_TRUE(R2.ReadBool("TRUE"));
  EXPECT_EQ(R2.ReadString("Str"), "Caf\xE9 \x80");
  EXPECT_EQ(R2.ReadString("Exp"), "%HOME%");
  uint8_t Out[8] = {};
  EXPECT_EQ(R2.ReadBinaryData("Bin", Out, sizeof Out), 4);
  EXPECT_EQ(Bytes(Out, Out + 4), Bytes(Bin, Bin + 4));
  EXPECT_EQ(R2.GetDataType("Exp"), rdExpandString);
  EXPECT_EQ(R2.GetDataSize("Str"), 14);  // six characters and the NUL
  EXPECT_EQ(R2.GetDataSize("Missing"), -1);
}

// The runtime's messages for missing values, wrong types and refused writes.
TEST_F(Registry, ReadAndWriteErrorsCarryTheRuntimeMessages) {
  {
    TRegistry W;
    ASSERT_TRUE(W.OpenKey("Software\\Errors", true));
    W.WriteString("One", "A");         // 4 bytes of REG_SZ
    W.WriteString("Long", "Caption");  // longer than a DWORD
    W.WriteInteger("Num", 7);
    W.WriteValue("Bin4", TRegValue{REG_BINARY, {1, 2, 3, 4}});
    W.WriteValue("Q", TRegValue{REG_QWORD, {1, 0, 0, 0, 0, 0, 0, 0}});
  }
  TRegistry R(KEY_READ), Closed;
  ASSERT_TRUE(R.OpenKey("Software\\Errors", false));
  const struct {
    std::function<void()> Fn;
    const char* Message;
  } Cases[] = {
      {[&] { R.ReadInteger("Width"); }, "Failed to get data for 'Width'"},
      {[&] { R.ReadBool("Visible"); }, "Failed to get data for 'Visible'"},
      {[&] { R.ReadInteger("One"); }, "Invalid data type for 'One'"},
      {[&] { R.ReadInteger("Long"); }, "Failed to get data for 'Long'"},
      {[&] { R.ReadInteger("Bin4"); }, "Invalid data type for 'Bin4'"},
      {[&] { R.ReadInteger("Q"); }, "Failed to get data for 'Q'"},
      {[&] { R.ReadString("Num"); }, "Invalid data type for 'Num'"},
      {[&] { R.ReadString("Bin4"); }, "Invalid data type for 'Bin4'"},
      {[&] { R.WriteInteger("Num", 1); }, "Failed to set data for 'Num'"},
      {[&] { R.WriteString("S\xE9", "x"); }, "Failed to set data for 'S\xE9'"},
      // No key open: as on a closed handle.
      {[&] { Closed.ReadInteger("Num"); }, "Failed to get data for 'Num'"},
      {[&] { Closed.WriteInteger("Num", 1); }, "Failed to set data for 'Num'"},
  };
  for (const auto& C : Cases) EXPECT_EQ(RegError(C.Fn), C.Message);
  // A missing string is empty, not an error; the failed write changed nothing.
  EXPECT_EQ(R.ReadString("Caption"), "");
  EXPECT_EQ(R.ReadInteger("Num"), 7);
}

// Names compare ignoring case (also beyond ASCII) and keep their first case;
// a UTF-8 accessor and a Windows-1252 one see the same keys and values.
TEST_F(Registry, NamesIgnoreCaseKeepItAndShareTheStoreAcrossEncodings) {
  TRegistry R;
  ASSERT_TRUE(R.OpenKey("Software\\MyApp\\\xC9t\xE9", true));
  R.WriteInteger("Width", 1);
  R.WriteInteger("WIDTH", 2);  // the same value
  R.WriteString("\xC4nderung", "x");
  ASSERT_TRUE(R.OpenKey("\\software\\MYAPP\\\xE9T\xC9", false));
  EXPECT_EQ(R.ReadInteger("width"), 2);
  EXPECT_TRUE(R.ValueExists("\xE4NDERUNG"));
  TStringList Names;
  R.GetValueNames(&Names);
  EXPECT_EQ(Names.CommaText(), "Width,\xC4nderung");
  EXPECT_EQ(R.ValueNamesUtf8()[1], "\xC3\x84nderung");
  ASSERT_TRUE(R.OpenKey("\\Software\\myapp", false));
  R.GetKeyNames(&Names);
  EXPECT_EQ(Names.CommaText(), "\xC9t\xE9");

  TRegistry U;
  U.SetUtf8(true);
  ASSERT_TRUE(U.OpenKey("Software\\Caf\xC3\xA9", true));
  U.WriteString("N\xC3\xA4me", "\xE2\x82\xAC \xCE\xA9");  // "€ Ω"
  ASSERT_TRUE(R.OpenKey("\\Software\\CAF\xC9", false));
  EXPECT_EQ(R.ReadString("N\xE4me"), "\x80 ?");  // Ω has no Windows-1252 byte
  EXPECT_EQ(U.ReadString("N\xC3\x84ME"), "\xE2\x82\xAC \xCE\xA9");
  EXPECT_EQ(RegError([&] { U.ReadInteger("N\xC3\xA4me"); }),
            "Failed to get data for 'N\xC3\xA4me'");
}

// CurrentPath keeps the key as opened; relative opens append with "\".
TEST_F(Registry, OpenKeyPathsAndCreation) {
  TRegistry R;
  EXPECT_FALSE(R.OpenKey("Software\\Absent", false));
  EXPECT_EQ(R.CurrentPath(), "");
  ASSERT_TRUE(R.OpenKey("Software\\X\\", true));
  EXPECT_EQ(R.CurrentPath(), "Software\\X\\");
  ASSERT_TRUE(R.OpenKey("Font", true));
  EXPECT_EQ(R.CurrentPath(), "Software\\X\\\\Font");
  ASSERT_TRUE(R.OpenKey("\\Software", false));
  EXPECT_EQ(R.CurrentPath(), "Software");
  EXPECT_TRUE(R.KeyExists("X\\Font"));
  EXPECT_TRUE(R.KeyExists("\\Software\\X"));
  EXPECT_FALSE(R.KeyExists("Font"));
  EXPECT_TRUE(R.HasSubKeys());
  R.CloseKey();
  EXPECT_EQ(R.CurrentPath(), "");
  EXPECT_FALSE(R.HasCurrentKey());
  // A root key change closes the key; hives are separate.
  ASSERT_TRUE(R.OpenKey("Software\\X", false));
  R.SetRootKey(HKEY_LOCAL_MACHINE);
  EXPECT_FALSE(R.HasCurrentKey());
  EXPECT_FALSE(R.KeyExists("Software\\X"));
  EXPECT_TRUE(R.CreateKey("Software\\Y"));
  EXPECT_TRUE(std::filesystem::exists(Dir + "/hives/HKEY_LOCAL_MACHINE.db"));
  // A hive removed and created anew is the new file, not a kept connection.
  std::filesystem::remove_all(Dir + "/hives");
  TRegistry Fresh;
  Fresh.SetRootKey(HKEY_LOCAL_MACHINE);
  EXPECT_FALSE(Fresh.KeyExists("Software\\Y"));
  EXPECT_TRUE(Fresh.CreateKey("Software\\Z"));
  EXPECT_TRUE(std::filesystem::exists(Dir + "/hives/HKEY_LOCAL_MACHINE.db"));
}

// DeleteKey removes a whole tree and its values; DeleteValue one value.
TEST_F(Registry, DeleteKeyAndValue) {
  TRegistry R;
  ASSERT_TRUE(R.OpenKey("Software\\D\\A\\B", true));
  R.WriteInteger("V", 1);
  ASSERT_TRUE(R.OpenKey("\\Software\\D", false));
  R.WriteInteger("Keep", 1);
  R.WriteInteger("Drop", 2);
  EXPECT_TRUE(R.DeleteValue("DROP"));
  EXPECT_FALSE(R.DeleteValue("Drop"));
  EXPECT_FALSE(R.ValueExists("Drop"));
  EXPECT_TRUE(R.DeleteKey("a"));
  EXPECT_FALSE(R.KeyExists("A\\B"));
  EXPECT_FALSE(R.DeleteKey("A"));
  EXPECT_FALSE(R.DeleteKey("\\"));  // a hive's root stays
  // A recreated key has no leftover values.
  ASSERT_TRUE(R.OpenKey("\\Software\\D\\A\\B", true));
  EXPECT_FALSE(R.ValueExists("V"));
  // Writing to a key that another accessor deleted fails.
  EXPECT_TRUE(TRegistry().DeleteKey("Software\\D\\A"));
  EXPECT_EQ(RegError([&] { R.WriteInteger("V", 1); }), "Failed to set data for 'V'");
}

// HKEY_CURRENT_USER is private: file 0600 in a folder 0700.
TEST_F(Registry, CurrentUserHiveIsPrivate) {
  ::unsetenv("VEL_REGISTRY_DIR");
  TEnvVar Config("XDG_CONFIG_HOME", Dir + "/config");
  {
    TRegistry R;
    ASSERT_TRUE(R.OpenKey("Software\\P", true));
    R.WriteString("S", "secret");
  }
  const std::string Folder = Dir + "/config/velmont/registry";
  EXPECT_EQ(HiveFileName(HKEY_CURRENT_USER), Folder + "/HKEY_CURRENT_USER.db");
  struct stat St {};
  ASSERT_EQ(::stat(Folder.c_str(), &St), 0);
  EXPECT_EQ(St.st_mode & 0777, 0700u);
  for (const char* Suffix : {"", "-wal", "-shm"}) {
    ASSERT_EQ(::stat((Folder + "/HKEY_CURRENT_USER.db" + Suffix).c_str(), &St), 0) << Suffix;
    EXPECT_EQ(St.st_mode & 0777, 0600u) << Suffix;
  }
  EXPECT_EQ(HiveFileName(HKEY_LOCAL_MACHINE), "/etc/velmont/registry/HKEY_LOCAL_MACHINE.db");
}

// A hive that cannot be written is access denied: no create, no write, and
// no fallback to another place. Run as another user when we are root.
TEST_F(Registry, UnwritableHiveIsAccessDenied) {
  {
    TRegistry Admin;
    Admin.SetRootKey(HKEY_LOCAL_MACHINE);
    ASSERT_TRUE(Admin.OpenKey("Software\\Velmont", true));
    Admin.WriteInteger("Shared", 5);
  }
  ASSERT_EQ(::chmod(Dir.c_str(), 0755), 0);
  const int Status = ExitStatus(Spawn([&] {
    if (::geteuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0)) return 90;
    // Without write permission on the folder and file, as another user.
    if (::access((Dir + "/hives/HKEY_LOCAL_MACHINE.db").c_str(), R_OK) != 0) return 91;
    TRegistry R;
    R.SetRootKey(HKEY_LOCAL_MACHINE);
    if (!R.OpenKey("Software\\Velmont", false)) return 10;
    if (R.ReadInteger("Shared") != 5) return 11;
    if (R.OpenKey("\\Software\\New", true)) return 12;
    if (!R.OpenKey("\\Software\\Velmont", false)) return 13;
    return RegError([&] { R.WriteInteger("Shared", 6); }) == "Failed to set data for 'Shared'" ? 0
                                                                                               : 14;
  }));
  ASSERT_GE(Status, 0);
  if (Status >= 90) GTEST_SKIP() << "cannot run as another user here";
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to test another user's access";
  EXPECT_EQ(Status, 0);
  TRegistry Check;
  Check.SetRootKey(HKEY_LOCAL_MACHINE);
  EXPECT_FALSE(Check.KeyExists("Software\\New"));
}

// Two processes writing 1,000 values each into one hive at once lose none.
TEST_F(Registry, TwoProcessesLoseNoWrite) {
  constexpr int N = 1000;
  ASSERT_TRUE(TRegistry().CreateKey("Software\\Race"));  // the hive exists before the race
  pid_t Pids[2];
  for (int P = 0; P < 2; ++P)
    Pids[P] = Spawn([P] {
      TRegistry R;
      if (!R.OpenKey("Software\\Race", false)) return 3;
      try {
        for (int I = 0; I < N; ++I)
          R.WriteInteger("P" + std::to_string(P) + "_" + std::to_string(I), I);
      } catch (...) {
        return 4;
      }
      return 0;
    });
  for (const pid_t Pid : Pids) EXPECT_EQ(ExitStatus(Pid), 0);
  TRegistry R(KEY_READ);
  ASSERT_TRUE(R.OpenKey("Software\\Race", false));
  EXPECT_EQ(R.ValueNamesUtf8().size(), size_t(2 * N));
  for (int P = 0; P < 2; ++P)
    for (int I = 0; I < N; I += 97)
      EXPECT_EQ(R.ReadInteger("P" + std::to_string(P) + "_" + std::to_string(I)), I);
}

// Threads with their own accessors write one hive while another reads it.
TEST_F(Registry, ThreadsWriteOneHiveWhileOneReads) {
  constexpr int Threads = 4, N = 250;
  {
    TRegistry R;
    ASSERT_TRUE(R.OpenKey("Software\\Threads", true));
    R.WriteInteger("Seen", 0);
  }
  std::atomic<bool> Done{false};
  std::atomic<int> Failures{0};
  std::vector<std::thread> Writers;
  for (int T = 0; T < Threads; ++T)
    Writers.emplace_back([T, &Failures] {
      try {
        TRegistry R;
        if (!R.OpenKey("Software\\Threads", false)) throw ERegistryException("open");
        for (int I = 0; I < N; ++I)
          R.WriteString("T" + std::to_string(T) + "_" + std::to_string(I), std::to_string(I));
      } catch (const Exception&) {
        ++Failures;
      }
    });
  std::thread Reader([&] {
    TRegistry R(KEY_READ);
    TStringList Names;
    int Last = 0;
    while (!Done) {
      if (!R.OpenKey("\\Software\\Threads", false)) ++Failures;
      R.GetValueNames(&Names);
      if (Names.Count() < Last) ++Failures;  // a committed value never disappears
      Last = Names.Count();
    }
  });
  for (std::thread& W : Writers) W.join();
  Done = true;
  Reader.join();
  EXPECT_EQ(Failures.load(), 0);
  TRegistry R(KEY_READ);
  ASSERT_TRUE(R.OpenKey("Software\\Threads", false));
  EXPECT_EQ(R.ValueNamesUtf8().size(), size_t(Threads * N + 1));
  EXPECT_EQ(R.ReadString("T3_249"), "249");
}
