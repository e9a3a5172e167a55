// The settings example: the suite's settings brought over from Windows.
//
//   vel_settings [FILE.reg [Corvane.config]]
//
// 1. imports a registry file exported by regedit on Windows (a built-in one
//    when none is given) into the registry hives;
// 2. makes a settings registry, which reads the XML configuration file
//    (a built-in one when none is given) through its default storage;
// 3. switches it to the registry key the import filled and reads again
//    (a string the registry lacks reads as empty, a number keeps its value);
// 4. prints the module list and the registry export of the settings.
//
// Everything happens in a folder of its own under $TMPDIR (hives, data and
// system folders), removed at the end, so the user's settings are never
// touched. Exits with 0 when the values read are those of the inputs.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "vel/CorRegistry.h"
#include "vel/RttiStrm.h"
#include "vel/rtl/RegFiles.h"
#include "vel/rtl/StringLists.h"
#include "vel/rtl/SysUtils.h"

using namespace vel;

namespace {

// What a Windows installation's regedit export of the suite's key looks
// like (REGEDIT4: Windows-1252, CRLF, backslashes doubled in strings).
const char* const BuiltInReg =
    "REGEDIT4\r\n"
    "\r\n"
    "[HKEY_LOCAL_MACHINE\\Software\\Velmont\\Corvane]\r\n"
    "\"Version\"=\"7.4\"\r\n"
    "\"VelmontURL\"=\"https://www.velmont.example/\"\r\n"
    "\"UpdateStart\"=dword:00000001\r\n"
    "\"ProviderDB\"=\"[DataPath]\\\\prov.mdb\"\r\n"
    "\"RestrictMaxCorVersion\"=dword:00000008\r\n"
    "\"DocumentPath\"=\"D:\\\\Velmont\\\\Dokumente f\xFCr Kunden\"\r\n"
    "\r\n"
    "[HKEY_LOCAL_MACHINE\\Software\\Velmont\\Corvane\\Shell\\ProductTree]\r\n"
    "\"Module\"=\"ProductTree.bpl\"\r\n"
    "\"Version\"=\"7.4.1\"\r\n"
    "\r\n"
    "[HKEY_CURRENT_USER\\Software\\Velmont\\Corvane]\r\n"
    "\"Version\"=\"7.4\"\r\n"
    "\"UpdateStart\"=dword:00000001\r\n"
    "\"RestrictMaxCorVersion\"=dword:00000008\r\n"
    "\r\n";

const char* const BuiltInConfig =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<Configuration>\n"
    "  <Corvane>\n"
    "    <Version>7.3</Version>\n"
    "    <ListsDB>[DataPath]/lists.db</ListsDB>\n"
    "    <Dialogs><FatalDialog><Module>FatalDlg.so</Module><Version>2.0</Version></FatalDialog></Dialogs>\n"
    "  </Corvane>\n"
    "</Configuration>\n";

std::string ReadFile(const std::string& Name) {
  std::ifstream F(Name, std::ios::binary);
  std::stringstream S;
  S << F.rdbuf();
  return S.str();
}

void WriteFile(const std::string& Name, const std::string& Bytes) {
  std::filesystem::create_directories(std::filesystem::path(Name).parent_path());
  std::ofstream(Name, std::ios::binary) << Bytes;
}

int Check(bool Ok, const char* What) {
  if (!Ok) std::fprintf(stderr, "settings: unexpected %s\n", What);
  return Ok ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  const char* Tmp = std::getenv("TMPDIR");
  std::string Work = std::string(Tmp && *Tmp ? Tmp : "/tmp") + "/vel_settings_XXXXXX";
  if (!::mkdtemp(Work.data())) {
    std::perror("settings: mkdtemp");
    return 1;
  }
  ::setenv("VEL_REGISTRY_DIR", (Work + "/registry").c_str(), 1);
  ::setenv("VEL_DATA_DIR", (Work + "/data").c_str(), 1);
  ::setenv("VEL_SYSTEM_DIR", (Work + "/system").c_str(), 1);
  bool BuiltIn = argc < 2;
  int Failures = 0;
  try {
    std::string RegFile = argc > 1 ? argv[1] : Work + "/corvane.reg";
    if (argc < 2) WriteFile(RegFile, BuiltInReg);
    WriteFile(Work + "/data/Misc/Corvane.config", argc > 2 ? ReadFile(argv[2]) : BuiltInConfig);

    std::printf("Imported %d values from %s\n", ImportRegFile(RegFile), RegFile.c_str());

    TCorvaneRegistry Settings(nullptr, stConfigFile);
    std::printf("\nFrom the configuration file (element \"%s\"):\n", Settings.ConfigKey().c_str());
    std::printf("  Version  = %s\n  ListsDB  = %s\n", Settings.Version.c_str(), Settings.ListsDB().c_str());
    if (BuiltIn) {
      Failures += Check(Settings.Version == "7.3", "configuration Version");
      Failures += Check(Settings.ListsDB() == Work + "/data/lists.db", "[DataPath] in ListsDB");
    }

    Settings.SetRegKey(SCorvaneRegKey);
    std::printf("\nFrom HKEY_LOCAL_MACHINE\\%s:\n", Settings.RegKey().c_str());
    std::printf("  Version      = %s\n  ProviderDB   = %s\n  UpdateStart  = %s\n  DocumentPath = %s\n",
                Settings.Version.c_str(), Settings.ProviderDB().c_str(),
                Settings.UpdateStart ? "true" : "false", Cp1252ToUtf8(Settings.DocumentPath).c_str());
    if (BuiltIn) {
      Failures += Check(Settings.Version == "7.4", "registry Version");
      Failures += Check(Settings.UpdateStart && Settings.RestrictMaxCorVersion == 8, "registry numbers");
      Failures += Check(Settings.ProviderDB() == Work + "/data\\prov.mdb", "[DataPath] in ProviderDB");
      Failures += Check(Settings.DocumentPath == "D:\\Velmont\\Dokumente f\xFCr Kunden", "DocumentPath");
      Failures += Check(Settings.Shell()->ProductTree()->Module == "ProductTree.bpl", "nested module");
    }

    TStringList Modules;
    Settings.AllModulesInfo(&Modules, true);
    std::printf("\nModules:\n");
    for (int I = 0; I < Modules.Count(); ++I)
      if (Modules.Strings(I) != "=") std::printf("  %s\n", Modules.Strings(I).c_str());
    if (BuiltIn)
      Failures += Check(Modules.Count() == 13 && Modules.Strings(0) == "ProductTree.bpl=7.4.1",
                        "module list");

    std::string Export = Work + "/export.reg";
    Settings.SaveAsRegFile(Export, true);
    std::string Text = ReadFile(Export);
    std::printf("\nExport (values of HKEY_CURRENT_USER), first lines:\n");
    std::istringstream Lines(Text);
    std::string Line;
    for (int I = 0; I < 14 && std::getline(Lines, Line); ++I) {
      if (!Line.empty() && Line.back() == '\r') Line.pop_back();
      std::printf("  %s\n", Line.c_str());
    }
    if (BuiltIn)
      Failures += Check(Text.find("\"RestrictMaxCorVersion\"=dword:00000008\r\n") != std::string::npos,
                        "export");
  } catch (const std::exception& E) {
    std::fprintf(stderr, "settings: %s\n", E.what());
    Failures = 1;
  }
  std::error_code Ec;
  std::filesystem::remove_all(Work, Ec);
  return Failures ? 1 : 0;
}
