// Conversions between the binary and the text form of component streams.
#include "vel/rtl/ObjectText.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <clocale>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <optional>

#include "vel/rtl/SysUtils.h"

namespace vel {

namespace {

// Message texts (the runtime's resource strings).
constexpr const char* SInvalidImage = "Invalid stream format";
constexpr const char* SPropertyException = "Error reading %s%s%s: %s";
constexpr const char* SParseError = "%s on line %d";
constexpr const char* SIdentifierExpected = "Identifier expected";
constexpr const char* SStringExpected = "String expected";
constexpr const char* SNumberExpected = "Number expected";
constexpr const char* SCharExpected = "'%s' expected";
constexpr const char* SSymbolExpected = "%s expected";
constexpr const char* SInvalidBinary = "Invalid binary value";
constexpr const char* SInvalidString = "Invalid string constant";
constexpr const char* SInvalidProperty = "Invalid property value";

constexpr int kMaxDepth = 128;   // as deep as the binary reader goes
constexpr size_t kLineLength = 64;  // characters of a string piece
constexpr size_t kBytesPerLine = 32;  // bytes of binary data per line
constexpr const char* kLineBreak = "\r\n";

// An error already reported with its object and property.
class EConvertReadError : public EReadError {
 public:
  using EReadError::EReadError;
};

struct TDepth {
  int& D;
  template <class E>
  TDepth(int& Depth, E&& Raise) : D(Depth) {
    if (++D > kMaxDepth) {
      --D;
      Raise();
    }
  }
  ~TDepth() { --D; }
};

bool IsIntegral(std::string_view T) {
  size_t I = (!T.empty() && T[0] == '-') ? 1 : 0;
  if (I >= T.size()) return false;
  for (; I < T.size(); ++I)
    if (T[I] < '0' || T[I] > '9') return false;
  return true;
}

// Whether a float text could be mistaken for an integer by the reader.
bool LooksIntegral(const std::string& T) {
  return T.find_first_of(".Ee") == std::string::npos && T.find_first_of("NI") == std::string::npos;
}

// V with Digits significant digits as d.ddd...E<exponent>, trailing zeros
// kept: they are what tells the reader that a text is not the shortest
// text of a double (see ReadFloatText).
std::string DigitsExtendedText(Extended V, int Digits) {
  char Buf[64];
  std::snprintf(Buf, sizeof Buf, "%.*Le", Digits - 1, V);
  std::string S(Buf);
  const size_t E = S.find_first_of("eE");
  if (E == std::string::npos) return FloatToStr(V);
  std::string Mant = S.substr(0, E);
  // The C library may use the locale's decimal separator.
  for (char& C : Mant)
    if (C != '-' && (C < '0' || C > '9')) C = '.';
  if (Mant.find('.') == std::string::npos) Mant += ".0";
  const int Exp = std::atoi(S.c_str() + E + 1);
  return Mant + "E" + std::to_string(Exp);
}

// Reads a float text (digits, '.', exponent) to the nearest Extended,
// subnormal values included, whatever the process locale.
bool ParseExtended(const std::string& T, Extended& V) {
  static const locale_t C = newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(nullptr));
  if (T.empty() || !C) return false;
  char* End = nullptr;
  V = strtold_l(T.c_str(), &End, C);
  return End == T.c_str() + T.size();
}

bool SameBits(Extended A, Extended B) {
  uint8_t X[10], Y[10];
  ExtendedToBytes(A, X);
  ExtendedToBytes(B, Y);
  return std::memcmp(X, Y, 10) == 0;
}

// The value the reader gives a float text without suffix: the nearest
// Extended, unless that is not a double and the text is exactly how
// FloatToStr writes a double; then that double (so that the shortest text
// of a double gives back the double, not the Extended nearest to it).
bool ReadFloatText(const std::string& T, Extended& V) {
  Extended X;
  if (!ParseExtended(T, X)) return false;
  if (static_cast<Extended>(static_cast<double>(X)) != X) {
    double D;
    if (TryStrToFloat(T, D) && FloatToStr(static_cast<Extended>(D)) == T) X = D;
  }
  V = X;
  return true;
}

// The text of a vaExtended that reads back to the same 10 bytes: the
// shortest text when it does, else the fewest significant digits (with
// their trailing zeros) that do. The shortest text of an Extended that is
// not a double may be the shortest text of a double too ("-1.5E-10"), and
// the reader takes such a text as that double; "-1.50E-10" is not how a
// double is written, so it reads as the nearest Extended. 21 digits tell
// any two Extended values apart, so the search always ends.
std::string ExtendedText(Extended V) {
  if (std::isnan(V) || std::isinf(V)) return FloatToStr(V);
  std::string T = FloatToStr(V);
  if (LooksIntegral(T)) T += ".0";
  Extended Back;
  if (ReadFloatText(T, Back) && SameBits(Back, V)) return T;
  for (int Digits = 2; Digits <= 21; ++Digits) {
    T = DigitsExtendedText(V, Digits);
    if (ReadFloatText(T, Back) && SameBits(Back, V)) return T;
  }
  return DigitsExtendedText(V, 21);
}

// ---------------------------------------------------------------------------
// Binary to text

class TBinaryToText {
 public:
  explicit TBinaryToText(TReader& R) : FReader(R) {}

  void ConvertObject() {
    TDepth G(FDepth, [] { throw EReadError(SInvalidImage); });
    ConvertHeader();
    ++FNest;
    while (!FReader.EndOfList()) ConvertProperty();
    FReader.ReadListEnd();
    while (!FReader.EndOfList()) ConvertObject();
    FReader.ReadListEnd();
    --FNest;
    Indent();
    Out += "end";
    Out += kLineBreak;
  }

  std::string Out;

 private:
  void Indent() { Out.append(static_cast<size_t>(FNest) * 2, ' '); }
  void NewLine() {
    Out += kLineBreak;
    Indent();
  }

  void ConvertHeader() {
    TFilerFlags Flags;
    int32_t Position;
    FReader.ReadPrefix(Flags, Position);
    const std::string ClassName = FReader.ReadStr();
    FObjectName = FReader.ReadStr();
    Indent();
    if (Flags.Contains(ffInherited)) Out += "inherited ";
    else if (Flags.Contains(ffInline)) Out += "inline ";
    else Out += "object ";
    if (!FObjectName.empty()) {
      Out += FObjectName;
      Out += ": ";
    }
    Out += ClassName;
    if (Flags.Contains(ffChildPos)) {
      Out += " [";
      Out += IntToStr(Position);
      Out += ']';
    }
    Out += kLineBreak;
  }

  void ConvertProperty() {
    Indent();
    FPropName = FReader.ReadStr();
    Out += FPropName;
    Out += " = ";
    try {
      ConvertValue();
    } catch (const EConvertReadError&) {
      throw;
    } catch (const Exception& E) {
      throw EConvertReadError(Format(SPropertyException, {EscapeControlChars(FObjectName), ".",
                                                            EscapeControlChars(FPropName), E.Message()}));
    }
    Out += kLineBreak;
  }

  void ConvertString(const std::u16string& W) {
    const size_t L = W.size();
    if (L == 0) {
      Out += "''";
      return;
    }
    ++FNest;
    if (L > kLineLength) NewLine();
    size_t I = 0;
    size_t K = 0;
    auto Plain = [](char16_t C) { return C >= 32 && C < 127 && C != '\''; };
    do {
      bool LineBreak = false;
      if (Plain(W[I])) {
        const size_t J = I;
        do ++I;
        while (I < L && Plain(W[I]) && I - K < kLineLength);
        if (I - K >= kLineLength) LineBreak = true;
        Out += '\'';
        for (size_t X = J; X < I; ++X) Out += static_cast<char>(W[X]);
        Out += '\'';
      } else {
        Out += '#';
        Out += std::to_string(static_cast<unsigned>(W[I]));
        ++I;
        if (I - K >= kLineLength) LineBreak = true;
      }
      if (LineBreak && I < L) {
        Out += " +";
        NewLine();
        K = I;
      }
    } while (I < L);
    --FNest;
  }

  void ConvertBinary() {
    uint8_t LenBytes[4];
    FReader.Read(LenBytes, 4);
    const int32_t Count = static_cast<int32_t>(LenBytes[0] | (LenBytes[1] << 8) | (LenBytes[2] << 16) |
                                               (static_cast<uint32_t>(LenBytes[3]) << 24));
    if (Count < 0) throw EReadError(SInvalidImage);
    Out += '{';
    ++FNest;
    const bool MultiLine = static_cast<size_t>(Count) >= kBytesPerLine;
    static const char Hex[] = "0123456789ABCDEF";
    uint8_t Buf[kBytesPerLine];
    int64_t Left = Count;
    while (Left > 0) {
      if (MultiLine) NewLine();
      const size_t N = static_cast<size_t>(std::min<int64_t>(Left, static_cast<int64_t>(kBytesPerLine)));
      FReader.Read(Buf, static_cast<int64_t>(N));
      for (size_t I = 0; I < N; ++I) {
        Out += Hex[Buf[I] >> 4];
        Out += Hex[Buf[I] & 15];
      }
      Left -= static_cast<int64_t>(N);
    }
    --FNest;
    Out += '}';
  }

  void ConvertValue() {
    TDepth G(FDepth, [] { throw EReadError(SInvalidImage); });
    const TValueType V = FReader.NextValue();
    switch (V) {
      case vaList:
        FReader.ReadValue();
        Out += '(';
        ++FNest;
        while (!FReader.EndOfList()) {
          NewLine();
          ConvertValue();
        }
        FReader.ReadListEnd();
        --FNest;
        Out += ')';
        return;
      case vaInt8:
      case vaInt16:
      case vaInt32:
        Out += IntToStr(FReader.ReadInteger());
        return;
      case vaInt64:
        Out += IntToStr(FReader.ReadInt64());
        return;
      case vaExtended:
        Out += ExtendedText(FReader.ReadFloat());
        return;
      case vaSingle:
        Out += SingleToStr(FReader.ReadSingle());
        Out += 's';
        return;
      case vaCurrency:
        Out += IntToStr(FReader.ReadCurrency().Value);
        Out += 'c';
        return;
      case vaDate:
        Out += FloatToStr(FReader.ReadDate().Value);
        Out += 'd';
        return;
      case vaString:
      case vaLString:
        ConvertString(Cp1252ToWide(FReader.ReadString()));
        return;
      case vaWString:
      case vaUTF8String:
        ConvertString(FReader.ReadWideString());
        return;
      case vaIdent:
      case vaFalse:
      case vaTrue:
      case vaNil:
      case vaNull:
        Out += FReader.ReadIdent();
        return;
      case vaBinary:
        FReader.ReadValue();
        ConvertBinary();
        return;
      case vaSet: {
        FReader.ReadValue();
        Out += '[';
        for (int I = 0;; ++I) {
          const std::string S = FReader.ReadStr();
          if (S.empty()) break;
          if (I > 0) Out += ", ";
          Out += S;
        }
        Out += ']';
        return;
      }
      case vaCollection:
        FReader.ReadValue();
        Out += '<';
        ++FNest;
        while (!FReader.EndOfList()) {
          NewLine();
          Out += "item";
          const TValueType N = FReader.NextValue();
          if (N == vaInt8 || N == vaInt16 || N == vaInt32) {
            Out += " [";
            ConvertValue();
            Out += ']';
          }
          Out += kLineBreak;
          FReader.CheckValue(vaList);
          ++FNest;
          while (!FReader.EndOfList()) ConvertProperty();
          FReader.ReadListEnd();
          --FNest;
          Indent();
          Out += "end";
        }
        FReader.ReadListEnd();
        --FNest;
        Out += '>';
        return;
    }
    throw EReadError(SInvalidImage);
  }

  TReader& FReader;
  int FNest = 0;
  int FDepth = 0;
  std::string FObjectName;
  std::string FPropName;
};

// ---------------------------------------------------------------------------
// Text to binary

enum TToken : int { toEOF = 0, toSymbol = 1, toString = 2, toInteger = 3, toFloat = 4, toSpecialFloat = 5 };

// The tokens of the text form.
class TParser {
 public:
  explicit TParser(std::string_view Text) : FText(Text) { NextToken(); }

  int Token() const { return FToken; }
  const std::string& TokenString() const { return FTokenString; }
  const std::u16string& TokenWide() const { return FWide; }
  char FloatType() const { return FFloatType; }
  int Line() const { return FLine; }

  // Msg may quote the text being parsed: its control bytes are escaped.
  [[noreturn]] void Error(const std::string& Msg) const {
    throw EParserError(Format(SParseError, {EscapeControlChars(Msg), FTokenLine}));
  }

  void CheckToken(int T) const {
    if (FToken == T) return;
    switch (T) {
      case toSymbol: Error(SIdentifierExpected);
      case toString: Error(SStringExpected);
      case toInteger:
      case toFloat: Error(SNumberExpected);
      default: Error(Format(SCharExpected, {std::string(1, static_cast<char>(T))}));
    }
  }
  bool TokenSymbolIs(std::string_view S) const { return FToken == toSymbol && SameText(FTokenString, S); }
  void CheckTokenSymbol(std::string_view S) const {
    if (!TokenSymbolIs(S)) Error(Format(SSymbolExpected, {std::string(S)}));
  }

  // A symbol and any ".symbol" parts right after it ("Form1.Button1").
  std::string TokenComponentIdent() {
    CheckToken(toSymbol);
    std::string S = FTokenString;
    while (FPos + 1 < FText.size() && FText[FPos] == '.' && IsIdentStart(FText[FPos + 1])) {
      ++FPos;
      const size_t Start = FPos;
      while (FPos < FText.size() && IsIdentChar(FText[FPos])) ++FPos;
      S += '.';
      S.append(FText.substr(Start, FPos - Start));
    }
    return S;
  }

  int64_t TokenInt() const {
    int64_t V;
    if (!TryStrToInt64(FTokenString, V))
      Error(Format(SInvalidInteger, {FTokenString}));
    return V;
  }

  // The bytes of "{ hex }"; the current token is '{'. Leaves the parser
  // on '}'.
  std::string HexToBinary() {
    std::string Data;
    auto HexValue = [](char C) {
      if (C >= '0' && C <= '9') return C - '0';
      if (C >= 'A' && C <= 'F') return C - 'A' + 10;
      if (C >= 'a' && C <= 'f') return C - 'a' + 10;
      return -1;
    };
    for (;;) {
      SkipBlanks();
      if (FPos >= FText.size()) Error(SInvalidBinary);
      if (FText[FPos] == '}') break;
      const int Hi = HexValue(FText[FPos]);
      const int Lo = FPos + 1 < FText.size() ? HexValue(FText[FPos + 1]) : -1;
      if (Hi < 0 || Lo < 0) Error(SInvalidBinary);
      Data += static_cast<char>(Hi * 16 + Lo);
      FPos += 2;
    }
    NextToken();
    return Data;
  }

  int NextToken() {
    SkipBlanks();
    FTokenLine = FLine;
    FTokenString.clear();
    FFloatType = 0;
    if (FPos >= FText.size()) return FToken = toEOF;
    const char C = FText[FPos];
    const size_t Start = FPos;
    if (IsIdentStart(C)) {
      while (FPos < FText.size() && IsIdentChar(FText[FPos])) ++FPos;
      FTokenString.assign(FText.substr(Start, FPos - Start));
      if (IsSpecialFloat(FTokenString)) return FToken = toSpecialFloat;
      return FToken = toSymbol;
    }
    if (C == '\'' || C == '#') return FToken = ReadString();
    if (C == '$') {
      ++FPos;
      while (FPos < FText.size() && std::isxdigit(static_cast<unsigned char>(FText[FPos]))) ++FPos;
      FTokenString.assign(FText.substr(Start, FPos - Start));
      return FToken = toInteger;
    }
    if (C == '-' || (C >= '0' && C <= '9')) {
      ++FPos;
      if (C == '-' && FPos < FText.size() && IsIdentStart(FText[FPos])) {
        // "-INF", "-INFs", "-INFd"
        while (FPos < FText.size() && IsIdentChar(FText[FPos])) ++FPos;
        FTokenString.assign(FText.substr(Start, FPos - Start));
        if (IsSpecialFloat(FTokenString)) return FToken = toSpecialFloat;
        FPos = Start + 1;
        FTokenString = "-";
        return FToken = toInteger;
      }
      while (FPos < FText.size() && FText[FPos] >= '0' && FText[FPos] <= '9') ++FPos;
      int T = toInteger;
      while (FPos < FText.size() && (std::isdigit(static_cast<unsigned char>(FText[FPos])) ||
                                     FText[FPos] == '.' || FText[FPos] == 'e' || FText[FPos] == 'E' ||
                                     FText[FPos] == '+' || FText[FPos] == '-')) {
        ++FPos;
        T = toFloat;
      }
      FTokenString.assign(FText.substr(Start, FPos - Start));
      if (FPos < FText.size() && std::strchr("cCdDsS", FText[FPos]) && FText[FPos] != 0) {
        FFloatType = static_cast<char>(std::toupper(static_cast<unsigned char>(FText[FPos])));
        ++FPos;
        T = toFloat;
      }
      return FToken = T;
    }
    ++FPos;
    FTokenString.assign(1, C);
    return FToken = static_cast<unsigned char>(C);
  }

 private:
  static bool IsIdentStart(char C) {
    return (C >= 'A' && C <= 'Z') || (C >= 'a' && C <= 'z') || C == '_';
  }
  static bool IsIdentChar(char C) { return IsIdentStart(C) || (C >= '0' && C <= '9'); }
  // NAN and INF, with an optional '-' and an optional s or d suffix.
  static bool IsSpecialFloat(std::string_view S) {
    if (!S.empty() && S[0] == '-') S.remove_prefix(1);
    if (S.size() == 4 && (S[3] == 's' || S[3] == 'S' || S[3] == 'd' || S[3] == 'D')) S.remove_suffix(1);
    return SameText(S, "NAN") || SameText(S, "INF");
  }

  void SkipBlanks() {
    while (FPos < FText.size() && static_cast<unsigned char>(FText[FPos]) <= ' ') {
      if (FText[FPos] == '\n') ++FLine;
      ++FPos;
    }
  }

  // Quoted pieces and #n characters, run together.
  int ReadString() {
    FWide.clear();
    for (;;) {
      if (FPos >= FText.size()) break;
      const char C = FText[FPos];
      if (C == '#') {
        ++FPos;
        uint32_t V = 0;
        size_t Digits = 0;
        if (FPos < FText.size() && FText[FPos] == '$') {
          ++FPos;
          while (FPos < FText.size() && std::isxdigit(static_cast<unsigned char>(FText[FPos]))) {
            const char H = FText[FPos++];
            V = V * 16 + static_cast<uint32_t>(H <= '9' ? H - '0' : (H | 0x20) - 'a' + 10);
            if (V > 0xFFFF) Error(SInvalidString);
            ++Digits;
          }
        } else {
          while (FPos < FText.size() && FText[FPos] >= '0' && FText[FPos] <= '9') {
            V = V * 10 + static_cast<uint32_t>(FText[FPos++] - '0');
            if (V > 0xFFFF) Error(SInvalidString);
            ++Digits;
          }
        }
        if (Digits == 0) Error(SInvalidString);
        FWide += static_cast<char16_t>(V);
      } else if (C == '\'') {
        ++FPos;
        for (;;) {
          if (FPos >= FText.size() || FText[FPos] == '\r' || FText[FPos] == '\n') Error(SInvalidString);
          const char D = FText[FPos++];
          if (D == '\'') {
            if (FPos < FText.size() && FText[FPos] == '\'') {
              ++FPos;
              FWide += u'\'';
              continue;
            }
            break;
          }
          // Characters outside ASCII are Windows-1252, the code page of
          // the runtime's text files.
          FWide += Cp1252CharToWide(static_cast<uint8_t>(D));
        }
      } else {
        break;
      }
    }
    return toString;
  }

  std::string_view FText;
  size_t FPos = 0;
  int FLine = 1;
  int FTokenLine = 1;
  int FToken = toEOF;
  std::string FTokenString;
  std::u16string FWide;
  char FFloatType = 0;
};

class TTextToBinary {
 public:
  TTextToBinary(TParser& P, TWriter& W) : FParser(P), FWriter(W) {}

  void ConvertObject() {
    TDepth G(FDepth, [this] { FParser.Error(SInvalidImage); });
    bool IsInherited = false, IsInline = false;
    if (FParser.TokenSymbolIs("INHERITED")) IsInherited = true;
    else if (FParser.TokenSymbolIs("INLINE")) IsInline = true;
    else FParser.CheckTokenSymbol("OBJECT");
    FParser.NextToken();
    ConvertHeader(IsInherited, IsInline);
    while (!FParser.TokenSymbolIs("END") && !FParser.TokenSymbolIs("OBJECT") &&
           !FParser.TokenSymbolIs("INHERITED") && !FParser.TokenSymbolIs("INLINE"))
      ConvertProperty();
    FWriter.WriteListEnd();
    while (!FParser.TokenSymbolIs("END")) ConvertObject();
    FWriter.WriteListEnd();
    FParser.NextToken();
  }

 private:
  std::optional<int32_t> ConvertOrderModifier() {
    if (FParser.Token() != '[') return std::nullopt;
    FParser.NextToken();
    FParser.CheckToken(toInteger);
    const int64_t V = FParser.TokenInt();
    if (V < INT32_MIN || V > INT32_MAX) FParser.Error(SInvalidProperty);
    FParser.NextToken();
    FParser.CheckToken(']');
    FParser.NextToken();
    return static_cast<int32_t>(V);
  }

  void ConvertHeader(bool IsInherited, bool IsInline) {
    FParser.CheckToken(toSymbol);
    std::string ClassName = FParser.TokenString();
    std::string ObjectName;
    if (FParser.NextToken() == ':') {
      FParser.NextToken();
      FParser.CheckToken(toSymbol);
      ObjectName = std::move(ClassName);
      ClassName = FParser.TokenString();
      FParser.NextToken();
    }
    TFilerFlags Flags;
    const std::optional<int32_t> Position = ConvertOrderModifier();
    if (IsInherited) Flags.Include(ffInherited);
    if (IsInline) Flags.Include(ffInline);
    if (Position) Flags.Include(ffChildPos);
    FWriter.WritePrefix(Flags, Position.value_or(0));
    FWriter.WriteStr(ClassName);
    FWriter.WriteStr(ObjectName);
  }

  void ConvertProperty() {
    FParser.CheckToken(toSymbol);
    std::string Name = FParser.TokenString();
    FParser.NextToken();
    while (FParser.Token() == '.') {
      FParser.NextToken();
      FParser.CheckToken(toSymbol);
      Name += '.';
      Name += FParser.TokenString();
      FParser.NextToken();
    }
    FWriter.WriteStr(Name);
    FParser.CheckToken('=');
    FParser.NextToken();
    ConvertValue();
  }

  void ConvertFloat() {
    const std::string& T = FParser.TokenString();
    switch (FParser.FloatType()) {
      case 'S': {
        float F;
        const auto R = std::from_chars(T.data(), T.data() + T.size(), F);
        if (R.ec != std::errc() || R.ptr != T.data() + T.size()) FParser.Error(Format(SInvalidFloat, {T}));
        FWriter.WriteSingle(F);
        return;
      }
      case 'D': {
        double D;
        if (!TryStrToFloat(T, D)) FParser.Error(Format(SInvalidFloat, {T}));
        FWriter.WriteDate(TDateTime(D));
        return;
      }
      case 'C': {
        // The scaled integer itself; a text with decimals is rounded.
        int64_t Scaled;
        if (IsIntegral(T)) {
          if (!TryStrToInt64(T, Scaled)) FParser.Error(Format(SInvalidFloat, {T}));
        } else {
          Extended X;
          if (!TryStrToFloat(T, X) || !(std::fabs(X) < 9.2e18L)) FParser.Error(Format(SInvalidFloat, {T}));
          Scaled = std::llrintl(X);
        }
        FWriter.WriteCurrency(Currency::FromScaled(Scaled));
        return;
      }
      default: {
        Extended X;
        if (!ReadFloatText(T, X)) FParser.Error(Format(SInvalidFloat, {T}));
        FWriter.WriteFloat(X);
      }
    }
  }

  void ConvertSpecialFloat() {
    std::string_view T = FParser.TokenString();
    const bool Neg = !T.empty() && T[0] == '-';
    if (Neg) T.remove_prefix(1);
    char Suffix = 0;
    if (T.size() == 4) {
      Suffix = static_cast<char>(std::toupper(static_cast<unsigned char>(T[3])));
      T.remove_suffix(1);
    }
    Extended V = SameText(T, "NAN") ? std::numeric_limits<Extended>::quiet_NaN()
                                    : std::numeric_limits<Extended>::infinity();
    if (Neg) V = -V;
    if (Suffix == 'S') FWriter.WriteSingle(static_cast<float>(V));
    else if (Suffix == 'D') FWriter.WriteDate(TDateTime(static_cast<double>(V)));
    else FWriter.WriteFloat(V);
  }

  void ConvertValue() {
    TDepth G(FDepth, [this] { FParser.Error(SInvalidImage); });
    if (FParser.Token() == toString) {
      std::u16string W = FParser.TokenWide();
      FParser.NextToken();
      while (FParser.Token() == '+') {
        FParser.NextToken();
        FParser.CheckToken(toString);
        W += FParser.TokenWide();
        FParser.NextToken();
      }
      FWriter.WriteWideString(W);
      return;
    }
    switch (FParser.Token()) {
      case toSymbol:
        FWriter.WriteIdent(FParser.TokenComponentIdent());
        break;
      case toSpecialFloat:
        ConvertSpecialFloat();
        break;
      case toInteger:
        FWriter.WriteInteger(FParser.TokenInt());
        break;
      case toFloat:
        ConvertFloat();
        break;
      case '[':
        FParser.NextToken();
        FWriter.WriteValue(vaSet);
        if (FParser.Token() != ']')
          for (;;) {
            if (FParser.Token() != toInteger) FParser.CheckToken(toSymbol);
            FWriter.WriteStr(FParser.TokenString());
            if (FParser.NextToken() == ']') break;
            FParser.CheckToken(',');
            FParser.NextToken();
          }
        FWriter.WriteStr(std::string_view());
        break;
      case '(':
        FParser.NextToken();
        FWriter.WriteListBegin();
        while (FParser.Token() != ')') ConvertValue();
        FWriter.WriteListEnd();
        break;
      case '{': {
        const std::string Data = FParser.HexToBinary();
        FWriter.WriteBinary(Data.data(), static_cast<int64_t>(Data.size()));
        break;
      }
      case '<':
        FParser.NextToken();
        FWriter.WriteValue(vaCollection);
        while (FParser.Token() != '>') {
          FParser.CheckTokenSymbol("item");
          FParser.NextToken();
          if (const std::optional<int32_t> Order = ConvertOrderModifier()) FWriter.WriteInteger(*Order);
          FWriter.WriteListBegin();
          while (!FParser.TokenSymbolIs("end")) ConvertProperty();
          FWriter.WriteListEnd();
          FParser.NextToken();
        }
        FWriter.WriteListEnd();
        break;
      default:
        FParser.Error(SInvalidProperty);
    }
    FParser.NextToken();
  }

  TParser& FParser;
  TWriter& FWriter;
  int FDepth = 0;
};

// The bytes from Stream's position to its end.
std::string ReadRest(TStream* Stream) {
  std::string S;
  char Buf[65536];
  for (;;) {
    const int64_t N = Stream->Read(Buf, sizeof Buf);
    if (N <= 0) break;
    S.append(Buf, static_cast<size_t>(N));
  }
  return S;
}

}  // namespace

void ObjectBinaryToText(TStream* Input, TStream* Output) {
  std::string Text;
  {
    TReader Reader(Input, 4096);
    Reader.ReadSignature();
    TBinaryToText Conv(Reader);
    Conv.ConvertObject();
    Text = std::move(Conv.Out);
  }
  Output->WriteBuffer(Text.data(), static_cast<int64_t>(Text.size()));
}

void ObjectTextToBinary(TStream* Input, TStream* Output) {
  const std::string Text = ReadRest(Input);
  TMemoryStream Binary;
  {
    TParser Parser(Text);
    TWriter Writer(&Binary);
    TTextToBinary Conv(Parser, Writer);
    Writer.WriteSignature();
    Conv.ConvertObject();
    Writer.FlushBuffer();
  }
  Output->WriteBuffer(Binary.Memory(), Binary.GetSize());
}

}  // namespace vel
