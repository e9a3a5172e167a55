// Format with the runtime's directives, and the text conversions of
// integers, floats and currency. Everything here is locale-independent:
// digits are produced with std::to_chars/std::from_chars and the decimal
// separator is '.' except in the display formats %n and %m.
#include <algorithm>
#include <charconv>
#include <climits>
#include <cctype>
#include <cmath>
#include <cstring>
#include <vector>

#include "vel/rtl/SysUtils.h"

namespace vel {

namespace {

// Widths and precisions beyond this are rejected as invalid formats rather
// than allocating gigabytes of padding.
constexpr int kMaxWidth = 1 << 20;
// The most significant digits the runtime gives an Extended.
constexpr int kMaxPrecision = 18;

[[noreturn]] void RaiseInvalidFormat(std::string_view Fmt) {
  throw EConvertError(Format(SInvalidFormat, {Fmt}));
}

[[noreturn]] void RaiseInvalidFloat(std::string_view S) {
  throw EConvertError(Format(SInvalidFloat, {S}));
}

// ---------------------------------------------------------------------------
// Decimal digit strings

// A decimal value: 0.Digits x 10^Exp. Digits has no leading or trailing
// zeros; empty Digits is zero.
struct Decimal {
  enum TKind : uint8_t { Finite, NaN, Inf };
  TKind Kind = Finite;
  bool Neg = false;
  std::string Digits;
  int Exp = 0;
  bool IsZero() const { return Kind == Finite && Digits.empty(); }
};

void Normalize(Decimal& D) {
  const size_t First = D.Digits.find_first_not_of('0');
  if (First == std::string::npos) {
    D.Digits.clear();
    D.Exp = 0;
    return;
  }
  if (First > 0) {
    D.Digits.erase(0, First);
    D.Exp -= static_cast<int>(First);
  }
  const size_t Last = D.Digits.find_last_not_of('0');
  D.Digits.resize(Last + 1);
}

// Reads to_chars' scientific form "[-]d[.ddd]e(+|-)xx".
Decimal FromScientific(const char* P, const char* End) {
  Decimal D;
  if (P < End && *P == '-') {
    D.Neg = true;
    ++P;
  }
  for (; P < End && *P != 'e'; ++P)
    if (*P != '.') D.Digits += *P;
  int E = 0;
  if (P < End) {
    ++P;
    bool NegE = false;
    if (P < End && (*P == '+' || *P == '-')) NegE = *P++ == '-';
    for (; P < End; ++P) E = E * 10 + (*P - '0');
    if (NegE) E = -E;
  }
  D.Exp = E + 1;
  Normalize(D);
  return D;
}

bool Special(long double V, Decimal& D) {
  if (std::isnan(V)) {
    D.Kind = Decimal::NaN;
    return true;
  }
  if (std::isinf(V)) {
    D.Kind = Decimal::Inf;
    D.Neg = V < 0;
    return true;
  }
  return false;
}

bool IsExactDouble(long double V) {
  const double D = static_cast<double>(V);
  return static_cast<long double>(D) == V;
}

// The shortest digits that identify V: as a double when V is one.
Decimal ShortestDecimal(long double V) {
  Decimal D;
  if (Special(V, D)) return D;
  char Buf[64];
  std::to_chars_result R;
  if (IsExactDouble(V))
    R = std::to_chars(Buf, Buf + sizeof Buf, static_cast<double>(V), std::chars_format::scientific);
  else
    R = std::to_chars(Buf, Buf + sizeof Buf, V, std::chars_format::scientific);
  return FromScientific(Buf, R.ptr);
}

// V with Digits significant digits, correctly rounded.
Decimal DecimalWithDigits(long double V, int Digits) {
  Decimal D;
  if (Special(V, D)) return D;
  char Buf[128];
  const auto R =
      std::to_chars(Buf, Buf + sizeof Buf, V, std::chars_format::scientific, Digits - 1);
  D = FromScientific(Buf, R.ptr);
  if (std::signbit(V)) D.Neg = true;
  return D;
}

Decimal CurrencyDecimal(Currency C) {
  Decimal D;
  uint64_t M = static_cast<uint64_t>(C.Value);
  if (C.Value < 0) {
    D.Neg = true;
    M = 0 - M;
  }
  D.Digits = std::to_string(M);
  D.Exp = static_cast<int>(D.Digits.size()) - 4;
  Normalize(D);
  return D;
}

// Rounds half away from zero to at most Sig significant digits and at most
// Decimals digits after the point.
void RoundDecimal(Decimal& D, int Sig, int Decimals) {
  if (D.Kind != Decimal::Finite || D.Digits.empty()) return;
  const long Keep = std::min<long>(Sig, static_cast<long>(D.Exp) + Decimals);
  if (Keep >= static_cast<long>(D.Digits.size())) return;
  if (Keep < 0) {
    D.Digits.clear();
    D.Exp = 0;
    return;
  }
  const bool Up = D.Digits[Keep] >= '5';
  D.Digits.resize(Keep);
  if (Up) {
    long I = Keep - 1;
    while (I >= 0 && D.Digits[I] == '9') D.Digits[I--] = '0';
    if (I < 0) {
      D.Digits.insert(D.Digits.begin(), '1');
      ++D.Exp;
    } else {
      ++D.Digits[I];
    }
  }
  Normalize(D);
}

std::string SpecialText(const Decimal& D) {
  if (D.Kind == Decimal::NaN) return "NAN";
  return D.Neg ? "-INF" : "INF";
}

void AppendExponent(std::string& Out, int X, int MinDigits, bool PlusSign) {
  if (X < 0)
    Out += '-';
  else if (PlusSign)
    Out += '+';
  std::string E = std::to_string(X < 0 ? -static_cast<long>(X) : X);
  if (static_cast<int>(E.size()) < MinDigits) Out.append(MinDigits - E.size(), '0');
  Out += E;
}

// ffGeneral of an already rounded value.
std::string GeneralText(const Decimal& D, int Precision, int ExpDigits) {
  if (D.Kind != Decimal::Finite) return SpecialText(D);
  if (D.Digits.empty()) return "0";
  std::string Out;
  if (D.Neg) Out += '-';
  const int N = static_cast<int>(D.Digits.size());
  if (D.Exp > Precision || D.Exp < -4) {
    Out += D.Digits[0];
    if (N > 1) {
      Out += '.';
      Out.append(D.Digits, 1);
    }
    Out += 'E';
    AppendExponent(Out, D.Exp - 1, ExpDigits, false);
  } else if (D.Exp <= 0) {
    Out += "0.";
    Out.append(-D.Exp, '0');
    Out += D.Digits;
  } else {
    if (N <= D.Exp) {
      Out += D.Digits;
      Out.append(D.Exp - N, '0');
    } else {
      Out.append(D.Digits, 0, D.Exp);
      Out += '.';
      Out.append(D.Digits, D.Exp);
    }
  }
  return Out;
}

// ffExponent of an already rounded value: Precision mantissa digits.
std::string ExponentText(const Decimal& D, int Precision, int ExpDigits) {
  if (D.Kind != Decimal::Finite) return SpecialText(D);
  std::string M = D.Digits;
  if (static_cast<int>(M.size()) < Precision) M.append(Precision - M.size(), '0');
  std::string Out;
  if (D.Neg && !D.Digits.empty()) Out += '-';
  Out += M[0];
  if (Precision > 1) {
    Out += '.';
    Out.append(M, 1, Precision - 1);
  }
  Out += 'E';
  AppendExponent(Out, D.Digits.empty() ? 0 : D.Exp - 1, ExpDigits, true);
  return Out;
}

// Fixed notation without sign: Decimals decimals, integer digits grouped
// by Thousand when it is not 0.
std::string FixedDigits(const Decimal& D, int Decimals, char Thousand, char Point) {
  std::string Int;
  const int N = static_cast<int>(D.Digits.size());
  if (D.Exp <= 0) {
    Int = "0";
  } else {
    Int.assign(D.Digits, 0, std::min(N, D.Exp));
    if (N < D.Exp) Int.append(D.Exp - N, '0');
  }
  std::string Out;
  if (Thousand) {
    const size_t L = Int.size();
    for (size_t I = 0; I < L; ++I) {
      if (I > 0 && (L - I) % 3 == 0) Out += Thousand;
      Out += Int[I];
    }
  } else {
    Out = std::move(Int);
  }
  if (Decimals > 0) {
    Out += Point;
    for (int K = 0; K < Decimals; ++K) {
      const int Idx = D.Exp + K;  // digit index of the K-th decimal
      Out += (Idx >= 0 && Idx < N) ? D.Digits[Idx] : '0';
    }
  }
  return Out;
}

std::string CurrencyText(const std::string& Number, bool Neg, const TFormatSettings& FS) {
  const std::string& C = FS.CurrencyString;
  if (!Neg) {
    switch (FS.CurrencyFormat) {
      case 1: return Number + C;
      case 2: return C + " " + Number;
      case 3: return Number + " " + C;
      default: return C + Number;
    }
  }
  switch (FS.NegCurrFormat) {
    case 0: return "(" + C + Number + ")";
    case 1: return "-" + C + Number;
    case 2: return C + "-" + Number;
    case 3: return C + Number + "-";
    case 4: return "(" + Number + C + ")";
    case 5: return "-" + Number + C;
    case 6: return Number + "-" + C;
    case 7: return Number + C + "-";
    case 8: return "-" + Number + " " + C;
    case 9: return "-" + C + " " + Number;
    case 10: return Number + " " + C + "-";
    case 11: return C + " " + Number + "-";
    case 12: return C + " -" + Number;
    case 13: return Number + "- " + C;
    case 14: return "(" + C + " " + Number + ")";
    case 15: return "(" + Number + " " + C + ")";
    default: return "-" + C + Number;
  }
}

// The runtime's FloatToText on an unrounded decimal (18 digits of an
// Extended or the exact digits of a currency). MaxPrecision bounds the
// significant digits of the fixed formats.
std::string FormatDecimal(Decimal D, TFloatFormat Fmt, int Precision, int Digits,
                          int MaxPrecision) {
  if (D.Kind != Decimal::Finite) return SpecialText(D);
  Precision = std::clamp(Precision, 1, MaxPrecision);
  switch (Fmt) {
    case ffGeneral:
      RoundDecimal(D, Precision, INT_MAX / 2);
      return GeneralText(D, Precision, std::clamp(Digits, 0, 4));
    case ffExponent:
      RoundDecimal(D, Precision, INT_MAX / 2);
      return ExponentText(D, Precision, std::clamp(Digits, 0, 4));
    case ffFixed:
    case ffNumber:
    case ffCurrency: {
      Digits = std::clamp(Digits, 0, 18);
      Decimal R = D;
      RoundDecimal(R, Precision, Digits);
      if (R.Exp > Precision) {
        RoundDecimal(D, Precision, INT_MAX / 2);
        return GeneralText(D, Precision, 0);
      }
      const bool Neg = R.Neg && !R.Digits.empty();
      if (Fmt == ffFixed) return (Neg ? "-" : "") + FixedDigits(R, Digits, 0, '.');
      const std::string Number =
          FixedDigits(R, Digits, FormatSettings.ThousandSeparator, FormatSettings.DecimalSeparator);
      if (Fmt == ffNumber) return (Neg ? "-" : "") + Number;
      return CurrencyText(Number, Neg, FormatSettings);
    }
  }
  return {};
}

// ---------------------------------------------------------------------------
// Text to number

bool IsBlank(char C) { return C == ' '; }

// Checks the float syntax (blanks, sign, digits with an optional point, an
// optional exponent, blanks) and gives the text from_chars reads: without
// blanks and without a '+' sign. Mag is the decimal exponent of the first
// significant digit (INT_MIN for zero), used to tell overflow from
// underflow.
bool ScanFloat(std::string_view S, std::string& Clean, bool& Neg, long& Mag) {
  size_t I = 0, N = S.size();
  while (I < N && IsBlank(S[I])) ++I;
  while (N > I && IsBlank(S[N - 1])) --N;
  Neg = false;
  Clean.clear();
  if (I < N && (S[I] == '+' || S[I] == '-')) {
    Neg = S[I] == '-';
    if (Neg) Clean += '-';
    ++I;
  }
  long Digits = 0, IntDigits = 0, FirstSig = -1;  // FirstSig: index among all digits
  bool Point = false;
  for (; I < N; ++I) {
    const char C = S[I];
    if (C >= '0' && C <= '9') {
      if (C != '0' && FirstSig < 0) FirstSig = Digits;
      ++Digits;
      if (!Point) ++IntDigits;
    } else if (C == '.' && !Point) {
      Point = true;
    } else {
      break;
    }
    Clean += C;
  }
  if (Digits == 0) return false;
  long E = 0;
  if (I < N && (S[I] == 'e' || S[I] == 'E')) {
    Clean += 'e';
    ++I;
    bool NegE = false;
    if (I < N && (S[I] == '+' || S[I] == '-')) {
      NegE = S[I] == '-';
      if (NegE) Clean += '-';
      ++I;
    }
    const size_t Start = I;
    for (; I < N && S[I] >= '0' && S[I] <= '9'; ++I) {
      Clean += S[I];
      if (E < 100000000) E = E * 10 + (S[I] - '0');
    }
    if (I == Start) return false;
    if (NegE) E = -E;
  }
  if (I != N) return false;
  Mag = FirstSig < 0 ? LONG_MIN : IntDigits - 1 - FirstSig + E;
  return true;
}

template <class F>
bool ParseFloatAs(std::string_view S, F& Value) {
  std::string Clean;
  bool Neg;
  long Mag;
  if (!ScanFloat(S, Clean, Neg, Mag)) return false;
  F V{};
  const auto R = std::from_chars(Clean.data(), Clean.data() + Clean.size(), V);
  if (R.ec == std::errc::result_out_of_range) {
    if (Mag >= 0) return false;  // overflow
    V = Neg ? -F(0) : F(0);      // underflow reads as zero
  } else if (R.ec != std::errc() || R.ptr != Clean.data() + Clean.size()) {
    return false;
  }
  Value = V;
  return true;
}

bool ParseInteger(std::string_view S, int Bits, int64_t& Out) {
  size_t I = 0;
  const size_t N = S.size();
  while (I < N && IsBlank(S[I])) ++I;
  bool Neg = false;
  if (I < N && (S[I] == '+' || S[I] == '-')) Neg = S[I++] == '-';
  bool Hex = false;
  if (I < N && S[I] == '$') {
    Hex = true;
    ++I;
  } else if (I + 1 < N && S[I] == '0' && (S[I + 1] == 'x' || S[I + 1] == 'X')) {
    Hex = true;
    I += 2;
  } else if (I < N && (S[I] == 'x' || S[I] == 'X')) {
    Hex = true;
    ++I;
  }
  if (I == N) return false;
  uint64_t V = 0;
  if (Hex) {
    const uint64_t Max = Bits == 32 ? 0xFFFFFFFFull : ~0ull;
    for (; I < N; ++I) {
      const char C = S[I];
      int Dg;
      if (C >= '0' && C <= '9')
        Dg = C - '0';
      else if (C >= 'a' && C <= 'f')
        Dg = C - 'a' + 10;
      else if (C >= 'A' && C <= 'F')
        Dg = C - 'A' + 10;
      else
        return false;
      if (V > (Max >> 4)) return false;
      V = V * 16 + static_cast<uint64_t>(Dg);
    }
    if (Neg) V = 0 - V;
    Out = Bits == 32 ? static_cast<int64_t>(static_cast<int32_t>(static_cast<uint32_t>(V)))
                     : static_cast<int64_t>(V);
    return true;
  }
  const uint64_t Limit = (1ull << (Bits - 1)) - (Neg ? 0 : 1);
  for (; I < N; ++I) {
    const char C = S[I];
    if (C < '0' || C > '9') return false;
    const uint64_t Dg = static_cast<uint64_t>(C - '0');
    if (V > (Limit - Dg) / 10) return false;
    V = V * 10 + Dg;
  }
  Out = Neg ? static_cast<int64_t>(0 - V) : static_cast<int64_t>(V);
  return true;
}

// ---------------------------------------------------------------------------
// Format

std::string UnsignedText(uint64_t V, int Base, int MinDigits) {
  char Buf[32];
  auto R = std::to_chars(Buf, Buf + sizeof Buf, V, Base);
  std::string S(Buf, R.ptr);
  if (Base == 16)
    for (char& C : S) C = static_cast<char>(std::toupper(static_cast<unsigned char>(C)));
  if (static_cast<int>(S.size()) < MinDigits) S.insert(0, MinDigits - S.size(), '0');
  return S;
}

bool FloatArg(const TVarRec& A, Decimal& D, bool& IsCurr, Currency& C, long double& X) {
  if (A.VType == TVarRec::vtExtended) {
    IsCurr = false;
    X = A.VExtended;
    D = DecimalWithDigits(X, kMaxPrecision);
    return true;
  }
  if (A.VType == TVarRec::vtCurrency) {
    IsCurr = true;
    C = A.VCurrency;
    D = CurrencyDecimal(C);
    return true;
  }
  return false;
}

}  // namespace

TVarRec::TVarRec(const std::u16string& V)
    : VType(vtString), VPointer(nullptr), FOwned(true), FOwnedStr(WideToCp1252(V)) {}

TVarRec::TVarRec(const char16_t* V)
    : VType(vtString),
      VPointer(nullptr),
      FOwned(true),
      FOwnedStr(WideToCp1252(V ? std::u16string_view(V) : std::u16string_view())) {}

std::string Format(std::string_view Fmt, std::initializer_list<TVarRec> Args) {
  return Format(Fmt, Args.begin(), Args.size());
}

std::string Format(std::string_view Fmt, const TVarRec* Args, size_t Count) {
  std::string Out;
  Out.reserve(Fmt.size() + 16 * Count);
  size_t ArgIndex = 0;
  const size_t N = Fmt.size();
  size_t I = 0;

  // A number of the directive: digits, or '*' taking the next integer
  // argument. Returns false when there is none.
  auto ReadNumber = [&](long& V) -> bool {
    if (I < N && Fmt[I] == '*') {
      ++I;
      if (ArgIndex >= Count || Args[ArgIndex].VType != TVarRec::vtInteger) RaiseInvalidFormat(Fmt);
      V = Args[ArgIndex++].VInteger;
      return true;
    }
    if (I >= N || Fmt[I] < '0' || Fmt[I] > '9') return false;
    V = 0;
    for (; I < N && Fmt[I] >= '0' && Fmt[I] <= '9'; ++I) {
      V = V * 10 + (Fmt[I] - '0');
      if (V > kMaxWidth) RaiseInvalidFormat(Fmt);
    }
    return true;
  };

  while (I < N) {
    if (Fmt[I] != '%') {
      const size_t Next = Fmt.find('%', I);
      const size_t End = Next == std::string_view::npos ? N : Next;
      Out.append(Fmt, I, End - I);
      I = End;
      continue;
    }
    ++I;
    if (I >= N) RaiseInvalidFormat(Fmt);
    if (Fmt[I] == '%') {
      Out += '%';
      ++I;
      continue;
    }
    long Width = 0, Prec = -1, Num = 0;
    bool Left = false;
    bool HaveNum = ReadNumber(Num);
    if (HaveNum && I < N && Fmt[I] == ':') {
      if (Num < 0) RaiseInvalidFormat(Fmt);
      ArgIndex = static_cast<size_t>(Num);
      ++I;
      HaveNum = false;
    }
    if (HaveNum) {
      Width = Num;
    } else {
      if (I < N && Fmt[I] == '-') {
        Left = true;
        ++I;
      }
      if (ReadNumber(Num)) Width = Num;
    }
    if (Width < 0) {  // a negative '*' width justifies left
      Left = true;
      Width = -Width;
    }
    if (Width > kMaxWidth) RaiseInvalidFormat(Fmt);
    if (I < N && Fmt[I] == '.') {
      ++I;
      if (!ReadNumber(Num)) RaiseInvalidFormat(Fmt);
      Prec = Num < 0 ? -1 : Num;
      if (Prec > kMaxWidth) RaiseInvalidFormat(Fmt);
    }
    if (I >= N) RaiseInvalidFormat(Fmt);
    const char Type = static_cast<char>(std::toupper(static_cast<unsigned char>(Fmt[I++])));
    if (ArgIndex >= Count) RaiseInvalidFormat(Fmt);
    const TVarRec& A = Args[ArgIndex++];

    std::string Text;
    switch (Type) {
      case 'D': {
        int64_t V;
        if (A.VType == TVarRec::vtInteger)
          V = A.VInteger;
        else if (A.VType == TVarRec::vtInt64)
          V = A.VInt64;
        else
          RaiseInvalidFormat(Fmt);
        const uint64_t M = V < 0 ? 0 - static_cast<uint64_t>(V) : static_cast<uint64_t>(V);
        Text = (V < 0 ? "-" : "") + UnsignedText(M, 10, static_cast<int>(Prec));
        break;
      }
      case 'U':
      case 'X': {
        uint64_t V;
        if (A.VType == TVarRec::vtInteger)
          V = static_cast<uint32_t>(A.VInteger);
        else if (A.VType == TVarRec::vtInt64)
          V = static_cast<uint64_t>(A.VInt64);
        else
          RaiseInvalidFormat(Fmt);
        Text = UnsignedText(V, Type == 'U' ? 10 : 16, static_cast<int>(Prec));
        break;
      }
      case 'E':
      case 'F':
      case 'G':
      case 'N':
      case 'M': {
        Decimal D;
        bool IsCurr = false;
        Currency C;
        long double X = 0;
        if (!FloatArg(A, D, IsCurr, C, X)) RaiseInvalidFormat(Fmt);
        const int MaxP = IsCurr ? 19 : kMaxPrecision;
        const int P = static_cast<int>(std::min<long>(Prec, 18));
        switch (Type) {
          case 'E':
            Text = FormatDecimal(D, ffExponent, Prec < 0 ? 15 : P, 3, MaxP);
            break;
          case 'F':
            Text = FormatDecimal(D, ffFixed, MaxP, Prec < 0 ? 2 : P, MaxP);
            break;
          case 'G':
            if (Prec < 0)
              Text = IsCurr ? CurrToStr(C) : FloatToStr(X);
            else
              Text = FormatDecimal(D, ffGeneral, P, 0, MaxP);
            break;
          case 'N':
            Text = FormatDecimal(D, ffNumber, MaxP, Prec < 0 ? 2 : P, MaxP);
            break;
          default:
            Text = FormatDecimal(D, ffCurrency, MaxP,
                                 Prec < 0 ? FormatSettings.CurrencyDecimals : P, MaxP);
            break;
        }
        break;
      }
      case 'P':
        if (A.VType != TVarRec::vtPointer) RaiseInvalidFormat(Fmt);
        Text = UnsignedText(reinterpret_cast<uintptr_t>(A.VPointer), 16, 16);
        break;
      case 'S':
        if (A.VType == TVarRec::vtString)
          Text = A.Str();
        else if (A.VType == TVarRec::vtChar)
          Text.assign(1, A.VChar);
        else if (A.VType == TVarRec::vtWideChar)
          Text.assign(1, WideCharToCp1252(A.VWideChar));
        else
          RaiseInvalidFormat(Fmt);
        if (Prec >= 0 && Text.size() > static_cast<size_t>(Prec)) Text.resize(Prec);
        break;
      default:
        RaiseInvalidFormat(Fmt);
    }
    if (Width > static_cast<long>(Text.size())) {
      if (Left)
        Text.append(Width - Text.size(), ' ');
      else
        Text.insert(0, Width - Text.size(), ' ');
    }
    Out += Text;
  }
  return Out;
}

// ---------------------------------------------------------------------------
// Integers

std::string IntToStr(int64_t Value) {
  char Buf[24];
  const auto R = std::to_chars(Buf, Buf + sizeof Buf, Value);
  return std::string(Buf, R.ptr);
}

std::string IntToHex(uint64_t Value, int Digits) {
  return UnsignedText(Value, 16, std::min(Digits, 64));
}

bool TryStrToInt(std::string_view S, int32_t& Value) {
  int64_t V;
  if (!ParseInteger(S, 32, V)) return false;
  Value = static_cast<int32_t>(V);
  return true;
}

int32_t StrToInt(std::string_view S) {
  int32_t V;
  if (!TryStrToInt(S, V)) throw EConvertError(Format(SInvalidInteger, {S}));
  return V;
}

int32_t StrToIntDef(std::string_view S, int32_t Default) {
  int32_t V;
  return TryStrToInt(S, V) ? V : Default;
}

bool TryStrToInt64(std::string_view S, int64_t& Value) { return ParseInteger(S, 64, Value); }

int64_t StrToInt64(std::string_view S) {
  int64_t V;
  if (!ParseInteger(S, 64, V)) throw EConvertError(Format(SInvalidInteger, {S}));
  return V;
}

int64_t StrToInt64Def(std::string_view S, int64_t Default) {
  int64_t V;
  return ParseInteger(S, 64, V) ? V : Default;
}

// ---------------------------------------------------------------------------
// Floats

bool TryStrToFloat(std::string_view S, double& Value) { return ParseFloatAs(S, Value); }

bool TryStrToFloat(std::string_view S, Extended& Value) {
  Extended L;
  if (!ParseFloatAs(S, L)) return false;
  // Converting L to double could round twice: when L lies exactly halfway
  // between two doubles, the tie may go away from the double nearest to
  // the text. Step L one unit towards that double so that both readings
  // agree. (FloatToStr never writes such a text for an Extended value
  // itself; it adds digits until the text reads back exactly.)
  double D;
  if (std::isfinite(L) && ParseFloatAs(S, D) && std::isfinite(D) &&
      static_cast<double>(L) != D)
    L = std::nextafter(L, static_cast<long double>(D));
  Value = L;
  return true;
}

Extended StrToFloat(std::string_view S) {
  Extended V;
  if (!TryStrToFloat(S, V)) RaiseInvalidFloat(S);
  return V;
}

Extended StrToFloatDef(std::string_view S, Extended Default) {
  Extended V;
  return TryStrToFloat(S, V) ? V : Default;
}

std::string FloatToStr(Extended Value) {
  if (Value == 0) return std::signbit(Value) ? "-0" : "0";
  std::string Text = GeneralText(ShortestDecimal(Value), 15, 0);
  if (!std::isfinite(Value) || IsExactDouble(Value)) return Text;
  // An Extended that is not a double: make sure the text reads back to
  // exactly this value through StrToFloat (see the tie rule there).
  for (int Digits = 2; Digits <= 40; ++Digits) {
    Extended Back;
    if (TryStrToFloat(Text, Back) && Back == Value) return Text;
    Decimal D = DecimalWithDigits(Value, Digits);
    Text = GeneralText(D, 15, 0);
  }
  return Text;
}

std::string SingleToStr(float Value) {
  if (Value == 0) return std::signbit(Value) ? "-0" : "0";
  Decimal D;
  if (Special(Value, D)) return SpecialText(D);
  char Buf[48];
  const auto R = std::to_chars(Buf, Buf + sizeof Buf, Value, std::chars_format::scientific);
  return GeneralText(FromScientific(Buf, R.ptr), 15, 0);
}

std::string FloatToStrF(Extended Value, TFloatFormat Fmt, int Precision, int Digits) {
  return FormatDecimal(DecimalWithDigits(Value, kMaxPrecision), Fmt, Precision, Digits,
                       kMaxPrecision);
}

std::string CurrToStrF(Currency Value, TFloatFormat Fmt, int Digits) {
  return FormatDecimal(CurrencyDecimal(Value), Fmt, 19, Digits, 19);
}

// ---------------------------------------------------------------------------
// Currency

std::string CurrToStr(Currency Value) { return GeneralText(CurrencyDecimal(Value), 19, 0); }

bool TryStrToCurr(std::string_view S, Currency& Value) {
  std::string Clean;
  bool Neg;
  long Mag;
  if (!ScanFloat(S, Clean, Neg, Mag)) return false;
  // Digits and the decimal exponent of the last one.
  std::string Digits;
  long Exp = 0, Frac = 0;
  bool Point = false;
  size_t I = Neg ? 1 : 0;
  for (; I < Clean.size() && Clean[I] != 'e'; ++I) {
    if (Clean[I] == '.') {
      Point = true;
    } else {
      Digits += Clean[I];
      if (Point) ++Frac;
    }
  }
  if (I < Clean.size()) {
    long E = 0;
    bool NegE = false;
    ++I;
    if (Clean[I] == '-') {
      NegE = true;
      ++I;
    }
    for (; I < Clean.size(); ++I)
      if (E < 100000000) E = E * 10 + (Clean[I] - '0');
    Exp = NegE ? -E : E;
  }
  const size_t First = Digits.find_first_not_of('0');
  if (First == std::string::npos) {
    Value = Currency::FromScaled(0);
    return true;
  }
  Digits.erase(0, First);
  // Value = Digits x 10^Shift in units of 1/10000.
  long Shift = Exp - Frac + 4;
  if (Shift < 0) {
    const long Drop = -Shift;
    if (Drop > static_cast<long>(Digits.size())) {
      Value = Currency::FromScaled(0);  // far below the last decimal
      return true;
    }
    const std::string Rest = Digits.substr(Digits.size() - Drop);
    Digits.resize(Digits.size() - Drop);
    // Round half to even on the dropped digits.
    int Cmp;  // Rest against one half
    if (Rest[0] != '5')
      Cmp = Rest[0] < '5' ? -1 : 1;
    else
      Cmp = Rest.find_first_not_of('0', 1) == std::string::npos ? 0 : 1;
    const bool Odd = !Digits.empty() && ((Digits.back() - '0') & 1);
    bool Up = Cmp > 0 || (Cmp == 0 && Odd);
    unsigned __int128 M = 0;
    for (char C : Digits) {
      M = M * 10 + static_cast<unsigned>(C - '0');
      if (M > (static_cast<unsigned __int128>(1) << 64)) return false;
    }
    if (Up) ++M;
    const unsigned __int128 Limit = static_cast<unsigned __int128>(INT64_MAX) + (Neg ? 1 : 0);
    if (M > Limit) return false;
    Value = Currency::FromScaled(Neg ? static_cast<int64_t>(0 - static_cast<uint64_t>(M))
                                     : static_cast<int64_t>(M));
    return true;
  }
  if (static_cast<long>(Digits.size()) + Shift > 20) return false;
  unsigned __int128 M = 0;
  for (char C : Digits) M = M * 10 + static_cast<unsigned>(C - '0');
  for (long K = 0; K < Shift; ++K) M *= 10;
  const unsigned __int128 Limit = static_cast<unsigned __int128>(INT64_MAX) + (Neg ? 1 : 0);
  if (M > Limit) return false;
  Value = Currency::FromScaled(Neg ? static_cast<int64_t>(0 - static_cast<uint64_t>(M))
                                   : static_cast<int64_t>(M));
  return true;
}

Currency StrToCurr(std::string_view S) {
  Currency C;
  if (!TryStrToCurr(S, C)) RaiseInvalidFloat(S);
  return C;
}

Currency StrToCurrDef(std::string_view S, Currency Default) {
  Currency C;
  return TryStrToCurr(S, C) ? C : Default;
}

// ---------------------------------------------------------------------------
// FormatFloat

namespace {

// One section of a FormatFloat pattern, analysed.
struct FloatPattern {
  int IntPlaces = 0;    // '0' and '#' before the point
  int MinInt = 0;       // integer digits always shown (from the first '0')
  int FracPlaces = 0;   // '0' and '#' after the point
  int MinFrac = 0;      // decimals always shown (up to the last '0')
  bool Thousands = false;
  bool Sci = false;
  int ExpDigits = 0;
};

// Splits Fmt into its ';' sections, ignoring ';' inside quotes.
std::vector<std::string_view> FloatSections(std::string_view Fmt) {
  std::vector<std::string_view> R;
  size_t Start = 0;
  char Quote = 0;
  for (size_t I = 0; I < Fmt.size(); ++I) {
    const char C = Fmt[I];
    if (Quote) {
      if (C == Quote) Quote = 0;
    } else if (C == '\'' || C == '"') {
      Quote = C;
    } else if (C == ';') {
      R.push_back(Fmt.substr(Start, I - Start));
      Start = I + 1;
    }
  }
  R.push_back(Fmt.substr(Start));
  return R;
}

bool IsExpAt(std::string_view F, size_t I) {
  return (F[I] == 'E' || F[I] == 'e') && I + 1 < F.size() && (F[I + 1] == '+' || F[I + 1] == '-');
}

FloatPattern AnalysePattern(std::string_view F) {
  FloatPattern P;
  bool Point = false;
  int FirstZero = -1;
  for (size_t I = 0; I < F.size(); ++I) {
    const char C = F[I];
    if (C == '\'' || C == '"') {
      const size_t E = F.find(C, I + 1);
      I = E == std::string_view::npos ? F.size() : E;
    } else if (C == '0' || C == '#') {
      if (Point) {
        ++P.FracPlaces;
        if (C == '0') P.MinFrac = P.FracPlaces;
      } else {
        if (C == '0' && FirstZero < 0) FirstZero = P.IntPlaces;
        ++P.IntPlaces;
      }
    } else if (C == '.') {
      Point = true;
    } else if (C == ',') {
      if (!Point) P.Thousands = true;
    } else if (!P.Sci && IsExpAt(F, I)) {
      P.Sci = true;
      I += 2;
      while (I < F.size() && F[I] == '0') {
        ++P.ExpDigits;
        ++I;
      }
      --I;
    }
  }
  P.MinInt = FirstZero < 0 ? 0 : P.IntPlaces - FirstZero;
  return P;
}

}  // namespace

std::string FormatFloat(std::string_view Fmt, Extended Value) {
  if (!std::isfinite(Value)) return FloatToStr(Value);
  if (Fmt.empty()) return FloatToStr(Value);
  const std::vector<std::string_view> Sections = FloatSections(Fmt);
  std::string_view F = Sections[0];
  bool ShowMinus = Value < 0;
  if (Value < 0 && Sections.size() > 1 && !Sections[1].empty()) {
    F = Sections[1];
    ShowMinus = false;
  } else if (Value == 0 && Sections.size() > 2 && !Sections[2].empty()) {
    F = Sections[2];
  }
  const FloatPattern P = AnalysePattern(F);

  Decimal D = DecimalWithDigits(std::fabs(Value), kMaxPrecision);
  D.Neg = false;
  int Exponent = 0;
  std::string Int, Frac;
  if (P.Sci) {
    RoundDecimal(D, std::max(1, P.IntPlaces + P.FracPlaces), INT_MAX / 2);
    if (!D.IsZero()) Exponent = D.Exp - P.IntPlaces;
    const int IntCount = P.IntPlaces;
    for (int K = 0; K < IntCount; ++K)
      Int += K < static_cast<int>(D.Digits.size()) ? D.Digits[K] : '0';
    for (size_t K = IntCount; K < D.Digits.size(); ++K) Frac += D.Digits[K];
    const size_t First = Int.find_first_not_of('0');
    Int.erase(0, First == std::string::npos ? Int.size() : First);
  } else {
    RoundDecimal(D, kMaxPrecision, P.FracPlaces);
    const int N = static_cast<int>(D.Digits.size());
    if (D.Exp > 0) {
      Int.assign(D.Digits, 0, std::min(N, D.Exp));
      if (N < D.Exp) Int.append(D.Exp - N, '0');
    }
    for (int K = 0; K < P.FracPlaces; ++K) {
      const int Idx = D.Exp + K;
      Frac += (Idx >= 0 && Idx < N) ? D.Digits[Idx] : '0';
    }
  }
  if (static_cast<int>(Frac.size()) > P.FracPlaces) Frac.resize(P.FracPlaces);
  if (static_cast<int>(Frac.size()) < P.MinFrac) Frac.append(P.MinFrac - Frac.size(), '0');
  while (static_cast<int>(Frac.size()) > P.MinFrac && !Frac.empty() && Frac.back() == '0')
    Frac.pop_back();
  if (static_cast<int>(Int.size()) < P.MinInt) Int.insert(0, P.MinInt - Int.size(), '0');
  const bool AllZero = Int.find_first_not_of('0') == std::string::npos &&
                       Frac.find_first_not_of('0') == std::string::npos;

  std::string Out;
  if (ShowMinus && !AllZero) Out += '-';
  const int L = static_cast<int>(Int.size());
  auto EmitInt = [&](int J) {
    if (P.Thousands && J > 0 && (L - J) % 3 == 0) Out += FormatSettings.ThousandSeparator;
    Out += Int[J];
  };
  int IntSlot = 0, FracSlot = 0;
  bool Point = false, ExpDone = false;
  for (size_t I = 0; I < F.size(); ++I) {
    const char C = F[I];
    if (C == '\'' || C == '"') {
      const size_t E = F.find(C, I + 1);
      const size_t End = E == std::string_view::npos ? F.size() : E;
      Out.append(F.substr(I + 1, End - I - 1));
      I = End;
    } else if (C == '0' || C == '#') {
      if (Point) {
        if (FracSlot < static_cast<int>(Frac.size())) Out += Frac[FracSlot];
        ++FracSlot;
      } else {
        if (IntSlot == 0)
          for (int J = 0; J < L - P.IntPlaces; ++J) EmitInt(J);
        const int J = IntSlot - (P.IntPlaces - L);
        if (J >= 0) EmitInt(J);
        ++IntSlot;
      }
    } else if (C == '.') {
      if (!Point && !Frac.empty()) Out += FormatSettings.DecimalSeparator;
      Point = true;
    } else if (C == ',') {
      // thousands marker: shown through the digits
    } else if (!ExpDone && P.Sci && IsExpAt(F, I)) {
      ExpDone = true;
      Out += C;
      if (Exponent < 0)
        Out += '-';
      else if (F[I + 1] == '+')
        Out += '+';
      std::string E = std::to_string(Exponent < 0 ? -Exponent : Exponent);
      if (static_cast<int>(E.size()) < P.ExpDigits) E.insert(0, P.ExpDigits - E.size(), '0');
      Out += E;
      I += 1;
      while (I + 1 < F.size() && F[I + 1] == '0') ++I;
    } else {
      Out += C;
    }
  }
  return Out;
}

}  // namespace vel
