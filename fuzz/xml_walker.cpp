// Loads arbitrary bytes as an XML file through the walker and reads every
// visited node the way a handler does (name, attributes, text, children).
// Loading must succeed or fail quietly; nothing may crash, leak or hang.
// The bytes go to an anonymous in-memory file opened by its /proc path, so
// the file loading path is the one exercised.
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "vel/SimpleXmlParse.h"

using namespace vel;

namespace {

class TReader : public TObject {
 public:
  size_t Seen = 0;
  void OnNode(TObject*, IXMLDOMNode* N) {
    Seen += N->nodeName().size() + N->nodeValue().size();
    for (int32_t I = 0; I < N->attributeCount(); ++I)
      Seen += N->attributeName(I).size() + N->attributeValue(I).size();
    Seen += N->getAttribute(u"id").size() + N->hasAttribute(u"name");
    // Element text is read near the root only: it covers the subtree.
    if (Seen < 4096) Seen += N->text().size();
    IPtr<IXMLDOMNodeList> Children = N->childNodes();
    if (Children->length() > 0) Seen += Children->item(Children->length() - 1)->nodeType();
  }
};

int MemFile() {
  static int Fd = memfd_create("xml_walker", MFD_CLOEXEC);
  return Fd;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* Data, size_t Size) {
  int Fd = MemFile();
  if (Fd < 0) return 0;
  if (ftruncate(Fd, 0) != 0 || pwrite(Fd, Data, Size, 0) != static_cast<ssize_t>(Size)) return 0;
  TSimpleXMLParser Parser;
  TReader Reader;
  Parser.OnNodeData = TNodeDataEvent::Bind<&TReader::OnNode>(&Reader);
  Parser.LoadXML("/proc/self/fd/" + std::to_string(Fd));
  // The same bytes from memory must load exactly when the file did.
  bool FromFile = Parser.Document->childNodes()->length() > 0;
  IPtr<IXMLDOMDocument> Doc = CreateDOMDocument();
  bool FromText = Doc->loadXML(std::string(reinterpret_cast<const char*>(Data), Size));
  if (FromFile != FromText) __builtin_trap();
  return 0;
}
