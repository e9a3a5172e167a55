// Shared by the compound-file wrapper, path and vel stg tests: a scratch
// folder per case and the texts of the failures they check.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "vel/OleStorage.h"

namespace storage_test {

using TNames = std::vector<std::string>;

// A fixture over the shared scratch folder of a case.
class ScratchDir : public ::testing::Test {
 protected:
  std::string Path(const std::string& Name) const { return Scratch.Path(Name); }
  vel_test::TScratch Scratch;
  const std::string& Dir = Scratch.Dir;
};

using vel_test::ErrorOf;

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
