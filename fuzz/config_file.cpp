// Feeds arbitrary bytes to the XML configuration reader as the file
// Misc/Corvane.config: the settings registry reads it, saves it back and
// reads the saved file again. Nothing may crash, leak or hang; the saved
// file must load and give back every value that was read.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "vel/CorRegistry.h"
#include "vel/RttiStrm.h"
#include "vel/rtl/Messages.h"
#include "vel/rtl/TypInfo.h"

using namespace vel;

namespace {

struct TFolders {
  std::string Data, System;
  TFolders() {
    const char* Tmp = std::getenv("TMPDIR");
    std::string Dir = std::string(Tmp && *Tmp ? Tmp : "/tmp") + "/vel_fuzz_config_XXXXXX";
    if (!::mkdtemp(Dir.data())) std::abort();
    Data = Dir + "/data";
    System = Dir + "/system";
    std::filesystem::create_directories(Data + "/Misc");
    ::setenv("VEL_DATA_DIR", Data.c_str(), 1);
    ::setenv("VEL_SYSTEM_DIR", System.c_str(), 1);
    SetDialogSink([](const std::string&, const std::string&, UINT) { return IDOK; });
  }
};

void WriteFile(const std::string& Name, const uint8_t* Data, size_t Size) {
  FILE* F = std::fopen(Name.c_str(), "wb");
  if (!F) std::abort();
  if (Size && std::fwrite(Data, 1, Size, F) != Size) std::abort();
  std::fclose(F);
}

// Every published value of the registry and its nested objects as text.
void Collect(TObject* Obj, const std::string& Prefix, std::string& Out) {
  for (PPropInfo P : GetSortedProps(Obj->ClassType())) {
    if (P->Kind() == tkClass) {
      if (TObject* N = GetObjectProp(Obj, P)) Collect(N, Prefix + P->Name + ".", Out);
    } else if (P->Kind() == tkLString) {
      std::string V = GetStrProp(Obj, P);
      // A second "[DataPath]" is replaced when the saved text is read.
      if (V.find(SDataPathMacro) == std::string::npos) Out += Prefix + P->Name + "=" + V + "\n";
    } else if (P->Kind() == tkInteger || P->Kind() == tkEnumeration) {
      Out += Prefix + P->Name + "=" + std::to_string(GetOrdProp(Obj, P)) + "\n";
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* Data, size_t Size) {
  static TFolders Folders;
  const std::string In = Folders.Data + "/Misc/Corvane.config";
  const std::string Saved = Folders.System + "/Misc/Corvane.config";
  std::error_code Ec;
  std::filesystem::remove(Saved, Ec);
  WriteFile(In, Data, Size);
  try {
    TCorvaneRegistry A(nullptr, stConfigFile);  // reads the file
    RTTIStream()->StreamPropsToConfig(&A, "Corvane", true);
    if (!std::filesystem::exists(Saved)) return 0;  // not loadable: nothing written
    std::string Before;
    Collect(&A, "", Before);
    std::filesystem::copy_file(Saved, In, std::filesystem::copy_options::overwrite_existing);
    TCorvaneRegistry B(nullptr, stConfigFile);
    std::string After;
    Collect(&B, "", After);
    if (Before != After) {
      std::fprintf(stderr, "values changed by a save:\n--- read\n%s--- read back\n%s", Before.c_str(),
                   After.c_str());
      std::abort();
    }
  } catch (const ERttiStream&) {
    // An invalid key cannot come from the file; a failed save can (disk).
  }
  return 0;
}
