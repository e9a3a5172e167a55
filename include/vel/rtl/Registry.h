// The registry of the runtime on Linux: TRegistry over one SQLite database
// per hive. Registry files (regedit's export forms) are in RegFiles.h.
//
// Where the hives live:
//   HKEY_CURRENT_USER   $VEL_REGISTRY_DIR/HKEY_CURRENT_USER.db, else
//                       $XDG_CONFIG_HOME/velmont/registry/HKEY_CURRENT_USER.db
//                       ($HOME/.config when XDG_CONFIG_HOME is unset);
//                       file mode 0600 in a folder of mode 0700
//   any other hive      $VEL_REGISTRY_DIR/<hive name>.db, else
//                       /etc/velmont/registry/<hive name>.db
// The environment is read each time a TRegistry opens a hive, so a process
// may point VEL_REGISTRY_DIR elsewhere between uses.
//
// Keys and value names compare ignoring letter case and keep the case they
// were created with. Values keep their Windows type and their bytes exactly
// as Windows holds them (REG_SZ as UTF-16LE with its terminating NUL,
// REG_DWORD as 4 little-endian bytes ...). The 8-bit strings of this
// interface (key names, value names, string data) are Windows-1252, as the
// ANSI registry functions of Windows convert them; the raw value access and
// the file import/export carry any Unicode text.
//
// Every write is one SQLite transaction. Several processes and threads may
// read and write one hive at once: a writer waits (up to a busy time-out of
// 10 seconds) for another's transaction and no update is lost. Opening a
// hive for writing that the process may not write (HKEY_LOCAL_MACHINE under
// /etc for a normal user) fails as Windows' access-denied does: OpenKey
// returns false, Write* raise ERegistryException.
//
// Thread safety: one TRegistry object belongs to one thread at a time;
// distinct TRegistry objects may be used from distinct threads and
// processes on the same hive.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "vel/Export.h"
#include "vel/rtl/System.h"

namespace vel {

class TStrings;

// ---------------------------------------------------------------------------
// Windows' registry constants

using HKEY = uint32_t;
inline constexpr HKEY HKEY_CLASSES_ROOT = 0x80000000u;
inline constexpr HKEY HKEY_CURRENT_USER = 0x80000001u;
inline constexpr HKEY HKEY_LOCAL_MACHINE = 0x80000002u;
inline constexpr HKEY HKEY_USERS = 0x80000003u;
inline constexpr HKEY HKEY_PERFORMANCE_DATA = 0x80000004u;
inline constexpr HKEY HKEY_CURRENT_CONFIG = 0x80000005u;
inline constexpr HKEY HKEY_DYN_DATA = 0x80000006u;

using REGSAM = uint32_t;
inline constexpr REGSAM KEY_QUERY_VALUE = 0x0001;
inline constexpr REGSAM KEY_SET_VALUE = 0x0002;
inline constexpr REGSAM KEY_CREATE_SUB_KEY = 0x0004;
inline constexpr REGSAM KEY_ENUMERATE_SUB_KEYS = 0x0008;
inline constexpr REGSAM KEY_NOTIFY = 0x0010;
inline constexpr REGSAM KEY_CREATE_LINK = 0x0020;
inline constexpr REGSAM KEY_READ = 0x20019;
inline constexpr REGSAM KEY_WRITE = 0x20006;
inline constexpr REGSAM KEY_EXECUTE = 0x20019;
inline constexpr REGSAM KEY_ALL_ACCESS = 0xF003F;

// Value types, with Windows' numbers (a .reg file's hex(n) carries n).
inline constexpr uint32_t REG_NONE = 0;
inline constexpr uint32_t REG_SZ = 1;
inline constexpr uint32_t REG_EXPAND_SZ = 2;
inline constexpr uint32_t REG_BINARY = 3;
inline constexpr uint32_t REG_DWORD = 4;
inline constexpr uint32_t REG_DWORD_BIG_ENDIAN = 5;
inline constexpr uint32_t REG_LINK = 6;
inline constexpr uint32_t REG_MULTI_SZ = 7;
inline constexpr uint32_t REG_RESOURCE_LIST = 8;
inline constexpr uint32_t REG_FULL_RESOURCE_DESCRIPTOR = 9;
inline constexpr uint32_t REG_RESOURCE_REQUIREMENTS_LIST = 10;
inline constexpr uint32_t REG_QWORD = 11;

// The runtime's view of a value's type.
enum TRegDataType : uint8_t { rdUnknown, rdString, rdExpandString, rdInteger, rdBinary };

struct TRegDataInfo {
  TRegDataType RegData = rdUnknown;
  int DataSize = 0;
};

struct TRegKeyInfo {
  int NumSubKeys = 0;
  int MaxSubKeyLen = 0;
  int NumValues = 0;
  int MaxValueLen = 0;
  int MaxDataLen = 0;
  int64_t FileTime = 0;  // last write, Windows FILETIME (100 ns since 1601)
};

// One value as stored: its Windows type and its bytes.
struct TRegValue {
  uint32_t Type = REG_NONE;
  std::vector<uint8_t> Data;
  bool operator==(const TRegValue&) const = default;
};

// ---------------------------------------------------------------------------
// Errors

VEL_EXCEPTION(ERegistryException, Exception);

inline constexpr const char* SInvalidRegType = "Invalid data type for '%s'";
inline constexpr const char* SRegCreateFailed = "Failed to create key %s";
inline constexpr const char* SRegGetDataFailed = "Failed to get data for '%s'";
inline constexpr const char* SRegSetDataFailed = "Failed to set data for '%s'";

namespace detail {
class THive;
}

// ---------------------------------------------------------------------------
// TRegistry

class VEL_API TRegistry : public TObject {
  VEL_CLASS(TRegistry, TObject)
 public:
  // Root key HKEY_CURRENT_USER; access KEY_ALL_ACCESS unless given.
  TRegistry();
  explicit TRegistry(REGSAM AAccess);
  ~TRegistry() override;
  TRegistry(const TRegistry&) = delete;
  TRegistry& operator=(const TRegistry&) = delete;

  // Changing the root key closes the current key.
  HKEY RootKey() const { return FRootKey; }
  void SetRootKey(HKEY Value);
  REGSAM Access() const { return FAccess; }
  void SetAccess(REGSAM Value) { FAccess = Value; }
  // The open key's path below its hive, as it was opened (no leading
  // backslash; a relative open appends to the previous path with "\"). Empty
  // when no key is open.
  const std::string& CurrentPath() const { return FCurrentPath; }
  // With Utf8 set, the 8-bit strings of this accessor (key and value names,
  // string data, messages) are UTF-8 instead of Windows-1252.
  bool Utf8() const { return FUtf8; }
  void SetUtf8(bool Value) { FUtf8 = Value; }
  // True while a key is open.
  bool HasCurrentKey() const { return FKeyOpen; }

  // Opens Key: absolute when it starts with "\", else relative to the open
  // key (or the root when none is open). With CanCreate, missing keys on the
  // way are created. False when the key does not exist (and may not be
  // created) or the hive cannot be opened with the access asked for.
  bool OpenKey(const std::string& Key, bool CanCreate);
  bool OpenKeyReadOnly(const std::string& Key);
  void CloseKey();
  // Creates Key (relative or absolute, as OpenKey) without opening it;
  // raises "Failed to create key %s" when it cannot.
  bool CreateKey(const std::string& Key);
  // Deletes Key and everything below it; false when it does not exist or
  // cannot be deleted.
  bool DeleteKey(const std::string& Key);
  bool KeyExists(const std::string& Key);
  bool HasSubKeys();
  bool GetKeyInfo(TRegKeyInfo& Value);
  // Clears Strings and adds the names of the open key's subkeys (in name
  // order, ignoring case) / values (in the order they were created).
  void GetKeyNames(TStrings* Strings);
  void GetValueNames(TStrings* Strings);
  // The same names in UTF-8, without the Windows-1252 conversion.
  std::vector<std::string> KeyNamesUtf8();
  std::vector<std::string> ValueNamesUtf8();

  bool ValueExists(const std::string& Name);
  bool DeleteValue(const std::string& Name);
  // -1 when the value does not exist.
  int GetDataSize(const std::string& Name);
  TRegDataType GetDataType(const std::string& Name);
  bool GetDataInfo(const std::string& Name, TRegDataInfo& Value);

  // A missing value: "Failed to get data for '%s'"; a value of another type:
  // "Invalid data type for '%s'". ReadString returns "" for a missing or
  // empty value, and reads REG_SZ and REG_EXPAND_SZ.
  int32_t ReadInteger(const std::string& Name);
  bool ReadBool(const std::string& Name);
  std::string ReadString(const std::string& Name);
  // Copies at most BufSize bytes of a REG_BINARY value; returns the count.
  int ReadBinaryData(const std::string& Name, void* Buffer, int BufSize);

  // Each write is one transaction; a failure raises
  // "Failed to set data for '%s'".
  void WriteInteger(const std::string& Name, int32_t Value);
  void WriteBool(const std::string& Name, bool Value);
  void WriteString(const std::string& Name, const std::string& Value);
  void WriteExpandString(const std::string& Name, const std::string& Value);
  void WriteBinaryData(const std::string& Name, const void* Buffer, int BufSize);

  // Raw access with UTF-8 names, any type, bytes as stored.
  bool ReadValue(std::string_view NameUtf8, TRegValue& Value);
  void WriteValue(std::string_view NameUtf8, const TRegValue& Value);

 private:
  detail::THive* Hive(bool ForWrite);
  bool ResolveKey(const std::string& Key, bool Create, int64_t& Id, std::string& Path);
  std::string In(std::string_view S) const;
  std::string Out(std::string_view S) const;

  HKEY FRootKey = HKEY_CURRENT_USER;
  REGSAM FAccess = KEY_ALL_ACCESS;
  bool FKeyOpen = false;
  bool FUtf8 = false;
  int64_t FCurrentKey = 0;
  std::string FCurrentPath;
  std::shared_ptr<detail::THive> FHive;
  const void* FHiveOwner = nullptr;  // the thread whose connection FHive is
};

// The hive's name ("HKEY_CURRENT_USER"), or "" for an unknown handle.
VEL_API std::string RootKeyName(HKEY Key);
// Accepts the full names and the short forms HKCU, HKLM, HKCR, HKU, HKCC;
// ignores case. False for anything else.
VEL_API bool RootKeyFromName(std::string_view Name, HKEY& Key);
// The database file of a hive under the current environment.
VEL_API std::string HiveFileName(HKEY Key);

}  // namespace vel
