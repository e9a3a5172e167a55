// Shared by the registry, settings, resource and package tests: a scratch
// folder per test case, whole-file reads and writes, the text of what a call
// raises, string lists in one line, and a fixture that points the registry
// hives and the data and system folders into the case's own folder.
#pragma once

#include <stdlib.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "vel/rtl/StringLists.h"
#include "vel/rtl/System.h"

namespace vel_test {

using Bytes = std::vector<uint8_t>;

inline std::string ReadFile(const std::string& Path) {
  std::ifstream In(Path, std::ios::binary);
  std::stringstream S;
  S << In.rdbuf();
  return S.str();
}

// Writes Data to Path, creating the folders on the way.
inline void WriteFile(const std::string& Path, std::string_view Data) {
  std::filesystem::create_directories(std::filesystem::path(Path).parent_path());
  std::ofstream(Path, std::ios::binary).write(Data.data(), std::streamsize(Data.size()));
}

// A folder under VEL_TEST_TMPDIR of its own (cases run two at a time),
// removed with the object.
class TScratch {
 public:
  TScratch() {
    const char* Base = std::getenv("VEL_TEST_TMPDIR");
    std::string Tmpl = std::string(Base && *Base ? Base : "/tmp") + "/vel_case_XXXXXX";
    std::filesystem::create_directories(std::filesystem::path(Tmpl).parent_path());
    if (!::mkdtemp(Tmpl.data())) throw std::runtime_error("cannot create " + Tmpl);
    Dir = Tmpl;
  }
  ~TScratch() {
    std::error_code Ec;
    std::filesystem::remove_all(Dir, Ec);
  }
  TScratch(const TScratch&) = delete;
  TScratch& operator=(const TScratch&) = delete;
  std::string Path(const std::string& Name) const { return Dir + "/" + Name; }
  std::string Write(const std::string& Name, const Bytes& Data) const {
    WriteFile(Path(Name),
              std::string_view(reinterpret_cast<const char*>(Data.data()), Data.size()));
    return Path(Name);
  }
  std::string Dir;
};

// The message of the E that Fn raises, or "no error".
template <class E = vel::Exception>
std::string Raised(const std::function<void()>& Fn) {
  try {
    Fn();
  } catch (const E& X) {
    return X.Message();
  }
  return "no error";
}

// "<class>: <message>" of the library exception Fn raises, or "no error".
inline std::string ErrorOf(const std::function<void()>& Fn) {
  try {
    Fn();
  } catch (const vel::Exception& E) {
    return std::string(E.ClassName()) + ": " + E.Message();
  }
  return "no error";
}

// The lines of L joined with "|", to compare a whole list in one step.
inline std::string Joined(const vel::TStrings* L) {
  std::string S;
  for (int I = 0; I < L->Count(); ++I) S += (I ? "|" : "") + L->Strings(I);
  return S;
}

// Sets an environment variable for the object's lifetime.
class TEnvVar {
 public:
  TEnvVar(const char* Name, const std::string& Value) : FName(Name) {
    if (const char* Old = std::getenv(Name)) FOld = Old;
    ::setenv(Name, Value.c_str(), 1);
  }
  ~TEnvVar() { FOld ? (void)::setenv(FName, FOld->c_str(), 1) : (void)::unsetenv(FName); }
  TEnvVar(const TEnvVar&) = delete;
  TEnvVar& operator=(const TEnvVar&) = delete;

 private:
  const char* FName;
  std::optional<std::string> FOld;
};

// Registry hives in <Dir>/hives, the data folder <Dir>/data and the system
// folder <Dir>/system.
class ScratchTest : public ::testing::Test {
 protected:
  TScratch Scratch;
  const std::string Dir = Scratch.Dir, DataDir = Dir + "/data", SystemDir = Dir + "/system";
  TEnvVar Hives{"VEL_REGISTRY_DIR", Dir + "/hives"}, Data{"VEL_DATA_DIR", DataDir},
      System{"VEL_SYSTEM_DIR", SystemDir};
};

}  // namespace vel_test
