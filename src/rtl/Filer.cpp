// Component streams: TWriter and TReader.
#include "vel/rtl/Filer.h"

#include <algorithm>
#include <cstring>

#include "vel/rtl/StringLists.h"
#include "vel/rtl/SysUtils.h"

namespace vel {

namespace {

// Message texts of component streaming (the runtime's resource strings).
constexpr const char* SInvalidImage = "Invalid stream format";
constexpr const char* SUnknownProperty = "Property %s does not exist";
constexpr const char* SInvalidPropertyValue = "Invalid property value";
constexpr const char* SInvalidPropertyPath = "Invalid property path";
constexpr const char* SReadOnlyProperty = "Property is read-only";
constexpr const char* SPropertyException = "Error reading %s%s%s: %s";
constexpr const char* SAncestorNotFound = "Ancestor for '%s' not found";
constexpr const char* SClassNotFound = "Class %s not found";

// Deepest nesting of objects, lists and collections a stream may have;
// deeper input is rejected instead of exhausting the stack.
constexpr int kMaxDepth = 128;

// Raised once an error met inside a property has been wrapped in the
// "Error reading ..." message and offered to OnError, so that enclosing
// properties pass it on unchanged. Reported as an EReadError.
class EPropertyReadError : public EReadError {
 public:
  using EReadError::EReadError;
};

// Component state flags are set by the filers, as the runtime's filers do.
struct TComponentAccess : TComponent {
  using TComponent::SetComponentStateFlag;
};
void SetState(TComponent* C, TComponentStateItem Flag, bool On) {
  (C->*(&TComponentAccess::SetComponentStateFlag))(Flag, On);
}

void ClearLoadingState(TComponent* C) {
  SetState(C, csLoading, false);
  SetState(C, csReading, false);
  for (int I = 0; I < C->ComponentCount(); ++I) ClearLoadingState(C->Components(I));
}

bool IsDateTimeType(PTypeInfo T) {
  static const PTypeInfo DateTime = TypeInfoDateTime();
  return T == DateTime || (T->Name.size() == 9 && T->Name == "TDateTime");
}

inline void StoreLE(uint8_t* P, uint64_t V, int N) {
  for (int I = 0; I < N; ++I) P[I] = static_cast<uint8_t>(V >> (8 * I));
}
inline uint64_t LoadLE(const uint8_t* P, int N) {
  uint64_t V = 0;
  for (int I = 0; I < N; ++I) V |= static_cast<uint64_t>(P[I]) << (8 * I);
  return V;
}

// Whether every character of S has a Windows-1252 byte.
bool FitsCp1252(std::u16string_view S) {
  for (char16_t C : S) {
    if (C < 0x80 || (C >= 0xA0 && C <= 0xFF)) continue;
    if (WideCharToCp1252(C) == '?') return false;
  }
  return true;
}

// Property and value names compared as the runtime does (ASCII letters in
// any case), inline for the hot path of reading.
inline bool SameName(std::string_view A, std::string_view B) {
  if (A.size() != B.size()) return false;
  for (size_t I = 0; I < A.size(); ++I) {
    unsigned char X = static_cast<unsigned char>(A[I]);
    const unsigned char Y = static_cast<unsigned char>(B[I]);
    if (X == Y) continue;
    if ((X ^ Y) != 0x20) return false;
    X |= 0x20;
    if (X < 'a' || X > 'z') return false;
  }
  return true;
}

// The ordinal of an enumeration value name (any letter case), -1 if none.
int EnumValueOf(PTypeInfo T, std::string_view Name) {
  if (T->Kind != tkEnumeration) return GetEnumValue(T, Name);
  PTypeInfo Base = T->Data.BaseType ? T->Data.BaseType : T;
  const auto& Names = Base->Data.NameList;
  for (size_t I = 0; I < Names.size(); ++I)
    if (SameName(Names[I], Name)) return static_cast<int>(I) + Base->Data.MinValue;
  return -1;
}

// The double nearest to an Extended in its 10 bytes (halves to even, as
// the FPU converts), straight from the bits for normal values.
double ExtendedBytesToDouble(const uint8_t* B) {
  const uint64_t M = LoadLE(B, 8);
  const unsigned SE = B[8] | (B[9] << 8);
  const int E = static_cast<int>(SE & 0x7FFF);
  if (E != 0 && E != 0x7FFF && (M >> 63)) {
    int DE = E - 16383 + 1023;
    uint64_t Keep = (M & 0x7FFFFFFFFFFFFFFFull) >> 11;
    const uint64_t Rest = M & 0x7FF;
    if (Rest > 0x400 || (Rest == 0x400 && (Keep & 1))) {
      if (++Keep == (uint64_t(1) << 52)) {
        Keep = 0;
        ++DE;
      }
    }
    if (DE >= 1 && DE <= 2046) {
      const uint64_t Bits = (static_cast<uint64_t>(SE & 0x8000) << 48) | (static_cast<uint64_t>(DE) << 52) | Keep;
      double D;
      std::memcpy(&D, &Bits, 8);
      return D;
    }
  }
  return static_cast<double>(BytesToExtended(B));
}

TClass FindComponentClass(const std::string& Name) {
  TClass C = GetClass(Name);
  if (!C || !C->InheritsFrom(TComponent::StaticClass()))
    throw EClassNotFound(Format(SClassNotFound, {EscapeControlChars(Name)}));
  return C;
}

}  // namespace

// ---------------------------------------------------------------------------
// TFiler

VEL_IMPLEMENT(TFiler)

TFiler::~TFiler() = default;

// ---------------------------------------------------------------------------
// TWriter

VEL_IMPLEMENT(TWriter)

TWriter::TWriter(TStream* Stream, int BufSize)
    : TFiler(Stream), FBuffer(static_cast<size_t>(std::max(BufSize, 1024))) {}

TWriter::~TWriter() {
  try {
    FlushBuffer();
  } catch (...) {
    // A destructor cannot report it; callers that care flush first.
  }
}

void TWriter::FlushBuffer() {
  if (FBufPos == 0) return;
  size_t N = FBufPos;
  FBufPos = 0;
  FStream->WriteBuffer(FBuffer.data(), static_cast<int64_t>(N));
}

int64_t TWriter::Position() { return FStream->GetPosition() + static_cast<int64_t>(FBufPos); }

void TWriter::Write(const void* Buffer, int64_t Count) {
  if (Count <= 0) return;
  const size_t N = static_cast<size_t>(Count);
  if (N <= FBuffer.size() - FBufPos) {
    std::memcpy(FBuffer.data() + FBufPos, Buffer, N);
    FBufPos += N;
    return;
  }
  FlushBuffer();
  if (N >= FBuffer.size()) {
    FStream->WriteBuffer(Buffer, Count);
    return;
  }
  std::memcpy(FBuffer.data(), Buffer, N);
  FBufPos = N;
}

void TWriter::WriteSignature() { Write(FilerSignature, 4); }

void TWriter::WritePrefix(TFilerFlags Flags, int32_t ChildPos) {
  if (Flags.Empty()) return;
  Put(static_cast<uint8_t>(0xF0 | (Flags.ToOrd() & 0x0F)));
  if (Flags.Contains(ffChildPos)) WriteInteger(ChildPos);
}

void TWriter::WriteInteger(int32_t Value) {
  if (Value >= -128 && Value <= 127) {
    uint8_t* B = Reserve(2);
    B[0] = vaInt8;
    B[1] = static_cast<uint8_t>(Value);
  } else if (Value >= -32768 && Value <= 32767) {
    uint8_t* B = Reserve(3);
    B[0] = vaInt16;
    StoreLE(B + 1, static_cast<uint16_t>(Value), 2);
  } else {
    uint8_t* B = Reserve(5);
    B[0] = vaInt32;
    StoreLE(B + 1, static_cast<uint32_t>(Value), 4);
  }
}

void TWriter::WriteInteger(int64_t Value) {
  if (Value >= INT32_MIN && Value <= INT32_MAX) {
    WriteInteger(static_cast<int32_t>(Value));
    return;
  }
  uint8_t B[9];
  B[0] = vaInt64;
  StoreLE(B + 1, static_cast<uint64_t>(Value), 8);
  Write(B, 9);
}

void TWriter::WriteChar(char Value) {
  uint8_t B[3] = {vaString, 1, static_cast<uint8_t>(Value)};
  Write(B, 3);
}

void TWriter::WriteWideChar(char16_t Value) { WriteWideString(std::u16string_view(&Value, 1)); }

void TWriter::WriteFloat(Extended Value) {
  uint8_t* B = Reserve(11);
  B[0] = vaExtended;
  ExtendedToBytes(Value, B + 1);
}

void TWriter::WriteSingle(float Value) {
  uint8_t* B = Reserve(5);
  B[0] = vaSingle;
  uint32_t Bits;
  std::memcpy(&Bits, &Value, 4);
  StoreLE(B + 1, Bits, 4);
}

void TWriter::WriteCurrency(Currency Value) {
  uint8_t* B = Reserve(9);
  B[0] = vaCurrency;
  StoreLE(B + 1, static_cast<uint64_t>(Value.Value), 8);
}

void TWriter::WriteDate(TDateTime Value) {
  uint8_t* B = Reserve(9);
  B[0] = vaDate;
  uint64_t Bits;
  std::memcpy(&Bits, &Value.Value, 8);
  StoreLE(B + 1, Bits, 8);
}

void TWriter::WriteStringBody(std::string_view Value) {
  if (Value.size() > static_cast<size_t>(INT32_MAX)) throw EWriteError(SWriteError);
  if (Value.size() <= 255) {
    uint8_t* B = Reserve(2 + Value.size());
    B[0] = vaString;
    B[1] = static_cast<uint8_t>(Value.size());
    if (!Value.empty()) std::memcpy(B + 2, Value.data(), Value.size());
    return;
  } else {
    uint8_t B[5];
    B[0] = vaLString;
    StoreLE(B + 1, Value.size(), 4);
    Write(B, 5);
  }
  Write(Value.data(), static_cast<int64_t>(Value.size()));
}

void TWriter::WriteString(std::string_view Value) { WriteStringBody(Value); }

void TWriter::WriteWideString(std::u16string_view Value) {
  if (FitsCp1252(Value)) {
    WriteStringBody(WideToCp1252(Value));
    return;
  }
  if (Value.size() > static_cast<size_t>(INT32_MAX / 2)) throw EWriteError(SWriteError);
  uint8_t B[5];
  B[0] = vaWString;
  StoreLE(B + 1, Value.size(), 4);
  Write(B, 5);
  for (char16_t C : Value) {
    uint8_t U[2] = {static_cast<uint8_t>(C), static_cast<uint8_t>(C >> 8)};
    Write(U, 2);
  }
}

void TWriter::WriteStr(std::string_view Value) {
  const size_t L = std::min<size_t>(Value.size(), 255);
  uint8_t* B = Reserve(1 + L);
  B[0] = static_cast<uint8_t>(L);
  if (L) std::memcpy(B + 1, Value.data(), L);
}

void TWriter::WriteIdent(std::string_view Ident) {
  if (SameName(Ident, "False")) WriteValue(vaFalse);
  else if (SameName(Ident, "True")) WriteValue(vaTrue);
  else if (SameName(Ident, "Null")) WriteValue(vaNull);
  else if (SameName(Ident, "nil")) WriteValue(vaNil);
  else {
    const size_t L = std::min<size_t>(Ident.size(), 255);
    uint8_t* B = Reserve(2 + L);
    B[0] = vaIdent;
    B[1] = static_cast<uint8_t>(L);
    if (L) std::memcpy(B + 2, Ident.data(), L);
  }
}

void TWriter::WriteVariant(const Variant& Value) {
  if (VarIsArray(Value)) throw EWriteError(SWriteError);
  switch (VarType(Value) & varTypeMask) {
    case varEmpty:
      WriteValue(vaNil);
      break;
    case varNull:
      WriteValue(vaNull);
      break;
    case varOleStr:
      WriteWideString(Value.AsWideString());
      break;
    case varString:
      WriteString(Value.AsString());
      break;
    case varByte:
    case varShortInt:
    case varWord:
    case varSmallint:
    case varInteger:
      WriteInteger(Value.AsInteger());
      break;
    case varLongWord:
    case varInt64:
      WriteInteger(static_cast<int64_t>(Value.AsInt64()));
      break;
    case varSingle:
      WriteSingle(static_cast<float>(Value.AsDouble()));
      break;
    case varDouble:
      WriteFloat(Value.AsDouble());
      break;
    case varCurrency:
      WriteCurrency(Value.AsCurrency());
      break;
    case varDate:
      WriteDate(Value.AsDateTime());
      break;
    case varBoolean:
      WriteBoolean(Value.AsBoolean());
      break;
    default: {
      std::string S;
      try {
        S = Value.AsString();
      } catch (const Exception&) {
        throw EWriteError(SWriteError);
      }
      WriteString(S);
    }
  }
}

void TWriter::WriteBinary(const void* Data, int64_t Count) {
  if (Count < 0 || Count > INT32_MAX) throw EWriteError(SWriteError);
  uint8_t B[5];
  B[0] = vaBinary;
  StoreLE(B + 1, static_cast<uint64_t>(Count), 4);
  Write(B, 5);
  Write(Data, Count);
}

void TWriter::WritePropName(std::string_view Name) {
  // The dotted path of the enclosing objects and the name, as one short
  // string (cut at 255 bytes like every short string).
  const size_t Total = FPropPath.size() + Name.size();
  const size_t L = std::min<size_t>(Total, 255);
  uint8_t* B = Reserve(1 + L);
  B[0] = static_cast<uint8_t>(L);
  const size_t FromPath = std::min(L, FPropPath.size());
  if (FromPath) std::memcpy(B + 1, FPropPath.data(), FromPath);
  if (L > FromPath) std::memcpy(B + 1 + FromPath, Name.data(), L - FromPath);
}

void TWriter::DefineProperty(const std::string& Name, const TReaderProc&,
                             const TWriterProc& WriteData, bool HasData) {
  if (!HasData || !WriteData) return;
  WritePropName(Name);
  WriteData(this);
}

void TWriter::DefineBinaryProperty(const std::string& Name, const TStreamProc&,
                                   const TStreamProc& WriteData, bool HasData) {
  if (!HasData || !WriteData) return;
  TMemoryStream Data;
  WriteData(&Data);
  WritePropName(Name);
  WriteBinary(Data.Memory(), Data.GetSize());
}

void TWriter::WriteRootComponent(TComponent* Root) {
  FRoot = Root;
  FLookupRoot = Root;
  WriteSignature();
  WriteComponent(Root);
  FlushBuffer();
}

void TWriter::WriteComponent(TComponent* Component) {
  const bool WasWriting = Component->ComponentState().Contains(csWriting);
  SetState(Component, csWriting, true);
  std::string SavedPath = std::move(FPropPath);
  FPropPath.clear();
  TComponent* SavedLookup = FLookupRoot;
  auto Restore = [&] {
    FPropPath = std::move(SavedPath);
    FLookupRoot = SavedLookup;
    if (!WasWriting) SetState(Component, csWriting, false);
  };
  try {
    TFilerFlags Flags;
    // An inline component (a frame) names its own handlers and components,
    // as the reader expects.
    if (Component != FRoot && Component->ComponentState().Contains(csInline)) {
      Flags.Include(ffInline);
      FLookupRoot = Component;
    }
    WritePrefix(Flags, 0);
    WriteStr(Component->ClassName());
    WriteStr(Component->Name());
    WriteProperties(Component);
    WriteListEnd();
    if (!FIgnoreChildren)
      for (int I = 0; I < Component->ComponentCount(); ++I) WriteComponent(Component->Components(I));
    WriteListEnd();
  } catch (...) {
    Restore();
    throw;
  }
  Restore();
}

void TWriter::WriteProperties(TPersistent* Instance) {
  FWriting.push_back(Instance);
  try {
    TClass C = Instance->ClassType();
    if (C->Rtti)
      for (PPropInfo P : C->Rtti->Props)
        if (P->StoredProc.Kind == skConstant ? P->StoredProc.Constant : IsStoredProp(Instance, P))
          WriteProperty(Instance, P);
    Instance->DefineProperties(this);
  } catch (...) {
    FWriting.pop_back();
    throw;
  }
  FWriting.pop_back();
}

void TWriter::WriteCollection(TCollection* Value) {
  WriteValue(vaCollection);
  // Item properties are named relative to the item.
  std::string SavedPath = std::move(FPropPath);
  FPropPath.clear();
  try {
    if (Value)
      for (int I = 0; I < Value->Count(); ++I) {
        WriteListBegin();
        WriteProperties(Value->Items(I));
        WriteListEnd();
      }
    WriteListEnd();
  } catch (...) {
    FPropPath = std::move(SavedPath);
    throw;
  }
  FPropPath = std::move(SavedPath);
}

void TWriter::WriteProperty(TPersistent* Instance, PPropInfo P) {
  const TPropAccess* A = P->GetProc;
  if (!A) return;
  const TTypeKind Kind = P->Kind();
  // Only properties that can be read back are written; object properties
  // are filled in place by the reader and need no setter.
  if (Kind != tkClass && !P->SetProc) return;
  switch (Kind) {
    case tkInteger:
    case tkChar:
    case tkWChar:
    case tkEnumeration:
    case tkSet: {
      const int32_t V = A->GetOrd(Instance);
      // A property declared without a default is always written, whatever
      // it holds (also the marker value itself).
      if (P->Default != NoDefault && V == P->Default) return;
      WritePropName(P->Name);
      if (Kind == tkInteger) {
        WriteInteger(V);
      } else if (Kind == tkChar) {
        WriteChar(static_cast<char>(V));
      } else if (Kind == tkWChar) {
        WriteWideChar(static_cast<char16_t>(V));
      } else if (Kind == tkEnumeration) {
        PTypeInfo T = P->PropType;
        PTypeInfo Base = T->Data.BaseType ? T->Data.BaseType : T;
        const auto& Names = Base->Data.NameList;
        const int64_t I = static_cast<int64_t>(V) - Base->Data.MinValue;
        if (I >= 0 && I < static_cast<int64_t>(Names.size()))
          WriteIdent(Names[static_cast<size_t>(I)]);
        else
          WriteIdent(std::string_view());
      } else {
        PTypeInfo Comp = P->PropType->Data.CompType;
        WriteValue(vaSet);
        const uint32_t Bits = static_cast<uint32_t>(V);
        for (int I = 0; I < 32; ++I)
          if (Bits & (1u << I)) WriteStr(GetEnumName(Comp, I));
        WriteStr(std::string_view());
      }
      return;
    }
    case tkFloat: {
      const TFloatType FT = P->PropType->Data.FloatType;
      if (FT == ftCurr) {
        const int64_t Scaled = A->GetCurrency(Instance);
        if (Scaled == 0) return;
        WritePropName(P->Name);
        WriteCurrency(Currency::FromScaled(Scaled));
        return;
      }
      const Extended V = A->GetFloat(Instance);
      if (V == 0) return;
      WritePropName(P->Name);
      if (FT == ftSingle) {
        WriteSingle(static_cast<float>(V));
      } else if (IsDateTimeType(P->PropType)) {
        WriteDate(TDateTime(static_cast<double>(V)));
      } else if (FT == ftDouble) {
        // A double widens exactly; convert from its bits.
        uint8_t* B = Reserve(11);
        B[0] = vaExtended;
        DoubleToExtendedBytes(static_cast<double>(V), B + 1);
      } else {
        WriteFloat(V);
      }
      return;
    }
    case tkString:
    case tkLString: {
      if (const std::string* S = A->StrField(Instance)) {
        if (S->empty()) return;
        WritePropName(P->Name);
        WriteString(*S);
      } else {
        const std::string S2 = A->GetStr(Instance);
        if (S2.empty()) return;
        WritePropName(P->Name);
        WriteString(S2);
      }
      return;
    }
    case tkWString: {
      const std::u16string W = A->GetWStr(Instance);
      if (W.empty()) return;
      WritePropName(P->Name);
      WriteWideString(W);
      return;
    }
    case tkInt64: {
      const int64_t V = A->GetInt64(Instance);
      if (V == 0) return;
      WritePropName(P->Name);
      WriteInteger(V);
      return;
    }
    case tkVariant: {
      const Variant V = A->GetVariant(Instance);
      if (VarIsEmpty(V)) return;
      if (VarIsArray(V)) throw EWriteError(SWriteError);
      WritePropName(P->Name);
      WriteVariant(V);
      return;
    }
    case tkMethod: {
      const TMethod M = A->GetMethod(Instance);
      if (!M.Code) return;
      // Handlers are named by the published methods of the lookup root; a
      // handler the root does not publish cannot be named and is left out.
      TComponent* LR = FLookupRoot ? FLookupRoot : FRoot;
      const std::string N = LR ? LR->MethodName(M.Code) : std::string();
      if (N.empty()) return;
      WritePropName(P->Name);
      WriteIdent(N);
      return;
    }
    case tkClass:
      WriteObjectProp(Instance, P);
      return;
    default:
      return;
  }
}

void TWriter::WriteObjectProp(TPersistent* Instance, PPropInfo P) {
  TObject* Value = P->GetProc->GetObject(Instance);
  if (!Value) {
    // A reference to no component is written as vaNil, so that reading
    // into an existing component clears it; an object property that holds
    // nothing has nothing to write.
    TClass Declared = P->PropType->Data.ClassType;
    if (!P->SetProc || !Declared || !Declared->InheritsFrom(TComponent::StaticClass())) return;
    WritePropName(P->Name);
    WriteValue(vaNil);
    return;
  }
  if (auto* Comp = dynamic_cast<TComponent*>(Value)) {
    // A reference to a component, by name: the owner's name is added when
    // the component is not owned by the lookup root.
    if (!P->SetProc) return;
    std::string N;
    if (Comp == FLookupRoot) {
      N = "Owner";
    } else {
      TComponent* O = Comp->Owner();
      if (!O || O == FLookupRoot) N = Comp->Name();
      else if (!O->Name().empty() && !Comp->Name().empty()) N = O->Name() + "." + Comp->Name();
      else N = Comp->Name();
    }
    if (N.empty()) return;
    WritePropName(P->Name);
    WriteIdent(N);
    return;
  }
  auto* Pers = dynamic_cast<TPersistent*>(Value);
  if (!Pers) return;
  // An object that refers back to one being written would never end.
  if (std::find(FWriting.begin(), FWriting.end(), Pers) != FWriting.end()) return;
  const size_t SaveLen = FPropPath.size();
  FPropPath += P->Name;
  FPropPath += '.';
  try {
    WriteProperties(Pers);
  } catch (...) {
    FPropPath.resize(SaveLen);
    throw;
  }
  FPropPath.resize(SaveLen);
  if (auto* Coll = dynamic_cast<TCollection*>(Pers)) {
    WritePropName(P->Name);
    WriteCollection(Coll);
  }
}

// ---------------------------------------------------------------------------
// TReader

VEL_IMPLEMENT(TReader)

namespace {
// Counts one level of nesting for the lifetime of the guard.
struct TDepthGuard {
  int& Depth;
  explicit TDepthGuard(int& D) : Depth(D) {
    if (++Depth > kMaxDepth) {
      --Depth;
      throw EReadError(SInvalidImage);
    }
  }
  ~TDepthGuard() { --Depth; }
};
}  // namespace

TReader::TReader(TStream* Stream, int BufSize) : TFiler(Stream) {
  if (auto* M = dynamic_cast<TCustomMemoryStream*>(Stream)) {
    // A stream in memory is read in place; its position is set when the
    // reader is done (FlushBuffer).
    const int64_t Size = std::max<int64_t>(M->GetSize(), 0);
    const int64_t Pos = M->GetPosition();
    FDirect = true;
    FBuf = static_cast<const uint8_t*>(M->Memory());
    FOrigin = 0;
    FBufEnd = static_cast<size_t>(Size);
    FBufPos = (Pos >= 0 && Pos <= Size) ? static_cast<size_t>(Pos) : FBufEnd;
  } else {
    FStorage.resize(static_cast<size_t>(std::max(BufSize, 256)));
    FBuf = FStorage.data();
    FOrigin = Stream->GetPosition();
  }
}

TReader::~TReader() {
  try {
    FlushBuffer();
  } catch (...) {
  }
}

void TReader::FlushBuffer() {
  if (FDirect) {
    FStream->SetPosition(FOrigin + static_cast<int64_t>(FBufPos));
    return;
  }
  if (FBufEnd > FBufPos) FStream->Seek(-static_cast<int64_t>(FBufEnd - FBufPos), soCurrent);
  FOrigin += static_cast<int64_t>(FBufPos);
  FBufPos = FBufEnd = 0;
}

int64_t TReader::Position() { return FOrigin + static_cast<int64_t>(FBufPos); }

void TReader::SetPosition(int64_t Value) {
  if (Value >= FOrigin && Value <= FOrigin + static_cast<int64_t>(FBufEnd)) {
    FBufPos = static_cast<size_t>(Value - FOrigin);
    return;
  }
  if (FDirect) {
    FBufPos = FBufEnd;  // outside the memory: nothing more to read
    return;
  }
  FStream->SetPosition(Value);
  FOrigin = Value;
  FBufPos = FBufEnd = 0;
}

void TReader::Refill() {
  if (FDirect) throw EReadError(SReadError);
  FOrigin += static_cast<int64_t>(FBufEnd);
  FBufPos = FBufEnd = 0;
  const int64_t N = FStream->Read(FStorage.data(), static_cast<int64_t>(FStorage.size()));
  if (N <= 0) throw EReadError(SReadError);
  FBufEnd = static_cast<size_t>(N);
}

void TReader::Read(void* Buffer, int64_t Count) {
  if (Count <= 0) return;
  auto* D = static_cast<uint8_t*>(Buffer);
  size_t Want = static_cast<size_t>(Count);
  size_t Avail = FBufEnd - FBufPos;
  if (Want <= Avail) {
    std::memcpy(D, FBuf + FBufPos, Want);
    FBufPos += Want;
    return;
  }
  if (FDirect) {
    FBufPos = FBufEnd;
    throw EReadError(SReadError);
  }
  if (Avail) std::memcpy(D, FBuf + FBufPos, Avail);
  FBufPos = FBufEnd;
  D += Avail;
  Want -= Avail;
  if (Want >= FStorage.size()) {
    FOrigin += static_cast<int64_t>(FBufEnd);
    FBufPos = FBufEnd = 0;
    const int64_t Got = FStream->Read(D, static_cast<int64_t>(Want));
    FOrigin += std::max<int64_t>(Got, 0);
    if (Got != static_cast<int64_t>(Want)) throw EReadError(SReadError);
    return;
  }
  while (Want > 0) {
    Refill();
    const size_t N = std::min(Want, FBufEnd - FBufPos);
    std::memcpy(D, FBuf + FBufPos, N);
    FBufPos += N;
    D += N;
    Want -= N;
  }
}

void TReader::SkipBytes(int64_t Count) {
  // Read through the buffer (rather than seek) so that a count beyond the
  // end of the stream fails here.
  while (Count > 0) {
    if (FBufPos == FBufEnd) Refill();
    const size_t N = static_cast<size_t>(std::min<int64_t>(Count, static_cast<int64_t>(FBufEnd - FBufPos)));
    FBufPos += N;
    Count -= static_cast<int64_t>(N);
  }
}

int32_t TReader::ReadLength() {
  uint8_t B[4];
  Read(B, 4);
  const int32_t L = static_cast<int32_t>(LoadLE(B, 4));
  if (L < 0) throw EReadError(SInvalidImage);
  return L;
}

void TReader::ReadBytes(std::string& Out, int64_t Count) {
  // Grown as the bytes arrive, so that a damaged length cannot make a huge
  // allocation before the stream runs out.
  Out.clear();
  constexpr int64_t Chunk = 1 << 20;
  while (Count > 0) {
    const int64_t N = std::min(Count, Chunk);
    const size_t Old = Out.size();
    Out.resize(Old + static_cast<size_t>(N));
    Read(Out.data() + Old, N);
    Count -= N;
  }
}

void TReader::BadValueType() { throw EReadError(SInvalidImage); }

void TReader::PropValueError() { throw EReadError(SInvalidPropertyValue); }

void TReader::CheckValue(TValueType V) {
  if (ReadValue() != V) PropValueError();
}

void TReader::ReadSignature() {
  char S[4];
  Read(S, 4);
  if (std::memcmp(S, FilerSignature, 4) != 0) throw EReadError(SInvalidImage);
}

void TReader::ReadPrefix(TFilerFlags& Flags, int32_t& ChildPos) {
  Flags = TFilerFlags();
  ChildPos = 0;
  const uint8_t B = PeekByte();
  if ((B & 0xF0) != 0xF0) return;
  ++FBufPos;
  Flags = TFilerFlags::FromOrd(B & 0x07);
  if (Flags.Contains(ffChildPos)) ChildPos = ReadInteger();
}

namespace {
inline int64_t IntPayloadSize(TValueType V) {
  switch (V) {
    case vaInt8: return 1;
    case vaInt16: return 2;
    case vaInt32: return 4;
    case vaInt64: return 8;
    default: return 0;
  }
}
inline int64_t SignExtend(uint64_t V, int64_t Size) {
  switch (Size) {
    case 1: return static_cast<int8_t>(V);
    case 2: return static_cast<int16_t>(V);
    case 4: return static_cast<int32_t>(V);
    default: return static_cast<int64_t>(V);
  }
}
}  // namespace

namespace {
inline float FloatFromBits(const uint8_t* P) {
  const uint32_t Bits = static_cast<uint32_t>(LoadLE(P, 4));
  float F;
  std::memcpy(&F, &Bits, 4);
  return F;
}
inline double DoubleFromBits(const uint8_t* P) {
  const uint64_t Bits = LoadLE(P, 8);
  double D;
  std::memcpy(&D, &Bits, 8);
  return D;
}
}  // namespace

int32_t TReader::ReadInteger() {
  const TValueType V = ReadValue();
  if (V != vaInt8 && V != vaInt16 && V != vaInt32) PropValueError();
  const int64_t N = IntPayloadSize(V);
  const uint8_t* P = Take(static_cast<size_t>(N));
  return static_cast<int32_t>(SignExtend(LoadLE(P, static_cast<int>(N)), N));
}

int64_t TReader::ReadInt64() {
  const TValueType V = ReadValue();
  const int64_t N = IntPayloadSize(V);
  if (N == 0) PropValueError();
  const uint8_t* P = Take(static_cast<size_t>(N));
  return SignExtend(LoadLE(P, static_cast<int>(N)), N);
}

Extended TReader::ReadFloat() {
  const TValueType V = ReadValue();
  switch (V) {
    case vaExtended:
      return BytesToExtended(Take(10));
    case vaSingle:
      return FloatFromBits(Take(4));
    case vaDate:
      return DoubleFromBits(Take(8));
    case vaCurrency:
      return static_cast<Extended>(static_cast<int64_t>(LoadLE(Take(8), 8))) / 10000.0L;
    case vaInt8:
    case vaInt16:
    case vaInt32:
    case vaInt64: {
      const int64_t N = IntPayloadSize(V);
      return static_cast<Extended>(SignExtend(LoadLE(Take(static_cast<size_t>(N)), static_cast<int>(N)), N));
    }
    default:
      PropValueError();
  }
}

float TReader::ReadSingle() {
  if (NextValue() == vaSingle) {
    ++FBufPos;
    return FloatFromBits(Take(4));
  }
  return static_cast<float>(ReadFloat());
}

Currency TReader::ReadCurrency() {
  if (NextValue() == vaCurrency) {
    ++FBufPos;
    return Currency::FromScaled(static_cast<int64_t>(LoadLE(Take(8), 8)));
  }
  return Currency(ReadFloat());
}

TDateTime TReader::ReadDate() {
  if (NextValue() == vaDate) {
    ++FBufPos;
    return TDateTime(DoubleFromBits(Take(8)));
  }
  return TDateTime(static_cast<double>(ReadFloat()));
}

void TReader::ReadStrInto(std::string& Out) {
  const uint8_t L = GetByte();
  if (FBufEnd - FBufPos >= L) {
    Out.assign(reinterpret_cast<const char*>(FBuf + FBufPos), L);
    FBufPos += L;
    return;
  }
  Out.resize(L);
  Read(Out.data(), L);
}

std::string TReader::ReadStr() {
  std::string S;
  ReadStrInto(S);
  return S;
}

std::u16string TReader::ReadWideBody(TValueType V) {
  if (V == vaUTF8String) {
    std::string U;
    ReadBytes(U, ReadLength());
    return Utf8ToWide(U);
  }
  // vaWString: a count of UTF-16 code units.
  const int32_t Count = ReadLength();
  std::string Raw;
  ReadBytes(Raw, static_cast<int64_t>(Count) * 2);
  std::u16string W(static_cast<size_t>(Count), u'\0');
  for (size_t I = 0; I < W.size(); ++I)
    W[I] = static_cast<char16_t>(static_cast<uint8_t>(Raw[2 * I]) |
                                 (static_cast<uint8_t>(Raw[2 * I + 1]) << 8));
  return W;
}

void TReader::ReadStringInto(std::string& Out) {
  const TValueType V = ReadValue();
  switch (V) {
    case vaString:
      ReadStrInto(Out);
      return;
    case vaLString:
      ReadBytes(Out, ReadLength());
      return;
    case vaUTF8String: {
      std::string U;
      ReadBytes(U, ReadLength());
      Out = Utf8ToCp1252(U);
      return;
    }
    case vaWString:
      Out = WideToCp1252(ReadWideBody(V));
      return;
    default:
      PropValueError();
  }
}

std::string TReader::ReadString() {
  std::string S;
  ReadStringInto(S);
  return S;
}

std::u16string TReader::ReadWideString() {
  const TValueType V = NextValue();
  if (V == vaWString || V == vaUTF8String) {
    ++FBufPos;
    return ReadWideBody(V);
  }
  std::string S;
  ReadStringInto(S);
  return Cp1252ToWide(S);
}

std::string TReader::ReadIdent() {
  switch (ReadValue()) {
    case vaIdent:
      return ReadStr();
    case vaFalse:
      return "False";
    case vaTrue:
      return "True";
    case vaNil:
      return "nil";
    case vaNull:
      return "Null";
    default:
      PropValueError();
  }
}

bool TReader::ReadBoolean() { return ReadValue() == vaTrue; }

char TReader::ReadChar() {
  const TValueType V = NextValue();
  if (V == vaInt8 || V == vaInt16 || V == vaInt32) return static_cast<char>(ReadInteger());
  std::string S;
  ReadStringInto(S);
  if (S.size() > 1) PropValueError();
  return S.empty() ? '\0' : S[0];
}

char16_t TReader::ReadWideChar() {
  const TValueType V = NextValue();
  if (V == vaInt8 || V == vaInt16 || V == vaInt32) return static_cast<char16_t>(ReadInteger());
  const std::u16string W = ReadWideString();
  if (W.size() > 1) PropValueError();
  return W.empty() ? u'\0' : W[0];
}

Variant TReader::ReadVariant() {
  const TValueType V = NextValue();
  switch (V) {
    case vaNil:
      ++FBufPos;
      return Variant();
    case vaNull:
      ++FBufPos;
      return Variant::Null();
    case vaInt8:
      return Variant(static_cast<int8_t>(ReadInteger()));
    case vaInt16:
      return Variant(static_cast<int16_t>(ReadInteger()));
    case vaInt32:
      return Variant(ReadInteger());
    case vaInt64:
      return Variant(static_cast<long long>(ReadInt64()));
    case vaExtended:
      return Variant(static_cast<double>(ReadFloat()));
    case vaSingle:
      return Variant(ReadSingle());
    case vaCurrency:
      return Variant(ReadCurrency());
    case vaDate:
      return Variant(ReadDate());
    case vaString:
    case vaLString:
      return Variant(ReadString());
    case vaWString:
    case vaUTF8String:
      return Variant(ReadWideString());
    case vaFalse:
    case vaTrue:
      ++FBufPos;
      return Variant(V == vaTrue);
    default:
      PropValueError();
  }
}

int32_t TReader::ReadSet(PTypeInfo EnumType) {
  CheckValue(vaSet);
  uint32_t Bits = 0;
  for (;;) {
    ReadStrInto(FStrBuf);
    if (FStrBuf.empty()) break;
    const int E = GetEnumValue(EnumType, FStrBuf);
    if (E < 0 || E > 31) {
      SkipSetBody();
      PropValueError();
    }
    Bits |= 1u << E;
  }
  return static_cast<int32_t>(Bits);
}

void TReader::SkipSetBody() {
  for (;;) {
    const uint8_t L = GetByte();
    if (L == 0) return;
    SkipBytes(L);
  }
}

void TReader::SkipValue() {
  TDepthGuard G(FDepth);
  const TValueType V = ReadValue();
  switch (V) {
    case vaNull:
    case vaFalse:
    case vaTrue:
    case vaNil:
      return;
    case vaList:
      while (!EndOfList()) SkipValue();
      ReadListEnd();
      return;
    case vaInt8:
    case vaInt16:
    case vaInt32:
    case vaInt64:
      SkipBytes(IntPayloadSize(V));
      return;
    case vaExtended:
      SkipBytes(10);
      return;
    case vaString:
    case vaIdent:
      SkipBytes(GetByte());
      return;
    case vaBinary:
    case vaLString:
    case vaUTF8String:
      SkipBytes(ReadLength());
      return;
    case vaWString:
      SkipBytes(static_cast<int64_t>(ReadLength()) * 2);
      return;
    case vaSet:
      SkipSetBody();
      return;
    case vaCollection:
      while (!EndOfList()) {
        const TValueType N = NextValue();
        if (N == vaInt8 || N == vaInt16 || N == vaInt32) SkipValue();
        CheckValue(vaList);
        while (!EndOfList()) SkipProperty();
        ReadListEnd();
      }
      ReadListEnd();
      return;
    case vaSingle:
      SkipBytes(4);
      return;
    case vaCurrency:
    case vaDate:
      SkipBytes(8);
      return;
  }
}

void TReader::SkipProperty() {
  SkipBytes(GetByte());
  SkipValue();
}

void TReader::SkipComponent(bool SkipHeader) {
  TDepthGuard G(FDepth);
  if (SkipHeader) {
    TFilerFlags Flags;
    int32_t Pos;
    ReadPrefix(Flags, Pos);
    SkipBytes(GetByte());
    SkipBytes(GetByte());
  }
  while (!EndOfList()) SkipProperty();
  ReadListEnd();
  while (!EndOfList()) SkipComponent(true);
  ReadListEnd();
}

bool TReader::Error(const std::string& Message) {
  bool Handled = false;
  if (OnError) OnError(this, Message, Handled);
  return Handled;
}

PPropInfo TReader::FindProp(TClass Class, std::string_view Name) {
  if (!Class || !Class->Rtti) return nullptr;
  PPropInfo P = GetPropInfo(Class, Name);
  if (P) {
    FCacheClass = Class;
    FCacheNext = static_cast<size_t>(P->NameIndex) + 1;
  }
  return P;
}

void TReader::ReadProperty(TPersistent* AInstance) {
  // A name that cannot be read is a broken stream, not a property error.
  // The name is looked at in the buffer when it lies there whole (it is
  // used before any value is read).
  const uint8_t L = GetByte();
  std::string_view Path;
  if (FBufEnd - FBufPos >= L) {
    Path = std::string_view(reinterpret_cast<const char*>(FBuf + FBufPos), L);
    FBufPos += L;
  } else {
    FPathBuf.resize(L);
    Read(FPathBuf.data(), L);
    Path = FPathBuf;
  }
  const int64_t ValueStart = Position();
  FNamedProp = nullptr;
  try {
    TPersistent* Instance = AInstance;
    // Streams hold properties in declaration order: the one after the last
    // found is tried first, by a name comparison instead of a lookup.
    TClass C = Instance->ClassType();
    if (C == FCacheClass) {
      const auto& Props = C->Rtti->Props;
      const size_t Next = FCacheNext < Props.size() ? FCacheNext : 0;
      if (SameName(Props[Next]->Name, Path)) {
        FCacheNext = Next + 1;
        FNamedProp = Props[Next];
        ReadPropValue(Instance, Props[Next]);
        return;
      }
    }
    size_t I = 0;
    for (;;) {
      size_t J = I;
      while (J < Path.size() && Path[J] != '.') ++J;
      if (J == Path.size()) {
        FPropName.assign(Path.substr(I));
        break;
      }
      FPropName.assign(Path.substr(I, J - I));
      PPropInfo P = GetPropInfo(Instance->ClassType(), FPropName);
      if (!P) throw EReadError(Format(SUnknownProperty, {EscapeControlChars(FPropName)}));
      TObject* V = (P->Kind() == tkClass && P->GetProc) ? P->GetProc->GetObject(Instance) : nullptr;
      auto* Next = dynamic_cast<TPersistent*>(V);
      if (!Next) throw EReadError(SInvalidPropertyPath);
      Instance = Next;
      I = J + 1;
    }
    if (PPropInfo P = FindProp(Instance->ClassType(), FPropName)) {
      FNamedProp = P;
      ReadPropValue(Instance, P);
    } else {
      Instance->DefineProperties(this);
      if (!FPropName.empty()) throw EReadError(Format(SUnknownProperty, {EscapeControlChars(FPropName)}));
    }
  } catch (const EPropertyReadError&) {
    throw;
  } catch (const Exception& E) {
    std::string Name;
    if (auto* C = dynamic_cast<TComponent*>(AInstance)) Name = C->Name();
    if (Name.empty()) Name = AInstance->ClassName();
    const std::string Msg =
        Format(SPropertyException, {EscapeControlChars(Name), ".", EscapeControlChars(PropName()), E.Message()});
    if (Error(Msg)) {
      SetPosition(ValueStart);
      SkipValue();
      return;
    }
    throw EPropertyReadError(Msg);
  }
}

void TReader::ReadPropValue(TPersistent* Instance, PPropInfo P) {
  const TTypeKind Kind = P->Kind();
  if (!P->SetProc && Kind != tkClass) throw EReadError(SReadOnlyProperty);
  const TPropAccess* A = P->SetProc;
  switch (Kind) {
    case tkInteger:
      A->SetOrd(Instance, ReadInteger());
      return;
    case tkChar:
      A->SetOrd(Instance, static_cast<uint8_t>(ReadChar()));
      return;
    case tkWChar:
      A->SetOrd(Instance, ReadWideChar());
      return;
    case tkEnumeration: {
      const TValueType V = ReadValue();
      std::string_view Ident;
      switch (V) {
        case vaIdent:
          ReadStrInto(FStrBuf);
          Ident = FStrBuf;
          break;
        case vaFalse: Ident = "False"; break;
        case vaTrue: Ident = "True"; break;
        case vaNil: Ident = "nil"; break;
        case vaNull: Ident = "Null"; break;
        default: PropValueError();
      }
      const int E = EnumValueOf(P->PropType, Ident);
      if (E == -1) PropValueError();
      A->SetOrd(Instance, E);
      return;
    }
    case tkFloat: {
      const TFloatType FT = P->PropType->Data.FloatType;
      if (FT == ftCurr) {
        A->SetCurrency(Instance, ReadCurrency().Value);
      } else if (IsDateTimeType(P->PropType)) {
        A->SetFloat(Instance, ReadDate().Value);
      } else if (FT == ftDouble && PeekByte() == vaExtended) {
        ++FBufPos;
        A->SetFloat(Instance, ExtendedBytesToDouble(Take(10)));
      } else {
        A->SetFloat(Instance, ReadFloat());
      }
      return;
    }
    case tkString:
    case tkLString:
      ReadStringInto(FStrBuf);
      A->SetStr(Instance, FStrBuf);
      return;
    case tkWString:
      A->SetWStr(Instance, ReadWideString());
      return;
    case tkSet:
      A->SetOrd(Instance, ReadSet(P->PropType->Data.CompType));
      return;
    case tkInt64:
      A->SetInt64(Instance, ReadInt64());
      return;
    case tkVariant:
      A->SetVariant(Instance, ReadVariant());
      return;
    case tkMethod: {
      if (NextValue() == vaNil) {
        ++FBufPos;
        A->SetMethod(Instance, TMethod());
        return;
      }
      const std::string N = ReadIdent();
      TComponent* LR = FLookupRoot ? FLookupRoot : FRoot;
      void* Code = LR ? LR->MethodAddress(N) : nullptr;
      if (!Code) PropValueError();
      TMethod M;
      M.Code = Code;
      M.Data = static_cast<TObject*>(LR);
      A->SetMethod(Instance, M);
      return;
    }
    case tkClass: {
      TClass Declared = P->PropType->Data.ClassType;
      const bool IsReference = Declared && Declared->InheritsFrom(TComponent::StaticClass());
      const TValueType V = NextValue();
      if (V == vaNil) {
        ++FBufPos;
        // Only references are cleared: an object a property owns is kept.
        if (IsReference) {
          if (!A) throw EReadError(SReadOnlyProperty);
          A->SetObject(Instance, nullptr);
        }
        return;
      }
      if (V == vaCollection) {
        ++FBufPos;
        TObject* O = P->GetProc ? P->GetProc->GetObject(Instance) : nullptr;
        auto* Coll = dynamic_cast<TCollection*>(O);
        if (!Coll) PropValueError();
        ReadCollection(Coll);
        return;
      }
      std::string N = ReadIdent();
      if (!IsReference) PropValueError();
      if (!A) throw EReadError(SReadOnlyProperty);
      // Resolved once the whole stream has been read.
      FFixups.push_back(TFixup{Instance, P, std::move(N), FItemStack});
      return;
    }
    default:
      PropValueError();
  }
}

void TReader::ForgetFixupsOf(TCollection* Collection) {
  if (FFixups.empty()) return;
  std::erase_if(FFixups, [Collection](const TFixup& F) {
    for (TCollectionItem* Item : F.Items)
      if (Item->Collection() == Collection) return true;
    return false;
  });
}

void TReader::ReadCollection(TCollection* Collection) {
  TDepthGuard G(FDepth);
  Collection->BeginUpdate();
  try {
    if (!EndOfList()) {
      ForgetFixupsOf(Collection);
      Collection->Clear();
    }
    while (!EndOfList()) {
      const TValueType V = NextValue();
      if (V == vaInt8 || V == vaInt16 || V == vaInt32) ReadInteger();  // order, unused
      TCollectionItem* Item = Collection->Add();
      ReadListBegin();
      FItemStack.push_back(Item);
      try {
        while (!EndOfList()) ReadProperty(Item);
      } catch (...) {
        FItemStack.pop_back();
        throw;
      }
      FItemStack.pop_back();
      ReadListEnd();
    }
    ReadListEnd();
  } catch (...) {
    Collection->EndUpdate();
    throw;
  }
  Collection->EndUpdate();
}

void TReader::DefineProperty(const std::string& Name, const TReaderProc& ReadData,
                             const TWriterProc&, bool) {
  if (FPropName.empty() || !ReadData || !SameText(Name, FPropName)) return;
  ReadData(this);
  FPropName.clear();
}

void TReader::DefineBinaryProperty(const std::string& Name, const TStreamProc& ReadData,
                                   const TStreamProc&, bool) {
  if (FPropName.empty() || !ReadData || !SameText(Name, FPropName)) return;
  CheckValue(vaBinary);
  int64_t Count = ReadLength();
  TMemoryStream Data;
  uint8_t Chunk[4096];
  while (Count > 0) {
    const int64_t N = std::min<int64_t>(Count, sizeof Chunk);
    Read(Chunk, N);
    Data.WriteBuffer(Chunk, N);
    Count -= N;
  }
  Data.SetPosition(0);
  ReadData(&Data);
  FPropName.clear();
}

void TReader::ReadData(TComponent* Instance) {
  while (!EndOfList()) ReadProperty(Instance);
  ReadListEnd();
  // Owned components take the order of the stream, including those the
  // owner made itself.
  const int SaveIndex = FChildIndex;
  FChildIndex = 0;
  try {
    while (!EndOfList())
      if (ReadComponent(nullptr)) ++FChildIndex;
  } catch (...) {
    FChildIndex = SaveIndex;
    throw;
  }
  FChildIndex = SaveIndex;
  ReadListEnd();
}

TComponent* TReader::ReadComponent(TComponent* Component) {
  TDepthGuard G(FDepth);
  TFilerFlags Flags;
  int32_t ChildPos;
  ReadPrefix(Flags, ChildPos);
  const std::string CompClass = ReadStr();
  const std::string CompName = ReadStr();
  TComponent* Result = Component;
  bool Created = false;
  try {
    if (!Result) {
      if (Flags.Contains(ffInherited)) {
        Result = FOwner ? FOwner->FindComponent(CompName) : nullptr;
        if (!Result) throw EReadError(Format(SAncestorNotFound, {EscapeControlChars(CompName)}));
      } else if (TClass C = FindComponentClass(CompClass);
                 (Result = FOwner ? FOwner->FindComponent(CompName) : nullptr) && Result->ClassType() == C) {
        // The owner made a component of this name and class itself (in
        // its constructor): it is read into, not made twice.
      } else {
        TObject* O = C->CreateWith(FOwner);
        Result = static_cast<TComponent*>(O);
        Created = true;
        // A class without the owner constructor is given its owner here.
        if (FOwner && Result->Owner() != FOwner) FOwner->InsertComponent(Result);
        if (Flags.Contains(ffInline)) SetState(Result, csInline, true);
      }
    }
    SetState(Result, csLoading, true);
    if (!Flags.Contains(ffInherited)) Result->SetName(CompName);
  } catch (const Exception& E) {
    // The component cannot be had: drop it, skip its part of the stream,
    // and let OnError decide whether to go on without it.
    if (Created) delete Result;
    SkipComponent(false);
    if (Error(E.Message())) return nullptr;
    throw;
  }
  try {
    if (TComponent* O = Result->Owner()) {
      const int Want = Flags.Contains(ffChildPos) ? ChildPos : FChildIndex;
      if (Want >= 0 && Want < O->ComponentCount() && O->Components(Want) != Result)
        Result->SetComponentIndex(Want);
    }
    TComponent* SaveOwner = FOwner;
    TComponent* SaveLookup = FLookupRoot;
    FOwner = Result;
    if (Result->ComponentState().Contains(csInline)) FLookupRoot = Result;
    try {
      ReadData(Result);
    } catch (...) {
      FOwner = SaveOwner;
      FLookupRoot = SaveLookup;
      throw;
    }
    FOwner = SaveOwner;
    FLookupRoot = SaveLookup;
    if (Created || std::find(FLoaded.begin(), FLoaded.end(), Result) == FLoaded.end())
      FLoaded.push_back(Result);
  } catch (...) {
    if (Created) delete Result;
    throw;
  }
  return Result;
}

namespace {
// The component of the given name in Root's tree, nearest first.
TComponent* FindInTree(TComponent* Root, std::string_view Name) {
  std::vector<TComponent*> Level{Root};
  while (!Level.empty()) {
    std::vector<TComponent*> Next;
    for (TComponent* C : Level)
      for (int I = 0; I < C->ComponentCount(); ++I) {
        TComponent* Child = C->Components(I);
        if (SameText(Child->Name(), Name)) return Child;
        Next.push_back(Child);
      }
    Level.swap(Next);
  }
  return nullptr;
}
}  // namespace

void TReader::ResolveFixups() {
  std::vector<TFixup> Fixups = std::move(FFixups);
  FFixups.clear();
  for (const TFixup& F : Fixups) {
    // "Name", "Owner.Name" or "Owner" (the root itself).
    std::string_view Path = F.Name;
    TComponent* Cur = nullptr;
    size_t I = 0;
    bool First = true;
    while (I <= Path.size()) {
      size_t J = Path.find('.', I);
      if (J == std::string_view::npos) J = Path.size();
      std::string_view Seg = Path.substr(I, J - I);
      if (First) {
        if (SameText(Seg, "Owner")) Cur = FRoot;
        else Cur = FindInTree(FRoot, Seg);
        if (!Cur && FRoot && SameText(Seg, FRoot->Name())) Cur = FRoot;
        First = false;
      } else {
        Cur = Cur->FindComponent(Seg);
      }
      if (!Cur) break;
      I = J + 1;
    }
    // Unresolved names and components of another class leave the
    // property as it was.
    if (!Cur) continue;
    TClass Declared = F.PropInfo->PropType->Data.ClassType;
    if (Declared && !Cur->InheritsFrom(Declared)) continue;
    F.PropInfo->SetProc->SetObject(F.Instance, Cur);
  }
}

TComponent* TReader::ReadRootComponent(TComponent* Root) {
  ReadSignature();
  TFilerFlags Flags;
  int32_t ChildPos;
  ReadPrefix(Flags, ChildPos);
  const std::string ClassName = ReadStr();
  const std::string Name = ReadStr();
  TComponent* Result = Root;
  bool Created = false;
  if (!Result) {
    TClass C = FindComponentClass(ClassName);
    Result = static_cast<TComponent*>(C->CreateWith(nullptr));
    Created = true;
  }
  FLoaded.clear();
  FFixups.clear();
  FItemStack.clear();
  FDepth = 0;
  try {
    SetState(Result, csLoading, true);
    SetState(Result, csReading, true);
    Result->SetName(Name);
    FRoot = Result;
    FLookupRoot = Result;
    FOwner = Result;
    FLoaded.push_back(Result);
    {
      TDepthGuard G(FDepth);
      ReadData(Result);
    }
    ResolveFixups();
    SetState(Result, csReading, false);
    std::vector<TComponent*> Loaded = std::move(FLoaded);
    FLoaded.clear();
    for (TComponent* C : Loaded) C->Loaded();
  } catch (...) {
    FLoaded.clear();
    FFixups.clear();
    FItemStack.clear();
    if (Created) delete Result;
    else ClearLoadingState(Result);
    FRoot = FLookupRoot = FOwner = nullptr;
    throw;
  }
  return Result;
}

// ---------------------------------------------------------------------------
// Stream helpers

void WriteComponent(TStream* Stream, TComponent* Instance) {
  TWriter W(Stream);
  W.WriteRootComponent(Instance);
}

TComponent* ReadComponent(TStream* Stream, TComponent* Instance) {
  TReader R(Stream);
  TComponent* C = R.ReadRootComponent(Instance);
  R.FlushBuffer();
  return C;
}

}  // namespace vel
