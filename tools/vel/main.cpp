// vel: the command-line tool of VelClassesLib.
//
//   vel version        prints the library version
//   vel help           lists the commands
//   vel dfm totext FILE  a component stream as text, to stdout
//   vel dfm tobin FILE   the text form of a component stream as binary, to stdout
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "vel/Version.h"
#include "vel/rtl/ObjectText.h"
#include "vel/rtl/Streams.h"
#include "vel/rtl/System.h"

namespace {

struct Command {
  const char* Name;
  const char* Usage;
  std::function<int(int, char**)> Run;
};

std::vector<Command>& Commands() {
  static std::vector<Command> List;
  return List;
}

int Help(int, char**) {
  std::printf("usage: vel COMMAND [ARGS]\n\ncommands:\n");
  for (const Command& C : Commands()) std::printf("  %-28s\n", C.Usage);
  return 0;
}

int Version(int, char**) {
  std::printf("vel %s (libvelclasses %s)\n", VEL_VERSION_STRING, vel::LibraryVersion());
  return 0;
}

// Converts a component stream file between its binary and text forms.
int Dfm(int argc, char** argv) {
  const bool ToText = argc == 2 && std::strcmp(argv[0], "totext") == 0;
  const bool ToBin = argc == 2 && std::strcmp(argv[0], "tobin") == 0;
  if (!ToText && !ToBin) {
    std::fprintf(stderr, "usage: vel dfm totext FILE | vel dfm tobin FILE\n");
    return 2;
  }
  vel::TFileStream In(argv[1], vel::fmOpenRead | vel::fmShareDenyWrite);
  vel::TMemoryStream Out;
  if (ToText) vel::ObjectBinaryToText(&In, &Out);
  else vel::ObjectTextToBinary(&In, &Out);
  const size_t N = static_cast<size_t>(Out.GetSize());
  if (std::fwrite(Out.Memory(), 1, N, stdout) != N || std::fflush(stdout) != 0) {
    std::fprintf(stderr, "vel: cannot write the output\n");
    return 1;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Commands() = {
      {"help", "help", Help},
      {"version", "version", Version},
      {"dfm", "dfm totext|tobin FILE", Dfm},
  };
  if (argc < 2) {
    Help(argc, argv);
    return 2;
  }
  for (const Command& C : Commands())
    if (std::strcmp(C.Name, argv[1]) == 0) {
      try {
        return C.Run(argc - 2, argv + 2);
      } catch (const vel::Exception& E) {
        std::fprintf(stderr, "vel: %s: %s\n", E.ClassName(), E.what());
        return 1;
      }
    }
  std::fprintf(stderr, "vel: unknown command '%s'\n", argv[1]);
  Help(argc, argv);
  return 2;
}
