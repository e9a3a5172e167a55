#include "vel/ExStreams.h"

#include "vel/rtl/SysUtils.h"
#include "vel/rtl/TypInfo.h"

namespace vel {

namespace {
// Day first, 24-hour clock; "/" and ":" stand for the separators and "mm"
// after the hour is the minutes.
constexpr const char* SDateTimeFormat = "dd/mm/yyyy hh:mm:ss";
}  // namespace

VEL_IMPLEMENT(TTextStream)

TTextStream::TTextStream(const std::string& AFileName, uint16_t Mode)
    : TFileStream(AFileName, Mode) {}

TTextStream::TTextStream(const std::string& AFileName, uint16_t Mode, uint32_t)
    : TTextStream(AFileName, Mode) {
  WriteSignature();
}

TTextStream::~TTextStream() = default;

void TTextStream::WriteSignature() {}

void TTextStream::WriteString(std::string_view S) {
  if (!S.empty()) WriteBuffer(S.data(), static_cast<int64_t>(S.size()));
}

void TTextStream::WriteNewLine(std::string_view S) {
  if (Trim(S).empty()) return;
  // One write for the line break and the text.
  std::string Line;
  Line.reserve(S.size() + 1);
  Line.push_back('\r');
  Line.append(S);
  WriteString(Line);
}

void TTextStream::WriteIdent(std::string_view S) {
  std::string Text;
  Text.reserve(S.size() + 2);
  Text.push_back('<');
  Text.append(S);
  Text.push_back('>');
  WriteString(Text);
}

void TTextStream::WriteInteger(int32_t Value) {
  WriteString(IntToStr(Value));
}

void TTextStream::WriteFloat(Extended Value) {
  WriteString(FloatToStr(Value));
}

void TTextStream::WriteDate(TDateTime Value) {
  WriteString(DateToStr(Value));
}

void TTextStream::WriteDateTime(TDateTime Value) {
  WriteString(FormatDateTime(SDateTimeFormat, Value));
}

}  // namespace vel
