// vel dfm: converts a component stream file between its binary and text forms.
//
//   vel dfm totext FILE   the text form of a binary component stream, to stdout
//   vel dfm tobin FILE    the binary form of a component stream's text, to stdout
#include "Commands.h"
#include "vel/rtl/ObjectText.h"
#include "vel/rtl/Streams.h"

namespace {

int Convert(const std::string& Path, bool ToText) {
  vel::TFileStream In(Path, vel::fmOpenRead | vel::fmShareDenyWrite);
  vel::TMemoryStream Out;
  if (ToText) vel::ObjectBinaryToText(&In, &Out);
  else vel::ObjectTextToBinary(&In, &Out);
  if (!vel::tool::WriteStdout(Out.Memory(), static_cast<size_t>(Out.GetSize()))) {
    std::fprintf(stderr, "vel: cannot write the output\n");
    return 1;
  }
  return 0;
}

vel::tool::Registration Reg("dfm", "convert component streams between binary and text", [](CLI::App& Sub) {
  Sub.require_subcommand(1);
  for (const bool ToText : {true, false}) {
    auto* Cmd = Sub.add_subcommand(ToText ? "totext" : "tobin",
                                   ToText ? "binary component stream to its text form, on stdout"
                                          : "text form to a binary component stream, on stdout");
    auto File = std::make_shared<std::string>();
    Cmd->add_option("FILE", *File, "input file")->required();
    Cmd->callback([File, ToText] { vel::tool::Status = Convert(*File, ToText); });
  }
});

}  // namespace
