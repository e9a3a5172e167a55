// Tolerant reading of damaged component streams.
#include "vel/velStreamRecover.h"

#include <cmath>
#include <cstring>

#include "vel/rtl/Debug.h"
#include "vel/rtl/SysUtils.h"

namespace vel {

namespace {

constexpr const char* SClassNotFound = "Class %s not found";

constexpr int kMaxNesting = 32;

// Nearest integer, halves to even; NaN gives 0 and values beyond the 64-bit
// range saturate, so that no value can fail.
int64_t RoundSafe(Extended X) {
  if (std::isnan(X)) return 0;
  if (X >= 9223372036854775808.0L) return INT64_MAX;
  if (X < -9223372036854775808.0L) return INT64_MIN;
  return static_cast<int64_t>(std::llrintl(X));
}

// The low 32 bits, as an Int64 stored into an Integer keeps them.
int32_t Low32(int64_t V) { return static_cast<int32_t>(static_cast<uint32_t>(V)); }

bool IsDateTimeType(PTypeInfo T) { return T == TypeInfoDateTime() || T->Name == "TDateTime"; }

}  // namespace

std::string StripFirstToken(const std::string& Text, const std::string& Separator) {
  if (Separator.empty()) return std::string();
  const size_t P = Text.find(Separator);
  if (P == std::string::npos) return std::string();
  return Text.substr(P + Separator.size());
}

VEL_IMPLEMENT(TStreamRecover)

TStreamRecover::TStreamRecover(TStream* Stream) : FStream(Stream) { FStream->SetPosition(0); }

TStreamRecover::~TStreamRecover() = default;

// ---------------------------------------------------------------------------
// Primitive readers

int64_t TStreamRecover::Remaining() {
  const int64_t R = FSize - FStream->GetPosition();
  return R > 0 ? R : 0;
}

int64_t TStreamRecover::Read(void* Buffer, int64_t Count) {
  FLastPosition = FStream->GetPosition();
  if (Count <= 0) return 0;
  int64_t N = FStream->Read(Buffer, Count);
  if (N < 0) N = 0;
  if (N < Count) std::memset(static_cast<uint8_t*>(Buffer) + N, 0, static_cast<size_t>(Count - N));
  return N;
}

uint8_t TStreamRecover::ReadValue() {
  uint8_t B;
  Read(&B, 1);
  return B;
}

uint8_t TStreamRecover::ReadNextValue() {
  uint8_t B;
  if (Read(&B, 1) == 1) FStream->Seek(-1, soCurrent);
  return B;
}

bool TStreamRecover::EndOfList() { return ReadNextValue() == vaNull; }

// Count bytes as text, or as many as the stream still has: a damaged
// length never makes a buffer larger than the stream.
std::string TStreamRecover::ReadCounted(int64_t Count) {
  const int64_t N = std::min(Count, Remaining());
  std::string S(static_cast<size_t>(N), '\0');
  if (N > 0) Read(S.data(), N);
  return S;
}

std::string TStreamRecover::ReadStr() {
  uint8_t L;
  Read(&L, 1);
  if (L == 0) return std::string();
  std::string S(L, '\0');
  Read(S.data(), L);
  return S;
}

std::string TStreamRecover::ReadString() {
  uint8_t B[4];
  Read(B, 4);
  const int32_t L = static_cast<int32_t>(B[0] | (B[1] << 8) | (B[2] << 16) | (static_cast<uint32_t>(B[3]) << 24));
  if (L < 1) return std::string();
  return ReadCounted(L);
}

std::string TStreamRecover::ReadWideString() {
  uint8_t B[4];
  Read(B, 4);
  const int32_t C = static_cast<int32_t>(B[0] | (B[1] << 8) | (B[2] << 16) | (static_cast<uint32_t>(B[3]) << 24));
  if (C < 1) return std::string();
  // 2 x C bytes are consumed; the text is the first C of them.
  std::string Raw = ReadCounted(static_cast<int64_t>(C) * 2);
  if (Raw.size() > static_cast<size_t>(C)) Raw.resize(static_cast<size_t>(C));
  return Raw;
}

int32_t TStreamRecover::ReadInteger(TValueType ValueType) {
  uint8_t B[4] = {0, 0, 0, 0};
  switch (ValueType) {
    case vaInt8:
    case vaSet:
      Read(B, 1);
      return static_cast<int8_t>(B[0]);
    case vaInt16:
      Read(B, 2);
      return static_cast<int16_t>(B[0] | (B[1] << 8));
    case vaInt32:
      Read(B, 4);
      return static_cast<int32_t>(B[0] | (B[1] << 8) | (B[2] << 16) | (static_cast<uint32_t>(B[3]) << 24));
    default:
      return 0;
  }
}

int64_t TStreamRecover::ReadInt64() {
  uint8_t B[8];
  Read(B, 8);
  uint64_t V = 0;
  for (int I = 0; I < 8; ++I) V |= static_cast<uint64_t>(B[I]) << (8 * I);
  return static_cast<int64_t>(V);
}

float TStreamRecover::ReadSingle() {
  uint8_t B[4];
  Read(B, 4);
  const uint32_t Bits = B[0] | (B[1] << 8) | (B[2] << 16) | (static_cast<uint32_t>(B[3]) << 24);
  float F;
  std::memcpy(&F, &Bits, 4);
  return F;
}

Extended TStreamRecover::ReadFloat() {
  uint8_t B[10];
  Read(B, 10);
  return BytesToExtended(B);
}

Currency TStreamRecover::ReadCurrency() { return Currency::FromScaled(ReadInt64()); }

TDateTime TStreamRecover::ReadDateTime() {
  const uint64_t Bits = static_cast<uint64_t>(ReadInt64());
  double D;
  std::memcpy(&D, &Bits, 8);
  return TDateTime(D);
}

// ---------------------------------------------------------------------------
// Tolerant readers

int32_t TStreamRecover::CheckReadInteger() {
  const uint8_t V = ReadValue() & 127;
  switch (V) {
    case vaInt8:
    case vaSet:
      return ReadInteger(vaInt8);
    case vaInt16:
    case vaInt32:
      return ReadInteger(static_cast<TValueType>(V));
    case vaExtended:
      return Low32(RoundSafe(ReadFloat()));
    case vaString:
      return StrToIntDef(ReadStr(), 0);
    case vaLString:
      return StrToIntDef(ReadString(), 0);
    case vaWString:
      return StrToIntDef(ReadWideString(), 0);
    case vaTrue:
      return 1;
    case vaSingle:
      return Low32(RoundSafe(ReadSingle()));
    case vaCurrency:
      return Low32(RoundSafe(static_cast<Extended>(ReadCurrency().Value) / 10000.0L));
    case vaDate:
      return Low32(RoundSafe(ReadDateTime().Value));
    case vaInt64:
      return Low32(ReadInt64());
    default:  // vaNull, vaList, vaCollection, vaIdent, vaFalse, vaBinary, vaNil and above
      return 0;
  }
}

int64_t TStreamRecover::CheckReadInt64() {
  const uint8_t V = ReadValue() & 127;
  switch (V) {
    case vaInt8:
    case vaSet:
      return ReadInteger(vaInt8);
    case vaInt16:
    case vaInt32:
      return ReadInteger(static_cast<TValueType>(V));
    case vaExtended:
      return RoundSafe(ReadFloat());
    case vaString:
      return StrToInt64Def(ReadStr(), 0);
    case vaLString:
      return StrToInt64Def(ReadString(), 0);
    case vaWString:
      return StrToInt64Def(ReadWideString(), 0);
    case vaTrue:
      return 1;
    case vaSingle:
      return RoundSafe(ReadSingle());
    case vaCurrency:
      return RoundSafe(static_cast<Extended>(ReadCurrency().Value) / 10000.0L);
    case vaDate:
      return RoundSafe(ReadDateTime().Value);
    case vaInt64:
      return ReadInt64();
    default:
      return 0;
  }
}

Extended TStreamRecover::CheckReadFloat() {
  const uint8_t V = ReadValue() & 127;
  switch (V) {
    case vaInt8:
    case vaSet:
      return ReadInteger(vaInt8);
    case vaInt16:
    case vaInt32:
      return ReadInteger(static_cast<TValueType>(V));
    case vaExtended:
      return ReadFloat();
    case vaString:
      return StrToFloatDef(ReadStr(), 0);
    case vaLString:
      return StrToFloatDef(ReadString(), 0);
    case vaWString:
      return StrToFloatDef(ReadWideString(), 0);
    case vaTrue:
      return 1;
    case vaSingle:
      return ReadSingle();
    case vaCurrency:
      return static_cast<Extended>(ReadCurrency().Value) / 10000.0L;
    case vaDate:
      return ReadDateTime().Value;
    case vaInt64:
      return static_cast<Extended>(ReadInt64());
    default:
      return 0;
  }
}

TDateTime TStreamRecover::CheckReadDateTime() {
  const uint8_t V = ReadValue() & 127;
  auto TextToDate = [](const std::string& S) {
    TDateTime D;
    return TryStrToDateTime(S, D) ? D : TDateTime(0);
  };
  switch (V) {
    case vaInt8:
    case vaSet:
      return TDateTime(ReadInteger(vaInt8));
    case vaInt16:
    case vaInt32:
      return TDateTime(ReadInteger(static_cast<TValueType>(V)));
    case vaExtended:
      return TDateTime(static_cast<double>(ReadFloat()));
    case vaString:
      return TextToDate(ReadStr());
    case vaLString:
      return TextToDate(ReadString());
    case vaWString:
      return TextToDate(ReadWideString());
    case vaTrue:
      return TDateTime(1.0);
    case vaSingle:
      return TDateTime(ReadSingle());
    case vaCurrency:
      return TDateTime(static_cast<double>(ReadCurrency().Value) / 10000.0);
    case vaDate:
      return ReadDateTime();
    case vaInt64:
      return TDateTime(static_cast<double>(ReadInt64()));
    default:
      return TDateTime(0);
  }
}

int32_t TStreamRecover::CheckReadEnum(PTypeInfo EnumType) {
  // A number counts only when it names a value of the enumeration.
  auto MapBack = [EnumType](int64_t N) -> int32_t {
    if (N < INT32_MIN || N > INT32_MAX) return -1;
    return GetEnumValue(EnumType, GetEnumName(EnumType, static_cast<int>(N)));
  };
  const uint8_t V = ReadValue() & 127;
  switch (V) {
    case vaInt8:
    case vaSet:
      return MapBack(ReadInteger(vaInt8));
    case vaInt16:
    case vaInt32:
      return MapBack(ReadInteger(static_cast<TValueType>(V)));
    case vaExtended:
      return MapBack(RoundSafe(ReadFloat()));
    case vaString:
    case vaIdent:
      return GetEnumValue(EnumType, ReadStr());
    case vaLString:
      return GetEnumValue(EnumType, ReadString());
    case vaWString:
      return GetEnumValue(EnumType, ReadWideString());
    case vaTrue:
      return 1;
    case vaSingle:
      return MapBack(RoundSafe(ReadSingle()));
    case vaCurrency:
      return MapBack(RoundSafe(static_cast<Extended>(ReadCurrency().Value) / 10000.0L));
    case vaInt64:
      return MapBack(ReadInt64());
    default:  // vaDate included: its payload is not read
      return 0;
  }
}

std::optional<std::string> TStreamRecover::CheckReadString() {
  const uint8_t V = ReadValue() & 127;
  switch (V) {
    case vaNull:
      return std::string("NULL");
    case vaInt8:
    case vaSet:
      return IntToStr(ReadInteger(vaInt8));
    case vaInt16:
    case vaInt32:
      return IntToStr(ReadInteger(static_cast<TValueType>(V)));
    case vaExtended:
      return FloatToStr(ReadFloat());
    case vaString:
      return ReadStr();
    case vaLString:
    case vaBinary:
      return ReadString();
    case vaWString:
      return ReadWideString();
    case vaFalse:
      return std::string("False");
    case vaTrue:
      return std::string("True");
    case vaNil:
      return std::string("nil");
    case vaSingle:
      return SingleToStr(ReadSingle());
    case vaCurrency:
      return CurrToStr(ReadCurrency());
    case vaDate:
      return DateTimeToStr(ReadDateTime());
    case vaInt64:
      return IntToStr(ReadInt64());
    default:  // vaList, vaCollection, vaIdent and above: unchanged
      return std::nullopt;
  }
}

std::optional<Variant> TStreamRecover::CheckReadVariant() {
  const uint8_t V = ReadValue() & 127;
  switch (V) {
    case vaNull:
      return Variant::Null();
    case vaList:
    case vaCollection:
    case vaIdent:
      return Variant(int32_t(0));
    case vaInt8:
    case vaSet:
      return Variant(static_cast<uint8_t>(ReadInteger(vaInt8)));
    case vaInt16:
      return Variant(static_cast<int16_t>(ReadInteger(vaInt16)));
    case vaInt32:
      return Variant(ReadInteger(vaInt32));
    case vaExtended:
      return Variant(static_cast<double>(ReadFloat()));
    case vaString:
      return Variant(ReadStr());
    case vaLString:
    case vaBinary:
      return Variant(ReadString());
    case vaWString:
      return Variant(ReadWideString());
    case vaFalse:
      return Variant(false);
    case vaTrue:
      return Variant(true);
    case vaNil:
      return Variant();
    case vaSingle:
      return Variant(ReadSingle());
    case vaCurrency:
      return Variant(ReadCurrency());
    case vaDate:
      return Variant(ReadDateTime());
    case vaInt64:
      return Variant(std::string());
    default:
      return std::nullopt;
  }
}

// ---------------------------------------------------------------------------
// Properties

void TStreamRecover::ReadProperty(TPersistent* Obj, PPropInfo P) {
  const TPropAccess* Set = P->SetProc;
  // The value is read whatever happens to it, so that the stream stays in
  // step; a setter's refusal is not the stream's fault and is ignored.
  try {
    switch (P->Kind()) {
      case tkInteger:
      case tkChar:
      case tkSet:
      case tkWChar: {
        const int32_t V = CheckReadInteger();
        if (Set) Set->SetOrd(Obj, V);
        break;
      }
      case tkEnumeration: {
        const int32_t V = CheckReadEnum(P->PropType);
        if (Set) Set->SetOrd(Obj, V);
        break;
      }
      case tkFloat: {
        const Extended V = IsDateTimeType(P->PropType) ? CheckReadDateTime().Value : CheckReadFloat();
        if (Set) Set->SetFloat(Obj, V);
        break;
      }
      case tkString:
      case tkLString:
      case tkWString: {
        const std::optional<std::string> V = CheckReadString();
        if (V && Set) Set->SetStr(Obj, *V);
        break;
      }
      case tkVariant: {
        const std::optional<Variant> V = CheckReadVariant();
        if (V && Set) Set->SetVariant(Obj, *V);
        break;
      }
      case tkInt64: {
        const int64_t V = CheckReadInt64();
        if (Set) Set->SetInt64(Obj, V);
        break;
      }
      default:
        break;
    }
  } catch (const Exception&) {
  }
}

void TStreamRecover::ReadProperties(TPersistent* Obj, const std::string& Prefix) {
  while (FStream->GetPosition() < FSize) {
    std::string Name = ReadPropName();
    OutputDebugStringA(Name);
    if (!Prefix.empty()) Name = StripFirstToken(Name, ".");
    if (Name.find('.') == std::string::npos) {
      if (PPropInfo P = GetPropInfo(Obj, Name)) ReadProperty(Obj, P);
    } else {
      RecoverClassProps(Obj, Name);
    }
  }
}

void TStreamRecover::RecoverClassProps(TPersistent* Obj, const std::string& Name) {
  const std::string Head = Name.substr(0, Name.find('.'));
  PPropInfo P = GetPropInfo(Obj, Head);
  if (!P) return;
  TObject* Value = nullptr;
  if (P->Kind() == tkClass && P->GetProc) {
    try {
      Value = P->GetProc->GetObject(Obj);
    } catch (const Exception&) {
    }
  }
  auto* Nested = dynamic_cast<TPersistent*>(Value);
  // Going back without an object to read into would read this entry again
  // and again.
  if (!Nested || FDepth >= kMaxNesting) return;
  FStream->SetPosition(FLastPosition - 1);
  if (auto* Strings = dynamic_cast<TStrings*>(Nested)) RecoverStrings(Strings, Head);
  else RecoverObject(Nested, Head);
}

void TStreamRecover::RecoverObject(TPersistent* Obj, const std::string& Name) {
  ++FDepth;
  ReadProperties(Obj, Name);
  --FDepth;
}

void TStreamRecover::RecoverStrings(TStrings* Strings, const std::string&) {
  try {
    Strings->Clear();
  } catch (const Exception&) {
  }
  ReadPropName();
  if ((ReadNextValue() & 127) != vaList) return;
  ReadValue();
  std::string Text;
  while (!EndOfList()) {
    const uint8_t V = ReadValue() & 127;
    if (V == vaString) Text = ReadStr();
    else if (V == vaLString) Text = ReadString();
    OutputDebugStringA(Text);
    try {
      Strings->Add(Text);
    } catch (const Exception&) {
    }
  }
}

// ---------------------------------------------------------------------------
// Components

TComponent* TStreamRecover::CreateComponent() {
  const std::string ClassName = ReadStr();
  TClass C = GetClass(ClassName);
  if (!C || !C->InheritsFrom(TComponent::StaticClass()))
    throw EClassNotFound(Format(SClassNotFound, {EscapeControlChars(ClassName)}));
  auto* Result = static_cast<TComponent*>(C->CreateWith(nullptr));
  const std::string Name = ReadStr();
  try {
    Result->SetName(Name);
  } catch (const Exception&) {
    // An invalid or clashing name is bad data like any other.
  }
  return Result;
}

TComponent* TStreamRecover::RecoverComponent() {
  FSize = FStream->GetSize();
  if (FSize < 4) throw EReadError(SReadError);
  FStream->SetPosition(4);
  FComponent = CreateComponent();
  try {
    ReadProperties(FComponent, std::string());
  } catch (...) {
    delete FComponent;
    FComponent = nullptr;
    throw;
  }
  return FComponent;
}

void TStreamRecover::RecoverComponent(TComponent* Component) {
  FSize = FStream->GetSize();
  if (FSize < 4) throw EReadError(SReadError);
  FStream->SetPosition(4);
  ReadStr();
  FComponent = Component;
  const std::string Name = ReadStr();
  try {
    Component->SetName(Name);
  } catch (const Exception&) {
  }
  ReadProperties(Component, std::string());
}

TComponent* RecoverComponentFromStream(TStream* Stream) {
  TStreamRecover R(Stream);
  return R.RecoverComponent();
}

void RecoverComponentStream(TStream* Stream, TComponent* Component) {
  TStreamRecover R(Stream);
  R.RecoverComponent(Component);
}

}  // namespace vel
