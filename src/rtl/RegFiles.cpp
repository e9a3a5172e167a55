// Registry files: reading, importing and exporting regedit's two forms.
#include "vel/rtl/RegFiles.h"

#include <algorithm>
#include <map>
#include <memory>

#include "RegistryHive.h"
#include "vel/rtl/Streams.h"
#include "vel/rtl/SysUtils.h"

namespace vel {

namespace {

constexpr std::string_view HeaderV4 = "REGEDIT4";
constexpr std::string_view HeaderV5 = "Windows Registry Editor Version 5.00";
constexpr const char* SParseError = "%s on line %d";
constexpr const char* SKeyNotFound = "Key not found: %s";

// Hex lines are broken once they reach this many characters.
constexpr size_t HexLineBreak = 77;

[[noreturn]] void Fail(const std::string& What, int Line) {
  throw ERegFileError(Format(SParseError, {What, Line}));
}

bool IsBlank(char C) { return C == ' ' || C == '\t'; }

std::string_view TrimRight(std::string_view S) {
  while (!S.empty() && (IsBlank(S.back()) || S.back() == '\r')) S.remove_suffix(1);
  return S;
}

std::string_view TrimLeft(std::string_view S) {
  while (!S.empty() && IsBlank(S.front())) S.remove_prefix(1);
  return S;
}

int HexDigit(char C) {
  if (C >= '0' && C <= '9') return C - '0';
  if (C >= 'a' && C <= 'f') return C - 'a' + 10;
  if (C >= 'A' && C <= 'F') return C - 'A' + 10;
  return -1;
}

bool StartsWithNoCase(std::string_view S, std::string_view P) {
  return S.size() >= P.size() && SameText(S.substr(0, P.size()), P);
}

// The text as UTF-8, whatever its encoding.
std::string DecodeText(std::string_view Bytes) {
  if (Bytes.size() >= 2 && uint8_t(Bytes[0]) == 0xFF && uint8_t(Bytes[1]) == 0xFE) {
    std::u16string W;
    W.reserve(Bytes.size() / 2);
    for (size_t I = 2; I + 1 < Bytes.size(); I += 2)
      W.push_back(char16_t(uint8_t(Bytes[I]) | (uint8_t(Bytes[I + 1]) << 8)));
    return WideToUtf8(W);
  }
  if (Bytes.size() >= 3 && Bytes.substr(0, 3) == "\xEF\xBB\xBF") return std::string(Bytes.substr(3));
  return Cp1252ToUtf8(Bytes);
}

std::vector<uint8_t> Utf16Data(std::u16string_view W, bool Terminate) {
  std::vector<uint8_t> D;
  D.reserve(W.size() * 2 + 2);
  for (const char16_t C : W) {
    D.push_back(uint8_t(C & 0xFF));
    D.push_back(uint8_t(C >> 8));
  }
  if (Terminate) {
    D.push_back(0);
    D.push_back(0);
  }
  return D;
}

std::u16string FromLE(const std::vector<uint8_t>& D) {
  std::u16string W;
  W.reserve(D.size() / 2);
  for (size_t I = 0; I + 1 < D.size(); I += 2) W.push_back(char16_t(D[I] | (D[I + 1] << 8)));
  return W;
}

class TParser {
 public:
  explicit TParser(std::string_view Bytes) : FText(DecodeText(Bytes)) {}

  TRegFileContent Run() {
    TRegFileContent R;
    std::string_view First;
    while (NextLine(First)) {
      First = TrimLeft(TrimRight(First));
      if (!First.empty()) break;
    }
    if (First == HeaderV5) R.Format = TRegFileFormat::Version5;
    else if (First == HeaderV4) R.Format = TRegFileFormat::Regedit4;
    else Fail("Registry file header expected", std::max(FLine, 1));
    FFormat = R.Format;

    bool InSection = false, Deleted = false;
    HKEY Root = 0;
    std::string Path;
    std::string_view Line;
    while (NextLine(Line)) {
      const int At = FLine;
      Line = TrimLeft(TrimRight(Line));
      if (Line.empty() || Line[0] == ';') continue;
      if (Line[0] == '[') {
        if (Line.back() != ']') Fail("']' expected", At);
        std::string_view Inner = Line.substr(1, Line.size() - 2);
        Deleted = !Inner.empty() && Inner[0] == '-';
        if (Deleted) Inner.remove_prefix(1);
        const size_t Slash = Inner.find('\\');
        const std::string_view Hive = Inner.substr(0, Slash);
        if (!RootKeyFromName(Hive, Root)) Fail(Format("Unknown root key '%s'", {std::string(Hive)}), At);
        Path.clear();
        if (Slash != std::string_view::npos) {
          for (const std::string_view Part : detail::SplitKeyPath(Inner.substr(Slash + 1))) {
            if (Part.size() > 255) Fail("Key name too long", At);
            if (!Path.empty()) Path += '\\';
            Path += Part;
          }
        }
        if (Deleted && Path.empty()) Fail("A root key cannot be deleted", At);
        TRegFileEntry E;
        E.Kind = Deleted ? TRegFileEntry::DeleteKey : TRegFileEntry::CreateKey;
        E.Line = At;
        E.Root = Root;
        E.Path = Path;
        R.Entries.push_back(std::move(E));
        InSection = true;
        continue;
      }
      if (Line[0] != '"' && Line[0] != '@') Fail("Invalid line", At);
      if (!InSection) Fail("Value outside a key", At);
      TRegFileEntry E;
      E.Line = At;
      E.Root = Root;
      E.Path = Path;
      size_t Pos = 0;
      if (Line[0] == '@') {
        Pos = 1;
      } else if (!ReadQuoted(Line, Pos, E.Name)) {
        Fail("Unterminated name", At);
      }
      std::string_view Rest = TrimLeft(Line.substr(Pos));
      if (Rest.empty() || Rest[0] != '=') Fail("'=' expected", At);
      Rest = TrimLeft(Rest.substr(1));
      ParseData(Rest, E, At);
      if (!Deleted) R.Entries.push_back(std::move(E));
    }
    return R;
  }

 private:
  bool NextLine(std::string_view& Line) {
    if (FPos > FText.size()) return false;
    size_t End = FText.find('\n', FPos);
    if (End == std::string::npos) End = FText.size();
    Line = std::string_view(FText).substr(FPos, End - FPos);
    FPos = End + 1;
    ++FLine;
    return true;
  }

  // Reads "..." at S[Pos] with \\ and \" unescaped; Pos ends after it.
  static bool ReadQuoted(std::string_view S, size_t& Pos, std::string& Out) {
    ++Pos;
    while (Pos < S.size()) {
      const char C = S[Pos++];
      if (C == '"') return true;
      if (C == '\\' && Pos < S.size() && (S[Pos] == '\\' || S[Pos] == '"')) {
        Out += S[Pos++];
        continue;
      }
      Out += C;
    }
    return false;
  }

  // What may follow a complete value: blanks and a comment.
  static void ExpectEnd(std::string_view Rest, int At) {
    Rest = TrimLeft(Rest);
    if (!Rest.empty() && Rest[0] != ';') Fail("Unexpected text after the value", At);
  }

  void ParseData(std::string_view Rest, TRegFileEntry& E, int At) {
    if (!Rest.empty() && Rest[0] == '-') {
      ExpectEnd(Rest.substr(1), At);
      E.Kind = TRegFileEntry::DeleteValue;
      return;
    }
    E.Kind = TRegFileEntry::SetValue;
    if (!Rest.empty() && Rest[0] == '"') {
      size_t Pos = 0;
      std::string Text;
      if (!ReadQuoted(Rest, Pos, Text)) Fail("Unterminated string", At);
      ExpectEnd(Rest.substr(Pos), At);
      E.Value = TRegValue{REG_SZ, Utf16Data(Utf8ToWide(Text), true)};
      return;
    }
    if (StartsWithNoCase(Rest, "dword:")) {
      Rest.remove_prefix(6);
      uint32_t V = 0;
      size_t N = 0;
      while (N < Rest.size() && HexDigit(Rest[N]) >= 0) {
        if (N == 8) Fail("Invalid dword value", At);
        V = (V << 4) | uint32_t(HexDigit(Rest[N++]));
      }
      if (N == 0) Fail("Invalid dword value", At);
      ExpectEnd(Rest.substr(N), At);
      E.Value = TRegValue{REG_DWORD, {uint8_t(V), uint8_t(V >> 8), uint8_t(V >> 16), uint8_t(V >> 24)}};
      return;
    }
    if (!StartsWithNoCase(Rest, "hex")) Fail("Invalid value data", At);
    Rest.remove_prefix(3);
    uint32_t Type = REG_BINARY;
    if (!Rest.empty() && Rest[0] == '(') {
      size_t N = 1;
      Type = 0;
      while (N < Rest.size() && HexDigit(Rest[N]) >= 0) {
        if (N == 9) Fail("Invalid value type", At);
        Type = (Type << 4) | uint32_t(HexDigit(Rest[N++]));
      }
      if (N == 1 || N >= Rest.size() || Rest[N] != ')') Fail("Invalid value type", At);
      Rest.remove_prefix(N + 1);
    }
    if (Rest.empty() || Rest[0] != ':') Fail("':' expected", At);
    Rest.remove_prefix(1);
    E.Value.Type = Type;
    ReadHex(Rest, E.Value.Data, At);
    if (FFormat == TRegFileFormat::Regedit4 && (Type == REG_EXPAND_SZ || Type == REG_MULTI_SZ)) {
      // REGEDIT4 holds these strings in 8 bits; the registry in UTF-16.
      const std::string Narrow(E.Value.Data.begin(), E.Value.Data.end());
      E.Value.Data = Utf16Data(Cp1252ToWide(Narrow), false);
    }
  }

  // Bytes "xx,xx,..." possibly continued on following lines after a
  // trailing backslash.
  void ReadHex(std::string_view First, std::vector<uint8_t>& Out, int At) {
    std::string All(TrimRight(First));
    while (!All.empty() && All.back() == '\\') {
      All.pop_back();
      std::string_view Next;
      if (!NextLine(Next)) Fail("Invalid hex data", At);
      All += TrimRight(TrimLeft(Next));
    }
    const std::string_view S(All);
    size_t I = 0;
    auto SkipBlanks = [&] {
      while (I < S.size() && IsBlank(S[I])) ++I;
    };
    auto AtEnd = [&] { return I == S.size() || S[I] == ';'; };
    SkipBlanks();
    while (!AtEnd()) {
      if (HexDigit(S[I]) < 0) Fail("Invalid hex data", At);
      int V = HexDigit(S[I++]);
      if (I < S.size() && HexDigit(S[I]) >= 0) V = V * 16 + HexDigit(S[I++]);
      Out.push_back(uint8_t(V));
      SkipBlanks();
      if (AtEnd()) break;
      if (S[I] != ',') Fail("Invalid hex data", At);
      ++I;
      SkipBlanks();
      if (AtEnd()) Fail("Invalid hex data", At);  // a comma ends no list
    }
  }

  std::string FText;
  size_t FPos = 0;
  int FLine = 0;
  TRegFileFormat FFormat = TRegFileFormat::Version5;
};

// ---------------------------------------------------------------------------
// Writing

void AppendEscaped(std::string& Out, std::string_view S) {
  for (const char C : S) {
    if (C == '\\' || C == '"') Out += '\\';
    Out += C;
  }
}

size_t CharCount(std::string_view Utf8) {
  size_t N = 0;
  for (const char C : Utf8)
    if ((uint8_t(C) & 0xC0) != 0x80) ++N;
  return N;
}

bool Representable1252(std::u16string_view W) {
  for (const char16_t C : W)
    if (WideCharToCp1252(C) == '?' && C != u'?') return false;
  return true;
}

// A REG_SZ whose bytes a quoted string gives back exactly.
bool QuotableString(const TRegValue& V, TRegFileFormat F, std::u16string& Text) {
  if (V.Data.size() < 2 || V.Data.size() % 2 != 0) return false;
  Text = FromLE(V.Data);
  if (Text.back() != 0) return false;
  Text.pop_back();
  for (size_t I = 0; I < Text.size(); ++I) {
    const char16_t C = Text[I];
    if (C == 0 || C == u'\r' || C == u'\n') return false;
    // Only whole surrogate pairs survive the way through UTF-8.
    if (C >= 0xD800 && C <= 0xDBFF && I + 1 < Text.size() && Text[I + 1] >= 0xDC00 && Text[I + 1] <= 0xDFFF) {
      ++I;
      continue;
    }
    if (C >= 0xD800 && C <= 0xDFFF) return false;
  }
  return F == TRegFileFormat::Version5 || Representable1252(Text);
}

void AppendHex(std::string& Out, const std::vector<uint8_t>& Data, size_t LineLen) {
  static const char Digits[] = "0123456789abcdef";
  for (size_t I = 0; I < Data.size(); ++I) {
    Out += Digits[Data[I] >> 4];
    Out += Digits[Data[I] & 15];
    if (I + 1 == Data.size()) break;
    Out += ',';
    LineLen += 3;
    if (LineLen >= HexLineBreak) {
      Out += "\\\r\n  ";
      LineLen = 2;
    }
  }
}

// regedit writes hexadecimal digits in lower case.
std::string LowerHex(uint32_t V, int MinDigits) {
  static const char Digits[] = "0123456789abcdef";
  std::string R;
  do {
    R.insert(R.begin(), Digits[V & 15]);
    V >>= 4;
  } while (V);
  while (int(R.size()) < MinDigits) R.insert(R.begin(), '0');
  return R;
}

std::string Encode(const std::string& Utf8, TRegFileFormat F) {
  if (F == TRegFileFormat::Regedit4) return Utf8ToCp1252(Utf8);
  const std::u16string W = Utf8ToWide(Utf8);
  std::string Out("\xFF\xFE", 2);
  Out.reserve(2 + W.size() * 2);
  for (const char16_t C : W) {
    Out += char(C & 0xFF);
    Out += char(C >> 8);
  }
  return Out;
}

}  // namespace

TRegFileContent ParseRegText(std::string_view Bytes) { return TParser(Bytes).Run(); }

std::string RegValueLine(std::string_view NameUtf8, const TRegValue& Value, TRegFileFormat Format_) {
  std::string Line;
  if (NameUtf8.empty()) {
    Line = "@=";
  } else {
    Line = "\"";
    AppendEscaped(Line, NameUtf8);
    Line += "\"=";
  }
  std::u16string Text;
  if (Value.Type == REG_SZ && QuotableString(Value, Format_, Text)) {
    Line += '"';
    AppendEscaped(Line, WideToUtf8(Text));
    Line += '"';
    return Line;
  }
  if (Value.Type == REG_DWORD && Value.Data.size() == 4) {
    const uint32_t V = uint32_t(Value.Data[0]) | uint32_t(Value.Data[1]) << 8 | uint32_t(Value.Data[2]) << 16 |
                       uint32_t(Value.Data[3]) << 24;
    Line += "dword:" + LowerHex(V, 8);
    return Line;
  }
  const std::vector<uint8_t>* Data = &Value.Data;
  std::vector<uint8_t> Narrow;
  if (Format_ == TRegFileFormat::Regedit4 && (Value.Type == REG_EXPAND_SZ || Value.Type == REG_MULTI_SZ)) {
    const std::string S = WideToCp1252(FromLE(Value.Data));
    Narrow.assign(S.begin(), S.end());
    Data = &Narrow;
  }
  Line += Value.Type == REG_BINARY ? std::string("hex:") : "hex(" + LowerHex(Value.Type, 1) + "):";
  AppendHex(Line, *Data, CharCount(Line));
  return Line;
}

int ImportRegText(std::string_view Bytes) {
  const TRegFileContent C = ParseRegText(Bytes);
  // One transaction per hive, taken in a fixed order so that two imports
  // touching the same hives cannot wait on each other.
  std::map<HKEY, std::shared_ptr<detail::THive>> Hives;
  for (const TRegFileEntry& E : C.Entries) {
    if (Hives.count(E.Root)) continue;
    std::shared_ptr<detail::THive> H = detail::THive::Open(E.Root, true);
    if (!H) Fail(Format("Access denied to %s", {RootKeyName(E.Root)}), E.Line);
    Hives[E.Root] = std::move(H);
  }
  std::vector<detail::THive*> Begun;
  auto RollbackAll = [&] {
    for (detail::THive* H : Begun) H->Rollback();
  };
  for (auto& [Root, H] : Hives) {
    if (!H->Begin()) {
      RollbackAll();
      throw ERegFileError(Format("Cannot lock %s", {RootKeyName(Root)}));
    }
    Begun.push_back(H.get());
  }
  int Count = 0;
  try {
    detail::THive* H = nullptr;
    int64_t Key = -1;
    for (const TRegFileEntry& E : C.Entries) {
      switch (E.Kind) {
        case TRegFileEntry::CreateKey:
          H = Hives[E.Root].get();
          Key = H->Resolve(0, E.Path, true);
          if (Key < 0) Fail(Format(SRegCreateFailed, {E.Path}), E.Line);
          H->Touch(Key);
          break;
        case TRegFileEntry::DeleteKey: {
          detail::THive* D = Hives[E.Root].get();
          const int64_t Id = D->Resolve(0, E.Path, false);
          if (Id > 0 && !D->DeleteTree(Id)) Fail("Cannot delete the key", E.Line);
          H = nullptr;
          Key = -1;
          break;
        }
        case TRegFileEntry::SetValue:
          if (!H || !H->PutValue(Key, E.Name, E.Value)) Fail(Format(SRegSetDataFailed, {E.Name}), E.Line);
          ++Count;
          break;
        case TRegFileEntry::DeleteValue:
          if (H) H->DeleteValue(Key, E.Name);
          break;
      }
    }
  } catch (...) {
    RollbackAll();
    throw;
  }
  for (size_t I = 0; I < Begun.size(); ++I)
    if (!Begun[I]->Commit()) {
      for (size_t J = I + 1; J < Begun.size(); ++J) Begun[J]->Rollback();
      throw ERegFileError("Cannot commit the import");
    }
  return Count;
}

int ImportRegFile(const std::string& FileName) {
  TFileStream F(FileName, fmOpenRead | fmShareDenyWrite);
  std::string Bytes(static_cast<size_t>(F.GetSize()), '\0');
  if (!Bytes.empty()) F.ReadBuffer(Bytes.data(), static_cast<int64_t>(Bytes.size()));
  return ImportRegText(Bytes);
}

std::string ExportRegText(HKEY Root, const std::string& Key, TRegFileFormat Format_) {
  std::shared_ptr<detail::THive> H = detail::THive::Open(Root, false);
  const std::string HiveName = RootKeyName(Root);
  std::string Shown = HiveName;
  int64_t Id = H ? 0 : -1;
  for (const std::string_view Part : detail::SplitKeyPath(Key)) {
    if (Id < 0) break;
    Id = H->FindChild(Id, Part);
    if (Id >= 0) Shown += "\\" + H->KeyName(Id);
  }
  if (Id < 0 || HiveName.empty())
    throw ERegistryException(Format(SKeyNotFound, {HiveName + (Key.empty() ? "" : "\\" + Key)}));
  std::string Text(Format_ == TRegFileFormat::Version5 ? HeaderV5 : HeaderV4);
  Text += "\r\n";
  // Depth first, each key before its subkeys.
  struct TItem {
    int64_t Id;
    std::string Path;
  };
  std::vector<TItem> Stack{{Id, Shown}};
  while (!Stack.empty()) {
    TItem It = std::move(Stack.back());
    Stack.pop_back();
    Text += "\r\n[" + It.Path + "]\r\n";
    for (const auto& V : H->Values(It.Id)) Text += RegValueLine(V.Name, V.Value, Format_) + "\r\n";
    const auto Children = H->Children(It.Id);
    for (auto C = Children.rbegin(); C != Children.rend(); ++C) Stack.push_back({C->Id, It.Path + "\\" + C->Name});
  }
  Text += "\r\n";
  return Encode(Text, Format_);
}

void ExportRegFile(HKEY Root, const std::string& Key, const std::string& FileName, TRegFileFormat Format_) {
  const std::string Bytes = ExportRegText(Root, Key, Format_);
  TFileStream F(FileName, fmCreate);
  F.WriteBuffer(Bytes.data(), static_cast<int64_t>(Bytes.size()));
}

}  // namespace vel
