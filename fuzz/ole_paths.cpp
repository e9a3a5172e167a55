// Feeds arbitrary bytes, as a file, to the compound-file wrappers and path
// functions: open, walk the whole tree, list every storage's streams and
// read every stream as a string list and as raw bytes. Each step must
// succeed or raise a vel::Exception, never crash, leak or hang.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "vel/OleStorage.h"
#include "vel/rtl/Streams.h"

using namespace vel;

namespace {

// The file each input is written to; removed when the process ends.
struct TScratchFile {
  std::string Name;
  TScratchFile() {
    const char* Dir = std::getenv("TMPDIR");
    Name = std::string(Dir && *Dir ? Dir : "/tmp") + "/fuzz_ole_paths_" +
           std::to_string(::getpid()) + ".stg";
  }
  ~TScratchFile() { std::remove(Name.c_str()); }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* Data, size_t Size) {
  static const TScratchFile Scratch;
  const std::string& File = Scratch.Name;
  if (std::FILE* F = std::fopen(File.c_str(), "wb")) {
    if (Size) std::fwrite(Data, 1, Size, F);
    std::fclose(F);
  } else {
    return 0;
  }
  try {
    std::unique_ptr<TOleRootStorage> Root(TOleRootStorage::Open(File, 0x12, false));
    // Paths of every storage and stream, in walk order.
    std::vector<std::pair<std::string, uint32_t>> Paths;
    std::vector<std::string> Stack;
    Root->ForEach(
        [&](TObject*, const TElementInfo& Info, bool& Continue) {
          Stack.resize(static_cast<size_t>(Info.Depth > 0 ? Info.Depth - 1 : 0));
          std::string P;
          for (const std::string& S : Stack) P += S + "\\";
          Paths.emplace_back(P + Info.Name, Info.ElementType);
          Stack.push_back(Info.Name);
          if (Paths.size() > 10000) Continue = false;
        },
        true);
    for (const auto& [Path, Type] : Paths) {
      // Control-character names are translated ("#5...") and cannot be
      // opened by that text; the failure is part of what is exercised.
      try {
        if (Type == STGTY_STORAGE) {
          TStringList Names;
          ContentsByPath(Root.get(), Path, &Names);
        } else if (Type == STGTY_STREAM) {
          TMemoryStream M;
          LoadStreamByPath(Root.get(), Path, &M);
          TStringList Lines;
          ReadStringsFromStream(Root.get(), Path, &Lines, false);
        }
      } catch (const Exception&) {
      }
    }
    TStringList Names;
    ContentsByPath(Root.get(), "", &Names);
  } catch (const Exception&) {
  }
  return 0;
}
