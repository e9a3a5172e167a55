// Variants: a tagged value with the runtime's type codes, its conversions,
// its equality and one-dimensional variant arrays.
//
// Representation: the type code, a union for the numeric kinds (no heap
// allocation for numbers), an 8-bit string for varString, a wide string for
// varOleStr and an owned array block for arrays. Variants have value
// semantics: copying a variant copies its string or array, as assignment
// does in the runtime.
//
// Thread safety: a Variant is not synchronised; distinct Variants may be
// used in distinct threads freely.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "vel/Export.h"
// System.h ends by including TypInfo.h, which needs this header complete:
// when this header comes first, it includes TypInfo.h itself at its end.
#define VEL_RTL_VARIANTS_PENDING
#include "vel/rtl/System.h"
#undef VEL_RTL_VARIANTS_PENDING

namespace vel {

// ---------------------------------------------------------------------------
// Type codes

inline constexpr uint16_t varEmpty = 0x0000;
inline constexpr uint16_t varNull = 0x0001;
inline constexpr uint16_t varSmallint = 0x0002;
inline constexpr uint16_t varInteger = 0x0003;
inline constexpr uint16_t varSingle = 0x0004;
inline constexpr uint16_t varDouble = 0x0005;
inline constexpr uint16_t varCurrency = 0x0006;
inline constexpr uint16_t varDate = 0x0007;
inline constexpr uint16_t varOleStr = 0x0008;
inline constexpr uint16_t varDispatch = 0x0009;
inline constexpr uint16_t varError = 0x000A;
inline constexpr uint16_t varBoolean = 0x000B;
inline constexpr uint16_t varVariant = 0x000C;
inline constexpr uint16_t varUnknown = 0x000D;
inline constexpr uint16_t varShortInt = 0x0010;
inline constexpr uint16_t varByte = 0x0011;
inline constexpr uint16_t varWord = 0x0012;
inline constexpr uint16_t varLongWord = 0x0013;
inline constexpr uint16_t varInt64 = 0x0014;
inline constexpr uint16_t varString = 0x0100;
inline constexpr uint16_t varTypeMask = 0x0FFF;
inline constexpr uint16_t varArray = 0x2000;
inline constexpr uint16_t varByRef = 0x4000;

// ---------------------------------------------------------------------------
// Message texts and exceptions

inline constexpr const char* SInvalidVarCast = "Invalid variant type conversion";
inline constexpr const char* SInvalidVarOp = "Invalid variant operation";
inline constexpr const char* SVarOverflow = "Overflow while converting variant of type (%s) into type (%s)";
inline constexpr const char* SVarBadType = "Invalid variant type";
inline constexpr const char* SVarArrayCreate = "Error creating variant or safe array";
inline constexpr const char* SVarArrayBounds = "Variant or safe array index out of bounds";
inline constexpr const char* SVarArrayLocked = "Variant or safe array is locked";
inline constexpr const char* SVarNotArray = "Variant is not an array";
inline constexpr const char* SVarUnexpected = "Unexpected variant error";

// All derive from EVariantError, so one handler catches every variant failure.
VEL_EXCEPTION(EVariantTypeCastError, EVariantError);     // SInvalidVarCast
VEL_EXCEPTION(EVariantInvalidOpError, EVariantError);    // SInvalidVarOp
VEL_EXCEPTION(EVariantOverflowError, EVariantError);     // SVarOverflow
VEL_EXCEPTION(EVariantBadVarTypeError, EVariantError);   // SVarBadType
VEL_EXCEPTION(EVariantArrayCreateError, EVariantError);  // SVarArrayCreate
VEL_EXCEPTION(EVariantBadIndexError, EVariantError);     // SVarArrayBounds
VEL_EXCEPTION(EVariantArrayLockedError, EVariantError);  // SVarArrayLocked
VEL_EXCEPTION(EVariantNotAnArrayError, EVariantError);   // SVarNotArray
VEL_EXCEPTION(EVariantUnexpectedError, EVariantError);   // SVarUnexpected

// ---------------------------------------------------------------------------
// Variant

namespace detail {
struct VarArrayData;
}

class VEL_API Variant {
 public:
  // Unassigned (varEmpty).
  Variant() noexcept : FType(varEmpty) { FV.I = 0; }
  Variant(int8_t V) noexcept : FType(varShortInt) { FV.I = V; }
  Variant(uint8_t V) noexcept : FType(varByte) { FV.I = V; }
  Variant(int16_t V) noexcept : FType(varSmallint) { FV.I = V; }
  Variant(uint16_t V) noexcept : FType(varWord) { FV.I = V; }
  Variant(int32_t V) noexcept : FType(varInteger) { FV.I = V; }
  Variant(uint32_t V) noexcept : FType(varLongWord) { FV.I = V; }
  Variant(long V) noexcept : FType(varInt64) { FV.I = V; }
  Variant(long long V) noexcept : FType(varInt64) { FV.I = V; }
  // 64-bit unsigned values are held as varInt64 (wrapping above 2^63 - 1).
  Variant(unsigned long V) noexcept : FType(varInt64) { FV.I = static_cast<int64_t>(V); }
  Variant(unsigned long long V) noexcept : FType(varInt64) { FV.I = static_cast<int64_t>(V); }
  Variant(bool V) noexcept : FType(varBoolean) { FV.B = V; }
  Variant(float V) noexcept : FType(varSingle) { FV.F = V; }
  Variant(double V) noexcept : FType(varDouble) { FV.D = V; }
  Variant(Currency V) noexcept : FType(varCurrency) { FV.C = V.Value; }
  Variant(TDateTime V) noexcept : FType(varDate) { FV.D = V.Value; }
  // A character is a one-character string, as in the runtime.
  Variant(char V) : FType(varString), FStr(1, V) { FV.I = 0; }
  Variant(const char* V) : FType(varString), FStr(V ? V : "") { FV.I = 0; }
  Variant(std::string V) noexcept : FType(varString), FStr(std::move(V)) { FV.I = 0; }
  Variant(std::string_view V) : FType(varString), FStr(V) { FV.I = 0; }
  Variant(char16_t V) : FType(varOleStr), FWStr(1, V) { FV.I = 0; }
  Variant(const char16_t* V) : FType(varOleStr), FWStr(V ? V : u"") { FV.I = 0; }
  Variant(std::u16string V) noexcept : FType(varOleStr), FWStr(std::move(V)) { FV.I = 0; }

  Variant(const Variant& Other);
  Variant(Variant&& Other) noexcept;
  Variant& operator=(const Variant& Other);
  Variant& operator=(Variant&& Other) noexcept;
  ~Variant();

  static Variant Empty() noexcept { return Variant(); }
  static Variant Null() noexcept {
    Variant V;
    V.FType = varNull;
    return V;
  }

  // The type code, with varArray for arrays.
  uint16_t VType() const noexcept { return FType; }
  void Clear() noexcept;  // back to varEmpty

  // Conversions, as the runtime converts (see VarAsType). Empty converts to
  // 0, "" or false; Null, arrays and varError/varDispatch/varUnknown raise
  // EVariantTypeCastError "Invalid variant type conversion"; numbers out
  // of the target's range raise EVariantOverflowError.
  //  - strings to numbers through StrToInt64/StrToFloat/StrToCurr ('.' as
  //    decimal separator, never the process locale); a non-number raises
  //    EVariantTypeCastError. Strings to integers accept float texts too,
  //    rounded;
  //  - floats to integers and currency round to nearest, ties to even;
  //  - booleans are -1 (true) and 0 as numbers; numbers are true when
  //    non-zero; strings to boolean accept "True"/"False" in any case or a
  //    number;
  //  - numbers to strings through IntToStr, FloatToStr (SingleToStr for
  //    singles), CurrToStr, DateTimeToStr; booleans as "True"/"False";
  //  - strings to dates through StrToDateTime (FormatSettings) or, failing
  //    that, as a number of days; anything else raises
  //    EVariantTypeCastError;
  //  - wide and 8-bit strings convert through Windows-1252.
  int32_t AsInteger() const;
  int64_t AsInt64() const;
  double AsDouble() const;
  Currency AsCurrency() const;
  TDateTime AsDateTime() const;
  bool AsBoolean() const;
  std::string AsString() const;
  std::u16string AsWideString() const&;
  // A temporary (a field read straight from a data set) gives its wide
  // string up instead of copying it.
  std::u16string AsWideString() &&;

  explicit operator int32_t() const { return AsInteger(); }
  explicit operator int64_t() const { return AsInt64(); }
  explicit operator double() const { return AsDouble(); }
  explicit operator bool() const { return AsBoolean(); }
  explicit operator std::string() const { return AsString(); }

 private:
  uint16_t FType;
  union {
    int64_t I;  // integer kinds, sign- or zero-extended
    double D;   // varDouble, varDate
    float F;    // varSingle
    int64_t C;  // varCurrency, scaled by 10000
    bool B;     // varBoolean
  } FV;
  std::string FStr;                           // varString
  std::u16string FWStr;                       // varOleStr
  detail::VarArrayData* FArr = nullptr;        // arrays, owned

  friend struct VariantAccess;
};

// Equality as the runtime's variant comparison:
//  - Null equals only Null; an array never compares (EVariantInvalidOpError
//    "Invalid variant operation");
//  - Empty equals Empty, and compares with a number as 0 and with a
//    string as "";
//  - two numbers (integers, floats, currency, dates, booleans as -1/0)
//    compare numerically: integers and currency exactly, anything with a
//    float as long double;
//  - two strings (8-bit or wide) compare case-sensitively, character by
//    character (8-bit ones through Windows-1252 when mixed with wide);
//  - a string and a number compare as numbers: the string is read with
//    StrToFloat and a non-number raises EVariantTypeCastError "Invalid
//    variant type conversion";
//  - a string and a boolean compare as booleans (the string read as by
//    AsBoolean).
// != is its negation.
VEL_API bool operator==(const Variant& A, const Variant& B);

// The type code (varArray | element type for arrays).
VEL_API uint16_t VarType(const Variant& V);
VEL_API bool VarIsArray(const Variant& V);
VEL_API bool VarIsEmpty(const Variant& V);
VEL_API bool VarIsNull(const Variant& V);
// Empty or Null.
VEL_API bool VarIsClear(const Variant& V);
// Integers, singles, doubles and currency (booleans and dates excluded).
VEL_API bool VarIsNumeric(const Variant& V);
// varString or varOleStr.
VEL_API bool VarIsStr(const Variant& V);

// V converted to the type code VarType: varEmpty, varNull, the numeric
// codes, varCurrency, varDate, varBoolean, varOleStr, varString. Raises
// EVariantTypeCastError "Invalid variant type conversion" when V cannot be
// converted ("abc" to varInteger, Null to anything but Null, arrays to
// anything but their own type), EVariantOverflowError when the value does
// not fit, EVariantBadVarTypeError "Invalid variant type" for unknown codes.
VEL_API Variant VarAsType(const Variant& V, uint16_t VarType);
// The text of V; Null and Empty give "".
VEL_API std::string VarToStr(const Variant& V);
VEL_API std::u16string VarToWideStr(const Variant& V);
// The runtime's names of type codes: "Empty", "Null", "Smallint",
// "Integer", "Single", "Double", "Currency", "Date", "OleStr", "Dispatch",
// "Error", "Boolean", "Variant", "Unknown", "ShortInt", "Byte", "Word",
// "LongWord", "Int64", "String", with "Array " in front for arrays;
// "Unknown" for other codes.
VEL_API std::string VarTypeAsText(uint16_t VarType);

// ---------------------------------------------------------------------------
// Variant arrays (one dimension)

// An array with elements Bounds[0] .. Bounds[1] of element type VarType:
// varSmallint, varInteger, varSingle, varDouble, varCurrency, varDate,
// varOleStr, varBoolean, varVariant, varShortInt, varByte, varWord,
// varLongWord, varInt64. Elements start as zero, "" or Empty. Raises
// EVariantArrayCreateError "Error creating variant or safe array" for
// bounds that are not one (Low, High) pair with High >= Low - 1 or for
// another element type. A High of Low - 1 gives an empty array.
VEL_API Variant VarArrayCreate(std::initializer_list<int32_t> Bounds, uint16_t VarType);
// A varByte array with bounds 0 .. Size - 1 holding a copy of Data.
VEL_API Variant VarArrayFromBytes(const void* Data, size_t Size);
// The number of dimensions: 1 for arrays, 0 for anything else.
VEL_API int VarArrayDimCount(const Variant& A);
// Bounds of dimension Dim (1). Raise EVariantNotAnArrayError "Variant is
// not an array" for non-arrays, EVariantBadIndexError "Variant or safe
// array index out of bounds" for another Dim.
VEL_API int32_t VarArrayLowBound(const Variant& A, int Dim);
VEL_API int32_t VarArrayHighBound(const Variant& A, int Dim);
// Locks the array and returns its contiguous element data: the raw
// elements for the numeric types (1 byte per varByte element, 2 per
// varBoolean holding -1/0 as VARIANT_BOOL), Variant* for varVariant and
// std::u16string* for varOleStr. The pointer stays valid until the array
// variant is changed, resized or destroyed. Locks nest; each lock needs an
// unlock.
VEL_API void* VarArrayLock(Variant& A);
// Raises EVariantUnexpectedError "Unexpected variant error" when the array
// is not locked.
VEL_API void VarArrayUnlock(Variant& A);
// Element Index as a variant of the element type; out-of-range indexes
// raise EVariantBadIndexError.
VEL_API Variant VarArrayGet(const Variant& A, int32_t Index);
// Stores Value converted to the element type (any value for varVariant).
VEL_API void VarArrayPut(Variant& A, const Variant& Value, int32_t Index);
// Changes the high bound, keeping the elements that remain. Raises
// EVariantArrayLockedError "Variant or safe array is locked" while locked.
VEL_API void VarArrayRedim(Variant& A, int32_t HighBound);

}  // namespace vel

#include "vel/rtl/TypInfo.h"
