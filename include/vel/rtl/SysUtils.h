// SysUtils: formatting with the runtime's directives, integer, float,
// currency and date conversions, the 80-bit Extended codec, string and file
// name helpers, and Windows-1252 conversions.
//
// Number texts never depend on the process locale: conversions between
// numbers and text (IntToStr, FloatToStr, StrToFloat, CurrToStr, StrToCurr,
// Format's %d %u %x %e %f %g) always use '.' as the decimal separator. Only
// the display formats %n and %m (FloatToStrF with ffNumber/ffCurrency) and
// the date and time texts read the global FormatSettings.
//
// Thread safety: every function is reentrant. FormatSettings is a plain
// global: set it up before starting threads and treat it as read-only
// afterwards.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "vel/Export.h"
#include "vel/rtl/System.h"

namespace vel {

// ---------------------------------------------------------------------------
// Message texts (the runtime's resource strings)

inline constexpr const char* SInvalidFormat = "Format '%s' invalid or incompatible with argument";
inline constexpr const char* SInvalidInteger = "'%s' is not a valid integer value";
inline constexpr const char* SInvalidFloat = "'%s' is not a valid floating point value";
inline constexpr const char* SInvalidDate = "'%s' is not a valid date";
inline constexpr const char* SInvalidTime = "'%s' is not a valid time";
inline constexpr const char* SInvalidDateTime = "'%s' is not a valid date and time";
inline constexpr const char* SDateEncodeError = "Invalid argument to date encode";
inline constexpr const char* STimeEncodeError = "Invalid argument to time encode";

// ---------------------------------------------------------------------------
// Format arguments

// One argument of Format: a small tagged value, implicitly built from the
// usual C++ types, as the runtime's open array of const.
//  - int and the smaller integer types: vtInteger (32-bit; %x/%u show the
//    32-bit two's complement of negative values);
//  - unsigned, long, long long, unsigned long, unsigned long long: vtInt64
//    (%x/%u show the 64-bit two's complement of negative values);
//  - bool, char, char16_t, double/float, long double, Currency, TDateTime
//    (as a float), strings (8-bit; wide strings converted through
//    Windows-1252), pointers.
// String arguments are referenced, not copied: a TVarRec must not outlive
// the string it was built from (the usual case of a Format call's braced
// list is safe).
struct VEL_API TVarRec {
  enum TVType : uint8_t {
    vtInteger,
    vtInt64,
    vtBoolean,
    vtChar,
    vtWideChar,
    vtExtended,
    vtCurrency,
    vtString,
    vtPointer,
  };

  TVType VType;
  union {
    int32_t VInteger;
    int64_t VInt64;
    bool VBoolean;
    char VChar;
    char16_t VWideChar;
    Extended VExtended;
    Currency VCurrency;
    const void* VPointer;
  };

  TVarRec(int V) : VType(vtInteger), VInteger(V) {}
  TVarRec(unsigned V) : VType(vtInt64), VInt64(V) {}
  TVarRec(long V) : VType(vtInt64), VInt64(V) {}
  TVarRec(long long V) : VType(vtInt64), VInt64(V) {}
  TVarRec(unsigned long V) : VType(vtInt64), VInt64(static_cast<int64_t>(V)) {}
  TVarRec(unsigned long long V) : VType(vtInt64), VInt64(static_cast<int64_t>(V)) {}
  TVarRec(bool V) : VType(vtBoolean), VBoolean(V) {}
  TVarRec(char V) : VType(vtChar), VChar(V) {}
  TVarRec(char16_t V) : VType(vtWideChar), VWideChar(V) {}
  TVarRec(double V) : VType(vtExtended), VExtended(V) {}
  TVarRec(long double V) : VType(vtExtended), VExtended(V) {}
  TVarRec(TDateTime V) : VType(vtExtended), VExtended(V.Value) {}
  TVarRec(Currency V) : VType(vtCurrency), VCurrency(V) {}
  TVarRec(const char* V) : VType(vtString), VPointer(nullptr), FStr(V ? V : "") {}
  TVarRec(const std::string& V) : VType(vtString), VPointer(nullptr), FStr(V) {}
  TVarRec(std::string_view V) : VType(vtString), VPointer(nullptr), FStr(V) {}
  TVarRec(const ShortString& V) : VType(vtString), VPointer(nullptr), FStr(V.str()) {}
  TVarRec(const std::u16string& V);
  TVarRec(const char16_t* V);
  TVarRec(const void* V) : VType(vtPointer), VPointer(V) {}
  TVarRec(std::nullptr_t) : VType(vtPointer), VPointer(nullptr) {}

  // The text of a vtString argument.
  std::string_view Str() const { return FOwned ? std::string_view(FOwnedStr) : FStr; }

 private:
  std::string_view FStr;
  bool FOwned = false;
  std::string FOwnedStr;  // a wide argument, converted to Windows-1252
};

// Formats Args by the directives of Fmt:
//   %[index:][-][width][.precision]type
// with type one of d u e f g n m p s x (either case) and %% for '%'. index,
// width and precision may be '*' (taken from the next integer argument).
// The index is zero-based; after an indexed directive the following ones
// continue with the next argument.
//   d  decimal integer; precision = minimum digits ("%.4d" of 5 = "0005")
//   u  as d, negative values shown as unsigned (32-bit for int arguments)
//   x  upper-case hex; precision = minimum digits; negative values in 32-bit
//      two's complement for int arguments, 64-bit for 64-bit ones
//   e  scientific: precision (default 15) significant digits, exponent with
//      sign and at least 3 digits ("1.00000000000000E+003")
//   f  fixed, precision (default 2) decimals
//   g  general; without precision the shortest round-trip text (FloatToStr),
//      with one at most that many significant digits
//   n  as f with thousands separators; m  currency (FormatSettings)
//   p  pointer as 16 upper-case hex digits
//   s  string or character; precision = maximum characters
// Width pads with blanks on the left, or on the right with '-'. Any
// mismatch raises EConvertError "Format '<Fmt>' invalid or incompatible
// with argument".
VEL_API std::string Format(std::string_view Fmt, std::initializer_list<TVarRec> Args);
VEL_API std::string Format(std::string_view Fmt, const TVarRec* Args, size_t Count);
inline std::string Format(std::string_view Fmt, const std::vector<TVarRec>& Args) {
  return Format(Fmt, Args.data(), Args.size());
}

// ---------------------------------------------------------------------------
// Integer conversions

VEL_API std::string IntToStr(int64_t Value);
// Upper-case hex of the 64-bit pattern of Value, at least Digits digits.
VEL_API std::string IntToHex(uint64_t Value, int Digits);
// Integer types of 32 bits or less give their 32-bit two's complement
// (IntToHex(-1, 2) = "FFFFFFFF"), wider ones their 64-bit pattern.
template <class T>
  requires std::is_integral_v<T>
inline std::string IntToHex(T Value, int Digits) {
  if constexpr (sizeof(T) <= 4)
    return IntToHex(static_cast<uint64_t>(static_cast<uint32_t>(Value)), Digits);
  else
    return IntToHex(static_cast<uint64_t>(Value), Digits);
}

// Text to integer as the runtime's Val: leading blanks, an optional sign,
// decimal digits or hex after "$", "0x" or "0X"; no trailing characters.
// Hex texts may use the full unsigned range of the width and wrap
// ("$FFFFFFFF" = -1). Failures raise EConvertError "'<S>' is not a valid
// integer value".
VEL_API int32_t StrToInt(std::string_view S);
VEL_API int32_t StrToIntDef(std::string_view S, int32_t Default);
VEL_API bool TryStrToInt(std::string_view S, int32_t& Value);
VEL_API int64_t StrToInt64(std::string_view S);
VEL_API int64_t StrToInt64Def(std::string_view S, int64_t Default);
VEL_API bool TryStrToInt64(std::string_view S, int64_t& Value);

// ---------------------------------------------------------------------------
// Float and currency conversions

enum TFloatFormat : uint8_t { ffGeneral, ffExponent, ffFixed, ffNumber, ffCurrency };

// The shortest text that reads back (through StrToFloat) to the same
// value: to the same double when Value is exactly a double, else to the
// same Extended. Plain notation when the value is at least 0.00001 and has
// at most 15 integer digits ("0.00001", "1234.5", "0.30000000000000004"),
// else mantissa, "E" and the exponent without '+' or leading zeros ("1E20",
// "1.5E-7", "1E15"). Specials: "NAN", "INF", "-INF"; negative zero gives
// "-0".
VEL_API std::string FloatToStr(Extended Value);
// The shortest text that reads back to the same single.
VEL_API std::string SingleToStr(float Value);
// The runtime's FloatToStrF. Precision is the number of significant digits
// (1..18), Digits the minimum exponent digits (ffGeneral, ffExponent) or
// the number of decimals (ffFixed, ffNumber, ffCurrency; 0..18). Rounding
// is half away from zero on the value's 18-digit decimal form. ffGeneral
// uses plain notation when the integer part has at most Precision digits
// and the value is at least 0.00001, and omits '+' in the exponent;
// ffExponent always writes the exponent's sign. ffFixed falls back to
// ffGeneral when the integer part has more than Precision digits. A result
// that rounds to zero has no minus sign.
VEL_API std::string FloatToStrF(Extended Value, TFloatFormat Format, int Precision, int Digits);
// As FloatToStrF for an exact currency value.
VEL_API std::string CurrToStrF(Currency Value, TFloatFormat Format, int Digits);

// Text to float: leading and trailing blanks, an optional sign, digits with
// an optional '.', an optional exponent ("1e5", "1.5E-3"). No thousands
// separators, no "NAN"/"INF". Failures raise EConvertError "'<S>' is not a
// valid floating point value". The result is the nearest Extended; when the
// text denotes a double exactly the way FloatToStr writes it, converting the
// result to double gives that double (no double rounding).
VEL_API Extended StrToFloat(std::string_view S);
VEL_API Extended StrToFloatDef(std::string_view S, Extended Default);
VEL_API bool TryStrToFloat(std::string_view S, Extended& Value);
// Parses straight to the nearest double.
VEL_API bool TryStrToFloat(std::string_view S, double& Value);

// Shortest decimal text with up to 4 decimals: "1.5", "2", "-0.0001".
VEL_API std::string CurrToStr(Currency Value);
// Text to currency, read exactly into the scaled integer (no float
// rounding for texts with up to 4 decimals; more decimals round half to
// even). Same syntax as StrToFloat. Failures and overflow raise
// EConvertError "'<S>' is not a valid floating point value".
VEL_API Currency StrToCurr(std::string_view S);
VEL_API Currency StrToCurrDef(std::string_view S, Currency Default);
VEL_API bool TryStrToCurr(std::string_view S, Currency& Value);

// FormatFloat with the sections ';', digit placeholders '0' and '#', '.',
// ',' (thousands separators), "E+", "E-", "e+", "e-" and quoted literals.
VEL_API std::string FormatFloat(std::string_view Fmt, Extended Value);

// ---------------------------------------------------------------------------
// 80-bit Extended codec

// Writes V in the x87 extended layout, little-endian: bytes 0..7 the 64-bit
// mantissa with its explicit integer bit, bytes 8..9 the 15-bit exponent
// (bias 16383) and the sign in the top bit. Exact for every value: zeros,
// denormals, infinities and NaNs (payload kept where the host's long double
// is the x87 format; a quiet NaN otherwise).
VEL_API void ExtendedToBytes(Extended V, uint8_t Out[10]);
// Reads the layout above. Unnormals and pseudo-denormals (integer bit not
// matching the exponent) are read by their numeric value; pseudo-infinities
// and pseudo-NaNs (exponent all ones, integer bit clear) read as NaN.
VEL_API Extended BytesToExtended(const uint8_t In[10]);
// The 80-bit layout of a double, computed from the double's own bits
// (identical to ExtendedToBytes((Extended)V), without long double
// arithmetic).
VEL_API void DoubleToExtendedBytes(double V, uint8_t Out[10]);

// ---------------------------------------------------------------------------
// Dates and times

// Display settings. The defaults are English with a day-first short date.
struct VEL_API TFormatSettings {
  char DecimalSeparator = '.';
  char ThousandSeparator = ',';
  char DateSeparator = '/';
  char TimeSeparator = ':';
  std::string ShortDateFormat = "dd/mm/yyyy";
  std::string LongDateFormat = "dd mmmm yyyy";
  std::string ShortTimeFormat = "hh:nn";
  std::string LongTimeFormat = "hh:nn:ss";
  std::string TimeAMString = "AM";
  std::string TimePMString = "PM";
  std::string CurrencyString = "$";
  // 0 "$1", 1 "1$", 2 "$ 1", 3 "1 $"
  uint8_t CurrencyFormat = 0;
  // 0 "($1)", 1 "-$1", 2 "$-1", 3 "$1-", 4 "(1$)", 5 "-1$", 6 "1-$",
  // 7 "1$-", 8 "-1 $", 9 "-$ 1", 10 "1 $-", 11 "$ 1-", 12 "$ -1",
  // 13 "1- $", 14 "($ 1)", 15 "(1 $)"
  uint8_t NegCurrFormat = 1;
  uint8_t CurrencyDecimals = 2;
  // Two-digit years read by StrToDate fall within this many years before
  // or after the current year (0: the current century).
  uint16_t TwoDigitYearCenturyWindow = 50;
  std::string ShortMonthNames[12] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                     "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  std::string LongMonthNames[12] = {"January", "February", "March",     "April",
                                    "May",     "June",     "July",      "August",
                                    "September", "October", "November", "December"};
  // Index 0 is Sunday.
  std::string ShortDayNames[7] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  std::string LongDayNames[7] = {"Sunday",   "Monday", "Tuesday", "Wednesday",
                                 "Thursday", "Friday", "Saturday"};
};

VEL_API extern TFormatSettings FormatSettings;

inline constexpr int32_t DateDelta = 693594;        // days from 0001-01-01 to 1899-12-30
inline constexpr int32_t MSecsPerDay = 86400000;

VEL_API bool IsLeapYear(uint16_t Year);
// Days of Month in Year; 0 for a month outside 1..12.
VEL_API uint16_t DaysInAMonth(uint16_t Year, uint16_t Month);

// Year 1..9999, month 1..12, a day of that month. EncodeDate raises
// EConvertError "Invalid argument to date encode".
VEL_API bool TryEncodeDate(uint16_t Year, uint16_t Month, uint16_t Day, TDateTime& Date);
VEL_API TDateTime EncodeDate(uint16_t Year, uint16_t Month, uint16_t Day);
// Hour < 24, Min < 60, Sec < 60, MSec < 1000. EncodeTime raises
// EConvertError "Invalid argument to time encode".
VEL_API bool TryEncodeTime(uint16_t Hour, uint16_t Min, uint16_t Sec, uint16_t MSec,
                           TDateTime& Time);
VEL_API TDateTime EncodeTime(uint16_t Hour, uint16_t Min, uint16_t Sec, uint16_t MSec);
// A date plus a time of day, also for dates before 1899-12-30, where the
// time of day is subtracted: the fraction of a TDateTime is always the time
// since the day's start, in absolute value (-1.25 is 1899-12-29 06:00).
VEL_API TDateTime ComposeDateTime(TDateTime Date, TDateTime Time);

// Decoding rounds to the millisecond first (so 23:59:59.9996 is the next
// day's 00:00:00.000). The day is the integer part (truncated towards
// zero), the time of day the absolute fraction. Values outside years
// 1..9999 (or NaN) decode as zeros.
VEL_API void DecodeDate(TDateTime Date, uint16_t& Year, uint16_t& Month, uint16_t& Day);
VEL_API void DecodeTime(TDateTime Time, uint16_t& Hour, uint16_t& Min, uint16_t& Sec,
                        uint16_t& MSec);
VEL_API void DecodeDateTime(TDateTime Value, uint16_t& Year, uint16_t& Month, uint16_t& Day,
                            uint16_t& Hour, uint16_t& Min, uint16_t& Sec, uint16_t& MSec);
// 1 = Sunday .. 7 = Saturday.
VEL_API int DayOfWeek(TDateTime Date);

// The local date and time of the system clock.
VEL_API TDateTime Now();
VEL_API TDateTime Date();
VEL_API TDateTime Time();

// The runtime's FormatDateTime: d dd ddd dddd ddddd (short date) dddddd
// (long date), m mm mmm mmmm (minutes when right after an hour), yy yyyy,
// h hh, n nn, s ss, z zzz, t (short time), tt (long time), c (short date
// and long time; no time when it is midnight), am/pm, a/p, ampm (these
// make hours 12-hour), "/" and ":" (the separators), '...' and "..."
// literals. Letters are case-insensitive; other characters are copied.
VEL_API std::string FormatDateTime(std::string_view Fmt, TDateTime Value);
VEL_API std::string FormatDateTime(std::string_view Fmt, TDateTime Value,
                                   const TFormatSettings& Settings);
VEL_API std::string DateToStr(TDateTime Value);      // ShortDateFormat
VEL_API std::string TimeToStr(TDateTime Value);      // LongTimeFormat
VEL_API std::string DateTimeToStr(TDateTime Value);  // "c"

// Dates are read as numbers separated by DateSeparator, in the order of
// ShortDateFormat (day, month, year here); two numbers mean the current
// year; two-digit years use TwoDigitYearCenturyWindow. Times are
// "h:n[:s[.z]]" with an optional AM/PM. StrToDateTime reads a date, a
// time, or a date followed by a time. Failures raise EConvertError
// "'<S>' is not a valid date" / "... valid time" / "... valid date and time".
VEL_API TDateTime StrToDate(std::string_view S);
VEL_API bool TryStrToDate(std::string_view S, TDateTime& Value);
VEL_API TDateTime StrToTime(std::string_view S);
VEL_API bool TryStrToTime(std::string_view S, TDateTime& Value);
VEL_API TDateTime StrToDateTime(std::string_view S);
VEL_API bool TryStrToDateTime(std::string_view S, TDateTime& Value);

// ---------------------------------------------------------------------------
// Strings

// ASCII case mapping, as the runtime's UpperCase/LowerCase.
VEL_API std::string UpperCase(std::string_view S);
VEL_API std::string LowerCase(std::string_view S);
// Windows-1252 case mapping (accented letters, and the letters of
// 0x8A/0x9A, 0x8C/0x9C, 0x8E/0x9E, 0x9F/0xFF).
VEL_API std::string AnsiUpperCase(std::string_view S);
VEL_API std::string AnsiLowerCase(std::string_view S);
// Ordinal comparisons: < 0, 0, > 0. CompareText and SameText fold ASCII
// letters only; AnsiCompareText folds Windows-1252 letters.
VEL_API int CompareStr(std::string_view A, std::string_view B);
VEL_API int CompareText(std::string_view A, std::string_view B);
VEL_API bool SameText(std::string_view A, std::string_view B);
VEL_API int AnsiCompareText(std::string_view A, std::string_view B);
VEL_API bool AnsiSameText(std::string_view A, std::string_view B);

// Removes characters <= ' ' from both ends / the start / the end.
VEL_API std::string Trim(std::string_view S);
VEL_API std::string TrimLeft(std::string_view S);
VEL_API std::string TrimRight(std::string_view S);

// S in single quotes with inner quotes doubled.
VEL_API std::string QuotedStr(std::string_view S);
// Bytes read from a file, made fit to quote in a message: each control byte
// (below 32, and 127) becomes '#' and its decimal code, as the component
// text form writes it, so that a NUL does not cut what() short and no byte
// steers a terminal. Other bytes are kept.
VEL_API std::string EscapeControlChars(std::string_view S);
// S in Quote characters with inner Quote characters doubled.
VEL_API std::string AnsiQuotedStr(std::string_view S, char Quote);
// When S[Pos] is Quote, reads the quoted text from there (doubled quotes
// give one), returns it and advances Pos past the closing quote (or to the
// end of S when it is missing). Otherwise returns "" and leaves Pos.
VEL_API std::string AnsiExtractQuotedStr(std::string_view S, size_t& Pos, char Quote);
// The same on a view that is advanced past what was read.
VEL_API std::string AnsiExtractQuotedStr(std::string_view& S, char Quote);
// Removes the quotes when S is quoted, else returns S.
VEL_API std::string AnsiDequotedStr(std::string_view S, char Quote);

enum TReplaceFlag : uint8_t { rfReplaceAll, rfIgnoreCase };
using TReplaceFlags = TSet<TReplaceFlag>;
// rfIgnoreCase folds ASCII letters.
VEL_API std::string StringReplace(std::string_view S, std::string_view OldPattern,
                                  std::string_view NewPattern, TReplaceFlags Flags);

// One-based position of Sub in S, 0 when absent (the runtime's Pos).
VEL_API size_t Pos(std::string_view Sub, std::string_view S);

// ---------------------------------------------------------------------------
// File names and files

inline constexpr char PathDelim = '/';

// Path names use '/', and '\\' is accepted as a delimiter too when
// splitting names, since paths may come from Windows data.
VEL_API bool IsPathDelimiter(std::string_view S, size_t Index);  // zero-based
// Appends '/' unless S ends with a delimiter ("" gives "/", as the runtime
// gives its root delimiter).
VEL_API std::string IncludeTrailingPathDelimiter(std::string_view S);
VEL_API std::string ExcludeTrailingPathDelimiter(std::string_view S);
VEL_API std::string ExtractFilePath(std::string_view FileName);   // with the trailing delimiter
VEL_API std::string ExtractFileDir(std::string_view FileName);    // without it
VEL_API std::string ExtractFileName(std::string_view FileName);
VEL_API std::string ExtractFileExt(std::string_view FileName);    // with the dot
VEL_API std::string ChangeFileExt(std::string_view FileName, std::string_view Extension);

VEL_API bool FileExists(std::string_view FileName);       // a file, not a directory
VEL_API bool DirectoryExists(std::string_view Name);
// Creates Dir and any missing parents; true when the directory exists
// afterwards.
VEL_API bool ForceDirectories(std::string_view Dir);
VEL_API bool DeleteFile(std::string_view FileName);
VEL_API bool RenameFile(std::string_view OldName, std::string_view NewName);

// ---------------------------------------------------------------------------
// Windows-1252 and Unicode

// Each byte to its code point; 0x80..0x9F as Windows-1252 (0x80 is the euro
// sign), the five bytes Windows-1252 leaves undefined (0x81, 0x8D, 0x8F,
// 0x90, 0x9D) to the C1 controls of the same value, as Windows does.
VEL_API std::u16string Cp1252ToWide(std::string_view S);
// Characters without a Windows-1252 byte become '?'.
VEL_API std::string WideToCp1252(std::u16string_view S);
VEL_API std::string Cp1252ToUtf8(std::string_view S);
// Invalid UTF-8 (each maximal invalid subsequence) and code points without
// a Windows-1252 byte become '?'.
VEL_API std::string Utf8ToCp1252(std::string_view S);
// Surrogate pairs become one code point; lone surrogates become U+FFFD.
VEL_API std::string WideToUtf8(std::u16string_view S);
// Code points above U+FFFF become surrogate pairs; invalid UTF-8 becomes
// U+FFFD.
VEL_API std::u16string Utf8ToWide(std::string_view S);
// The Unicode code point of one Windows-1252 byte, and the byte of a code
// point ('?' when it has none).
VEL_API char16_t Cp1252CharToWide(uint8_t C);
VEL_API char WideCharToCp1252(char32_t C);

}  // namespace vel
