// RttiStrm: the property walk over the XML configuration file (read, write,
// folders, encodings, atomic save under SIGKILL), the registry passes (the
// export file byte for byte, the probe, by-name values), the error policy
// and the singleton's messages.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>

#include <pugixml.hpp>

#include "vel/RegistryClasses.h"
#include "vel/RttiStrm.h"
#include "vel/rtl/Components.h"
#include "vel/rtl/Messages.h"
#include "vel/rtl/Registry.h"
#include "vel/rtl/Streams.h"
#include "vel/rtl/TypInfo.h"

using namespace vel;

namespace rttistrm_test {

enum TDock : uint8_t { dkNone, dkTop, dkBottom };
VEL_ENUM(TDock, "dkNone", "dkTop", "dkBottom")

class TFontSet : public TPersistent {
  VEL_CLASS(TFontSet, TPersistent)
 public:
  std::string Face;
  int32_t Size = 0;
};

class TWindowSet : public TPersistent {
  VEL_CLASS(TWindowSet, TPersistent)
 public:
  TWindowSet() : Font(new TFontSet) {}
  ~TWindowSet() override { delete Font; }
  int32_t Width = 0;
  std::string Caption;
  bool Visible = false;
  TDock Dock = dkNone;
  double Ratio = 0.5;  // a float: never stored
  int32_t Tag = 0;     // published under the name the walk skips
  TFontSet* Font;
};

class TNoPublished : public TPersistent {
  VEL_CLASS(TNoPublished, TPersistent)
};

// A nested object property that holds nil.
class TWithNil : public TPersistent {
  VEL_CLASS(TWithNil, TPersistent)
 public:
  int32_t Width = 0;
  TFontSet* Font = nullptr;
};

class THandler : public TObject {
  VEL_CLASS(THandler, TObject)
 public:
  bool Answer = true;
  int Calls = 0;
  std::string LastMessage;
  void Handle(TRTTIStream*, const std::exception& E, bool& Ignore) {
    ++Calls;
    LastMessage = E.what();
    EXPECT_TRUE(Ignore);
    Ignore = Answer;
  }
};

}  // namespace rttistrm_test

using namespace rttistrm_test;

VEL_PUBLISHED(TFontSet, prop("Face", &TFontSet::Face), prop("Size", &TFontSet::Size))
VEL_PUBLISHED(TWindowSet, prop("Width", &TWindowSet::Width), prop("Caption", &TWindowSet::Caption),
              prop("Visible", &TWindowSet::Visible), prop("Dock", &TWindowSet::Dock),
              prop("Ratio", &TWindowSet::Ratio), prop("Tag", &TWindowSet::Tag),
              readonly_prop("Font", &TWindowSet::Font))
VEL_IMPLEMENT(TNoPublished)
VEL_PUBLISHED(TWithNil, prop("Width", &TWithNil::Width), prop("Font", &TWithNil::Font))
VEL_IMPLEMENT(THandler)

namespace {

class RttiStream : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* Base = std::getenv("VEL_TEST_TMPDIR");
    std::string Tmpl = std::string(Base && *Base ? Base : "/tmp") + "/vel_rttistrm_XXXXXX";
    std::filesystem::create_directories(std::filesystem::path(Tmpl).parent_path());
    ASSERT_NE(::mkdtemp(Tmpl.data()), nullptr);
    Dir = Tmpl;
    DataDir = Dir + "/data";
    SystemDir = Dir + "/system";
    std::filesystem::create_directories(DataDir + "/Misc");
    ::setenv("VEL_DATA_DIR", DataDir.c_str(), 1);
    ::setenv("VEL_SYSTEM_DIR", SystemDir.c_str(), 1);
    ::setenv("VEL_REGISTRY_DIR", (Dir + "/registry").c_str(), 1);
    Saved = SetDialogSink([this](const std::string& Text, const std::string&, UINT) {
      Dialogs.push_back(Text);
      return IDOK;
    });
    S = RTTIStream();
    S->SetSilentErrors(true);
    S->OnException = nullptr;
  }
  void TearDown() override {
    SetDialogSink(Saved);
    std::error_code Ec;
    std::filesystem::remove_all(Dir, Ec);
  }
  static void Put(const std::string& Path, const std::string& Bytes) {
    std::filesystem::create_directories(std::filesystem::path(Path).parent_path());
    std::ofstream(Path, std::ios::binary) << Bytes;
  }
  static std::string Get(const std::string& Path) {
    std::ifstream F(Path, std::ios::binary);
    std::stringstream B;
    B << F.rdbuf();
    return B.str();
  }
  std::string DataConfig() const { return DataDir + "/Misc/Corvane.config"; }
  std::string SystemConfig() const { return SystemDir + "/Misc/Corvane.config"; }
  std::vector<std::string> ErrorLines() const {
    std::vector<std::string> L;
    for (int I = 0; I < S->Errors()->Count(); ++I) L.push_back(S->Errors()->Strings(I));
    return L;
  }

  std::string Dir, DataDir, SystemDir;
  TDialogSink Saved;
  std::vector<std::string> Dialogs;
  TRTTIStream* S = nullptr;
};

const char* const WindowXml =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<Settings>\n"
    "  <Window>\n"
    "    <Width>640</Width>\n"
    "    <Caption>Caf\xC3\xA9 &amp; co</Caption>\n"
    "    <Visible>1</Visible>\n"
    "    <Dock>2</Dock>\n"
    "    <Ratio>9</Ratio>\n"
    "    <Tag>7</Tag>\n"
    "    <Font><Face>Arial</Face><Size>9</Size></Font>\n"
    "  </Window>\n"
    "</Settings>\n";

}  // namespace

// ---------------------------------------------------------------------------
// Configuration file

TEST_F(RttiStream, ConfigReadFillsEveryStoredKindAndDescends) {
  Put(DataConfig(), WindowXml);
  TWindowSet W;
  EXPECT_EQ(S->StreamConfigToProps("Window", &W, true), 0);
  EXPECT_EQ(S->State(), RttiStrm::ssReadingRegistry);
  EXPECT_EQ(W.Width, 640);
  EXPECT_EQ(W.Caption, "Caf\xE9 & co");  // Windows-1252 in the object
  EXPECT_TRUE(W.Visible);
  EXPECT_EQ(W.Dock, dkBottom);
  EXPECT_EQ(W.Ratio, 0.5);  // floats are not stored
  EXPECT_EQ(W.Tag, 0);      // Tag is never read
  EXPECT_EQ(W.Font->Face, "Arial");
  EXPECT_EQ(W.Font->Size, 9);

  // Without recursion the nested object is left alone.
  TWindowSet Flat;
  EXPECT_EQ(S->StreamConfigToProps("Window", &Flat, false), 0);
  EXPECT_EQ(Flat.Width, 640);
  EXPECT_EQ(Flat.Font->Size, 0);
}

TEST_F(RttiStream, ConfigValuesThatDoNotConvert) {
  // Text that is no number reads as 0; an ordinal outside the enumeration
  // is the literal "SInvalidPropertyElement %s" error with an empty name.
  Put(DataConfig(),
      "<R><W><Width>12px</Width><Dock>9</Dock><Visible>yes</Visible><Caption/></W></R>");
  TWindowSet W;
  W.Width = 5;
  W.Dock = dkTop;
  W.Visible = true;
  W.Caption = "old";
  EXPECT_EQ(S->StreamConfigToProps("W", &W, false), 1);
  EXPECT_EQ(ErrorLines(), std::vector<std::string>{"SInvalidPropertyElement "});
  EXPECT_EQ(W.Width, 0);
  EXPECT_EQ(W.Dock, dkTop);
  EXPECT_FALSE(W.Visible);
  EXPECT_EQ(W.Caption, "");
}

TEST_F(RttiStream, ConfigThatCannotBeLoadedChangesNothing) {
  for (const char* Bytes : {"", "<Settings><Window>", "not xml at all"}) {
    SCOPED_TRACE(Bytes);
    Put(DataConfig(), Bytes);
    TWindowSet W;
    W.Width = 3;
    EXPECT_EQ(S->StreamPropsToConfig(&W, "Window", true), 0);
    EXPECT_EQ(S->StreamConfigToProps("Window", &W, true), 0);
    EXPECT_EQ(W.Width, 3);
    EXPECT_FALSE(std::filesystem::exists(SystemConfig()));
  }
  std::filesystem::remove(DataConfig());
  TWindowSet W;
  EXPECT_EQ(S->StreamPropsToConfig(&W, "Window", true), 0);
  EXPECT_FALSE(std::filesystem::exists(SystemConfig()));
}

TEST_F(RttiStream, ConfigWriteReplacesTextKeepsTheRestAndNeverAddsElements) {
  const std::string In =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n"
      "<!-- suite settings -->\r\n"
      "<Settings>\r\n"
      "\t<Window a=\"1\">\r\n"
      "\t\t<Width>1</Width>\r\n"
      "\t\t<Caption><b>old</b> text</Caption>\r\n"
      "\t\t<Font><Size>1</Size></Font><Dock/><Visible>0</Visible>\r\n"
      "\t</Window>\r\n"
      "</Settings>\r\n";
  Put(DataConfig(), In);
  TWindowSet W;
  W.Width = -20;
  W.Caption = "A<\xE9>";
  W.Visible = true;
  W.Dock = dkTop;
  W.Font->Size = 11;
  W.Font->Face = "Courier";  // no element: not added
  EXPECT_EQ(S->StreamPropsToConfig(&W, "Window", true), 0);
  EXPECT_EQ(S->State(), RttiStrm::ssWritingRegistry);
  EXPECT_EQ(Get(SystemConfig()),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n"
            "<!-- suite settings -->\r\n"
            "<Settings>\r\n"
            "\t<Window a=\"1\">\r\n"
            "\t\t<Width>-20</Width>\r\n"
            "\t\t<Caption>A&lt;\xC3\xA9&gt;</Caption>\r\n"
            "\t\t<Font><Size>11</Size></Font><Dock>1</Dock><Visible>1</Visible>\r\n"
            "\t</Window>\r\n"
            "</Settings>\r\n");
  // Read from the data folder, written to the system folder: the data
  // folder's file is untouched.
  EXPECT_EQ(Get(DataConfig()), In);
}

TEST_F(RttiStream, ConfigInWindows1252StaysWindows1252) {
  const std::string In =
      "<?xml version=\"1.0\" encoding=\"windows-1252\"?><R><W><Caption>\xE9t\xE9 \x80</Caption></W>"
      "<Note>&#20013;&#x1F600;?</Note></R>";
  Put(DataConfig(), In);
  TWindowSet W;
  EXPECT_EQ(S->StreamConfigToProps("W", &W, false), 0);
  EXPECT_EQ(W.Caption, "\xE9t\xE9 \x80");
  W.Caption = "\xFC\x80";
  EXPECT_EQ(S->StreamPropsToConfig(&W, "W", false), 0);
  EXPECT_EQ(Get(SystemConfig()),
            "<?xml version=\"1.0\" encoding=\"windows-1252\"?><R><W><Caption>\xFC\x80</Caption></W>"
            "<Note>&#20013;&#128512;?</Note></R>");
}

TEST_F(RttiStream, ConfigKeyIsAnXPathBelowTheDocumentElement) {
  Put(DataConfig(),
      "<R><Apps><App id=\"a\"><Width>1</Width></App><App id=\"b\"><Width>2</Width></App></Apps></R>");
  TWindowSet W;
  EXPECT_EQ(S->StreamConfigToProps("Apps/App[@id='b']", &W, false), 0);
  EXPECT_EQ(W.Width, 2);
  EXPECT_THROW(S->StreamConfigToProps("Apps/[", &W, false), ERttiStream);
}

TEST_F(RttiStream, ConfigKeyThatSelectsNothing) {
  // Each stored property shows the dialog and fails; with recursion the
  // nested objects fail once more as a whole.
  Put(DataConfig(), "<R/>");
  TWindowSet W;
  EXPECT_EQ(S->StreamConfigToProps("Missing", &W, false), 4);
  EXPECT_EQ(Dialogs, std::vector<std::string>(4, "ADOMNode is not assigned ..."));
  Dialogs.clear();
  EXPECT_EQ(S->StreamConfigToProps("Missing", &W, true), 5);
  EXPECT_EQ(Dialogs.size(), 4u);
}

// A child saving the file in a loop is killed at a random moment; the file
// is then always one complete version, never a mixture or a stub.
TEST_F(RttiStream, ConfigSaveSurvivesSigkill) {
  ::setenv("VEL_SYSTEM_DIR", DataDir.c_str(), 1);  // read and write one file
  std::string Pad(20000, 'x');
  Put(DataConfig(), "<R><W><Width>0</Width><Caption>" + Pad + "</Caption></W></R>");
  for (int Round = 0; Round < 5; ++Round) {
    pid_t Pid = ::fork();
    ASSERT_GE(Pid, 0);
    if (Pid == 0) {
      TWindowSet W;
      for (int I = 1;; ++I) {
        W.Width = I;
        W.Caption = std::string(static_cast<size_t>(I % 7 + 1) * 3000, static_cast<char>('a' + I % 26));
        RTTIStream()->StreamPropsToConfig(&W, "W", false);
      }
    }
    ::usleep(20000 + Round * 15000);
    ::kill(Pid, SIGKILL);
    int Status = 0;
    ::waitpid(Pid, &Status, 0);
    ASSERT_TRUE(WIFSIGNALED(Status));
    pugi::xml_document D;
    ASSERT_TRUE(D.load_file(DataConfig().c_str())) << "round " << Round;
    std::string Caption = D.child("R").child("W").child("Caption").text().get();
    int Width = D.child("R").child("W").child("Width").text().as_int(-1);
    ASSERT_GE(Width, 0);
    if (Width > 0)
      EXPECT_EQ(Caption, std::string(static_cast<size_t>(Width % 7 + 1) * 3000,
                                     static_cast<char>('a' + Width % 26)));
    else
      EXPECT_EQ(Caption, Pad);
  }
}

TEST_F(RttiStream, ReadAndWriteConfigValueByHand) {
  Put(DataConfig(), "<R><W a=\"x\"><Width>5</Width></W></R>");
  EXPECT_EQ(ReadConfigValue("W/Width"), "5");
  EXPECT_EQ(ReadConfigValue("W/@a"), "x");
  WriteConfigValue("W/@a", "\xC3\xA9");
  EXPECT_EQ(Get(SystemConfig()), "<R><W a=\"\xC3\xA9\"><Width>5</Width></W></R>");
  try {
    ReadConfigValue("W/Height");
    FAIL();
  } catch (const ERttiStream& E) {
    EXPECT_STREQ(E.what(), "Nothing in the configuration file matches \"W/Height\"");
  }
}

// ---------------------------------------------------------------------------
// Error policy

TEST_F(RttiStream, RootWithoutPublishedPropertiesIsOneError) {
  Put(DataConfig(), "<R><W/></R>");
  TNoPublished N;
  EXPECT_EQ(S->StreamConfigToProps("W", &N, true), 1);
  EXPECT_EQ(ErrorLines(), std::vector<std::string>{
                              "Only descendants of TPersistent containing Published properties can be Streamed"});
  // Errors are cleared at the start of each pass.
  TComponent C;  // Name and Tag only: nothing stored, nothing wrong
  C.SetName("Keep");
  Put(DataConfig(), "<R><W><Name>Other</Name><Tag>3</Tag></W></R>");
  EXPECT_EQ(S->StreamConfigToProps("W", &C, true), 0);
  EXPECT_EQ(S->Errors()->Count(), 0);
  EXPECT_EQ(C.Name(), "Keep");
  EXPECT_EQ(C.Tag(), 0);
}

TEST_F(RttiStream, NilNestedObjectIsOneErrorAndSkipped) {
  Put(DataConfig(), "<R><W><Width>4</Width><Font><Size>1</Size></Font></W></R>");
  TWithNil O;
  EXPECT_EQ(S->StreamConfigToProps("W", &O, true), 1);
  EXPECT_EQ(ErrorLines(), std::vector<std::string>{"Object to stream is not assigned"});
  EXPECT_EQ(O.Width, 4);
}

TEST_F(RttiStream, OnExceptionDecidesWhenErrorsAreNotSilent) {
  Put(DataConfig(), "<R><W><Width>1</Width><Dock>7</Dock><Font><Size>1</Size></Font></W></R>");
  THandler H;
  S->SetSilentErrors(false);
  // Unassigned handler: the first error goes to the caller.
  // The property handler and then the object's walk each collect it.
  TWindowSet W;
  EXPECT_THROW(S->StreamConfigToProps("W", &W, true), EPropertyConvertError);
  EXPECT_EQ(ErrorLines(), std::vector<std::string>(2, "SInvalidPropertyElement "));
  EXPECT_EQ(W.Width, 0);  // the walk stopped at Dock
  EXPECT_EQ(W.Font->Size, 0);

  // A handler that leaves Ignore true re-raises too, and is asked at both
  // levels.
  S->OnException = TRTTIExceptionEvent::Bind<&THandler::Handle>(&H);
  EXPECT_THROW(S->StreamConfigToProps("W", &W, true), EPropertyConvertError);
  EXPECT_EQ(H.Calls, 2);
  EXPECT_EQ(H.LastMessage, "SInvalidPropertyElement ");

  // Setting it false swallows the error and the walk goes on.
  H.Answer = false;
  TWindowSet W2;
  EXPECT_EQ(S->StreamConfigToProps("W", &W2, true), 1);
  EXPECT_EQ(H.Calls, 3);
  EXPECT_EQ(W2.Width, 1);
  EXPECT_EQ(W2.Font->Size, 1);
  S->SetSilentErrors(true);
  S->OnException = nullptr;
}

// ---------------------------------------------------------------------------
// Singleton

TEST_F(RttiStream, SingletonRefusesDirectConstructionAndCountsRecreation) {
  try {
    TRTTIStream Direct;
    FAIL();
  } catch (const ERttiStream& E) {
    EXPECT_STREQ(E.what(), "Run Time Type Information Stream Already Initialized.");
  }
  delete RTTIStream();
  try {
    TRTTIStream Direct;
    FAIL();
  } catch (const ERttiStream& E) {
    EXPECT_STREQ(E.what(), "Call the class function to reference this class.");
  }
  Dialogs.clear();
  TRTTIStream* A = TRTTIStream::RTTIStream();
  EXPECT_EQ(A, RTTIStream());
  EXPECT_EQ(A->State(), RttiStrm::ssCreating);
  EXPECT_TRUE(A->SilentErrors());
  ASSERT_EQ(Dialogs.size(), 1u);
  const std::string Prefix = "Singleton Created Again";
  ASSERT_EQ(Dialogs[0].rfind(Prefix, 0), 0u);
  int N = std::stoi(Dialogs[0].substr(Prefix.size()));
  EXPECT_GE(N, 2);
  delete A;
  RTTIStream();
  EXPECT_EQ(Dialogs.back(), Prefix + std::to_string(N + 1));
  S = RTTIStream();
}

// ---------------------------------------------------------------------------
// Registry passes

namespace {

struct TPut {
  std::string Name;
  std::string Text;  // a REG_SZ when Number is unset
  std::optional<int32_t> Number = std::nullopt;
};

void PutValues(HKEY Root, const std::string& Key, const std::vector<TPut>& Values) {
  TRegistry R;
  R.SetRootKey(Root);
  ASSERT_TRUE(R.OpenKey(Key, true));
  for (const TPut& V : Values) {
    if (V.Number)
      R.WriteInteger(V.Name, *V.Number);
    else
      R.WriteString(V.Name, V.Text);
  }
}

std::vector<std::string> ValueNames(HKEY Root, const std::string& Key) {
  TRegistry R;
  R.SetRootKey(Root);
  if (!R.OpenKey(Key, false)) return {};
  return R.ValueNamesUtf8();
}

}  // namespace

namespace rttistrm_test {

// A settings object with its own hive, between two plain ones.
class TRooted : public TCustomRegKey {
  VEL_CLASS(TRooted, TCustomRegKey)
 public:
  TRooted() { SetRootKey(HKEY_CURRENT_USER); }
  int32_t Size = 0;
};

class TOwner : public TPersistent {
  VEL_CLASS(TOwner, TPersistent)
 public:
  ~TOwner() override {
    delete Area;
    delete Panel;
    delete Zone;
  }
  int32_t Width = 0;
  TFontSet* Area = new TFontSet;
  TRooted* Panel = new TRooted;
  TFontSet* Zone = new TFontSet;
};

}  // namespace rttistrm_test

VEL_PUBLISHED(TRooted, prop("Size", &TRooted::Size))
VEL_PUBLISHED(TOwner, prop("Width", &TOwner::Width), readonly_prop("Area", &TOwner::Area),
              readonly_prop("Panel", &TOwner::Panel), readonly_prop("Zone", &TOwner::Zone))

TEST_F(RttiStream, ExportFileBytesLineByLine) {
  // The export shows the values of HKEY_CURRENT_USER\Software\X: each is
  // read into the object first.
  PutValues(HKEY_CURRENT_USER, "Software\\X", {{"Width", "", 10}, {"Caption", "A"}});
  TWindowSet W;
  W.Dock = dkBottom;
  std::string File = Dir + "/x.reg";
  EXPECT_EQ(S->StreamPropsToRegEdit("Software\\X", File, &W, false), 2);
  EXPECT_EQ(S->State(), RttiStrm::ssWritingRegEdit);
  EXPECT_EQ(ErrorLines(), (std::vector<std::string>{"Failed to get data for 'Dock'",
                                                     "Failed to get data for 'Visible'"}));
  EXPECT_EQ(Get(File),
            "REGEDIT4\r\n"
            "\r\n"
            "[Software\\XSoftware\\X]\r\n"
            "\r\n"
            "[Software\\X\\]\r\n"
            "\"Caption\"=\"A\"\r\n"
            "\"Dock\"=dword:00000002\r\n"
            "\"Visible\"=dword:00000000\r\n"
            "\"Width\"=dword:0000000a\r\n");
}

TEST_F(RttiStream, ExportRecursesAfterTheOwnersValuesWithoutEscaping) {
  PutValues(HKEY_CURRENT_USER, "Software\\X",
            {{"Width", "", -1}, {"Dock", "", 2}, {"Visible", "", 1}, {"Caption", "C:\\a \"q\""}});
  PutValues(HKEY_CURRENT_USER, "Software\\X\\Font", {{"Size", "", 255}});
  TWindowSet W;
  W.Font->Face = "gone";  // no value: read as empty
  std::string File = Dir + "/x.reg";
  EXPECT_EQ(S->StreamPropsToRegEdit("Software\\X\\", File, &W, true), 0);
  EXPECT_EQ(Get(File),
            "REGEDIT4\r\n"
            "\r\n"
            "[Software\\X\\Software\\X]\r\n"
            "\r\n"
            "[Software\\X\\]\r\n"
            "\"Caption\"=\"C:\\a \"q\"\"\r\n"
            "\"Dock\"=dword:00000002\r\n"
            "\"Visible\"=dword:00000001\r\n"
            "\"Width\"=dword:ffffffff\r\n"
            "\r\n"
            "[Software\\X\\Font\\]\r\n"
            "\"Face\"=\"\"\r\n"
            "\"Size\"=dword:000000ff\r\n");
  EXPECT_EQ(W.Dock, dkBottom);
  EXPECT_EQ(W.Font->Face, "");
}

TEST_F(RttiStream, ExportToAFileThatCannotBeCreatedRaisesBeforeReading) {
  PutValues(HKEY_CURRENT_USER, "Software\\X", {{"Width", "", 10}});
  TWindowSet W;
  EXPECT_THROW(S->StreamPropsToRegEdit("Software\\X", Dir + "/no/such/dir/x.reg", &W, false),
               EFCreateError);
  EXPECT_EQ(W.Width, 0);
}

TEST_F(RttiStream, ReadFromLocalMachineWithMissingAndMistypedValues) {
  PutValues(HKEY_LOCAL_MACHINE, "Software\\W",
            {{"Width", "7"}, {"Dock", "", 5}, {"Visible", "", 7}});
  TWindowSet W;
  W.Width = 3;
  W.Caption = "stale";
  W.Dock = dkTop;
  W.Font->Face = "stale";
  EXPECT_EQ(S->StreamRegToProps("Software\\W\\", &W, true), 3);
  EXPECT_EQ(ErrorLines(), (std::vector<std::string>{"SInvalidPropertyElement ",
                                                     "Invalid data type for 'Width'",
                                                     "Failed to get data for 'Size'"}));
  EXPECT_EQ(W.Width, 3);
  EXPECT_EQ(W.Caption, "");  // a missing string clears the property
  EXPECT_EQ(W.Dock, dkTop);
  EXPECT_TRUE(W.Visible);
  EXPECT_EQ(W.Font->Face, "");
}

TEST_F(RttiStream, SettingsObjectReadsFromItsOwnHive) {
  PutValues(HKEY_LOCAL_MACHINE, "Software\\O", {{"Width", "", 1}});
  PutValues(HKEY_LOCAL_MACHINE, "Software\\O\\Area", {{"Size", "", 2}});
  PutValues(HKEY_LOCAL_MACHINE, "Software\\O\\Panel", {{"Size", "", 99}});
  PutValues(HKEY_CURRENT_USER, "Software\\O\\Panel", {{"Size", "", 3}});
  PutValues(HKEY_CURRENT_USER, "Software\\O\\Zone", {{"Size", "", 4}});
  TOwner O;
  S->StreamRegToProps("Software\\O", &O, true);
  EXPECT_EQ(O.Width, 1);
  EXPECT_EQ(O.Area->Size, 2);
  EXPECT_EQ(O.Panel->Size, 3);
  // The accessor keeps the settings object's hive for the rest of the pass.
  EXPECT_EQ(O.Zone->Size, 4);
}

TEST_F(RttiStream, ProbeReportsMissingOrdinalsAndWritesNothing) {
  PutValues(HKEY_LOCAL_MACHINE, "Software\\P", {{"Caption", "x"}});
  TWindowSet W;
  W.Width = 8;
  EXPECT_EQ(S->StreamPropsToReg(&W, "Software\\P", false), 3);
  EXPECT_EQ(S->State(), RttiStrm::ssWritingRegistry);
  EXPECT_EQ(ErrorLines(), (std::vector<std::string>{"Failed to get data for 'Dock'",
                                                     "Failed to get data for 'Visible'",
                                                     "Failed to get data for 'Width'"}));
  EXPECT_EQ(ValueNames(HKEY_LOCAL_MACHINE, "Software\\P"), std::vector<std::string>{"Caption"});
  EXPECT_EQ(W.Width, 8);
  EXPECT_EQ(W.Caption, "");
}

TEST_F(RttiStream, PropValuesByNameNamesTheLastKeyComponent) {
  PutValues(HKEY_CURRENT_USER, "Software\\App\\Grid",
            {{"Width", "", 120}, {"Caption", "Grid 1"}, {"Dock", "", 1}, {"Visible", "", 0}});
  PutValues(HKEY_CURRENT_USER, "Software\\App\\Grid\\Font", {{"Size", "", 9}, {"Face", "Mono"}});
  TWindowSet W;
  EXPECT_EQ(S->PropValuesByName(&W, "Software\\App\\Grid", {"Width", "size", "Caption"}, true), 0);
  EXPECT_EQ(S->State(), RttiStrm::ssReadingByName);
  std::vector<std::string> Lines;
  for (int I = 0; I < S->PropValues()->Count(); ++I) Lines.push_back(S->PropValues()->Strings(I));
  EXPECT_EQ(Lines, (std::vector<std::string>{"Grid.Caption=Grid 1", "Grid.Width=120", "Font.Size=9"}));
  EXPECT_EQ(W.Font->Face, "Mono");
  S->PropValues()->Clear();
}
