// Feeds arbitrary text to Format, FormatFloat and FormatDateTime as the
// pattern, and to the float and currency readers. The formatters must
// return or raise EConvertError, never crash; every number read must write
// back to a text that reads to the same value.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "vel/rtl/SysUtils.h"

using namespace vel;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* Data, size_t Size) {
  // Widths may reach a million characters per directive; keep patterns
  // short so that one input cannot ask for gigabytes.
  if (Size > 512) return 0;
  const std::string S(reinterpret_cast<const char*>(Data), Size);

  try {
    (void)Format(S, {7, int64_t(-1), 2.5L, "text", 'c', Currency::FromScaled(12345),
                     static_cast<const void*>(Data), 3});
  } catch (const EConvertError&) {
  }
  (void)FormatFloat(S, -1234.5678);
  (void)FormatFloat(S, 0.0);
  (void)FormatDateTime(S, TDateTime(37806.378541666));

  Extended X;
  if (TryStrToFloat(S, X)) {
    Extended Back;
    if (!TryStrToFloat(FloatToStr(X), Back)) std::abort();
    const bool IsDouble = static_cast<long double>(static_cast<double>(X)) == X;
    if (std::isnan(X) != std::isnan(Back)) std::abort();
    if (!std::isnan(X) && (IsDouble ? static_cast<double>(Back) != static_cast<double>(X)
                                    : Back != X))
      std::abort();
    (void)FloatToStrF(X, ffNumber, 18, 4);
    (void)FloatToStrF(X, ffExponent, 7, 2);
  }
  double D;
  if (TryStrToFloat(S, D)) {
    double Back;
    if (!TryStrToFloat(FloatToStr(D), Back)) std::abort();
    if (!std::isnan(D) && Back != D) std::abort();
  }
  Currency C;
  if (TryStrToCurr(S, C) && StrToCurr(CurrToStr(C)).Value != C.Value) std::abort();
  return 0;
}
