#include "vel/rtl/VeluSystem.h"

#include <cstdlib>

namespace vel {

namespace {

std::string Env(const char* Name) {
  const char* V = std::getenv(Name);
  return V && *V ? std::string(V) : std::string();
}

std::string Trimmed(std::string S) {
  while (S.size() > 1 && S.back() == '/') S.pop_back();
  return S;
}

std::string XdgDataHome() {
  std::string D = Env("XDG_DATA_HOME");
  if (!D.empty()) return Trimmed(D);
  std::string Home = Env("HOME");
  return Trimmed(Home.empty() ? std::string(".") : Home) + "/.local/share";
}

std::string Folder(const char* Var, const char* Leaf) {
  std::string D = Env(Var);
  if (!D.empty()) return Trimmed(D);
  return XdgDataHome() + "/velmont/" + Leaf;
}

}  // namespace

std::string GetDataFolder() { return Folder("VEL_DATA_DIR", "data"); }

std::string GetSystemFolder() { return Folder("VEL_SYSTEM_DIR", "system"); }

}  // namespace vel
