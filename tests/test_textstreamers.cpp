// The indented text streamers: exact text of graphs and values, the
// settings switches, the refusal to load, buffered output, and the colour
// and cursor names they print.
#include <gtest/gtest.h>

#include <cmath>
#include <locale>

#include "StreamTestClasses.h"
#include "TestSupport.h"
#include "vel/StreamClasses.h"
#include "vel/rtl/Graphics.h"
#include "vel/rtl/SysUtils.h"

using namespace vel;

namespace txt {

enum TAnchor : uint8_t { akLeft, akTop, akRight, akBottom };
VEL_ENUM(TAnchor, "akLeft", "akTop", "akRight", "akBottom")

// One property of every kind the text form prints differently.
class TValues : public TPersistent {
  VEL_CLASS(TValues, TPersistent)
 public:
  int32_t Count = 0;
  bool Flag = false;
  TAnchor Anchor = akLeft;
  TSet<TAnchor> Anchors;
  TColor Color = clBlack;
  TCursor Cursor = crDefault;
  char Letter = 'A';
  float Sng = 0;
  double Dbl = 0;
  Extended Ext = 0;
  Currency Cur;
  Comp Cmp;
  TDateTime When;
  std::string Text;
  int64_t Big = 0;
  Variant Var;
};

class TNote : public TPersistent {
  VEL_CLASS(TNote, TPersistent)
 public:
  std::string Memo;
};

class TLists : public TPersistent {
  VEL_CLASS(TLists, TPersistent)
 public:
  ~TLists() override {
    delete Parts;
    delete Lines;
  }
  TObjectList* Parts = new TObjectList(true);
  TStringList* Lines = new TStringList;
};

// A property whose getter fails: the walk stops there.
class TFaulty : public TPersistent {
  VEL_CLASS(TFaulty, TPersistent)
 public:
  std::string Alpha = "a";
  std::string GetBoom() const { throw EConvertError("boom"); }
};

// Counts the writes that reach it.
class TCountingStream : public TMemoryStream {
 public:
  int Writes = 0;
  int64_t Write(const void* Buffer, int64_t Count) override {
    ++Writes;
    return TMemoryStream::Write(Buffer, Count);
  }
};

// Descendants outside the library: they take the general path through the
// virtual formatting operations.
class TPlainSubclass : public TObjectTextStreamer {
 public:
  using TObjectTextStreamer::TObjectTextStreamer;
};
class TDoubleQuotes : public TTextStreamer {
 public:
  using TTextStreamer::TTextStreamer;
  std::string QuoteString(const std::string& S) override { return "\"" + S + "\""; }
  std::string FormatPropName(const std::string& Name) override { return Name + ": "; }
};

}  // namespace txt

using namespace txt;
using stream_test::TColumn;
using stream_test::TMyForm;
using stream_test::TPart;

VEL_PUBLISHED(TValues, prop("Count", &TValues::Count).defaults(0),
              prop("Flag", &TValues::Flag).defaults(false),
              prop("Anchor", &TValues::Anchor).defaults(akLeft), prop("Anchors", &TValues::Anchors),
              prop("Color", &TValues::Color).defaults(clBlack),
              prop("Cursor", &TValues::Cursor).defaults(crDefault),
              prop("Letter", &TValues::Letter), prop("Sng", &TValues::Sng),
              prop("Dbl", &TValues::Dbl), prop("Ext", &TValues::Ext), prop("Cur", &TValues::Cur),
              prop("Cmp", &TValues::Cmp), prop("When", &TValues::When),
              prop("Text", &TValues::Text), prop("Big", &TValues::Big), prop("Var", &TValues::Var))
VEL_PUBLISHED(TNote, prop("Memo", &TNote::Memo))
VEL_PUBLISHED(TLists, prop("Parts", &TLists::Parts), prop("Lines", &TLists::Lines))
VEL_PUBLISHED(TFaulty, prop("Alpha", &TFaulty::Alpha), prop("Boom", &TFaulty::GetBoom))

namespace {

std::string Text(TMemoryStream& S) {
  return std::string(static_cast<const char*>(S.Memory()), static_cast<size_t>(S.GetSize()));
}

// Saves Obj with a streamer of class T, configured by Setup.
template <class T, class F>
std::string SaveWith(TObject* Obj, F&& Setup) {
  TMemoryStream S;
  T Streamer(&S);
  Setup(Streamer);
  Streamer.SaveToStream(Obj);
  return std::string(static_cast<const char*>(S.Memory()), static_cast<size_t>(S.GetSize()));
}
template <class T>
std::string SaveWith(TObject* Obj) {
  return SaveWith<T>(Obj, [](T&) {});
}

// Property lines only: no headers, footers or indentation.
std::string Lines(TObject* Obj, int BoolRow = 0, bool Quote = true) {
  return SaveWith<TTextStreamer>(Obj, [&](TTextStreamer& T) {
    T.SetWantClass(false);
    T.SetBoolIdentIndex(BoolRow);
    T.SetQuoteStrings(Quote);
  });
}

using vel_test::ErrorOf;

struct FormFixture {
  TMyForm Form;
  FormFixture() {
    Form.SetName("Form1");
    Form.Caption = "Hello";
    static_cast<TColumn*>(Form.Columns->Add())->Width = 40;
  }
};

}  // namespace

TEST(ObjectTextStreamer, ExampleByteForByte) {
  FormFixture F;
  EXPECT_EQ(SaveWith<TObjectTextStreamer>(&F.Form),
            "Corvane object stream - Form1: TMyForm = <"
            "\r  Caption = 'Hello'"
            "\r  Columns = <"
            "\r    Item"
            "\r      Object Column: TColumn "
            "\r        Width = '40'"
            "\r      end"
            "\r    end"
            "\r  end >"
            "\rend >");
}

TEST(ObjectTextStreamer, LabelsAndListHeaders) {
  // An unnamed component is labelled by its class name without the T.
  TMyForm Unnamed;
  EXPECT_EQ(SaveWith<TObjectTextStreamer>(&Unnamed),
            "Corvane object stream - MyForm: TMyForm = <\r  Columns = <\r  end >\rend >");

  // Object list items get their object header (named components by name);
  // string list lines follow the header on its line, attached objects get a
  // class line and their properties.
  TLists L;
  auto* P1 = new TPart;
  P1->SetName("Left");
  P1->Size = 3;
  L.Parts->Add(P1);
  L.Parts->Add(new TPart);
  TNote Note;
  Note.Memo = "m";
  L.Lines->Add("a");
  L.Lines->AddObject("b", &Note);
  EXPECT_EQ(SaveWith<TObjectTextStreamer>(&L),
            "Corvane object stream - Lists: TLists = <"
            "\r  Object List Lines = <'a,''b'"
            "\r    TNote"
            "\r    Object Note: TNote "
            "\r      Memo = 'm'"
            "\r    end"
            "\r  end >"
            "\r  Object List Parts = <"
            "\r    Object Left: TPart "
            "\r      Size = '3'"
            "\r    end"
            "\r    Object Part: TPart "
            "\r    end"
            "\r  end >"
            "\rend >");

  // A list saved as the root: no property names it, so its label does.
  TStringList Root;
  Root.Add("x");
  Root.Add("y");
  EXPECT_EQ(SaveWith<TObjectTextStreamer>(&Root),
            "Corvane object stream - StringList: TStringList = <"
            "\r  Object List StringList = <'x,''y'"
            "\r  end >"
            "\rend >");
}

TEST(TextStreamer, DefaultsAndEachSwitch) {
  FormFixture F;
  EXPECT_EQ(SaveWith<TTextStreamer>(&F.Form),
            "TMyForm\r  Caption = 'Hello'\r  TColumns\r    Item\r      TColumn"
            "\r        Width = '40'\r      end\r    end\r  end\rend >");

  // WantBlocks off: no "end" and no "Item" lines; the item still indents.
  EXPECT_EQ(SaveWith<TTextStreamer>(&F.Form, [](TTextStreamer& T) { T.SetWantBlocks(false); }),
            "TMyForm\r  Caption = 'Hello'\r  TColumns\r      TColumn\r        Width = '40'");

  // WantIndent off: the same lines, flush left.
  EXPECT_EQ(SaveWith<TTextStreamer>(&F.Form, [](TTextStreamer& T) { T.SetWantIndent(false); }),
            "TMyForm\rCaption = 'Hello'\rTColumns\rItem\rTColumn\rWidth = '40'\rend\rend\rend"
            "\rend >");

  // WantClass off: property lines only, and WantIndent follows it.
  std::string Bare = "Caption = 'Hello'\rWidth = '40'";
  EXPECT_EQ(SaveWith<TTextStreamer>(&F.Form, [](TTextStreamer& T) { T.SetWantClass(false); }),
            Bare);
  EXPECT_EQ(SaveWith<TTextStreamer>(&F.Form,
                                    [](TTextStreamer& T) {
                                      T.SetWantClass(false);
                                      T.SetWantIndent(true);  // no effect without WantClass
                                      EXPECT_FALSE(T.WantIndent());
                                    }),
            Bare);
  // Switching WantClass back on brings the indentation back with it.
  EXPECT_EQ(SaveWith<TTextStreamer>(&F.Form,
                                    [](TTextStreamer& T) {
                                      T.SetWantClass(false);
                                      T.SetWantClass(true);
                                    }),
            SaveWith<TTextStreamer>(&F.Form));

  // IndentSize and IndentChar.
  EXPECT_EQ(SaveWith<TTextStreamer>(&F.Form,
                                    [](TTextStreamer& T) {
                                      T.SetIndentSize(1);
                                      T.SetIndentChar('.');
                                    }),
            "TMyForm\r.Caption = 'Hello'\r.TColumns\r..Item\r...TColumn\r....Width = '40'"
            "\r...end\r..end\r.end\rend >");
}

TEST(TextStreamer, SettingsArePublished) {
  TMemoryStream S;
  TTextStreamer T(&S);
  // Set through the type information, the settings go through their
  // setters: WantClass takes WantIndent with it.
  SetOrdProp(&T, "WantClass", 0);
  EXPECT_FALSE(T.WantIndent());
  SetOrdProp(&T, "IndentSize", 7);
  EXPECT_EQ(T.IndentSize(), 7);
  EXPECT_EQ(GetOrdProp(&T, "TypeKinds"), 0x3FEFE);
  // The class tree streamer publishes only what every text streamer does.
  TClassTreeStreamer Tree(&S);
  EXPECT_EQ(GetPropInfo(&Tree, "WantBlocks"), nullptr);
  EXPECT_EQ(GetOrdProp(&Tree, "TypeKinds"), 1 << tkClass);
}

TEST(TextStreamer, StartsWithoutBreakOnlyOnAnEmptyStream) {
  FormFixture F;
  TMemoryStream S;
  S.WriteBuffer("X", 1);
  TTextStreamer T(&S);
  T.SetWantClass(false);
  T.SaveToStream(&F.Form);
  EXPECT_EQ(Text(S), "X\rCaption = 'Hello'\rWidth = '40'");
  // The same streamer on the same, now emptied, stream starts afresh.
  S.Clear();
  T.SaveToStream(&F.Form);
  EXPECT_EQ(Text(S), "Caption = 'Hello'\rWidth = '40'");
}

TEST(TextStreamer, ValueTexts) {
  TValues V;
  // Always written: a set (even empty) and a char (as its ordinal).
  EXPECT_EQ(Lines(&V), "Anchors = '[]'\rLetter = '65'");

  V.Count = -12;
  V.Flag = true;
  V.Anchor = akRight;
  V.Anchors = {akLeft, akTop};
  V.Color = clRed;
  V.Cursor = crHandPoint;
  V.Sng = 2.25f;
  V.Dbl = 1e20;
  V.Ext = 1234.5L;
  V.Cur = Currency(12.34);
  V.Cmp = Comp(int64_t(5));
  V.Text = "O'Brien";
  V.Big = -5000000000LL;
  V.Var = Variant(1.5);
  V.When = TDateTime(EncodeDate(2020, 2, 29).Value + 0.75);  // written without its time
  // Neither the C++ global locale nor the runtime's display settings may
  // change the separators of the streamed texts.
  struct Comma : std::numpunct<char> {
    char do_decimal_point() const override { return ','; }
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
  };
  std::locale Old = std::locale::global(std::locale(std::locale::classic(), new Comma));
  TFormatSettings Saved = FormatSettings;
  FormatSettings.DecimalSeparator = ',';
  FormatSettings.ThousandSeparator = '.';
  FormatSettings.DateSeparator = '-';
  const std::string Quoted = Lines(&V), Bools = Lines(&V, 1), Raw = Lines(&V, 0, false);
  std::locale::global(Old);
  FormatSettings = Saved;
  EXPECT_EQ(Quoted,
            "Anchor = 'akRight'"
            "\rAnchors = '[akLeft,akTop]'"
            "\rBig = '-5000000000'"
            "\rCmp = "  // a comp writes its name and no value
            "\rColor = 'clRed'"
            "\rCount = '-12'"
            // The walk hands the currency over scaled by 10000 once more
            // than the property holds; the text shows what it is given.
            "\rCur = '123400'"
            "\rCursor = 'crHandPoint'"
            "\rDbl = '1E20'"
            "\rExt = '1234.5'"
            "\rFlag = 'True'"
            "\rLetter = '65'"
            "\rSng = '2.25'"
            "\rText = 'O''Brien'"
            "\rVar = '1.5'"
            "\rWhen = \r\n    <Year>2020</Year>\r\n    <Month>2</Month>\r\n    <Day>29</Day>\r\n");

  // The second row of boolean words, and quoting switched off.
  EXPECT_NE(Bools.find("\rFlag = 'Y'"), std::string::npos);
  EXPECT_NE(Raw.find("\rText = O'Brien\r"), std::string::npos);
  EXPECT_NE(Raw.find("\rCount = -12\r"), std::string::npos);
  EXPECT_NE(Raw.find("\rFlag = True\r"), std::string::npos);
}

TEST(TextStreamer, FloatsReadBackAndDatesLoseTheirTime) {
  TValues V;
  V.Ext = 1.0L / 3.0L;
  V.Dbl = 0.30000000000000004;
  std::string S = Lines(&V);
  auto ValueOf = [&](const std::string& Name) {
    size_t At = S.find(Name + " = '");
    EXPECT_NE(At, std::string::npos) << Name;
    At += Name.size() + 4;
    return S.substr(At, S.find('\'', At) - At);
  };
  EXPECT_EQ(StrToFloat(ValueOf("Ext")), V.Ext);
  EXPECT_EQ(ValueOf("Dbl"), "0.30000000000000004");

  // Nested, the date lines carry the current indent before their own.
  TValues Nested;
  Nested.When = EncodeDate(1999, 12, 31);
  EXPECT_EQ(SaveWith<TTextStreamer>(&Nested, [](TTextStreamer& T) { T.SetIndentChar('-'); }),
            "TValues\r--Anchors = '[]'\r--Letter = '65'"
            "\r--When = \r\n--    <Year>1999</Year>\r\n--    <Month>12</Month>\r\n"
            "--    <Day>31</Day>\r\n\rend >");
}

TEST(TextStreamer, LoadingIsRefusedAndNothingIsRead) {
  TMemoryStream S;
  S.WriteBuffer("TValues", 7);
  S.SetPosition(0);
  TValues V;
  for (auto* T : std::initializer_list<TCustomTextStreamer*>{
           new TTextStreamer(&S), new TObjectTextStreamer(&S), new TXMLStreamer(&S),
           new TClassTreeStreamer(&S)}) {
    EXPECT_EQ(ErrorOf([&] { T->LoadFromStream(&V); }),
              "EStreamPropError: Load for text not supported");
    // Nothing is read, so no class name is found.
    EXPECT_EQ(ErrorOf([&] { delete T->CreateFromStream(); }),
              "EStreamPropError: Stream Read Error!  Unable to create root object from stream");
    EXPECT_EQ(S.GetPosition(), 0);
    EXPECT_EQ(T->ReadIdentKind(), ikList);
    EXPECT_EQ(T->ReadListBegin(), -1);
    EXPECT_FALSE(T->ReadPropListBegin());
    EXPECT_FALSE(T->ReadPropListEnd());
    EXPECT_FALSE(T->ReadListEnd());
    EXPECT_FALSE(T->ReadBoolean());
    EXPECT_EQ(T->ReadString(), "");
    EXPECT_EQ(T->ReadClassName(), "");
    EXPECT_EQ(T->ReadBeforeListItem(nullptr, true), nullptr);
    EXPECT_EQ(VarToStr(T->ReadVariant()), "");
    // The number readers convert the empty text and fail as conversions do.
    EXPECT_EQ(ErrorOf([&] { T->ReadInteger(); }), "EConvertError: '' is not a valid integer value");
    EXPECT_EQ(ErrorOf([&] { T->ReadDouble(); }),
              "EConvertError: '' is not a valid floating point value");
    EXPECT_EQ(S.GetPosition(), 0);
    delete T;
  }
  // An empty stream fails before anything else is tried.
  TMemoryStream Empty;
  TTextStreamer T(&Empty);
  EXPECT_EQ(ErrorOf([&] { delete T.CreateFromStream(); }),
            "EStreamPropError: Cannot read from an empty stream");
  EXPECT_EQ(ErrorOf([] { TTextStreamer Null(nullptr); }),
            "EStreamPropError: Stream is not valid (nil)");
}

TEST(TextStreamer, BufferedWritesAndPartialOutputOnFailure) {
  // A large graph reaches the stream in a few large writes, with the same
  // bytes as through the in-place path of a plain memory stream.
  TMyForm Form;
  for (int I = 0; I < 20000; ++I) static_cast<TColumn*>(Form.Columns->Add())->Width = I + 1;
  TCountingStream Counted;
  TObjectTextStreamer(&Counted).SaveToStream(&Form);
  std::string Plain = SaveWith<TObjectTextStreamer>(&Form);
  ASSERT_GT(Plain.size(), 1000000u);
  EXPECT_EQ(Text(Counted), Plain);
  EXPECT_LE(Counted.Writes, static_cast<int>(Plain.size() / (256 * 1024)) + 2);

  // When the walk fails, what was produced up to the failure is in the
  // stream, and the streamer can be used again.
  TFaulty Faulty;
  TMemoryStream S;
  TTextStreamer T(&S);
  EXPECT_EQ(ErrorOf([&] { T.SaveToStream(&Faulty); }), "EConvertError: boom");
  EXPECT_EQ(Text(S), "TFaulty\r  Alpha = 'a'");
  S.Clear();
  TColumn Col;
  Col.Width = 1;
  T.SaveToStream(&Col);
  EXPECT_EQ(Text(S), "TColumn\r  Width = '1'\rend >");

  // A value larger than the buffer goes through whole, quotes doubled.
  TNote Big;
  Big.Memo = std::string(150000, 'a') + "'" + std::string(150000, 'b');
  TCountingStream BigOut;
  TTextStreamer(&BigOut).SaveToStream(&Big);
  EXPECT_TRUE(Text(BigOut) == "TNote\r  Memo = '" + std::string(150000, 'a') + "''" +
                                  std::string(150000, 'b') + "'\rend >");
  EXPECT_LE(BigOut.Writes, 3);

  // Outside a save every piece of text reaches the stream at once.
  TMemoryStream Direct;
  TTextStreamer D(&Direct);
  D.WriteText("abc");
  D.WriteString("x'y");
  D.WriteNewLine("z");
  EXPECT_EQ(Text(Direct), "abc'x''y'\rz");
}

TEST(Graphics, ColourAndCursorNames) {
  // Names by value (the first of two names wins), system colours, and the
  // runtime's fallbacks: "$" with eight hex digits, the decimal number.
  struct {
    int32_t Value;
    const char* Text;
  } Colours[] = {
      {clMaroon, "clMaroon"}, {clLtGray, "clSilver"},
      {clNone, "clNone"},     {clScrollBar, "clScrollBar"},
      {clInfoBk, "clInfoBk"}, {0x123456, "$00123456"},
      {-1, "$FFFFFFFF"},      {static_cast<int32_t>(0xFF000019), "$FF000019"},
  };
  for (const auto& C : Colours) EXPECT_EQ(ColorToString(C.Value), C.Text) << C.Value;
  EXPECT_EQ(clBtnFace, static_cast<int32_t>(0xFF00000F));
  EXPECT_EQ(StringToColor("CLRED"), clRed);
  EXPECT_EQ(StringToColor("$00FF00"), clLime);
  EXPECT_EQ(ErrorOf([] { StringToColor("clPink"); }),
            "EConvertError: 'clPink' is not a valid integer value");
  std::string Id = "unchanged";
  EXPECT_FALSE(ColorToIdent(0x010203, Id));
  EXPECT_EQ(Id, "unchanged");

  EXPECT_EQ(CursorToString(crNone), "crNone");
  EXPECT_EQ(CursorToString(-22), "crSizeAll");
  EXPECT_EQ(CursorToString(-5), "-5");
  EXPECT_EQ(StringToCursor("crhourglass"), crHourGlass);

  // Through properties of those types, and their fallbacks.
  TValues V;
  V.Color = 0x123456;
  V.Cursor = 7;
  std::string S = Lines(&V);
  EXPECT_NE(S.find("\rColor = '$00123456'\r"), std::string::npos) << S;
  EXPECT_NE(S.find("\rCursor = '7'\r"), std::string::npos) << S;
}

TEST(TextStreamer, OverridesOfQuotingAndNamesAreHonoured) {
  TValues V;
  V.Count = 3;
  V.Flag = true;
  V.Anchor = akTop;
  V.Color = clRed;
  V.Dbl = 2.5;
  V.Text = "it's";
  V.When = EncodeDate(2001, 1, 2);
  V.Var = Variant(std::string("v"));
  // A descendant that changes nothing writes the very same bytes as the
  // class it derives from.
  FormFixture F;
  EXPECT_EQ(SaveWith<TPlainSubclass>(&V), SaveWith<TObjectTextStreamer>(&V));
  EXPECT_EQ(SaveWith<TPlainSubclass>(&F.Form), SaveWith<TObjectTextStreamer>(&F.Form));
  // One that quotes and names differently is heard for every value.
  EXPECT_EQ(SaveWith<TDoubleQuotes>(&V, [](TDoubleQuotes& T) { T.SetWantClass(false); }),
            "Anchor: \"akTop\"\rAnchors: \"[]\"\rColor: \"clRed\"\rCount: \"3\""
            "\rDbl: \"2.5\"\rFlag: \"True\"\rLetter: \"65\"\rText: \"it's\"\rVar: \"v\""
            "\rWhen: \r\n    <Year>2001</Year>\r\n    <Month>1</Month>\r\n    <Day>2</Day>\r\n");
}

TEST(TextStreamer, DoubleTextsMatchFloatToStr) {
  // Doubles are written by a shorter path in the usual range; it must give
  // FloatToStr's text everywhere, around the range's edges too.
  TMemoryStream S;
  TTextStreamer T(&S);
  T.SetQuoteStrings(false);
  auto Check = [&](double D) {
    S.Clear();
    T.WriteDouble(D);
    EXPECT_EQ(Text(S), FloatToStr(D)) << D;
  };
  uint64_t Seed = 0x9E3779B97F4A7C15ull;
  auto Next = [&] {
    Seed ^= Seed << 13;
    Seed ^= Seed >> 7;
    Seed ^= Seed << 17;
    return Seed;
  };
  for (int E = -8; E <= 17; ++E)
    for (int K = 0; K < 400; ++K) {
      double M = static_cast<double>(Next() >> 11) / 9007199254740992.0;  // [0, 1)
      double D = (1.0 + 9.0 * M) * std::pow(10.0, E);
      Check(K % 2 ? -D : D);
    }
  for (double D : {1e-5, std::nextafter(1e-5, 0.0), std::nextafter(1e-5, 1.0), 1e15,
                   std::nextafter(1e15, 0.0), 999999999999999.9, 0.1, 0.30000000000000004, 1.0,
                   123456789.125, 5e-324, 1.7976931348623157e308, 0.0, -0.0})
    Check(D);
}
