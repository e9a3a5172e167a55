#include "vel/rtl/Packages.h"

#include <dirent.h>
#include <dlfcn.h>
#include <unistd.h>

#include <cstdlib>
#include <string_view>
#include <vector>

#include "vel/rtl/SysUtils.h"

namespace vel {

namespace {
constexpr const char* SCannotLoadPackage = "Cannot load package %s: %s";
}

std::string FindModuleFile(const std::string& Name) {
  if (Name.empty()) return {};
  if (Name.find('/') != std::string::npos) return FileExists(Name) ? Name : std::string();
  std::vector<std::string> Dirs;
  if (const char* P = std::getenv("VEL_PACKAGE_PATH")) {
    std::string_view S(P);
    while (!S.empty()) {
      const size_t C = S.find(':');
      if (C) Dirs.emplace_back(S.substr(0, C));
      if (C == std::string_view::npos) break;
      S.remove_prefix(C + 1);
    }
  }
  if (const char* D = std::getenv("VEL_SYSTEM_DIR"); D && *D) {
    Dirs.emplace_back(D);
  } else if (const char* X = std::getenv("XDG_DATA_HOME"); X && *X) {
    Dirs.push_back(std::string(X) + "/velmont/system");
  } else if (const char* H = std::getenv("HOME"); H && *H) {
    Dirs.push_back(std::string(H) + "/.local/share/velmont/system");
  }
  char Exe[4096];
  const ssize_t N = ::readlink("/proc/self/exe", Exe, sizeof Exe - 1);
  if (N > 0) Dirs.push_back(ExtractFileDir(std::string_view(Exe, static_cast<size_t>(N))));
  for (const std::string& D : Dirs) {
    const std::string F = IncludeTrailingPathDelimiter(D) + Name;
    if (FileExists(F)) return F;
    // Names come from Windows, where file names match in any letter case.
    if (DIR* Dir = ::opendir(D.c_str())) {
      std::string Found;
      while (const dirent* E = ::readdir(Dir)) {
        if (AnsiSameText(E->d_name, Name)) {
          Found = IncludeTrailingPathDelimiter(D) + E->d_name;
          if (FileExists(Found)) break;
          Found.clear();
        }
      }
      ::closedir(Dir);
      if (!Found.empty()) return Found;
    }
  }
  return {};
}

HMODULE LoadPackageEx(const std::string& Name, bool /*Flag*/) {
  const std::string File = FindModuleFile(Name);
  if (File.empty())
    throw EPackageError(Format(SCannotLoadPackage, {Name, "not found in the package path"}));
  void* Handle = ::dlopen(File.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!Handle) {
    const char* Err = ::dlerror();
    throw EPackageError(Format(SCannotLoadPackage, {Name, Err ? Err : "unknown error"}));
  }
  auto* Init = reinterpret_cast<void (*)()>(::dlsym(Handle, "Initialize"));
  // The library's own Initialize is found when the package defines none.
  auto* Own = reinterpret_cast<void (*)()>(::dlsym(RTLD_DEFAULT, "Initialize"));
  if (!Init || Init == Own) {
    ::dlclose(Handle);
    throw EPackageError(Format(SCannotLoadPackage, {Name, "it has no Initialize entry"}));
  }
  try {
    Init();
  } catch (...) {
    ::dlclose(Handle);
    throw;
  }
  return Handle;
}

}  // namespace vel
