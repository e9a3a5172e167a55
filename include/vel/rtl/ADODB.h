// Database access in the shape of the runtime's ADO components:
// TADOConnection (connection string, user, password, KeepConnection, no
// login prompt) and TADODataSet (a text command and a forward cursor over
// its rows: First, Next, Eof, fields by name or index as variants), on
// SOCI.
//
// The connection string chooses the database:
//   SQLite (the embedded default): a file path, "Data Source=<file>" or
//     "Provider=SQLite;Data Source=<file>". The file must exist unless the
//     string also holds "Create=True"; ":memory:" is a private database.
//   PostgreSQL: "Provider=PostgreSQL;Host=..;Port=..;Database=..;..." (the
//     other pairs pass to libpq as they stand: sslmode, connect_timeout ...)
//     or a "postgresql://" / "postgres://" URI.
//   ODBC: a string with "DSN=" or "Driver=" (passed to unixODBC as it
//     stands; Access files of Windows installs through odbc-mdbtools).
// Open's user and password are added to the backend's own parameters
// (user/password for PostgreSQL, UID/PWD for ODBC; SQLite has none).
//
// Field values: NULL as Null; integers as varInteger (32-bit) or varInt64;
// floating point as varDouble; dates and times as varDate; text as
// varOleStr (the UTF-8 the database gives, as UTF-16). SQLite: the
// column's declared type decides (SOCI's mapping): INTEGER columns are read
// as 32-bit values, so declare BIGINT for larger numbers; computed columns
// without a declared type come as text.
//
// Thread safety: a connection and its data sets belong to one thread.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "vel/rtl/Components.h"
#include "vel/rtl/Variants.h"

namespace vel {

VEL_EXCEPTION(EADOError, Exception);
VEL_EXCEPTION(EDatabaseError, Exception);

inline constexpr const char* SNotConnected = "Connection is not open";
inline constexpr const char* SFieldNotFound = "Field '%s' not found";
inline constexpr const char* SDataSetClosed = "Cannot perform this operation on a closed dataset";
inline constexpr const char* SFieldIndexError = "Field index out of range";
inline constexpr const char* SDatabaseMissing = "Database file '%s' does not exist";

enum TCommandType : uint8_t { cmdUnknown, cmdText, cmdTable, cmdStoredProc, cmdFile, cmdTableDirect };
enum TADOBackend : uint8_t { dbSQLite, dbPostgreSQL, dbODBC };

// What a connection string asks for: the backend and the backend's own
// connect string (user and password not yet added).
struct TADOConnectTarget {
  TADOBackend Backend = dbSQLite;
  std::string Params;
  bool Create = false;  // SQLite: create a missing file
};
// Raises EADOError for an empty string.
VEL_API TADOConnectTarget ParseConnectionString(const std::string& ConnectionString);

class TADODataSet;

class VEL_API TADOConnection : public TComponent {
  VEL_CLASS(TADOConnection, TComponent)
 public:
  explicit TADOConnection(TComponent* AOwner = nullptr);
  ~TADOConnection() override;

  std::string ConnectionString;
  // Kept for the runtime's shape: no dialog is ever shown here.
  bool LoginPrompt = true;
  bool KeepConnection = true;

  // Opens the connection with UserID and Password; raises EADOError with
  // the database's message when it cannot (wrong password, missing file,
  // unknown host ...), leaving it closed.
  void Open(const std::string& UserID, const std::string& Password);
  void Open() { Open(std::string(), std::string()); }
  void Close();
  bool Connected() const;
  TADOBackend Backend() const { return FBackend; }
  // Runs a command that returns no rows.
  void Execute(const std::string& CommandText);

  // The SOCI session (soci::session*), for the data sets.
  void* Session() const;

 private:
  struct TImpl;
  std::unique_ptr<TImpl> FImpl;
  TADOBackend FBackend = dbSQLite;
};

class VEL_API TADODataSet : public TComponent {
  VEL_CLASS(TADODataSet, TComponent)
 public:
  explicit TADODataSet(TComponent* AOwner = nullptr);
  ~TADODataSet() override;

  TADOConnection* Connection = nullptr;
  TCommandType CommandType = cmdText;
  std::string CommandText;

  // Runs CommandText on Connection and stands on the first row (Eof when
  // there is none). Raises EADOError for a closed connection or a failed
  // command.
  void Open();
  void Close();
  bool Active() const;
  // Back to the first row (runs the command again once the cursor moved).
  void First();
  void Next();
  bool Eof() const;
  bool IsEmpty() const;
  // Columns of the result.
  int32_t FieldCount() const;
  std::string FieldName(int32_t Index) const;
  // The current row's value of the field (EDatabaseError "Field '%s' not
  // found" for an unknown name, case-insensitive as the runtime).
  Variant FieldByName(const std::string& Name) const;
  Variant Fields(int32_t Index) const;
  // The number of rows moved past since Open/First.
  int64_t RecNo() const { return FRecNo; }

 private:
  void CheckActive() const;
  void Execute();
  struct TImpl;
  std::unique_ptr<TImpl> FImpl;
  int64_t FRecNo = 0;
};

}  // namespace vel
