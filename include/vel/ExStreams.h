// ExStreams: TTextStream, a file stream with helpers that write plain text
// values (no quoting, no terminators).
//
// Lines are written as in the object text form: WriteNewLine puts a single
// carriage return (character 13, no line feed) before its text. Numbers use
// "." as decimal separator whatever the process locale; dates use the
// runtime's FormatSettings (the short date format, and the date and time
// separators, "/" and ":" unless the application changed them).
//
// Thread safety: as any stream, one thread at a time.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "vel/rtl/Streams.h"

namespace vel {

class VEL_API TTextStream : public TFileStream {
  VEL_CLASS(TTextStream, TFileStream)
 public:
  // Opens or creates the file as TFileStream does with Mode.
  TTextStream(const std::string& AFileName, uint16_t Mode);
  // The same, then WriteSignature. Rights is not used. C++ dispatches the
  // call made here to TTextStream::WriteSignature (which writes nothing):
  // a descendant that writes a file header calls WriteSignature at the end
  // of its own constructor.
  TTextStream(const std::string& AFileName, uint16_t Mode, uint32_t Rights);
  ~TTextStream() override;

  // A file header; nothing here.
  virtual void WriteSignature();

  // The characters of S.
  void WriteString(std::string_view S);
  // Nothing when S is blank (only characters <= ' '); else a carriage
  // return followed by S as it is.
  void WriteNewLine(std::string_view S);
  // "<" S ">".
  void WriteIdent(std::string_view S);
  // The decimal text.
  void WriteInteger(int32_t Value);
  // The shortest text that reads back to the same value ("0.1", "1E20").
  void WriteFloat(Extended Value);
  // The date in FormatSettings' short date format.
  void WriteDate(TDateTime Value);
  // "dd/mm/yyyy hh:mm:ss" with FormatSettings' date and time separators.
  void WriteDateTime(TDateTime Value);
};

}  // namespace vel
