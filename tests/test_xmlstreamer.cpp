// The XML streamer: the exact document, bare mode, the escape table,
// element names, and a 100,000-item graph read back by a real XML parser.
#include <gtest/gtest.h>

#include <pugixml.hpp>

#include <cstdio>

#include "../bench/holdings.h"
#include "StreamTestClasses.h"
#include "vel/StreamClasses.h"
#include "vel/rtl/SysUtils.h"

using namespace vel;

namespace xmlt {

class TFoo : public TPersistent {
  VEL_CLASS(TFoo, TPersistent)
 public:
  std::string Odd;
};

class TMixed : public TPersistent {
  VEL_CLASS(TMixed, TPersistent)
 public:
  ~TMixed() override {
    delete Foo;
    delete Notes;
    delete Parts;
  }
  bool Flag = false;
  TDateTime When;
  Variant Var;
  TFoo* Foo = new TFoo;
  TStringList* Notes = new TStringList;
  TObjectList* Parts = new TObjectList(true);
};

// A descendant outside the library: it takes the general path through the
// virtual formatting operations and must write the same bytes.
class TPlainXML : public TXMLStreamer {
 public:
  using TXMLStreamer::TXMLStreamer;
};

}  // namespace xmlt

using namespace xmlt;
using stream_test::TColumn;
using stream_test::TMyForm;

VEL_PUBLISHED(TFoo, prop("Odd&Name.1", &TFoo::Odd))
VEL_PUBLISHED(TMixed, prop("Flag", &TMixed::Flag).defaults(false), prop("When", &TMixed::When),
              prop("Var", &TMixed::Var), prop("Foo", &TMixed::Foo), prop("Notes", &TMixed::Notes),
              prop("Parts", &TMixed::Parts))
namespace {

std::string Text(TMemoryStream& S) {
  return std::string(static_cast<const char*>(S.Memory()), static_cast<size_t>(S.GetSize()));
}

// What the streamer writes after Setup has changed its settings.
template <class T = TXMLStreamer>
std::string SaveXML(TObject* Obj, bool Bare = false, void (*Setup)(TXMLStreamer&) = nullptr) {
  TMemoryStream S;
  T X(&S, Bare);
  if (Setup) Setup(X);
  X.SaveToStream(Obj);
  return Text(S);
}

struct FormFixture {
  TMyForm Form;
  FormFixture() {
    Form.SetName("Form1");
    Form.Caption = "A&B";
    static_cast<TColumn*>(Form.Columns->Add())->Width = 40;
  }
};

}  // namespace

TEST(XMLStreamer, ExampleByteForByte) {
  FormFixture F;
  EXPECT_EQ(SaveXML(&F.Form),
            "<?xml version=\"1.0\" standalone=\"yes\"?>\r\n"
            "<Document>"
            "\r  <Caption>'A&amp;B'</Caption>"
            "\r  <Columns>"
            "\r    <Column>"
            "\r      <Column>"
            "\r        <Width>'40'</Width>"
            "\r      </Column>"
            "\r    </Column>"
            "\r  </Columns>"
            "\r</Document>");
  // The one-argument constructor is the non-bare one.
  TMemoryStream S;
  TXMLStreamer X(&S);
  EXPECT_FALSE(X.Bare());
  EXPECT_EQ(X.IndentSize(), 2);
}

TEST(XMLStreamer, BareModeAndIndentSettings) {
  FormFixture F;
  EXPECT_EQ(SaveXML(&F.Form, true),
            "<Caption>'A&amp;B'</Caption>\r<Columns>\r<Column>\r<Column>\r<Width>'40'</Width>"
            "\r</Column>\r</Column>\r</Columns>");
  TMemoryStream S;
  TXMLStreamer X(&S, true);
  EXPECT_TRUE(X.Bare());
  EXPECT_EQ(X.IndentSize(), 0);

  // A bare document can follow other text: the first line then starts with
  // its line break.
  TMemoryStream Pre;
  Pre.WriteBuffer("<Outer>", 7);
  TXMLStreamer(&Pre, true).SaveToStream(&F.Form);
  EXPECT_EQ(Text(Pre).substr(0, 19), "<Outer>\r<Caption>'A");

  // Tabs of one, and no class elements at all without WantClass.
  const std::string Tabs = SaveXML(&F.Form, false, [](TXMLStreamer& X) {
    X.SetIndentChar('\t');
    X.SetIndentSize(1);
  });
  EXPECT_NE(Tabs.find("\r\t\t\t\t<Width>'40'</Width>\r\t\t\t</Column>"), std::string::npos);
  EXPECT_EQ(SaveXML(&F.Form, false, [](TXMLStreamer& X) { X.SetWantClass(false); }),
            "<Caption>'A&amp;B'</Caption>\r<Width>'40'</Width>");
}

TEST(XMLStreamer, EscapeTable) {
  struct {
    unsigned char C;
    const char* Text;
  } Table[] = {
      {38, "&amp;"},   {60, "&lt;"},    {62, "&gt;"},    {39, "&apos;"},  {145, "&apos;"},
      {34, "&quot;"},  {235, "&#235;"}, {232, "&#232;"}, {233, "&#233;"}, {234, "&#234;"},
      {239, "&#239;"}, {244, "&#244;"}, {207, "&#207;"}, {203, "&#203;"},
  };
  for (const auto& E : Table) {
    std::string In = std::string("a") + static_cast<char>(E.C) + "b";
    EXPECT_EQ(TXMLStreamer::EscapeText(In), std::string("a") + E.Text + "b") << int(E.C);
  }
  // Every other 8-bit code passes unchanged: other accented letters,
  // controls, the right quotation mark, the euro sign, NUL.
  for (int C = 0; C < 256; ++C) {
    bool InTable = false;
    for (const auto& E : Table) InTable |= E.C == C;
    if (InTable) continue;
    std::string One(1, static_cast<char>(C));
    EXPECT_EQ(TXMLStreamer::EscapeText(One), One) << C;
  }
  EXPECT_EQ(TXMLStreamer::EscapeText(""), "");
  EXPECT_EQ(TXMLStreamer::EscapeText("<<&>>"), "&lt;&lt;&amp;&gt;&gt;");

  // Through a string property: the apostrophes are entities before the
  // value is quoted, so no quote is doubled; 228 (a umlaut) stays.
  TMyForm Form;
  Form.Caption = std::string("'\x91\xE4\"");
  std::string S = SaveXML(&Form, true);
  EXPECT_EQ(S.substr(0, S.find('\r')), "<Caption>'&apos;&apos;\xE4&quot;'</Caption>");
}

TEST(XMLStreamer, ElementNamesValuesAndLists) {
  TMixed M;
  M.Flag = true;
  M.When = TDateTime(EncodeDate(2001, 4, 18).Value + 0.5);
  M.Var = Variant(std::string("x<y"));
  M.Foo->Odd = "v";
  M.Notes->Add("one");
  M.Notes->Add("two & three");
  auto* Part = new TMyForm;
  Part->SetName("Grid");
  M.Parts->Add(Part);
  M.Parts->Add(new TFoo);
  EXPECT_EQ(SaveXML(&M),
            "<?xml version=\"1.0\" standalone=\"yes\"?>\r\n<Document>"
            "\r  <Flag>'True'</Flag>"
            // Object properties are named by the object's label; property
            // names are taken as they are, valid XML names or not.
            "\r  <Foo>"
            "\r    <Odd&Name.1>'v'</Odd&Name.1>"
            "\r  </Foo>"
            // A string list is always Lines; its lines follow the header.
            "\r  <Lines>'one,''two &amp; three'"
            "\r  </Lines>"
            // An object list element is named by the list's label, each
            // item by its own.
            "\r  <ObjectList>"
            "\r    <Grid>"
            "\r      <Columns>"
            "\r      </Columns>"
            "\r    </Grid>"
            "\r    <Foo>"
            "\r    </Foo>"
            "\r  </ObjectList>"
            "\r  <Var>'x&lt;y'</Var>"
            "\r  <When>\r\n      <Year>2001</Year>\r\n      <Month>4</Month>\r\n"
            "      <Day>18</Day>\r\n</When>"
            "\r</Document>");
}

// The large graph of the streaming benchmarks, with defaults left and a few
// texts that need escaping, parsed by pugixml and walked element by element.
TEST(XMLStreamer, LargeGraphIsWellFormedXML) {
  constexpr int Count = ItemCount;
  TBenchRoot Root;
  Fill(Root);
  // Half the items keep Active at its default, a quarter Kind; a few labels
  // need escaping.
  for (int I = 0; I < Count; ++I) {
    auto* It = static_cast<TBenchItem*>(Root.Items->Items(I));
    It->Active = I % 2 == 0;
    It->Kind = static_cast<TKind>(I % 4);
    if (I % 1000 == 7) It->Label = "M&S <\"plc\"> 'Caf\xE9'";
  }
  std::string Xml = SaveXML(&Root);
  ASSERT_GT(Xml.size(), 10000000u);
  // The general path of a descendant writes the same document.
  EXPECT_TRUE(SaveXML<TPlainXML>(&Root) == Xml);

  pugi::xml_document Doc;
  pugi::xml_parse_result R =
      Doc.load_buffer(Xml.data(), Xml.size(), pugi::parse_default, pugi::encoding_utf8);
  ASSERT_TRUE(R) << R.description() << " at " << R.offset;
  pugi::xml_node Document = Doc.child("Document");
  ASSERT_TRUE(Document);
  pugi::xml_node List = Document.child("Collection");
  ASSERT_TRUE(List);
  EXPECT_EQ(std::distance(Document.begin(), Document.end()), 1);

  int I = 0;
  for (pugi::xml_node Item : List.children()) {
    ASSERT_LT(I, Count);
    TBenchItem* Want = static_cast<TBenchItem*>(Root.Items->Items(I));
    ASSERT_STREQ(Item.name(), "BenchItem");
    pugi::xml_node Obj = Item.first_child();
    ASSERT_STREQ(Obj.name(), "BenchItem");
    ASSERT_FALSE(Obj.next_sibling());
    auto Quoted = [](const std::string& S) { return "'" + S + "'"; };
    std::vector<std::string> Names;
    for (pugi::xml_node P : Obj.children()) Names.push_back(P.name());
    std::vector<std::string> WantNames = {"Code", "Id", "Kind", "Label", "Price", "Since", "Units"};
    if (Want->Active) WantNames.insert(WantNames.begin(), "Active");
    if (Want->Kind == kdNone) WantNames.erase(WantNames.begin() + (Want->Active ? 3 : 2));
    ASSERT_EQ(Names, WantNames) << I;
    if (Want->Active) {
      EXPECT_STREQ(Obj.child_value("Active"), "'True'");
    }
    EXPECT_EQ(Obj.child_value("Id"), Quoted(IntToStr(Want->Id)));
    EXPECT_EQ(Obj.child_value("Units"), Quoted(IntToStr(Want->Units)));
    EXPECT_EQ(Obj.child_value("Code"), Quoted(Want->Code));
    if (I % 1000 == 7) {
      // The parser turns the entities back; é arrives as UTF-8.
      EXPECT_STREQ(Obj.child_value("Label"), "'M&S <\"plc\"> 'Caf\xC3\xA9''");
    } else {
      EXPECT_EQ(Obj.child_value("Label"), Quoted(Want->Label));
    }
    std::string Price = Obj.child_value("Price");
    ASSERT_GE(Price.size(), 3u);
    EXPECT_EQ(static_cast<double>(StrToFloat(Price.substr(1, Price.size() - 2))), Want->Price)
        << Price;
    if (Want->Kind != kdNone) {
      EXPECT_EQ(Obj.child_value("Kind"), Quoted(GetEnumName(TypeInfoOf<TKind>(), Want->Kind)));
    }
    uint16_t Y, M, D;
    DecodeDate(Want->Since, Y, M, D);
    pugi::xml_node Since = Obj.child("Since");
    EXPECT_EQ(Since.child_value("Year"), IntToStr(Y));
    EXPECT_EQ(Since.child_value("Month"), IntToStr(M));
    EXPECT_EQ(Since.child_value("Day"), IntToStr(D));
    if (::testing::Test::HasFailure()) break;
    ++I;
  }
  EXPECT_EQ(I, Count);
}
