// Importing a registry file of 100,000 values (1,000 keys of 100 values:
// strings, DWORDs, expandable strings and 16-byte binaries) into an empty
// hive, beside the baseline in the same run: the same keys and values,
// already in memory, inserted into an empty SQLite database of the same
// tables and indexes through prepared statements in one transaction.
// The import's figure over the baseline's is the ratio to report.
#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "vel/rtl/RegFiles.h"
#include "vel/rtl/SysUtils.h"

using namespace vel;

namespace {

constexpr int Keys = 1000;
constexpr int ValuesPerKey = 100;

std::string MakeText() {
  std::string T = "Windows Registry Editor Version 5.00\r\n";
  for (int K = 0; K < Keys; ++K) {
    T += "\r\n[HKEY_CURRENT_USER\\Software\\Velmont\\Bench\\Key" + std::to_string(K) + "]\r\n";
    for (int V = 0; V < ValuesPerKey; ++V) {
      const std::string Name = "\"Value" + std::to_string(V) + "\"=";
      switch (V % 10) {
        case 0: T += Name + "hex:00,01,02,03,04,05,06,07,08,09,0a,0b,0c,0d,0e,0f\r\n"; break;
        case 1: T += Name + "hex(2):25,00,50,00,25,00,00,00\r\n"; break;
        case 2: case 3: case 4: case 5:
          T += Name + "dword:" + std::to_string(10000000 + K * 100 + V) + "\r\n";
          break;
        default: T += Name + "\"Setting text " + std::to_string(K * 100 + V) + "\"\r\n"; break;
      }
    }
  }
  T += "\r\n";
  // As regedit saves it: UTF-16LE with its byte-order mark.
  const std::u16string W = Utf8ToWide(T);
  std::string B("\xFF\xFE", 2);
  for (const char16_t C : W) {
    B += char(C & 0xFF);
    B += char(C >> 8);
  }
  return B;
}

struct TFixture {
  std::string Text = MakeText();
  TRegFileContent Parsed = ParseRegText(Text);
  std::string Dir;
  TFixture() {
    const char* Base = std::getenv("TMPDIR");
    std::string T = std::string(Base && *Base ? Base : "/tmp") + "/vel_bench_registry_XXXXXX";
    if (!::mkdtemp(T.data())) std::abort();
    Dir = T;
    ::setenv("VEL_REGISTRY_DIR", Dir.c_str(), 1);
  }
  ~TFixture() {
    std::error_code Ec;
    std::filesystem::remove_all(Dir, Ec);
  }
  void Clear() const {
    for (const auto& E : std::filesystem::directory_iterator(Dir)) std::filesystem::remove(E.path());
  }
};

TFixture& Fixture() {
  static TFixture F;
  return F;
}

void BM_Import_RegFile(benchmark::State& State) {
  TFixture& F = Fixture();
  for (auto _ : State) {
    State.PauseTiming();
    F.Clear();
    State.ResumeTiming();
    const int N = ImportRegText(F.Text);
    if (N != Keys * ValuesPerKey) State.SkipWithError("wrong count");
  }
  State.SetItemsProcessed(State.iterations() * Keys * ValuesPerKey);
}
BENCHMARK(BM_Import_RegFile)->Unit(benchmark::kMillisecond)->MinTime(2.0);

void Exec(sqlite3* Db, const char* Sql) {
  if (sqlite3_exec(Db, Sql, nullptr, nullptr, nullptr) != SQLITE_OK) std::abort();
}

void BM_Import_SqliteBaseline(benchmark::State& State) {
  TFixture& F = Fixture();
  const std::string Path = F.Dir + "/baseline.db";
  for (auto _ : State) {
    State.PauseTiming();
    F.Clear();
    State.ResumeTiming();
    sqlite3* Db = nullptr;
    if (sqlite3_open(Path.c_str(), &Db) != SQLITE_OK) std::abort();
    Exec(Db, "PRAGMA journal_mode=WAL");
    Exec(Db, "PRAGMA synchronous=NORMAL");
    Exec(Db,
         "CREATE TABLE keys(id INTEGER PRIMARY KEY, parent INTEGER NOT NULL, name TEXT NOT NULL,"
         " folded TEXT NOT NULL, written INTEGER NOT NULL, UNIQUE(parent, folded))");
    Exec(Db,
         "CREATE TABLE vals(id INTEGER PRIMARY KEY, key INTEGER NOT NULL, name TEXT NOT NULL,"
         " folded TEXT NOT NULL, type INTEGER NOT NULL, data BLOB NOT NULL, UNIQUE(key, folded))");
    sqlite3_stmt* InsKey = nullptr;
    sqlite3_stmt* InsVal = nullptr;
    sqlite3_prepare_v2(Db, "INSERT INTO keys(parent, name, folded, written) VALUES(0, ?1, ?1, 0)", -1, &InsKey,
                       nullptr);
    sqlite3_prepare_v2(Db, "INSERT INTO vals(key, name, folded, type, data) VALUES(?1, ?2, ?2, ?3, ?4)", -1,
                       &InsVal, nullptr);
    Exec(Db, "BEGIN");
    sqlite3_int64 Key = 0;
    for (const TRegFileEntry& E : F.Parsed.Entries) {
      if (E.Kind == TRegFileEntry::CreateKey) {
        sqlite3_bind_text(InsKey, 1, E.Path.data(), int(E.Path.size()), SQLITE_STATIC);
        if (sqlite3_step(InsKey) != SQLITE_DONE) std::abort();
        sqlite3_reset(InsKey);
        Key = sqlite3_last_insert_rowid(Db);
        continue;
      }
      sqlite3_bind_int64(InsVal, 1, Key);
      sqlite3_bind_text(InsVal, 2, E.Name.data(), int(E.Name.size()), SQLITE_STATIC);
      sqlite3_bind_int64(InsVal, 3, E.Value.Type);
      sqlite3_bind_blob(InsVal, 4, E.Value.Data.data(), int(E.Value.Data.size()), SQLITE_STATIC);
      if (sqlite3_step(InsVal) != SQLITE_DONE) std::abort();
      sqlite3_reset(InsVal);
    }
    Exec(Db, "COMMIT");
    sqlite3_finalize(InsKey);
    sqlite3_finalize(InsVal);
    sqlite3_close(Db);
  }
  State.SetItemsProcessed(State.iterations() * Keys * ValuesPerKey);
}
BENCHMARK(BM_Import_SqliteBaseline)->Unit(benchmark::kMillisecond)->MinTime(2.0);

}  // namespace

BENCHMARK_MAIN();
