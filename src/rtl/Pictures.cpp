#include "vel/rtl/Pictures.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <limits>

#include "vel/rtl/SysUtils.h"
#include "vel/rtl/TypInfo.h"

namespace vel {

VEL_IMPLEMENT(TBitmap)
VEL_IMPLEMENT(TIcon)

namespace {

uint32_t Le32(const uint8_t* P) {
  return uint32_t(P[0]) | uint32_t(P[1]) << 8 | uint32_t(P[2]) << 16 | uint32_t(P[3]) << 24;
}
uint16_t Le16(const uint8_t* P) {
  return static_cast<uint16_t>(P[0] | P[1] << 8);
}
void Put32(uint8_t* P, uint32_t V) {
  for (int I = 0; I < 4; ++I) P[I] = static_cast<uint8_t>(V >> (8 * I));
}

[[noreturn]] void Invalid() {
  throw EInvalidGraphic(SInvalidBitmap);
}

}  // namespace

TBitmap::~TBitmap() = default;

void TBitmap::Clear() {
  FDib.clear();
  FWidth = FHeight = 0;
  FBitCount = 0;
  FPixelOffset = 0;
}

void TBitmap::Assign(TPersistent* Source) {
  if (auto* B = dynamic_cast<TBitmap*>(Source)) {
    if (B != this) {
      FDib = B->FDib;
      FWidth = B->FWidth;
      FHeight = B->FHeight;
      FBitCount = B->FBitCount;
      FPixelOffset = B->FPixelOffset;
    }
    return;
  }
  if (!Source) {
    Clear();
    return;
  }
  TPersistent::Assign(Source);
}

void TBitmap::SetDib(std::span<const uint8_t> Dib) {
  if (Dib.size() < 12) Invalid();
  const uint8_t* P = Dib.data();
  const uint32_t HeaderSize = Le32(P);
  int64_t Width, Height;
  uint16_t Planes, BitCount;
  uint32_t Compression = 0, ColorsUsed = 0, ImageSize = 0;
  size_t ColorBytes;
  if (HeaderSize == 12) {  // the OS/2 core header
    Width = Le16(P + 4);
    Height = Le16(P + 6);
    Planes = Le16(P + 8);
    BitCount = Le16(P + 10);
    ColorBytes = BitCount <= 8 ? (size_t{1} << BitCount) * 3 : 0;
  } else {
    if (HeaderSize < 40 || HeaderSize > Dib.size()) Invalid();
    Width = static_cast<int32_t>(Le32(P + 4));
    Height = static_cast<int32_t>(Le32(P + 8));
    Planes = Le16(P + 12);
    BitCount = Le16(P + 14);
    Compression = Le32(P + 16);
    ImageSize = Le32(P + 20);
    ColorsUsed = Le32(P + 32);
    if (BitCount <= 8) {
      if (ColorsUsed > (1u << BitCount)) Invalid();
      ColorBytes = size_t{ColorsUsed ? ColorsUsed : (1u << BitCount)} * 4;
    } else {
      if (ColorsUsed > 1u << 16) Invalid();
      ColorBytes = size_t{ColorsUsed} * 4;
    }
    // Three colour masks follow the 40-byte header for bit fields.
    if (HeaderSize == 40 && Compression == 3) ColorBytes += 12;
  }
  if (Planes != 1 || Width <= 0 || Height == 0 || Height == std::numeric_limits<int32_t>::min())
    Invalid();
  if (BitCount != 1 && BitCount != 4 && BitCount != 8 && BitCount != 16 && BitCount != 24 &&
      BitCount != 32)
    Invalid();
  const uint64_t AbsHeight = static_cast<uint64_t>(Height < 0 ? -Height : Height);
  const uint64_t PixelOffset = uint64_t{HeaderSize} + ColorBytes;
  uint64_t PixelBytes;
  if (Compression == 0 || Compression == 3) {
    const uint64_t Stride = ((static_cast<uint64_t>(Width) * BitCount + 31) / 32) * 4;
    PixelBytes = Stride * AbsHeight;
  } else if (Compression == 1 || Compression == 2) {  // RLE8, RLE4: as recorded
    PixelBytes = ImageSize;
  } else {
    Invalid();
  }
  if (PixelOffset > Dib.size() || PixelBytes > Dib.size() - PixelOffset) Invalid();
  FDib.assign(Dib.begin(), Dib.begin() + static_cast<std::ptrdiff_t>(PixelOffset + PixelBytes));
  FWidth = static_cast<int32_t>(Width);
  FHeight = static_cast<int32_t>(AbsHeight);
  FBitCount = BitCount;
  FPixelOffset = static_cast<uint32_t>(PixelOffset);
}

void TBitmap::LoadFromResourceName(const TResourceModule& Module, const std::string& Name) {
  const TResourceEntry* E = Module.Find(TResId::FromId(RT_BITMAP), TResId::FromName(Name));
  if (!E) throw EResNotFound(Format(SResNotFound, {Name}));
  SetDib(Module.Data(*E));
}

void TBitmap::LoadFromResourceID(const TResourceModule& Module, uint16_t Id) {
  const TResourceEntry* E = Module.Find(TResId::FromId(RT_BITMAP), TResId::FromId(Id));
  if (!E) throw EResNotFound(Format(SResNotFound, {static_cast<int64_t>(Id)}));
  SetDib(Module.Data(*E));
}

void TBitmap::LoadFromStream(TStream* Stream) {
  const int64_t Avail = Stream->GetSize() - Stream->GetPosition();
  if (Avail < 14 + 12 || Avail > (int64_t{1} << 31)) Invalid();
  std::vector<uint8_t> B(static_cast<size_t>(Avail));
  Stream->ReadBuffer(B.data(), Avail);
  if (B[0] != 'B' || B[1] != 'M') Invalid();
  SetDib(std::span<const uint8_t>(B).subspan(14));
}

void TBitmap::SaveToStream(TStream* Stream) const {
  if (FDib.empty()) return;
  uint8_t Header[14] = {'B', 'M'};
  Put32(Header + 2, static_cast<uint32_t>(14 + FDib.size()));
  Put32(Header + 10, 14 + FPixelOffset);
  Stream->WriteBuffer(Header, sizeof Header);
  Stream->WriteBuffer(FDib.data(), static_cast<int64_t>(FDib.size()));
}

void TBitmap::LoadFromFile(const std::string& FileName) {
  TFileStream S(FileName, fmOpenRead | fmShareDenyWrite);
  LoadFromStream(&S);
}

void TBitmap::SaveToFile(const std::string& FileName) const {
  TFileStream S(FileName, fmCreate);
  SaveToStream(&S);
}

TIcon::~TIcon() = default;

void TIcon::Assign(TPersistent* Source) {
  if (auto* I = dynamic_cast<TIcon*>(Source)) {
    FData = I->FData;
    return;
  }
  TPersistent::Assign(Source);
}

}  // namespace vel
