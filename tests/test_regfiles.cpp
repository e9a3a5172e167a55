// Tests of registry files: vel/rtl/RegFiles.h.
#include "vel/rtl/RegFiles.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "TestSupport.h"
#include "vel/rtl/SysUtils.h"

using namespace vel;
using namespace vel_test;

namespace {

using RegFiles = ScratchTest;

// UTF-8 text as a version 5 file: BOM and UTF-16LE.
std::string V5(const std::string& Utf8) {
  std::string B("\xFF\xFE", 2);
  for (const char16_t C : Utf8ToWide(Utf8)) B += {char(C & 0xFF), char(C >> 8)};
  return B;
}

std::string ErrorOf(const std::string& Text) {
  return Raised<ERegFileError>([&] { ImportRegText(Text); });
}

// The sample tree's export, in UTF-8 with the form's own string rules; the
// hex line of "Bin" breaks after 23 bytes as regedit's does.
const char* const SampleBody =
    "\r\n"
    "[HKEY_CURRENT_USER\\Software\\X]\r\n"
    "\"Caption\"=\"A \\\"q\\\" C:\\\\dir\"\r\n"
    "\"Width\"=dword:0000000a\r\n"
    "%EXP%\r\n"
    "%MULTI%\r\n"
    "\"Q\"=hex(b):01,02,03,04,05,06,07,08\r\n"
    "\"Bin\"=hex:00,01,02,03,04,05,06,07,08,09,0a,0b,0c,0d,0e,0f,10,11,12,13,14,15,16,\\\r\n"
    "  17,18,19,1a,1b,1c,1d\r\n"
    "\"None\"=hex(0):\r\n"
    "\"Odd\"=hex(1):41,00,42\r\n"
    "@=\"def\"\r\n"
    "\r\n"
    "[HKEY_CURRENT_USER\\Software\\X\\A]\r\n"
    "\r\n"
    "[HKEY_CURRENT_USER\\Software\\X\\Font]\r\n"
    "\"Size\"=dword:00000008\r\n"
    "\r\n";

std::string Sample(TRegFileFormat F) {
  std::string S = SampleBody;
  const bool Four = F == TRegFileFormat::Regedit4;
  S.replace(S.find("%EXP%"), 5,
            Four ? "\"Exp\"=hex(2):25,50,25,00" : "\"Exp\"=hex(2):25,00,50,00,25,00,00,00");
  S.replace(
      S.find("%MULTI%"), 7,
      Four ? "\"Multi\"=hex(7):61,00,62,00,00" : "\"Multi\"=hex(7):61,00,00,00,62,00,00,00,00,00");
  return Four ? "REGEDIT4\r\n" + S : V5("Windows Registry Editor Version 5.00\r\n" + S);
}

void WriteSampleTree() {
  TRegistry R;
  ASSERT_TRUE(R.OpenKey("Software\\X", true));
  R.WriteString("Caption", "A \"q\" C:\\dir");
  R.WriteInteger("Width", 10);
  R.WriteExpandString("Exp", "%P%");
  R.WriteValue("Multi", TRegValue{REG_MULTI_SZ, {'a', 0, 0, 0, 'b', 0, 0, 0, 0, 0}});
  R.WriteValue("Q", TRegValue{REG_QWORD, {1, 2, 3, 4, 5, 6, 7, 8}});
  Bytes Bin;
  for (uint8_t I = 0; I < 30; ++I) Bin.push_back(I);
  R.WriteBinaryData("Bin", Bin.data(), int(Bin.size()));
  R.WriteValue("None", TRegValue{REG_NONE, {}});
  R.WriteValue("Odd", TRegValue{REG_SZ, {'A', 0, 'B'}});  // no whole NUL: not quotable
  R.WriteString("", "def");
  ASSERT_TRUE(R.OpenKey("Font", true));
  R.WriteInteger("Size", 8);
  ASSERT_TRUE(R.OpenKey("\\Software\\X\\A", true));
}

}  // namespace

// Exports are byte-exact in both forms, and a file of either form imported
// into an empty hive exports to the same bytes: every value type survives.
TEST_F(RegFiles, ExportBytesAndRoundTripInBothForms) {
  WriteSampleTree();
  for (const TRegFileFormat F : {TRegFileFormat::Regedit4, TRegFileFormat::Version5}) {
    EXPECT_EQ(ExportRegText(HKEY_CURRENT_USER, "software\\x", F), Sample(F));
  }
  for (const TRegFileFormat F : {TRegFileFormat::Regedit4, TRegFileFormat::Version5}) {
    ::setenv("VEL_REGISTRY_DIR", (Dir + (F == TRegFileFormat::Version5 ? "/v5" : "/v4")).c_str(),
             1);
    EXPECT_EQ(ImportRegText(Sample(F)), 10);
    EXPECT_EQ(ExportRegText(HKEY_CURRENT_USER, "Software\\X", F), Sample(F));
    TRegistry R;
    ASSERT_TRUE(R.OpenKey("Software\\X", false));
    TRegValue V;
    ASSERT_TRUE(R.ReadValue("Multi", V));
    EXPECT_EQ(V, (TRegValue{REG_MULTI_SZ, {'a', 0, 0, 0, 'b', 0, 0, 0, 0, 0}}));
    EXPECT_EQ(R.ReadString("Exp"), "%P%");
    EXPECT_EQ(R.ReadString(""), "def");
  }
  // The file form writes the same bytes.
  ExportRegFile(HKEY_CURRENT_USER, "Software\\X", Dir + "/out.reg", TRegFileFormat::Version5);
  EXPECT_EQ(ReadFile(Dir + "/out.reg"), Sample(TRegFileFormat::Version5));
  EXPECT_THROW(ExportRegText(HKEY_CURRENT_USER, "Software\\Nothing", TRegFileFormat::Version5),
               ERegistryException);
}

// Windows-1252 in REGEDIT4 files and UTF-16 in version 5 files reach the
// registry as UTF-16; what the 8-bit form cannot carry becomes '?'.
TEST_F(RegFiles, Windows1252AndUtf16NamesAndData) {
  ImportRegText(
      "REGEDIT4\r\n\r\n[HKEY_CURRENT_USER\\Software\\Caf\xE9]\r\n\"Pr\xEAt\"=\"\x80 5\"\r\n"
      "\"M\"=hex(7):e9,00,00\r\n");
  TRegistry R;
  ASSERT_TRUE(R.OpenKey("Software\\CAF\xC9", false));
  EXPECT_EQ(R.ReadString("PR\xCAT"), "\x80 5");
  TRegValue V;
  ASSERT_TRUE(R.ValueExists("Pr\xEAt"));
  ASSERT_TRUE(R.ReadValue("Pr\xC3\xAAt", V));
  EXPECT_EQ(V.Data, (Bytes{0xAC, 0x20, ' ', 0, '5', 0, 0, 0}));
  ASSERT_TRUE(R.ReadValue("M", V));
  EXPECT_EQ(V.Data, (Bytes{0xE9, 0, 0, 0, 0, 0}));  // "é", its NUL, the list's NUL

  const std::string Greek = "\xCE\x95\xCE\xBB\xCE\xBB\xCE\xAC\xCE\xB4\xCE\xB1";  // Ελλάδα
  const std::string Cjk = "\xE5\x90\x8D\xE5\x89\x8D";                            // 名前
  const std::string File =
      V5("Windows Registry Editor Version 5.00\r\n\r\n[HKEY_CURRENT_USER\\Software\\" + Greek +
         "]\r\n\"" + Cjk + "\"=\"\xE5\x80\xA4 \xF0\x9F\x98\x80\"\r\n\r\n");
  ImportRegText(File);
  EXPECT_EQ(ExportRegText(HKEY_CURRENT_USER, "software\\" + Greek, TRegFileFormat::Version5), File);
  // Greek letters fold beyond ASCII: the lower-case path finds the key.
  EXPECT_EQ(
      ExportRegText(HKEY_CURRENT_USER, "Software\\\xCE\xB5\xCE\xBB\xCE\xBB\xCE\xAC\xCE\xB4\xCE\xB1",
                    TRegFileFormat::Version5),
      File);
  EXPECT_EQ(ExportRegText(HKEY_CURRENT_USER, "Software\\" + Greek, TRegFileFormat::Regedit4),
            "REGEDIT4\r\n\r\n[HKEY_CURRENT_USER\\Software\\??????]\r\n"
            "\"??\"=hex(1):24,50,20,00,3d,d8,00,de,00,00\r\n\r\n");
}

// What reading accepts beyond regedit's own output.
TEST_F(RegFiles, LenientForms) {
  struct Case {
    const char* Line;
    const char* Name;
    TRegValue Value;
  };
  const Case Cases[] = {
      {"\"v\" = dword:FF ; comment", "v", {REG_DWORD, {0xFF, 0, 0, 0}}},
      {"\"v\"=hex:01, 2,\\\n   03,\\\n04", "v", {REG_BINARY, {1, 2, 3, 4}}},
      {"\"v\"=HEX(7):61,00,00,00,00,00", "v", {REG_MULTI_SZ, {'a', 0, 0, 0, 0, 0}}},
      {"\"a\\\\b\\\"c\"=\"x\\\\y\\\"z\\q\"",
       "a\\b\"c",
       {REG_SZ, {'x', 0, '\\', 0, 'y', 0, '"', 0, 'z', 0, '\\', 0, 'q', 0, 0, 0}}},
      {"\"v\"=hex:", "v", {REG_BINARY, {}}},
      {"@=\"d\"", "", {REG_SZ, {'d', 0, 0, 0}}},
      {"\"v\"=hex(a0000000):1", "v", {0xA0000000u, {1}}},
      {"  \"v\"=dword:1\t", "v", {REG_DWORD, {1, 0, 0, 0}}},
  };
  for (const Case& C : Cases) {
    const std::string Text =
        std::string(
            "\xEF\xBB\xBFWindows Registry Editor Version 5.00\n; note\n[HKCU\\Software\\L\\]\n") +
        C.Line + "\n";
    const TRegFileContent F = ParseRegText(Text);
    ASSERT_EQ(F.Entries.size(), 2u) << C.Line;
    EXPECT_EQ(F.Entries[0].Path, "Software\\L");
    EXPECT_EQ(F.Entries[1].Kind, TRegFileEntry::SetValue) << C.Line;
    EXPECT_EQ(F.Entries[1].Line, 4);
    EXPECT_EQ(F.Entries[1].Name, C.Name) << C.Line;
    EXPECT_EQ(F.Entries[1].Value, C.Value) << C.Line;
  }
}

// "[-key]" deletes a tree, "v"=- a value; values in a deleted section are
// skipped; one file may write several hives.
TEST_F(RegFiles, DeletionsAndSeveralHives) {
  {
    TRegistry R;
    ASSERT_TRUE(R.OpenKey("Software\\Old\\Deep", true));
    R.WriteInteger("x", 1);
    ASSERT_TRUE(R.OpenKey("\\Software\\Keep", true));
    R.WriteInteger("gone", 1);
    R.WriteInteger("stay", 2);
  }
  EXPECT_EQ(
      ImportRegText("REGEDIT4\r\n[-HKEY_CURRENT_USER\\Software\\Old]\r\n\"ignored\"=dword:1\r\n"
                    "[-HKEY_CURRENT_USER\\Software\\NeverWas]\r\n"
                    "[HKEY_CURRENT_USER\\Software\\Keep]\r\n\"gone\"=-\r\n\"absent\"=-\r\n"
                    "[HKEY_LOCAL_MACHINE\\Software\\Velmont]\r\n\"m\"=dword:2\r\n"),
      1);
  TRegistry R;
  EXPECT_FALSE(R.KeyExists("Software\\Old"));
  ASSERT_TRUE(R.OpenKey("Software\\Keep", false));
  EXPECT_FALSE(R.ValueExists("gone"));
  EXPECT_EQ(R.ReadInteger("stay"), 2);
  R.SetRootKey(HKEY_LOCAL_MACHINE);
  ASSERT_TRUE(R.OpenKey("Software\\Velmont", false));
  EXPECT_EQ(R.ReadInteger("m"), 2);
}

// A damaged file names its line and changes nothing, although valid lines
// (a new value, a key deletion) come before the damage.
TEST_F(RegFiles, DamagedImportNamesTheLineAndChangesNothing) {
  {
    TRegistry R;
    ASSERT_TRUE(R.OpenKey("Software\\Keep", true));
    R.WriteString("s", "kept");
  }
  const std::string Before = ExportRegText(HKEY_CURRENT_USER, "", TRegFileFormat::Version5);
  const std::string Good =
      "REGEDIT4\r\n\r\n[HKEY_CURRENT_USER\\Software\\T]\r\n\"New\"=dword:1\r\n"
      "[-HKEY_CURRENT_USER\\Software\\Keep]\r\n";
  struct Case {
    const char* Bad;
    const char* Message;
  };
  const Case Cases[] = {
      {"[HKEY_NOWHERE\\X]", "Unknown root key 'HKEY_NOWHERE' on line 6"},
      {"[HKEY_CURRENT_USER\\X", "']' expected on line 6"},
      {"[-HKEY_CURRENT_USER]", "A root key cannot be deleted on line 6"},
      {"[HKCU\\Software\\T]\r\n\"a\"=dword:123456789", "Invalid dword value on line 7"},
      {"[HKCU\\Software\\T]\r\n\"a\"=dword:", "Invalid dword value on line 7"},
      {"[HKCU\\Software\\T]\r\n\"a\"=hex:01,zz", "Invalid hex data on line 7"},
      {"[HKCU\\Software\\T]\r\n\"a\"=hex:01,,02", "Invalid hex data on line 7"},
      {"[HKCU\\Software\\T]\r\n\"a\"=hex:01,123", "Invalid hex data on line 7"},
      {"[HKCU\\Software\\T]\r\n\"a\"=hex:01,\\\r\n  02,\\", "Invalid hex data on line 7"},
      {"[HKCU\\Software\\T]\r\n\"a\"=hex(2:01", "Invalid value type on line 7"},
      {"[HKCU\\Software\\T]\r\n\"a\"=hex(123456789):01", "Invalid value type on line 7"},
      {"[HKCU\\Software\\T]\r\n\"a\"=hex;01", "':' expected on line 7"},
      {"[HKCU\\Software\\T]\r\n\"a\"=\"abc", "Unterminated string on line 7"},
      {"[HKCU\\Software\\T]\r\n\"a=1", "Unterminated name on line 7"},
      {"[HKCU\\Software\\T]\r\n\"a\" 1", "'=' expected on line 7"},
      {"[HKCU\\Software\\T]\r\n\"a\"=\"b\" x", "Unexpected text after the value on line 7"},
      {"[HKCU\\Software\\T]\r\n\"a\"=word:1", "Invalid value data on line 7"},
      {"garbage", "Invalid line on line 6"},
  };
  for (const Case& C : Cases) {
    EXPECT_EQ(ErrorOf(Good + C.Bad + "\r\n"), C.Message) << C.Bad;
    EXPECT_EQ(ErrorOf(V5(Cp1252ToUtf8(Good + C.Bad))), C.Message) << C.Bad;
  }
  EXPECT_EQ(ErrorOf("\"a\"=\"b\"\r\n"), "Registry file header expected on line 1");
  EXPECT_EQ(ErrorOf(""), "Registry file header expected on line 1");
  EXPECT_EQ(ErrorOf("REGEDIT4\r\n\"a\"=\"b\"\r\n"), "Value outside a key on line 2");
  // A hive that may not be written fails the whole import, other hives too.
  std::filesystem::create_directories(Dir + "/hives/HKEY_LOCAL_MACHINE.db");
  EXPECT_EQ(ErrorOf(Good + "[HKEY_LOCAL_MACHINE\\Software\\V]\r\n"),
            "Access denied to HKEY_LOCAL_MACHINE on line 6");
  EXPECT_EQ(ExportRegText(HKEY_CURRENT_USER, "", TRegFileFormat::Version5), Before);
  EXPECT_EQ(ImportRegText(Good), 1);
  EXPECT_NE(ExportRegText(HKEY_CURRENT_USER, "", TRegFileFormat::Version5), Before);
}

TEST(RegValueLine, DefaultNameEscapesAndLongNames) {
  EXPECT_EQ(RegValueLine("", TRegValue{REG_DWORD, {1, 0, 0, 0}}, TRegFileFormat::Version5),
            "@=dword:00000001");
  EXPECT_EQ(RegValueLine("a\"b", TRegValue{REG_DWORD, {1, 0, 0}}, TRegFileFormat::Version5),
            "\"a\\\"b\"=hex(4):01,00,00");
  // A name past the break point breaks after every byte.
  const std::string Long(80, 'n');
  EXPECT_EQ(RegValueLine(Long, TRegValue{REG_BINARY, {1, 2}}, TRegFileFormat::Regedit4),
            "\"" + Long + "\"=hex:01,\\\r\n  02");
}
