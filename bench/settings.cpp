// Reading a settings object with 100 published properties (60 integers,
// 30 strings, 10 Booleans) from a registry key with StreamRegToProps,
// against the baseline of the same 100 values read from an SQLite table of
// the same shape through one prepared statement into plain fields, in the
// same run. Both read the value bytes as the registry keeps them (REG_SZ as
// UTF-16LE, REG_DWORD as 4 bytes) and convert them.
//
// BM_StreamRegToProps includes what each pass does: a new accessor, opening
// the key, the property walk and the conversions.
#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <stdlib.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "vel/RttiStrm.h"
#include "vel/rtl/Registry.h"
#include "vel/rtl/SysUtils.h"
#include "vel/rtl/TypInfo.h"

using namespace vel;

namespace {

class TBigSettings : public TPersistent {
  VEL_CLASS(TBigSettings, TPersistent)
 public:
  int32_t I00 = 0;
  int32_t I01 = 0;
  int32_t I02 = 0;
  int32_t I03 = 0;
  int32_t I04 = 0;
  int32_t I05 = 0;
  int32_t I06 = 0;
  int32_t I07 = 0;
  int32_t I08 = 0;
  int32_t I09 = 0;
  int32_t I10 = 0;
  int32_t I11 = 0;
  int32_t I12 = 0;
  int32_t I13 = 0;
  int32_t I14 = 0;
  int32_t I15 = 0;
  int32_t I16 = 0;
  int32_t I17 = 0;
  int32_t I18 = 0;
  int32_t I19 = 0;
  int32_t I20 = 0;
  int32_t I21 = 0;
  int32_t I22 = 0;
  int32_t I23 = 0;
  int32_t I24 = 0;
  int32_t I25 = 0;
  int32_t I26 = 0;
  int32_t I27 = 0;
  int32_t I28 = 0;
  int32_t I29 = 0;
  int32_t I30 = 0;
  int32_t I31 = 0;
  int32_t I32 = 0;
  int32_t I33 = 0;
  int32_t I34 = 0;
  int32_t I35 = 0;
  int32_t I36 = 0;
  int32_t I37 = 0;
  int32_t I38 = 0;
  int32_t I39 = 0;
  int32_t I40 = 0;
  int32_t I41 = 0;
  int32_t I42 = 0;
  int32_t I43 = 0;
  int32_t I44 = 0;
  int32_t I45 = 0;
  int32_t I46 = 0;
  int32_t I47 = 0;
  int32_t I48 = 0;
  int32_t I49 = 0;
  int32_t I50 = 0;
  int32_t I51 = 0;
  int32_t I52 = 0;
  int32_t I53 = 0;
  int32_t I54 = 0;
  int32_t I55 = 0;
  int32_t I56 = 0;
  int32_t I57 = 0;
  int32_t I58 = 0;
  int32_t I59 = 0;
  std::string S00;
  std::string S01;
  std::string S02;
  std::string S03;
  std::string S04;
  std::string S05;
  std::string S06;
  std::string S07;
  std::string S08;
  std::string S09;
  std::string S10;
  std::string S11;
  std::string S12;
  std::string S13;
  std::string S14;
  std::string S15;
  std::string S16;
  std::string S17;
  std::string S18;
  std::string S19;
  std::string S20;
  std::string S21;
  std::string S22;
  std::string S23;
  std::string S24;
  std::string S25;
  std::string S26;
  std::string S27;
  std::string S28;
  std::string S29;
  bool B00 = false;
  bool B01 = false;
  bool B02 = false;
  bool B03 = false;
  bool B04 = false;
  bool B05 = false;
  bool B06 = false;
  bool B07 = false;
  bool B08 = false;
  bool B09 = false;
};

}  // namespace

VEL_PUBLISHED(TBigSettings,
              prop("I00", &TBigSettings::I00),
              prop("I01", &TBigSettings::I01),
              prop("I02", &TBigSettings::I02),
              prop("I03", &TBigSettings::I03),
              prop("I04", &TBigSettings::I04),
              prop("I05", &TBigSettings::I05),
              prop("I06", &TBigSettings::I06),
              prop("I07", &TBigSettings::I07),
              prop("I08", &TBigSettings::I08),
              prop("I09", &TBigSettings::I09),
              prop("I10", &TBigSettings::I10),
              prop("I11", &TBigSettings::I11),
              prop("I12", &TBigSettings::I12),
              prop("I13", &TBigSettings::I13),
              prop("I14", &TBigSettings::I14),
              prop("I15", &TBigSettings::I15),
              prop("I16", &TBigSettings::I16),
              prop("I17", &TBigSettings::I17),
              prop("I18", &TBigSettings::I18),
              prop("I19", &TBigSettings::I19),
              prop("I20", &TBigSettings::I20),
              prop("I21", &TBigSettings::I21),
              prop("I22", &TBigSettings::I22),
              prop("I23", &TBigSettings::I23),
              prop("I24", &TBigSettings::I24),
              prop("I25", &TBigSettings::I25),
              prop("I26", &TBigSettings::I26),
              prop("I27", &TBigSettings::I27),
              prop("I28", &TBigSettings::I28),
              prop("I29", &TBigSettings::I29),
              prop("I30", &TBigSettings::I30),
              prop("I31", &TBigSettings::I31),
              prop("I32", &TBigSettings::I32),
              prop("I33", &TBigSettings::I33),
              prop("I34", &TBigSettings::I34),
              prop("I35", &TBigSettings::I35),
              prop("I36", &TBigSettings::I36),
              prop("I37", &TBigSettings::I37),
              prop("I38", &TBigSettings::I38),
              prop("I39", &TBigSettings::I39),
              prop("I40", &TBigSettings::I40),
              prop("I41", &TBigSettings::I41),
              prop("I42", &TBigSettings::I42),
              prop("I43", &TBigSettings::I43),
              prop("I44", &TBigSettings::I44),
              prop("I45", &TBigSettings::I45),
              prop("I46", &TBigSettings::I46),
              prop("I47", &TBigSettings::I47),
              prop("I48", &TBigSettings::I48),
              prop("I49", &TBigSettings::I49),
              prop("I50", &TBigSettings::I50),
              prop("I51", &TBigSettings::I51),
              prop("I52", &TBigSettings::I52),
              prop("I53", &TBigSettings::I53),
              prop("I54", &TBigSettings::I54),
              prop("I55", &TBigSettings::I55),
              prop("I56", &TBigSettings::I56),
              prop("I57", &TBigSettings::I57),
              prop("I58", &TBigSettings::I58),
              prop("I59", &TBigSettings::I59),
              prop("S00", &TBigSettings::S00),
              prop("S01", &TBigSettings::S01),
              prop("S02", &TBigSettings::S02),
              prop("S03", &TBigSettings::S03),
              prop("S04", &TBigSettings::S04),
              prop("S05", &TBigSettings::S05),
              prop("S06", &TBigSettings::S06),
              prop("S07", &TBigSettings::S07),
              prop("S08", &TBigSettings::S08),
              prop("S09", &TBigSettings::S09),
              prop("S10", &TBigSettings::S10),
              prop("S11", &TBigSettings::S11),
              prop("S12", &TBigSettings::S12),
              prop("S13", &TBigSettings::S13),
              prop("S14", &TBigSettings::S14),
              prop("S15", &TBigSettings::S15),
              prop("S16", &TBigSettings::S16),
              prop("S17", &TBigSettings::S17),
              prop("S18", &TBigSettings::S18),
              prop("S19", &TBigSettings::S19),
              prop("S20", &TBigSettings::S20),
              prop("S21", &TBigSettings::S21),
              prop("S22", &TBigSettings::S22),
              prop("S23", &TBigSettings::S23),
              prop("S24", &TBigSettings::S24),
              prop("S25", &TBigSettings::S25),
              prop("S26", &TBigSettings::S26),
              prop("S27", &TBigSettings::S27),
              prop("S28", &TBigSettings::S28),
              prop("S29", &TBigSettings::S29),
              prop("B00", &TBigSettings::B00),
              prop("B01", &TBigSettings::B01),
              prop("B02", &TBigSettings::B02),
              prop("B03", &TBigSettings::B03),
              prop("B04", &TBigSettings::B04),
              prop("B05", &TBigSettings::B05),
              prop("B06", &TBigSettings::B06),
              prop("B07", &TBigSettings::B07),
              prop("B08", &TBigSettings::B08),
              prop("B09", &TBigSettings::B09))

namespace {

constexpr const char* Key = "Software\\Velmont\\Bench";

struct TFixture {
  std::string Dir;
  sqlite3* Db = nullptr;
  sqlite3_stmt* Read = nullptr;
  std::vector<std::string> Names;

  TFixture() {
    const char* Tmp = std::getenv("TMPDIR");
    Dir = std::string(Tmp && *Tmp ? Tmp : "/tmp") + "/vel_bench_settings_XXXXXX";
    if (!::mkdtemp(Dir.data())) std::abort();
    ::setenv("VEL_REGISTRY_DIR", Dir.c_str(), 1);
    for (PPropInfo P : GetPropList(TBigSettings::StaticClass()->TypeInfo)) Names.push_back(P->Name);

    // The registry key.
    TRegistry R;
    R.SetRootKey(HKEY_LOCAL_MACHINE);
    if (!R.OpenKey(Key, true)) std::abort();
    // The baseline table, same values, same bytes.
    if (sqlite3_open((Dir + "/baseline.db").c_str(), &Db) != SQLITE_OK) std::abort();
    Exec("PRAGMA journal_mode=WAL");
    Exec("CREATE TABLE v(key TEXT, name TEXT COLLATE NOCASE, type INTEGER, data BLOB, "
         "PRIMARY KEY(key, name)) WITHOUT ROWID");
    sqlite3_stmt* Ins = nullptr;
    sqlite3_prepare_v2(Db, "INSERT INTO v VALUES(?,?,?,?)", -1, &Ins, nullptr);
    Exec("BEGIN");
    for (const std::string& Name : Names) {
      TRegValue V;
      if (Name[0] == 'S') {
        std::string Text = "value of " + Name + " \xE9";
        R.WriteString(Name, Text);
        R.ReadValue(Name, V);
      } else {
        int Num = std::stoi(Name.substr(1));
        R.WriteInteger(Name, Name[0] == 'B' ? Num % 2 : Num * 1000);
        R.ReadValue(Name, V);
      }
      sqlite3_bind_text(Ins, 1, Key, -1, SQLITE_STATIC);
      sqlite3_bind_text(Ins, 2, Name.c_str(), -1, SQLITE_TRANSIENT);
      sqlite3_bind_int(Ins, 3, static_cast<int>(V.Type));
      sqlite3_bind_blob(Ins, 4, V.Data.data(), static_cast<int>(V.Data.size()), SQLITE_TRANSIENT);
      if (sqlite3_step(Ins) != SQLITE_DONE) std::abort();
      sqlite3_reset(Ins);
    }
    Exec("COMMIT");
    sqlite3_finalize(Ins);
    sqlite3_prepare_v2(Db, "SELECT type, data FROM v WHERE key=?1 AND name=?2", -1, &Read, nullptr);
  }
  ~TFixture() {
    sqlite3_finalize(Read);
    sqlite3_close(Db);
    std::error_code Ec;
    std::filesystem::remove_all(Dir, Ec);
  }
  void Exec(const char* Sql) {
    if (sqlite3_exec(Db, Sql, nullptr, nullptr, nullptr) != SQLITE_OK) std::abort();
  }
};

TFixture& Fixture() {
  static TFixture F;
  return F;
}

int32_t Dword(const void* P, int N) {
  if (N != 4) return 0;
  const auto* B = static_cast<const uint8_t*>(P);
  return static_cast<int32_t>(B[0] | B[1] << 8 | B[2] << 16 | static_cast<uint32_t>(B[3]) << 24);
}

std::string Sz(const void* P, int N) {
  const auto* B = static_cast<const uint8_t*>(P);
  std::u16string W;
  for (int I = 0; I + 1 < N; I += 2) {
    char16_t C = static_cast<char16_t>(B[I] | B[I + 1] << 8);
    if (!C) break;
    W.push_back(C);
  }
  return WideToCp1252(W);
}

// The baseline: one prepared statement, one step per value, straight into
// the fields by their position in the name-sorted list.
void ReadBaseline(TFixture& F, TBigSettings& S, const std::vector<int32_t TBigSettings::*>& Ints,
                  const std::vector<std::string TBigSettings::*>& Strs,
                  const std::vector<bool TBigSettings::*>& Bools) {
  size_t I = 0, J = 0, K = 0;
  for (const std::string& Name : F.Names) {
    sqlite3_bind_text(F.Read, 1, Key, -1, SQLITE_STATIC);
    sqlite3_bind_text(F.Read, 2, Name.c_str(), static_cast<int>(Name.size()), SQLITE_STATIC);
    if (sqlite3_step(F.Read) == SQLITE_ROW) {
      const void* Data = sqlite3_column_blob(F.Read, 1);
      int N = sqlite3_column_bytes(F.Read, 1);
      if (Name[0] == 'S') S.*Strs[J++] = Sz(Data, N);
      else if (Name[0] == 'B') S.*Bools[K++] = Dword(Data, N) != 0;
      else S.*Ints[I++] = Dword(Data, N);
    }
    sqlite3_reset(F.Read);
  }
}

}  // namespace

static void BM_SQLitePreparedReadsBaseline(benchmark::State& State) {
  TFixture& F = Fixture();
  std::vector<int32_t TBigSettings::*> Ints = {&TBigSettings::I00, &TBigSettings::I01, &TBigSettings::I02, &TBigSettings::I03, &TBigSettings::I04, &TBigSettings::I05, &TBigSettings::I06, &TBigSettings::I07, &TBigSettings::I08, &TBigSettings::I09, &TBigSettings::I10, &TBigSettings::I11, &TBigSettings::I12, &TBigSettings::I13, &TBigSettings::I14, &TBigSettings::I15, &TBigSettings::I16, &TBigSettings::I17, &TBigSettings::I18, &TBigSettings::I19, &TBigSettings::I20, &TBigSettings::I21, &TBigSettings::I22, &TBigSettings::I23, &TBigSettings::I24, &TBigSettings::I25, &TBigSettings::I26, &TBigSettings::I27, &TBigSettings::I28, &TBigSettings::I29, &TBigSettings::I30, &TBigSettings::I31, &TBigSettings::I32, &TBigSettings::I33, &TBigSettings::I34, &TBigSettings::I35, &TBigSettings::I36, &TBigSettings::I37, &TBigSettings::I38, &TBigSettings::I39, &TBigSettings::I40, &TBigSettings::I41, &TBigSettings::I42, &TBigSettings::I43, &TBigSettings::I44, &TBigSettings::I45, &TBigSettings::I46, &TBigSettings::I47, &TBigSettings::I48, &TBigSettings::I49, &TBigSettings::I50, &TBigSettings::I51, &TBigSettings::I52, &TBigSettings::I53, &TBigSettings::I54, &TBigSettings::I55, &TBigSettings::I56, &TBigSettings::I57, &TBigSettings::I58, &TBigSettings::I59};
  std::vector<std::string TBigSettings::*> Strs = {&TBigSettings::S00, &TBigSettings::S01, &TBigSettings::S02, &TBigSettings::S03, &TBigSettings::S04, &TBigSettings::S05, &TBigSettings::S06, &TBigSettings::S07, &TBigSettings::S08, &TBigSettings::S09, &TBigSettings::S10, &TBigSettings::S11, &TBigSettings::S12, &TBigSettings::S13, &TBigSettings::S14, &TBigSettings::S15, &TBigSettings::S16, &TBigSettings::S17, &TBigSettings::S18, &TBigSettings::S19, &TBigSettings::S20, &TBigSettings::S21, &TBigSettings::S22, &TBigSettings::S23, &TBigSettings::S24, &TBigSettings::S25, &TBigSettings::S26, &TBigSettings::S27, &TBigSettings::S28, &TBigSettings::S29};
  std::vector<bool TBigSettings::*> Bools = {&TBigSettings::B00, &TBigSettings::B01, &TBigSettings::B02, &TBigSettings::B03, &TBigSettings::B04, &TBigSettings::B05, &TBigSettings::B06, &TBigSettings::B07, &TBigSettings::B08, &TBigSettings::B09};
  TBigSettings S;
  for (auto _ : State) {
    ReadBaseline(F, S, Ints, Strs, Bools);
    benchmark::DoNotOptimize(S.I59);
  }
  if (S.I01 != 1000 || S.S29 != "value of S29 \xE9" || !S.B01) State.SkipWithError("baseline read wrong values");
  State.SetItemsProcessed(State.iterations() * 100);
}
BENCHMARK(BM_SQLitePreparedReadsBaseline);

static void BM_StreamRegToProps(benchmark::State& State) {
  TFixture& F = Fixture();
  (void)F;
  TBigSettings S;
  TRTTIStream* R = RTTIStream();
  int Errors = 0;
  for (auto _ : State) {
    Errors += R->StreamRegToProps(Key, &S, false);
    benchmark::DoNotOptimize(S.I59);
  }
  if (Errors || S.I01 != 1000 || S.S29 != "value of S29 \xE9" || !S.B01)
    State.SkipWithError("StreamRegToProps read wrong values");
  State.SetItemsProcessed(State.iterations() * 100);
}
BENCHMARK(BM_StreamRegToProps);

// The same while another accessor of the process keeps the hive open, as
// in an application that holds its settings key: the pass's own accessor
// then does not pay for the last close of the database (a WAL checkpoint).
static void BM_StreamRegToPropsHiveHeldOpen(benchmark::State& State) {
  TFixture& F = Fixture();
  (void)F;
  TRegistry Holder(KEY_READ);
  Holder.SetRootKey(HKEY_LOCAL_MACHINE);
  Holder.OpenKey(Key, false);
  TBigSettings S;
  TRTTIStream* R = RTTIStream();
  int Errors = 0;
  for (auto _ : State) {
    Errors += R->StreamRegToProps(Key, &S, false);
    benchmark::DoNotOptimize(S.I59);
  }
  if (Errors || S.I01 != 1000 || S.S29 != "value of S29 \xE9" || !S.B01)
    State.SkipWithError("StreamRegToProps read wrong values");
  State.SetItemsProcessed(State.iterations() * 100);
}
BENCHMARK(BM_StreamRegToPropsHiveHeldOpen);
