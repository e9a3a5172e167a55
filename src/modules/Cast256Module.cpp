// The CAST-256 block function of file encryption, in a module of its own.
// The library loads it on the first use of a cipher (src/storage/
// Cast256Module.h): Crypto++ and its relocations, some 3.4 MiB of resident
// memory, stay out of every program that never encrypts. The interface is
// plain C so that nothing of Crypto++ crosses the module's boundary.
#include <cryptopp/cast.h>

#include <cstddef>
#include <cstdint>

#include "storage/Cast256Module.h"

namespace {

struct TSchedules {
  CryptoPP::CAST256::Encryption Enc;
  CryptoPP::CAST256::Decryption Dec;
};

void* New() {
  return new TSchedules;
}

void Free(void* C) {
  delete static_cast<TSchedules*>(C);
}

void SetKey(void* C, const uint8_t* Key, size_t Bytes) {
  auto* S = static_cast<TSchedules*>(C);
  S->Enc.SetKey(Key, Bytes);
  S->Dec.SetKey(Key, Bytes);
}

void Encrypt(const void* C, const uint8_t* In, uint8_t* Out) {
  static_cast<const TSchedules*>(C)->Enc.ProcessBlock(In, Out);
}

void Decrypt(const void* C, const uint8_t* In, uint8_t* Out) {
  static_cast<const TSchedules*>(C)->Dec.ProcessBlock(In, Out);
}

void DecryptXor(const void* C, const uint8_t* In, const uint8_t* Xor, uint8_t* Out) {
  static_cast<const TSchedules*>(C)->Dec.ProcessAndXorBlock(In, Xor, Out);
}

const vel::TCast256Module Module = {vel::KCast256ModuleVersion, &New,     &Free,      &SetKey,
                                    &Encrypt,                   &Decrypt, &DecryptXor};

}  // namespace

extern "C" __attribute__((visibility("default"))) const vel::TCast256Module* VelCast256Module() {
  return &Module;
}
