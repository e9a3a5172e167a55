// SysUtils: the 80-bit Extended codec, string helpers and file names.
#include "vel/rtl/SysUtils.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <limits>
#include <system_error>
#include <filesystem>

namespace vel {

// ---------------------------------------------------------------------------
// 80-bit Extended codec

namespace {

constexpr int kExtBias = 16383;
constexpr uint64_t kIntBit = 0x8000000000000000ull;
// Denormals are Mantissa x 2^(1 - bias - 63).
constexpr int kDenormShift = kExtBias - 1 + 63;

// Whether the host's long double is the x87 extended format, so that NaN
// payloads can be carried bit for bit.
constexpr bool kHostIsX87 = std::numeric_limits<long double>::digits == 64 &&
                            std::numeric_limits<long double>::max_exponent == 16384 &&
                            sizeof(long double) >= 10;

void PutLE(uint8_t Out[10], uint64_t Mant, uint16_t SignExp) {
  for (int I = 0; I < 8; ++I) Out[I] = static_cast<uint8_t>(Mant >> (8 * I));
  Out[8] = static_cast<uint8_t>(SignExp);
  Out[9] = static_cast<uint8_t>(SignExp >> 8);
}

using RawLD = std::array<uint8_t, sizeof(long double)>;

}  // namespace

void ExtendedToBytes(Extended V, uint8_t Out[10]) {
  const bool Neg = std::signbit(V);
  uint64_t Mant;
  uint16_t Exp;
  if (std::isnan(V)) {
    if constexpr (kHostIsX87) {
      const RawLD Raw = std::bit_cast<RawLD>(V);
      Mant = 0;
      for (int I = 0; I < 8; ++I) Mant |= static_cast<uint64_t>(Raw[I]) << (8 * I);
    } else {
      Mant = 0xC000000000000000ull;  // the default quiet NaN
    }
    Exp = 0x7FFF;
  } else if (std::isinf(V)) {
    Mant = kIntBit;
    Exp = 0x7FFF;
  } else if (V == 0) {
    Mant = 0;
    Exp = 0;
  } else {
    const long double A = std::fabs(V);
    int E;
    const long double M = std::frexp(A, &E);  // A = M x 2^E, 0.5 <= M < 1
    const int Biased = E - 1 + kExtBias;
    if (Biased >= 0x7FFF) {  // only on hosts with a wider long double
      Mant = kIntBit;
      Exp = 0x7FFF;
    } else if (Biased >= 1) {
      Mant = static_cast<uint64_t>(std::ldexp(M, 64));
      Exp = static_cast<uint16_t>(Biased);
    } else {
      Mant = static_cast<uint64_t>(std::ldexp(A, kDenormShift));
      Exp = 0;
    }
  }
  PutLE(Out, Mant, static_cast<uint16_t>(Exp | (Neg ? 0x8000 : 0)));
}

Extended BytesToExtended(const uint8_t In[10]) {
  uint64_t Mant = 0;
  for (int I = 0; I < 8; ++I) Mant |= static_cast<uint64_t>(In[I]) << (8 * I);
  const uint16_t SignExp = static_cast<uint16_t>(In[8] | (In[9] << 8));
  const bool Neg = SignExp & 0x8000;
  const int Exp = SignExp & 0x7FFF;
  long double V;
  if (Exp == 0x7FFF) {
    if (Mant == kIntBit) {
      V = std::numeric_limits<long double>::infinity();
    } else if (!(Mant & kIntBit)) {
      V = std::numeric_limits<long double>::quiet_NaN();  // pseudo-infinity or pseudo-NaN
    } else if constexpr (kHostIsX87) {
      RawLD Raw{};
      for (int I = 0; I < 10; ++I) Raw[I] = In[I];
      return std::bit_cast<long double>(Raw);
    } else {
      V = std::numeric_limits<long double>::quiet_NaN();
    }
  } else if (Exp == 0) {
    V = std::ldexp(static_cast<long double>(Mant), -kDenormShift);
  } else {
    V = std::ldexp(static_cast<long double>(Mant), Exp - kExtBias - 63);
  }
  return Neg ? -V : V;
}

void DoubleToExtendedBytes(double V, uint8_t Out[10]) {
  const uint64_t Bits = std::bit_cast<uint64_t>(V);
  const uint16_t Sign = (Bits >> 63) ? 0x8000 : 0;
  const int Exp = static_cast<int>((Bits >> 52) & 0x7FF);
  const uint64_t Frac = Bits & 0x000FFFFFFFFFFFFFull;
  uint64_t Mant;
  int E;
  if (Exp == 0x7FF) {
    // A signalling NaN becomes quiet on conversion, as the FPU does.
    Mant = Frac == 0 ? kIntBit : (kIntBit | (Frac << 11) | 0x4000000000000000ull);
    E = 0x7FFF;
  } else if (Exp == 0) {
    if (Frac == 0) {
      Mant = 0;
      E = 0;
    } else {  // a double denormal is a normal Extended
      const int Shift = std::countl_zero(Frac);
      Mant = Frac << Shift;
      E = 63 - 1074 - Shift + kExtBias;
    }
  } else {
    Mant = kIntBit | (Frac << 11);
    E = Exp - 1023 + kExtBias;
  }
  PutLE(Out, Mant, static_cast<uint16_t>(E | Sign));
}

// ---------------------------------------------------------------------------
// Strings

namespace {
inline char AsciiLower(char C) { return (C >= 'A' && C <= 'Z') ? static_cast<char>(C + 32) : C; }
}  // namespace

int CompareStr(std::string_view A, std::string_view B) {
  const size_t N = std::min(A.size(), B.size());
  for (size_t I = 0; I < N; ++I) {
    const int X = static_cast<uint8_t>(A[I]), Y = static_cast<uint8_t>(B[I]);
    if (X != Y) return X - Y;
  }
  return A.size() < B.size() ? -1 : A.size() > B.size() ? 1 : 0;
}

int CompareText(std::string_view A, std::string_view B) {
  const size_t N = std::min(A.size(), B.size());
  for (size_t I = 0; I < N; ++I) {
    const int X = static_cast<uint8_t>(AsciiLower(A[I])), Y = static_cast<uint8_t>(AsciiLower(B[I]));
    if (X != Y) return X - Y;
  }
  return A.size() < B.size() ? -1 : A.size() > B.size() ? 1 : 0;
}

bool SameText(std::string_view A, std::string_view B) {
  return A.size() == B.size() && CompareText(A, B) == 0;
}

std::string Trim(std::string_view S) {
  size_t B = 0, E = S.size();
  while (B < E && static_cast<uint8_t>(S[B]) <= ' ') ++B;
  while (E > B && static_cast<uint8_t>(S[E - 1]) <= ' ') --E;
  return std::string(S.substr(B, E - B));
}

std::string TrimLeft(std::string_view S) {
  size_t B = 0;
  while (B < S.size() && static_cast<uint8_t>(S[B]) <= ' ') ++B;
  return std::string(S.substr(B));
}

std::string TrimRight(std::string_view S) {
  size_t E = S.size();
  while (E > 0 && static_cast<uint8_t>(S[E - 1]) <= ' ') --E;
  return std::string(S.substr(0, E));
}

std::string AnsiQuotedStr(std::string_view S, char Quote) {
  std::string R;
  R.reserve(S.size() + 2);
  R += Quote;
  for (char C : S) {
    R += C;
    if (C == Quote) R += Quote;
  }
  R += Quote;
  return R;
}

std::string QuotedStr(std::string_view S) { return AnsiQuotedStr(S, '\''); }

std::string EscapeControlChars(std::string_view S) {
  std::string R;
  R.reserve(S.size());
  for (const char C : S) {
    const auto B = static_cast<unsigned char>(C);
    if (B < 32 || B == 127) {
      R += '#';
      R += std::to_string(B);
    } else {
      R += C;
    }
  }
  return R;
}

namespace {
// Reads the quoted text starting at S[Pos] (which is Quote). Closed tells
// whether the closing quote was found; End is the index after it (or the
// size of S).
std::string ExtractQuoted(std::string_view S, size_t Pos, char Quote, size_t& End, bool& Closed) {
  std::string R;
  size_t I = Pos + 1;
  while (I < S.size()) {
    if (S[I] == Quote) {
      if (I + 1 < S.size() && S[I + 1] == Quote) {
        R += Quote;
        I += 2;
        continue;
      }
      End = I + 1;
      Closed = true;
      return R;
    }
    R += S[I++];
  }
  End = S.size();
  Closed = false;
  return R;
}
}  // namespace

std::string AnsiExtractQuotedStr(std::string_view S, size_t& Pos, char Quote) {
  if (Pos >= S.size() || S[Pos] != Quote) return {};
  size_t End;
  bool Closed;
  std::string R = ExtractQuoted(S, Pos, Quote, End, Closed);
  Pos = End;  // without a closing quote: everything after the opening one
  return R;
}

std::string AnsiExtractQuotedStr(std::string_view& S, char Quote) {
  size_t Pos = 0;
  std::string R = AnsiExtractQuotedStr(S, Pos, Quote);
  S.remove_prefix(Pos);
  return R;
}

std::string AnsiDequotedStr(std::string_view S, char Quote) {
  if (S.empty() || S[0] != Quote) return std::string(S);
  size_t End;
  bool Closed;
  std::string R = ExtractQuoted(S, 0, Quote, End, Closed);
  // Only a text that is exactly one complete quoted string is dequoted.
  return Closed && End == S.size() ? R : std::string(S);
}

std::string StringReplace(std::string_view S, std::string_view OldPattern,
                          std::string_view NewPattern, TReplaceFlags Flags) {
  if (OldPattern.empty()) return std::string(S);
  const bool All = Flags.Contains(rfReplaceAll);
  const bool Fold = Flags.Contains(rfIgnoreCase);
  auto Matches = [&](size_t At) {
    for (size_t K = 0; K < OldPattern.size(); ++K) {
      const char A = S[At + K], B = OldPattern[K];
      if (Fold ? AsciiLower(A) != AsciiLower(B) : A != B) return false;
    }
    return true;
  };
  std::string R;
  R.reserve(S.size());
  size_t I = 0;
  while (I + OldPattern.size() <= S.size()) {
    if (Matches(I)) {
      R += NewPattern;
      I += OldPattern.size();
      if (!All) break;
    } else {
      R += S[I++];
    }
  }
  R.append(S.substr(I));
  return R;
}

size_t Pos(std::string_view Sub, std::string_view S) {
  if (Sub.empty()) return 0;
  const size_t P = S.find(Sub);
  return P == std::string_view::npos ? 0 : P + 1;
}

// ---------------------------------------------------------------------------
// File names

namespace {
inline bool IsDelim(char C) { return C == '/' || C == '\\'; }

// Index of the last delimiter, or npos.
size_t LastDelim(std::string_view S) {
  for (size_t I = S.size(); I > 0; --I)
    if (IsDelim(S[I - 1])) return I - 1;
  return std::string_view::npos;
}

std::string ZPath(std::string_view S) { return std::string(S); }
}  // namespace

bool IsPathDelimiter(std::string_view S, size_t Index) {
  return Index < S.size() && IsDelim(S[Index]);
}

std::string IncludeTrailingPathDelimiter(std::string_view S) {
  std::string R(S);
  if (R.empty() || !IsDelim(R.back())) R += PathDelim;
  return R;
}

std::string ExcludeTrailingPathDelimiter(std::string_view S) {
  std::string R(S);
  if (!R.empty() && IsDelim(R.back())) R.pop_back();
  return R;
}

std::string ExtractFilePath(std::string_view FileName) {
  const size_t P = LastDelim(FileName);
  return P == std::string_view::npos ? std::string() : std::string(FileName.substr(0, P + 1));
}

std::string ExtractFileDir(std::string_view FileName) {
  const size_t P = LastDelim(FileName);
  if (P == std::string_view::npos) return {};
  // The root keeps its delimiter.
  return std::string(FileName.substr(0, P == 0 ? 1 : P));
}

std::string ExtractFileName(std::string_view FileName) {
  const size_t P = LastDelim(FileName);
  return std::string(P == std::string_view::npos ? FileName : FileName.substr(P + 1));
}

std::string ExtractFileExt(std::string_view FileName) {
  const std::string_view Name = FileName.substr(
      LastDelim(FileName) == std::string_view::npos ? 0 : LastDelim(FileName) + 1);
  const size_t Dot = Name.rfind('.');
  return Dot == std::string_view::npos ? std::string() : std::string(Name.substr(Dot));
}

std::string ChangeFileExt(std::string_view FileName, std::string_view Extension) {
  const size_t D = LastDelim(FileName);
  const size_t Start = D == std::string_view::npos ? 0 : D + 1;
  const size_t Dot = FileName.rfind('.');
  std::string R(FileName.substr(0, (Dot != std::string_view::npos && Dot >= Start)
                                       ? Dot
                                       : FileName.size()));
  R += Extension;
  return R;
}

bool FileExists(std::string_view FileName) {
  struct stat St;
  return !FileName.empty() && ::stat(ZPath(FileName).c_str(), &St) == 0 && !S_ISDIR(St.st_mode);
}

bool DirectoryExists(std::string_view Name) {
  struct stat St;
  return !Name.empty() && ::stat(ZPath(Name).c_str(), &St) == 0 && S_ISDIR(St.st_mode);
}

bool ForceDirectories(std::string_view Dir) {
  const std::string D = ExcludeTrailingPathDelimiter(Dir);
  if (D.empty()) return Dir.empty() ? false : DirectoryExists("/");
  std::error_code Ec;
  std::filesystem::create_directories(std::filesystem::path(D), Ec);
  return DirectoryExists(D);
}

bool DeleteFile(std::string_view FileName) {
  return !FileName.empty() && !DirectoryExists(FileName) &&
         ::unlink(ZPath(FileName).c_str()) == 0;
}

bool RenameFile(std::string_view OldName, std::string_view NewName) {
  return ::rename(ZPath(OldName).c_str(), ZPath(NewName).c_str()) == 0;
}

}  // namespace vel
