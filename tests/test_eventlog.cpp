// The logging contract: routing of every log call to the hooks, the system
// log's notifiers, the notifier event, and the two concrete writers (file
// under many threads, system log socket, categories from the registry).
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <regex>
#include <thread>

#include "ResourceFiles.h"
#include "vel/ExtendedInterfaces.h"
#include "vel/VelUtils.h"
#include "vel/rtl/Components.h"
#include "vel/rtl/Registry.h"
#include "vel/rtl/TypInfo.h"

using namespace vel;

namespace {

// Records every hook call as one text; the base's WriteText still runs.
template <class TBase>
class TRecorder : public TBase {
 public:
  std::vector<std::string> Calls;
  void WriteIdentBegin(int32_t C) override { Calls.push_back("begin " + std::to_string(C)); }
  void WriteIdentEnd(int32_t C) override { Calls.push_back("end " + std::to_string(C)); }
  void WriteNameValue(const std::string& Name, const std::string& Value, int32_t C) override {
    Calls.push_back("nv " + Name + "=" + Value + " " + std::to_string(C));
  }
  void Reinitialize() { this->Initialize(); }

 protected:
  void WriteText(const std::string& Text, int32_t C, bool NewLine) override {
    Calls.push_back("text " + Text + " " + std::to_string(C) + (NewLine ? " nl" : ""));
    TBase::WriteText(Text, C, NewLine);
  }
};

class TLogged : public TComponent {
  VEL_CLASS(TLogged, TComponent)
 public:
  using TComponent::TComponent;
  int32_t Amount = 0;
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

VEL_PUBLISHED(TLogged, prop("Amount", &TLogged::Amount))

TEST(EventLog, EveryCallReachesTheHooks) {
  TRecorder<TIEventLog> Log;
  TStringStream Bytes("line one\nline two");
  IPtr<IStream> Stream(new TStreamAdapter(&Bytes));
  TLogged Comp(nullptr);
  Comp.SetName("Ledger");
  Comp.Amount = 42;
  const std::string Invalid = "text Invalid Log Values Idents <> Values 0 nl";
  struct Case {
    const char* Name;
    std::function<void()> Call;
    std::vector<std::string> Expected;
  } Cases[] = {
      {"plain", [&] { Log.WriteLog(u"hello"); }, {"text hello 0 nl"}},
      {"category 5 off", [&] { Log.WriteLog(u"hidden", 5); }, {}},
      {"ansi text", [&] { Log.WriteLog(u"caf\u00e9 \u20ac", 0); }, {"text caf\xE9 \x80 0 nl"}},
      {"format",
       [&] {
         Log.WriteLogFmt(u"%s=%d", {"n", 7}, 0);
       },
       {"text n=7 0 nl"}},
      {"format category off", [&] { Log.WriteLogFmt(u"%d", {1}, 2); }, {}},
      {"format error", [&] { EXPECT_THROW(Log.WriteLogFmt(u"%d", {"x"}, 0), EConvertError); }, {}},
      {"stream from start",
       [&] {
         Bytes.SetPosition(5);
         Log.WriteLogStream(Stream, 0);
       },
       {"text line one\nline two 0 nl"}},
      {"component",
       [&] { Log.WriteComponentToLog(&Comp, 0); },
       {"text object Ledger: TLogged\r\n  Amount = 42\r\nend\r\n 0 nl"}},
      {"values mismatched",
       [&] {
         Log.WriteLogValues(u"m", {"a", "b"}, {1}, 0);
       },
       {Invalid}},
      {"values mismatched, off",
       [&] {
         Log.WriteLogValues(u"m", {"a"}, {1, 2}, 3);
       },
       {}},
      // The block does not consult CanWriteLog: the hooks decide.
      {"values empty",
       [&] { Log.WriteLogValues(u"only", {}, {}, 4); },
       {"begin 4", "nv MsgText=only 4", "end 4"}},
      {"values of every type",
       [&] {
         Log.WriteLogValues(u"trade",
                            {"int", "t", "f", "char", "float", "small", "big", "cur", "str", "ptr",
                             "i64", "wchar"},
                            {-12, true, false, 'x', 2.5, 0.1, 1e20, Currency::FromScaled(123456),
                             "abc", &Log, static_cast<long long>(1) << 40, u'\u0416'},
                            1);
       },
       {"begin 1", "nv MsgText=trade 1", "nv int=-12 1", "nv t=True 1", "nv f=False 1",
        "nv char=x 1", "nv float=2.5 1", "nv small=0.1 1", "nv big=1E20 1", "nv cur=12.3456 1",
        "nv str=abc 1", "nv ptr= 1", "nv i64= 1", "nv wchar= 1", "end 1"}},
  };
  for (const Case& C : Cases) {
    SCOPED_TRACE(C.Name);
    Log.Calls.clear();
    C.Call();
    EXPECT_EQ(Log.Calls, C.Expected);
  }
  EXPECT_EQ(ComponentToString(nullptr), "");

  EXPECT_EQ(Log.NextLogID(), 1);
  EXPECT_EQ(Log.NextLogID(), 2);
  Log.Reinitialize();
  EXPECT_EQ(Log.NextLogID(), 1);

  // No reference counting: interface references neither keep nor free it.
  IEventlog* I = &Log;
  EXPECT_EQ(I->_AddRef(), -1);
  EXPECT_EQ(I->_Release(), -1);
  IPtr<IExtendEventLog> P;
  EXPECT_EQ(I->QueryInterface(IIDOf<IExtendEventLog>, P.Out()), S_OK);
  IPtr<ISystemLog> S;
  EXPECT_EQ(I->QueryInterface(IIDOf<ISystemLog>, S.Out()), E_NOINTERFACE);
}

TEST(SystemLog, NotifierListKeepsOneEntryAndTheBaseDoesNotBroadcast) {
  // Notifiers are not counted: they must outlive the log that lists them.
  TILogNotifier N1, N2;
  TNotifyRecorder Rec;
  N1.NotifyMsg(u"unassigned", 0);  // no handler: nothing happens
  N1.OnLogMsg = TLogMsgEvent::Bind<&TNotifyRecorder::OnMsg>(&Rec);
  TRecorder<TISystemLog> Log;
  EXPECT_FALSE(Log.GetOptions());
  EXPECT_FALSE(Log.GetRunning());

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
  EXPECT_EQ(Log.Calls, std::vector<std::string>{"text kept quiet 0 nl"});
  EXPECT_TRUE(Rec.Got.empty());

  static_cast<ILogNotifier*>(&N1)->NotifyMsg(u"\u00e9t\u00e9", 9);
  EXPECT_EQ(Rec.Got, std::vector<std::string>{"\xE9t\xE9/9"});
  EXPECT_EQ(Rec.Sender, &N1);
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

// A scratch folder per case, which also holds the registry hives.
class LogFiles : public ::testing::Test {
 protected:
  LogFiles() { ::setenv("VEL_REGISTRY_DIR", Dir.Path("hives").c_str(), 1); }
  ~LogFiles() override { ::unsetenv("VEL_REGISTRY_DIR"); }
  // "<category>|<text>" of each line, after checking its time stamp.
  static std::vector<std::string> Lines(const std::string& Path) {
    static const std::regex StampRe(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} \[(-?\d+)\] (.*)$)");
    std::ifstream In(Path, std::ios::binary);
    std::vector<std::string> R;
    std::smatch M;
    for (std::string L; std::getline(In, L);)
      R.push_back(std::regex_match(L, M, StampRe) ? M[1].str() + "|" + M[2].str() : "bad: " + L);
    return R;
  }
  restest::TScratch Dir;
};

}  // namespace

TEST_F(LogFiles, LinesBlocksCategoriesAndNotifiers) {
  TILogNotifier N;
  TNotifyRecorder Rec;
  IPtr<TLogCategoryOptions> Opts(new TLogCategoryOptions);
  Opts->Enable(7);
  const std::string Path = Dir.Path("sub/app.log");
  {
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
  }
  EXPECT_EQ(Opts->RefCount(), 1);  // the log let go of its options
  EXPECT_EQ(Lines(Path), (std::vector<std::string>{"0|caf\xC3\xA9", "7|seven", "7|begin",
                                                   "7|  MsgText = deal", "7|  qty = 3", "7|end"}));
  EXPECT_EQ(Rec.Got,
            (std::vector<std::string>{"caf\xE9/0", "seven/7", "begin/7", "  MsgText = deal/7",
                                      "  qty = 3/7", "end/7", "after stop/0"}));

  // Options of another class enable category 0 only.
  TFileSystemLog Plain(Dir.Path("plain.log"), IPtr<ILogOptions>(new TILogOptions));
  Plain.WriteLog(u"five", 5);
  Plain.WriteLog(u"zero");
  EXPECT_EQ(Lines(Dir.Path("plain.log")), std::vector<std::string>{"0|zero"});

  EXPECT_THROW(TFileSystemLog(Dir.Path(""), nullptr, true), EFCreateError);
  TFileSystemLog Later(Dir.Path("x.log"), nullptr, false);
  EXPECT_FALSE(Later.GetRunning());
}

TEST_F(LogFiles, EightThreadsLoseAndInterleaveNoLine) {
  constexpr int Threads = 8, PerThread = 10000;
  const std::string Path = Dir.Path("busy.log");
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
  const std::vector<std::string> All = Lines(Path);
  ASSERT_EQ(All.size(), static_cast<size_t>(Threads * PerThread));
  const std::regex LineRe(R"(0\|worker (\d) line (\d+) ([a-h]{40}))");
  std::vector<int> Next(Threads, 0);
  for (const std::string& L : All) {
    std::smatch Body;
    ASSERT_TRUE(std::regex_match(L, Body, LineRe)) << L;
    const int T = std::stoi(Body[1].str());
    // Each thread's lines arrive in its own order, complete.
    ASSERT_EQ(std::stoi(Body[2].str()), Next[T]++) << L;
    ASSERT_EQ(Body[3].str(), std::string(40, 'a' + T)) << L;
  }
  for (int T = 0; T < Threads; ++T) EXPECT_EQ(Next[T], PerThread);
}

TEST_F(LogFiles, SysLogDatagrams) {
  const std::string Sock = Dir.Path("log.sock");
  int Fd = ::socket(AF_UNIX, SOCK_DGRAM, 0);
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
  const std::regex Re(R"(^<(\d+)>[A-Z][a-z]{2} [ 1-3]\d \d\d:\d\d:\d\d velapp\[(\d+)\]: (.*)$)");
  for (const std::string Want :
       {"14 ready \xC3\xA9", "15 begin", "15   MsgText = m", "15   k = True", "15 end"}) {
    char Buf[512];
    const ssize_t N = ::recv(Fd, Buf, sizeof Buf, 0);
    ASSERT_GT(N, 0);
    const std::string Msg(Buf, static_cast<size_t>(N));
    std::smatch M;
    ASSERT_TRUE(std::regex_match(Msg, M, Re)) << Msg;
    EXPECT_EQ(M[1].str() + " " + M[3].str(), Want);
    EXPECT_EQ(M[2].str(), Pid);
  }
  ::close(Fd);
  // No service listening: messages are dropped without error.
  TSysLogSystemLog Lost("velapp", nullptr, true, Dir.Path("nobody.sock"));
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
    TFileSystemLog Log(Dir.Path("cat.log"), Opts, false);
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
  TFileSystemLog Log(Dir.Path("machine.log"), Opts);
  Log.WriteLog(u"nine", 9);
  Log.WriteLog(u"ten", 10);
  Machine.WriteString("Categories", "10");
  Opts->LoadFromRegistry(&Machine);
  EXPECT_FALSE(Machine.HasCurrentKey());
  EXPECT_EQ(Machine.Access(), KEY_ALL_ACCESS);
  Log.WriteLog(u"nine", 9);
  Log.WriteLog(u"ten", 10);
  EXPECT_EQ(Lines(Dir.Path("machine.log")), (std::vector<std::string>{"9|nine", "10|ten"}));
}
