#include "vel/StreamClasses.h"

#include <cmath>
#include <cstring>
#include <typeinfo>

#include "vel/rtl/SysUtils.h"

namespace vel {

using namespace streammsg;

namespace {

// Strings up to this length are read into a buffer without asking the
// stream for its size first; longer ones are checked against the bytes
// left so that a damaged length cannot make us allocate gigabytes.
constexpr int64_t TrustedStringLength = 64 * 1024;

bool IsTagOrName(const std::string& N) {
  auto Eq = [&](const char* U, size_t L) {
    if (N.size() != L) return false;
    for (size_t I = 0; I < L; ++I) {
      char C = N[I];
      if (C >= 'a' && C <= 'z') C = static_cast<char>(C - 32);
      if (C != U[I]) return false;
    }
    return true;
  };
  return Eq("TAG", 3) || Eq("NAME", 4);
}

// Class tests through class references: cheaper than dynamic_cast, which
// compares type names on this platform.
template <class T>
inline T* AsClass(TObject* Obj) {
  return (Obj && Obj->InheritsFrom(T::StaticClass())) ? static_cast<T*>(Obj) : nullptr;
}
template <class T>
inline bool IsClass(TObject* Obj) {
  return Obj && Obj->InheritsFrom(T::StaticClass());
}

bool IsDateTimeType(PTypeInfo T) {
  return T == TypeInfoDateTime() || (T->Name.size() == 9 && T->Name == "TDateTime");
}

bool IsBooleanEnum(PTypeInfo T) {
  return T->Data.BaseType == TypeInfoBoolean() ||
         (T->Data.BaseType && T->Data.BaseType->Name == "Boolean");
}

// Whether Info is a property of Obj's class (the usual case in the walk:
// the list came from that class), without a lookup by name.
bool IsPublishedOn(TObject* Obj, PPropInfo Info) {
  if (Obj && Info->Owner && Obj->InheritsFrom(Info->Owner)) return true;
  return IsPublishedProp(Obj, Info->Name);
}

}  // namespace

template <size_t Count>
inline void TCustomStreamer::ReadFixed(uint8_t* Buffer) {
  if (FExactBinary && FMemRead) {
    int64_t Avail;
    const uint8_t* P = FMemRead->PeekInline(Avail);
    if (Avail >= static_cast<int64_t>(Count)) {
      std::memcpy(Buffer, P, Count);
      FMemRead->SetPositionInline(FMemRead->PositionInline() + static_cast<int64_t>(Count));
      return;
    }
  }
  Read(Buffer, Count);
}

VEL_PUBLISHED(TCustomStreamer, prop("RootComponent", &TCustomStreamer::RootComponent),
              prop("StreamState", &TCustomStreamer::StreamState))
VEL_IMPLEMENT(TBinaryStreamer)

TCustomStreamer::TCustomStreamer(TStream* AStream) : FStream(AStream) {
  FStreamState = ssNone;
  CheckStream();
  FTypeKinds = DefaultStreamTypeKinds;
  const std::type_info& T = typeid(*FStream);
  if (T == typeid(TMemoryStream)) {
    FMemWrite = static_cast<TMemoryStream*>(FStream);
    FMemRead = FMemWrite;
  } else if (T == typeid(TReadOnlyMemoryStream)) {
    FMemRead = static_cast<TCustomMemoryStream*>(FStream);
  }
}

TCustomStreamer::~TCustomStreamer() = default;

void TCustomStreamer::CheckStream() {
  if (!FStream) throw EStreamPropError(SStreamNotValid);
  if (FStreamState == ssReading && FStream->GetSize() == 0) throw EStreamPropError(SEmptyStream);
}

// ---------------------------------------------------------------------------
// Creation of objects while reading

TObject* TCustomStreamer::CreateComponent(TObject* Parent, const std::string& ClassName) {
  TClass C = FindClass(ClassName);
  TComponent* Owner = dynamic_cast<TComponent*>(Parent);
  return C->CreateWith(Owner);
}

TObject* TCustomStreamer::CreateObject(TObject*, TClass Class) {
  return Class->Create();
}

TCollectionItem* TCustomStreamer::AddCollectionItem(TCollection* Collection) {
  return Collection->Add();
}

void TCustomStreamer::AddListItem(TObjectList* List, TObject* Item) {
  List->Add(Item);
}

// ---------------------------------------------------------------------------
// Save, load, create

void TCustomStreamer::InitStream(TObject* Root, TStreamState State) {
  FStreamState = State;
  FRootComponent = Root;
  CheckStream();
  FExactBinary = typeid(*this) == typeid(TBinaryStreamer);
}

void TCustomStreamer::TermStream() {
  FStreamState = ssNone;
}

void TCustomStreamer::SaveToStream(TObject* Obj) {
  InitStream(Obj, ssWriting);
  WriteSignature();
  if (RootCollectable())
    WriteRootCollectable();
  else
    WriteComponent(Obj);
  WriteClose();
  TermStream();
}

void TCustomStreamer::LoadFromStream(TObject* Obj) {
  InitStream(Obj, ssReading);
  ReadSignature();
  if (RootCollectable())
    ReadRootCollectable();
  else
    ReadComponent(Obj);
  ReadClose();
  TermStream();
}

TObject* TCustomStreamer::CreateFromStream() {
  InitStream(nullptr, ssReading);
  std::string Name = ReadSignature();
  TClass C = GetClass(Name);
  TObject* Root = nullptr;
  if (C && C->InheritsFrom(TComponent::StaticClass()))
    Root = CreateComponent(nullptr, Name);
  else if (C && C->InheritsFrom(TPersistent::StaticClass()))
    Root = CreateObject(nullptr, C);
  else
    throw EStreamPropError(SCannotCreateRoot);
  FRootComponent = Root;
  try {
    ReadComponent(Root);
    ReadClose();
  } catch (...) {
    // The root is not handed out on failure; free it so that nothing leaks.
    FRootComponent = nullptr;
    delete Root;
    throw;
  }
  TObject* Result = FRootComponent;
  TermStream();
  return Result;
}

bool TCustomStreamer::RootCollectable() const {
  return IsClass<TCollection>(FRootComponent) || IsClass<TStrings>(FRootComponent) ||
         IsClass<TObjectList>(FRootComponent);
}

void TCustomStreamer::WriteRootCollectable() {
  if (auto* C = AsClass<TCollection>(FRootComponent))
    WriteCollection(C, nullptr);
  else if (auto* L = AsClass<TObjectList>(FRootComponent))
    WriteComponentList(L, nullptr);
  else if (auto* S = AsClass<TStrings>(FRootComponent))
    WriteStrings(S, nullptr);
}

void TCustomStreamer::ReadRootCollectable() {
  if (auto* C = AsClass<TCollection>(FRootComponent))
    ReadCollection(C);
  else if (auto* L = AsClass<TObjectList>(FRootComponent))
    ReadComponentList(L);
  else if (auto* S = AsClass<TStrings>(FRootComponent))
    ReadStrings(S);
}

void TCustomStreamer::WriteSignature() {
  WriteString(FRootComponent ? FRootComponent->ClassName() : std::string());
}
std::string TCustomStreamer::ReadSignature() {
  return ReadString();
}
void TCustomStreamer::WriteClose() {}
void TCustomStreamer::ReadClose() {}

// ---------------------------------------------------------------------------
// The property walk, writing

void TCustomStreamer::WriteProperties(TObject* Obj) {
  WritePropListBegin(Obj);
  if (Obj) {
    for (PPropInfo P : GetSortedProps(Obj->ClassType()))
      if (FTypeKinds.Contains(P->Kind()) && CanWriteProp(Obj, P)) WriteProperty(Obj, P);
  }
  WritePropListEnd(Obj);
}

bool TCustomStreamer::CanWriteProp(TObject* Obj, PPropInfo PropInfo) {
  if (!IsPublishedOn(Obj, PropInfo) || !IsStoredProp(Obj, PropInfo)) return false;
  if (IsTagOrName(PropInfo->Name)) return false;
  return !IsDefaultPropValue(Obj, PropInfo);
}

void TCustomStreamer::WriteProperty(TObject* Obj, PPropInfo PropInfo) {
  WritePropName(Obj, PropInfo, PropInfo->Name);
  WriteBeforeProp();
  switch (PropInfo->Kind()) {
    case tkInteger:
    case tkChar:
    case tkWChar:
      WriteIntegerProp(Obj, PropInfo);
      break;
    case tkEnumeration:
      WriteEnumProp(Obj, PropInfo);
      break;
    case tkSet:
      WriteSetProp(Obj, PropInfo);
      break;
    case tkString:
    case tkLString:
    case tkWString:
      if (const std::string* S = PropInfo->GetProc->StrField(Obj))
        WriteString(*S);
      else
        WriteString(GetStrProp(Obj, PropInfo));
      break;
    case tkFloat:
      WriteFloatProp(Obj, PropInfo);
      break;
    case tkClass:
      WriteClassProp(GetObjectProp(Obj, PropInfo), PropInfo);
      break;
    case tkMethod:
      WriteMethod(GetMethodProp(Obj, PropInfo));
      break;
    case tkVariant:
      WriteVariant(GetVariantProp(Obj, PropInfo));
      break;
    case tkInt64:
      WriteInt64(GetInt64Prop(Obj, PropInfo));
      break;
    default:
      break;  // arrays, records, interfaces: the name only
  }
  WriteAfterProp(Obj, PropInfo);
}

void TCustomStreamer::WritePropName(TObject*, PPropInfo, const std::string& Name) {
  WriteString(Name);
}

void TCustomStreamer::WriteEnumProp(TObject* Obj, PPropInfo PropInfo) {
  int32_t V = GetOrdProp(Obj, PropInfo);
  if (IsBooleanEnum(PropInfo->PropType))
    WriteBoolean(V != 0);
  else
    WriteInteger(V);
}

void TCustomStreamer::WriteSetProp(TObject* Obj, PPropInfo PropInfo) {
  WriteInteger(GetOrdProp(Obj, PropInfo));
}

void TCustomStreamer::WriteIntegerProp(TObject* Obj, PPropInfo PropInfo) {
  WriteInteger(GetOrdProp(Obj, PropInfo));
}

void TCustomStreamer::WriteFloatProp(TObject* Obj, PPropInfo PropInfo) {
  Extended V = GetFloatProp(Obj, PropInfo);
  if (IsDateTimeType(PropInfo->PropType)) {
    WriteDateTime(TDateTime(static_cast<double>(V)));
    return;
  }
  switch (PropInfo->PropType->Data.FloatType) {
    case ftSingle:
      WriteSingle(static_cast<float>(V));
      break;
    case ftDouble:
      WriteDouble(static_cast<double>(V));
      break;
    case ftExtended:
      WriteFloat(V);
      break;
    case ftCurr: {
      // The currency argument is the value times 10000, rounded; its
      // scaled representation is what goes to the stream.
      Extended Scaled = std::nearbyintl(V * 10000.0L);
      Extended Wire = Scaled * 10000.0L;
      if (!(std::fabs(Wire) < 9.2233720368547758e18L))
        throw EInvalidOp("Invalid floating point operation");
      WriteCurrency(Currency::FromScaled(static_cast<int64_t>(Wire)));
      break;
    }
    case ftComp:
      break;  // the name has been written; a comp writes no value
  }
}

void TCustomStreamer::WriteClassName(TObject*, const std::string& Name) {
  WriteIdentKind(ikClass);
  WriteString(Name);
}

void TCustomStreamer::WriteClassProp(TObject* Obj, PPropInfo PropInfo) {
  if (auto* C = AsClass<TCollection>(Obj))
    WriteCollection(C, PropInfo);
  else if (auto* L = AsClass<TObjectList>(Obj))
    WriteComponentList(L, PropInfo);
  else if (auto* S = AsClass<TStrings>(Obj))
    WriteStrings(S, PropInfo);
  else
    WriteProperties(Obj);  // components, plain persistent objects and null
}

void TCustomStreamer::WriteAfterProp(TObject*, PPropInfo) {}

void TCustomStreamer::WritePropListBegin(TObject*) {
  WriteIdentKind(ikList);
  WriteIdent("<");
}

void TCustomStreamer::WritePropListEnd(TObject*) {
  WriteIdentKind(ikList);
  WriteIdent(">");
}

void TCustomStreamer::WriteListBegin(TObject* Obj, int32_t Count, PPropInfo) {
  WritePropListBegin(Obj);
  WriteIdentKind(ikCount);
  WriteInteger(Count);
}

void TCustomStreamer::WriteListEnd(TObject* Obj, PPropInfo) {
  WritePropListEnd(Obj);
}

void TCustomStreamer::WriteAfterListItem(TObject*, PPropInfo, int32_t) {}

void TCustomStreamer::WriteBeforeListItem(TObject* Obj, PPropInfo, int32_t Index) {
  if (auto* L = AsClass<TObjectList>(Obj)) {
    TObject* Item = L->Items(Index);
    WriteClassName(Item, Item ? Item->ClassName() : std::string());
  }
}

void TCustomStreamer::WriteCollection(TCollection* Collection, PPropInfo PropInfo) {
  int32_t Count = Collection->Count();
  WriteListBegin(Collection, Count, PropInfo);
  for (int32_t I = 0; I < Count; ++I) {
    WriteBeforeListItem(Collection, PropInfo, I);
    WriteProperties(Collection->Items(I));
    WriteAfterListItem(Collection, PropInfo, I);
  }
  WriteListEnd(Collection, PropInfo);
}

void TCustomStreamer::WriteComponentList(TObjectList* List, PPropInfo PropInfo) {
  int32_t Count = List->Count();
  WriteListBegin(List, Count, PropInfo);
  for (int32_t I = 0; I < Count; ++I) {
    WriteBeforeListItem(List, PropInfo, I);
    WriteComponent(List->Items(I));
    WriteAfterListItem(List, PropInfo, I);
  }
  WriteListEnd(List, PropInfo);
}

void TCustomStreamer::WriteStrings(TStrings* Strings, PPropInfo PropInfo) {
  int32_t Count = Strings->Count();
  WriteListBegin(Strings, Count, PropInfo);
  for (int32_t I = 0; I < Count; ++I) {
    // Every line but the last carries the "," separator, in every encoding.
    if (I < Count - 1)
      WriteString(Strings->Strings(I) + ",");
    else
      WriteString(Strings->Strings(I));
    TObject* Attached = Strings->Objects(I);
    if (!Attached) {
      WriteIdentKind(ikNil);
    } else if (IsClass<TPersistent>(Attached)) {
      WriteClassName(Strings, Attached->ClassName());
      WriteProperties(Attached);
    }
  }
  WriteListEnd(Strings, PropInfo);
}

// ---------------------------------------------------------------------------
// The property walk, reading

namespace {
bool SameName(const std::string& A, const std::string& B) {
  if (A.size() != B.size()) return false;
  for (size_t I = 0; I < A.size(); ++I) {
    unsigned char X = static_cast<unsigned char>(A[I]), Y = static_cast<unsigned char>(B[I]);
    if (X != Y && ((X | 0x20) != (Y | 0x20) || (X | 0x20) < 'a' || (X | 0x20) > 'z')) return false;
  }
  return true;
}
}  // namespace

void TCustomStreamer::ReadProperties(TObject* Obj) {
  if (!ReadPropListBegin()) throw EStreamPropError(SBeginOfListNotFound);
  // Streams list properties in name order: look for each name from the
  // last one found onwards before falling back to the lookup by name.
  std::span<const PPropInfo> Sorted =
      Obj ? GetSortedProps(Obj->ClassType()) : std::span<const PPropInfo>();
  size_t Hint = 0;
  while (!EndOfPropList()) {
    std::string Name = FExactBinary ? TCustomStreamer::ReadPropName() : ReadPropName();
    PPropInfo Info = nullptr;
    for (size_t K = Hint; K < Sorted.size(); ++K)
      if (SameName(Sorted[K]->Name, Name)) {
        Info = Sorted[K];
        Hint = K + 1;
        break;
      }
    if (!Info) Info = GetPropInfo(Obj, Name);
    if (!Info) {
      std::string Next = ReadPropName();
      throw EStreamPropError(Format(SUnknownPropInfo, {EscapeControlChars(Next)}));
    }
    if (FExactBinary) ReadPropertyBinary(Obj, Info);
    else ReadProperty(Obj, Info);
  }
}

bool TCustomStreamer::EndOfPropList() {
  if (FExactBinary && FMemRead) {
    // The end marker 02 00 01 ">" checked in place.
    int64_t Avail;
    const uint8_t* P = FMemRead->PeekInline(Avail);
    if (Avail >= 4 && P[0] == ikList && P[1] == ssString && P[2] == 1 && P[3] == '>') {
      FMemRead->SetPositionInline(FMemRead->PositionInline() + 4);
      return true;
    }
    if (Avail >= 1 && P[0] != ikList) return false;  // the marker cannot start here
  }
  int64_t Pos = FStream->GetPosition();
  if (ReadPropListEnd()) return true;
  FStream->Seek(Pos, soBeginning);
  return false;
}

std::string TCustomStreamer::ReadPropName() {
  return ReadString();
}

void TCustomStreamer::ReadProperty(TObject* Obj, PPropInfo PropInfo) {
  switch (PropInfo->Kind()) {
    case tkInteger:
    case tkChar:
    case tkWChar:
      SetOrdProp(Obj, PropInfo, ReadIntegerProp(Obj, PropInfo));
      break;
    case tkEnumeration:
      SetOrdProp(Obj, PropInfo, ReadEnumProp(Obj, PropInfo));
      break;
    case tkSet:
      SetOrdProp(Obj, PropInfo, ReadSetProp(Obj, PropInfo));
      break;
    case tkString:
    case tkLString:
    case tkWString:
      SetStrProp(Obj, PropInfo, ReadString());
      break;
    case tkFloat:
      SetFloatProp(Obj, PropInfo, ReadFloatProp(Obj, PropInfo));
      break;
    case tkClass:
      ReadClassProp(Obj, PropInfo);
      break;
    case tkMethod:
      SetMethodProp(Obj, PropInfo, ReadMethod());
      break;
    case tkVariant:
      SetVariantProp(Obj, PropInfo, ReadVariant());
      break;
    case tkInt64:
      SetInt64Prop(Obj, PropInfo, ReadInt64());
      break;
    default:
      break;
  }
}

void TCustomStreamer::ReadPropertyBinary(TObject* Obj, PPropInfo PropInfo) {
  const TPropAccess& A = *PropInfo->Access;
  switch (PropInfo->Kind()) {
    case tkInteger:
    case tkChar:
    case tkWChar:
    case tkSet:
      A.SetOrd(Obj, TCustomStreamer::ReadInteger());
      return;
    case tkEnumeration:
      if (IsBooleanEnum(PropInfo->PropType)) A.SetOrd(Obj, TCustomStreamer::ReadBoolean() ? 1 : 0);
      else A.SetOrd(Obj, TCustomStreamer::ReadInteger());
      return;
    case tkString:
    case tkLString:
    case tkWString:
      A.SetStr(Obj, TCustomStreamer::ReadString());
      return;
    case tkFloat:
      if (IsDateTimeType(PropInfo->PropType)) {
        A.SetFloat(Obj, TCustomStreamer::ReadDouble());
        return;
      }
      switch (PropInfo->PropType->Data.FloatType) {
        case ftSingle:
          A.SetFloat(Obj, TCustomStreamer::ReadSingle());
          return;
        case ftDouble:
          A.SetFloat(Obj, TCustomStreamer::ReadDouble());
          return;
        default:
          break;
      }
      break;
    default:
      break;
  }
  TCustomStreamer::ReadProperty(Obj, PropInfo);
}

int32_t TCustomStreamer::ReadIntegerProp(TObject*, PPropInfo) {
  return ReadInteger();
}
int32_t TCustomStreamer::ReadSetProp(TObject*, PPropInfo) {
  return ReadInteger();
}

int32_t TCustomStreamer::ReadEnumProp(TObject*, PPropInfo PropInfo) {
  if (IsBooleanEnum(PropInfo->PropType)) return ReadBoolean() ? 1 : 0;
  return ReadInteger();
}

Extended TCustomStreamer::ReadFloatProp(TObject*, PPropInfo PropInfo) {
  if (IsDateTimeType(PropInfo->PropType)) return ReadDateTime().Value;
  switch (PropInfo->PropType->Data.FloatType) {
    case ftSingle:
      return ReadSingle();
    case ftDouble:
      return ReadDouble();
    case ftExtended:
      return ReadFloat();
    case ftCurr:
      return static_cast<Extended>(ReadCurrency()) / 10000.0L;
    case ftComp:
      return 0;
  }
  return 0;
}

void TCustomStreamer::ReadClassProp(TObject* Obj, PPropInfo PropInfo) {
  TObject* Value = GetObjectProp(Obj, PropInfo);
  if (auto* C = AsClass<TCollection>(Value))
    ReadCollection(C);
  else if (auto* L = AsClass<TObjectList>(Value))
    ReadComponentList(L);
  else if (auto* S = AsClass<TStrings>(Value))
    ReadStrings(S);
  else
    ReadProperties(Value);
}

bool TCustomStreamer::ReadPropListBegin() {
  return ReadIdentKind() == ikList && ReadIdent() == "<";
}

bool TCustomStreamer::ReadPropListEnd() {
  return ReadIdentKind() == ikList && ReadIdent() == ">";
}

int32_t TCustomStreamer::ReadListBegin() {
  if (!ReadPropListBegin() || ReadIdentKind() != ikCount) return -1;
  return ReadInteger();
}

bool TCustomStreamer::ReadListEnd() {
  return ReadPropListEnd();
}

TObject* TCustomStreamer::ReadBeforeListItem(TObject* List, bool CreateItem) {
  if (!IsClass<TObjectList>(List)) return nullptr;
  std::string Name = ReadClassName();
  if (CreateItem) return CreateComponent(List, Name);
  return nullptr;
}

void TCustomStreamer::ReadAfterListItem(TObject*) {}

std::string TCustomStreamer::ReadClassName() {
  std::string Result = "Unknown";
  if (ReadIdentKind() != ikClass) throw EStreamPropError(SExpectingClassName);
  Result = ReadString();
  return Result;
}

bool TCustomStreamer::AtEnd() {
  if (FMemRead) {
    int64_t Avail;
    FMemRead->PeekInline(Avail);
    return Avail == 0;
  }
  return FStream->GetPosition() >= FStream->GetSize();
}

void TCustomStreamer::ReadCollection(TCollection* Collection) {
  int32_t Count = ReadListBegin();
  if (Count < 0) throw EStreamPropError(Format(SFailedToReadCount, {Collection->ClassName()}));
  for (int32_t I = 0; I < Count; ++I) {
    if (AtEnd()) throw EStreamPropError(SEndOfListNotFound);
    TCollectionItem* Item = AddCollectionItem(Collection);
    ReadBeforeListItem(Item, false);
    ReadProperties(Item);
    ReadAfterListItem(Item);
  }
  if (!ReadListEnd()) throw EStreamPropError(SEndOfListNotFound);
}

void TCustomStreamer::ReadComponentList(TObjectList* List) {
  int32_t Count = ReadListBegin();
  if (Count < 0) throw EStreamPropError(Format(SFailedToReadCount, {List->ClassName()}));
  for (int32_t I = 0; I < Count; ++I) {
    if (AtEnd()) throw EStreamPropError(SEndOfListNotFound);
    TObject* Obj = ReadBeforeListItem(List, true);
    try {
      ReadComponent(Obj);
    } catch (...) {
      // Not yet in the list: nobody else would free it.
      delete Obj;
      throw;
    }
    AddListItem(List, Obj);
    ReadAfterListItem(Obj);
  }
  if (!ReadListEnd()) throw EStreamPropError(SEndOfListNotFound);
}

void TCustomStreamer::ReadStrings(TStrings* Strings) {
  int32_t Count = ReadListBegin();
  if (Count < 0) throw EStreamPropError(Format(SFailedToReadCount, {Strings->ClassName()}));
  for (int32_t I = 0; I < Count; ++I) {
    if (AtEnd()) throw EStreamPropError(SEndOfListNotFound);
    std::string S = ReadString();
    TIdentKind Kind = ReadIdentKind();
    if (Kind != ikClass) {
      Strings->Add(S);
      continue;
    }
    std::string Name = ReadString();
    TClass C = GetClass(Name);
    TObject* Obj;
    if (C && C->InheritsFrom(TComponent::StaticClass()))
      Obj = CreateComponent(nullptr, Name);
    else if (C)
      Obj = CreateObject(nullptr, C);
    else
      Obj = CreateComponent(nullptr, Name);  // raises the runtime's class-not-found error
    // The attached object's properties are not read back (they stay in
    // the stream, where the next read trips over them). The string list
    // does not own it; the caller does.
    Strings->AddObject(S, Obj);
  }
  if (!ReadListEnd()) throw EStreamPropError(SEndOfListNotFound);
}

// ---------------------------------------------------------------------------
// Methods and variants

void TCustomStreamer::WriteMethod(const TMethod& Value) {
  std::string Name = FRootComponent ? FRootComponent->MethodName(Value.Code) : std::string();
  WriteString(Name);
}

TMethod TCustomStreamer::ReadMethod() {
  std::string Name = ReadString();
  TMethod M;
  M.Code = FRootComponent ? FRootComponent->MethodAddress(Name) : nullptr;
  return M;
}

void TCustomStreamer::WriteVariant(const Variant& Value) {
  if (VarIsArray(Value)) throw EStreamPropError(SArrayNotSupported);
  uint16_t Code = VarType(Value);
  WriteInteger(Code);
  switch (Code) {
    case varSmallint:
    case varInteger:
    case varByte:
    case varBoolean:
      WriteInteger(Value.AsInteger());
      break;
    case varSingle:
      WriteSingle(static_cast<float>(Value.AsDouble()));
      break;
    case varDouble:
      WriteDouble(Value.AsDouble());
      break;
    case varCurrency:
      WriteCurrency(Value.AsCurrency());
      break;
    case varDate:
      WriteDateTime(Value.AsDateTime());
      break;
    case varOleStr:
    case varString:
      WriteString(Value.AsString());
      break;
    default:
      WriteString(VarToStr(Value));
      break;
  }
}

Variant TCustomStreamer::ReadVariant() {
  int32_t Code = ReadInteger();
  switch (Code) {
    case varSmallint:
      return Variant(static_cast<int16_t>(ReadInteger()));
    case varInteger:
      return Variant(ReadInteger());
    case varByte:
      return Variant(static_cast<uint8_t>(ReadInteger()));
    case varBoolean:
      return Variant(ReadInteger() != 0);
    case varSingle:
      return Variant(ReadSingle());
    case varDouble:
      return Variant(ReadDouble());
    case varCurrency:
      return Variant(ReadCurrency());
    case varDate:
      return Variant(ReadDateTime());
    case varOleStr:
      return Variant(Cp1252ToWide(ReadString()));
    case varString:
      return Variant(ReadString());
    default: {
      std::string S = ReadString();
      if (Code == varEmpty) return Variant();
      if (Code == varNull) return Variant::Null();
      // Other types travel as text; convert back to the written type.
      if (Code < 0 || Code > 0xFFFF) throw EVariantError("Invalid variant type");
      return VarAsType(Variant(std::move(S)), static_cast<uint16_t>(Code));
    }
  }
}

// ---------------------------------------------------------------------------
// Primitives of the binary encoding

void TCustomStreamer::Write(const void* Buffer, int64_t Count) {
  if (FMemWrite) {
    if (FMemWrite->WriteInline(Buffer, Count) != Count) throw EWriteError(SWriteError);
    return;
  }
  FStream->WriteBuffer(Buffer, Count);
}

void TCustomStreamer::Read(void* Buffer, int64_t Count) {
  // Passes straight to the stream, as the walk expects: past the end the
  // bytes read as zeros, so a truncated stream fails on the next marker or
  // name it looks for instead of on the read itself.
  int64_t Got = FMemRead ? FMemRead->ReadInline(Buffer, Count) : FStream->Read(Buffer, Count);
  if (Got < 0) Got = 0;
  if (Got < Count)
    std::memset(static_cast<char*>(Buffer) + Got, 0, static_cast<size_t>(Count - Got));
}

void TCustomStreamer::WriteIdentKind(TIdentKind Value) {
  uint8_t B = Value;
  Write(&B, 1);
}

TIdentKind TCustomStreamer::ReadIdentKind() {
  uint8_t B;
  ReadFixed<1>(&B);
  return static_cast<TIdentKind>(B);
}

void TCustomStreamer::WriteIdent(const std::string& Value) {
  WriteString(Value);
}
std::string TCustomStreamer::ReadIdent() {
  return ReadString();
}

void TCustomStreamer::WriteInteger(int32_t Value) {
  uint8_t B[5];
  if (Value >= -128 && Value <= 127) {
    B[0] = isInt8;
    B[1] = static_cast<uint8_t>(Value);
    Write(B, 2);
  } else if (Value >= -32768 && Value <= 32767) {
    B[0] = isInt16;
    B[1] = static_cast<uint8_t>(Value);
    B[2] = static_cast<uint8_t>(Value >> 8);
    Write(B, 3);
  } else {
    uint32_t U = static_cast<uint32_t>(Value);
    B[0] = isInt32;
    B[1] = static_cast<uint8_t>(U);
    B[2] = static_cast<uint8_t>(U >> 8);
    B[3] = static_cast<uint8_t>(U >> 16);
    B[4] = static_cast<uint8_t>(U >> 24);
    Write(B, 5);
  }
}

int32_t TCustomStreamer::ReadInteger() {
  uint8_t Tag;
  ReadFixed<1>(&Tag);
  uint8_t B[4];
  switch (Tag) {
    case isInt8:
      ReadFixed<1>(B);
      return static_cast<int8_t>(B[0]);
    case isInt16:
      ReadFixed<2>(B);
      return static_cast<int16_t>(static_cast<uint16_t>(B[0] | (B[1] << 8)));
    case isInt32:
      ReadFixed<4>(B);
      return static_cast<int32_t>(static_cast<uint32_t>(B[0]) | (static_cast<uint32_t>(B[1]) << 8) |
                                  (static_cast<uint32_t>(B[2]) << 16) |
                                  (static_cast<uint32_t>(B[3]) << 24));
    default:
      throw EStreamPropError(SIntegerOutOfBounds);
  }
}

void TCustomStreamer::WriteBoolean(bool Value) {
  uint8_t B = Value ? 1 : 0;
  Write(&B, 1);
}

bool TCustomStreamer::ReadBoolean() {
  // Only the low 7 bits of the byte count, as when the runtime masks the
  // ordinal it reads for a Boolean property.
  uint8_t B;
  ReadFixed<1>(&B);
  return (B & 0x7F) != 0;
}

void TCustomStreamer::WriteString(const std::string& Value) {
  size_t L = Value.size();
  if (L <= 255) {
    // Tag, length and characters in one write.
    uint8_t Buf[2 + 255];
    Buf[0] = ssString;
    Buf[1] = static_cast<uint8_t>(L);
    std::memcpy(Buf + 2, Value.data(), L);
    Write(Buf, static_cast<int64_t>(L + 2));
    return;
  }
  if (L > INT32_MAX) throw EStreamPropError(SStringOutOfBounds);
  uint32_t U = static_cast<uint32_t>(L);
  uint8_t Head[5] = {ssLString, static_cast<uint8_t>(U), static_cast<uint8_t>(U >> 8),
                     static_cast<uint8_t>(U >> 16), static_cast<uint8_t>(U >> 24)};
  Write(Head, 5);
  Write(Value.data(), static_cast<int64_t>(L));
}

std::string TCustomStreamer::ReadString() {
  if (FExactBinary && FMemRead) {
    // A short string taken straight from the buffer.
    int64_t Avail;
    const uint8_t* P = FMemRead->PeekInline(Avail);
    if (Avail >= 2 && P[0] == ssString && Avail >= 2 + static_cast<int64_t>(P[1])) {
      size_t Len = P[1];
      FMemRead->SetPositionInline(FMemRead->PositionInline() + 2 + static_cast<int64_t>(Len));
      std::string S;
      if (Len < 16 && Avail >= 18 && S.capacity() >= 15) {
        // Short names and values: one fixed 16-byte copy into the string's
        // own buffer beats a variable-length copy; the terminator is put
        // back after it.
        S.resize(Len);
        std::memcpy(S.data(), P + 2, 16);
        S.data()[Len] = '\0';
        return S;
      }
      S.assign(reinterpret_cast<const char*>(P + 2), Len);
      return S;
    }
  }
  // The size tag and the first length byte in one read.
  uint8_t Head[2];
  ReadFixed<2>(Head);
  uint8_t Tag = Head[0];
  int64_t Len;
  if (Tag == ssString) {
    Len = Head[1];
  } else if (Tag == ssLString) {
    uint8_t B[4];
    B[0] = Head[1];
    ReadFixed<3>(B + 1);
    Len = static_cast<int32_t>(static_cast<uint32_t>(B[0]) | (static_cast<uint32_t>(B[1]) << 8) |
                               (static_cast<uint32_t>(B[2]) << 16) |
                               (static_cast<uint32_t>(B[3]) << 24));
    if (Len < 0) throw EReadError(SReadError);
    if (Len > TrustedStringLength && Len > FStream->GetSize() - FStream->GetPosition())
      throw EReadError(SReadError);
  } else {
    throw EStreamPropError(SStringOutOfBounds);
  }
  std::string S(static_cast<size_t>(Len), '\0');
  if (Len) Read(S.data(), Len);
  return S;
}

void TCustomStreamer::WriteFloat(Extended Value) {
  uint8_t B[10];
  ExtendedToBytes(Value, B);
  Write(B, 10);
}

Extended TCustomStreamer::ReadFloat() {
  uint8_t B[10];
  ReadFixed<10>(B);
  return BytesToExtended(B);
}

void TCustomStreamer::WriteSingle(float Value) {
  uint32_t U;
  std::memcpy(&U, &Value, 4);
  uint8_t B[4] = {static_cast<uint8_t>(U), static_cast<uint8_t>(U >> 8),
                  static_cast<uint8_t>(U >> 16), static_cast<uint8_t>(U >> 24)};
  Write(B, 4);
}

float TCustomStreamer::ReadSingle() {
  uint8_t B[4];
  ReadFixed<4>(B);
  uint32_t U = static_cast<uint32_t>(B[0]) | (static_cast<uint32_t>(B[1]) << 8) |
               (static_cast<uint32_t>(B[2]) << 16) | (static_cast<uint32_t>(B[3]) << 24);
  float F;
  std::memcpy(&F, &U, 4);
  return F;
}

namespace {
void PutU64(uint8_t* B, uint64_t U) {
  for (int I = 0; I < 8; ++I) B[I] = static_cast<uint8_t>(U >> (8 * I));
}
uint64_t GetU64(const uint8_t* B) {
  uint64_t U = 0;
  for (int I = 7; I >= 0; --I) U = (U << 8) | B[I];
  return U;
}
}  // namespace

void TCustomStreamer::WriteDouble(double Value) {
  uint64_t U;
  std::memcpy(&U, &Value, 8);
  uint8_t B[8];
  PutU64(B, U);
  Write(B, 8);
}

double TCustomStreamer::ReadDouble() {
  uint8_t B[8];
  ReadFixed<8>(B);
  uint64_t U = GetU64(B);
  double D;
  std::memcpy(&D, &U, 8);
  return D;
}

void TCustomStreamer::WriteCurrency(Currency Value) {
  WriteInt64(Value.Value);
}
Currency TCustomStreamer::ReadCurrency() {
  return Currency::FromScaled(ReadInt64());
}
void TCustomStreamer::WriteDateTime(TDateTime Value) {
  WriteDouble(Value.Value);
}
TDateTime TCustomStreamer::ReadDateTime() {
  return TDateTime(ReadDouble());
}

void TCustomStreamer::WriteInt64(int64_t Value) {
  uint8_t B[8];
  PutU64(B, static_cast<uint64_t>(Value));
  Write(B, 8);
}

int64_t TCustomStreamer::ReadInt64() {
  uint8_t B[8];
  ReadFixed<8>(B);
  return static_cast<int64_t>(GetU64(B));
}

// ---------------------------------------------------------------------------
// Conversion functions

void DeepCopy(TObject* Target, TObject* Source) {
  TMemoryStream Stream;
  TBinaryStreamer(&Stream).SaveToStream(Source);
  Stream.SetPosition(0);
  TBinaryStreamer(&Stream).LoadFromStream(Target);
}

Variant ObjectToVariant(TObject* Obj) {
  if (IsClass<TComponentList>(Obj)) return Variant();
  TMemoryStream Stream;
  TBinaryStreamer(&Stream).SaveToStream(Obj);
  return VarArrayFromBytes(Stream.Memory(), static_cast<size_t>(Stream.GetSize()));
}

TObject* VariantToObject(const Variant& V, TObject* Obj) {
  if (IsClass<TComponentList>(Obj)) return nullptr;
  TMemoryStream Stream;
  int32_t High = VarArrayHighBound(V, 1);
  if (High >= 0) {
    Variant Copy = V;
    const void* Data = VarArrayLock(Copy);
    try {
      Stream.WriteBuffer(Data, static_cast<int64_t>(High) + 1);
    } catch (...) {
      VarArrayUnlock(Copy);
      throw;
    }
    VarArrayUnlock(Copy);
  }
  Stream.SetPosition(0);
  TBinaryStreamer Streamer(&Stream);
  if (Obj) {
    Streamer.LoadFromStream(Obj);
    return Obj;
  }
  return Streamer.CreateFromStream();
}

void ObjectToStream(TObject* Obj, TStream* Stream) {
  TBinaryStreamer(Stream).SaveToStream(Obj);
}

void StreamToObject(TObject* Obj, TStream* Stream) {
  TBinaryStreamer(Stream).LoadFromStream(Obj);
}

bool ComponentListsEqual(TComponentList* A, TComponentList* B) {
  if (!A || !B || A->ClassType() != B->ClassType()) return false;
  if (A->Count() != B->Count() || A->Count() < 1) return false;
  for (int I = 0; I < A->Count(); ++I) {
    TObject* X = A->Items(I);
    TObject* Y = B->Items(I);
    if (!X || !Y) {
      if (X != Y) return false;
      continue;
    }
    if (X->ClassType() != Y->ClassType()) return false;
  }
  TMemoryStream SA, SB;
  TBinaryStreamer(&SA).WriteComponentList(A);
  TBinaryStreamer(&SB).WriteComponentList(B);
  return SA.GetSize() == SB.GetSize() &&
         std::memcmp(SA.Memory(), SB.Memory(), static_cast<size_t>(SA.GetSize())) == 0;
}

}  // namespace vel
