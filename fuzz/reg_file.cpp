// Feeds arbitrary bytes to the registry-file reader, as they come (8-bit
// text, or UTF-16 when they start with the byte-order mark) and once more
// behind a UTF-16 byte-order mark. Reading must succeed or raise a
// vel::Exception, never crash, leak or hang; and every value read must come
// back unchanged through the line the exporter writes for it.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "vel/rtl/RegFiles.h"

using namespace vel;

namespace {

void Check(const std::string& Bytes) {
  TRegFileContent C;
  try {
    C = ParseRegText(Bytes);
  } catch (const Exception&) {
    return;
  }
  for (const TRegFileEntry& E : C.Entries) {
    if (E.Kind != TRegFileEntry::SetValue) continue;
    const std::string Again = "Windows Registry Editor Version 5.00\r\n[HKEY_CURRENT_USER\\K]\r\n" +
                              RegValueLine(E.Name, E.Value, TRegFileFormat::Version5) + "\r\n";
    const TRegFileContent R = ParseRegText("\xEF\xBB\xBF" + Again);
    if (R.Entries.size() != 2 || R.Entries[1].Name != E.Name || !(R.Entries[1].Value == E.Value)) std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* Data, size_t Size) {
  const std::string Bytes(reinterpret_cast<const char*>(Data), Size);
  Check(Bytes);
  Check(std::string("\xFF\xFE", 2) + Bytes);
  return 0;
}
