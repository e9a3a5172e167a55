// The CAST-256 block function, loaded on first use from a module beside the
// library (libvelclasses-cast256.so.N, built from src/modules/): programs
// that never encrypt do not map Crypto++.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vel {

// Raised by the loader as EInvalidOperation when the module is missing or
// of another build of the library.
inline constexpr uint32_t KCast256ModuleVersion = 1;

// The module's functions over an opaque pair of key schedules.
struct TCast256Module {
  uint32_t Version;
  void* (*New)();
  void (*Free)(void* C);
  void (*SetKey)(void* C, const uint8_t* Key, size_t Bytes);
  void (*Encrypt)(const void* C, const uint8_t* In, uint8_t* Out);
  void (*Decrypt)(const void* C, const uint8_t* In, uint8_t* Out);
  // Out = Decrypt(In) xor Xor, one 16-byte block.
  void (*DecryptXor)(const void* C, const uint8_t* In, const uint8_t* Xor, uint8_t* Out);
};

// The loaded module; loads it on the first call (thread-safe) and raises
// EInvalidOperation with the loader's message when it cannot.
const TCast256Module& Cast256Module();

}  // namespace vel
