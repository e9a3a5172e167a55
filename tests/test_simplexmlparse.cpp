// The XML walker: pre-order over the document and its elements, what the
// handler can read, file: URLs, documents that do not load, deep nesting.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "vel/SimpleXmlParse.h"
#include "vel/rtl/SysUtils.h"

using namespace vel;

namespace {

class TWalkRecorder : public TObject {
 public:
  std::vector<std::string> Names;
  std::vector<std::string> Details;
  TObject* Sender = nullptr;
  void OnNode(TObject* S, IXMLDOMNode* N) {
    Sender = S;
    Names.push_back(WideToUtf8(N->nodeName()));
    if (N->nodeType() != NODE_ELEMENT) return;
    std::string D = WideToUtf8(N->nodeName()) + ":";
    for (int32_t I = 0; I < N->attributeCount(); ++I)
      D += WideToUtf8(N->attributeName(I)) + "=" + WideToUtf8(N->attributeValue(I)) + ";";
    D += "text=" + WideToUtf8(N->text());
    Details.push_back(D);
  }
};

class TNameRecorder : public TObject {
 public:
  int Count = 0;
  void OnNode(TObject*, IXMLDOMNode* N) { Count += N->nodeName() == u"#document" || N->nodeName() == u"n"; }
};

class XmlFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* Base = std::getenv("VEL_TEST_TMPDIR");
    std::string Tmpl = std::string(Base && *Base ? Base : "/tmp") + "/vel_xml_XXXXXX";
    std::filesystem::create_directories(std::filesystem::path(Tmpl).parent_path());
    ASSERT_NE(::mkdtemp(Tmpl.data()), nullptr);
    Dir = Tmpl;
    Parser.OnNodeData = TNodeDataEvent::Bind<&TWalkRecorder::OnNode>(&Rec);
  }
  void TearDown() override {
    std::error_code Ec;
    std::filesystem::remove_all(Dir, Ec);
  }
  std::string Put(const std::string& Name, const std::string& Data) {
    std::string Path = Dir + "/" + Name;
    std::ofstream(Path, std::ios::binary) << Data;
    return Path;
  }
  std::string Dir;
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

TEST_F(XmlFiles, PreOrderOverDocumentAndElementsOnly) {
  Parser.LoadXML(Put("sample.xml", Sample));
  EXPECT_EQ(Rec.Names, (std::vector<std::string>{"#document", "a", "b", "d", "c"}));
  EXPECT_EQ(Rec.Sender, &Parser);
  EXPECT_EQ(Rec.Details,
            (std::vector<std::string>{"a:id=1;name=caf\xC3\xA9;text=\n  lead text\n  deep<raw>",
                                      "b:text=deep", "d:kind=x & y;text=deep", "c:text=<raw>"}));
}

TEST_F(XmlFiles, ChildListsKeepEveryNodeTypeInOrder) {
  ASSERT_TRUE(Parser.Document->load(Put("sample.xml", Sample)));
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
      {"missing", Dir + "/absent.xml"},
      {"mismatched end tag", Put("bad1.xml", "<a><b></a>")},
      {"unclosed", Put("bad2.xml", "<a><b>")},
      {"empty file", Put("bad3.xml", "")},
      {"two roots", Put("bad4.xml", "<a/><b/>")},
      {"text beside the root", Put("bad5.xml", "<a/>tail")},
      {"binary", Put("bad6.xml", std::string("\0\xff\xfe<", 4))},
      {"a directory", Dir},
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
  for (const std::string& Url : {"file://" + Escaped, "file:" + Escaped,
                                 "FILE://localhost" + Escaped, Good}) {
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
  TSimpleXMLParser Counting;
  TNameRecorder Names;
  Counting.OnNodeData = TNodeDataEvent::Bind<&TNameRecorder::OnNode>(&Names);
  Counting.LoadXML(Put("deep.xml", Xml));
  EXPECT_EQ(Names.Count, Depth + 1);
}
