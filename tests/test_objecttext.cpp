// The text form of component streams: the exact text written, conversion
// back to the same bytes, the syntax accepted, and errors.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <limits>
#include <random>
#include <string>

#include "StreamTestClasses.h"
#include "vel/rtl/ObjectText.h"
#include "vel/rtl/SysUtils.h"

using namespace vel;
using namespace stream_test;

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
  TEveryKind A;
  FillEveryKind(A);
  const std::string Expected =
      "object Root: TEveryKind\r\n"
      "  Int = -5\r\n"
      "  Big = 1099511627776\r\n"
      "  Ch = #39\r\n"
      "  WCh = #937\r\n"
      "  Shape = shTriangle\r\n"
      "  Flag = True\r\n"
      "  Styles = [stBold, stUnderline]\r\n"
      "  Sgl = 0.1s\r\n"
      "  Dbl = 0.1\r\n"
      "  Ext = 1.0E-1\r\n"
      "  Cur = 123456789c\r\n"
      "  Cmp = -9000000000.0\r\n"
      "  When = 45000.75d\r\n"
      "  Short = 'short'\r\n"
      "  Long = \r\n"
      "    'LLLLLLLLLLLLLLLLLLLLLLLLLLLLLLLLLLLLLLLLLLLLLLLLLLLLLLLLLLLLLLLL' +\r\n"
      "    'LLLLLLLLLLLLLLLLLLLLLLLLLLLLLLLLLLLLIt'#39's '#8364#13#10\r\n"
      "  Wide = 'Gr'#252#223'e '#8364' and '#20013\r\n"
      "  Var = 77\r\n"
      "  Font.Name = 'Courier'\r\n"
      "  Font.Size = 12\r\n"
      "  Font.Styles = [stItalic]\r\n"
      "  Items = <\r\n"
      "    item\r\n"
      "      Width = 40\r\n"
      "      Caption = 'first'\r\n"
      "      Link = Child\r\n"
      "    end\r\n"
      "    item\r\n"
      "      Caption = 'second'\r\n"
      "      Link = nil\r\n"
      "    end>\r\n"
      "  Lines.Strings = (\r\n"
      "    'alpha'\r\n"
      "    ''\r\n"
      "    'gamma '#39'quoted'#39)\r\n"
      "  Buddy = Child.Grand\r\n"
      "  OnClick = HandleClick\r\n"
      "  Blob = {0001FF7F}\r\n"
      "  object Child: TEveryKind\r\n"
      "    Int = 1\r\n"
      "    Items = <>\r\n"
      "    Buddy = nil\r\n"
      "    object Grand: TPart\r\n"
      "    end\r\n"
      "  end\r\n"
      "end\r\n";
  // Converted back, the text gives the writer's bytes; the input is left
  // after the component.
  const std::string B = ToBinary(&A);
  EXPECT_EQ(TextToBin(Expected), B);
  TStringStream In(B + "tail"), Out;
  ObjectBinaryToText(&In, &Out);
  EXPECT_EQ(Out.DataString(), Expected);
  EXPECT_EQ(In.GetPosition(), static_cast<int64_t>(B.size()));
}

TEST(ObjectText, EveryKindGoesToTextAndBackToTheSameBytes) {
  const Extended Extendeds[] = {0.1L,
                                3.14L,
                                1.0L / 3,
                                -0.0L,
                                1e4000L,
                                1e-4940L,
                                std::numeric_limits<Extended>::infinity(),
                                123456789012345678.0L,
                                std::numeric_limits<Extended>::denorm_min(),
                                2.5L};
  const double Doubles[] = {0.1,
                            1e300,
                            -2.5e-310,
                            1e15,
                            1e16,
                            0.30000000000000004,
                            -std::numeric_limits<double>::infinity()};
  const float Singles[] = {0.1f, 3.4e38f, 1e-45f, -2.0f, 16777217.0f};
  for (size_t I = 0; I < 10; ++I) {
    TEveryKind A;
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
    A.Long = std::string(63 + I, 'x') + "''\x01" + std::string(I * 30, '\xFF');
    A.Wide = std::u16string(60 + I, u'w') + u"\u0080\u20AC" + char16_t(0xDC00) +
             std::u16string(70, u'\u4E2D');
    const Variant Vars[] = {Variant(std::u16string(u"\u4E2D")), Variant(Currency::FromScaled(-1)),
                            Variant(1.5)};
    A.Var = Vars[I % 3];
    A.Blob = std::string(31 + I, '\x5A');
    for (int K = 0; K < 3; ++K) static_cast<TColItem*>(A.Items->Add())->Width = K * 1000;
    A.Lines->SetText(std::string(I * 20, 'L') + "\r\n#\r\n");
    const std::string B = ToBinary(&A);
    const std::string T = BinToText(B);
    EXPECT_EQ(TextToBin(T), B) << T;
  }
}

TEST(ObjectText, FloatsKeepTheirTypeAndLongValuesSplit) {
  // An integral float keeps ".0" so that it does not come back as an
  // integer; a double prints as its shortest text, and the Extended nearest
  // to the same decimal (not a double) gets enough digits to differ. Texts
  // longer than 64 characters go in pieces of 64 (a #n counts as one), and
  // binary data of 32 bytes or more starts each 32 bytes on a new line.
  const struct {
    std::function<void(TEveryKind&)> Set;
    std::string Fragment;
  } Cases[] = {
      {[](TEveryKind& A) {
         A.Dbl = 2;
         A.Ext = 1e20L;
       },
       "  Dbl = 2.0\r\n  Ext = 1E20\r\n"},
      {[](TEveryKind& A) {
         A.Dbl = 3.14;
         A.Ext = 3.14L;
       },
       "  Dbl = 3.14\r\n  Ext = 3.14E0\r\n"},
      {[](TEveryKind& A) { A.Long = std::string(63, 'a') + "\tz"; },
       "    '" + std::string(63, 'a') + "'#9 +\r\n    'z'\r\n"},
      {[](TEveryKind& A) { A.Long = std::string(64, 'q'); },
       "  Long = '" + std::string(64, 'q') + "'\r\n"},
      {[](TEveryKind& A) { A.Blob = std::string(33, '\x11'); },
       "  Blob = {\r\n    " + std::string(64, '1') + "\r\n    11}\r\n"},
  };
  for (const auto& C : Cases) {
    TEveryKind A;
    A.SetName("R");
    C.Set(A);
    const std::string T = BinToText(ToBinary(&A));
    EXPECT_NE(T.find(C.Fragment), std::string::npos) << T;
    EXPECT_EQ(TextToBin(T), ToBinary(&A));
  }
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
  Expected += std::string(
      "\x06\x05"
      "ABC\xE9\xE9",
      7);
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
  const std::string Deep = "object X: T\n A = " + std::string(1000, '(');
  const struct {
    std::string Text, Expected;
  } Cases[] = {
      {"thing X: T\nend", "OBJECT expected on line 1"},
      {"object X: T\n  A 1\nend", "'=' expected on line 2"},
      {"object X: T\n  A = 'abc\nend", "Invalid string constant on line 2"},
      {"object X: T\n\n  A = {0G}\nend", "Invalid binary value on line 3"},
      {"object X: T\n  A = )\nend", "Invalid property value on line 2"},
      {"object X: T\n  A = 'x' + 1\nend", "String expected on line 2"},
      {"object X: T\n  A = (1 2", "Invalid property value on line 2"},
      {"object X: T\n  A = <item\n  end", "item expected on line 3"},
      {"object : T", "Identifier expected on line 1"},
      {"object X: T\n  A = 99999999999999999999\nend",
       "'99999999999999999999' is not a valid integer value on line 2"},
      {"object X: T\n  A = #70000\nend", "Invalid string constant on line 2"},
      {std::string(1000, '('), "OBJECT expected on line 1"},
      {Deep, "Invalid stream format on line 2"},
  };
  for (const auto& C : Cases) EXPECT_EQ(TextError(C.Text), "EParserError: " + C.Expected);
}

TEST(ObjectText, BinaryErrorsNameThePropertyAndLeaveTheOutput) {
  // An unknown value type after a plain name, and after a name a damaged
  // length made of bytes with NUL and control codes: the message shows
  // those as the text form writes them and keeps its reason.
  const struct {
    std::string Data, Expected;
  } Cases[] = {
      {std::string("TPF0\x05TForm\x02"
                   "F1\x04Prop\x19\x00\x00",
                   21),
       "Error reading F1.Prop: Invalid stream format"},
      {std::string("TPF0\x05TForm\x02"
                   "F1\x06P\x00\x1b[2J\x19\x00\x00",
                   23),
       "Error reading F1.P#0#27[2J: Invalid stream format"},
      {"TPF1", "Invalid stream format"},
  };
  for (const auto& C : Cases) {
    TStringStream In(C.Data), Out("kept");
    try {
      ObjectBinaryToText(&In, &Out);
      ADD_FAILURE() << C.Expected;
    } catch (const EReadError& E) {
      EXPECT_EQ(std::string(E.what()), C.Expected);
    }
    EXPECT_EQ(Out.DataString(), "kept");
  }
  // A stream cut anywhere fails cleanly.
  TEveryKind A;
  A.SetName("R");
  A.Long = "abc";
  A.Items->Add();
  const std::string Full = ToBinary(&A);
  for (size_t N = 0; N < Full.size(); ++N) {
    TStringStream Cut(Full.substr(0, N)), O;
    EXPECT_THROW(ObjectBinaryToText(&Cut, &O), EReadError) << N;
  }
}

TEST(ObjectText, EveryFiniteExtendedComesBackToTheSameTenBytes) {
  // Random sign, exponent and 64-bit mantissa (normal and subnormal), and
  // the Extended values nearest to short decimals; converted in streams of
  // 1000 properties, binary -> text -> binary.
  std::mt19937_64 Rng(20261123);
  auto RandomBits = [&](uint8_t Out[10]) {
    uint64_t M = Rng();
    uint16_t E = static_cast<uint16_t>(Rng() % 0x7FFF);  // 0x7FFF: infinities and NaNs
    if (E == 0)
      M &= ~(uint64_t{1} << 63);  // subnormal: no integer bit
    else
      M |= uint64_t{1} << 63;  // normal: integer bit set
    if (Rng() & 1) E |= 0x8000;
    for (int I = 0; I < 8; ++I) Out[I] = static_cast<uint8_t>(M >> (8 * I));
    Out[8] = static_cast<uint8_t>(E);
    Out[9] = static_cast<uint8_t>(E >> 8);
  };
  auto NearDecimal = [&](uint8_t Out[10]) {
    char Buf[40];
    std::snprintf(Buf, sizeof Buf, "%s%d.%02dE%d", (Rng() & 1) ? "-" : "",
                  static_cast<int>(Rng() % 10), static_cast<int>(Rng() % 100),
                  static_cast<int>(Rng() % 80) - 40);
    ExtendedToBytes(std::strtold(Buf, nullptr), Out);
  };
  int Checked = 0;
  for (int Batch = 0; Batch < 100; ++Batch) {
    std::string B = std::string(
        "TPF0\x05TForm\x01"
        "F",
        12);
    for (int I = 0; I < 1000; ++I) {
      uint8_t V[10];
      if (I % 2)
        RandomBits(V);
      else
        NearDecimal(V);
      B += std::string(
          "\x01"
          "E\x05",
          3);
      B.append(reinterpret_cast<const char*>(V), 10);
    }
    B += std::string("\x00\x00", 2);
    const std::string Text = BinToText(B);
    ASSERT_EQ(TextToBin(Text), B) << "batch " << Batch;
    Checked += 1000;
  }
  EXPECT_EQ(Checked, 100000);
  // The value of the report: nearest to -1.5E-10, not a double.
  const std::string One = std::string(
                              "TPF0\x05TForm\x01"
                              "F\x01"
                              "E\x05",
                              15) +
                          std::string("\x4F\x60\x72\x0E\x1B\x3F\xED\xA4\xDE\xBF", 10) +
                          std::string("\x00\x00", 2);
  const std::string T = BinToText(One);
  EXPECT_NE(T.find("  E = -1.50E-10\r\n"), std::string::npos) << T;
  EXPECT_EQ(TextToBin(T), One);
}
