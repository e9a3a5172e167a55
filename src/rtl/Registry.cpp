// The registry of the runtime over SQLite: the hive databases and TRegistry.
#include "vel/rtl/Registry.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>

#include "RegistryHive.h"
#include "vel/rtl/StringLists.h"
#include "vel/rtl/SysUtils.h"
#include "vel/rtl/TypInfo.h"

namespace vel {

VEL_IMPLEMENT(TRegistry)

namespace detail {

namespace {

// How long a writer waits for another process's transaction.
constexpr int BusyTimeoutMs = 10000;

char16_t FoldChar(char16_t C) {
  if (C < 0x80) return (C >= 'a' && C <= 'z') ? char16_t(C - 32) : C;
  if (C >= 0xE0 && C <= 0xFE && C != 0xF7) return char16_t(C - 32);
  if (C == 0xFF) return 0x178;
  if (C >= 0x100 && C <= 0x17F) {
    // Latin Extended-A pairs: upper case first, except in the two runs
    // where the lower case letter comes first.
    const bool OddUpper = (C >= 0x139 && C <= 0x148) || (C >= 0x179 && C <= 0x17E);
    if (C == 0x130 || C == 0x131 || C == 0x138 || C == 0x149 || C == 0x17F) return C;
    if (OddUpper) return (C % 2 == 0) ? char16_t(C - 1) : C;
    return (C % 2 == 1) ? char16_t(C - 1) : C;
  }
  if (C >= 0x3B1 && C <= 0x3C9) return C == 0x3C2 ? char16_t(0x3A3) : char16_t(C - 32);
  if (C >= 0x430 && C <= 0x44F) return char16_t(C - 32);
  if (C >= 0x450 && C <= 0x45F) return char16_t(C - 80);
  return C;
}

int64_t NowFileTime() {
  using namespace std::chrono;
  const int64_t Ns = duration_cast<nanoseconds>(system_clock::now().time_since_epoch()).count();
  return Ns / 100 + 116444736000000000LL;
}

bool MakeFolders(const std::string& Dir, mode_t Mode) {
  if (Dir.empty()) return false;
  struct stat St {};
  if (::stat(Dir.c_str(), &St) == 0) return S_ISDIR(St.st_mode);
  const size_t Slash = Dir.find_last_of('/');
  if (Slash != std::string::npos && Slash > 0 && !MakeFolders(Dir.substr(0, Slash), 0755)) return false;
  return ::mkdir(Dir.c_str(), Mode) == 0 || errno == EEXIST;
}

}  // namespace

std::string FoldName(std::string_view Utf8) {
  bool Ascii = true;
  for (const char C : Utf8)
    if (static_cast<unsigned char>(C) >= 0x80) {
      Ascii = false;
      break;
    }
  if (Ascii) {
    std::string R(Utf8);
    for (char& C : R)
      if (C >= 'a' && C <= 'z') C = char(C - 32);
    return R;
  }
  std::u16string W = Utf8ToWide(Utf8);
  for (char16_t& C : W) C = FoldChar(C);
  return WideToUtf8(W);
}

std::vector<std::string_view> SplitKeyPath(std::string_view Path) {
  std::vector<std::string_view> Parts;
  size_t Start = 0;
  while (Start <= Path.size()) {
    size_t End = Path.find('\\', Start);
    if (End == std::string_view::npos) End = Path.size();
    if (End > Start) Parts.push_back(Path.substr(Start, End - Start));
    Start = End + 1;
  }
  return Parts;
}

std::shared_ptr<THive> THive::Open(HKEY Root, bool ForWrite) {
  const std::string Path = HiveFileName(Root);
  if (Path.empty()) return nullptr;
  const bool Private = Root == HKEY_CURRENT_USER;
  const size_t Slash = Path.find_last_of('/');
  bool Writable = false;
  // Create the folder and the file ourselves so that their modes are ours:
  // SQLite gives its journal files the mode of the database file.
  if (Slash != std::string::npos && MakeFolders(Path.substr(0, Slash), Private ? 0700 : 0755)) {
    const int Fd = ::open(Path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, Private ? 0600 : 0644);
    if (Fd >= 0) {
      Writable = true;
      ::close(Fd);
    }
  }
  if (!Writable && (ForWrite || ::access(Path.c_str(), R_OK) != 0)) return nullptr;

  std::shared_ptr<THive> H(new THive);
  const int Flags = (Writable ? SQLITE_OPEN_READWRITE : SQLITE_OPEN_READONLY) | SQLITE_OPEN_NOMUTEX;
  if (sqlite3_open_v2(Path.c_str(), &H->FDb, Flags, nullptr) != SQLITE_OK) return nullptr;
  H->FWritable = Writable;
  sqlite3_busy_timeout(H->FDb, BusyTimeoutMs);
  if (Writable) {
    // Keep the WAL and shared-memory files when the last writer closes, so
    // that a process allowed only to read the hive can still open it.
    int Persist = 1;
    sqlite3_file_control(H->FDb, "main", SQLITE_FCNTL_PERSIST_WAL, &Persist);
  }
  sqlite3_extended_result_codes(H->FDb, 1);

  int Version = -1;
  if (sqlite3_stmt* S = nullptr; sqlite3_prepare_v2(H->FDb, "PRAGMA user_version", -1, &S, nullptr) == SQLITE_OK) {
    if (sqlite3_step(S) == SQLITE_ROW) Version = sqlite3_column_int(S, 0);
    sqlite3_finalize(S);
  }
  if (Version < 0) return nullptr;  // not a database
  if (Version == 0) {
    if (!Writable) return nullptr;
    // WAL lets readers go on while one process writes.
    H->Exec("PRAGMA journal_mode=WAL");
    if (!H->Begin()) return nullptr;
    const bool Ok = H->Exec(
                        "CREATE TABLE IF NOT EXISTS keys(id INTEGER PRIMARY KEY, parent INTEGER NOT NULL,"
                        " name TEXT NOT NULL, folded TEXT NOT NULL, written INTEGER NOT NULL,"
                        " UNIQUE(parent, folded))") &&
                    H->Exec(
                        "CREATE TABLE IF NOT EXISTS vals(id INTEGER PRIMARY KEY, key INTEGER NOT NULL,"
                        " name TEXT NOT NULL, folded TEXT NOT NULL, type INTEGER NOT NULL,"
                        " data BLOB NOT NULL, UNIQUE(key, folded))") &&
                    H->Exec("PRAGMA user_version=1");
    if (!Ok || !H->Commit()) {
      H->Rollback();
      return nullptr;
    }
  } else if (Version != 1) {
    return nullptr;  // a newer layout than this code knows
  }
  if (Writable) {
    H->Exec("PRAGMA synchronous=NORMAL");
    // The kept WAL file shrinks back to this size after a checkpoint.
    H->Exec("PRAGMA journal_size_limit=1048576");
  }
  return H;
}

THive::~THive() {
  for (sqlite3_stmt*& S : FStmts)
    if (S) sqlite3_finalize(S);
  if (FDb) sqlite3_close(FDb);
}

bool THive::Exec(const char* Sql) { return sqlite3_exec(FDb, Sql, nullptr, nullptr, nullptr) == SQLITE_OK; }

sqlite3_stmt* THive::Stmt(int Slot, const char* Sql) {
  sqlite3_stmt*& S = FStmts[Slot];
  if (!S) {
    if (sqlite3_prepare_v3(FDb, Sql, -1, SQLITE_PREPARE_PERSISTENT, &S, nullptr) != SQLITE_OK) {
      S = nullptr;
      return nullptr;
    }
  } else {
    sqlite3_reset(S);
    sqlite3_clear_bindings(S);
  }
  return S;
}

bool THive::Begin() {
  if (!FWritable) return false;
  if (!Exec("BEGIN IMMEDIATE")) return false;
  FInTransaction = true;
  return true;
}

bool THive::Commit() {
  if (!FInTransaction) return false;
  if (!Exec("COMMIT")) {
    Rollback();
    return false;
  }
  FInTransaction = false;
  return true;
}

void THive::Rollback() {
  if (FInTransaction) Exec("ROLLBACK");
  FInTransaction = false;
}

namespace {
struct TStep {
  sqlite3_stmt* S;
  explicit TStep(sqlite3_stmt* Stmt) : S(Stmt) {}
  ~TStep() {
    if (S) sqlite3_reset(S);
  }
};
void BindText(sqlite3_stmt* S, int I, std::string_view T) {
  sqlite3_bind_text(S, I, T.data(), static_cast<int>(T.size()), SQLITE_TRANSIENT);
}
}  // namespace

int64_t THive::FindChild(int64_t Parent, std::string_view NameUtf8) {
  sqlite3_stmt* S = Stmt(0, "SELECT id FROM keys WHERE parent=?1 AND folded=?2");
  if (!S) return -1;
  TStep G(S);
  sqlite3_bind_int64(S, 1, Parent);
  const std::string F = FoldName(NameUtf8);
  BindText(S, 2, F);
  return sqlite3_step(S) == SQLITE_ROW ? sqlite3_column_int64(S, 0) : -1;
}

int64_t THive::CreateChild(int64_t Parent, std::string_view NameUtf8) {
  const int64_t Found = FindChild(Parent, NameUtf8);
  if (Found >= 0) return Found;
  if (!FInTransaction || !KeyAlive(Parent)) return -1;
  sqlite3_stmt* S = Stmt(1, "INSERT INTO keys(parent, name, folded, written) VALUES(?1, ?2, ?3, ?4)");
  if (!S) return -1;
  TStep G(S);
  sqlite3_bind_int64(S, 1, Parent);
  BindText(S, 2, NameUtf8);
  const std::string F = FoldName(NameUtf8);
  BindText(S, 3, F);
  sqlite3_bind_int64(S, 4, NowFileTime());
  if (sqlite3_step(S) != SQLITE_DONE) return -1;
  return sqlite3_last_insert_rowid(FDb);
}

int64_t THive::Resolve(int64_t Parent, std::string_view Path, bool Create) {
  int64_t Id = Parent;
  for (std::string_view Part : SplitKeyPath(Path)) {
    // Windows limits a key name to 255 characters.
    if (Part.size() > 255 * 3) return -1;
    Id = Create ? CreateChild(Id, Part) : FindChild(Id, Part);
    if (Id < 0) return -1;
  }
  return Id;
}

bool THive::KeyAlive(int64_t Id) {
  if (Id == 0) return true;
  sqlite3_stmt* S = Stmt(2, "SELECT 1 FROM keys WHERE id=?1");
  if (!S) return false;
  TStep G(S);
  sqlite3_bind_int64(S, 1, Id);
  return sqlite3_step(S) == SQLITE_ROW;
}

void THive::Touch(int64_t Id) {
  if (Id == 0) return;
  sqlite3_stmt* S = Stmt(3, "UPDATE keys SET written=?2 WHERE id=?1");
  if (!S) return;
  TStep G(S);
  sqlite3_bind_int64(S, 1, Id);
  sqlite3_bind_int64(S, 2, NowFileTime());
  sqlite3_step(S);
}

std::string THive::KeyName(int64_t Id) {
  sqlite3_stmt* S = Stmt(4, "SELECT name FROM keys WHERE id=?1");
  if (!S) return {};
  TStep G(S);
  sqlite3_bind_int64(S, 1, Id);
  if (sqlite3_step(S) != SQLITE_ROW) return {};
  return std::string(reinterpret_cast<const char*>(sqlite3_column_text(S, 0)),
                     static_cast<size_t>(sqlite3_column_bytes(S, 0)));
}

bool THive::GetValue(int64_t Key, std::string_view NameUtf8, TRegValue& Value) {
  sqlite3_stmt* S = Stmt(5, "SELECT type, data FROM vals WHERE key=?1 AND folded=?2");
  if (!S) return false;
  TStep G(S);
  sqlite3_bind_int64(S, 1, Key);
  const std::string F = FoldName(NameUtf8);
  BindText(S, 2, F);
  if (sqlite3_step(S) != SQLITE_ROW) return false;
  Value.Type = static_cast<uint32_t>(sqlite3_column_int64(S, 0));
  const auto* P = static_cast<const uint8_t*>(sqlite3_column_blob(S, 1));
  Value.Data.assign(P, P + sqlite3_column_bytes(S, 1));
  return true;
}

bool THive::PutValueFolded(int64_t Key, std::string_view NameUtf8, std::string_view Folded, uint32_t Type,
                           const void* Data, size_t Size) {
  sqlite3_stmt* S = Stmt(6,
                         "INSERT INTO vals(key, name, folded, type, data) VALUES(?1, ?2, ?3, ?4, ?5)"
                         " ON CONFLICT(key, folded) DO UPDATE SET type=excluded.type, data=excluded.data");
  if (!S) return false;
  TStep G(S);
  sqlite3_bind_int64(S, 1, Key);
  BindText(S, 2, NameUtf8);
  BindText(S, 3, Folded);
  sqlite3_bind_int64(S, 4, Type);
  sqlite3_bind_blob(S, 5, Size ? Data : "", static_cast<int>(Size), SQLITE_STATIC);
  return sqlite3_step(S) == SQLITE_DONE;
}

bool THive::PutValue(int64_t Key, std::string_view NameUtf8, const TRegValue& Value) {
  return PutValueFolded(Key, NameUtf8, FoldName(NameUtf8), Value.Type, Value.Data.data(), Value.Data.size());
}

bool THive::DeleteValue(int64_t Key, std::string_view NameUtf8) {
  sqlite3_stmt* S = Stmt(7, "DELETE FROM vals WHERE key=?1 AND folded=?2");
  if (!S) return false;
  TStep G(S);
  sqlite3_bind_int64(S, 1, Key);
  const std::string F = FoldName(NameUtf8);
  BindText(S, 2, F);
  return sqlite3_step(S) == SQLITE_DONE && sqlite3_changes(FDb) > 0;
}

bool THive::DeleteTree(int64_t Id) {
  if (!FInTransaction) return false;
  static const char* const Tree =
      "WITH RECURSIVE sub(id) AS (SELECT ?1 UNION ALL SELECT k.id FROM keys k JOIN sub ON k.parent=sub.id) ";
  const std::string DelVals = std::string(Tree) + "DELETE FROM vals WHERE key IN sub";
  const std::string DelKeys = std::string(Tree) + "DELETE FROM keys WHERE id IN sub";
  sqlite3_stmt* A = Stmt(8, DelVals.c_str());
  if (!A) return false;
  {
    TStep G(A);
    sqlite3_bind_int64(A, 1, Id);
    if (sqlite3_step(A) != SQLITE_DONE) return false;
  }
  sqlite3_stmt* B = Stmt(9, DelKeys.c_str());
  if (!B) return false;
  TStep G(B);
  sqlite3_bind_int64(B, 1, Id);
  return sqlite3_step(B) == SQLITE_DONE;
}

std::vector<THive::TChild> THive::Children(int64_t Parent) {
  std::vector<TChild> R;
  sqlite3_stmt* S = Stmt(10, "SELECT id, name FROM keys WHERE parent=?1 ORDER BY folded");
  if (!S) return R;
  TStep G(S);
  sqlite3_bind_int64(S, 1, Parent);
  while (sqlite3_step(S) == SQLITE_ROW)
    R.push_back({sqlite3_column_int64(S, 0),
                 std::string(reinterpret_cast<const char*>(sqlite3_column_text(S, 1)),
                             static_cast<size_t>(sqlite3_column_bytes(S, 1)))});
  return R;
}

std::vector<THive::TNamedValue> THive::Values(int64_t Key) {
  std::vector<TNamedValue> R;
  sqlite3_stmt* S = Stmt(11, "SELECT name, type, data FROM vals WHERE key=?1 ORDER BY id");
  if (!S) return R;
  TStep G(S);
  sqlite3_bind_int64(S, 1, Key);
  while (sqlite3_step(S) == SQLITE_ROW) {
    TNamedValue V;
    V.Name.assign(reinterpret_cast<const char*>(sqlite3_column_text(S, 0)),
                  static_cast<size_t>(sqlite3_column_bytes(S, 0)));
    V.Value.Type = static_cast<uint32_t>(sqlite3_column_int64(S, 1));
    const auto* P = static_cast<const uint8_t*>(sqlite3_column_blob(S, 2));
    V.Value.Data.assign(P, P + sqlite3_column_bytes(S, 2));
    R.push_back(std::move(V));
  }
  return R;
}

int64_t THive::WrittenTime(int64_t Key) {
  sqlite3_stmt* S = Stmt(12, "SELECT written FROM keys WHERE id=?1");
  if (!S) return 0;
  TStep G(S);
  sqlite3_bind_int64(S, 1, Key);
  return sqlite3_step(S) == SQLITE_ROW ? sqlite3_column_int64(S, 0) : 0;
}

}  // namespace detail

// ---------------------------------------------------------------------------
// Hive names and files

namespace {

struct THiveName {
  HKEY Key;
  const char* Name;
  const char* Short;
};
constexpr THiveName HiveNames[] = {
    {HKEY_CLASSES_ROOT, "HKEY_CLASSES_ROOT", "HKCR"},   {HKEY_CURRENT_USER, "HKEY_CURRENT_USER", "HKCU"},
    {HKEY_LOCAL_MACHINE, "HKEY_LOCAL_MACHINE", "HKLM"}, {HKEY_USERS, "HKEY_USERS", "HKU"},
    {HKEY_CURRENT_CONFIG, "HKEY_CURRENT_CONFIG", "HKCC"},
};

std::string EnvDir(const char* Name) {
  const char* V = std::getenv(Name);
  return (V && *V) ? std::string(V) : std::string();
}

std::u16string FromLE(const std::vector<uint8_t>& D) {
  std::u16string W;
  W.reserve(D.size() / 2);
  for (size_t I = 0; I + 1 < D.size(); I += 2) W.push_back(char16_t(D[I] | (D[I + 1] << 8)));
  return W;
}

std::vector<uint8_t> StringData(const std::string& S, bool Utf8) {
  const std::u16string W = Utf8 ? Utf8ToWide(S) : Cp1252ToWide(S);
  std::vector<uint8_t> D;
  D.reserve(W.size() * 2 + 2);
  for (const char16_t C : W) {
    D.push_back(uint8_t(C & 0xFF));
    D.push_back(uint8_t(C >> 8));
  }
  D.push_back(0);
  D.push_back(0);
  return D;
}

TRegDataType DataTypeToRegData(uint32_t T) {
  switch (T) {
    case REG_SZ: return rdString;
    case REG_EXPAND_SZ: return rdExpandString;
    case REG_DWORD: return rdInteger;
    case REG_BINARY: return rdBinary;
    default: return rdUnknown;
  }
}

[[noreturn]] void RaiseReg(const char* Fmt, const std::string& Name) {
  throw ERegistryException(Format(Fmt, {Name}));
}

}  // namespace

std::string RootKeyName(HKEY Key) {
  for (const THiveName& H : HiveNames)
    if (H.Key == Key) return H.Name;
  return {};
}

bool RootKeyFromName(std::string_view Name, HKEY& Key) {
  for (const THiveName& H : HiveNames)
    if (SameText(Name, H.Name) || SameText(Name, H.Short)) {
      Key = H.Key;
      return true;
    }
  return false;
}

std::string HiveFileName(HKEY Key) {
  const std::string Name = RootKeyName(Key);
  if (Name.empty()) return {};
  std::string Dir = EnvDir("VEL_REGISTRY_DIR");
  if (Dir.empty()) {
    if (Key == HKEY_CURRENT_USER) {
      Dir = EnvDir("XDG_CONFIG_HOME");
      if (Dir.empty()) {
        const std::string Home = EnvDir("HOME");
        if (Home.empty()) return {};
        Dir = Home + "/.config";
      }
      Dir += "/velmont/registry";
    } else {
      Dir = "/etc/velmont/registry";
    }
  }
  return Dir + "/" + Name + ".db";
}

// ---------------------------------------------------------------------------
// TRegistry

TRegistry::TRegistry() = default;

std::string TRegistry::In(std::string_view S) const { return FUtf8 ? std::string(S) : Cp1252ToUtf8(S); }
std::string TRegistry::Out(std::string_view S) const { return FUtf8 ? std::string(S) : Utf8ToCp1252(S); }
TRegistry::TRegistry(REGSAM AAccess) : FAccess(AAccess) {}
TRegistry::~TRegistry() { CloseKey(); }

void TRegistry::SetRootKey(HKEY Value) {
  if (Value == FRootKey) return;
  CloseKey();
  FHive.reset();
  FRootKey = Value;
}

detail::THive* TRegistry::Hive(bool ForWrite) {
  if (FHive && (!ForWrite || FHive->Writable())) return FHive.get();
  std::shared_ptr<detail::THive> H = detail::THive::Open(FRootKey, ForWrite);
  if (H) FHive = std::move(H);
  return (FHive && (!ForWrite || FHive->Writable())) ? FHive.get() : nullptr;
}

bool TRegistry::ResolveKey(const std::string& Key, bool Create, int64_t& Id, std::string& Path) {
  std::string S = Key;
  const bool Relative = S.empty() || S[0] != '\\';
  if (!Relative) S.erase(0, 1);
  const int64_t Base = (Relative && FKeyOpen) ? FCurrentKey : 0;
  const std::string Utf8 = In(S);
  Path = (Relative && FKeyOpen) ? FCurrentPath + "\\" + S : S;
  detail::THive* H = Hive(false);
  if (H) {
    Id = H->Resolve(Base, Utf8, false);
    if (Id >= 0 || !Create) return Id >= 0;
  } else if (!Create) {
    return false;
  }
  H = Hive(true);
  if (!H || !H->Begin()) return false;
  Id = H->Resolve(Base, Utf8, true);
  if (Id < 0 || !H->Commit()) {
    H->Rollback();
    return false;
  }
  return true;
}

bool TRegistry::OpenKey(const std::string& Key, bool CanCreate) {
  int64_t Id = -1;
  std::string Path;
  if (!ResolveKey(Key, CanCreate, Id, Path)) return false;
  CloseKey();
  FCurrentKey = Id;
  FCurrentPath = Path;
  FKeyOpen = true;
  return true;
}

bool TRegistry::OpenKeyReadOnly(const std::string& Key) {
  FAccess = KEY_READ;
  return OpenKey(Key, false);
}

void TRegistry::CloseKey() {
  FKeyOpen = false;
  FCurrentKey = 0;
  FCurrentPath.clear();
}

bool TRegistry::CreateKey(const std::string& Key) {
  int64_t Id = -1;
  std::string Path;
  if (!ResolveKey(Key, true, Id, Path)) RaiseReg(SRegCreateFailed, Key);
  return true;
}

bool TRegistry::DeleteKey(const std::string& Key) {
  std::string S = Key;
  const bool Relative = S.empty() || S[0] != '\\';
  if (!Relative) S.erase(0, 1);
  const int64_t Base = (Relative && FKeyOpen) ? FCurrentKey : 0;
  const std::string Utf8 = In(S);
  if (detail::SplitKeyPath(Utf8).empty()) return false;  // a hive's root is not deleted
  detail::THive* H = Hive(true);
  if (!H || !H->Begin()) return false;
  const int64_t Id = H->Resolve(Base, Utf8, false);
  if (Id <= 0 || !H->DeleteTree(Id) || !H->Commit()) {
    H->Rollback();
    return false;
  }
  return true;
}

bool TRegistry::KeyExists(const std::string& Key) {
  std::string S = Key;
  const bool Relative = S.empty() || S[0] != '\\';
  if (!Relative) S.erase(0, 1);
  detail::THive* H = Hive(false);
  if (!H) return false;
  return H->Resolve((Relative && FKeyOpen) ? FCurrentKey : 0, In(S), false) >= 0;
}

bool TRegistry::HasSubKeys() {
  TRegKeyInfo Info;
  return GetKeyInfo(Info) && Info.NumSubKeys > 0;
}

bool TRegistry::GetKeyInfo(TRegKeyInfo& Value) {
  Value = TRegKeyInfo{};
  if (!FKeyOpen) return false;
  detail::THive* H = Hive(false);
  if (!H || !H->KeyAlive(FCurrentKey)) return false;
  for (const auto& C : H->Children(FCurrentKey)) {
    ++Value.NumSubKeys;
    Value.MaxSubKeyLen = std::max<int>(Value.MaxSubKeyLen, int(Utf8ToWide(C.Name).size()));
  }
  for (const auto& V : H->Values(FCurrentKey)) {
    ++Value.NumValues;
    Value.MaxValueLen = std::max<int>(Value.MaxValueLen, int(Utf8ToWide(V.Name).size()));
    Value.MaxDataLen = std::max<int>(Value.MaxDataLen, int(V.Value.Data.size()));
  }
  Value.FileTime = H->WrittenTime(FCurrentKey);
  return true;
}

std::vector<std::string> TRegistry::KeyNamesUtf8() {
  std::vector<std::string> R;
  detail::THive* H = FKeyOpen ? Hive(false) : nullptr;
  if (!H) return R;
  for (auto& C : H->Children(FCurrentKey)) R.push_back(std::move(C.Name));
  return R;
}

std::vector<std::string> TRegistry::ValueNamesUtf8() {
  std::vector<std::string> R;
  detail::THive* H = FKeyOpen ? Hive(false) : nullptr;
  if (!H) return R;
  for (auto& V : H->Values(FCurrentKey)) R.push_back(std::move(V.Name));
  return R;
}

void TRegistry::GetKeyNames(TStrings* Strings) {
  Strings->BeginUpdate();
  Strings->Clear();
  for (const std::string& N : KeyNamesUtf8()) Strings->Add(Out(N));
  Strings->EndUpdate();
}

void TRegistry::GetValueNames(TStrings* Strings) {
  Strings->BeginUpdate();
  Strings->Clear();
  for (const std::string& N : ValueNamesUtf8()) Strings->Add(Out(N));
  Strings->EndUpdate();
}

bool TRegistry::ReadValue(std::string_view NameUtf8, TRegValue& Value) {
  if (!FKeyOpen || !(FAccess & KEY_QUERY_VALUE)) return false;
  detail::THive* H = Hive(false);
  return H && H->GetValue(FCurrentKey, NameUtf8, Value);
}

void TRegistry::WriteValue(std::string_view NameUtf8, const TRegValue& Value) {
  const std::string Name = Out(NameUtf8);
  if (!FKeyOpen || !(FAccess & KEY_SET_VALUE)) RaiseReg(SRegSetDataFailed, Name);
  detail::THive* H = Hive(true);
  if (!H || !H->Begin()) RaiseReg(SRegSetDataFailed, Name);
  if (!H->KeyAlive(FCurrentKey) || !H->PutValue(FCurrentKey, NameUtf8, Value)) {
    H->Rollback();
    RaiseReg(SRegSetDataFailed, Name);
  }
  H->Touch(FCurrentKey);
  if (!H->Commit()) RaiseReg(SRegSetDataFailed, Name);
}

bool TRegistry::ValueExists(const std::string& Name) {
  TRegValue V;
  return ReadValue(In(Name), V);
}

bool TRegistry::DeleteValue(const std::string& Name) {
  if (!FKeyOpen || !(FAccess & KEY_SET_VALUE)) return false;
  detail::THive* H = Hive(true);
  if (!H || !H->Begin()) return false;
  if (!H->DeleteValue(FCurrentKey, In(Name))) {
    H->Rollback();
    return false;
  }
  H->Touch(FCurrentKey);
  return H->Commit();
}

int TRegistry::GetDataSize(const std::string& Name) {
  TRegValue V;
  return ReadValue(In(Name), V) ? static_cast<int>(V.Data.size()) : -1;
}

TRegDataType TRegistry::GetDataType(const std::string& Name) {
  TRegValue V;
  return ReadValue(In(Name), V) ? DataTypeToRegData(V.Type) : rdUnknown;
}

bool TRegistry::GetDataInfo(const std::string& Name, TRegDataInfo& Value) {
  TRegValue V;
  Value = TRegDataInfo{};
  if (!ReadValue(In(Name), V)) return false;
  Value.RegData = DataTypeToRegData(V.Type);
  Value.DataSize = static_cast<int>(V.Data.size());
  return true;
}

int32_t TRegistry::ReadInteger(const std::string& Name) {
  TRegValue V;
  // Windows answers a 4-byte buffer with "more data" for anything longer,
  // which the runtime reports as a failed read, not as a wrong type.
  if (!ReadValue(In(Name), V) || V.Data.size() > 4) RaiseReg(SRegGetDataFailed, Name);
  if (DataTypeToRegData(V.Type) != rdInteger) RaiseReg(SInvalidRegType, Name);
  uint32_t R = 0;
  for (size_t I = 0; I < V.Data.size(); ++I) R |= uint32_t(V.Data[I]) << (8 * I);
  return static_cast<int32_t>(R);
}

bool TRegistry::ReadBool(const std::string& Name) { return ReadInteger(Name) != 0; }

std::string TRegistry::ReadString(const std::string& Name) {
  TRegValue V;
  if (!ReadValue(In(Name), V) || V.Data.empty()) return {};
  const TRegDataType T = DataTypeToRegData(V.Type);
  if (T != rdString && T != rdExpandString) RaiseReg(SInvalidRegType, Name);
  std::u16string W = FromLE(V.Data);
  const size_t Nul = W.find(u'\0');
  if (Nul != std::u16string::npos) W.resize(Nul);
  return FUtf8 ? WideToUtf8(W) : WideToCp1252(W);
}

int TRegistry::ReadBinaryData(const std::string& Name, void* Buffer, int BufSize) {
  TRegValue V;
  if (!ReadValue(In(Name), V)) return 0;
  const TRegDataType T = DataTypeToRegData(V.Type);
  const int Size = static_cast<int>(V.Data.size());
  if ((T != rdBinary && T != rdUnknown) || Size > BufSize) RaiseReg(SInvalidRegType, Name);
  if (Size) std::memcpy(Buffer, V.Data.data(), static_cast<size_t>(Size));
  return Size;
}

void TRegistry::WriteInteger(const std::string& Name, int32_t Value) {
  const uint32_t U = static_cast<uint32_t>(Value);
  WriteValue(In(Name),
             TRegValue{REG_DWORD, {uint8_t(U), uint8_t(U >> 8), uint8_t(U >> 16), uint8_t(U >> 24)}});
}

void TRegistry::WriteBool(const std::string& Name, bool Value) { WriteInteger(Name, Value ? 1 : 0); }

void TRegistry::WriteString(const std::string& Name, const std::string& Value) {
  WriteValue(In(Name), TRegValue{REG_SZ, StringData(Value, FUtf8)});
}

void TRegistry::WriteExpandString(const std::string& Name, const std::string& Value) {
  WriteValue(In(Name), TRegValue{REG_EXPAND_SZ, StringData(Value, FUtf8)});
}

void TRegistry::WriteBinaryData(const std::string& Name, const void* Buffer, int BufSize) {
  const auto* P = static_cast<const uint8_t*>(Buffer);
  WriteValue(In(Name), TRegValue{REG_BINARY, std::vector<uint8_t>(P, P + std::max(BufSize, 0))});
}

}  // namespace vel
