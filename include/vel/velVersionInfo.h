// A file's version resource as a plain object: the ten standard version
// strings (company, description, versions, ...) of the first translation
// entry, as values and as "Key=Value" lines, and the fixed file information.
// Same algorithm as ExtendedClasses' TVersionInfo component; this one raises
// EVersionInfo.
//
// Thread safety: one object belongs to one thread at a time.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "vel/Export.h"
#include "vel/rtl/StringLists.h"
#include "vel/rtl/System.h"

namespace vel::velVersionInfo {

VEL_EXCEPTION(EVersionInfo, Exception);

enum TVersionLabel : uint8_t {
  vlCompanyName,
  vlFileDescription,
  vlFileVersion,
  vlInternalName,
  vlLegalCopyright,
  vlLegalTrademarks,
  vlOriginalFilename,
  vlProductName,
  vlProductVersion,
  vlComments
};
inline constexpr int VersionLabelCount = 10;
using TVersionItems = std::array<std::string, VersionLabelCount>;

// The resource keys of the labels, in label order.
extern VEL_API const char* const VERSION_LABELS[VersionLabelCount];

class VEL_API TVersionInfo : public TObject {
  VEL_CLASS(TVersionInfo, TObject)
 public:
  TVersionInfo();
  ~TVersionInfo() override;

  // Reads FileName's version resource and returns Items (owned by this
  // object). Raises EVersionInfo with "No Version Info Available For %s.",
  // "Cannot obtain version info for %s.", "Cannot Obtain Language
  // Translation Info for %s." or "Unable to Read Fixed File Info of %s.".
  virtual TStrings* GetVersionInfo(const std::string& FileName);

  const std::string& FileName() const { return FFileName; }
  // Reads the file when Value differs (exactly) from FileName.
  void SetFileName(const std::string& Value);
  const std::string& GetVersionItem(TVersionLabel Index) const { return FValues[Index]; }
  const TVersionItems& Values() const { return FValues; }
  TStringList* Items() const { return FItems; }

  uint32_t Handle() const { return FHandle; }
  int32_t Size() const { return FSize; }
  const std::string& Buffer() const { return FBuffer; }
  // The first translation entry (language in the low 16 bits, code page in
  // the high 16 bits) and the fixed file information, inside Buffer.
  const void* Translation() const { return FTranslation; }
  const void* FixedFileInfo() const { return FFixedFileInfo; }

 protected:
  virtual void ReadFileVersionInfo();
  virtual void ReadFixedFileInfo();

 private:
  uint32_t FHandle = 0;
  int32_t FSize = 0;
  std::string FBuffer;
  const void* FTranslation = nullptr;
  const void* FFixedFileInfo = nullptr;
  std::string FFileName;
  TVersionItems FValues;
  TStringList* FItems;
};

}  // namespace vel::velVersionInfo
