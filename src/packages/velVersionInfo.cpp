#include "vel/velVersionInfo.h"

#include "packages/VersionCore.h"
#include "vel/rtl/TypInfo.h"

namespace vel::velVersionInfo {

const char* const VERSION_LABELS[VersionLabelCount] = {
    "CompanyName",      "FileDescription",  "FileVersion", "InternalName",   "LegalCopyright",
    "LegalTrademarks",  "OriginalFilename", "ProductName", "ProductVersion", "Comments"};

namespace {

constexpr detail::TVersionMessages Messages = {
    "No Version Info Available For %s.", "Cannot obtain version info for %s.",
    "Cannot Obtain Language Translation Info for %s.", "Unable to Read Fixed File Info of %s."};

[[noreturn]] void Raise(const std::string& Message) {
  throw EVersionInfo(Message);
}

}  // namespace

VEL_IMPLEMENT(TVersionInfo)

TVersionInfo::TVersionInfo() : FItems(new TStringList) {}

TVersionInfo::~TVersionInfo() {
  delete FItems;
}

void TVersionInfo::SetFileName(const std::string& Value) {
  if (Value == FFileName) return;
  FFileName = Value;
  GetVersionInfo(FFileName);
}

void TVersionInfo::ReadFileVersionInfo() {
  detail::TVersionFields F;
  F.Handle = FHandle;
  detail::ReadFileVersionInfo(F, FFileName, Messages, Raise);
  FHandle = F.Handle;
  FSize = F.Size;
  FBuffer = std::move(F.Buffer);
  FTranslation = F.Translation;
  FFixedFileInfo = nullptr;
}

void TVersionInfo::ReadFixedFileInfo() {
  detail::TVersionFields F;
  F.Buffer = std::move(FBuffer);
  try {
    detail::ReadFixedFileInfo(F, FFileName, Messages, Raise);
  } catch (...) {
    FBuffer = std::move(F.Buffer);
    throw;
  }
  FBuffer = std::move(F.Buffer);
  FFixedFileInfo = F.FixedFileInfo;
}

TStrings* TVersionInfo::GetVersionInfo(const std::string& FileName) {
  FFileName = FileName;
  ReadFileVersionInfo();
  ReadFixedFileInfo();
  FItems->Clear();
  detail::TVersionFields F;
  F.Buffer = FBuffer;  // the strings are converted in a scratch copy
  F.Translation = FTranslation;
  FValues = detail::ReadVersionStrings(F, VERSION_LABELS);
  for (int I = 0; I < VersionLabelCount; ++I)
    FItems->Add(std::string(VERSION_LABELS[I]) + "=" + FValues[static_cast<size_t>(I)]);
  return FItems;
}

}  // namespace vel::velVersionInfo
