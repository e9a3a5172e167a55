// vel_crypt_demo: encrypts a small client file with a pass phrase, decrypts it
// back under its own name, and keeps client keys in a hash table.
//
//   vel_crypt_demo [FOLDER]   works in FOLDER (default: $TMPDIR or /tmp)
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include "vel/Cryption.h"
#include "vel/velHash.h"
#include "vel/rtl/SysUtils.h"

int main(int argc, char** argv) {
  const char* Tmp = std::getenv("TMPDIR");
  const std::string Dir = argc > 1 ? argv[1] : (Tmp && *Tmp ? Tmp : "/tmp");
  const std::string Plain = Dir + "/vel_crypt_demo_clients.csv";
  const std::string Text = "id;name;portfolio\r\n1;Ada;balanced\r\n2;Grace;growth\r\n";
  std::ofstream(Plain, std::ios::binary) << Text;

  const std::string Pass = "correct horse battery staple";
  const std::string Encrypted = vel::EncryptFile(Plain, Pass, "", true);
  std::printf("encrypted %s -> %s (%lld bytes)\n", Plain.c_str(), Encrypted.c_str(),
              static_cast<long long>(std::ifstream(Encrypted, std::ios::binary | std::ios::ate).tellg()));
  vel::DeleteFile(Plain);
  const std::string Decrypted = vel::DecryptFile(Encrypted, Pass, "csv");
  std::ifstream In(Decrypted, std::ios::binary);
  const std::string Back((std::istreambuf_iterator<char>(In)), {});
  std::printf("decrypted %s: %s\n", Decrypted.c_str(), Back == Text ? "same bytes" : "DIFFERENT");
  std::printf("wrong pass phrase gives \"%s\"\n", vel::DecryptFile(Encrypted, "guess", "wrong").c_str());

  vel::TStringKeyHashTable Clients;
  Clients.AddItem("Ada", "balanced");
  Clients.AddItem("Grace", "growth");
  Clients.GetValue("Ada")->Add("bonds");
  std::printf("Ada: %s", Clients.GetValue("Ada")->Text().c_str());

  for (const std::string& F : {Encrypted, Decrypted, Dir + "/vel_crypt_demo_clients.wrong"}) vel::DeleteFile(F);
  return Back == Text ? 0 : 1;
}
