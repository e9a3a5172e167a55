// The indented text encodings of the object walk: TCustomTextStreamer,
// TTextStreamer and TObjectTextStreamer.
#include <charconv>
#include <cmath>
#include <cstring>
#include <typeinfo>

#include "vel/StreamClasses.h"
#include "vel/rtl/Graphics.h"
#include "vel/rtl/SysUtils.h"

namespace vel {

using namespace streammsg;

const char* const BoolIdents[2][2] = {{"False", "True"}, {"N", "Y"}};

namespace {

// Headers and footers of the text form.
constexpr std::string_view SEndBlock = "end";
constexpr std::string_view SEndRoot = "end >";
constexpr std::string_view SItemBlock = "Item";
constexpr std::string_view SPropNameFmt = " = ";  // after the property name
// TObjectTextStreamer.
constexpr std::string_view SRootHeaderPrefix = "Corvane object stream - ";
constexpr std::string_view SObjectHeaderPrefix = "Object ";
constexpr std::string_view SObjectListPrefix = "Object List ";
constexpr std::string_view SListOpen = " = <";

bool IsBooleanEnum(PTypeInfo T) {
  return T->Data.BaseType == TypeInfoBoolean() ||
         (T->Data.BaseType && T->Data.BaseType->Name == "Boolean");
}

bool IsCollection(TObject* Obj) {
  return Obj && Obj->InheritsFrom(TCollection::StaticClass());
}

// The decimal text of V in Buf.
std::string_view IntText(char (&Buf)[24], int64_t V) {
  return std::string_view(Buf,
                          static_cast<size_t>(std::to_chars(Buf, Buf + sizeof Buf, V).ptr - Buf));
}

}  // namespace

VEL_PUBLISHED(TCustomTextStreamer,
              prop("TypeKinds", &TCustomStreamer::TypeKinds, &TCustomStreamer::SetTypeKinds)
                  .defaults(DefaultStreamTypeKinds))
VEL_PUBLISHED(
    TTextStreamer,
    prop("IndentSize", &TCustomTextStreamer::IndentSize, &TCustomTextStreamer::SetIndentSize)
        .defaults(2),
    prop("IndentChar", &TCustomTextStreamer::IndentChar, &TCustomTextStreamer::SetIndentChar)
        .defaults(' '),
    prop("WantIndent", &TCustomTextStreamer::WantIndent, &TCustomTextStreamer::SetWantIndent)
        .defaults(true),
    prop("WantClass", &TCustomTextStreamer::WantClass, &TCustomTextStreamer::SetWantClass)
        .defaults(true),
    prop("WantBlocks", &TCustomTextStreamer::WantBlocks, &TCustomTextStreamer::SetWantBlocks)
        .defaults(true))
VEL_IMPLEMENT(TObjectTextStreamer)

// ---------------------------------------------------------------------------
// Construction and settings

TCustomTextStreamer::TCustomTextStreamer(TStream* AStream) : TCustomStreamer(AStream) {}

TCustomTextStreamer::~TCustomTextStreamer() {
  // Only text written outside a save can still be here (a save flushes
  // at its end, also when it fails); a failing stream cannot be reported
  // from a destructor.
  try {
    Flush();
  } catch (...) {
  }
}

void TCustomTextStreamer::SetWantClass(bool Value) {
  if (Value == FWantClass) return;
  FWantClass = Value;
  FWantIndent = Value;
}

void TCustomTextStreamer::SetWantIndent(bool Value) {
  if (FWantClass) FWantIndent = Value;
}

// ---------------------------------------------------------------------------
// Text output

bool TCustomTextStreamer::StreamIsEmptySlow() {
  if (FStream->GetSize() > 0) {
    FKnownNonEmpty = true;
    return false;
  }
  return true;
}

void TCustomTextStreamer::Flush() {
  if (FOut.empty()) return;
  try {
    Write(FOut.data(), static_cast<int64_t>(FOut.size()));
  } catch (...) {
    FOut.clear();
    throw;
  }
  FOut.clear();
  FKnownNonEmpty = true;
}

void TCustomTextStreamer::TOutBuffer::Grow(size_t More) {
  size_t Need = FLen + More;
  size_t Cap = FCap ? FCap : 64 * 1024;
  while (Cap < Need) Cap *= 2;
  std::unique_ptr<char[]> Data(new char[Cap]);
  if (FLen) std::memcpy(Data.get(), FData.get(), FLen);
  FData = std::move(Data);
  FCap = Cap;
}

void TCustomTextStreamer::WriteText(std::string_view S) {
  if (S.empty()) return;
  if (S.size() >= FlushThreshold) {
    // A large piece goes to the stream as it is, after what precedes it.
    Flush();
    Write(S.data(), static_cast<int64_t>(S.size()));
    FKnownNonEmpty = true;
    return;
  }
  FOut.append(S);
  EndPiece();
}

std::string TCustomTextStreamer::ReadText() {
  return std::string();
}

void TCustomTextStreamer::WriteNewLine(std::string_view S) {
  FOut.push_back('\r');
  if (FIndent > 0) FOut.append(static_cast<size_t>(FIndent), FIndentChar);
  FOut.append(S);
  EndPiece();
}

void TCustomTextStreamer::WriteLine(std::string_view S) {
  if (StreamIsEmpty())
    WriteText(S);
  else
    WriteNewLine(S);
}

void TCustomTextStreamer::WriteTextParts(std::initializer_list<std::string_view> Parts) {
  size_t Len = 0;
  for (std::string_view P : Parts) Len += P.size();
  char* D = FOut.Claim(Len);
  for (std::string_view P : Parts) D = TOutBuffer::Copy(D, P.data(), P.size());
  FOut.Commit(D);
  EndPiece();
}

void TCustomTextStreamer::WriteLineParts(std::initializer_list<std::string_view> Parts) {
  size_t Len = 0;
  for (std::string_view P : Parts) Len += P.size();
  char* D;
  if (StreamIsEmpty()) {
    // The first line: no break and no indent; an empty one writes nothing,
    // as WriteText of "".
    if (Len == 0) return;
    D = FOut.Claim(Len);
  } else {
    size_t Indent = FIndent > 0 ? static_cast<size_t>(FIndent) : 0;
    D = FOut.Claim(1 + Indent + Len);
    *D++ = '\r';
    D = TOutBuffer::Fill(D, Indent, FIndentChar);
  }
  for (std::string_view P : Parts) D = TOutBuffer::Copy(D, P.data(), P.size());
  FOut.Commit(D);
  EndPiece();
}

void TCustomTextStreamer::WriteQuoted(std::string_view S) {
  if (!FOwnFormatting) {
    WriteText(QuoteString(std::string(S)));
    return;
  }
  if (!FQuoteStrings) {
    WriteText(S);
    return;
  }
  if (S.size() >= FlushThreshold) {
    // A large value is quoted into a string of its own, which WriteText
    // then hands to the stream without growing the buffer to its size.
    WriteText(QuoteString(std::string(S)));
    return;
  }
  size_t Q = 0;
  while (Q < S.size() && S[Q] != '\'') ++Q;
  char* D;
  if (Q == S.size()) {
    D = FOut.Claim(S.size() + 2);
    *D++ = '\'';
    D = TOutBuffer::Copy(D, S.data(), S.size());
  } else {
    // Room for every character doubled.
    D = FOut.Claim(2 * S.size() + 2);
    *D++ = '\'';
    for (char C : S) {
      if (C == '\'') *D++ = '\'';
      *D++ = C;
    }
  }
  *D++ = '\'';
  FOut.Commit(D);
  EndPiece();
}

std::string TCustomTextStreamer::StrIndent() const {
  return FIndent > 0 ? std::string(static_cast<size_t>(FIndent), FIndentChar) : std::string();
}

std::string TCustomTextStreamer::QuoteString(const std::string& S) {
  if (!FQuoteStrings) return S;
  std::string R;
  R.reserve(S.size() + 2);
  R.push_back('\'');
  if (std::memchr(S.data(), '\'', S.size()) == nullptr) {
    R.append(S);
  } else {
    for (char C : S) {
      if (C == '\'') R.push_back('\'');
      R.push_back(C);
    }
  }
  R.push_back('\'');
  return R;
}

std::string_view TCustomTextStreamer::LabelOf(TObject* Obj) {
  if (!Obj) return std::string_view();
  if (Obj->InheritsFrom(TComponent::StaticClass())) {
    const std::string& Name = static_cast<TComponent*>(Obj)->Name();
    if (!Name.empty()) return Name;
  }
  std::string_view C = Obj->ClassName();
  return C.empty() ? C : C.substr(1);
}

std::string TCustomTextStreamer::ObjectLabel(TObject* Obj) {
  return std::string(LabelOf(Obj));
}

std::string_view TCustomTextStreamer::ListName(TObject* Obj, PPropInfo PropInfo) {
  return PropInfo ? std::string_view(PropInfo->Name) : LabelOf(Obj);
}

// ---------------------------------------------------------------------------
// Save, load and the stream's frame

void TCustomTextStreamer::InitStream(TObject* Root, TStreamState State) {
  TCustomStreamer::InitStream(Root, State);
  InitIndent();
  // The stream may have been emptied or replaced since the last save.
  FKnownNonEmpty = false;
  // None of the library's own classes overrides QuoteString, and each
  // formats property names as its class declares; a descendant elsewhere
  // may override either, so it takes the general path.
  const std::type_info& T = typeid(*this);
  bool Xml = T == typeid(TXMLStreamer);
  FOwnFormatting = Xml || T == typeid(TCustomTextStreamer) || T == typeid(TTextStreamer) ||
                   T == typeid(TObjectTextStreamer) || T == typeid(TClassTreeStreamer);
  FOwnNameFormat = FOwnFormatting && !Xml;
}

void TCustomTextStreamer::TermStream() {
  TCustomStreamer::TermStream();
  Flush();
}

void TCustomTextStreamer::SaveToStream(TObject* Obj) {
  FBuffering = true;
  try {
    TCustomStreamer::SaveToStream(Obj);
  } catch (...) {
    // What was produced up to the failure goes to the stream, as it would
    // have without the buffer.
    FBuffering = false;
    try {
      Flush();
    } catch (...) {
    }
    throw;
  }
  FBuffering = false;
  Flush();
}

void TCustomTextStreamer::LoadFromStream(TObject*) {
  throw EStreamPropError(SLoadForTextNotSupported);
}

void TCustomTextStreamer::WriteSignature() {
  if (FWantClass) WriteClassHeader(FRootComponent, nullptr);
  if (FWantIndent) IncIndent();
}

void TCustomTextStreamer::WriteClose() {
  if (FWantIndent) DecIndent();
  if (FWantClass) WriteClassFooter(FRootComponent, nullptr);
}

// There are no markers in text.
void TCustomTextStreamer::WriteIdentKind(TIdentKind) {}
void TCustomTextStreamer::WriteIdent(const std::string&) {}

// ---------------------------------------------------------------------------
// Structure

void TCustomTextStreamer::WritePropName(TObject*, PPropInfo PropInfo, const std::string& Name) {
  // A nested object is named by its own header.
  if (PropInfo && PropInfo->Kind() == tkClass) return;
  if (FOwnNameFormat) {
    WriteLineParts({Name, SPropNameFmt});
    return;
  }
  WriteLine(FormatPropName(Name));
}

std::string TCustomTextStreamer::FormatPropName(const std::string& Name) {
  std::string R;
  R.reserve(Name.size() + 3);
  R.append(Name);
  R.append(SPropNameFmt);
  return R;
}

void TCustomTextStreamer::WritePropListBegin(TObject* Obj) {
  if (!Obj || IsRoot(Obj)) return;
  if (FWantClass) WriteClassHeader(Obj, nullptr);
  if (FWantIndent) IncIndent();
}

void TCustomTextStreamer::WritePropListEnd(TObject* Obj) {
  if (!Obj || IsRoot(Obj)) return;
  if (FWantIndent) DecIndent();
  if (FWantClass) WriteClassFooter(Obj, nullptr);
}

void TCustomTextStreamer::WriteListBegin(TObject* Obj, int32_t, PPropInfo PropInfo) {
  if (FWantClass) WriteListHeader(Obj, PropInfo);
  if (FWantIndent) IncIndent();
}

void TCustomTextStreamer::WriteListEnd(TObject* Obj, PPropInfo PropInfo) {
  if (FWantIndent) DecIndent();
  if (FWantClass) WriteListFooter(Obj, PropInfo);
}

void TCustomTextStreamer::WriteBeforeListItem(TObject* Obj, PPropInfo PropInfo, int32_t Index) {
  if (!IsCollection(Obj)) return;
  if (FWantClass) WriteItemHeader(static_cast<TCollection*>(Obj)->Items(Index), PropInfo);
  if (FWantIndent) IncIndent();
}

void TCustomTextStreamer::WriteAfterListItem(TObject* Obj, PPropInfo PropInfo, int32_t Index) {
  if (!IsCollection(Obj)) return;
  if (FWantIndent) DecIndent();
  if (FWantClass) WriteItemFooter(static_cast<TCollection*>(Obj)->Items(Index), PropInfo);
}

void TCustomTextStreamer::WriteClassName(TObject*, const std::string& Name) {
  WriteLine(Name);
}

void TCustomTextStreamer::WriteClassHeader(TObject* Obj, PPropInfo) {
  WriteClassName(Obj, Obj ? Obj->ClassName() : std::string());
}

void TCustomTextStreamer::WriteClassFooter(TObject* Obj, PPropInfo) {
  if (FWantBlocks) WriteLine(IsRoot(Obj) ? SEndRoot : SEndBlock);
}

void TCustomTextStreamer::WriteListHeader(TObject* Obj, PPropInfo) {
  WriteClassName(Obj, Obj ? Obj->ClassName() : std::string());
}

void TCustomTextStreamer::WriteListFooter(TObject*, PPropInfo) {
  if (FWantBlocks) WriteLine(SEndBlock);
}

void TCustomTextStreamer::WriteItemHeader(TObject* Obj, PPropInfo) {
  if (!FWantBlocks) return;
  if (Obj && Obj->InheritsFrom(TCollectionItem::StaticClass()))
    WriteLine(SItemBlock);
  else
    WriteClassName(Obj, Obj ? Obj->ClassName() : std::string());
}

void TCustomTextStreamer::WriteItemFooter(TObject*, PPropInfo) {
  if (FWantBlocks) WriteLine(SEndBlock);
}

// ---------------------------------------------------------------------------
// Values

void TCustomTextStreamer::WriteEnumProp(TObject* Obj, PPropInfo PropInfo) {
  int32_t V = GetOrdProp(Obj, PropInfo);
  if (IsBooleanEnum(PropInfo->PropType))
    WriteBoolean(V != 0);
  else
    WriteQuoted(GetEnumName(PropInfo->PropType, V));
}

void TCustomTextStreamer::WriteSetProp(TObject* Obj, PPropInfo PropInfo) {
  WriteQuoted(SetToString(PropInfo, GetOrdProp(Obj, PropInfo), true));
}

void TCustomTextStreamer::WriteIntegerProp(TObject* Obj, PPropInfo PropInfo) {
  const std::string& TypeName = PropInfo->PropType->Name;
  int32_t V = GetOrdProp(Obj, PropInfo);
  if (TypeName == "TColor")
    WriteQuoted(ColorToString(V));
  else if (TypeName == "TCursor")
    WriteQuoted(CursorToString(V));
  else
    WriteInteger(V);
}

void TCustomTextStreamer::WriteInteger(int32_t Value) {
  char Buf[24];
  WriteQuoted(IntText(Buf, Value));
}

void TCustomTextStreamer::WriteInt64(int64_t Value) {
  char Buf[24];
  WriteQuoted(IntText(Buf, Value));
}

void TCustomTextStreamer::WriteBoolean(bool Value) {
  int32_t Row = (FBoolIdent == 1) ? 1 : 0;
  WriteQuoted(BoolIdents[Row][Value ? 1 : 0]);
}

void TCustomTextStreamer::WriteString(const std::string& Value) {
  WriteQuoted(Value);
}

void TCustomTextStreamer::WriteFloat(Extended Value) {
  WriteQuoted(FloatToStr(Value));
}

void TCustomTextStreamer::WriteSingle(float Value) {
  WriteQuoted(SingleToStr(Value));
}

void TCustomTextStreamer::WriteDouble(double Value) {
  // Between 0.00001 and 1E15 FloatToStr writes the shortest round-trip
  // digits in plain notation, which is what to_chars gives in fixed
  // notation without a precision; done here without the general path.
  double A = std::fabs(Value);
  if (A >= 1e-5 && A < 1e15) {
    char Buf[64];
    WriteQuoted(std::string_view(
        Buf, static_cast<size_t>(
                 std::to_chars(Buf, Buf + sizeof Buf, Value, std::chars_format::fixed).ptr - Buf)));
    return;
  }
  WriteQuoted(FloatToStr(static_cast<Extended>(Value)));
}

void TCustomTextStreamer::WriteCurrency(Currency Value) {
  WriteQuoted(CurrToStr(Value));
}

void TCustomTextStreamer::WriteDateTime(TDateTime Value) {
  // The date only, as three elements on lines of their own, each indented
  // by four blanks beyond the current indent and ended by 13 10.
  uint16_t Fields[3];
  DecodeDate(Value, Fields[0], Fields[1], Fields[2]);
  static constexpr std::string_view Open[3] = {"    <Year>", "    <Month>", "    <Day>"};
  static constexpr std::string_view Close[3] = {"</Year>\r\n", "</Month>\r\n", "</Day>\r\n"};
  size_t Indent = FIndent > 0 ? static_cast<size_t>(FIndent) : 0;
  // At most 5 digits per field.
  char* D = FOut.Claim(2 + 3 * Indent + 3 * 5 + 64);
  *D++ = '\r';
  *D++ = '\n';
  for (int I = 0; I < 3; ++I) {
    D = TOutBuffer::Fill(D, Indent, FIndentChar);
    D = TOutBuffer::Copy(D, Open[I].data(), Open[I].size());
    D = std::to_chars(D, D + 5, Fields[I]).ptr;
    D = TOutBuffer::Copy(D, Close[I].data(), Close[I].size());
  }
  FOut.Commit(D);
  EndPiece();
}

void TCustomTextStreamer::WriteVariant(const Variant& Value) {
  // The variant's text, through the string writer (quoted, and escaped by
  // the XML streamer).
  WriteString(VarToStr(Value));
}

// ---------------------------------------------------------------------------
// Reading: nothing can be read back from text.

std::string TCustomTextStreamer::ReadString() {
  return ReadText();
}
std::string TCustomTextStreamer::ReadIdent() {
  return ReadText();
}
std::string TCustomTextStreamer::ReadSignature() {
  return ReadText();
}
std::string TCustomTextStreamer::ReadClassName() {
  return ReadText();
}
void TCustomTextStreamer::ReadClose() {}
void TCustomTextStreamer::ReadAfterListItem(TObject*) {}
TIdentKind TCustomTextStreamer::ReadIdentKind() {
  return ikList;
}
int32_t TCustomTextStreamer::ReadListBegin() {
  return -1;
}
bool TCustomTextStreamer::ReadListEnd() {
  return false;
}
bool TCustomTextStreamer::ReadPropListBegin() {
  return false;
}
bool TCustomTextStreamer::ReadPropListEnd() {
  return false;
}
TObject* TCustomTextStreamer::ReadBeforeListItem(TObject*, bool) {
  return nullptr;
}
int32_t TCustomTextStreamer::ReadInteger() {
  return StrToInt(ReadText());
}
int64_t TCustomTextStreamer::ReadInt64() {
  return StrToInt64(ReadText());
}
bool TCustomTextStreamer::ReadBoolean() {
  return ReadText() == "True";
}
Extended TCustomTextStreamer::ReadFloat() {
  return StrToFloat(ReadText());
}
float TCustomTextStreamer::ReadSingle() {
  return static_cast<float>(StrToFloat(ReadText()));
}
double TCustomTextStreamer::ReadDouble() {
  return static_cast<double>(StrToFloat(ReadText()));
}
Currency TCustomTextStreamer::ReadCurrency() {
  return StrToCurr(ReadText());
}
TDateTime TCustomTextStreamer::ReadDateTime() {
  return StrToDate(ReadText());
}
Variant TCustomTextStreamer::ReadVariant() {
  return Variant(ReadText());
}

// ---------------------------------------------------------------------------
// TObjectTextStreamer

void TObjectTextStreamer::WriteClassHeader(TObject* Obj, PPropInfo) {
  std::string_view Class = Obj ? std::string_view(Obj->ClassName()) : std::string_view();
  if (IsRoot(Obj))
    WriteLineParts({SRootHeaderPrefix, LabelOf(Obj), ": ", Class, SListOpen});
  else
    WriteLineParts({SObjectHeaderPrefix, LabelOf(Obj), ": ", Class, " "});
}

void TObjectTextStreamer::WriteListHeader(TObject* Obj, PPropInfo PropInfo) {
  if (IsCollection(Obj))
    WriteLineParts({ListName(Obj, PropInfo), SListOpen});
  else
    WriteLineParts({SObjectListPrefix, ListName(Obj, PropInfo), SListOpen});
}

void TObjectTextStreamer::WriteListFooter(TObject*, PPropInfo) {
  WriteLine(SEndRoot);
}

}  // namespace vel
