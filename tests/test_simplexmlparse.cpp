// The XML walker: pre-order over the document and its elements, what the
// handler can read, file: URLs, documents that do not load, deep nesting.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>

#include "ResourceFiles.h"
#include "vel/SimpleXmlParse.h"
#include "vel/rtl/SysUtils.h"

using namespace vel;

namespace {

// Records each visited node's name and, unless NamesOnly, an element's
// attributes and text.
class TWalkRecorder : public TObject {
 public:
  std::vector<std::string> Names;
  std::vector<std::string> Details;
  TObject* Sender = nullptr;
  bool NamesOnly = false;
  void OnNode(TObject* S, IXMLDOMNode* N) {
    Sender = S;
    Names.push_back(WideToUtf8(N->nodeName()));
    if (NamesOnly || N->nodeType() != NODE_ELEMENT) return;
    std::string D = Names.back() + ":";
    for (int32_t I = 0; I < N->attributeCount(); ++I)
      D += WideToUtf8(N->attributeName(I)) + "=" + WideToUtf8(N->attributeValue(I)) + ";";
    Details.push_back(D + "text=" + WideToUtf8(N->text()));
  }
};

class XmlFiles : public ::testing::Test {
 protected:
  XmlFiles() { Parser.OnNodeData = TNodeDataEvent::Bind<&TWalkRecorder::OnNode>(&Rec); }
  std::string Put(const std::string& Name, const std::string& Data) {
    std::ofstream(Dir.Path(Name), std::ios::binary) << Data;
    return Dir.Path(Name);
  }
  restest::TScratch Dir;
  TSimpleXMLParser Parser;
  TWalkRecorder Rec;
};

const char* const Sample =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!-- before the root -->\n"
    "<a id=\"1\" name=\"caf\xC3\xA9\">\n"
    "  lead text\n"
    "  <b><!-- note --><d kind=\"x &amp; y\">deep</d></b>\n"
    "  <?render fast?>\n"
    "  <c><![CDATA[<raw>]]></c>\n"
    "</a>\n";

}  // namespace

TEST_F(XmlFiles, PreOrderOverDocumentAndElementsOnlyChildListsKeepAll) {
  Parser.LoadXML(Put("sample.xml", Sample));
  EXPECT_EQ(Rec.Names, (std::vector<std::string>{"#document", "a", "b", "d", "c"}));
  EXPECT_EQ(Rec.Sender, &Parser);
  EXPECT_EQ(Rec.Details,
            (std::vector<std::string>{"a:id=1;name=caf\xC3\xA9;text=\n  lead text\n  deep<raw>",
                                      "b:text=deep", "d:kind=x & y;text=deep", "c:text=<raw>"}));

  // The DOM's child lists keep every node type, in order.
  IPtr<IXMLDOMNodeList> Top = Parser.Document->childNodes();
  std::vector<int32_t> Types;
  for (int32_t I = 0; I < Top->length(); ++I) Types.push_back(Top->item(I)->nodeType());
  EXPECT_EQ(Types, (std::vector<int32_t>{NODE_PROCESSING_INSTRUCTION, NODE_COMMENT, NODE_ELEMENT}));
  IPtr<IXMLDOMNode> A = Top->item(2);
  Types.clear();
  for (int32_t I = 0; I < A->childNodes()->length(); ++I)
    Types.push_back(A->childNodes()->item(I)->nodeType());
  EXPECT_EQ(Types, (std::vector<int32_t>{NODE_TEXT, NODE_ELEMENT, NODE_PROCESSING_INSTRUCTION,
                                         NODE_ELEMENT}));
  EXPECT_FALSE(Top->item(3));
  EXPECT_FALSE(Top->item(-1));
  EXPECT_EQ(A->getAttribute(u"missing"), u"");
  EXPECT_TRUE(A->hasAttribute(u"id"));

  // A node keeps the tree it came from across a new load.
  ASSERT_TRUE(Parser.Document->loadXML("<other/>"));
  EXPECT_EQ(A->nodeName(), u"a");
  EXPECT_EQ(A->getAttribute(u"name"), u"caf\u00e9");
}

TEST_F(XmlFiles, SourcesThatDoNotLoadGiveNoEvents) {
  const std::string Good = Put("good doc.xml", "<r><s/></r>");
  const std::vector<std::pair<std::string, std::string>> Bad = {
      {"missing", Dir.Path("absent.xml")},
      {"mismatched end tag", Put("bad1.xml", "<a><b></a>")},
      {"unclosed", Put("bad2.xml", "<a><b>")},
      {"empty file", Put("bad3.xml", "")},
      {"two roots", Put("bad4.xml", "<a/><b/>")},
      {"text beside the root", Put("bad5.xml", "<a/>tail")},
      {"binary", Put("bad6.xml", std::string("\0\xff\xfe<", 4))},
      {"a directory", Dir.Path("")},
      {"network URL", "http://localhost/" + Good},
      {"remote file URL", "file://server" + Good},
      {"empty name", ""},
  };
  for (const auto& [What, Source] : Bad) {
    Rec.Names.clear();
    EXPECT_NO_THROW(Parser.LoadXML(Source)) << What;
    EXPECT_TRUE(Rec.Names.empty()) << What;
    EXPECT_EQ(Parser.Document->childNodes()->length(), 0) << What;
  }

  std::string Escaped = Good;
  Escaped.replace(Escaped.find(' '), 1, "%20");
  for (const std::string& Url :
       {"file://" + Escaped, "file:" + Escaped, "FILE://localhost" + Escaped, Good}) {
    Rec.Names.clear();
    Parser.LoadXML(Url);
    EXPECT_EQ(Rec.Names, (std::vector<std::string>{"#document", "r", "s"})) << Url;
  }
}

TEST_F(XmlFiles, DeepNestingWalksWithoutRecursion) {
  constexpr int Depth = 200000;
  std::string Xml;
  for (int I = 0; I < Depth; ++I) Xml += "<n>";
  for (int I = 0; I < Depth; ++I) Xml += "</n>";
  // Only the names: reading each element's text would be quadratic here.
  Rec.NamesOnly = true;
  Parser.LoadXML(Put("deep.xml", Xml));
  ASSERT_EQ(Rec.Names.size(), size_t(Depth + 1));
  EXPECT_EQ(Rec.Names.front(), "#document");
  EXPECT_EQ(std::count(Rec.Names.begin(), Rec.Names.end(), "n"), Depth);
}
