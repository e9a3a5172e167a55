#include "vel/rtl/TypInfo.h"

#include <algorithm>
#include <shared_mutex>

#include "vel/rtl/Streams.h"
#include "vel/rtl/SysUtils.h"

namespace vel {

namespace {

// Messages of the property-access layer.
constexpr const char* SUnknownProperty = "Property %s does not exist";
constexpr const char* SInvalidPropertyType = "Invalid property type: %s";
constexpr const char* SReadOnlyProperty = "Property is read-only";
constexpr const char* SInvalidPropertyElement = "Invalid property element: %s";
constexpr const char* SClassNotFound = "Class %s not found";
constexpr const char* SDuplicateClass = "A class named %s already exists";

inline unsigned char Up(unsigned char C) { return (C >= 'a' && C <= 'z') ? C - 32 : C; }

// Name order of property lists: letter case ignored, then byte order so
// that the order is total.
bool NameLess(const PPropInfo A, const PPropInfo B) {
  const std::string& X = A->Name;
  const std::string& Y = B->Name;
  size_t N = std::min(X.size(), Y.size());
  for (size_t I = 0; I < N; ++I) {
    unsigned char P = Up(static_cast<unsigned char>(X[I]));
    unsigned char Q = Up(static_cast<unsigned char>(Y[I]));
    if (P != Q) return P < Q;
  }
  if (X.size() != Y.size()) return X.size() < Y.size();
  return X < Y;
}

TTypeInfo* NewType(TTypeKind Kind, std::string Name) {
  auto* T = new TTypeInfo;
  T->Kind = Kind;
  T->Name = std::move(Name);
  return T;
}

TTypeInfo* NewOrdinal(TTypeKind Kind, const char* Name, TOrdType Ord, int32_t Min, int32_t Max) {
  TTypeInfo* T = NewType(Kind, Name);
  T->Data.OrdType = Ord;
  T->Data.MinValue = Min;
  T->Data.MaxValue = Max;
  return T;
}

TTypeInfo* NewFloat(const char* Name, TFloatType F) {
  TTypeInfo* T = NewType(tkFloat, Name);
  T->Data.FloatType = F;
  return T;
}

PPropInfo Require(const TObject* Obj, std::string_view Name) {
  PPropInfo P = GetPropInfo(Obj, Name);
  if (!P) throw EPropertyError(Format(SUnknownProperty, {EscapeControlChars(Name)}));
  return P;
}

}  // namespace

// ---------------------------------------------------------------------------
// Accessors

TPropAccess::~TPropAccess() = default;
TStoredAccess::~TStoredAccess() = default;

void TPropAccess::Unsupported() const {
  std::string Type = (Info && Info->PropType) ? Info->PropType->Name : std::string("?");
  throw EPropertyError(Format(SInvalidPropertyType, {Type}));
}
void TPropAccess::ReadOnly() const { throw EPropertyError(SReadOnlyProperty); }

int32_t TPropAccess::GetOrd(const TObject*) const { Unsupported(); }
void TPropAccess::SetOrd(TObject*, int32_t) const { Unsupported(); }
int64_t TPropAccess::GetInt64(const TObject*) const { Unsupported(); }
void TPropAccess::SetInt64(TObject*, int64_t) const { Unsupported(); }
Extended TPropAccess::GetFloat(const TObject*) const { Unsupported(); }
void TPropAccess::SetFloat(TObject*, Extended) const { Unsupported(); }
int64_t TPropAccess::GetCurrency(const TObject* Obj) const {
  return static_cast<int64_t>(std::llrintl(GetFloat(Obj) * 10000.0L));
}
void TPropAccess::SetCurrency(TObject* Obj, int64_t Scaled) const {
  SetFloat(Obj, static_cast<Extended>(Scaled) / 10000.0L);
}
std::string TPropAccess::GetStr(const TObject*) const { Unsupported(); }
void TPropAccess::SetStr(TObject*, const std::string&) const { Unsupported(); }
std::u16string TPropAccess::GetWStr(const TObject*) const { Unsupported(); }
void TPropAccess::SetWStr(TObject*, const std::u16string&) const { Unsupported(); }
Variant TPropAccess::GetVariant(const TObject*) const { Unsupported(); }
void TPropAccess::SetVariant(TObject*, const Variant&) const { Unsupported(); }
TObject* TPropAccess::GetObject(const TObject*) const { Unsupported(); }
void TPropAccess::SetObject(TObject*, TObject*) const { Unsupported(); }
TMethod TPropAccess::GetMethod(const TObject*) const { Unsupported(); }
void TPropAccess::SetMethod(TObject*, const TMethod&) const { Unsupported(); }
const std::string* TPropAccess::StrField(const TObject*) const { return nullptr; }

namespace detail {
std::string WideToAnsi(const std::u16string& S) { return WideToCp1252(S); }
std::u16string AnsiToWide(const std::string& S) { return Cp1252ToWide(S); }
}  // namespace detail

size_t TClassRtti::CIHash::operator()(std::string_view S) const noexcept {
  size_t H = 14695981039346656037ull;
  for (char C : S) H = (H ^ Up(static_cast<unsigned char>(C))) * 1099511628211ull;
  return H;
}

bool TClassRtti::CIEqual::operator()(std::string_view A, std::string_view B) const noexcept {
  if (A.size() != B.size()) return false;
  for (size_t I = 0; I < A.size(); ++I)
    if (Up(static_cast<unsigned char>(A[I])) != Up(static_cast<unsigned char>(B[I]))) return false;
  return true;
}

// ---------------------------------------------------------------------------
// Predefined types

PTypeInfo TypeInfoBoolean() {
  static const PTypeInfo T = [] {
    TTypeInfo* B = NewOrdinal(tkEnumeration, "Boolean", otUByte, 0, 1);
    B->Data.BaseType = B;
    B->Data.NameList = {"False", "True"};
    return B;
  }();
  return T;
}
PTypeInfo TypeInfoInteger() {
  static const PTypeInfo T = NewOrdinal(tkInteger, "Integer", otSLong, INT32_MIN, INT32_MAX);
  return T;
}
PTypeInfo TypeInfoShortInt() {
  static const PTypeInfo T = NewOrdinal(tkInteger, "ShortInt", otSByte, -128, 127);
  return T;
}
PTypeInfo TypeInfoByte() {
  static const PTypeInfo T = NewOrdinal(tkInteger, "Byte", otUByte, 0, 255);
  return T;
}
PTypeInfo TypeInfoSmallInt() {
  static const PTypeInfo T = NewOrdinal(tkInteger, "SmallInt", otSWord, -32768, 32767);
  return T;
}
PTypeInfo TypeInfoWord() {
  static const PTypeInfo T = NewOrdinal(tkInteger, "Word", otUWord, 0, 65535);
  return T;
}
PTypeInfo TypeInfoCardinal() {
  static const PTypeInfo T = NewOrdinal(tkInteger, "Cardinal", otULong, 0, -1);
  return T;
}
PTypeInfo TypeInfoChar() {
  static const PTypeInfo T = NewOrdinal(tkChar, "Char", otUByte, 0, 255);
  return T;
}
PTypeInfo TypeInfoWideChar() {
  static const PTypeInfo T = NewOrdinal(tkWChar, "WideChar", otUWord, 0, 65535);
  return T;
}
PTypeInfo TypeInfoInt64() {
  static const PTypeInfo T = [] {
    TTypeInfo* I = NewType(tkInt64, "Int64");
    I->Data.MinInt64Value = INT64_MIN;
    I->Data.MaxInt64Value = INT64_MAX;
    return I;
  }();
  return T;
}
PTypeInfo TypeInfoSingle() {
  static const PTypeInfo T = NewFloat("Single", ftSingle);
  return T;
}
PTypeInfo TypeInfoDouble() {
  static const PTypeInfo T = NewFloat("Double", ftDouble);
  return T;
}
PTypeInfo TypeInfoExtended() {
  static const PTypeInfo T = NewFloat("Extended", ftExtended);
  return T;
}
PTypeInfo TypeInfoCurrency() {
  static const PTypeInfo T = NewFloat("Currency", ftCurr);
  return T;
}
PTypeInfo TypeInfoComp() {
  static const PTypeInfo T = NewFloat("Comp", ftComp);
  return T;
}
PTypeInfo TypeInfoDateTime() {
  static const PTypeInfo T = NewFloat("TDateTime", ftDouble);
  return T;
}
PTypeInfo TypeInfoShortString() {
  static const PTypeInfo T = NewType(tkString, "ShortString");
  return T;
}
PTypeInfo TypeInfoAnsiString() {
  static const PTypeInfo T = NewType(tkLString, "AnsiString");
  return T;
}
PTypeInfo TypeInfoWideString() {
  static const PTypeInfo T = NewType(tkWString, "WideString");
  return T;
}
PTypeInfo TypeInfoVariant() {
  static const PTypeInfo T = NewType(tkVariant, "Variant");
  return T;
}

PTypeInfo MakeEnumTypeInfo(const char* Name, std::initializer_list<const char*> Names) {
  TTypeInfo* T = NewType(tkEnumeration, Name);
  T->Data.OrdType = Names.size() <= 256 ? otUByte : otUWord;
  T->Data.MinValue = 0;
  T->Data.MaxValue = static_cast<int32_t>(Names.size()) - 1;
  T->Data.BaseType = T;
  for (const char* N : Names) T->Data.NameList.emplace_back(N);
  return T;
}

PTypeInfo MakeSetTypeInfo(std::string Name, PTypeInfo Element) {
  TTypeInfo* T = NewType(tkSet, std::move(Name));
  T->Data.OrdType = otULong;
  T->Data.CompType = Element;
  return T;
}

PTypeInfo MakeAliasTypeInfo(const char* Name, PTypeInfo Base) {
  TTypeInfo* T = NewType(Base->Kind, Name);
  T->Data = Base->Data;
  if (Base->Kind == tkEnumeration && Base->Data.BaseType == Base && Base != TypeInfoBoolean())
    T->Data.BaseType = Base;
  return T;
}

PTypeInfo MakeMethodTypeInfo(const char* Name) { return NewType(tkMethod, Name); }

// ---------------------------------------------------------------------------
// Class building

namespace detail {

std::recursive_mutex& ClassBuildLock() {
  static std::recursive_mutex M;
  return M;
}

const char* ShortClassName(const char* QualifiedName) {
  const char* Last = QualifiedName;
  for (const char* P = QualifiedName; *P; ++P)
    if (P[0] == ':' && P[1] == ':') Last = P + 2;
  return Last;
}

TClassBuilder::TClassBuilder(TMetaClass* Meta, bool Published) : FMeta(Meta), FPublished(Published) {
  TTypeInfo* T = NewType(tkClass, Meta->Name);
  T->Data.ClassType = Meta;
  T->Data.ParentInfo = Meta->Parent ? Meta->Parent->TypeInfo : nullptr;
  Meta->TypeInfo = T;
  Meta->Rtti = new TClassRtti;
  Meta->HasRtti = Published || (Meta->Parent && Meta->Parent->HasRtti);
}

void TClassBuilder::AddProperty(std::unique_ptr<TPropInfo> Info) {
  Info->Owner = FMeta;
  Info->Access->Info = Info.get();
  FMeta->Rtti->Own.push_back(std::move(Info));
  FMeta->HasRtti = true;
}

void TClassBuilder::AddMethod(const char* Name, void* Code) {
  FMeta->Methods.push_back(TPublishedMethod{Name, Code});
}

void TClassBuilder::AddHandler(uint32_t Msg, void (*Call)(TObject*, void*)) {
  auto& H = FMeta->Handlers;
  auto It = std::lower_bound(H.begin(), H.end(), Msg,
                             [](const TMessageHandler& E, uint32_t M) { return E.Msg < M; });
  if (It != H.end() && It->Msg == Msg) It->Call = Call;
  else H.insert(It, TMessageHandler{Msg, Call});
}

TMetaClass* TClassBuilder::Finish() {
  TClassRtti* R = FMeta->Rtti;
  if (FMeta->Parent && FMeta->Parent->Rtti) R->Props = FMeta->Parent->Rtti->Props;
  TClassRtti::CIEqual Eq;
  for (auto& Own : R->Own) {
    auto Same = std::find_if(R->Props.begin(), R->Props.end(),
                             [&](PPropInfo P) { return Eq(P->Name, Own->Name); });
    if (Same != R->Props.end()) {
      Own->NameIndex = (*Same)->NameIndex;
      *Same = Own.get();
    } else {
      Own->NameIndex = static_cast<int16_t>(R->Props.size());
      R->Props.push_back(Own.get());
    }
  }
  R->Sorted = R->Props;
  std::sort(R->Sorted.begin(), R->Sorted.end(), NameLess);
  R->ByName.reserve(R->Props.size());
  for (PPropInfo P : R->Props) R->ByName.emplace(std::string_view(P->Name), P);
  FMeta->TypeInfo->Data.PropCount = static_cast<int16_t>(R->Props.size());
  (void)FPublished;
  return FMeta;
}

}  // namespace detail

// ---------------------------------------------------------------------------
// Lookup

PPropInfo GetPropInfo(TClass Class, std::string_view PropName, TTypeKinds Kinds) {
  if (!Class || !Class->Rtti) return nullptr;
  const auto& Map = Class->Rtti->ByName;
  auto It = Map.find(PropName);
  if (It == Map.end()) return nullptr;
  if (!Kinds.Empty() && !Kinds.Contains(It->second->Kind())) return nullptr;
  return It->second;
}

PPropInfo GetPropInfo(PTypeInfo TypeInfo, std::string_view PropName, TTypeKinds Kinds) {
  if (!TypeInfo || TypeInfo->Kind != tkClass) return nullptr;
  return GetPropInfo(TypeInfo->Data.ClassType, PropName, Kinds);
}

PPropInfo GetPropInfo(const TObject* Obj, std::string_view PropName, TTypeKinds Kinds) {
  if (!Obj) return nullptr;
  return GetPropInfo(Obj->ClassType(), PropName, Kinds);
}

int GetPropList(PTypeInfo TypeInfo, TTypeKinds Kinds, PPropList List, bool SortList) {
  if (!TypeInfo || TypeInfo->Kind != tkClass) return 0;
  TClass C = TypeInfo->Data.ClassType;
  if (!C || !C->Rtti) return 0;
  const auto& Src = SortList ? C->Rtti->Sorted : C->Rtti->Props;
  int N = 0;
  for (PPropInfo P : Src)
    if (Kinds.Contains(P->Kind())) {
      if (List) List[N] = P;
      ++N;
    }
  return N;
}

std::vector<PPropInfo> GetPropList(PTypeInfo TypeInfo, TTypeKinds Kinds, bool SortList) {
  std::vector<PPropInfo> V(TypeInfo && TypeInfo->Kind == tkClass ? TypeInfo->Data.PropCount : 0);
  V.resize(GetPropList(TypeInfo, Kinds, V.data(), SortList));
  return V;
}

std::span<const PPropInfo> GetSortedProps(TClass Class) {
  if (!Class || !Class->Rtti) return {};
  return Class->Rtti->Sorted;
}

bool IsPublishedProp(TClass Class, std::string_view PropName) {
  return GetPropInfo(Class, PropName) != nullptr;
}
bool IsPublishedProp(const TObject* Obj, std::string_view PropName) {
  return GetPropInfo(Obj, PropName) != nullptr;
}

bool IsStoredProp(const TObject* Obj, PPropInfo Info) {
  const TStoredProc& S = Info->StoredProc;
  switch (S.Kind) {
    case skConstant:
      return S.Constant;
    case skField:
    case skMethod:
      return S.Access ? S.Access->IsStored(Obj) : true;
  }
  return true;
}
bool IsStoredProp(const TObject* Obj, std::string_view PropName) {
  return IsStoredProp(Obj, Require(Obj, PropName));
}

bool IsDefaultPropValue(const TObject* Obj, PPropInfo Info) {
  switch (Info->Kind()) {
    case tkInteger:
    case tkEnumeration:
      return Info->GetProc->GetOrd(Obj) == Info->Default;
    case tkFloat:
      return Info->GetProc->GetFloat(Obj) == 0.0L;
    case tkString:
    case tkLString:
      if (const std::string* S = Info->GetProc->StrField(Obj)) return S->empty();
      return Info->GetProc->GetStr(Obj).empty();
    case tkInt64:
      return Info->GetProc->GetInt64(Obj) == 0;
    case tkVariant:
      return VarIsEmpty(Info->GetProc->GetVariant(Obj));
    default:
      return false;
  }
}

// ---------------------------------------------------------------------------
// Accessors by property information and by name

namespace {
inline const TPropAccess& Reader(PPropInfo Info) {
  if (!Info) throw EPropertyError(Format(SUnknownProperty, {std::string()}));
  return *Info->Access;
}
}  // namespace

int32_t GetOrdProp(const TObject* Obj, PPropInfo Info) { return Reader(Info).GetOrd(Obj); }
void SetOrdProp(TObject* Obj, PPropInfo Info, int32_t Value) { Reader(Info).SetOrd(Obj, Value); }
int32_t GetOrdProp(const TObject* Obj, std::string_view PropName) {
  return GetOrdProp(Obj, Require(Obj, PropName));
}
void SetOrdProp(TObject* Obj, std::string_view PropName, int32_t Value) {
  SetOrdProp(Obj, Require(Obj, PropName), Value);
}

std::string GetStrProp(const TObject* Obj, PPropInfo Info) { return Reader(Info).GetStr(Obj); }
void SetStrProp(TObject* Obj, PPropInfo Info, const std::string& Value) {
  Reader(Info).SetStr(Obj, Value);
}
std::string GetStrProp(const TObject* Obj, std::string_view PropName) {
  return GetStrProp(Obj, Require(Obj, PropName));
}
void SetStrProp(TObject* Obj, std::string_view PropName, const std::string& Value) {
  SetStrProp(Obj, Require(Obj, PropName), Value);
}
std::u16string GetWideStrProp(const TObject* Obj, PPropInfo Info) {
  return Reader(Info).GetWStr(Obj);
}
void SetWideStrProp(TObject* Obj, PPropInfo Info, const std::u16string& Value) {
  Reader(Info).SetWStr(Obj, Value);
}

Extended GetFloatProp(const TObject* Obj, PPropInfo Info) { return Reader(Info).GetFloat(Obj); }
void SetFloatProp(TObject* Obj, PPropInfo Info, Extended Value) {
  Reader(Info).SetFloat(Obj, Value);
}
Extended GetFloatProp(const TObject* Obj, std::string_view PropName) {
  return GetFloatProp(Obj, Require(Obj, PropName));
}
void SetFloatProp(TObject* Obj, std::string_view PropName, Extended Value) {
  SetFloatProp(Obj, Require(Obj, PropName), Value);
}

int64_t GetInt64Prop(const TObject* Obj, PPropInfo Info) { return Reader(Info).GetInt64(Obj); }
void SetInt64Prop(TObject* Obj, PPropInfo Info, int64_t Value) {
  Reader(Info).SetInt64(Obj, Value);
}
TMethod GetMethodProp(const TObject* Obj, PPropInfo Info) { return Reader(Info).GetMethod(Obj); }
void SetMethodProp(TObject* Obj, PPropInfo Info, const TMethod& Value) {
  Reader(Info).SetMethod(Obj, Value);
}
Variant GetVariantProp(const TObject* Obj, PPropInfo Info) { return Reader(Info).GetVariant(Obj); }
void SetVariantProp(TObject* Obj, PPropInfo Info, const Variant& Value) {
  Reader(Info).SetVariant(Obj, Value);
}

TObject* GetObjectProp(const TObject* Obj, PPropInfo Info, TClass MinClass) {
  TObject* O = Reader(Info).GetObject(Obj);
  if (O && MinClass && !O->InheritsFrom(MinClass)) return nullptr;
  return O;
}
TObject* GetObjectProp(const TObject* Obj, std::string_view PropName, TClass MinClass) {
  return GetObjectProp(Obj, Require(Obj, PropName), MinClass);
}
void SetObjectProp(TObject* Obj, PPropInfo Info, TObject* Value) {
  Reader(Info).SetObject(Obj, Value);
}

std::string SetToString(PPropInfo Info, int32_t Value, bool Brackets) {
  PTypeInfo Comp = Info->PropType->Data.CompType;
  std::string R;
  uint32_t Bits = static_cast<uint32_t>(Value);
  for (int I = 0; I < 32; ++I)
    if (Bits & (1u << I)) {
      if (!R.empty()) R += ',';
      R += GetEnumName(Comp, I);
    }
  if (Brackets) R = "[" + R + "]";
  return R;
}

int32_t StringToSet(PPropInfo Info, std::string_view Value) {
  PTypeInfo Comp = Info->PropType->Data.CompType;
  uint32_t Bits = 0;
  size_t P = 0;
  auto Blank = [&](size_t I) { return I < Value.size() && static_cast<unsigned char>(Value[I]) <= ' '; };
  while (Blank(P)) ++P;
  if (P < Value.size() && Value[P] == '[') ++P;
  for (;;) {
    while (Blank(P)) ++P;
    size_t Start = P;
    while (P < Value.size() && Value[P] != ',' && Value[P] != ']' &&
           static_cast<unsigned char>(Value[P]) > ' ')
      ++P;
    std::string_view Name = Value.substr(Start, P - Start);
    if (!Name.empty()) {
      int E = GetEnumValue(Comp, Name);
      if (E < 0 || E > 31) throw EPropertyConvertError(Format(SInvalidPropertyElement, {EscapeControlChars(Name)}));
      Bits |= 1u << E;
    }
    while (Blank(P)) ++P;
    if (P >= Value.size() || Value[P] == ']') break;
    if (Value[P] == ',') {
      ++P;
      continue;
    }
    throw EPropertyConvertError(Format(SInvalidPropertyElement, {EscapeControlChars(Value.substr(P))}));
  }
  return static_cast<int32_t>(Bits);
}

std::string GetSetProp(const TObject* Obj, PPropInfo Info, bool Brackets) {
  return SetToString(Info, GetOrdProp(Obj, Info), Brackets);
}
void SetSetProp(TObject* Obj, PPropInfo Info, std::string_view Value) {
  SetOrdProp(Obj, Info, StringToSet(Info, Value));
}

Variant GetPropValue(const TObject* Obj, std::string_view PropName) {
  PPropInfo Info = Require(Obj, PropName);
  switch (Info->Kind()) {
    case tkInteger:
    case tkChar:
    case tkWChar:
      return Variant(GetOrdProp(Obj, Info));
    case tkEnumeration:
      if (Info->PropType->Data.BaseType == TypeInfoBoolean()) return Variant(GetOrdProp(Obj, Info) != 0);
      return Variant(GetEnumName(Info->PropType, GetOrdProp(Obj, Info)));
    case tkSet:
      return Variant(GetSetProp(Obj, Info, true));
    case tkFloat:
      if (Info->PropType->Data.FloatType == ftCurr)
        return Variant(Currency::FromScaled(Info->Access->GetCurrency(Obj)));
      if (Info->PropType == TypeInfoDateTime() || Info->PropType->Name == "TDateTime")
        return Variant(TDateTime(static_cast<double>(GetFloatProp(Obj, Info))));
      return Variant(static_cast<double>(GetFloatProp(Obj, Info)));
    case tkString:
    case tkLString:
      return Variant(GetStrProp(Obj, Info));
    case tkWString:
      return Variant(GetWideStrProp(Obj, Info));
    case tkVariant:
      return GetVariantProp(Obj, Info);
    case tkInt64:
      return Variant(GetInt64Prop(Obj, Info));
    default:
      throw EPropertyError(Format(SInvalidPropertyType, {Info->PropType->Name}));
  }
}

void SetPropValue(TObject* Obj, std::string_view PropName, const Variant& Value) {
  PPropInfo Info = Require(Obj, PropName);
  switch (Info->Kind()) {
    case tkInteger:
    case tkChar:
    case tkWChar:
      SetOrdProp(Obj, Info, Value.AsInteger());
      break;
    case tkEnumeration:
      if (VarType(Value) == varString || VarType(Value) == varOleStr) {
        int E = GetEnumValue(Info->PropType, Value.AsString());
        if (E < 0) throw EPropertyConvertError(Format(SInvalidPropertyElement, {EscapeControlChars(Value.AsString())}));
        SetOrdProp(Obj, Info, E);
      } else if (VarType(Value) == varBoolean) {
        SetOrdProp(Obj, Info, Value.AsBoolean() ? 1 : 0);
      } else {
        SetOrdProp(Obj, Info, Value.AsInteger());
      }
      break;
    case tkSet:
      if (VarType(Value) == varString || VarType(Value) == varOleStr)
        SetSetProp(Obj, Info, Value.AsString());
      else
        SetOrdProp(Obj, Info, Value.AsInteger());
      break;
    case tkFloat:
      if (Info->PropType->Data.FloatType == ftCurr)
        Info->Access->SetCurrency(Obj, Value.AsCurrency().Value);
      else
        SetFloatProp(Obj, Info, Value.AsDouble());
      break;
    case tkString:
    case tkLString:
      SetStrProp(Obj, Info, Value.AsString());
      break;
    case tkWString:
      SetWideStrProp(Obj, Info, Value.AsWideString());
      break;
    case tkVariant:
      SetVariantProp(Obj, Info, Value);
      break;
    case tkInt64:
      SetInt64Prop(Obj, Info, Value.AsInt64());
      break;
    default:
      throw EPropertyError(Format(SInvalidPropertyType, {Info->PropType->Name}));
  }
}

std::string GetEnumName(PTypeInfo TypeInfo, int Value) {
  if (!TypeInfo) return std::string();
  if (TypeInfo->Kind == tkInteger) return IntToStr(Value);
  if (TypeInfo->Kind != tkEnumeration) return std::string();
  PTypeInfo Base = TypeInfo->Data.BaseType ? TypeInfo->Data.BaseType : TypeInfo;
  const auto& Names = Base->Data.NameList;
  int64_t I = static_cast<int64_t>(Value) - Base->Data.MinValue;
  if (I < 0 || I >= static_cast<int64_t>(Names.size())) return std::string();
  return Names[static_cast<size_t>(I)];
}

int GetEnumValue(PTypeInfo TypeInfo, std::string_view Name) {
  if (!TypeInfo) return -1;
  if (TypeInfo->Kind == tkInteger) {
    int V;
    return TryStrToInt(std::string(Name), V) ? V : -1;
  }
  if (TypeInfo->Kind != tkEnumeration) return -1;
  PTypeInfo Base = TypeInfo->Data.BaseType ? TypeInfo->Data.BaseType : TypeInfo;
  const auto& Names = Base->Data.NameList;
  TClassRtti::CIEqual Eq;
  for (size_t I = 0; I < Names.size(); ++I)
    if (Eq(Names[I], Name)) return static_cast<int>(I) + Base->Data.MinValue;
  return -1;
}

// ---------------------------------------------------------------------------
// Class registry

namespace {
struct TClassRegistry {
  std::shared_mutex Lock;
  std::unordered_map<std::string_view, TClass, TClassRtti::CIHash, TClassRtti::CIEqual> Map;
};
TClassRegistry& Registry() {
  static TClassRegistry* R = new TClassRegistry;  // lives as long as the process
  return *R;
}
}  // namespace

void RegisterClass(TClass Class) {
  if (!Class) return;
  TClassRegistry& R = Registry();
  std::unique_lock L(R.Lock);
  auto [It, Inserted] = R.Map.emplace(std::string_view(Class->Name), Class);
  if (!Inserted && It->second != Class)
    throw EFilerError(Format(SDuplicateClass, {Class->Name}));
}

void RegisterClasses(std::initializer_list<TClass> Classes) {
  for (TClass C : Classes) RegisterClass(C);
}

void UnRegisterClass(TClass Class) {
  if (!Class) return;
  TClassRegistry& R = Registry();
  std::unique_lock L(R.Lock);
  auto It = R.Map.find(Class->Name);
  if (It != R.Map.end() && It->second == Class) R.Map.erase(It);
}

TClass GetClass(std::string_view Name) {
  TClassRegistry& R = Registry();
  std::shared_lock L(R.Lock);
  auto It = R.Map.find(Name);
  return It == R.Map.end() ? nullptr : It->second;
}

TClass FindClass(std::string_view Name) {
  TClass C = GetClass(Name);
  if (!C) throw EClassNotFound(Format(SClassNotFound, {EscapeControlChars(Name)}));
  return C;
}

}  // namespace vel
