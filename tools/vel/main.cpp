// vel: the command-line tool of VelClassesLib.
//
//   vel version        prints the library version
//   vel help           lists the commands
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "vel/Version.h"
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

}  // namespace

int main(int argc, char** argv) {
  Commands() = {
      {"help", "help", Help},
      {"version", "version", Version},
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
