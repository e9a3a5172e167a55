// Feeds arbitrary files to DecryptFile, with or without the check block of
// the pass phrase in front, and checks the round trips: encrypting what
// DecryptFile wrote gives back the input file byte for byte (decryption and
// encryption are inverse for any length), and DecryptFile of EncryptFile's
// output is the data. Short or foreign files must fail cleanly.
//
// Input: byte 0 flags (bit 0: put the right check block in front; bit 1:
// the ".znd" extension for the encryption round trip), byte 1 the pass
// phrase length (mod 41), then the pass phrase, then the data.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>

#include "vel/Cryption.h"
#include "vel/rtl/Messages.h"
#include "vel/rtl/SysUtils.h"

using namespace vel;

namespace {

std::string Get(const std::string& Name) {
  std::ifstream F(Name, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(F), {});
}

void Put(const std::string& Name, const std::string& Data) {
  std::ofstream(Name, std::ios::binary).write(Data.data(), static_cast<std::streamsize>(Data.size()));
}

std::string CheckBlock(const std::string& Pass) {
  uint8_t Key[32];
  std::memset(Key, 0xFF, 32);
  std::memcpy(Key, Pass.data(), std::min<size_t>(Pass.size(), 32));
  TCast256Cipher C;
  C.Init(Key, 256);
  uint8_t Check[32];
  C.Encrypt(Key, Check, 32);
  return std::string(reinterpret_cast<char*>(Check), 32);
}

const std::string& Dir() {
  static const std::string D = [] {
    const char* T = std::getenv("TMPDIR");
    std::string Base = std::string(T && *T ? T : "/tmp") + "/vel_fuzz_cryption_" + std::to_string(::getpid());
    ForceDirectories(Base);
    SetDialogSink([](const std::string&, const std::string&, UINT) { return IDOK; });
    return Base;
  }();
  return D;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* Data, size_t Size) {
  if (Size < 2) return 0;
  const uint8_t Flags = Data[0];
  const size_t PassLen = std::min<size_t>(Data[1] % 41, Size - 2);
  const std::string Pass(reinterpret_cast<const char*>(Data + 2), PassLen);
  const std::string Body(reinterpret_cast<const char*>(Data + 2 + PassLen), Size - 2 - PassLen);
  const std::string In = Dir() + "/in.enc";
  const std::string File = (Flags & 1) ? CheckBlock(Pass) + Body : Body;
  Put(In, File);

  std::string Out;
  try {
    Out = DecryptFile(In, Pass, "plain");
  } catch (const EInOutError&) {
    if (File.size() >= 32) std::abort();  // only a short file may fail
    return 0;
  }
  if (Flags & 1) {
    if (Out != Dir() + "/in.plain") std::abort();
    // Encrypting the decrypted data restores the input exactly.
    const std::string Again = EncryptFile(Out, Pass, "again", true);
    if (Get(Again) != File) std::abort();
  } else if (!Out.empty() && File.compare(0, 32, CheckBlock(Pass)) != 0) {
    std::abort();  // accepted a foreign check block
  }

  // Encrypt the body, decrypt it back.
  const std::string Src = Dir() + ((Flags & 2) ? "/body.znd" : "/body.dat");
  Put(Src, Body);
  const std::string Enc = EncryptFile(Src, Pass, "", true);
  if (Get(Enc).size() != Body.size() + 32) std::abort();
  const std::string Dec = DecryptFile(Enc, Pass, "back");
  const std::string Back = Get(Dec);
  if (Flags & 2) {
    // The unencrypted last byte comes back altered, and with it the rest of
    // its block when it completes one; the bytes before are intact.
    const size_t Kept = Body.empty() ? 0 : (Body.size() % 16 == 0 ? Body.size() - 16 : Body.size() - 1);
    if (Back.size() != Body.size() || Back.compare(0, Kept, Body, 0, Kept) != 0) std::abort();
  } else if (Back != Body) {
    std::abort();
  }
  return 0;
}
