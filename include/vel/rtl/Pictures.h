// The runtime's bitmap and icon objects, as far as resource loading needs
// them: TBitmap holds a device-independent bitmap (the header, colour table
// and pixels exactly as a resource or a .bmp file carries them), loads it
// from a resource module or a .bmp file and saves itself as a .bmp file;
// TIcon holds an icon's bytes.
//
// Thread safety: one object belongs to one thread at a time.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "vel/Export.h"
#include "vel/rtl/Packages.h"
#include "vel/rtl/Persistent.h"
#include "vel/rtl/Resources.h"
#include "vel/rtl/Streams.h"

namespace vel {

VEL_EXCEPTION(EInvalidGraphic, Exception);
VEL_EXCEPTION(EResNotFound, Exception);

inline constexpr const char* SInvalidBitmap = "Bitmap image is not valid";
inline constexpr const char* SResNotFound = "Resource %s not found";

class VEL_API TBitmap : public TPersistent {
  VEL_CLASS(TBitmap, TPersistent)
 public:
  TBitmap() = default;
  ~TBitmap() override;

  void Assign(TPersistent* Source) override;
  bool Empty() const { return FDib.empty(); }
  int32_t Width() const { return FWidth; }
  // Positive whatever the row order of the pixels.
  int32_t Height() const { return FHeight; }
  uint16_t BitCount() const { return FBitCount; }
  // The device-independent bitmap: header, colour table, pixels.
  const std::vector<uint8_t>& Dib() const { return FDib; }
  // Replaces the image with a device-independent bitmap; raises
  // EInvalidGraphic SInvalidBitmap when its header does not describe it.
  void SetDib(std::span<const uint8_t> Dib);
  void Clear();

  // The RT_BITMAP resource Name (or id) of Module; EResNotFound when absent.
  void LoadFromResourceName(const TResourceModule& Module, const std::string& Name);
  void LoadFromResourceID(const TResourceModule& Module, uint16_t Id);
  // .bmp files: the 14-byte file header, then the device-independent bitmap.
  void LoadFromStream(TStream* Stream);
  void SaveToStream(TStream* Stream) const;
  void LoadFromFile(const std::string& FileName);
  void SaveToFile(const std::string& FileName) const;

 private:
  std::vector<uint8_t> FDib;
  int32_t FWidth = 0, FHeight = 0;
  uint16_t FBitCount = 0;
  uint32_t FPixelOffset = 0;  // within FDib
};

class VEL_API TIcon : public TPersistent {
  VEL_CLASS(TIcon, TPersistent)
 public:
  TIcon() = default;
  ~TIcon() override;
  void Assign(TPersistent* Source) override;
  bool Empty() const { return FData.empty(); }
  const std::vector<uint8_t>& Data() const { return FData; }
  void SetData(std::vector<uint8_t> Data) { FData = std::move(Data); }

 private:
  std::vector<uint8_t> FData;
};

}  // namespace vel
