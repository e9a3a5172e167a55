// TXMLStreamer: the object walk as a simple XML document.
#include "vel/StreamClasses.h"
#include "vel/rtl/SysUtils.h"

namespace vel {

VEL_IMPLEMENT(TXMLStreamer)

namespace {

constexpr std::string_view SXMLPrologue =
    "<?xml version=\"1.0\" standalone=\"yes\"?>\r\n<Document>";
constexpr std::string_view SXMLEpilogue = "</Document>";
// A string list is always the element Lines, whatever its property is called.
constexpr std::string_view SLines = "Lines";

// The replacement of each 8-bit character code; null: written unchanged.
struct EscapeTable {
  const char* Text[256] = {};
  uint8_t Len[256] = {};
  constexpr void Set(unsigned char C, const char* T) {
    Text[C] = T;
    uint8_t N = 0;
    while (T[N]) ++N;
    Len[C] = N;
  }
  constexpr EscapeTable() {
    Set(38, "&amp;");
    Set(60, "&lt;");
    Set(62, "&gt;");
    Set(39, "&apos;");
    Set(145, "&apos;");  // left single quotation mark (Windows-1252)
    Set(34, "&quot;");
    Set(235, "&#235;");
    Set(232, "&#232;");
    Set(233, "&#233;");
    Set(234, "&#234;");
    Set(239, "&#239;");
    Set(244, "&#244;");
    Set(207, "&#207;");
    Set(203, "&#203;");
  }
};
constexpr EscapeTable Escapes;

bool IsStrings(TObject* Obj) {
  return Obj && Obj->InheritsFrom(TStrings::StaticClass());
}

}  // namespace

TXMLStreamer::TXMLStreamer(TStream* AStream, bool ABare) : TXMLStreamer(AStream) {
  FBare = ABare;
  if (FBare) FIndentSize = 0;
}

std::string TXMLStreamer::EscapeText(std::string_view S) {
  size_t I = 0;
  while (I < S.size() && !Escapes.Text[static_cast<unsigned char>(S[I])]) ++I;
  if (I == S.size()) return std::string(S);
  std::string R;
  R.reserve(S.size() + 16);
  R.append(S.data(), I);
  for (; I < S.size(); ++I) {
    unsigned char C = static_cast<unsigned char>(S[I]);
    if (const char* T = Escapes.Text[C])
      R.append(T, Escapes.Len[C]);
    else
      R.push_back(static_cast<char>(C));
  }
  return R;
}

std::string TXMLStreamer::FormatPropName(const std::string& Name) {
  std::string R;
  R.reserve(Name.size() + 2);
  R.push_back('<');
  R.append(Name);
  R.push_back('>');
  return R;
}

void TXMLStreamer::WritePropName(TObject* Obj, PPropInfo PropInfo, const std::string& Name) {
  if (OwnFormatting() && !(PropInfo && PropInfo->Kind() == tkClass))
    WriteLineParts({"<", Name, ">"});
  else
    TCustomTextStreamer::WritePropName(Obj, PropInfo, Name);
}

void TXMLStreamer::WriteAfterProp(TObject*, PPropInfo PropInfo) {
  if (PropInfo->Kind() != tkClass) WriteTextParts({"</", PropInfo->Name, ">"});
}

void TXMLStreamer::WriteString(const std::string& Value) {
  size_t I = 0;
  while (I < Value.size() && !Escapes.Text[static_cast<unsigned char>(Value[I])]) ++I;
  if (I == Value.size())
    TCustomTextStreamer::WriteString(Value);  // nothing to replace: no copy
  else
    TCustomTextStreamer::WriteString(EscapeText(Value));
}

void TXMLStreamer::WriteClassHeader(TObject* Obj, PPropInfo) {
  if (!IsRoot(Obj)) {
    WriteLineParts({"<", LabelOf(Obj), ">"});
    return;
  }
  std::string Text = Trim(FBare ? std::string_view() : SXMLPrologue);
  if (!Text.empty()) WriteLine(Text);
}

void TXMLStreamer::WriteClassFooter(TObject* Obj, PPropInfo) {
  if (!IsRoot(Obj)) {
    WriteLineParts({"</", LabelOf(Obj), ">"});
    return;
  }
  std::string Text = Trim(FBare ? std::string_view() : SXMLEpilogue);
  if (!Text.empty()) WriteNewLine(Text);
}

void TXMLStreamer::WriteListHeader(TObject* Obj, PPropInfo) {
  WriteLineParts({"<", IsStrings(Obj) ? SLines : LabelOf(Obj), ">"});
}

void TXMLStreamer::WriteListFooter(TObject* Obj, PPropInfo) {
  WriteLineParts({"</", IsStrings(Obj) ? SLines : LabelOf(Obj), ">"});
}

void TXMLStreamer::WriteItemHeader(TObject* Obj, PPropInfo) {
  WriteLineParts({"<", LabelOf(Obj), ">"});
}

void TXMLStreamer::WriteItemFooter(TObject* Obj, PPropInfo) {
  WriteLineParts({"</", LabelOf(Obj), ">"});
}

}  // namespace vel
