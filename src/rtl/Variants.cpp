// Variants: conversions, equality and variant arrays.
#include "vel/rtl/Variants.h"

#include <cfloat>
#include <cmath>
#include <cstring>
#include <new>

#include "vel/rtl/SysUtils.h"

namespace vel {

namespace detail {

// The storage of an array variant: the elements of one dimension in the
// representation VarArrayLock hands out.
struct VarArrayData {
  uint16_t ElemType = varByte;
  int32_t Low = 0;
  size_t Count = 0;
  int LockCount = 0;
  std::vector<uint8_t> Raw;          // numeric element types
  std::vector<Variant> Vars;         // varVariant
  std::vector<std::u16string> Strs;  // varOleStr

  VarArrayData() = default;
  VarArrayData(const VarArrayData& O)
      : ElemType(O.ElemType), Low(O.Low), Count(O.Count), Raw(O.Raw), Vars(O.Vars), Strs(O.Strs) {}
};

}  // namespace detail

namespace {

using detail::VarArrayData;

// Bytes per element of the numeric element types; 0 for the others.
size_t ElemSize(uint16_t T) {
  switch (T) {
    case varShortInt:
    case varByte: return 1;
    case varSmallint:
    case varWord:
    case varBoolean: return 2;
    case varInteger:
    case varLongWord:
    case varSingle: return 4;
    case varDouble:
    case varCurrency:
    case varDate:
    case varInt64: return 8;
    default: return 0;
  }
}

bool IsIntegral(uint16_t T) {
  switch (T) {
    case varSmallint:
    case varInteger:
    case varShortInt:
    case varByte:
    case varWord:
    case varLongWord:
    case varInt64: return true;
    default: return false;
  }
}

bool IsFloat(uint16_t T) { return T == varSingle || T == varDouble || T == varDate; }
bool IsStr(uint16_t T) { return T == varString || T == varOleStr; }

[[noreturn]] void CastError() { throw EVariantTypeCastError(SInvalidVarCast); }

[[noreturn]] void OverflowError(uint16_t From, uint16_t To) {
  throw EVariantOverflowError(Format(SVarOverflow, {VarTypeAsText(From), VarTypeAsText(To)}));
}

// Round to nearest, ties to even, into int64; false when out of range.
bool RoundToInt64(long double D, int64_t& Out) {
  if (!std::isfinite(D)) return false;
  const long double R = std::nearbyint(D);
  if (R < -9223372036854775808.0L || R >= 9223372036854775808.0L) return false;
  Out = static_cast<int64_t>(R);
  return true;
}

}  // namespace

// Access to the representation for the free functions of this unit.
struct VariantAccess {
  static uint16_t Type(const Variant& V) { return V.FType; }
  static VarArrayData* Arr(const Variant& V) { return V.FArr; }

  static const std::string& Str(const Variant& V) { return V.FStr; }
  static const std::u16string& WStr(const Variant& V) { return V.FWStr; }
  static int64_t Int(const Variant& V) { return V.FV.I; }
  static int64_t Curr(const Variant& V) { return V.FV.C; }
  static bool Bool(const Variant& V) { return V.FV.B; }
  static double Dbl(const Variant& V) { return V.FType == varSingle ? V.FV.F : V.FV.D; }

  static Variant MakeArray(VarArrayData* A) {
    Variant V;
    V.FType = static_cast<uint16_t>(varArray | A->ElemType);
    V.FArr = A;
    return V;
  }
  static Variant MakeDate(double D) { return Variant(TDateTime(D)); }

  // The value as a 64-bit integer; Target names the requested type in
  // overflow messages.
  static int64_t ToInt64(const Variant& V, uint16_t Target) {
    const uint16_t T = V.FType;
    if (IsIntegral(T)) return V.FV.I;
    switch (T) {
      case varEmpty: return 0;
      case varBoolean: return V.FV.B ? -1 : 0;
      case varSingle:
      case varDouble:
      case varDate: {
        int64_t R;
        if (!RoundToInt64(Dbl(V), R)) OverflowError(T, Target);
        return R;
      }
      case varCurrency: {
        // Round C / 10000 to nearest, ties to even.
        int64_t Q = V.FV.C / 10000, Rm = V.FV.C % 10000;
        if (Rm > 5000 || (Rm == 5000 && (Q & 1))) ++Q;
        if (Rm < -5000 || (Rm == -5000 && (Q & 1))) --Q;
        return Q;
      }
      case varString:
      case varOleStr: {
        const std::string S = T == varString ? V.FStr : WideToCp1252(V.FWStr);
        int64_t R;
        if (TryStrToInt64(S, R)) return R;
        double D;
        if (!TryStrToFloat(S, D)) CastError();
        if (!RoundToInt64(D, R)) OverflowError(T, Target);
        return R;
      }
      default: CastError();
    }
  }

  static double ToDouble(const Variant& V) {
    const uint16_t T = V.FType;
    if (IsIntegral(T)) return static_cast<double>(V.FV.I);
    switch (T) {
      case varEmpty: return 0;
      case varBoolean: return V.FV.B ? -1 : 0;
      case varSingle:
      case varDouble:
      case varDate: return Dbl(V);
      case varCurrency: return static_cast<double>(static_cast<long double>(V.FV.C) / 10000.0L);
      case varString:
      case varOleStr: {
        double D;
        if (!TryStrToFloat(T == varString ? V.FStr : WideToCp1252(V.FWStr), D)) CastError();
        return D;
      }
      default: CastError();
    }
  }

  static int64_t ToCurrency(const Variant& V) {
    const uint16_t T = V.FType;
    if (IsIntegral(T)) {
      const __int128 R = static_cast<__int128>(V.FV.I) * 10000;
      if (R > INT64_MAX || R < INT64_MIN) OverflowError(T, varCurrency);
      return static_cast<int64_t>(R);
    }
    switch (T) {
      case varEmpty: return 0;
      case varBoolean: return V.FV.B ? -10000 : 0;
      case varCurrency: return V.FV.C;
      case varSingle:
      case varDouble:
      case varDate: {
        int64_t R;
        if (!RoundToInt64(static_cast<long double>(Dbl(V)) * 10000.0L, R))
          OverflowError(T, varCurrency);
        return R;
      }
      case varString:
      case varOleStr: {
        Currency C;
        if (!TryStrToCurr(T == varString ? V.FStr : WideToCp1252(V.FWStr), C)) CastError();
        return C.Value;
      }
      default: CastError();
    }
  }

  static double ToDate(const Variant& V) {
    if (IsStr(V.FType)) {
      const std::string S = V.FType == varString ? V.FStr : WideToCp1252(V.FWStr);
      TDateTime D;
      if (TryStrToDateTime(S, D)) return D.Value;
      double F;
      if (TryStrToFloat(S, F)) return F;
      CastError();
    }
    return ToDouble(V);
  }

  static bool ToBoolean(const Variant& V) {
    const uint16_t T = V.FType;
    if (IsIntegral(T)) return V.FV.I != 0;
    switch (T) {
      case varEmpty: return false;
      case varBoolean: return V.FV.B;
      case varCurrency: return V.FV.C != 0;
      case varSingle:
      case varDouble:
      case varDate: return Dbl(V) != 0;
      case varString:
      case varOleStr: {
        const std::string S = T == varString ? V.FStr : WideToCp1252(V.FWStr);
        if (SameText(S, "True")) return true;
        if (SameText(S, "False")) return false;
        double D;
        if (!TryStrToFloat(S, D)) CastError();
        return D != 0;
      }
      default: CastError();
    }
  }

  static std::string ToString(const Variant& V) {
    const uint16_t T = V.FType;
    if (IsIntegral(T)) return IntToStr(V.FV.I);
    switch (T) {
      case varEmpty: return {};
      case varBoolean: return V.FV.B ? "True" : "False";
      case varSingle: return SingleToStr(V.FV.F);
      case varDouble: return FloatToStr(V.FV.D);
      case varDate: return DateTimeToStr(TDateTime(V.FV.D));
      case varCurrency: return CurrToStr(Currency::FromScaled(V.FV.C));
      case varString: return V.FStr;
      case varOleStr: return WideToCp1252(V.FWStr);
      default: CastError();
    }
  }
};

// ---------------------------------------------------------------------------
// Lifetime

Variant::Variant(const Variant& O) : FType(O.FType), FV(O.FV), FStr(O.FStr), FWStr(O.FWStr) {
  if (O.FArr) FArr = new VarArrayData(*O.FArr);
}

Variant::Variant(Variant&& O) noexcept
    : FType(O.FType), FV(O.FV), FStr(std::move(O.FStr)), FWStr(std::move(O.FWStr)), FArr(O.FArr) {
  O.FArr = nullptr;
  O.FType = varEmpty;
  O.FV.I = 0;
}

Variant& Variant::operator=(const Variant& O) {
  if (this != &O) {
    Variant Copy(O);
    *this = std::move(Copy);
  }
  return *this;
}

Variant& Variant::operator=(Variant&& O) noexcept {
  if (this != &O) {
    delete FArr;
    FType = O.FType;
    FV = O.FV;
    FStr = std::move(O.FStr);
    FWStr = std::move(O.FWStr);
    FArr = O.FArr;
    O.FArr = nullptr;
    O.FType = varEmpty;
    O.FV.I = 0;
  }
  return *this;
}

Variant::~Variant() { delete FArr; }

void Variant::Clear() noexcept {
  delete FArr;
  FArr = nullptr;
  FType = varEmpty;
  FV.I = 0;
  FStr.clear();
  FWStr.clear();
}

// ---------------------------------------------------------------------------
// Conversions

int32_t Variant::AsInteger() const {
  const int64_t V = VariantAccess::ToInt64(*this, varInteger);
  if (V < INT32_MIN || V > INT32_MAX) OverflowError(FType, varInteger);
  return static_cast<int32_t>(V);
}

int64_t Variant::AsInt64() const { return VariantAccess::ToInt64(*this, varInt64); }
double Variant::AsDouble() const { return VariantAccess::ToDouble(*this); }
Currency Variant::AsCurrency() const {
  return Currency::FromScaled(VariantAccess::ToCurrency(*this));
}
TDateTime Variant::AsDateTime() const { return TDateTime(VariantAccess::ToDate(*this)); }
bool Variant::AsBoolean() const { return VariantAccess::ToBoolean(*this); }
std::string Variant::AsString() const { return VariantAccess::ToString(*this); }

std::u16string Variant::AsWideString() const& {
  if (FType == varOleStr) return FWStr;
  return Cp1252ToWide(VariantAccess::ToString(*this));
}

std::u16string Variant::AsWideString() && {
  if (FType == varOleStr) return std::move(FWStr);
  return Cp1252ToWide(VariantAccess::ToString(*this));
}

uint16_t VarType(const Variant& V) { return V.VType(); }
bool VarIsArray(const Variant& V) { return (V.VType() & varArray) != 0; }
bool VarIsEmpty(const Variant& V) { return V.VType() == varEmpty; }
bool VarIsNull(const Variant& V) { return V.VType() == varNull; }
bool VarIsClear(const Variant& V) { return V.VType() == varEmpty || V.VType() == varNull; }
bool VarIsNumeric(const Variant& V) {
  const uint16_t T = V.VType();
  return IsIntegral(T) || T == varSingle || T == varDouble || T == varCurrency;
}
bool VarIsStr(const Variant& V) { return IsStr(V.VType()); }

Variant VarAsType(const Variant& V, uint16_t Type) {
  const uint16_t From = V.VType();
  if (From == Type) return V;
  if ((Type & ~varTypeMask) != 0 || (From & varArray)) CastError();
  if (From == varNull && Type != varNull) CastError();
  auto Ranged = [&](int64_t Lo, int64_t Hi) {
    const int64_t I = VariantAccess::ToInt64(V, Type);
    if (I < Lo || I > Hi) OverflowError(From, Type);
    return I;
  };
  switch (Type) {
    case varEmpty: return Variant();
    case varNull: return Variant::Null();
    case varSmallint: return Variant(static_cast<int16_t>(Ranged(INT16_MIN, INT16_MAX)));
    case varInteger: return Variant(static_cast<int32_t>(Ranged(INT32_MIN, INT32_MAX)));
    case varShortInt: return Variant(static_cast<int8_t>(Ranged(INT8_MIN, INT8_MAX)));
    case varByte: return Variant(static_cast<uint8_t>(Ranged(0, UINT8_MAX)));
    case varWord: return Variant(static_cast<uint16_t>(Ranged(0, UINT16_MAX)));
    case varLongWord: return Variant(static_cast<uint32_t>(Ranged(0, UINT32_MAX)));
    case varInt64: return Variant(static_cast<int64_t>(VariantAccess::ToInt64(V, Type)));
    case varSingle: {
      const double D = VariantAccess::ToDouble(V);
      if (std::isfinite(D) && std::fabs(D) > FLT_MAX) OverflowError(From, Type);
      return Variant(static_cast<float>(D));
    }
    case varDouble: return Variant(VariantAccess::ToDouble(V));
    case varCurrency: return Variant(Currency::FromScaled(VariantAccess::ToCurrency(V)));
    case varDate: return VariantAccess::MakeDate(VariantAccess::ToDate(V));
    case varBoolean: return Variant(VariantAccess::ToBoolean(V));
    case varString: return Variant(VariantAccess::ToString(V));
    case varOleStr: return Variant(V.AsWideString());
    case varDispatch:
    case varError:
    case varVariant:
    case varUnknown: CastError();
    default: throw EVariantBadVarTypeError(SVarBadType);
  }
}

std::string VarToStr(const Variant& V) { return VarIsClear(V) ? std::string() : V.AsString(); }

std::u16string VarToWideStr(const Variant& V) {
  return VarIsClear(V) ? std::u16string() : V.AsWideString();
}

std::string VarTypeAsText(uint16_t Type) {
  std::string Prefix = (Type & varArray) ? "Array " : "";
  const char* Name;
  switch (Type & varTypeMask) {
    case varEmpty: Name = "Empty"; break;
    case varNull: Name = "Null"; break;
    case varSmallint: Name = "Smallint"; break;
    case varInteger: Name = "Integer"; break;
    case varSingle: Name = "Single"; break;
    case varDouble: Name = "Double"; break;
    case varCurrency: Name = "Currency"; break;
    case varDate: Name = "Date"; break;
    case varOleStr: Name = "OleStr"; break;
    case varDispatch: Name = "Dispatch"; break;
    case varError: Name = "Error"; break;
    case varBoolean: Name = "Boolean"; break;
    case varVariant: Name = "Variant"; break;
    case varUnknown: Name = "Unknown"; break;
    case varShortInt: Name = "ShortInt"; break;
    case varByte: Name = "Byte"; break;
    case varWord: Name = "Word"; break;
    case varLongWord: Name = "LongWord"; break;
    case varInt64: Name = "Int64"; break;
    case varString: Name = "String"; break;
    default: Name = "Unknown"; break;
  }
  return Prefix + Name;
}

// ---------------------------------------------------------------------------
// Equality

bool operator==(const Variant& A, const Variant& B) {
  const uint16_t TA = A.VType(), TB = B.VType();
  auto Comparable = [](uint16_t T) {
    return T == varEmpty || T == varNull || IsIntegral(T) || IsFloat(T) || T == varCurrency ||
           T == varBoolean || IsStr(T);
  };
  if (!Comparable(TA) || !Comparable(TB)) throw EVariantInvalidOpError(SInvalidVarOp);
  if (TA == varNull || TB == varNull) return TA == TB;
  if (TA == varEmpty && TB == varEmpty) return true;

  if (IsStr(TA) && IsStr(TB)) {
    if (TA == varString && TB == varString) return VariantAccess::Str(A) == VariantAccess::Str(B);
    return A.AsWideString() == B.AsWideString();
  }
  // Empty against a string is the empty string.
  if (TA == varEmpty && IsStr(TB)) return B.AsWideString().empty();
  if (TB == varEmpty && IsStr(TA)) return A.AsWideString().empty();
  // A string against a boolean compares as booleans.
  if ((IsStr(TA) && TB == varBoolean) || (IsStr(TB) && TA == varBoolean))
    return A.AsBoolean() == B.AsBoolean();

  // Numbers, with Empty as 0 and a string read as a number.
  struct Num {
    enum { Int, Curr, Flt } Kind;
    int64_t I;
    long double F;
  };
  auto ToNum = [](const Variant& V) -> Num {
    const uint16_t T = V.VType();
    if (T == varEmpty) return {Num::Int, 0, 0};
    if (T == varBoolean) return {Num::Int, VariantAccess::Bool(V) ? -1 : 0, 0};
    if (IsIntegral(T)) return {Num::Int, VariantAccess::Int(V), 0};
    if (T == varCurrency) return {Num::Curr, VariantAccess::Curr(V), 0};
    if (IsFloat(T)) return {Num::Flt, 0, VariantAccess::Dbl(V)};
    Extended E;
    const std::string S = T == varString ? VariantAccess::Str(V) : WideToCp1252(VariantAccess::WStr(V));
    if (!TryStrToFloat(S, E)) CastError();
    return {Num::Flt, 0, E};
  };
  const Num X = ToNum(A), Y = ToNum(B);
  if (X.Kind != Num::Flt && Y.Kind != Num::Flt) {
    const __int128 XI = static_cast<__int128>(X.I) * (X.Kind == Num::Curr ? 1 : 10000);
    const __int128 YI = static_cast<__int128>(Y.I) * (Y.Kind == Num::Curr ? 1 : 10000);
    return XI == YI;
  }
  auto AsLD = [](const Num& N) {
    switch (N.Kind) {
      case Num::Int: return static_cast<long double>(N.I);
      case Num::Curr: return static_cast<long double>(N.I) / 10000.0L;
      default: return N.F;
    }
  };
  return AsLD(X) == AsLD(Y);
}

// ---------------------------------------------------------------------------
// Arrays

namespace {

VarArrayData& ArrayOf(const Variant& A) {
  VarArrayData* D = VariantAccess::Arr(A);
  if (!D) throw EVariantNotAnArrayError(SVarNotArray);
  return *D;
}

size_t Slot(const VarArrayData& D, int32_t Index) {
  const int64_t Off = static_cast<int64_t>(Index) - D.Low;
  if (Off < 0 || static_cast<uint64_t>(Off) >= D.Count) throw EVariantBadIndexError(SVarArrayBounds);
  return static_cast<size_t>(Off);
}

void Resize(VarArrayData& D, size_t Count) {
  if (D.ElemType == varVariant)
    D.Vars.resize(Count);
  else if (D.ElemType == varOleStr)
    D.Strs.resize(Count);
  else
    D.Raw.resize(Count * ElemSize(D.ElemType));
  D.Count = Count;
}

}  // namespace

Variant VarArrayCreate(std::initializer_list<int32_t> Bounds, uint16_t Type) {
  if (Bounds.size() != 2) throw EVariantArrayCreateError(SVarArrayCreate);
  const int64_t Low = Bounds.begin()[0], High = Bounds.begin()[1];
  const int64_t Count = High - Low + 1;
  if (Count < 0 || (ElemSize(Type) == 0 && Type != varVariant && Type != varOleStr))
    throw EVariantArrayCreateError(SVarArrayCreate);
  auto* D = new VarArrayData;
  D->ElemType = Type;
  D->Low = static_cast<int32_t>(Low);
  try {
    Resize(*D, static_cast<size_t>(Count));
  } catch (const std::bad_alloc&) {
    delete D;
    throw EVariantArrayCreateError(SVarArrayCreate);
  }
  return VariantAccess::MakeArray(D);
}

Variant VarArrayFromBytes(const void* Data, size_t Size) {
  if (Size > static_cast<size_t>(INT32_MAX)) throw EVariantArrayCreateError(SVarArrayCreate);
  Variant V = VarArrayCreate({0, static_cast<int32_t>(Size) - 1}, varByte);
  if (Size) std::memcpy(ArrayOf(V).Raw.data(), Data, Size);
  return V;
}

int VarArrayDimCount(const Variant& A) { return VariantAccess::Arr(A) ? 1 : 0; }

int32_t VarArrayLowBound(const Variant& A, int Dim) {
  const VarArrayData& D = ArrayOf(A);
  if (Dim != 1) throw EVariantBadIndexError(SVarArrayBounds);
  return D.Low;
}

int32_t VarArrayHighBound(const Variant& A, int Dim) {
  const VarArrayData& D = ArrayOf(A);
  if (Dim != 1) throw EVariantBadIndexError(SVarArrayBounds);
  return static_cast<int32_t>(D.Low + static_cast<int64_t>(D.Count) - 1);
}

void* VarArrayLock(Variant& A) {
  VarArrayData& D = ArrayOf(A);
  ++D.LockCount;
  if (D.ElemType == varVariant) return D.Vars.data();
  if (D.ElemType == varOleStr) return D.Strs.data();
  return D.Raw.data();
}

void VarArrayUnlock(Variant& A) {
  VarArrayData& D = ArrayOf(A);
  if (D.LockCount <= 0) throw EVariantUnexpectedError(SVarUnexpected);
  --D.LockCount;
}

Variant VarArrayGet(const Variant& A, int32_t Index) {
  const VarArrayData& D = ArrayOf(A);
  const size_t I = Slot(D, Index);
  if (D.ElemType == varVariant) return D.Vars[I];
  if (D.ElemType == varOleStr) return Variant(D.Strs[I]);
  const uint8_t* P = D.Raw.data() + I * ElemSize(D.ElemType);
  auto Load = [P](auto Zero) {
    decltype(Zero) V;
    std::memcpy(&V, P, sizeof V);
    return V;
  };
  switch (D.ElemType) {
    case varShortInt: return Variant(Load(int8_t{}));
    case varByte: return Variant(Load(uint8_t{}));
    case varSmallint: return Variant(Load(int16_t{}));
    case varWord: return Variant(Load(uint16_t{}));
    case varBoolean: return Variant(Load(int16_t{}) != 0);
    case varInteger: return Variant(Load(int32_t{}));
    case varLongWord: return Variant(Load(uint32_t{}));
    case varSingle: return Variant(Load(float{}));
    case varDouble: return Variant(Load(double{}));
    case varCurrency: return Variant(Currency::FromScaled(Load(int64_t{})));
    case varDate: return Variant(TDateTime(Load(double{})));
    default: return Variant(static_cast<int64_t>(Load(int64_t{})));  // varInt64
  }
}

void VarArrayPut(Variant& A, const Variant& Value, int32_t Index) {
  VarArrayData& D = ArrayOf(A);
  const size_t I = Slot(D, Index);
  if (D.ElemType == varVariant) {
    D.Vars[I] = Value;
    return;
  }
  if (D.ElemType == varOleStr) {
    D.Strs[I] = Value.AsWideString();
    return;
  }
  const Variant C = VarAsType(Value, D.ElemType);
  uint8_t* P = D.Raw.data() + I * ElemSize(D.ElemType);
  auto Store = [P](auto V) { std::memcpy(P, &V, sizeof V); };
  switch (D.ElemType) {
    case varShortInt: Store(static_cast<int8_t>(VariantAccess::Int(C))); break;
    case varByte: Store(static_cast<uint8_t>(VariantAccess::Int(C))); break;
    case varSmallint: Store(static_cast<int16_t>(VariantAccess::Int(C))); break;
    case varWord: Store(static_cast<uint16_t>(VariantAccess::Int(C))); break;
    case varBoolean: Store(static_cast<int16_t>(VariantAccess::Bool(C) ? -1 : 0)); break;
    case varInteger: Store(static_cast<int32_t>(VariantAccess::Int(C))); break;
    case varLongWord: Store(static_cast<uint32_t>(VariantAccess::Int(C))); break;
    case varSingle: Store(static_cast<float>(VariantAccess::Dbl(C))); break;
    case varDouble:
    case varDate: Store(VariantAccess::Dbl(C)); break;
    case varCurrency: Store(VariantAccess::Curr(C)); break;
    default: Store(VariantAccess::Int(C)); break;  // varInt64
  }
}

void VarArrayRedim(Variant& A, int32_t HighBound) {
  VarArrayData& D = ArrayOf(A);
  if (D.LockCount > 0) throw EVariantArrayLockedError(SVarArrayLocked);
  const int64_t Count = static_cast<int64_t>(HighBound) - D.Low + 1;
  if (Count < 0) throw EVariantBadIndexError(SVarArrayBounds);
  try {
    Resize(D, static_cast<size_t>(Count));
  } catch (const std::bad_alloc&) {
    throw EVariantArrayCreateError(SVarArrayCreate);
  }
}

}  // namespace vel
