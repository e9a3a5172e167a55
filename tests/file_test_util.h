// Whole-file reads and writes for the tests that check files byte for byte.
#pragma once

#include <fstream>
#include <iterator>
#include <string>

namespace file_test {

inline std::string ReadAll(const std::string& Path) {
  std::ifstream F(Path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(F), {});
}

inline void WriteAll(const std::string& Path, const std::string& Data) {
  std::ofstream(Path, std::ios::binary)
      .write(Data.data(), static_cast<std::streamsize>(Data.size()));
}

}  // namespace file_test
