// The version-resource algorithm shared by the two TVersionInfo classes
// (ExtendedClasses' component and velVersionInfo's plain object): they differ
// in base class and exception class only.
#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace vel::detail {

using TVersionStrings = std::array<std::string, 10>;

// The fields both classes keep.
struct TVersionFields {
  uint32_t Handle = 0;
  int32_t Size = 0;
  std::string Buffer;
  const void* Translation = nullptr;
  const void* FixedFileInfo = nullptr;
};

// The four messages, in the order: no version info, cannot obtain, no
// translation, fixed file info.
using TVersionMessages = std::array<const char*, 4>;
using TRaise = void (*)(const std::string& Message);

// Fills Handle, Size, Buffer and Translation; raises through Raise.
void ReadFileVersionInfo(TVersionFields& F, const std::string& FileName,
                         const TVersionMessages& Msgs, TRaise Raise);
// Fills FixedFileInfo; raises through Raise.
void ReadFixedFileInfo(TVersionFields& F, const std::string& FileName,
                       const TVersionMessages& Msgs, TRaise Raise);
// The ten strings of the first translation entry's string table, in label
// order; missing ones are empty.
TVersionStrings ReadVersionStrings(const TVersionFields& F, const char* const* Keys);

}  // namespace vel::detail
