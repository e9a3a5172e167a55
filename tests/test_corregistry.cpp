// CorRegistry: where the settings registry reads from (configuration file,
// registry key, data file), the setters' order of effects, "[DataPath]",
// the export, the module list and the singleton.
#include <gtest/gtest.h>

#include <filesystem>

#include "TestSupport.h"
#include "vel/CorRegistry.h"
#include "vel/RttiStrm.h"
#include "vel/rtl/Messages.h"
#include "vel/rtl/Registry.h"
#include "vel/rtl/Streams.h"
#include "vel/rtl/SysUtils.h"

using namespace vel;
using namespace vel_test;

namespace {

// Dialogs answer OK; the singleton is released and the currency string
// restored after each case.
class CorvaneRegistryTest : public ScratchTest {
 protected:
  void SetUp() override {
    SavedSink = SetDialogSink([](const std::string&, const std::string&, UINT) { return IDOK; });
    SavedCurrency = FormatSettings.CurrencyString;
  }
  void TearDown() override {
    ReleaseCorvaneRegistry();
    FormatSettings.CurrencyString = SavedCurrency;
    SetDialogSink(SavedSink);
  }
  void PutConfig(const std::string& Xml) const { WriteFile(DataDir + "/Misc/Corvane.config", Xml); }
  static void PutReg(HKEY Root, const std::string& Key, const std::string& Name,
                     const std::string& Value) {
    TRegistry R;
    R.SetRootKey(Root);
    ASSERT_TRUE(R.OpenKey(Key, true));
    R.WriteString(Name, Value);
  }

  std::string SavedCurrency;
  TDialogSink SavedSink;
};

const char* const ConfigXml =
    "<?xml version=\"1.0\"?>\n"
    "<Configuration>\n"
    " <Corvane>\n"
    "  <Version>7.2</Version>\n"
    "  <UpdateStart>1</UpdateStart>\n"
    "  <ProviderDB>[DataPath]\\prov.mdb</ProviderDB>\n"
    "  <ApplicationDB>[DataPath]\\app.mdb</ApplicationDB>\n"
    "  <RestrictMaxCorVersion>3</RestrictMaxCorVersion>\n"
    "  <CurrencyStr>DM</CurrencyStr>\n"
    "  <Shell><ProductTree><Module>tree.so</Module><Version>1.1</Version></ProductTree></Shell>\n"
    "  <Dialogs><FatalDialog><Caption>Fatal</Caption></FatalDialog></Dialogs>\n"
    " </Corvane>\n"
    " <Other><Version>9</Version></Other>\n"
    "</Configuration>\n";

// Records the locations the storage is made from, to show the order in
// which the setters change them.
class TRecording : public TCorvaneRegistry {
 public:
  using TCorvaneRegistry::TCorvaneRegistry;
  std::vector<std::string> Log;

 protected:
  void CreateStorage() override {
    Log.push_back(GetEnumName(TypeInfoOf<TStorageType>(), StorageType()) + " file=" + FileName() +
                  " reg=" + RegKey() + " config=" + ConfigKey());
    TCorvaneRegistry::CreateStorage();
  }
};

}  // namespace

// The values the cases look at, in one line.
std::string Values(TCorvaneRegistry& R) {
  return R.Version + "|" + std::to_string(R.UpdateStart) + "|" + R.ProviderDB() + "|" +
         R.ListsDB() + "|" + R.ApplicationDB + "|" + std::to_string(R.RestrictMaxCorVersion) + "|" +
         R.Shell()->ProductTree()->Module + "|" + R.Shell()->ProductTree()->Version + "|" +
         R.Dialogs()->FatalDialog()->Caption + "|" + R.Dialogs()->SignOffDialog()->Module;
}

TEST_F(CorvaneRegistryTest, SingletonReadsTheConfigurationFile) {
  {
    // No file: everything keeps its initial value.
    TCorvaneRegistry Bare(nullptr, stConfigFile);
    EXPECT_EQ(Bare.Storage()->Location(), "Corvane");
    EXPECT_EQ(Values(Bare), "|0||||0||||");
  }
  PutConfig(ConfigXml);
  FormatSettings.CurrencyString = " \x80 ";
  TCorvaneRegistry* R = CorvaneRegistry();
  EXPECT_EQ(R, TCorvaneRegistry::CorvaneRegistry());
  EXPECT_EQ(R->StorageType(), stConfigFile);
  EXPECT_EQ(Values(*R),
            "7.2|1|" + DataDir + "\\prov.mdb||[DataPath]\\app.mdb|3|tree.so|1.1|Fatal|");
  EXPECT_EQ(R->GetCurrencyStr(), "\x80");  // the stored "DM" is dropped
  // Freed and made again on the next call; the destructor writes nothing.
  delete R;
  EXPECT_FALSE(std::filesystem::exists(Dir + "/system/Misc/Corvane.config"));
  EXPECT_EQ(CorvaneRegistry()->Version, "7.2");
}

TEST_F(CorvaneRegistryTest, DataPathIsReplacedOnceAndOnlyByThreeSetters) {
  TCorvaneRegistry R(nullptr, stConfigFile);
  struct {
    std::string In, Out;
  } const Cases[] = {
      {"[DataPath]\\prov.mdb", DataDir + "\\prov.mdb"},
      {"x[DataPath]y[DataPath]", "x" + DataDir + "y[DataPath]"},
      {"[datapath]\\a", "[datapath]\\a"},
      {"", ""},
  };
  for (const auto& C : Cases) {
    R.SetProviderDB(C.In);
    R.SetListsDB(C.In);
    R.SetVelBankLookupDB(C.In);
    EXPECT_EQ(R.ProviderDB(), C.Out);
    EXPECT_EQ(R.ListsDB(), C.Out);
    EXPECT_EQ(R.VelBankLookupDB(), C.Out);
  }
  SetPropValue(&R, "ApplicationDB", Variant("[DataPath]\\prov.mdb"));
  SetPropValue(&R, "LookupDB", Variant("[DataPath]\\l.mdb"));
  EXPECT_EQ(R.ApplicationDB, "[DataPath]\\prov.mdb");
  EXPECT_EQ(R.LookupDB, "[DataPath]\\l.mdb");
}

TEST_F(CorvaneRegistryTest, RegKeyReadsFromLocalMachineAndClearsFileName) {
  PutReg(HKEY_LOCAL_MACHINE, "Software\\Velmont\\Corvane", "Version", "8.0");
  PutReg(HKEY_LOCAL_MACHINE, "Software\\Velmont\\Corvane", "DocumentPath", "/srv/docs");
  PutReg(HKEY_LOCAL_MACHINE, "Software\\Velmont\\Corvane\\Shell\\Advisor", "Module", "adv.so");
  PutReg(HKEY_CURRENT_USER, "Software\\Velmont\\Corvane", "Version", "user");
  TRecording R(nullptr, stConfigFile);
  R.SetFileName(Dir + "/none.dat");
  EXPECT_EQ(R.StorageType(), stDataFile);
  R.SetRegKey("Software\\Velmont\\Corvane");
  EXPECT_EQ(R.StorageType(), stRegistry);
  EXPECT_EQ(R.Version + R.DocumentPath + R.Shell()->Advisor()->Module + R.FileName(),
            "8.0/srv/docsadv.so");
  // The storage was made while the old location was still set: each setter
  // stores, switches and reads, and only then clears the other location.
  EXPECT_EQ(R.Log, (std::vector<std::string>{
                       "stDataFile file=" + Dir + "/none.dat reg= config=Corvane",
                       "stRegistry file=" + Dir +
                           "/none.dat reg=Software\\Velmont\\Corvane config=Corvane"}));
  // The same key again does nothing.
  R.Version = "changed";
  R.SetRegKey("Software\\Velmont\\Corvane");
  EXPECT_EQ(R.Version, "changed");
  EXPECT_EQ(R.Log.size(), 2u);
  // SetStorageType reads again even when the type does not change.
  R.SetStorageType(stRegistry);
  EXPECT_EQ(R.Version, "8.0");
  EXPECT_EQ(R.Log.size(), 3u);
}

TEST_F(CorvaneRegistryTest, ConfigKeySwitchesAndSetsTheFileNameAfterReading) {
  PutConfig(ConfigXml);
  TRecording R(nullptr, stRegistry);
  EXPECT_EQ(R.Version, "");  // empty registry key: nothing read
  R.SetConfigKey("Other");
  EXPECT_EQ(R.Version, "9");
  EXPECT_EQ(R.StorageType(), stConfigFile);
  EXPECT_EQ(R.FileName(), "Corvane.config");
  EXPECT_EQ(R.Log, std::vector<std::string>{"stConfigFile file= reg= config=Other"});
  // Values the new store lacks stay as they were.
  R.SetConfigKey("Corvane");
  EXPECT_EQ(R.Version + R.Shell()->ProductTree()->Module, "7.2tree.so");
  R.SetConfigKey("Other");
  EXPECT_EQ(R.Version + R.Shell()->ProductTree()->Module, "9tree.so");
}

TEST_F(CorvaneRegistryTest, DataFileRoundTripAndDamage) {
  const std::string File = Dir + "/corvane.dat";
  {
    TCorvaneRegistry A(nullptr, stConfigFile);
    A.Version = "5.1";
    A.UpdateStart = true;
    A.RestrictMaxCorVersion = 42;
    A.SetListsDB("/lists.db");
    A.Options();
    A.Dialogs()->SignOffDialog()->Module = "signoff.so";
    TFileStorage(File).SaveRegistryData(&A);
  }
  TCorvaneRegistry B(nullptr, stConfigFile), C(nullptr, stConfigFile);
  B.SetFileName(File);
  EXPECT_EQ(B.StorageType(), stDataFile);
  EXPECT_EQ(Values(B), "5.1|1||/lists.db||42||||signoff.so");
  // A missing file reads nothing; a damaged one raises out of the setter.
  EXPECT_NO_THROW(C.SetFileName(Dir + "/missing.dat"));
  const std::string Bytes = ReadFile(File);
  WriteFile(Dir + "/cut.dat", Bytes.substr(0, Bytes.size() / 2));
  EXPECT_THROW(C.SetFileName(Dir + "/cut.dat"), Exception);
  // Writing where no file can be made raises the creation error.
  EXPECT_THROW(TFileStorage(Dir + "/no/dir/x.dat").SaveRegistryData(&C), EFCreateError);
  // The default data file is the executable's path with ".dat".
  EXPECT_EQ(ExtractFileExt(TFileStorage().Location()), ".dat");
}

TEST_F(CorvaneRegistryTest, SaveAsRegFileNeedsARegistryKey) {
  TCorvaneRegistry R(nullptr, stConfigFile);
  std::string Out = Dir + "/out.reg";
  R.SaveAsRegFile(Out, true);
  EXPECT_FALSE(std::filesystem::exists(Out));

  PutReg(HKEY_LOCAL_MACHINE, "Software\\Velmont\\Corvane", "Version", "8.0");
  PutReg(HKEY_CURRENT_USER, "Software\\Velmont\\Corvane", "Version", "6.5");
  R.SetRegKey("Software\\Velmont\\Corvane");
  R.SaveAsRegFile(Out, false);
  std::string Text = ReadFile(Out);
  EXPECT_EQ(
      Text.rfind("REGEDIT4\r\n\r\n[Software\\Velmont\\Corvane\\Software\\Velmont\\Corvane]\r\n\r\n"
                 "[Software\\Velmont\\Corvane\\]\r\n\"ApplicationDB\"=\"\"\r\n",
                 0),
      0u)
      << Text;
  // The export reads HKEY_CURRENT_USER; the nested settings objects have
  // their own sections after the owner's values.
  EXPECT_NE(Text.find("\"Version\"=\"6.5\"\r\n"), std::string::npos);
  EXPECT_NE(
      Text.find(
          "\r\n\r\n[Software\\Velmont\\Corvane\\Dialogs\\FatalDialog\\]\r\n"
          "\"Caption\"=\"\"\r\n\"Module\"=\"\"\r\n\"PackageClass\"=\"\"\r\n\"Version\"=\"\"\r\n"),
      std::string::npos);

  // An existing data file (FileName, relative to the working folder after
  // SetConfigKey) blocks the export unless Overwrite is set.
  std::filesystem::remove(Out);
  R.SetConfigKey("Other");
  EXPECT_EQ(R.RegKey(), "Software\\Velmont\\Corvane");
  EXPECT_EQ(R.FileName(), "Corvane.config");
  auto Cwd = std::filesystem::current_path();
  std::filesystem::current_path(Dir);
  std::ofstream("Corvane.config") << "x";
  R.SaveAsRegFile(Out, false);
  EXPECT_FALSE(std::filesystem::exists(Out));
  R.SaveAsRegFile(Out, true);
  EXPECT_TRUE(std::filesystem::exists(Out));
  std::filesystem::current_path(Cwd);
}

TEST_F(CorvaneRegistryTest, AllModulesInfoListsThirteenModulesInOrder) {
  TCorvaneRegistry R(nullptr, stConfigFile);
  TRegPackage* Packages[] = {
      R.Shell()->ProductTree(),       R.Shell()->MessageView(),      R.Shell()->Marketing(),
      R.Shell()->Advisor(),           R.Shell()->ImportApp(),        R.Shell()->ExportApp(),
      R.Shell()->OpenNew(),           R.Shell()->DeleteApps(),       R.Shell()->DBUtilities(),
      R.Dialogs()->FatalDialog(),     R.Dialogs()->CompleteDialog(), R.Dialogs()->SignOffDialog(),
      R.Dialogs()->InCompleteDialog()};
  std::string WithVersions, Plain;
  int I = 0;
  for (TRegPackage* P : Packages) {
    P->Module = "m" + std::to_string(I);
    P->Version = "v" + std::to_string(I);
    WithVersions += (I ? "," : "") + P->Module + "=" + P->Version;
    Plain += (I++ ? "," : "") + P->Module;
  }
  TStringList L;
  L.Add("stale");
  R.AllModulesInfo(&L, true);
  EXPECT_EQ(L.CommaText(), WithVersions);
  R.AllModulesInfo(&L, false);
  EXPECT_EQ(L.CommaText(), Plain);
  EXPECT_EQ(TCorvaneRegistry::GetModuleInfo(R.Shell()->Advisor(), true), "m3=v3");
}
