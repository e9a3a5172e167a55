// The vel tool's subcommands: each area (dfm, reg, stg, crypt, ...) lives in a
// file of its own under tools/vel/ and registers itself with one static
// object, so that adding a subcommand never touches main.cpp:
//
//   static vel::tool::Registration Reg("reg", "registry hives and .reg files",
//       [](CLI::App& Sub) {
//         auto* Import = Sub.add_subcommand("import", "...");
//         ...
//         Import->callback([=] { vel::tool::Status = DoImport(...); });
//       });
//
// A callback sets vel::tool::Status (0 by default). An exception derived from
// vel::Exception or std::exception that leaves a callback is printed on
// standard error and ends the program with status 1; a wrong command line
// ends it with status 2.
#pragma once

#include <CLI/CLI.hpp>

#include <functional>
#include <string>

namespace vel::tool {

// The exit status the chosen subcommand sets.
extern int Status;

class Registration {
 public:
  using TSetup = std::function<void(CLI::App& Sub)>;
  Registration(std::string Name, std::string Description, TSetup Setup);
};

// Writes N bytes to standard output; false when the output fails.
bool WriteStdout(const void* Data, size_t N);

}  // namespace vel::tool
