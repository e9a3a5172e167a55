// One hive's SQLite database, shared by TRegistry and the registry-file
// import and export. Private to the library.
//
// Schema (user_version 1):
//   keys(id, parent, name, folded, written)   parent 0 is the hive's root,
//        which has no row; (parent, folded) is unique
//   vals(id, key, name, folded, type, data)   (key, folded) is unique; id
//        keeps the order in which values were created
// Names are UTF-8; "folded" is the name upper-cased the way Windows compares
// registry names. data holds the value's bytes exactly as Windows holds them.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "vel/rtl/Registry.h"

namespace vel::detail {

// The upper-case form of a UTF-8 name used for comparisons: ASCII, Latin-1,
// Latin Extended-A, Greek and Cyrillic letters fold; everything else stays.
std::string FoldName(std::string_view Utf8);

// Splits a key path at backslashes, dropping empty components.
std::vector<std::string_view> SplitKeyPath(std::string_view Path);

class THive {
 public:
  // Opens (creating the file and its folder when allowed) the database of
  // Root. With ForWrite the hive must be writable, else nullptr; without it a
  // read-only open of an existing file is accepted. nullptr when the file
  // cannot be opened at all.
  static std::shared_ptr<THive> Open(HKEY Root, bool ForWrite);
  ~THive();
  THive(const THive&) = delete;
  THive& operator=(const THive&) = delete;

  bool Writable() const { return FWritable; }
  sqlite3* Db() const { return FDb; }

  // Transactions: Begin takes the write lock at once (BEGIN IMMEDIATE), so
  // a writer waits for others at its start rather than failing at commit.
  bool Begin();
  bool Commit();
  void Rollback();

  // -1 when there is no such child.
  int64_t FindChild(int64_t Parent, std::string_view NameUtf8);
  // Inside a transaction. -1 on failure.
  int64_t CreateChild(int64_t Parent, std::string_view NameUtf8);
  // Follows Path from Parent; -1 when a component is missing (and Create is
  // false or creating fails). Create needs a transaction.
  int64_t Resolve(int64_t Parent, std::string_view Path, bool Create);
  bool KeyAlive(int64_t Id);
  void Touch(int64_t Id);
  std::string KeyName(int64_t Id);

  bool GetValue(int64_t Key, std::string_view NameUtf8, TRegValue& Value);
  // Inside a transaction; keeps the stored name and position of a value
  // that exists already.
  bool PutValue(int64_t Key, std::string_view NameUtf8, const TRegValue& Value);
  bool PutValueFolded(int64_t Key, std::string_view NameUtf8, std::string_view Folded,
                      uint32_t Type, const void* Data, size_t Size);
  bool DeleteValue(int64_t Key, std::string_view NameUtf8);
  // Deletes the key, its subkeys and all their values. Inside a transaction.
  bool DeleteTree(int64_t Id);

  struct TChild {
    int64_t Id;
    std::string Name;
  };
  // Subkeys in folded-name order.
  std::vector<TChild> Children(int64_t Parent);
  struct TNamedValue {
    std::string Name;
    TRegValue Value;
  };
  // Values in creation order.
  std::vector<TNamedValue> Values(int64_t Key);
  int64_t WrittenTime(int64_t Key);

 private:
  THive() = default;
  sqlite3_stmt* Stmt(int Slot, const char* Sql);
  bool Exec(const char* Sql);

  sqlite3* FDb = nullptr;
  bool FWritable = false;
  bool FInTransaction = false;
  sqlite3_stmt* FStmts[16] = {};
};

}  // namespace vel::detail
