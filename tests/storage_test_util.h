// Shared by the compound-file wrapper, path and vel stg tests: a scratch
// folder per case and the texts of the failures they check.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "vel/OleStorage.h"

namespace storage_test {

using TNames = std::vector<std::string>;

class ScratchDir : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* Base = std::getenv("VEL_TEST_TMPDIR");
    std::string Tmpl = std::string(Base && *Base ? Base : "/tmp") + "/vel_stg_XXXXXX";
    std::filesystem::create_directories(std::filesystem::path(Tmpl).parent_path());
    ASSERT_NE(::mkdtemp(Tmpl.data()), nullptr);
    Dir = Tmpl;
  }
  void TearDown() override { std::filesystem::remove_all(Dir); }
  std::string Path(const std::string& Name) const { return Dir + "/" + Name; }
  std::string Dir;
};

// "<class>: <message>" of what F raises, or "<no exception>".
inline std::string Error(const std::function<void()>& F) {
  try {
    F();
  } catch (const vel::Exception& E) {
    return std::string(E.ClassName()) + ": " + E.Message();
  }
  return "<no exception>";
}

// The HRESULT of the EOleSysError F raises, S_OK when it raises none.
inline vel::HRESULT SysErrorCode(const std::function<void()>& F) {
  try {
    F();
  } catch (const vel::EOleSysError& E) {
    return E.ErrorCode();
  }
  return vel::S_OK;
}

inline TNames Lines(const vel::TStrings& L) {
  TNames R;
  for (int I = 0; I < L.Count(); ++I) R.push_back(L[I]);
  return R;
}

}  // namespace storage_test
