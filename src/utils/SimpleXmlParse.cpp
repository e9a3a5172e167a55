#include "vel/SimpleXmlParse.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <memory>
#include <pugixml.hpp>
#include <vector>

#include "vel/rtl/SysUtils.h"
#include "vel/rtl/TypInfo.h"

namespace vel {

namespace {

using TDocPtr = std::shared_ptr<pugi::xml_document>;

int32_t TypeCode(pugi::xml_node N) {
  switch (N.type()) {
    case pugi::node_document:
      return NODE_DOCUMENT;
    case pugi::node_element:
      return NODE_ELEMENT;
    case pugi::node_pcdata:
      return NODE_TEXT;
    case pugi::node_cdata:
      return NODE_CDATA_SECTION;
    case pugi::node_comment:
      return NODE_COMMENT;
    case pugi::node_pi:
    case pugi::node_declaration:
      return NODE_PROCESSING_INSTRUCTION;
    case pugi::node_doctype:
      return NODE_DOCUMENT_TYPE;
    case pugi::node_null:
      break;
  }
  return 0;
}

std::u16string NameOf(pugi::xml_node N) {
  switch (N.type()) {
    case pugi::node_document:
      return u"#document";
    case pugi::node_pcdata:
      return u"#text";
    case pugi::node_cdata:
      return u"#cdata-section";
    case pugi::node_comment:
      return u"#comment";
    default:
      return Utf8ToWide(N.name());
  }
}

bool IsTextual(pugi::xml_node N) {
  return N.type() == pugi::node_pcdata || N.type() == pugi::node_cdata;
}

// Descendant text in document order, without recursion (any depth).
std::u16string TextOf(pugi::xml_node Root) {
  if (IsTextual(Root)) return Utf8ToWide(Root.value());
  if (Root.type() != pugi::node_element && Root.type() != pugi::node_document)
    return Utf8ToWide(Root.value());
  std::string Out;
  pugi::xml_node N = Root.first_child();
  while (N && N != Root) {
    if (IsTextual(N)) Out += N.value();
    if (N.first_child()) {
      N = N.first_child();
      continue;
    }
    while (N && N != Root && !N.next_sibling()) N = N.parent();
    if (!N || N == Root) break;
    N = N.next_sibling();
  }
  return Utf8ToWide(Out);
}

pugi::xml_attribute AttributeAt(pugi::xml_node N, int32_t Index) {
  if (Index < 0) return pugi::xml_attribute();
  int32_t I = 0;
  for (pugi::xml_attribute A : N.attributes())
    if (I++ == Index) return A;
  return pugi::xml_attribute();
}

// The node methods shared by nodes and the document.
#define VEL_XML_NODE_METHODS_                                                                 \
 public:                                                                                      \
  int32_t nodeType() override { return TypeCode(Node()); }                                    \
  std::u16string nodeName() override { return NameOf(Node()); }                               \
  std::u16string nodeValue() override {                                                       \
    return Node().type() == pugi::node_element || Node().type() == pugi::node_document        \
               ? std::u16string()                                                             \
               : Utf8ToWide(Node().value());                                                  \
  }                                                                                           \
  std::u16string text() override { return TextOf(Node()); }                                   \
  IPtr<IXMLDOMNodeList> childNodes() override;                                                \
  int32_t attributeCount() override {                                                         \
    int32_t C = 0;                                                                            \
    for (pugi::xml_attribute A : Node().attributes()) (void)A, ++C;                           \
    return C;                                                                                 \
  }                                                                                           \
  std::u16string attributeName(int32_t Index) override {                                      \
    return Utf8ToWide(AttributeAt(Node(), Index).name());                                     \
  }                                                                                           \
  std::u16string attributeValue(int32_t Index) override {                                     \
    return Utf8ToWide(AttributeAt(Node(), Index).value());                                    \
  }                                                                                           \
  std::u16string getAttribute(const std::u16string& Name) override {                          \
    return Utf8ToWide(Node().attribute(WideToUtf8(Name).c_str()).value());                    \
  }                                                                                           \
  bool hasAttribute(const std::u16string& Name) override {                                   \
    return static_cast<bool>(Node().attribute(WideToUtf8(Name).c_str()));                     \
  }                                                                                           \
                                                                                              \
 private:

class TXMLNode : public TInterfacedObject, public IXMLDOMNode {
  VEL_CLASS(TXMLNode, TInterfacedObject)
  VEL_INTERFACES(IXMLDOMNode)
  VEL_XML_NODE_METHODS_
 public:
  TXMLNode(TDocPtr Doc, pugi::xml_node N) : FDoc(std::move(Doc)), FNode(N) {}
  pugi::xml_node Node() const { return FNode; }

 private:
  TDocPtr FDoc;  // keeps the tree alive
  pugi::xml_node FNode;
};

class TXMLNodeList : public TInterfacedObject, public IXMLDOMNodeList {
  VEL_CLASS(TXMLNodeList, TInterfacedObject)
  VEL_INTERFACES(IXMLDOMNodeList)
 public:
  TXMLNodeList(TDocPtr Doc, pugi::xml_node Parent) : FDoc(std::move(Doc)) {
    for (pugi::xml_node C : Parent.children()) FItems.push_back(C);
  }
  int32_t length() override { return static_cast<int32_t>(FItems.size()); }
  IPtr<IXMLDOMNode> item(int32_t Index) override {
    if (Index < 0 || static_cast<size_t>(Index) >= FItems.size()) return nullptr;
    return IPtr<IXMLDOMNode>(new TXMLNode(FDoc, FItems[static_cast<size_t>(Index)]));
  }

 private:
  TDocPtr FDoc;
  std::vector<pugi::xml_node> FItems;
};

IPtr<IXMLDOMNodeList> TXMLNode::childNodes() {
  return IPtr<IXMLDOMNodeList>(new TXMLNodeList(FDoc, FNode));
}

int HexValue(char C) {
  if (C >= '0' && C <= '9') return C - '0';
  if (C >= 'a' && C <= 'f') return C - 'a' + 10;
  if (C >= 'A' && C <= 'F') return C - 'A' + 10;
  return -1;
}

bool StartsWithNoCase(const std::string& S, const char* Prefix) {
  size_t I = 0;
  for (; Prefix[I]; ++I)
    if (I >= S.size() || std::tolower(static_cast<unsigned char>(S[I])) != Prefix[I]) return false;
  return true;
}

// The local path named by Source, or false for a URL that is not a local
// file: URL.
bool SourceToPath(const std::string& Source, std::string& Path) {
  if (!StartsWithNoCase(Source, "file:")) {
    // Any other scheme ("http://...") is refused: nothing is fetched.
    if (Source.find("://") != std::string::npos) return false;
    Path = Source;
    return !Path.empty();
  }
  std::string Rest = Source.substr(5);
  if (Rest.compare(0, 2, "//") == 0) {
    size_t Slash = Rest.find('/', 2);
    if (Slash == std::string::npos) return false;
    std::string Host = Rest.substr(2, Slash - 2);
    if (!Host.empty() && !(Host.size() == 9 && StartsWithNoCase(Host, "localhost"))) return false;
    Rest = Rest.substr(Slash);
  }
  Path.clear();
  for (size_t I = 0; I < Rest.size(); ++I) {
    if (Rest[I] == '%' && I + 2 < Rest.size() && HexValue(Rest[I + 1]) >= 0 &&
        HexValue(Rest[I + 2]) >= 0) {
      char C = static_cast<char>(HexValue(Rest[I + 1]) * 16 + HexValue(Rest[I + 2]));
      if (C == '\0') return false;
      Path += C;
      I += 2;
    } else if (Rest[I] == '?' || Rest[I] == '#') {
      break;
    } else {
      Path += Rest[I];
    }
  }
  return !Path.empty();
}

// Fragment mode keeps text found beside the root element, which
// WellFormed then refuses (pugixml would silently drop it otherwise).
constexpr unsigned ParseOptions = pugi::parse_default | pugi::parse_comments | pugi::parse_pi |
                                  pugi::parse_declaration | pugi::parse_doctype |
                                  pugi::parse_fragment;

// Well-formed documents have exactly one root element and nothing but
// markup beside it; pugixml is more lenient, so check.
bool WellFormed(const pugi::xml_document& Doc) {
  int Elements = 0;
  for (pugi::xml_node C : Doc.children()) {
    switch (C.type()) {
      case pugi::node_element:
        ++Elements;
        break;
      case pugi::node_comment:
      case pugi::node_pi:
      case pugi::node_declaration:
      case pugi::node_doctype:
        break;
      default:
        return false;
    }
  }
  return Elements == 1;
}

// The bytes of a regular file. Anything else (a folder, a device, a pipe)
// is refused: the XML parser's own file loader sizes its buffer from a seek
// to the end, which such paths answer with nonsense.
bool ReadRegularFile(const std::string& Path, std::string& Out) {
  const int Fd = ::open(Path.c_str(), O_RDONLY | O_CLOEXEC);
  if (Fd < 0) return false;
  struct stat St;
  bool Ok = ::fstat(Fd, &St) == 0 && S_ISREG(St.st_mode);
  if (Ok) {
    Out.resize(static_cast<size_t>(St.st_size));
    size_t Done = 0;
    while (Done < Out.size()) {
      const ssize_t N = ::read(Fd, Out.data() + Done, Out.size() - Done);
      if (N < 0 && errno == EINTR) continue;
      if (N <= 0) break;
      Done += static_cast<size_t>(N);
    }
    Out.resize(Done);  // a file that shrank meanwhile is read as it is now
  }
  ::close(Fd);
  return Ok;
}

class TXMLDocument : public TInterfacedObject, public IXMLDOMDocument {
  VEL_CLASS(TXMLDocument, TInterfacedObject)
  VEL_INTERFACES(IXMLDOMDocument, IXMLDOMNode)
  VEL_XML_NODE_METHODS_
 public:
  TXMLDocument() : FDoc(std::make_shared<pugi::xml_document>()) {}
  pugi::xml_node Node() const { return *FDoc; }

  bool load(const std::string& Source) override {
    std::string Path;
    auto Doc = std::make_shared<pugi::xml_document>();
    std::string Bytes;
    bool Ok = SourceToPath(Source, Path) && ReadRegularFile(Path, Bytes) &&
              Doc->load_buffer(Bytes.data(), Bytes.size(), ParseOptions, pugi::encoding_auto) &&
              WellFormed(*Doc);
    FDoc = Ok ? std::move(Doc) : std::make_shared<pugi::xml_document>();
    return Ok;
  }

  bool loadXML(const std::string& Xml) override {
    auto Doc = std::make_shared<pugi::xml_document>();
    bool Ok = Doc->load_buffer(Xml.data(), Xml.size(), ParseOptions, pugi::encoding_auto) &&
              WellFormed(*Doc);
    FDoc = Ok ? std::move(Doc) : std::make_shared<pugi::xml_document>();
    return Ok;
  }

 private:
  TDocPtr FDoc;
};

IPtr<IXMLDOMNodeList> TXMLDocument::childNodes() {
  return IPtr<IXMLDOMNodeList>(new TXMLNodeList(FDoc, *FDoc));
}

}  // namespace

VEL_IMPLEMENT(TXMLNode)
VEL_IMPLEMENT(TXMLNodeList)
VEL_IMPLEMENT(TXMLDocument)
VEL_IMPLEMENT(TSimpleXMLParser)

IPtr<IXMLDOMDocument> CreateDOMDocument() {
  return IPtr<IXMLDOMDocument>(new TXMLDocument);
}

TSimpleXMLParser::TSimpleXMLParser() : Document(CreateDOMDocument()) {}

TSimpleXMLParser::~TSimpleXMLParser() {
  Document = nullptr;
}

void TSimpleXMLParser::LoadXML(const std::string& XMLFile) {
  if (Document->load(XMLFile)) ParseXML();
}

void TSimpleXMLParser::ParseXML() {
  RecurseElements(Document);
}

void TSimpleXMLParser::RecurseElements(IXMLDOMNode* Node) {
  // Pre-order with an explicit stack, so that no nesting depth can exhaust
  // the thread's stack. Each frame holds the node's child list, read once
  // when the node is entered.
  struct TFrame {
    IPtr<IXMLDOMNodeList> Children;
    int32_t Count;
    int32_t Next;
  };
  std::vector<TFrame> Stack;
  auto Enter = [&](IXMLDOMNode* N) {
    int32_t Type = N->nodeType();
    if (Type != NODE_ELEMENT && Type != NODE_DOCUMENT) return;
    GetNodeData(N);
    IPtr<IXMLDOMNodeList> Children = N->childNodes();
    int32_t Count = Children ? Children->length() : 0;
    Stack.push_back({std::move(Children), Count, 0});
  };
  if (!Node) return;
  Enter(Node);
  while (!Stack.empty()) {
    TFrame& Top = Stack.back();
    if (Top.Next >= Top.Count) {
      Stack.pop_back();
      continue;
    }
    IPtr<IXMLDOMNode> Child = Top.Children->item(Top.Next++);
    if (Child) Enter(Child);
  }
}

void TSimpleXMLParser::GetNodeData(IXMLDOMNode* Node) {
  if (OnNodeData) OnNodeData(this, Node);
}

}  // namespace vel
