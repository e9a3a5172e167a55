// TSimpleXMLParser: loads an XML document from a file path or a file: URL
// into a DOM and hands every element to an event handler, depth-first in
// document order. The parser keeps nothing of its own; the handler reads
// names, attributes and text from the DOM node it is given.
//
// The DOM is a small reference-counted interface over pugixml: a document
// (load from a path or URL with a success flag), nodes with their type code,
// name, value, text, attributes and ordered child lists. Texts are wide
// (UTF-16), as a COM DOM gives them. Whitespace-only text is not kept;
// comments, processing instructions (the XML declaration among them) and
// CDATA sections are child nodes with their own types. Node objects keep
// their document's tree alive, so a node held past a new load still reads
// the old tree.
//
// Thread safety: one parser and its nodes belong to one thread at a time.
#pragma once

#include <cstdint>
#include <string>

#include "vel/rtl/Com.h"
#include "vel/rtl/System.h"

namespace vel {

// Node type codes of the DOM.
enum : int32_t {
  NODE_ELEMENT = 1,
  NODE_ATTRIBUTE = 2,
  NODE_TEXT = 3,
  NODE_CDATA_SECTION = 4,
  NODE_PROCESSING_INSTRUCTION = 7,
  NODE_COMMENT = 8,
  NODE_DOCUMENT = 9,
  NODE_DOCUMENT_TYPE = 10,
};

struct IXMLDOMNodeList;

struct VEL_API IXMLDOMNode : IInterface {
  VEL_INTERFACE_ID("{E23404B0-48C4-44CC-9876-0F23B68C4D7F}")
  // One of the NODE_... codes.
  virtual int32_t nodeType() = 0;
  // The element's or instruction's name; "#document", "#text",
  // "#cdata-section", "#comment" for the others.
  virtual std::u16string nodeName() = 0;
  // The text of a text, CDATA, comment or instruction node; "" otherwise.
  virtual std::u16string nodeValue() = 0;
  // The text of the node and all its descendants, in document order.
  virtual std::u16string text() = 0;
  // The child nodes in document order (a fresh list on each call).
  virtual IPtr<IXMLDOMNodeList> childNodes() = 0;
  // Attributes of an element, in document order (0 for other nodes).
  virtual int32_t attributeCount() = 0;
  virtual std::u16string attributeName(int32_t Index) = 0;
  virtual std::u16string attributeValue(int32_t Index) = 0;
  // The value of the attribute Name; "" when the element has none.
  virtual std::u16string getAttribute(const std::u16string& Name) = 0;
  virtual bool hasAttribute(const std::u16string& Name) = 0;
};

struct VEL_API IXMLDOMNodeList : IInterface {
  VEL_INTERFACE_ID("{2AF59707-41F3-45B1-9D50-05F58A840ECF}")
  virtual int32_t length() = 0;
  // The node at Index, null outside 0 .. length - 1.
  virtual IPtr<IXMLDOMNode> item(int32_t Index) = 0;
};

struct VEL_API IXMLDOMDocument : IXMLDOMNode {
  VEL_INTERFACE_ID("{A62B9B22-6B1F-4BF1-A944-7B2CEE9DDFE5}")
  // Replaces the document by the one in Source: a file path, or a file:
  // URL ("file:///dir/a.xml", "file:/dir/a.xml", with %XX escapes).
  // False, leaving the document empty, when the file cannot be read or is
  // not well-formed XML, and for every other URL scheme (no network).
  virtual bool load(const std::string& Source) = 0;
  // The same from XML text in memory.
  virtual bool loadXML(const std::string& Xml) = 0;
};

// A new, empty DOM document.
VEL_API IPtr<IXMLDOMDocument> CreateDOMDocument();

class TSimpleXMLParser;
// (Sender: the parser; ANode: the visited node.)
using TNodeDataEvent = TEvent<void(TObject* Sender, IXMLDOMNode* ANode)>;

class VEL_API TSimpleXMLParser : public TObject {
  VEL_CLASS(TSimpleXMLParser, TObject)
 public:
  // Creates the DOM document.
  TSimpleXMLParser();
  // Releases the document.
  ~TSimpleXMLParser() override;

  // Loads XMLFile (a path or file: URL, not XML text) and walks it; a
  // document that does not load gives no events and no error.
  void LoadXML(const std::string& XMLFile);
  // Walks the loaded document.
  void ParseXML();
  // Visits Node and, when it is an element or a document, its element
  // descendants: the handler sees each before its children, children in
  // document order; other node types are skipped with their subtrees.
  // Nesting depth is limited only by memory (the walk keeps its own stack).
  virtual void RecurseElements(IXMLDOMNode* Node);
  // Calls OnNodeData(this, Node) when assigned.
  virtual void GetNodeData(IXMLDOMNode* Node);

  IPtr<IXMLDOMDocument> Document;
  TNodeDataEvent OnNodeData;
};

}  // namespace vel
