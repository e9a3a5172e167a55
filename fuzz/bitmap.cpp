// Feeds arbitrary bytes to the runtime bitmap's readers: as a .bmp file
// (LoadFromStream) and as a device-independent bitmap (SetDib), then saves
// what was accepted and reads it back. Each input must end in success or a
// vel::Exception, without reading outside what was given.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

#include "vel/rtl/Pictures.h"

using namespace vel;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* Data, size_t Size) {
  TBitmap B;
  try {
    B.SetDib(std::span<const uint8_t>(Data, Size));
  } catch (const Exception&) {
  }
  try {
    TMemoryStream In;
    In.Write(Data, static_cast<int64_t>(Size));
    In.SetPosition(0);
    B.LoadFromStream(&In);
    TMemoryStream Out;
    B.SaveToStream(&Out);
    Out.SetPosition(0);
    TBitmap Back;
    Back.LoadFromStream(&Out);
    if (Back.Dib() != B.Dib()) std::abort();
  } catch (const Exception&) {
  }
  return 0;
}
