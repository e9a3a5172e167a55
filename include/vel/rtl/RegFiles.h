// Registry files: the two forms regedit exports and imports.
//
//   REGEDIT4                                 8-bit text, Windows-1252; the
//                                            strings in hex(2) and hex(7)
//                                            data are 8-bit too
//   Windows Registry Editor Version 5.00     UTF-16LE with a byte-order mark
//
// A file is a header line, then sections "[HKEY_...\path]" (or
// "[-HKEY_...\path]", which deletes the key with everything below it), each
// followed by value lines: "name"= or @= (the default value) and then
// "text", dword:xxxxxxxx, hex:bytes, hex(n):bytes (n the value type in hex),
// or - (delete the value). Hex data may continue on the next line after a
// trailing backslash; lines starting with ';' are comments; within quoted
// names and strings \\ and \" stand for \ and ". Lines end with CRLF.
// Reading accepts either header in either encoding (and a UTF-8 file with
// its byte-order mark), LF line ends, blanks around tokens, a comment after
// a value, and the short hive names (HKCU, HKLM ...).
//
// Thread safety: the functions keep no state; imports and exports from
// several threads or processes are serialised by the hives' transactions.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "vel/Export.h"
#include "vel/rtl/Registry.h"

namespace vel {

// A registry file that cannot be read; the message names the line:
// "<what is wrong> on line <n>".
VEL_EXCEPTION(ERegFileError, ERegistryException);

enum class TRegFileFormat : uint8_t {
  Regedit4,  // "REGEDIT4", 8-bit Windows-1252 text
  Version5   // "Windows Registry Editor Version 5.00", UTF-16LE with BOM
};

// One line's effect, in file order.
struct TRegFileEntry {
  enum TKind : uint8_t { CreateKey, DeleteKey, SetValue, DeleteValue };
  TKind Kind = CreateKey;
  int Line = 0;        // physical line (1-based) where the entry starts
  HKEY Root = 0;       // the section's hive
  std::string Path;    // the section's key below its hive, UTF-8, no
                       // leading or trailing backslash
  std::string Name;    // value name, UTF-8 ("" is the default value)
  TRegValue Value;     // SetValue: the type and the bytes as Windows holds them
};

struct TRegFileContent {
  TRegFileFormat Format = TRegFileFormat::Version5;
  std::vector<TRegFileEntry> Entries;
};

// Reads a whole file's bytes; raises ERegFileError on the first malformed
// line. Values inside a "[-key]" section are ignored, as regedit does.
VEL_API TRegFileContent ParseRegText(std::string_view Bytes);

// Imports a registry file into the hives its sections name. Every hive the
// file touches is written in one transaction, and the transactions commit
// only when every line was understood and applied: a malformed file, or a
// hive that may not be written, raises ERegFileError naming the line and
// changes nothing. Returns the number of values set.
VEL_API int ImportRegFile(const std::string& FileName);
VEL_API int ImportRegText(std::string_view Bytes);

// Exports Key (UTF-8 path below the hive, "" for the whole hive) of Root
// with its subkeys, recursively (subkeys in name order, values in the order
// they were created), as regedit writes it: the header, then for each key an
// empty line, "[HIVE\path]" and its value lines, and a final empty line, all
// with CRLF. Raises ERegistryException "Key not found: %s" when the key does
// not exist. A REG_SZ or REG_DWORD value whose bytes a quoted string or a
// dword line cannot carry exactly is written as hex(1) or hex(4) (in the
// REGEDIT4 form that includes a REG_SZ with characters outside
// Windows-1252); in key and value names and in hex(2)/hex(7) data of the
// REGEDIT4 form such characters become '?', as in regedit.
VEL_API std::string ExportRegText(HKEY Root, const std::string& Key, TRegFileFormat Format);
VEL_API void ExportRegFile(HKEY Root, const std::string& Key, const std::string& FileName,
                           TRegFileFormat Format);

// The line regedit writes for one value, in UTF-8: "name"=... (or @=... for
// the default value, NameUtf8 empty), hex data wrapped as regedit wraps it
// (",\" then CRLF, continuation lines indented by two blanks, no line longer
// than 80 characters unless the name is), with no final line end.
VEL_API std::string RegValueLine(std::string_view NameUtf8, const TRegValue& Value, TRegFileFormat Format);

}  // namespace vel
