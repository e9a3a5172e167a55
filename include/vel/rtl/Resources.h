// Resources read from files without running their code: PE/COFF images
// (PE32 and PE32+: the resource directory of .rsrc), the Linux plug-in
// packages (an ELF section named ".velrsrc" holding a 32-bit Windows .res
// file: the same resource bytes a Windows package carries), and bare .res
// files. On this reader sit the version-information calls
// (GetFileVersionInfoSizeA, GetFileVersionInfoA, VerQueryValueA) and the
// package-resource calls (GetPackageDescription, GetPackageInfo).
//
// Everything read from a file is untrusted: every offset, count and size is
// checked before use, and a damaged file is refused with EResourceError or
// reads as "no such resource"; nothing reads outside the file.
//
// Thread safety: a TResourceModule is immutable after loading and may be
// shared between threads; the free functions are reentrant.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "vel/Export.h"
#include "vel/rtl/System.h"

namespace vel {

VEL_EXCEPTION(EResourceError, Exception);
VEL_EXCEPTION(EPackageError, Exception);

// Standard resource types.
inline constexpr uint16_t RT_CURSOR = 1;
inline constexpr uint16_t RT_BITMAP = 2;
inline constexpr uint16_t RT_ICON = 3;
inline constexpr uint16_t RT_STRING = 6;
inline constexpr uint16_t RT_RCDATA = 10;
inline constexpr uint16_t RT_GROUP_ICON = 14;
inline constexpr uint16_t RT_VERSION = 16;

// LoadLibraryEx's flag for loading a module as data only.
inline constexpr uint32_t LOAD_LIBRARY_AS_DATAFILE = 2;
// Any language: the neutral one first, then US English, then the first.
inline constexpr uint16_t ResLangAny = 0xFFFF;

// The name of the ELF section that carries a Linux package's resources.
inline constexpr const char* ElfResourceSection = ".velrsrc";

// A resource type or name: a 16-bit id or a string. Strings compare without
// regard to letter case, as Windows compares them.
struct VEL_API TResId {
  bool IsName = false;
  uint16_t Id = 0;
  std::u16string Name;

  static TResId FromId(uint16_t AId) { return TResId{false, AId, {}}; }
  // A Windows-1252 name such as "PACKAGEINFO".
  static TResId FromName(std::string_view AName);
  bool Matches(const TResId& Other) const;
  // "#16" for an id, the name (Windows-1252) otherwise.
  std::string ToString() const;
};

struct TResourceEntry {
  TResId Type;
  TResId Name;
  uint16_t Language = 0;
  size_t Offset = 0;  // of the data within the module's bytes
  uint32_t Size = 0;
};

enum class TResourceFormat : uint8_t { rfPE32, rfPE32Plus, rfElf, rfRes };

// The resources of one file, held in memory with the file's bytes (or the
// part of them that carries the resources).
class VEL_API TResourceModule {
 public:
  // Reads FileName. Raises EResourceError "Cannot open %s: %s" when the file
  // cannot be read, and "%s is not a valid resource module" when it is
  // neither PE, ELF nor .res, or its resource structures are damaged.
  static std::shared_ptr<const TResourceModule> LoadFromFile(const std::string& FileName);
  // The same over bytes in memory; Name is used in messages only.
  static std::shared_ptr<const TResourceModule> LoadFromBytes(std::vector<uint8_t> Bytes,
                                                             const std::string& Name);

  const std::string& FileName() const { return FFileName; }
  TResourceFormat Format() const { return FFormat; }
  const std::vector<TResourceEntry>& Entries() const { return FEntries; }

  // The resource of that type and name; with ResLangAny the neutral
  // language is preferred, then US English, then the first in file order.
  const TResourceEntry* Find(const TResId& Type, const TResId& Name,
                             uint16_t Language = ResLangAny) const;
  // The first resource of that type, in file order.
  const TResourceEntry* FindFirst(const TResId& Type) const;
  std::span<const uint8_t> Data(const TResourceEntry& Entry) const;

 private:
  TResourceModule() = default;
  void Parse();
  void ParsePE();
  void ParseElf();
  void ParseRes(size_t Start, size_t Size);

  std::string FFileName;
  std::vector<uint8_t> FBytes;
  TResourceFormat FFormat = TResourceFormat::rfRes;
  std::vector<TResourceEntry> FEntries;
};

// ---------------------------------------------------------------------------
// Version information

// The size a caller must give GetFileVersionInfoA: twice the version
// resource plus four bytes (room for the 8-bit copies of its strings, as
// Windows reserves it). 0 when the file cannot be read or has no version
// resource. *Handle is set to 0.
VEL_API uint32_t GetFileVersionInfoSizeA(const char* FileName, uint32_t* Handle);
// Copies the version resource (at most Len bytes) into Data; false when the
// file or the resource cannot be read or Len is below 4.
VEL_API bool GetFileVersionInfoA(const char* FileName, uint32_t Handle, uint32_t Len, void* Data);
// Fills Data from a version resource already in memory, as
// GetFileVersionInfoA does from a file.
VEL_API bool VersionBlockFromResource(std::span<const uint8_t> Resource, uint32_t Len, void* Data);
// Looks SubBlock up in a block filled by GetFileVersionInfoA: "\" gives the
// fixed file information, "\VarFileInfo\Translation" the translation table,
// "\StringFileInfo\<lang><codepage>\<key>" a string, converted to
// Windows-1252 with '?' for what it cannot hold. Keys match without regard to
// letter case. *Len receives the value's length as the resource records it:
// bytes for binary values, characters for strings (the terminating NUL
// included when the resource counts it). False when the path is not found.
VEL_API bool VerQueryValueA(const void* Block, const char* SubBlock, void** Buffer, uint32_t* Len);

// ---------------------------------------------------------------------------
// Package resources

// Package flags.
inline constexpr uint32_t pfNeverBuild = 0x00000001;
inline constexpr uint32_t pfDesignOnly = 0x00000002;
inline constexpr uint32_t pfRunOnly = 0x00000004;
inline constexpr uint32_t pfIgnoreDupUnits = 0x00000008;
inline constexpr uint32_t pfModuleTypeMask = 0xC0000000;
inline constexpr uint32_t pfExeModule = 0x00000000;
inline constexpr uint32_t pfPackageModule = 0x40000000;
inline constexpr uint32_t pfLibraryModule = 0x80000000;
// Unit flags.
inline constexpr uint8_t ufMainUnit = 0x01;
inline constexpr uint8_t ufPackageUnit = 0x02;
inline constexpr uint8_t ufWeakUnit = 0x04;
inline constexpr uint8_t ufOrgWeakUnit = 0x08;
inline constexpr uint8_t ufImplicitUnit = 0x10;

enum TNameType : uint8_t { ntContainsUnit, ntRequiresPackage, ntDcpBpiName };
using TPackageInfoProc =
    std::function<void(const std::string& Name, TNameType NameType, uint8_t Flags, void* Param)>;

// The text of the "DESCRIPTION" resource (UTF-16 in the file, returned in
// Windows-1252); "" when the package has none. Raises EResourceError when the
// file cannot be read as a module.
VEL_API std::string GetPackageDescription(const char* ModuleName);
// Reads the "PACKAGEINFO" resource: Flags receives the package flags, and
// InfoProc is called for each required package, each contained unit (with
// its unit flags) and the package's own name when the resource carries it.
// Raises EPackageError "%s does not contain package information" when the
// resource is missing and "Package information of %s is damaged" when it
// does not hold together.
VEL_API void GetPackageInfo(const TResourceModule& Module, void* Param, uint32_t& Flags,
                            const TPackageInfoProc& InfoProc);

// Builders of the same structures, used by the tools that make packages and
// by tests. VersionStrings are (key, value) pairs in UTF-8.
struct TVersionResourceDesc {
  uint32_t FileVersionMS = 0, FileVersionLS = 0, ProductVersionMS = 0, ProductVersionLS = 0;
  uint32_t FileFlags = 0, FileOS = 0x40004, FileType = 2;
  // One string table per (language, code page); Translations lists the
  // translation entries in the order they are written.
  struct TTable {
    uint16_t Language = 0x0409;
    uint16_t CodePage = 0x04E4;
    std::vector<std::pair<std::string, std::string>> Strings;
  };
  std::vector<TTable> Tables;
  std::vector<std::pair<uint16_t, uint16_t>> Translations;
};
VEL_API std::vector<uint8_t> BuildVersionResource(const TVersionResourceDesc& Desc);
struct TPackageInfoDesc {
  uint32_t Flags = pfPackageModule;
  std::vector<std::string> Requires;
  std::vector<std::pair<std::string, uint8_t>> Contains;  // unit name, unit flags
  std::string PackageName;                                // written when not empty
};
VEL_API std::vector<uint8_t> BuildPackageInfoResource(const TPackageInfoDesc& Desc);
// UTF-16 text with its NUL, as the "DESCRIPTION" resource holds it.
VEL_API std::vector<uint8_t> BuildDescriptionResource(std::string_view Utf8Text);
// A .res file of the given resources (type, name, language, data).
struct TResSpecEntry {
  TResId Type;
  TResId Name;
  uint16_t Language = 0x0409;
  std::vector<uint8_t> Data;
};
VEL_API std::vector<uint8_t> BuildResFile(const std::vector<TResSpecEntry>& Entries);

}  // namespace vel
