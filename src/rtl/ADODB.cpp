#include "vel/rtl/ADODB.h"

// SOCI's optional Boost conversions are not used (and Boost's headers are
// not installed): turn them off before the rest of SOCI is read.
#include <soci/soci-config.h>
#undef SOCI_HAVE_BOOST
#undef SOCI_HAVE_BOOST_DATE_TIME
#include <soci/soci.h>
// The SQLite backend's session (its connection handle is replaced below);
// this header reads <sqlite3.h> into the namespace sqlite_api.
#include <soci/sqlite3/soci-sqlite3.h>
#include <sys/stat.h>

#include <cctype>
#include <ctime>

#include "vel/rtl/SysUtils.h"
#include "vel/rtl/TypInfo.h"

// The SQLite backend is linked in; its factory is declared here so that its
// header is needed only where the handle is swapped. The PostgreSQL and ODBC
// backends are loaded by name on their first use (SOCI's backend loader,
// from the system's library folder): a program that never opens such a
// connection does not map libpq, unixODBC and the TLS and Kerberos
// libraries they pull in, some 6 MiB of resident memory at start.
namespace soci {
extern "C" {
backend_factory const* factory_sqlite3();
}
}  // namespace soci

namespace vel {

VEL_IMPLEMENT(TADOConnection)
VEL_IMPLEMENT(TADODataSet)

namespace {

std::string Lower(std::string S) {
  for (char& C : S) C = static_cast<char>(std::tolower(static_cast<unsigned char>(C)));
  return S;
}

std::string TrimText(const std::string& S) {
  size_t B = S.find_first_not_of(" \t\r\n");
  if (B == std::string::npos) return std::string();
  size_t E = S.find_last_not_of(" \t\r\n");
  return S.substr(B, E - B + 1);
}

// "Key=Value;Key=Value" pairs; a value may be quoted with " or '.
std::vector<std::pair<std::string, std::string>> SplitPairs(const std::string& S) {
  std::vector<std::pair<std::string, std::string>> R;
  size_t I = 0;
  while (I < S.size()) {
    size_t Eq = S.find('=', I);
    if (Eq == std::string::npos) break;
    std::string Key = TrimText(S.substr(I, Eq - I));
    size_t V = Eq + 1;
    while (V < S.size() && (S[V] == ' ' || S[V] == '\t')) ++V;
    std::string Value;
    if (V < S.size() && (S[V] == '"' || S[V] == '\'')) {
      char Q = S[V];
      size_t End = S.find(Q, V + 1);
      if (End == std::string::npos) End = S.size();
      Value = S.substr(V + 1, End - V - 1);
      I = S.find(';', End);
    } else {
      size_t End = S.find(';', V);
      Value = TrimText(S.substr(V, End == std::string::npos ? std::string::npos : End - V));
      I = End;
    }
    R.emplace_back(Key, Value);
    if (I == std::string::npos) break;
    ++I;
  }
  return R;
}

// A libpq keyword value, quoted when it needs it.
std::string PqValue(const std::string& V) {
  bool Plain = !V.empty() && V.find_first_of(" '\\") == std::string::npos;
  if (Plain) return V;
  std::string R = "'";
  for (char C : V) {
    if (C == '\'' || C == '\\') R += '\\';
    R += C;
  }
  return R + "'";
}

std::string PercentEncode(const std::string& S) {
  static const char* Hex = "0123456789ABCDEF";
  std::string R;
  for (unsigned char C : S) {
    if (std::isalnum(C) || C == '-' || C == '.' || C == '_' || C == '~') {
      R += static_cast<char>(C);
    } else {
      R += '%';
      R += Hex[C >> 4];
      R += Hex[C & 15];
    }
  }
  return R;
}

// UTF-8 to UTF-16, widening plain ASCII directly (the common case of
// database text) and converting the rest.
std::u16string TextToWide(const std::string& S) {
  std::u16string W(S.size(), u'\0');
  for (size_t I = 0; I < S.size(); ++I) {
    unsigned char C = static_cast<unsigned char>(S[I]);
    if (C >= 0x80) return Utf8ToWide(S);
    W[I] = C;
  }
  return W;
}

// SOCI opens SQLite files in SQLite's serialized mode, where every call
// (several per column of every row) takes the connection's mutex. A
// connection here belongs to one thread at a time, so the backend's handle
// is swapped for one on the same file opened without the mutex: fetching
// rows then costs no lock operations.
// The backend library exports no type information for its session struct,
// so the sanitizer's dynamic type check of the cast below is left out (it
// would need that type information to link).
__attribute__((no_sanitize("vptr"))) void UseSingleThreadedHandle(soci::session& Session,
                                                                  const std::string& File) {
  namespace sq = ::sqlite_api;
  // The session was just opened with the SQLite factory.
  auto* Backend = static_cast<soci::sqlite3_session_backend*>(Session.get_backend());
  sq::sqlite3* Db = nullptr;
  const int Rc = sq::sqlite3_open_v2(
      File.c_str(), &Db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
  if (Rc != SQLITE_OK) {
    std::string Msg = Db ? sq::sqlite3_errmsg(Db) : sq::sqlite3_errstr(Rc);
    sq::sqlite3_close(Db);
    throw EADOError(Msg);
  }
  sq::sqlite3_close(Backend->conn_);
  Backend->conn_ = Db;
}

bool IsPostgresUri(const std::string& S) {
  std::string L = Lower(S.substr(0, 13));
  return L.rfind("postgresql://", 0) == 0 || L.rfind("postgres://", 0) == 0;
}

}  // namespace

TADOConnectTarget ParseConnectionString(const std::string& ConnectionString) {
  const std::string S = TrimText(ConnectionString);
  if (S.empty()) throw EADOError("Connection string is empty");
  TADOConnectTarget T;
  if (IsPostgresUri(S)) {
    T.Backend = dbPostgreSQL;
    T.Params = S;
    return T;
  }
  if (S.find('=') == std::string::npos) {
    T.Backend = dbSQLite;  // a bare file path
    T.Params = S;
    return T;
  }
  auto Pairs = SplitPairs(S);
  std::string Provider;
  bool Odbc = false;
  for (auto& [K, V] : Pairs) {
    std::string L = Lower(K);
    if (L == "provider") Provider = Lower(V);
    if (L == "dsn" || L == "driver") Odbc = true;
  }
  if (Odbc && Provider.empty()) {
    T.Backend = dbODBC;
    T.Params = S;
    return T;
  }
  if (Provider == "postgresql" || Provider == "postgres" || Provider == "pgsql") {
    T.Backend = dbPostgreSQL;
    for (auto& [K, V] : Pairs) {
      std::string L = Lower(K);
      std::string Key = L == "provider"                             ? std::string()
                        : L == "host" || L == "server"              ? "host"
                        : L == "database" || L == "initial catalog" ? "dbname"
                        : L == "user id" || L == "uid"              ? "user"
                        : L == "pwd"                                ? "password"
                                                                    : L;
      if (Key.empty()) continue;
      if (!T.Params.empty()) T.Params += ' ';
      T.Params += Key + "=" + PqValue(V);
    }
    return T;
  }
  if (!Provider.empty() && Provider.rfind("sqlite", 0) != 0)
    throw EADOError(Format("Provider '%s' is not supported", {Provider}));
  T.Backend = dbSQLite;
  for (auto& [K, V] : Pairs) {
    std::string L = Lower(K);
    if (L == "data source" || L == "database" || L == "db") T.Params = V;
    if (L == "create") T.Create = Lower(V) == "true" || V == "1";
  }
  if (T.Params.empty()) throw EADOError("Connection string names no database file");
  return T;
}

// ---------------------------------------------------------------------------
// TADOConnection

struct TADOConnection::TImpl {
  soci::session Session;
};

TADOConnection::TADOConnection(TComponent* AOwner) : TComponent(AOwner) {}

TADOConnection::~TADOConnection() {
  Close();
}

void TADOConnection::Open(const std::string& UserID, const std::string& Password) {
  Close();
  TADOConnectTarget T = ParseConnectionString(ConnectionString);
  auto Impl = std::make_unique<TImpl>();
  try {
    switch (T.Backend) {
      case dbSQLite: {
        struct stat St {};
        if (T.Params != ":memory:" && !T.Create && ::stat(T.Params.c_str(), &St) != 0)
          throw EADOError(Format(SDatabaseMissing, {T.Params}));
        if (T.Params.find('=') != std::string::npos)
          throw EADOError("A database file name must not contain '='");
        // Without '=' the whole string is the file name.
        Impl->Session.open(*soci::factory_sqlite3(), T.Params);
        UseSingleThreadedHandle(Impl->Session, T.Params);
        // Several threads or processes on one file wait for each other's
        // writes instead of failing at once.
        Impl->Session << "PRAGMA busy_timeout = 30000";
        break;
      }
      case dbPostgreSQL: {
        std::string Params = T.Params;
        if (IsPostgresUri(Params)) {
          if (!UserID.empty() && Params.find('@') == std::string::npos) {
            size_t At = Params.find("://") + 3;
            std::string Cred = PercentEncode(UserID);
            if (!Password.empty()) Cred += ":" + PercentEncode(Password);
            Params.insert(At, Cred + "@");
          }
        } else {
          if (!UserID.empty()) Params += " user=" + PqValue(UserID);
          if (!Password.empty()) Params += " password=" + PqValue(Password);
        }
        Impl->Session.open("postgresql", Params);
        break;
      }
      case dbODBC: {
        std::string Params = T.Params;
        if (!Params.empty() && Params.back() != ';') Params += ';';
        if (!UserID.empty()) Params += "UID=" + UserID + ";";
        if (!Password.empty()) Params += "PWD=" + Password + ";";
        Impl->Session.open("odbc", Params);
        break;
      }
    }
  } catch (const soci::soci_error& E) {
    throw EADOError(TrimText(E.what()));
  }
  FBackend = T.Backend;
  FImpl = std::move(Impl);
}

void TADOConnection::Close() {
  FImpl.reset();
}

bool TADOConnection::Connected() const {
  return FImpl != nullptr;
}

void* TADOConnection::Session() const {
  return FImpl ? &FImpl->Session : nullptr;
}

void TADOConnection::Execute(const std::string& CommandText) {
  if (!FImpl) throw EADOError(SNotConnected);
  try {
    FImpl->Session << CommandText;
  } catch (const soci::soci_error& E) {
    throw EADOError(TrimText(E.what()));
  }
}

// ---------------------------------------------------------------------------
// TADODataSet

struct TADODataSet::TImpl {
  std::unique_ptr<soci::rowset<soci::row>> Rows;
  soci::rowset<soci::row>::const_iterator It;
  // Column names, also known when there are no rows (SOCI describes the
  // columns only with a row).
  std::vector<std::string> Names;
  std::vector<std::string> LowerNames;
  // Each column's type, read once rather than per field of every row.
  std::vector<soci::data_type> Types;
};

TADODataSet::TADODataSet(TComponent* AOwner) : TComponent(AOwner) {}

TADODataSet::~TADODataSet() {
  Close();
}

void TADODataSet::Execute() {
  if (!Connection || !Connection->Connected()) throw EADOError(SNotConnected);
  auto* Session = static_cast<soci::session*>(Connection->Session());
  auto Impl = std::make_unique<TImpl>();
  try {
    Impl->Rows = std::make_unique<soci::rowset<soci::row>>(Session->prepare << CommandText);
    Impl->It = Impl->Rows->begin();
    if (Impl->It != Impl->Rows->end()) {
      const soci::row& R = *Impl->It;
      for (size_t I = 0; I < R.size(); ++I) {
        Impl->Names.push_back(R.get_properties(I).get_name());
        Impl->LowerNames.push_back(Lower(Impl->Names.back()));
        Impl->Types.push_back(R.get_properties(I).get_data_type());
      }
    }
  } catch (const soci::soci_error& E) {
    throw EADOError(TrimText(E.what()));
  }
  FImpl = std::move(Impl);
  FRecNo = 0;
}

void TADODataSet::Open() {
  Close();
  Execute();
}

void TADODataSet::Close() {
  FImpl.reset();
  FRecNo = 0;
}

bool TADODataSet::Active() const {
  return FImpl != nullptr;
}

void TADODataSet::CheckActive() const {
  if (!FImpl) throw EDatabaseError(SDataSetClosed);
}

void TADODataSet::First() {
  CheckActive();
  if (FRecNo != 0) Execute();
}

void TADODataSet::Next() {
  CheckActive();
  if (FImpl->It == FImpl->Rows->end()) return;
  try {
    ++FImpl->It;
  } catch (const soci::soci_error& E) {
    throw EADOError(TrimText(E.what()));
  }
  ++FRecNo;
}

bool TADODataSet::Eof() const {
  CheckActive();
  return FImpl->It == FImpl->Rows->end();
}

bool TADODataSet::IsEmpty() const {
  CheckActive();
  return FRecNo == 0 && FImpl->It == FImpl->Rows->end();
}

int32_t TADODataSet::FieldCount() const {
  CheckActive();
  return static_cast<int32_t>(FImpl->Names.size());
}

std::string TADODataSet::FieldName(int32_t Index) const {
  CheckActive();
  if (Index < 0 || static_cast<size_t>(Index) >= FImpl->Names.size())
    throw EDatabaseError(SFieldIndexError);
  return FImpl->Names[static_cast<size_t>(Index)];
}

Variant TADODataSet::FieldByName(const std::string& Name) const {
  CheckActive();
  // Compared in place: a lookup per field of every row allocates nothing.
  auto Same = [&Name](const std::string& LowerName) {
    if (LowerName.size() != Name.size()) return false;
    for (size_t I = 0; I < Name.size(); ++I)
      if (std::tolower(static_cast<unsigned char>(Name[I])) !=
          static_cast<unsigned char>(LowerName[I]))
        return false;
    return true;
  };
  for (size_t I = 0; I < FImpl->LowerNames.size(); ++I)
    if (Same(FImpl->LowerNames[I])) return Fields(static_cast<int32_t>(I));
  throw EDatabaseError(Format(SFieldNotFound, {Name}));
}

Variant TADODataSet::Fields(int32_t Index) const {
  CheckActive();
  if (Index < 0 || static_cast<size_t>(Index) >= FImpl->Names.size())
    throw EDatabaseError(SFieldIndexError);
  if (FImpl->It == FImpl->Rows->end()) throw EDatabaseError("No current record");
  const soci::row& R = *FImpl->It;
  const size_t I = static_cast<size_t>(Index);
  if (R.get_indicator(I) == soci::i_null) return Variant::Null();
  switch (FImpl->Types[I]) {
    case soci::dt_integer:
      return Variant(static_cast<int32_t>(R.get<int>(I)));
    case soci::dt_long_long:
      return Variant(static_cast<long long>(R.get<long long>(I)));
    case soci::dt_unsigned_long_long:
      return Variant(static_cast<unsigned long long>(R.get<unsigned long long>(I)));
    case soci::dt_double:
      return Variant(R.get<double>(I));
    case soci::dt_date: {
      std::tm T = R.get<std::tm>(I);
      TDateTime D =
          EncodeDate(static_cast<uint16_t>(T.tm_year + 1900), static_cast<uint16_t>(T.tm_mon + 1),
                     static_cast<uint16_t>(T.tm_mday));
      D.Value += (T.tm_hour * 3600.0 + T.tm_min * 60.0 + T.tm_sec) / 86400.0;
      return Variant(D);
    }
    case soci::dt_string:
    case soci::dt_xml:
      return Variant(TextToWide(R.get<std::string>(I)));
    case soci::dt_blob:
      break;
  }
  return Variant::Null();
}

}  // namespace vel
