// Feeds arbitrary bytes to both conversions of the text form of component
// streams. Each must convert or raise a vel::Exception, never crash, leak or
// hang; and a stream made from text must give text that converts back to
// the same bytes.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "vel/rtl/ObjectText.h"

using namespace vel;

namespace {
bool BinToText(const std::string& B, std::string& T) {
  try {
    TStringStream In(B), Out;
    ObjectBinaryToText(&In, &Out);
    T = Out.DataString();
    return true;
  } catch (const Exception&) {
    return false;
  }
}
bool TextToBin(const std::string& T, std::string& B) {
  try {
    TStringStream In(T), Out;
    ObjectTextToBinary(&In, &Out);
    B = Out.DataString();
    return true;
  } catch (const Exception&) {
    return false;
  }
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* Data, size_t Size) {
  const std::string Input(reinterpret_cast<const char*>(Data), Size);
  // A stream made from text holds only names the text can spell, and must
  // go to text and back to the same bytes.
  auto CheckStable = [](const std::string& B) {
    std::string T, B2;
    if (!BinToText(B, T) || !TextToBin(T, B2) || B2 != B) std::abort();
  };
  // Names in a binary stream may be anything (a comma, a blank); their text
  // may not parse, or parse to other names. What it parses to is stable.
  std::string T1, B1;
  if (BinToText(Input, T1) && TextToBin(T1, B1)) CheckStable(B1);
  std::string B2;
  if (TextToBin(Input, B2)) CheckStable(B2);
  return 0;
}
