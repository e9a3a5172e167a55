// TAdoSTAThread and the ADO-shaped connection and data set, against a real
// SQLite file and a PostgreSQL cluster this fixture creates (in a temporary
// folder, Unix socket only, as the postgres user when run as root) and
// stops afterwards.
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "thread_test_util.h"
#include "vel/OleUtils.h"
#include "vel/rtl/Messages.h"
#include "vel/rtl/SysUtils.h"
#include "vel/rtl/TypInfo.h"

using namespace vel;
using veltest::WaitServing;

namespace {

struct TResult {
  std::mutex Lock;
  std::vector<std::string> Rows;
  std::atomic<bool> Done{false};
  std::atomic<bool> Called{false};
  std::atomic<bool> Opened{false};
};

// "<type code>:<text>" of each field, "|" between fields.
std::string RowText(TADODataSet* DS) {
  std::string R;
  for (int32_t I = 0; I < DS->FieldCount(); ++I) {
    Variant V = DS->Fields(I);
    if (I) R += "|";
    R += std::to_string(V.VType()) + ":" +
         (V.VType() == varNull ? "" : WideToUtf8(V.AsWideString()));
  }
  return R;
}

class TRowsThread : public TAdoSTAThread {
  VEL_CLASS(TRowsThread, TAdoSTAThread)
 public:
  TRowsThread(TResult* R, const std::string& Conn, const std::string& Cmd,
              const std::string& User = "", const std::string& Pw = "")
      : TAdoSTAThread(true, User, Pw, Conn, Cmd), FR(R) {
    Resume();
  }
  ~TRowsThread() override {
    StopThread(false);
    FR->Done = true;
  }

 protected:
  void OpenConnection(TADOConnection* C) override {
    TAdoSTAThread::OpenConnection(C);
    FR->Opened = C->Connected();
  }
  void ProcessResultSet(TADODataSet* DS) override {
    FR->Called = true;
    std::lock_guard<std::mutex> G(FR->Lock);
    for (; !DS->Eof(); DS->Next()) FR->Rows.push_back(RowText(DS));
  }

 private:
  TResult* FR;
};

// One command in its own TAdoSTAThread: whether it opened, and the rows it
// handed to the result-set method (none: the method was not called).
struct TThreadCase {
  std::string Conn, Cmd;
  bool Opened;
  std::vector<std::string> Rows;
  std::string User = "", Pw = "";
};

void RunThreads(const std::vector<TThreadCase>& Cases) {
  for (const TThreadCase& C : Cases) {
    SCOPED_TRACE(C.Conn + " / " + C.Cmd + " / " + C.User + ":" + C.Pw);
    TResult R;
    new TRowsThread(&R, C.Conn, C.Cmd, C.User, C.Pw);
    ASSERT_TRUE(WaitServing([&] { return R.Done.load(); }));
    EXPECT_EQ(R.Opened, C.Opened);
    EXPECT_EQ(R.Called, !C.Rows.empty());
    EXPECT_EQ(R.Rows, C.Rows);
  }
}

std::string TempDir(const char* Stem) {
  std::string Tmpl = std::string("/tmp/") + Stem + "_XXXXXX";
  return ::mkdtemp(Tmpl.data()) ? Tmpl : std::string();
}

class SQLiteDb : public ::testing::Test {
 protected:
  void SetUp() override {
    Dir = TempDir("vel_db");
    ASSERT_FALSE(Dir.empty());
    File = Dir + "/ledger.db";
    TADOConnection C;
    C.ConnectionString = "Data Source=" + File + ";Create=True";
    C.Open();
    C.Execute("CREATE TABLE deals (id BIGINT, client TEXT, amount REAL, note TEXT)");
    C.Execute("INSERT INTO deals VALUES (1, 'Dupont', 12.5, NULL)");
    C.Execute("INSERT INTO deals VALUES (2, 'Caf\xC3\xA9 & Co', -3.25, 'x')");
    C.Execute("INSERT INTO deals VALUES (5000000000, 'Big', 0, '')");
  }
  void TearDown() override {
    std::error_code Ec;
    std::filesystem::remove_all(Dir, Ec);
  }
  std::string Dir, File;
};

}  // namespace

VEL_IMPLEMENT(TRowsThread)

TEST(ConnectionString, SelectsTheBackendAndItsParameters) {
  struct Case {
    std::string In;
    TADOBackend Backend;
    std::string Params;
    bool Create;
  };
  const std::vector<Case> Cases = {
      {"/data/ledger.db", dbSQLite, "/data/ledger.db", false},
      {"Data Source=/data/a b.db", dbSQLite, "/data/a b.db", false},
      {"Provider=SQLite;Data Source=\"/x;y.db\";Create=True", dbSQLite, "/x;y.db", true},
      {"Provider=PostgreSQL;Host=/run/pg;Port=5433;Database=crm;sslmode=disable", dbPostgreSQL,
       "host=/run/pg port=5433 dbname=crm sslmode=disable", false},
      {"Provider=PostgreSQL;Server=db.example;Initial Catalog=my db", dbPostgreSQL,
       "host=db.example dbname='my db'", false},
      {"postgresql://db.example/crm?sslmode=require", dbPostgreSQL,
       "postgresql://db.example/crm?sslmode=require", false},
      {"DSN=Advisers", dbODBC, "DSN=Advisers", false},
      {"Driver=MDBTools;DBQ=/data/old.mdb", dbODBC, "Driver=MDBTools;DBQ=/data/old.mdb", false},
  };
  for (const Case& C : Cases) {
    TADOConnectTarget T = ParseConnectionString(C.In);
    EXPECT_EQ(T.Backend, C.Backend) << C.In;
    EXPECT_EQ(T.Params, C.Params) << C.In;
    EXPECT_EQ(T.Create, C.Create) << C.In;
  }
  for (const char* Bad : {"", "  ", "Provider=Oracle;Data Source=x", "Provider=SQLite;Mode=1"})
    EXPECT_THROW(ParseConnectionString(Bad), EADOError) << Bad;
}

TEST_F(SQLiteDb, DataSetCursorFieldsAndTypes) {
  TADOConnection C;
  C.ConnectionString = File;
  C.Open();
  TADODataSet DS;
  DS.Connection = &C;
  DS.CommandText = "SELECT id, client, amount, note FROM deals ORDER BY id";
  DS.Open();
  ASSERT_EQ(DS.FieldCount(), 4);
  EXPECT_EQ(DS.FieldName(1), "client");
  std::vector<std::string> Rows;
  for (; !DS.Eof(); DS.Next()) Rows.push_back(RowText(&DS));
  EXPECT_EQ(Rows, (std::vector<std::string>{
                      "20:1|8:Dupont|5:12.5|1:", "20:2|8:Caf\xC3\xA9 & Co|5:-3.25|8:x",
                      "20:5000000000|8:Big|5:0|8:"}));
  DS.First();
  EXPECT_EQ(DS.RecNo(), 0);
  EXPECT_EQ(DS.FieldByName("CLIENT").AsWideString(), u"Dupont");
  EXPECT_THROW(DS.FieldByName("missing"), EDatabaseError);
  EXPECT_THROW(DS.Fields(4), EDatabaseError);
  DS.Close();
  EXPECT_THROW(DS.Eof(), EDatabaseError);
  DS.CommandText = "SELECT * FROM nowhere";
  EXPECT_THROW(DS.Open(), EADOError);
}

TEST_F(SQLiteDb, ThreadHandsRowsToItsDescendantOnlyWhenThereAreSome) {
  RunThreads({
      {"Provider=SQLite;Data Source=" + File,
       "SELECT client, amount FROM deals WHERE id < 3 ORDER BY id",
       true,
       {"8:Dupont|5:12.5", "8:Caf\xC3\xA9 & Co|5:-3.25"}},
      // No rows: the result-set method is not called (the update runs).
      {File, "SELECT * FROM deals WHERE id < 0", true, {}},
      {File, "UPDATE deals SET note = 'y'", true, {}},
      {File, "SELECT COUNT(*) FROM deals WHERE note = 'y'", true, {"8:3"}},
      // A failed open ends the thread quietly.
      {Dir + "/missing.db", "SELECT 1", false, {}},
      {"Data Source=" + Dir + "/no/such/dir.db;Create=True", "SELECT 1", false, {}},
      {"Provider=PostgreSQL;Host=" + Dir + ";Port=1;connect_timeout=2", "SELECT 1", false, {}},
      {"Provider=PostgreSQL;Host=unknown-host.invalid;connect_timeout=2", "SELECT 1", false, {}},
      {"DSN=VelNoSuchDataSource", "SELECT 1", false, {}},
  });
  EXPECT_FALSE(std::filesystem::exists(Dir + "/missing.db"));
}

TEST_F(SQLiteDb, EightThreadsReadOneDatabaseAtOnce) {
  {
    TADOConnection C;
    C.ConnectionString = File;
    C.Open();
    C.Execute("CREATE TABLE nums (n INTEGER)");
    C.Execute(
        "WITH RECURSIVE s(n) AS (SELECT 1 UNION ALL SELECT n + 1 FROM s WHERE n < 5000) "
        "INSERT INTO nums SELECT n FROM s");
  }
  std::vector<std::unique_ptr<TResult>> Results;
  for (int I = 0; I < 8; ++I) {
    Results.emplace_back(new TResult);
    new TRowsThread(Results.back().get(), File,
                    "SELECT n, n * " + std::to_string(I) + " FROM nums ORDER BY n");
  }
  ASSERT_TRUE(WaitServing([&] {
    for (auto& R : Results)
      if (!R->Done) return false;
    return true;
  }));
  for (int I = 0; I < 8; ++I) {
    ASSERT_EQ(Results[I]->Rows.size(), 5000u);
    // SQLite declares no type for a computed column: it comes as text.
    EXPECT_EQ(Results[I]->Rows[4999], "3:5000|8:" + std::to_string(5000 * I));
  }
}

// ---------------------------------------------------------------------------
// PostgreSQL

namespace {

const char* const PgBin = "/usr/lib/postgresql/15/bin";

int RunShell(const std::string& Cmd) {
  return std::system(Cmd.c_str());
}

class PostgreSQL : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (::access((std::string(PgBin) + "/initdb").c_str(), X_OK) != 0) {
      Skip = "PostgreSQL 15 is not installed";
      return;
    }
    Dir = TempDir("vel_pg");
    std::string As;
    if (geteuid() == 0) {
      passwd* Pw = getpwnam("postgres");
      if (!Pw) {
        Skip = "no postgres user";
        return;
      }
      if (::chown(Dir.c_str(), Pw->pw_uid, Pw->pw_gid) != 0) return;
      As = "runuser -u postgres -- ";
    }
    std::ofstream(Dir + "/pw") << "s3cret\n";
    ::chmod((Dir + "/pw").c_str(), 0644);
    std::string Q = "'" + Dir + "'";
    if (RunShell(As + PgBin + "/initdb -D " + Q + "/data -U vel --auth=scram-sha-256 --pwfile=" +
                 Q + "/pw -E UTF8 --no-locale > " + Q + "/initdb.log 2>&1") != 0) {
      Skip = "initdb failed";
      return;
    }
    // Unix socket in the cluster's folder only; no TCP.
    if (RunShell(As + PgBin + "/pg_ctl -D " + Q + "/data -l " + Q +
                 "/server.log -w -t 60 -o \"-k " + Dir +
                 " -c listen_addresses=''\" start > /dev/null 2>&1") != 0) {
      Skip = "pg_ctl start failed";
      return;
    }
    Started = true;
    Stop = As + PgBin + "/pg_ctl -D " + Q + "/data -m fast -w stop > /dev/null 2>&1";
  }
  static void TearDownTestSuite() {
    if (Started) RunShell(Stop);
    std::error_code Ec;
    if (!Dir.empty()) std::filesystem::remove_all(Dir, Ec);
  }
  void SetUp() override {
    ASSERT_TRUE(Skip.empty()) << Skip;
    ASSERT_TRUE(Started);
  }
  static std::string Conn() { return "Provider=PostgreSQL;Host=" + Dir + ";Database=postgres"; }
  static inline std::string Dir, Skip, Stop;
  static inline bool Started = false;
};

}  // namespace

TEST_F(PostgreSQL, RowsThroughTheThreadAndFailedLogins) {
  {
    TADOConnection C;
    C.ConnectionString = Conn();
    C.Open("vel", "s3cret");
    C.Execute(
        "CREATE TABLE deals (id integer, client text, amount double precision, "
        "big bigint, note text)");
    C.Execute(
        "INSERT INTO deals VALUES (1, 'Dupont', 12.5, 5000000000, NULL), "
        "(2, 'Caf\xC3\xA9', -3.25, 7, 'x')");
  }
  RunThreads({
      {Conn(),
       "SELECT id, client, amount, big, note FROM deals ORDER BY id",
       true,
       {"3:1|8:Dupont|5:12.5|20:5000000000|1:", "3:2|8:Caf\xC3\xA9|5:-3.25|20:7|8:x"},
       "vel",
       "s3cret"},
      // The URI form, credentials added by Open.
      {"postgresql:///postgres?host=" + Dir,
       "SELECT count(*) FROM deals",
       true,
       {"20:2"},
       "vel",
       "s3cret"},
      // No rows: the result-set method is not called.
      {Conn(), "SELECT * FROM deals WHERE id > 10", true, {}, "vel", "s3cret"},
      {Conn(), "SELECT 1", false, {}, "vel", "wrong"},
      {Conn(), "SELECT 1", false, {}, "nobody", "s3cret"},
      {Conn(), "SELECT 1", false, {}, "vel", ""},
  });
}
