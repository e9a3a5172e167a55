// Feeds arbitrary text to the runtime's text readers: number and date
// conversions, comma and delimited text, line splitting and the code-page
// converters. Each must return or raise a vel::Exception, never crash, and
// the comma text it produces must read back to the same lines.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "vel/rtl/StringLists.h"
#include "vel/rtl/SysUtils.h"
#include "vel/rtl/Variants.h"

using namespace vel;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* Data, size_t Size) {
  std::string S(reinterpret_cast<const char*>(Data), Size);

  int32_t I32;
  int64_t I64;
  Extended X;
  Currency C;
  TDateTime D;
  (void)TryStrToInt(S, I32);
  (void)TryStrToInt64(S, I64);
  if (TryStrToFloat(S, X)) (void)FloatToStr(X);
  if (TryStrToCurr(S, C)) (void)CurrToStr(C);
  (void)TryStrToDateTime(S, D);
  try {
    Variant V(S);
    (void)V.AsDouble();
  } catch (const Exception&) {
  }

  // Code pages: UTF-8 in, Windows-1252 out and back never grows unbounded.
  std::string Ansi = Utf8ToCp1252(S);
  if (Ansi.size() > S.size()) std::abort();
  std::u16string W = Utf8ToWide(S);
  (void)WideToUtf8(W);
  if (Cp1252ToUtf8(S).size() > 3 * S.size()) std::abort();

  // Comma text: what a list writes must read back to the same lines.
  TStringList L;
  L.SetCommaText(S);
  std::string Again = L.CommaText();
  TStringList L2;
  L2.SetCommaText(Again);
  if (L2.Count() != L.Count()) std::abort();
  for (int K = 0; K < L.Count(); ++K)
    if (L.Strings(K) != L2.Strings(K)) std::abort();
  L.SetText(S);
  (void)L.Text();
  return 0;
}
