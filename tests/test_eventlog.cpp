// The logging contract: routing of every log call to the hooks, the system
// log's notifiers and options, the notifier event, and the two concrete
// writers (file under many threads, system log socket).
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <thread>

#include "vel/ExtendedInterfaces.h"
#include "vel/VelUtils.h"
#include "vel/rtl/Components.h"
#include "vel/rtl/Registry.h"
#include "vel/rtl/TypInfo.h"

using namespace vel;

namespace {

// Records every hook call as one text.
class TRecordingLog : public TIEventLog {
 public:
  std::vector<std::string> Calls;
  void WriteIdentBegin(int32_t LogCat) override {
    Calls.push_back("begin " + std::to_string(LogCat));
  }
  void WriteIdentEnd(int32_t LogCat) override { Calls.push_back("end " + std::to_string(LogCat)); }
  void WriteNameValue(const std::string& Name, const std::string& Value, int32_t LogCat) override {
    Calls.push_back("nv " + Name + "=" + Value + " " + std::to_string(LogCat));
  }
  void Reinitialize() { Initialize(); }

 protected:
  void WriteText(const std::string& Text, int32_t LogCat, bool NewLine) override {
    Calls.push_back("text " + Text + " " + std::to_string(LogCat) + (NewLine ? " nl" : ""));
  }
};

class TLogged : public TComponent {
  VEL_CLASS(TLogged, TComponent)
 public:
  using TComponent::TComponent;
  int32_t Amount = 0;
};

}  // namespace

VEL_PUBLISHED(TLogged, prop("Amount", &TLogged::Amount))

TEST(EventLog, EveryCallReachesWriteTextOnlyForEnabledCategories) {
  TRecordingLog Log;
  TStringStream Bytes("line one\nline two");
  IPtr<IStream> Stream(new TStreamAdapter(&Bytes));
  TLogged Comp(nullptr);
  Comp.SetName("Ledger");
  Comp.Amount = 42;

  struct Case {
    const char* Name;
    std::function<void()> Call;
    std::vector<std::string> Expected;
  };
  const std::vector<Case> Cases = {
      {"plain", [&] { Log.WriteLog(u"hello"); }, {"text hello 0 nl"}},
      {"category 5 off", [&] { Log.WriteLog(u"hidden", 5); }, {}},
      {"ansi text", [&] { Log.WriteLog(u"caf\u00e9 \u20ac", 0); }, {"text caf\xE9 \x80 0 nl"}},
      {"format",
       [&] {
         Log.WriteLogFmt(u"%s=%d", {"n", 7}, 0);
       },
       {"text n=7 0 nl"}},
      {"format category off", [&] { Log.WriteLogFmt(u"%d", {1}, 2); }, {}},
      {"stream from start",
       [&] {
         Bytes.SetPosition(5);
         Log.WriteLogStream(Stream, 0);
       },
       {"text line one\nline two 0 nl"}},
      {"component",
       [&] { Log.WriteComponentToLog(&Comp, 0); },
       {"text object Ledger: TLogged\r\n  Amount = 42\r\nend\r\n 0 nl"}},
  };
  for (const Case& C : Cases) {
    Log.Calls.clear();
    C.Call();
    EXPECT_EQ(Log.Calls, C.Expected) << C.Name;
  }
}

TEST(EventLog, WriteLogFmtErrorPropagatesAndWritesNothing) {
  TRecordingLog Log;
  EXPECT_THROW(Log.WriteLogFmt(u"%d", {"text"}, 0), EConvertError);
  EXPECT_TRUE(Log.Calls.empty());
}

TEST(EventLog, WriteLogValuesRouting) {
  TRecordingLog Log;
  // Lengths differ: one line of text when the category is on, else nothing.
  Log.WriteLogValues(u"m", {"a", "b"}, {1}, 0);
  EXPECT_EQ(Log.Calls, std::vector<std::string>{"text Invalid Log Values Idents <> Values 0 nl"});
  Log.Calls.clear();
  Log.WriteLogValues(u"m", {"a"}, {1, 2}, 3);
  EXPECT_TRUE(Log.Calls.empty());

  // Empty lists: the block with the message only; the category is the
  // hooks' business.
  Log.WriteLogValues(u"only", {}, {}, 4);
  EXPECT_EQ(Log.Calls, (std::vector<std::string>{"begin 4", "nv MsgText=only 4", "end 4"}));

  Log.Calls.clear();
  Log.WriteLogValues(u"trade",
                     {"int", "bool", "char", "float", "cur", "str", "ptr", "i64", "wchar"},
                     {-12, true, 'x', 2.5, Currency::FromScaled(123456), "abc", &Log,
                      static_cast<long long>(1) << 40, u'\u0416'},
                     1);
  EXPECT_EQ(Log.Calls, (std::vector<std::string>{"begin 1", "nv MsgText=trade 1", "nv int=-12 1",
                                                 "nv bool=True 1", "nv char=x 1", "nv float=2.5 1",
                                                 "nv cur=12.3456 1", "nv str=abc 1", "nv ptr= 1",
                                                 "nv i64= 1", "nv wchar= 1", "end 1"}));
}

TEST(EventLog, VarRecToStrFalseAndFloats) {
  EXPECT_EQ(VarRecToStr(false), "False");
  EXPECT_EQ(VarRecToStr(0.1), "0.1");
  EXPECT_EQ(VarRecToStr(1e20), "1E20");
  EXPECT_EQ(ComponentToString(nullptr), "");
}

TEST(EventLog, LogIDCountsFromOneAfterInitialize) {
  TRecordingLog Log;
  EXPECT_EQ(Log.NextLogID(), 1);
  EXPECT_EQ(Log.NextLogID(), 2);
  EXPECT_EQ(Log.NextLogID(), 3);
  Log.Reinitialize();
  EXPECT_EQ(Log.NextLogID(), 1);
}

TEST(EventLog, NoReferenceCounting) {
  TRecordingLog Log;
  IEventlog* I = &Log;
  EXPECT_EQ(I->_AddRef(), -1);
  EXPECT_EQ(I->_Release(), -1);
  {
    IPtr<IExtendEventLog> P;
    ASSERT_EQ(I->QueryInterface(IIDOf<IExtendEventLog>, P.Out()), S_OK);
    IPtr<ISystemLog> S;
    EXPECT_EQ(I->QueryInterface(IIDOf<ISystemLog>, S.Out()), E_NOINTERFACE);
  }
  Log.WriteLog(u"still alive");
  EXPECT_EQ(Log.Calls.size(), 1u);
}

namespace {

class TCountedOptions : public TILogOptions {
 public:
  explicit TCountedOptions(std::vector<std::string>* Calls) : FCalls(Calls) {}
  ~TCountedOptions() override { FCalls->push_back("options freed"); }
  void LoadFromRegistry(TRegistry* Registry) override {
    FCalls->push_back(Registry ? "load given" : "load own");
  }

 private:
  std::vector<std::string>* FCalls;
};

class TOptionsLog : public TISystemLog {
 public:
  explicit TOptionsLog(std::vector<std::string>* Calls) : TISystemLog(DeferInit), FCalls(Calls) {
    InitLog();
  }
  ~TOptionsLog() override { DoneLog(); }
  std::vector<std::string> Texts;

 protected:
  IPtr<ILogOptions> LoadOptions() override {
    FCalls->push_back("LoadOptions");
    return IPtr<ILogOptions>(new TCountedOptions(FCalls));
  }
  void WriteText(const std::string& Text, int32_t LogCat, bool NewLine) override {
    Texts.push_back(Text);
    TISystemLog::WriteText(Text, LogCat, NewLine);
  }

 private:
  std::vector<std::string>* FCalls;
};

class TNotifyRecorder : public TObject {
 public:
  std::vector<std::string> Got;
  TObject* Sender = nullptr;
  void OnMsg(TObject* S, const std::string& Msg, int32_t LogCat) {
    Sender = S;
    Got.push_back(Msg + "/" + std::to_string(LogCat));
  }
};

}  // namespace

TEST(SystemLog, OptionsAreLoadedInitializedAndReleased) {
  std::vector<std::string> Calls;
  {
    TOptionsLog Log(&Calls);
    EXPECT_EQ(Calls, (std::vector<std::string>{"LoadOptions", "load own"}));
    ASSERT_TRUE(Log.GetOptions());
    EXPECT_FALSE(Log.GetRunning());
  }
  EXPECT_EQ(Calls.back(), "options freed");
  TISystemLog Plain;
  EXPECT_FALSE(Plain.GetOptions());
}

TEST(SystemLog, NotifierListKeepsOneEntryAndTheBaseDoesNotBroadcast) {
  // Notifiers are not counted: they must outlive the log that lists them.
  TILogNotifier N1, N2;
  TNotifyRecorder Rec;
  std::vector<std::string> Calls;
  TOptionsLog Log(&Calls);
  N1.OnLogMsg = TLogMsgEvent::Bind<&TNotifyRecorder::OnMsg>(&Rec);

  Log.RemoveNotifier(&N1);  // no list yet
  EXPECT_EQ(Log.NotifierCount(), 0);
  Log.AddNotifier(&N1);
  Log.AddNotifier(&N1);
  Log.AddNotifier(&N2);
  EXPECT_EQ(Log.NotifierCount(), 2);
  Log.RemoveNotifier(&N2);
  Log.RemoveNotifier(&N2);
  EXPECT_EQ(Log.NotifierCount(), 1);

  Log.WriteLog(u"kept quiet");
  EXPECT_EQ(Log.Texts, std::vector<std::string>{"kept quiet"});
  EXPECT_TRUE(Rec.Got.empty());
}

TEST(SystemLog, NotifierPassesBytesAndItselfAsSender) {
  TILogNotifier N;
  TNotifyRecorder Rec;
  N.NotifyMsg(u"unassigned", 0);  // no handler: nothing happens
  N.OnLogMsg = TLogMsgEvent::Bind<&TNotifyRecorder::OnMsg>(&Rec);
  static_cast<ILogNotifier*>(&N)->NotifyMsg(u"\u00e9t\u00e9", 9);
  EXPECT_EQ(Rec.Got, std::vector<std::string>{"\xE9t\xE9/9"});
  EXPECT_EQ(Rec.Sender, &N);
  EXPECT_FALSE(gSystemLog);
}

TEST(SystemLog, AddAndRemoveFromManyThreads) {
  std::vector<TILogNotifier> Notifiers(64);
  TISystemLog Log;
  std::vector<std::thread> Threads;
  for (int T = 0; T < 8; ++T)
    Threads.emplace_back([&, T] {
      for (int Round = 0; Round < 200; ++Round)
        for (int I = T; I < 64; I += 8) {
          Log.AddNotifier(&Notifiers[I]);
          if (Round % 2) Log.RemoveNotifier(&Notifiers[I]);
        }
    });
  for (auto& T : Threads) T.join();
  EXPECT_EQ(Log.NotifierCount(), 0);
  for (auto& N : Notifiers) Log.AddNotifier(&N);
  EXPECT_EQ(Log.NotifierCount(), 64);
}

// ---------------------------------------------------------------------------
// Concrete writers

namespace {

class LogFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* Base = std::getenv("VEL_TEST_TMPDIR");
    std::string Tmpl = std::string(Base && *Base ? Base : "/tmp") + "/vel_log_XXXXXX";
    std::filesystem::create_directories(std::filesystem::path(Tmpl).parent_path());
    ASSERT_NE(::mkdtemp(Tmpl.data()), nullptr);
    Dir = Tmpl;
    ::setenv("VEL_REGISTRY_DIR", (Dir + "/hives").c_str(), 1);
  }
  void TearDown() override {
    ::unsetenv("VEL_REGISTRY_DIR");
    std::error_code Ec;
    std::filesystem::remove_all(Dir, Ec);
  }
  std::vector<std::string> Lines(const std::string& Path) {
    std::ifstream In(Path, std::ios::binary);
    std::vector<std::string> R;
    for (std::string L; std::getline(In, L);) R.push_back(L);
    return R;
  }
  std::string Dir;
};

const std::regex StampRe(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} \[(-?\d+)\] (.*)$)");

}  // namespace

TEST_F(LogFiles, LinesBlocksCategoriesAndNotifiers) {
  TILogNotifier N;
  TNotifyRecorder Rec;
  IPtr<TLogCategoryOptions> Opts(new TLogCategoryOptions);
  Opts->Enable(7);
  std::string Path = Dir + "/sub/app.log";
  TFileSystemLog Log(Path, Opts);
  ASSERT_TRUE(Log.GetRunning());
  N.OnLogMsg = TLogMsgEvent::Bind<&TNotifyRecorder::OnMsg>(&Rec);
  Log.AddNotifier(&N);

  Log.WriteLog(u"caf\u00e9");
  Log.WriteLog(u"seven", 7);
  Log.WriteLog(u"eight", 8);
  Log.WriteLogValues(u"deal", {"qty"}, {3}, 7);
  Log.WriteLogValues(u"skipped", {"qty"}, {3}, 8);
  Log.Stop();
  Log.WriteLog(u"after stop");

  std::vector<std::string> Got;
  for (const std::string& L : Lines(Path)) {
    std::smatch M;
    ASSERT_TRUE(std::regex_match(L, M, StampRe)) << L;
    Got.push_back(M[1].str() + "|" + M[2].str());
  }
  EXPECT_EQ(Got, (std::vector<std::string>{"0|caf\xC3\xA9", "7|seven", "7|begin",
                                           "7|  MsgText = deal", "7|  qty = 3", "7|end"}));
  EXPECT_EQ(Rec.Got,
            (std::vector<std::string>{"caf\xE9/0", "seven/7", "begin/7", "  MsgText = deal/7",
                                      "  qty = 3/7", "end/7", "after stop/0"}));
}

TEST_F(LogFiles, UnwritableFileRaisesOnStart) {
  EXPECT_THROW(TFileSystemLog(Dir, nullptr, true), EFCreateError);
  TFileSystemLog Later(Dir + "/x.log", nullptr, false);
  EXPECT_FALSE(Later.GetRunning());
}

TEST_F(LogFiles, EightThreadsLoseAndInterleaveNoLine) {
  constexpr int Threads = 8, PerThread = 10000;
  std::string Path = Dir + "/busy.log";
  {
    TFileSystemLog Log(Path);
    ISystemLog* Shared = &Log;
    std::vector<std::thread> Workers;
    for (int T = 0; T < Threads; ++T)
      Workers.emplace_back([Shared, T] {
        for (int I = 0; I < PerThread; ++I)
          Shared->WriteLog(Cp1252ToWide("worker " + std::to_string(T) + " line " +
                                        std::to_string(I) + " " + std::string(40, 'a' + T)));
      });
    for (auto& W : Workers) W.join();
  }
  std::vector<std::string> All = Lines(Path);
  ASSERT_EQ(All.size(), static_cast<size_t>(Threads * PerThread));
  const std::regex LineRe(R"(worker (\d) line (\d+) ([a-h]{40}))");
  std::vector<int> Next(Threads, 0);
  for (const std::string& L : All) {
    std::smatch M, Body;
    ASSERT_TRUE(std::regex_match(L, M, StampRe)) << L;
    std::string Text = M[2].str();
    ASSERT_TRUE(std::regex_match(Text, Body, LineRe)) << L;
    int T = std::stoi(Body[1].str());
    // Each thread's lines arrive in its own order, complete.
    ASSERT_EQ(std::stoi(Body[2].str()), Next[T]++) << L;
    ASSERT_EQ(Body[3].str(), std::string(40, 'a' + T)) << L;
  }
  for (int T = 0; T < Threads; ++T) EXPECT_EQ(Next[T], PerThread);
}

TEST_F(LogFiles, SysLogDatagrams) {
  std::string Sock = Dir + "/log.sock";
  int Fd = ::socket(AF_UNIX, SOCK_DGRAM, 0);
  ASSERT_GE(Fd, 0);
  sockaddr_un Addr{};
  Addr.sun_family = AF_UNIX;
  ASSERT_LT(Sock.size(), sizeof Addr.sun_path);
  memcpy(Addr.sun_path, Sock.data(), Sock.size());
  ASSERT_EQ(::bind(Fd, reinterpret_cast<sockaddr*>(&Addr), sizeof Addr), 0);
  timeval Tv{5, 0};
  setsockopt(Fd, SOL_SOCKET, SO_RCVTIMEO, &Tv, sizeof Tv);

  IPtr<TLogCategoryOptions> Opts(new TLogCategoryOptions);
  Opts->EnableAll(true);
  TSysLogSystemLog Log("velapp", Opts, true, Sock);
  Log.WriteLog(u"ready \u00e9");
  Log.WriteLogValues(u"m", {"k"}, {true}, 3);

  const std::string Pid = std::to_string(getpid());
  const std::vector<std::pair<std::string, std::string>> Expected = {{"14", "ready \xC3\xA9"},
                                                                     {"15", "begin"},
                                                                     {"15", "  MsgText = m"},
                                                                     {"15", "  k = True"},
                                                                     {"15", "end"}};
  const std::regex Re(R"(^<(\d+)>[A-Z][a-z]{2} [ 1-3]\d \d\d:\d\d:\d\d velapp\[(\d+)\]: (.*)$)");
  for (const auto& [Pri, Text] : Expected) {
    char Buf[512];
    ssize_t N = ::recv(Fd, Buf, sizeof Buf, 0);
    ASSERT_GT(N, 0);
    std::string Msg(Buf, static_cast<size_t>(N));
    std::smatch M;
    ASSERT_TRUE(std::regex_match(Msg, M, Re)) << Msg;
    EXPECT_EQ(M[1].str(), Pri);
    EXPECT_EQ(M[2].str(), Pid);
    EXPECT_EQ(M[3].str(), Text);
  }
  ::close(Fd);
  // No service listening: messages are dropped without error.
  TSysLogSystemLog Lost("velapp", nullptr, true, Dir + "/nobody.sock");
  EXPECT_NO_THROW(Lost.WriteLog(u"dropped"));
}

TEST_F(LogFiles, CategoriesComeFromTheRegistryKey) {
  const std::string Key = "Software\\Velmont\\Corvane\\Log";
  struct Row {
    const char* Name;
    std::function<void(TRegistry&)> Write;
    std::vector<int32_t> On, Off;
  } Rows[] = {
      {"no key", nullptr, {0}, {1, -1}},
      {"list",
       [](TRegistry& R) { R.WriteString("Categories", "1, 5;12\t-3  $10"); },
       {0, 1, 5, 12, -3, 16},
       {2, 3, 6}},
      {"damaged entries skipped",
       [](TRegistry& R) { R.WriteExpandString("categories", ",x,7,,99999999999,8a"); },
       {7},
       {8, 99}},
      {"all", [](TRegistry& R) { R.WriteInteger("AllCategories", 1); }, {3, -40, 1 << 30}, {}},
      {"wrong types skipped",
       [](TRegistry& R) {
         R.WriteInteger("Categories", 5);
         R.WriteString("AllCategories", "1");
       },
       {0},
       {5, 1}},
  };
  for (const Row& Case : Rows) {
    SCOPED_TRACE(Case.Name);
    {
      TRegistry Reg;
      Reg.DeleteKey("\\" + Key);
      if (Case.Write) {
        ASSERT_TRUE(Reg.OpenKey(Key, true));
        Case.Write(Reg);
      }
    }
    IPtr<TLogCategoryOptions> Opts(new TLogCategoryOptions(Key));
    Opts->Enable(-1);  // replaced by what the registry holds
    TFileSystemLog Log(Dir + "/cat.log", Opts, false);
    for (int32_t C : Case.On) EXPECT_TRUE(Opts->Enabled(C)) << C;
    for (int32_t C : Case.Off) EXPECT_FALSE(Opts->Enabled(C)) << C;
  }

  // A given registry is read in its own root and keeps its access; the
  // log writes what the options enable.
  TRegistry Machine;
  Machine.SetRootKey(HKEY_LOCAL_MACHINE);
  ASSERT_TRUE(Machine.OpenKey(Key, true));
  Machine.WriteString("Categories", "9");
  IPtr<TLogCategoryOptions> Opts(new TLogCategoryOptions("\\" + Key, HKEY_LOCAL_MACHINE));
  TFileSystemLog Log(Dir + "/machine.log", Opts);
  Log.WriteLog(u"nine", 9);
  Log.WriteLog(u"ten", 10);
  Machine.WriteString("Categories", "10");
  Opts->LoadFromRegistry(&Machine);
  EXPECT_FALSE(Machine.HasCurrentKey());
  EXPECT_EQ(Machine.Access(), KEY_ALL_ACCESS);
  Log.WriteLog(u"nine", 9);
  Log.WriteLog(u"ten", 10);
  std::vector<std::string> Got;
  for (const std::string& L : Lines(Dir + "/machine.log")) Got.push_back(L.substr(24));
  EXPECT_EQ(Got, (std::vector<std::string>{"[9] nine", "[10] ten"}));
}
