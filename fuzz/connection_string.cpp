// Parses arbitrary text as a database connection string: it must give a
// backend and parameters or raise EADOError, never crash or hang; a
// PostgreSQL keyword string must not lose or merge pairs through quoting.
#include <cstddef>
#include <cstdint>
#include <string>

#include "vel/rtl/ADODB.h"

using namespace vel;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* Data, size_t Size) {
  const std::string Input(reinterpret_cast<const char*>(Data), Size);
  try {
    TADOConnectTarget T = ParseConnectionString(Input);
    if (T.Backend == dbSQLite && T.Params.empty()) __builtin_trap();
  } catch (const EADOError&) {
  }
  return 0;
}
