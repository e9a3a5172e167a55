// vel: the command-line tool of VelClassesLib. One subcommand per area, each
// in a file of its own that registers itself (Commands.h); `vel --help` and
// `vel COMMAND --help` list them.
#include <algorithm>
#include <cstdio>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "Commands.h"
#include "vel/Version.h"
#include "vel/rtl/System.h"

namespace vel::tool {

int Status = 0;

namespace {

struct TEntry {
  std::string Name;
  std::string Description;
  Registration::TSetup Setup;
};

std::vector<TEntry>& Entries() {
  static std::vector<TEntry> List;
  return List;
}

}  // namespace

Registration::Registration(std::string Name, std::string Description, TSetup Setup) {
  Entries().push_back({std::move(Name), std::move(Description), std::move(Setup)});
}

bool WriteStdout(const void* Data, size_t N) {
  return (N == 0 || std::fwrite(Data, 1, N, stdout) == N) && std::fflush(stdout) == 0;
}

}  // namespace vel::tool

int main(int argc, char** argv) {
  using namespace vel::tool;
  CLI::App App{"vel: the command-line tool of VelClassesLib", "vel"};
  App.require_subcommand(1);
  App.set_version_flag("--version", std::string(VEL_VERSION_STRING));

  // Subcommands in name order, whatever order their files were linked in.
  std::vector<TEntry> Sorted = Entries();
  std::sort(Sorted.begin(), Sorted.end(),
            [](const TEntry& A, const TEntry& B) { return A.Name < B.Name; });
  for (const TEntry& E : Sorted) {
    CLI::App* Sub = App.add_subcommand(E.Name, E.Description);
    E.Setup(*Sub);
  }

  try {
    App.parse(argc, argv);
  } catch (const CLI::ParseError& E) {
    const int Code = App.exit(E);
    return Code == 0 ? 0 : 2;
  } catch (const vel::Exception& E) {
    std::fprintf(stderr, "vel: %s\n", E.what());
    return 1;
  } catch (const std::exception& E) {
    std::fprintf(stderr, "vel: %s\n", E.what());
    return 1;
  }
  return Status;
}
