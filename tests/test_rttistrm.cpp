// RttiStrm: the property walk over the XML configuration file (read, write,
// folders, encodings, atomic save under SIGKILL), the registry passes (the
// export file byte for byte, the probe, by-name values), the error policy
// and the singleton's messages.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <variant>

#include <pugixml.hpp>

#include "TestSupport.h"
#include "vel/RegistryClasses.h"
#include "vel/RttiStrm.h"
#include "vel/rtl/Components.h"
#include "vel/rtl/Messages.h"
#include "vel/rtl/Registry.h"
#include "vel/rtl/Streams.h"
#include "vel/rtl/TypInfo.h"

using namespace vel;
using namespace vel_test;

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
  // The whole state in one line, to compare in one step.
  std::string Dump() const {
    return std::to_string(Width) + "|" + Caption + "|" + std::to_string(Visible) + "|" +
           std::to_string(Dock) + "|" + std::to_string(Ratio) + "|" + std::to_string(Tag) + "|" +
           Font->Face + "|" + std::to_string(Font->Size);
  }
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

using namespace rttistrm_test;

VEL_PUBLISHED(TFontSet, prop("Face", &TFontSet::Face), prop("Size", &TFontSet::Size))
VEL_PUBLISHED(TWindowSet, prop("Width", &TWindowSet::Width), prop("Caption", &TWindowSet::Caption),
              prop("Visible", &TWindowSet::Visible), prop("Dock", &TWindowSet::Dock),
              prop("Ratio", &TWindowSet::Ratio), prop("Tag", &TWindowSet::Tag),
              readonly_prop("Font", &TWindowSet::Font))
VEL_IMPLEMENT(TNoPublished)
VEL_PUBLISHED(TWithNil, prop("Width", &TWithNil::Width), prop("Font", &TWithNil::Font))
VEL_IMPLEMENT(THandler)
VEL_PUBLISHED(TRooted, prop("Size", &TRooted::Size))
VEL_PUBLISHED(TOwner, prop("Width", &TOwner::Width), readonly_prop("Area", &TOwner::Area),
              readonly_prop("Panel", &TOwner::Panel), readonly_prop("Zone", &TOwner::Zone))

namespace {

// The case's configuration files are <data>/Misc/Corvane.config (read) and
// <system>/Misc/Corvane.config (written); dialogs are recorded.
class RttiStream : public ScratchTest {
 protected:
  void SetUp() override {
    Saved = SetDialogSink([this](const std::string& Text, const std::string&, UINT) {
      Dialogs.push_back(Text);
      return IDOK;
    });
    S = RTTIStream();
    S->SetSilentErrors(true);
    S->OnException = nullptr;
  }
  void TearDown() override { SetDialogSink(Saved); }
  void PutConfig(const std::string& Xml) const { WriteFile(DataConfig(), Xml); }
  std::string DataConfig() const { return DataDir + "/Misc/Corvane.config"; }
  std::string SystemConfig() const { return SystemDir + "/Misc/Corvane.config"; }
  std::string Errors() const { return Joined(S->Errors()); }
  // Writes each value (a number as REG_DWORD, text as REG_SZ) under Key.
  static void PutValues(HKEY Root, const std::string& Key,
                        const std::map<std::string, std::variant<int32_t, std::string>>& Values) {
    TRegistry R;
    R.SetRootKey(Root);
    ASSERT_TRUE(R.OpenKey(Key, true));
    for (const auto& [Name, V] : Values) {
      if (V.index() == 0)
        R.WriteInteger(Name, std::get<0>(V));
      else
        R.WriteString(Name, std::get<1>(V));
    }
  }

  TDialogSink Saved;
  std::vector<std::string> Dialogs;
  TRTTIStream* S = nullptr;
};

}  // namespace

// ---------------------------------------------------------------------------
// Configuration file

TEST_F(RttiStream, ConfigReadFillsEveryStoredKindAndDescends) {
  PutConfig(
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Settings>\n  <Window>\n    <Width>640</Width>\n"
      "    <Caption>Caf\xC3\xA9 &amp; co</Caption>\n    <Visible>1</Visible>\n    <Dock>2</Dock>\n"
      "    <Ratio>9</Ratio>\n    <Tag>7</Tag>\n    <Font><Face>Arial</Face><Size>9</Size></Font>\n"
      "  </Window>\n</Settings>\n");
  TWindowSet W, Flat;
  EXPECT_EQ(S->StreamConfigToProps("Window", &W, true), 0);
  EXPECT_EQ(S->State(), RttiStrm::ssReadingRegistry);
  // Windows-1252 in the object; floats and Tag are never read.
  EXPECT_EQ(W.Dump(), "640|Caf\xE9 & co|1|2|0.500000|0|Arial|9");
  // Without recursion the nested object is left alone.
  EXPECT_EQ(S->StreamConfigToProps("Window", &Flat, false), 0);
  EXPECT_EQ(Flat.Dump(), "640|Caf\xE9 & co|1|2|0.500000|0||0");
}

TEST_F(RttiStream, ConfigValuesThatDoNotConvert) {
  // Text that is no number reads as 0; an ordinal outside the enumeration
  // is the literal "SInvalidPropertyElement %s" error with an empty name.
  PutConfig("<R><W><Width>12px</Width><Dock>9</Dock><Visible>yes</Visible><Caption/></W></R>");
  TWindowSet W;
  W.Width = 5;
  W.Dock = dkTop;
  W.Visible = true;
  W.Caption = "old";
  EXPECT_EQ(S->StreamConfigToProps("W", &W, false), 1);
  EXPECT_EQ(Errors(), "SInvalidPropertyElement ");
  EXPECT_EQ(W.Dump(), "0||0|1|0.500000|0||0");
}

TEST_F(RttiStream, ConfigThatCannotBeLoadedChangesNothing) {
  for (const char* Bytes : {"", "<Settings><Window>", "not xml at all", (const char*)nullptr}) {
    SCOPED_TRACE(Bytes ? Bytes : "(no file)");
    if (Bytes)
      PutConfig(Bytes);
    else
      std::filesystem::remove(DataConfig());
    TWindowSet W;
    W.Width = 3;
    EXPECT_EQ(S->StreamPropsToConfig(&W, "Window", true), 0);
    EXPECT_EQ(S->StreamConfigToProps("Window", &W, true), 0);
    EXPECT_EQ(W.Width, 3);
    EXPECT_FALSE(std::filesystem::exists(SystemConfig()));
  }
}

TEST_F(RttiStream, ConfigWriteReplacesTextKeepsTheRestAndNeverAddsElements) {
  const std::string In =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n<!-- suite settings -->\r\n<Settings>\r\n"
      "\t<Window a=\"1\">\r\n\t\t<Width>1</Width>\r\n\t\t<Caption><b>old</b> text</Caption>\r\n"
      "\t\t<Font><Size>1</Size></Font><Dock/><Visible>0</Visible>\r\n"
      "\t</Window>\r\n</Settings>\r\n";
  PutConfig(In);
  TWindowSet W;
  W.Width = -20;
  W.Caption = "A<\xE9>";
  W.Visible = true;
  W.Dock = dkTop;
  W.Font->Size = 11;
  W.Font->Face = "Courier";  // no element: not added
  EXPECT_EQ(S->StreamPropsToConfig(&W, "Window", true), 0);
  EXPECT_EQ(S->State(), RttiStrm::ssWritingRegistry);
  EXPECT_EQ(
      ReadFile(SystemConfig()),
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n<!-- suite settings -->\r\n<Settings>\r\n"
      "\t<Window a=\"1\">\r\n\t\t<Width>-20</Width>\r\n\t\t<Caption>A&lt;\xC3\xA9&gt;</Caption>\r\n"
      "\t\t<Font><Size>11</Size></Font><Dock>1</Dock><Visible>1</Visible>\r\n\t</Window>\r\n"
      "</Settings>\r\n");
  // Read from the data folder, written to the system folder: the data
  // folder's file is untouched.
  EXPECT_EQ(ReadFile(DataConfig()), In);
}

TEST_F(RttiStream, ConfigInWindows1252StaysWindows1252) {
  PutConfig(
      "<?xml version=\"1.0\" encoding=\"windows-1252\"?><R><W><Caption>\xE9t\xE9 \x80</Caption></W>"
      "<Note>&#20013;&#x1F600;?</Note></R>");
  TWindowSet W;
  EXPECT_EQ(S->StreamConfigToProps("W", &W, false), 0);
  EXPECT_EQ(W.Caption, "\xE9t\xE9 \x80");
  W.Caption = "\xFC\x80";
  EXPECT_EQ(S->StreamPropsToConfig(&W, "W", false), 0);
  EXPECT_EQ(ReadFile(SystemConfig()),
            "<?xml version=\"1.0\" encoding=\"windows-1252\"?><R><W><Caption>\xFC\x80</Caption></W>"
            "<Note>&#20013;&#128512;?</Note></R>");
}

// The key is an XPath below the document element; one that selects nothing
// shows the dialog and fails for each stored property, and with recursion
// the nested objects fail once more as a whole.
TEST_F(RttiStream, ConfigKeyIsAnXPathBelowTheDocumentElement) {
  PutConfig(
      "<R><Apps><App id=\"a\"><Width>1</Width></App>"
      "<App id=\"b\"><Width>2</Width></App></Apps></R>");
  TWindowSet W;
  EXPECT_EQ(S->StreamConfigToProps("Apps/App[@id='b']", &W, false), 0);
  EXPECT_EQ(W.Width, 2);
  EXPECT_THROW(S->StreamConfigToProps("Apps/[", &W, false), ERttiStream);
  EXPECT_EQ(S->StreamConfigToProps("Missing", &W, false), 4);
  EXPECT_EQ(Dialogs, std::vector<std::string>(4, "ADOMNode is not assigned ..."));
  EXPECT_EQ(S->StreamConfigToProps("Missing", &W, true), 5);
  EXPECT_EQ(Dialogs.size(), 8u);
}

// A child saving the file in a loop is killed at a random moment; the file
// is then always one complete version, never a mixture or a stub.
TEST_F(RttiStream, ConfigSaveSurvivesSigkill) {
  ::setenv("VEL_SYSTEM_DIR", DataDir.c_str(), 1);  // read and write one file
  const auto Caption = [](int I) {
    return std::string(size_t(I % 7 + 1) * 3000, char('a' + I % 26));
  };
  const std::string Pad(20000, 'x');
  PutConfig("<R><W><Width>0</Width><Caption>" + Pad + "</Caption></W></R>");
  for (int Round = 0; Round < 5; ++Round) {
    const pid_t Pid = ::fork();
    ASSERT_GE(Pid, 0);
    if (Pid == 0) {
      TWindowSet W;
      for (int I = 1;; ++I) {
        W.Width = I;
        W.Caption = Caption(I);
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
    const int Width = D.child("R").child("W").child("Width").text().as_int(-1);
    ASSERT_GE(Width, 0);
    EXPECT_EQ(D.child("R").child("W").child("Caption").text().get(), Width ? Caption(Width) : Pad);
  }
}

TEST_F(RttiStream, ReadAndWriteConfigValueByHand) {
  PutConfig("<R><W a=\"x\"><Width>5</Width></W></R>");
  EXPECT_EQ(ReadConfigValue("W/Width"), "5");
  EXPECT_EQ(ReadConfigValue("W/@a"), "x");
  WriteConfigValue("W/@a", "\xC3\xA9");
  EXPECT_EQ(ReadFile(SystemConfig()), "<R><W a=\"\xC3\xA9\"><Width>5</Width></W></R>");
  EXPECT_EQ(Raised<ERttiStream>([] { ReadConfigValue("W/Height"); }),
            "Nothing in the configuration file matches \"W/Height\"");
}

// ---------------------------------------------------------------------------
// Error policy

TEST_F(RttiStream, ObjectsThatCannotBeWalkedAreOneErrorEach) {
  PutConfig("<R><W><Width>4</Width><Font><Size>1</Size></Font></W></R>");
  TNoPublished N;
  EXPECT_EQ(S->StreamConfigToProps("W", &N, true), 1);
  EXPECT_EQ(Errors(),
            "Only descendants of TPersistent containing Published properties can be Streamed");
  // A nil nested object is skipped; errors are cleared at the start of each pass.
  TWithNil O;
  EXPECT_EQ(S->StreamConfigToProps("W", &O, true), 1);
  EXPECT_EQ(Errors(), "Object to stream is not assigned");
  EXPECT_EQ(O.Width, 4);
  TComponent C;  // Name and Tag only: nothing stored, nothing wrong
  C.SetName("Keep");
  PutConfig("<R><W><Name>Other</Name><Tag>3</Tag></W></R>");
  EXPECT_EQ(S->StreamConfigToProps("W", &C, true), 0);
  EXPECT_EQ(Errors(), "");
  EXPECT_EQ(C.Name() + std::to_string(C.Tag()), "Keep0");
}

TEST_F(RttiStream, OnExceptionDecidesWhenErrorsAreNotSilent) {
  PutConfig("<R><W><Width>1</Width><Dock>7</Dock><Font><Size>1</Size></Font></W></R>");
  THandler H;
  S->SetSilentErrors(false);
  // Unassigned handler: the first error goes to the caller. The property
  // handler and then the object's walk each collect it; the walk stopped
  // at Dock.
  TWindowSet W, W2;
  EXPECT_THROW(S->StreamConfigToProps("W", &W, true), EPropertyConvertError);
  EXPECT_EQ(Errors(), "SInvalidPropertyElement |SInvalidPropertyElement ");
  EXPECT_EQ(W.Dump(), "0||0|0|0.500000|0||0");
  // A handler that leaves Ignore true re-raises too, and is asked at both
  // levels.
  S->OnException = TRTTIExceptionEvent::Bind<&THandler::Handle>(&H);
  EXPECT_THROW(S->StreamConfigToProps("W", &W, true), EPropertyConvertError);
  EXPECT_EQ(H.Calls, 2);
  EXPECT_EQ(H.LastMessage, "SInvalidPropertyElement ");
  // Setting it false swallows the error and the walk goes on.
  H.Answer = false;
  EXPECT_EQ(S->StreamConfigToProps("W", &W2, true), 1);
  EXPECT_EQ(H.Calls, 3);
  EXPECT_EQ(W2.Dump(), "1||0|0|0.500000|0||1");
  S->SetSilentErrors(true);
  S->OnException = nullptr;
}

// ---------------------------------------------------------------------------
// Singleton

TEST_F(RttiStream, SingletonRefusesDirectConstructionAndCountsRecreation) {
  EXPECT_EQ(Raised<ERttiStream>([] { TRTTIStream Direct; }),
            "Run Time Type Information Stream Already Initialized.");
  delete RTTIStream();
  EXPECT_EQ(Raised<ERttiStream>([] { TRTTIStream Direct; }),
            "Call the class function to reference this class.");
  Dialogs.clear();
  TRTTIStream* A = TRTTIStream::RTTIStream();
  EXPECT_EQ(A, RTTIStream());
  EXPECT_EQ(A->State(), RttiStrm::ssCreating);
  EXPECT_TRUE(A->SilentErrors());
  ASSERT_EQ(Dialogs.size(), 1u);
  const std::string Prefix = "Singleton Created Again";
  ASSERT_EQ(Dialogs[0].rfind(Prefix, 0), 0u);
  const int N = std::stoi(Dialogs[0].substr(Prefix.size()));
  EXPECT_GE(N, 2);
  delete A;
  RTTIStream();
  EXPECT_EQ(Dialogs.back(), Prefix + std::to_string(N + 1));
  S = RTTIStream();
}

// ---------------------------------------------------------------------------
// Registry passes

// The export shows the values of HKEY_CURRENT_USER\<key>, each read into the
// object first; nested objects follow the owner's values, nothing escaped.
TEST_F(RttiStream, ExportFileBytes) {
  PutValues(HKEY_CURRENT_USER, "Software\\X", {{"Width", 10}, {"Caption", "A"}});
  TWindowSet W;
  W.Dock = dkBottom;
  const std::string File = Dir + "/x.reg";
  EXPECT_THROW(S->StreamPropsToRegEdit("Software\\X", Dir + "/no/such/dir/x.reg", &W, false),
               EFCreateError);
  EXPECT_EQ(W.Width, 0);  // raised before reading
  EXPECT_EQ(S->StreamPropsToRegEdit("Software\\X", File, &W, false), 2);
  EXPECT_EQ(S->State(), RttiStrm::ssWritingRegEdit);
  EXPECT_EQ(Errors(), "Failed to get data for 'Dock'|Failed to get data for 'Visible'");
  EXPECT_EQ(
      ReadFile(File),
      "REGEDIT4\r\n\r\n[Software\\XSoftware\\X]\r\n\r\n[Software\\X\\]\r\n\"Caption\"=\"A\"\r\n"
      "\"Dock\"=dword:00000002\r\n\"Visible\"=dword:00000000\r\n\"Width\"=dword:0000000a\r\n");

  PutValues(HKEY_CURRENT_USER, "Software\\X",
            {{"Width", -1}, {"Dock", 2}, {"Visible", 1}, {"Caption", "C:\\a \"q\""}});
  PutValues(HKEY_CURRENT_USER, "Software\\X\\Font", {{"Size", 255}});
  W.Font->Face = "gone";  // no value: read as empty
  EXPECT_EQ(S->StreamPropsToRegEdit("Software\\X\\", File, &W, true), 0);
  EXPECT_EQ(
      ReadFile(File),
      "REGEDIT4\r\n\r\n[Software\\X\\Software\\X]\r\n\r\n[Software\\X\\]\r\n"
      "\"Caption\"=\"C:\\a \"q\"\"\r\n\"Dock\"=dword:00000002\r\n\"Visible\"=dword:00000001\r\n"
      "\"Width\"=dword:ffffffff\r\n\r\n[Software\\X\\Font\\]\r\n\"Face\"=\"\"\r\n"
      "\"Size\"=dword:000000ff\r\n");
  EXPECT_EQ(W.Dump(), "-1|C:\\a \"q\"|1|2|0.500000|0||255");
}

TEST_F(RttiStream, ReadFromLocalMachineWithMissingAndMistypedValues) {
  PutValues(HKEY_LOCAL_MACHINE, "Software\\W", {{"Width", "7"}, {"Dock", 5}, {"Visible", 7}});
  TWindowSet W;
  W.Width = 3;
  W.Caption = "stale";
  W.Dock = dkTop;
  W.Font->Face = "stale";
  EXPECT_EQ(S->StreamRegToProps("Software\\W\\", &W, true), 3);
  EXPECT_EQ(Errors(),
            "SInvalidPropertyElement |Invalid data type for 'Width'|Failed to get data for 'Size'");
  // A missing string clears the property.
  EXPECT_EQ(W.Dump(), "3||1|1|0.500000|0||0");
}

// A settings object reads from its own hive, and the accessor keeps that
// hive for the rest of the pass.
TEST_F(RttiStream, SettingsObjectReadsFromItsOwnHive) {
  PutValues(HKEY_LOCAL_MACHINE, "Software\\O", {{"Width", 1}});
  PutValues(HKEY_LOCAL_MACHINE, "Software\\O\\Area", {{"Size", 2}});
  PutValues(HKEY_LOCAL_MACHINE, "Software\\O\\Panel", {{"Size", 99}});
  PutValues(HKEY_CURRENT_USER, "Software\\O\\Panel", {{"Size", 3}});
  PutValues(HKEY_CURRENT_USER, "Software\\O\\Zone", {{"Size", 4}});
  TOwner O;
  S->StreamRegToProps("Software\\O", &O, true);
  EXPECT_EQ(std::vector<int>({O.Width, O.Area->Size, O.Panel->Size, O.Zone->Size}),
            std::vector<int>({1, 2, 3, 4}));
}

TEST_F(RttiStream, ProbeReportsMissingOrdinalsAndWritesNothing) {
  PutValues(HKEY_LOCAL_MACHINE, "Software\\P", {{"Caption", "x"}});
  TWindowSet W;
  W.Width = 8;
  EXPECT_EQ(S->StreamPropsToReg(&W, "Software\\P", false), 3);
  EXPECT_EQ(S->State(), RttiStrm::ssWritingRegistry);
  EXPECT_EQ(Errors(),
            "Failed to get data for 'Dock'|Failed to get data for 'Visible'|Failed to get data for "
            "'Width'");
  TRegistry R;
  R.SetRootKey(HKEY_LOCAL_MACHINE);
  ASSERT_TRUE(R.OpenKey("Software\\P", false));
  EXPECT_EQ(R.ValueNamesUtf8(), std::vector<std::string>{"Caption"});
  EXPECT_EQ(W.Width, 8);
  EXPECT_EQ(W.Caption, "");
}

TEST_F(RttiStream, PropValuesByNameNamesTheLastKeyComponent) {
  PutValues(HKEY_CURRENT_USER, "Software\\App\\Grid",
            {{"Width", 120}, {"Caption", "Grid 1"}, {"Dock", 1}, {"Visible", 0}});
  PutValues(HKEY_CURRENT_USER, "Software\\App\\Grid\\Font", {{"Size", 9}, {"Face", "Mono"}});
  TWindowSet W;
  EXPECT_EQ(S->PropValuesByName(&W, "Software\\App\\Grid", {"Width", "size", "Caption"}, true), 0);
  EXPECT_EQ(S->State(), RttiStrm::ssReadingByName);
  EXPECT_EQ(Joined(S->PropValues()), "Grid.Caption=Grid 1|Grid.Width=120|Font.Size=9");
  EXPECT_EQ(W.Font->Face, "Mono");
  S->PropValues()->Clear();
}
