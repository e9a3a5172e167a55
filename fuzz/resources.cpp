// Feeds arbitrary bytes to the resource reader as a module (PE32, PE32+,
// ELF with its resource section, .res), then reads every resource the way
// the version and package classes do: the version block with its queries,
// the description and the package information. Each input must end in
// success or a vel::Exception, without reading outside what was given.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "vel/rtl/Resources.h"

using namespace vel;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* Data, size_t Size) {
  std::shared_ptr<const TResourceModule> M;
  try {
    M = TResourceModule::LoadFromBytes(std::vector<uint8_t>(Data, Data + Size), "fuzz");
  } catch (const Exception&) {
    return 0;
  }
  for (const TResourceEntry& E : M->Entries()) {
    auto Bytes = M->Data(E);
    if (E.Type.IsName || E.Type.Id != RT_VERSION || Bytes.size() > 0xFFFF) continue;
    // The block exactly as large as GetFileVersionInfoSizeA asks for, so
    // that the sanitizers see any access past it.
    for (uint32_t Len : {uint32_t(Bytes.size() * 2 + 4), uint32_t(Bytes.size())}) {
      std::vector<uint8_t> Block(Len);
      if (!VersionBlockFromResource(Bytes, Len, Block.data())) continue;
      void* P;
      uint32_t L;
      static const char* const Paths[] = {
          "\\", "\\VarFileInfo\\Translation", "\\StringFileInfo",
          "\\StringFileInfo\\040904e4\\CompanyName", "\\StringFileInfo\\040904E4\\Comments"};
      for (const char* Path : Paths) VerQueryValueA(Block.data(), Path, &P, &L);
      if (VerQueryValueA(Block.data(), "\\VarFileInfo\\Translation", &P, &L) && L >= 4) {
        uint32_t T;
        std::memcpy(&T, P, 4);
        char Path[64];
        std::snprintf(Path, sizeof Path, "\\StringFileInfo\\%04x%04x\\FileVersion", T & 0xFFFF,
                      T >> 16);
        if (VerQueryValueA(Block.data(), Path, &P, &L) && P) (void)std::strlen(static_cast<char*>(P));
      }
    }
  }
  try {
    uint32_t Flags;
    GetPackageInfo(*M, nullptr, Flags, [](const std::string&, TNameType, uint8_t, void*) {});
  } catch (const Exception&) {
  }
  return 0;
}
