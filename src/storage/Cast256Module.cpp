#include "storage/Cast256Module.h"

#include <dlfcn.h>

#include <string>

#include "vel/rtl/System.h"

#ifndef VEL_CAST256_MODULE_NAME
#error "the build names the CAST-256 module (VEL_CAST256_MODULE_NAME)"
#endif

namespace vel {

namespace {

// Loads the module from this library's own folder, where the build and the
// install put it, and else by name (LD_LIBRARY_PATH, the system's folders).
// It stays loaded for the life of the process.
const TCast256Module* Load(std::string& Error) {
  void* Handle = nullptr;
  Dl_info Info{};
  if (::dladdr(reinterpret_cast<void*>(&Cast256Module), &Info) != 0 && Info.dli_fname) {
    std::string Own = Info.dli_fname;
    const size_t Slash = Own.rfind('/');
    if (Slash != std::string::npos) {
      const std::string Path = Own.substr(0, Slash + 1) + VEL_CAST256_MODULE_NAME;
      Handle = ::dlopen(Path.c_str(), RTLD_NOW | RTLD_LOCAL);
    }
  }
  if (!Handle) Handle = ::dlopen(VEL_CAST256_MODULE_NAME, RTLD_NOW | RTLD_LOCAL);
  if (!Handle) {
    const char* E = ::dlerror();
    Error = E ? E : VEL_CAST256_MODULE_NAME ": cannot be loaded";
    return nullptr;
  }
  using TEntry = const TCast256Module* (*)();
  auto Entry = reinterpret_cast<TEntry>(::dlsym(Handle, "VelCast256Module"));
  const TCast256Module* M = Entry ? Entry() : nullptr;
  if (!M || M->Version != KCast256ModuleVersion) {
    Error = VEL_CAST256_MODULE_NAME ": not the module of this library";
    return nullptr;
  }
  return M;
}

}  // namespace

const TCast256Module& Cast256Module() {
  static std::string Error;
  static const TCast256Module* const M = Load(Error);
  if (!M) throw EInvalidOperation("CAST-256 is not available: " + Error);
  return *M;
}

}  // namespace vel
