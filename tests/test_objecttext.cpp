// The text form of component streams: the exact text written, conversion
// back to the same bytes, the syntax accepted, and errors.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <limits>
#include <string>

#include "vel/rtl/Filer.h"
#include "vel/rtl/ObjectText.h"
#include "vel/rtl/StringLists.h"
#include "vel/rtl/SysUtils.h"

using namespace vel;

namespace objtext {

enum TTint : uint8_t { tnRed, tnGreen, tnBlue };
VEL_ENUM(TTint, "tnRed", "tnGreen", "tnBlue")

class TTextPart : public TPersistent {
  VEL_CLASS(TTextPart, TPersistent)
 public:
  int32_t Size = 0;
  std::string Face;
};

class TTextItem : public TCollectionItem {
  VEL_CLASS(TTextItem, TCollectionItem)
 public:
  using TCollectionItem::TCollectionItem;
  int32_t Width = 0;
};

// Not registered: the conversions never need the classes.
class TTextAll : public TComponent {
  VEL_CLASS(TTextAll, TComponent)
 public:
  using TComponent::TComponent;
  ~TTextAll() override {
    delete Part;
    delete Items;
    delete Lines;
  }
  int32_t Int = 0;
  int64_t Big = 0;
  char Ch = 0;
  char16_t WCh = 0;
  TTint Tint = tnRed;
  bool Flag = false;
  TSet<TTint> Tints;
  float Sgl = 0;
  double Dbl = 0;
  Extended Ext = 0;
  Currency Cur;
  TDateTime When;
  std::string Text;
  std::u16string Wide;
  Variant Var;
  TTextPart* Part = new TTextPart;
  TCollection* Items = new TCollection(TTextItem::StaticClass());
  TStringList* Lines = new TStringList;
  std::string Blob;
  void DefineProperties(TFiler* Filer) override {
    Filer->DefineBinaryProperty(
        "Blob", nullptr,
        [this](TStream* S) { S->WriteBuffer(Blob.data(), static_cast<int64_t>(Blob.size())); },
        !Blob.empty());
  }
};

}  // namespace objtext

using namespace objtext;

VEL_PUBLISHED(TTextPart, prop("Size", &TTextPart::Size).defaults(0), prop("Face", &TTextPart::Face))
VEL_PUBLISHED(TTextItem, prop("Width", &TTextItem::Width).defaults(0))
VEL_PUBLISHED(TTextAll, prop("Int", &TTextAll::Int).defaults(0), prop("Big", &TTextAll::Big),
              prop("Ch", &TTextAll::Ch).defaults(0), prop("WCh", &TTextAll::WCh).defaults(0),
              prop("Tint", &TTextAll::Tint).defaults(tnRed), prop("Flag", &TTextAll::Flag).defaults(false),
              prop("Tints", &TTextAll::Tints).defaults(0), prop("Sgl", &TTextAll::Sgl),
              prop("Dbl", &TTextAll::Dbl), prop("Ext", &TTextAll::Ext), prop("Cur", &TTextAll::Cur),
              prop("When", &TTextAll::When), prop("Text", &TTextAll::Text), prop("Wide", &TTextAll::Wide),
              prop("Var", &TTextAll::Var), readonly_prop("Part", &TTextAll::Part),
              readonly_prop("Items", &TTextAll::Items), readonly_prop("Lines", &TTextAll::Lines))

namespace {

std::string ToBinary(TComponent* C) {
  TMemoryStream M;
  WriteComponent(&M, C);
  return std::string(static_cast<const char*>(M.Memory()), static_cast<size_t>(M.GetSize()));
}

std::string BinToText(const std::string& B) {
  TStringStream In(B), Out;
  ObjectBinaryToText(&In, &Out);
  return Out.DataString();
}

std::string TextToBin(const std::string& T) {
  TStringStream In(T), Out;
  ObjectTextToBinary(&In, &Out);
  return Out.DataString();
}

std::string TextError(const std::string& T) {
  TStringStream In(T), Out("untouched");
  try {
    ObjectTextToBinary(&In, &Out);
  } catch (const Exception& E) {
    EXPECT_EQ(Out.DataString(), "untouched");
    return std::string(E.ClassName()) + ": " + E.Message();
  }
  return "no error";
}

}  // namespace

TEST(ObjectText, TextOfEveryValueKind) {
  TTextAll A;
  A.SetName("Form1");
  A.Int = -7;
  A.Big = 5000000000LL;
  A.Ch = '\'';
  A.Tint = tnBlue;
  A.Flag = true;
  A.Tints = {tnRed, tnBlue};
  A.Sgl = 0.1f;
  A.Dbl = 0.1;
  A.Ext = 0.1L;
  A.Cur = Currency::FromScaled(15000);
  A.When = TDateTime(45000.5);
  A.Text = "It's \x80\r\n";
  A.Wide = u"\u03A9";
  A.Var = Variant(1.5);
  A.Part->Face = "Arial";
  static_cast<TTextItem*>(A.Items->Add())->Width = 3;
  A.Items->Add();
  A.Lines->Add("a");
  A.Lines->Add("");
  A.Blob = "\x01\xAB";
  auto* Kid = new TTextAll(&A);
  Kid->SetName("Kid");

  const std::string Expected =
      "object Form1: TTextAll\r\n"
      "  Int = -7\r\n"
      "  Big = 5000000000\r\n"
      "  Ch = #39\r\n"
      "  Tint = tnBlue\r\n"
      "  Flag = True\r\n"
      "  Tints = [tnRed, tnBlue]\r\n"
      "  Sgl = 0.1s\r\n"
      "  Dbl = 0.1\r\n"
      "  Ext = 1.0E-1\r\n"
      "  Cur = 15000c\r\n"
      "  When = 45000.5d\r\n"
      "  Text = 'It'#39's '#8364#13#10\r\n"
      "  Wide = #937\r\n"
      "  Var = 1.5\r\n"
      "  Part.Face = 'Arial'\r\n"
      "  Items = <\r\n"
      "    item\r\n"
      "      Width = 3\r\n"
      "    end\r\n"
      "    item\r\n"
      "    end>\r\n"
      "  Lines.Strings = (\r\n"
      "    'a'\r\n"
      "    '')\r\n"
      "  Blob = {01AB}\r\n"
      "  object Kid: TTextAll\r\n"
      "    Items = <>\r\n"
      "  end\r\n"
      "end\r\n";
  const std::string B = ToBinary(&A);
  EXPECT_EQ(BinToText(B), Expected);
  EXPECT_EQ(TextToBin(Expected), B);
}

TEST(ObjectText, EveryKindGoesToTextAndBackToTheSameBytes) {
  const Extended Extendeds[] = {0.1L, 3.14L, 1.0L / 3, -0.0L, 1e4000L, 1e-4940L,
                                std::numeric_limits<Extended>::infinity(), 123456789012345678.0L,
                                std::numeric_limits<Extended>::denorm_min(), 2.5L};
  const double Doubles[] = {0.1, 1e300, -2.5e-310, 1e15, 1e16, 0.30000000000000004,
                            -std::numeric_limits<double>::infinity()};
  const float Singles[] = {0.1f, 3.4e38f, 1e-45f, -2.0f, 16777217.0f};
  for (size_t I = 0; I < 10; ++I) {
    TTextAll A;
    A.SetName("R");
    A.Ext = Extendeds[I];
    A.Dbl = Doubles[I % 7];
    A.Sgl = Singles[I % 5];
    A.When = TDateTime(Doubles[I % 7]);
    A.Cur = Currency::FromScaled(I % 2 ? INT64_MIN : INT64_MAX);
    A.Int = I % 2 ? INT32_MIN : 65536;
    A.Big = I % 2 ? INT64_MIN : (int64_t(1) << 32);
    A.WCh = I % 2 ? u'\u0080' : char16_t(0xD800);
    // Strings around the 64-character pieces, with quotes and controls at
    // the edges, 8-bit and wide.
    A.Text = std::string(63 + I, 'x') + "''\x01" + std::string(I * 30, '\xFF');
    A.Wide = std::u16string(60 + I, u'w') + u"\u0080\u20AC" + char16_t(0xDC00) + std::u16string(70, u'\u4E2D');
    A.Var = I % 2 ? Variant(std::u16string(u"\u4E2D")) : Variant(Currency::FromScaled(-1));
    A.Blob = std::string(31 + I, '\x5A');
    for (int K = 0; K < 3; ++K) static_cast<TTextItem*>(A.Items->Add())->Width = K * 1000;
    A.Lines->SetText(std::string(I * 20, 'L') + "\r\n#\r\n");
    const std::string B = ToBinary(&A);
    const std::string T = BinToText(B);
    EXPECT_EQ(TextToBin(T), B) << T;
  }
}

TEST(ObjectText, FloatsKeepTheirValueType) {
  // An integral float keeps ".0" so that it does not come back as an
  // integer; a double prints as its shortest text, and the Extended nearest
  // to the same decimal (not a double) gets enough digits to differ.
  TTextAll A;
  A.SetName("R");
  A.Dbl = 2;
  A.Ext = 1e20L;
  std::string T = BinToText(ToBinary(&A));
  EXPECT_NE(T.find("  Dbl = 2.0\r\n  Ext = 1E20\r\n"), std::string::npos) << T;
  A.Dbl = 3.14;
  A.Ext = 3.14L;
  T = BinToText(ToBinary(&A));
  EXPECT_NE(T.find("  Dbl = 3.14\r\n  Ext = 3.14E0\r\n"), std::string::npos) << T;
  EXPECT_EQ(TextToBin(T), ToBinary(&A));
}

TEST(ObjectText, LongStringsSplitIntoPiecesOf64) {
  TTextAll A;
  A.SetName("R");
  A.Text = std::string(64, 'a') + "bc";
  std::string T = BinToText(ToBinary(&A));
  EXPECT_NE(T.find("  Text = \r\n    '" + std::string(64, 'a') + "' +\r\n    'bc'\r\n"), std::string::npos)
      << T;
  // A character written as #n counts as one; the piece ends after it.
  A.Text = std::string(63, 'a') + "\t" + "z";
  T = BinToText(ToBinary(&A));
  EXPECT_NE(T.find("    '" + std::string(63, 'a') + "'#9 +\r\n    'z'\r\n"), std::string::npos) << T;
  // Exactly 64 characters stay on the line of the name.
  A.Text = std::string(64, 'q');
  T = BinToText(ToBinary(&A));
  EXPECT_NE(T.find("  Text = '" + std::string(64, 'q') + "'\r\n"), std::string::npos) << T;
  // Binary data of 32 bytes or more starts each 32 bytes on a new line.
  A.Text.clear();
  A.Blob = std::string(33, '\x11');
  T = BinToText(ToBinary(&A));
  EXPECT_NE(T.find("  Blob = {\r\n    " + std::string(64, '1') + "\r\n    11}\r\n"), std::string::npos) << T;
}

TEST(ObjectText, HandWrittenTextIsRead) {
  // Line feeds only, keywords in any case, hex integers, #$ characters,
  // dotted identifiers, order values, flags, child positions and a raw
  // Windows-1252 byte.
  const std::string T =
      "OBJECT Main: TForm\n"
      "  Left = $10\n"
      "  Caption = 'A'#$42 + \n  'C' + #233'\xE9'\n"
      "  Ref = Other.Button1\n"
      "  Items = <item [2] Width = 1 end>\n"
      "  inherited Old: TButton [3]\n"
      "  End\n"
      "  inline Frame: TFrame\n"
      "  end\n"
      "end\n";
  std::string Expected = "TPF0";
  auto S = [&](const std::string& X) {
    Expected += static_cast<char>(X.size());
    Expected += X;
  };
  S("TForm");
  S("Main");
  S("Left");
  Expected += std::string("\x02\x10", 2);
  S("Caption");
  Expected += std::string("\x06\x05" "ABC\xE9\xE9", 7);
  S("Ref");
  Expected += '\x07';
  S("Other.Button1");
  S("Items");
  Expected += std::string("\x0E\x02\x02\x01", 4);
  S("Width");
  Expected += std::string("\x02\x01\x00\x00\x00", 5);
  Expected += std::string("\xF3\x02\x03", 3);
  S("TButton");
  S("Old");
  Expected += std::string("\x00\x00", 2);
  Expected += '\xF4';
  S("TFrame");
  S("Frame");
  Expected += std::string("\x00\x00\x00", 3);
  EXPECT_EQ(TextToBin(T), Expected);
  // And the way back gives the canonical text.
  EXPECT_EQ(BinToText(Expected),
            "object Main: TForm\r\n"
            "  Left = 16\r\n"
            "  Caption = 'ABC'#233#233\r\n"
            "  Ref = Other.Button1\r\n"
            "  Items = <\r\n"
            "    item [2]\r\n"
            "      Width = 1\r\n"
            "    end>\r\n"
            "  inherited Old: TButton [3]\r\n"
            "  end\r\n"
            "  inline Frame: TFrame\r\n"
            "  end\r\n"
            "end\r\n");
}

TEST(ObjectText, ParserErrorsNameTheLine) {
  EXPECT_EQ(TextError("thing X: T\nend"), "EParserError: OBJECT expected on line 1");
  EXPECT_EQ(TextError("object X: T\n  A 1\nend"), "EParserError: '=' expected on line 2");
  EXPECT_EQ(TextError("object X: T\n  A = 'abc\nend"), "EParserError: Invalid string constant on line 2");
  EXPECT_EQ(TextError("object X: T\n\n  A = {0G}\nend"), "EParserError: Invalid binary value on line 3");
  EXPECT_EQ(TextError("object X: T\n  A = )\nend"), "EParserError: Invalid property value on line 2");
  EXPECT_EQ(TextError("object X: T\n  A = 'x' + 1\nend"), "EParserError: String expected on line 2");
  EXPECT_EQ(TextError("object X: T\n  A = (1 2"), "EParserError: Invalid property value on line 2");
  EXPECT_EQ(TextError("object X: T\n  A = <item\n  end"), "EParserError: item expected on line 3");
  EXPECT_EQ(TextError("object : T"), "EParserError: Identifier expected on line 1");
  EXPECT_EQ(TextError("object X: T\n  A = 99999999999999999999\nend"),
            "EParserError: '99999999999999999999' is not a valid integer value on line 2");
  EXPECT_EQ(TextError("object X: T\n  A = #70000\nend"), "EParserError: Invalid string constant on line 2");
  EXPECT_EQ(TextError(std::string(1000, '(')), "EParserError: OBJECT expected on line 1");
  std::string Deep = "object X: T\n A = ";
  Deep += std::string(1000, '(');
  EXPECT_EQ(TextError(Deep), "EParserError: Invalid stream format on line 2");
}

TEST(ObjectText, BinaryErrorsNameTheProperty) {
  std::string B = "TPF0\x05TForm\x02" "F1\x04Prop";
  B += '\x19';  // no such value type
  B += std::string("\x00\x00", 2);
  TStringStream In(B), Out("kept");
  try {
    ObjectBinaryToText(&In, &Out);
    FAIL();
  } catch (const EReadError& E) {
    EXPECT_STREQ(E.what(), "Error reading F1.Prop: Invalid stream format");
  }
  EXPECT_EQ(Out.DataString(), "kept");
  TStringStream Bad("TPF1"), Out2;
  EXPECT_THROW(ObjectBinaryToText(&Bad, &Out2), EReadError);
  // A stream cut anywhere fails cleanly.
  TTextAll A;
  A.SetName("R");
  A.Text = "abc";
  A.Items->Add();
  const std::string Full = ToBinary(&A);
  for (size_t N = 0; N < Full.size(); ++N) {
    TStringStream Cut(Full.substr(0, N)), O;
    EXPECT_THROW(ObjectBinaryToText(&Cut, &O), EReadError) << N;
  }
}

TEST(ObjectText, InputIsLeftAfterTheComponent) {
  TTextAll A;
  A.SetName("R");
  const std::string B = ToBinary(&A);
  TStringStream In(B + "tail"), Out;
  ObjectBinaryToText(&In, &Out);
  EXPECT_EQ(In.GetPosition(), static_cast<int64_t>(B.size()));
}

TEST(ObjectText, EveryFiniteExtendedComesBackToTheSameTenBytes) {
  // Random sign, exponent and 64-bit mantissa (normal and subnormal), and
  // the Extended values nearest to short decimals; converted in streams of
  // 1000 properties, binary -> text -> binary.
  std::mt19937_64 Rng(20261123);
  auto RandomBits = [&](uint8_t Out[10]) {
    uint64_t M = Rng();
    uint16_t E = static_cast<uint16_t>(Rng() % 0x7FFF);  // 0x7FFF: infinities and NaNs
    if (E == 0) M &= ~(uint64_t{1} << 63);                // subnormal: no integer bit
    else M |= uint64_t{1} << 63;                           // normal: integer bit set
    if (Rng() & 1) E |= 0x8000;
    for (int I = 0; I < 8; ++I) Out[I] = static_cast<uint8_t>(M >> (8 * I));
    Out[8] = static_cast<uint8_t>(E);
    Out[9] = static_cast<uint8_t>(E >> 8);
  };
  auto NearDecimal = [&](uint8_t Out[10]) {
    char Buf[40];
    std::snprintf(Buf, sizeof Buf, "%s%d.%02dE%d", (Rng() & 1) ? "-" : "", static_cast<int>(Rng() % 10),
                  static_cast<int>(Rng() % 100), static_cast<int>(Rng() % 80) - 40);
    ExtendedToBytes(std::strtold(Buf, nullptr), Out);
  };
  int Checked = 0;
  for (int Batch = 0; Batch < 100; ++Batch) {
    std::string B = std::string("TPF0\x05TForm\x01" "F", 12);
    for (int I = 0; I < 1000; ++I) {
      uint8_t V[10];
      if (I % 2) RandomBits(V);
      else NearDecimal(V);
      B += std::string("\x01" "E\x05", 3);
      B.append(reinterpret_cast<const char*>(V), 10);
    }
    B += std::string("\x00\x00", 2);
    const std::string Text = BinToText(B);
    ASSERT_EQ(TextToBin(Text), B) << "batch " << Batch;
    Checked += 1000;
  }
  EXPECT_EQ(Checked, 100000);
  // The value of the report: nearest to -1.5E-10, not a double.
  const std::string One = std::string("TPF0\x05TForm\x01" "F\x01" "E\x05", 15) +
                          std::string("\x4F\x60\x72\x0E\x1B\x3F\xED\xA4\xDE\xBF", 10) +
                          std::string("\x00\x00", 2);
  const std::string T = BinToText(One);
  EXPECT_NE(T.find("  E = -1.50E-10\r\n"), std::string::npos) << T;
  EXPECT_EQ(TextToBin(T), One);
}

TEST(ObjectText, AGarbledPropertyNameIsQuotedWholeInTheError) {
  // A damaged length takes bytes with NUL and control codes as a name; the
  // message shows them as the text form writes them and keeps its reason.
  std::string B = std::string("TPF0\x05TForm\x02" "F1\x06P\x00\x1b[2J", 20);
  B += '\x19';  // no such value type
  B += std::string("\x00\x00", 2);
  TStringStream In(B), Out;
  try {
    ObjectBinaryToText(&In, &Out);
    FAIL();
  } catch (const EReadError& E) {
    EXPECT_STREQ(E.what(), "Error reading F1.P#0#27[2J: Invalid stream format");
  }
}
