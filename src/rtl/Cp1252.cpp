// Windows-1252, UTF-8 and UTF-16 conversions, and the Windows-1252 case
// mapping used by AnsiUpperCase and friends.
#include <algorithm>
#include <array>

#include "vel/rtl/SysUtils.h"

namespace vel {

namespace {

// Code points of the bytes 0x80..0x9F. The five bytes Windows-1252 leaves
// undefined map to the C1 control of the same value, as Windows does.
constexpr char16_t kHighBlock[32] = {
    0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021,  // 80..87
    0x02C6, 0x2030, 0x0160, 0x2039, 0x0152, 0x008D, 0x017D, 0x008F,  // 88..8F
    0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014,  // 90..97
    0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178,  // 98..9F
};

constexpr char32_t kReplacement = 0xFFFD;
constexpr char32_t kInvalid = 0xFFFFFFFF;

// Decodes one UTF-8 sequence at S[I] and advances I. An invalid sequence
// yields kInvalid after consuming its maximal valid prefix (at least one
// byte), so that each maximal invalid subsequence gives one replacement.
char32_t DecodeUtf8(std::string_view S, size_t& I) {
  const auto B0 = static_cast<uint8_t>(S[I++]);
  if (B0 < 0x80) return B0;
  int Need;
  char32_t Cp;
  uint8_t Lo = 0x80, Hi = 0xBF;  // the range of the second byte
  if (B0 >= 0xC2 && B0 <= 0xDF) {
    Need = 1;
    Cp = B0 & 0x1F;
  } else if (B0 >= 0xE0 && B0 <= 0xEF) {
    Need = 2;
    Cp = B0 & 0x0F;
    if (B0 == 0xE0) Lo = 0xA0;
    if (B0 == 0xED) Hi = 0x9F;  // no surrogates
  } else if (B0 >= 0xF0 && B0 <= 0xF4) {
    Need = 3;
    Cp = B0 & 0x07;
    if (B0 == 0xF0) Lo = 0x90;
    if (B0 == 0xF4) Hi = 0x8F;
  } else {
    return kInvalid;
  }
  for (int K = 0; K < Need; ++K) {
    if (I >= S.size()) return kInvalid;
    const auto B = static_cast<uint8_t>(S[I]);
    const uint8_t L = K == 0 ? Lo : 0x80, H = K == 0 ? Hi : 0xBF;
    if (B < L || B > H) return kInvalid;
    Cp = (Cp << 6) | (B & 0x3F);
    ++I;
  }
  return Cp;
}

void AppendUtf8(std::string& Out, char32_t Cp) {
  if (Cp < 0x80) {
    Out += static_cast<char>(Cp);
  } else if (Cp < 0x800) {
    Out += static_cast<char>(0xC0 | (Cp >> 6));
    Out += static_cast<char>(0x80 | (Cp & 0x3F));
  } else if (Cp < 0x10000) {
    Out += static_cast<char>(0xE0 | (Cp >> 12));
    Out += static_cast<char>(0x80 | ((Cp >> 6) & 0x3F));
    Out += static_cast<char>(0x80 | (Cp & 0x3F));
  } else {
    Out += static_cast<char>(0xF0 | (Cp >> 18));
    Out += static_cast<char>(0x80 | ((Cp >> 12) & 0x3F));
    Out += static_cast<char>(0x80 | ((Cp >> 6) & 0x3F));
    Out += static_cast<char>(0x80 | (Cp & 0x3F));
  }
}

struct CaseTables {
  std::array<uint8_t, 256> Upper{}, Lower{};
  constexpr CaseTables() {
    for (int C = 0; C < 256; ++C) Upper[C] = Lower[C] = static_cast<uint8_t>(C);
    auto Pair = [this](int U, int L) {
      Upper[L] = static_cast<uint8_t>(U);
      Lower[U] = static_cast<uint8_t>(L);
    };
    for (int C = 'A'; C <= 'Z'; ++C) Pair(C, C + 32);
    for (int C = 0xC0; C <= 0xDE; ++C)
      if (C != 0xD7) Pair(C, C + 32);  // 0xD7 and 0xF7 are the multiply and divide signs
    Pair(0x8A, 0x9A);                  // S caron
    Pair(0x8C, 0x9C);                  // OE ligature
    Pair(0x8E, 0x9E);                  // Z caron
    Pair(0x9F, 0xFF);                  // Y diaeresis
  }
};
constexpr CaseTables kCase;

}  // namespace

char16_t Cp1252CharToWide(uint8_t C) {
  return (C >= 0x80 && C <= 0x9F) ? kHighBlock[C - 0x80] : static_cast<char16_t>(C);
}

char WideCharToCp1252(char32_t C) {
  if (C < 0x80 || (C >= 0xA0 && C <= 0xFF)) return static_cast<char>(C);
  for (int I = 0; I < 32; ++I)
    if (kHighBlock[I] == C) return static_cast<char>(0x80 + I);
  return '?';
}

std::u16string Cp1252ToWide(std::string_view S) {
  std::u16string R;
  R.resize(S.size());
  for (size_t I = 0; I < S.size(); ++I) R[I] = Cp1252CharToWide(static_cast<uint8_t>(S[I]));
  return R;
}

std::string WideToCp1252(std::u16string_view S) {
  std::string R;
  R.resize(S.size());
  // A surrogate pair is one character and gives one '?'.
  size_t N = 0;
  for (size_t I = 0; I < S.size(); ++I) {
    const char16_t C = S[I];
    if (C >= 0xD800 && C <= 0xDBFF && I + 1 < S.size() && S[I + 1] >= 0xDC00 &&
        S[I + 1] <= 0xDFFF) {
      R[N++] = '?';
      ++I;
      continue;
    }
    R[N++] = WideCharToCp1252(C);
  }
  R.resize(N);
  return R;
}

std::string Cp1252ToUtf8(std::string_view S) {
  std::string R;
  R.reserve(S.size() + S.size() / 4);
  for (char C : S) AppendUtf8(R, Cp1252CharToWide(static_cast<uint8_t>(C)));
  return R;
}

std::string Utf8ToCp1252(std::string_view S) {
  std::string R;
  R.reserve(S.size());
  size_t I = 0;
  while (I < S.size()) {
    const char32_t Cp = DecodeUtf8(S, I);
    R += Cp == kInvalid ? '?' : WideCharToCp1252(Cp);
  }
  return R;
}

std::string WideToUtf8(std::u16string_view S) {
  std::string R;
  R.reserve(S.size());
  for (size_t I = 0; I < S.size(); ++I) {
    char32_t C = S[I];
    if (C >= 0xD800 && C <= 0xDBFF) {
      if (I + 1 < S.size() && S[I + 1] >= 0xDC00 && S[I + 1] <= 0xDFFF) {
        C = 0x10000 + ((C - 0xD800) << 10) + (S[I + 1] - 0xDC00);
        ++I;
      } else {
        C = kReplacement;
      }
    } else if (C >= 0xDC00 && C <= 0xDFFF) {
      C = kReplacement;
    }
    AppendUtf8(R, C);
  }
  return R;
}

std::u16string Utf8ToWide(std::string_view S) {
  std::u16string R;
  R.reserve(S.size());
  size_t I = 0;
  while (I < S.size()) {
    char32_t Cp = DecodeUtf8(S, I);
    if (Cp == kInvalid) Cp = kReplacement;
    if (Cp >= 0x10000) {
      Cp -= 0x10000;
      R += static_cast<char16_t>(0xD800 + (Cp >> 10));
      R += static_cast<char16_t>(0xDC00 + (Cp & 0x3FF));
    } else {
      R += static_cast<char16_t>(Cp);
    }
  }
  return R;
}

std::string UpperCase(std::string_view S) {
  std::string R(S);
  for (char& C : R)
    if (C >= 'a' && C <= 'z') C = static_cast<char>(C - 32);
  return R;
}

std::string LowerCase(std::string_view S) {
  std::string R(S);
  for (char& C : R)
    if (C >= 'A' && C <= 'Z') C = static_cast<char>(C + 32);
  return R;
}

std::string AnsiUpperCase(std::string_view S) {
  std::string R(S);
  for (char& C : R) C = static_cast<char>(kCase.Upper[static_cast<uint8_t>(C)]);
  return R;
}

std::string AnsiLowerCase(std::string_view S) {
  std::string R(S);
  for (char& C : R) C = static_cast<char>(kCase.Lower[static_cast<uint8_t>(C)]);
  return R;
}

int AnsiCompareText(std::string_view A, std::string_view B) {
  const size_t N = std::min(A.size(), B.size());
  for (size_t I = 0; I < N; ++I) {
    const int X = kCase.Lower[static_cast<uint8_t>(A[I])];
    const int Y = kCase.Lower[static_cast<uint8_t>(B[I])];
    if (X != Y) return X - Y;
  }
  return A.size() < B.size() ? -1 : A.size() > B.size() ? 1 : 0;
}

bool AnsiSameText(std::string_view A, std::string_view B) {
  return A.size() == B.size() && AnsiCompareText(A, B) == 0;
}

}  // namespace vel
