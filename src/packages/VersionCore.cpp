#include "packages/VersionCore.h"

#include <cstring>

#include "vel/rtl/Resources.h"
#include "vel/rtl/SysUtils.h"

namespace vel::detail {

namespace {
constexpr const char* SVersionQuery = "%s%.4x%.4x\\%s%s";
constexpr const char* SStringFileInfo = "\\StringFileInfo\\";
constexpr const char* STranslation = "\\VarFileInfo\\Translation";
constexpr uint32_t FixedFileInfoSize = 52;
}  // namespace

void ReadFileVersionInfo(TVersionFields& F, const std::string& FileName,
                         const TVersionMessages& Msgs, TRaise Raise) {
  F.Size = static_cast<int32_t>(GetFileVersionInfoSizeA(FileName.c_str(), &F.Handle));
  if (F.Size <= 0) Raise(Format(Msgs[0], {FileName}));
  F.Buffer.assign(static_cast<size_t>(F.Size), '\0');
  F.Translation = nullptr;
  F.FixedFileInfo = nullptr;
  if (!GetFileVersionInfoA(FileName.c_str(), F.Handle, static_cast<uint32_t>(F.Size),
                           F.Buffer.data()))
    Raise(Format(Msgs[1], {FileName}));
  void* P = nullptr;
  uint32_t Len = 0;
  // A table too short to hold one entry counts as missing.
  if (!VerQueryValueA(F.Buffer.data(), STranslation, &P, &Len) || Len < 4)
    Raise(Format(Msgs[2], {FileName}));
  F.Translation = P;
}

void ReadFixedFileInfo(TVersionFields& F, const std::string& FileName,
                       const TVersionMessages& Msgs, TRaise Raise) {
  void* P = nullptr;
  uint32_t Len = 0;
  if (F.Buffer.empty() || !VerQueryValueA(F.Buffer.data(), "\\", &P, &Len) ||
      Len < FixedFileInfoSize)
    Raise(Format(Msgs[3], {FileName}));
  F.FixedFileInfo = P;
}

TVersionStrings ReadVersionStrings(const TVersionFields& F, const char* const* Keys) {
  TVersionStrings Result;
  uint32_t Entry = 0;
  if (F.Translation) std::memcpy(&Entry, F.Translation, sizeof Entry);
  const int64_t Language = Entry & 0xFFFF;
  const int64_t CodePage = Entry >> 16;
  for (size_t I = 0; I < Result.size(); ++I) {
    // The path ends with a NUL character, which ends the query string.
    const std::string Path =
        Format(SVersionQuery, {SStringFileInfo, Language, CodePage, Keys[I], std::string(1, '\0')});
    void* P = nullptr;
    uint32_t Len = 0;
    if (VerQueryValueA(F.Buffer.data(), Path.c_str(), &P, &Len) && P)
      Result[I] = static_cast<const char*>(P);
  }
  return Result;
}

}  // namespace vel::detail
