// Fetching 100,000 rows from an SQLite file: through a TAdoSTAThread
// descendant (connection, data set, fields as variants, on its own thread)
// against the same query through SOCI directly on the calling thread (the
// baseline), in the same run. Goal: the thread within 1.5x the baseline.
#include <benchmark/benchmark.h>
#include <soci/soci-config.h>
#undef SOCI_HAVE_BOOST
#undef SOCI_HAVE_BOOST_DATE_TIME
#include <soci/soci.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "vel/OleUtils.h"
#include "vel/rtl/Messages.h"
#include "vel/rtl/TypInfo.h"

namespace soci {
extern "C" backend_factory const* factory_sqlite3();
}

using namespace vel;

namespace {

constexpr int Rows = 100000;
const char* const Query = "SELECT id, client, amount FROM deals";

const std::string& DbFile() {
  static const std::string File = [] {
    const char* Tmp = std::getenv("TMPDIR");
    std::string F = std::string(Tmp && *Tmp ? Tmp : "/tmp") + "/vel_bench_database.db";
    std::remove(F.c_str());
    TADOConnection C;
    C.ConnectionString = "Data Source=" + F + ";Create=True";
    C.Open();
    C.Execute("CREATE TABLE deals (id BIGINT, client TEXT, amount REAL)");
    C.Execute("WITH RECURSIVE s(n) AS (SELECT 1 UNION ALL SELECT n + 1 FROM s WHERE n < " +
              std::to_string(Rows) +
              ") INSERT INTO deals SELECT n, 'client ' || n, n * 0.25 FROM s");
    return F;
  }();
  return File;
}

// CPU time of the whole process (every thread) in milliseconds: on a busy
// machine it compares the two paths better than the wall clock does.
double ProcessCpuMs() {
  timespec T{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &T);
  return T.tv_sec * 1e3 + T.tv_nsec / 1e6;
}

struct TTotals {
  std::atomic<bool> Done{false};
  int64_t Count = 0;
  double Sum = 0;
  size_t Chars = 0;
};

class TFetchThread : public TAdoSTAThread {
  VEL_CLASS(TFetchThread, TAdoSTAThread)
 public:
  explicit TFetchThread(TTotals* T) : TAdoSTAThread(true, "", "", DbFile(), Query), FT(T) {
    Resume();
  }
  ~TFetchThread() override {
    StopThread(false);
    FT->Done = true;
  }

 protected:
  void ProcessResultSet(TADODataSet* DS) override {
    for (; !DS->Eof(); DS->Next()) {
      FT->Count += DS->Fields(0).AsInt64();
      FT->Chars += DS->Fields(1).AsWideString().size();
      FT->Sum += DS->Fields(2).AsDouble();
    }
  }

 private:
  TTotals* FT;
};

void BM_SociDirect(benchmark::State& State) {
  const std::string& File = DbFile();
  const double Cpu = ProcessCpuMs();
  for (auto _ : State) {
    soci::session Sql(*soci::factory_sqlite3(), File);
    soci::rowset<soci::row> Rs = (Sql.prepare << Query);
    TTotals T;
    for (const soci::row& R : Rs) {
      T.Count += R.get<long long>(0);
      T.Chars += R.get<std::string>(1).size();
      T.Sum += R.get<double>(2);
    }
    benchmark::DoNotOptimize(T.Sum);
    if (T.Count != int64_t(Rows) * (Rows + 1) / 2) State.SkipWithError("wrong rows");
  }
  State.SetItemsProcessed(State.iterations() * Rows);
  State.counters["cpu_ms"] = (ProcessCpuMs() - Cpu) / double(State.iterations());
}

void BM_AdoSTAThread(benchmark::State& State) {
  DbFile();
  const double Cpu = ProcessCpuMs();
  for (auto _ : State) {
    TTotals T;
    new TFetchThread(&T);
    while (!T.Done) CheckSynchronize(1);
    benchmark::DoNotOptimize(T.Sum);
    if (T.Count != int64_t(Rows) * (Rows + 1) / 2) State.SkipWithError("wrong rows");
  }
  State.SetItemsProcessed(State.iterations() * Rows);
  State.counters["cpu_ms"] = (ProcessCpuMs() - Cpu) / double(State.iterations());
}

}  // namespace

VEL_IMPLEMENT(TFetchThread)

BENCHMARK(BM_SociDirect)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_AdoSTAThread)->Unit(benchmark::kMillisecond)->UseRealTime();
