// Whole-file encryption with a pass phrase: EncryptFile writes an encrypted
// copy of a file beside it, DecryptFile reverses it.
//
// Encrypted file layout (no magic number, no length field, no padding):
//   offset 0, 32 bytes  check block: the key block encrypted with itself as
//                       key by a freshly initialised cipher
//   offset 32, rest     the source's bytes encrypted as one continuous cipher
//                       stream, same length as the source
// The key block is 32 bytes of 0xFF overwritten from its start with the pass
// phrase's bytes, so only the first 32 bytes of a pass phrase count and a
// shorter one is padded with 0xFF.
//
// The cipher is CAST-256 (RFC 2612) with a 256-bit key in the chaining mode
// of the Windows build's cipher component, so files move between the two
// builds unchanged (docs/ARCHITECTURE.md, "File encryption", has the mode).
//
// Thread safety: each call works on its own cipher and files; calls on
// distinct files may run in parallel.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "vel/Export.h"

namespace vel {

inline constexpr const char* SEncryptSourceMissing =
    "The file that needs to be encrypted does not exists.";
inline constexpr const char* SEncryptionFailed = "Encryption was unsuccessful...Reason: ";
// Raised (as EInOutError) when the output name would be the source itself.
inline constexpr const char* SCryptSameFile = "Cannot write %s over itself";

// Encrypts FileName with PassPhrase (raw bytes) into a new file in the same
// folder and returns its name, or "" when the source does not exist.
//
// Output extension: "." + Extension when Extension has non-blank characters
// (used as given), else ".~" + the source's extension without its dot.
// Output name: "EncryptedFile" + that extension, or with KeepName the
// source's name with its extension replaced. An existing file of that name
// is deleted first.
//
// When the source's or the output's extension is ".znd" (any case), the last
// byte of the file is copied unencrypted; DecryptFile does not know this and
// returns that byte altered (and, when the size is a multiple of 16, the 15
// bytes before it as well, since they then share a cipher block). Files
// written by earlier versions depend on it.
//
// A missing source shows the message box "The file that needs to be
// encrypted does not exists." and returns "". Any later failure shows
// "Encryption was unsuccessful...Reason: <message>" and raises the failure
// again. The source is never changed.
VEL_API std::string EncryptFile(const std::string& FileName, const std::string& PassPhrase,
                                const std::string& Extension, bool KeepName);

// Decrypts FileName into the same folder, under its name with the extension
// replaced by the output extension of EncryptFile (so pass the plain file's
// extension to get its name back: with "" the file x.~doc decrypts to
// x.~~doc). Returns the output's name, or "" when the pass phrase does not
// match the check block; the output file has been created by then and is
// left behind empty. File errors are raised as EInOutError without a
// message box ("Read beyond end of file" for a source shorter than 32
// bytes).
VEL_API std::string DecryptFile(const std::string& FileName, const std::string& PassPhrase,
                                const std::string& Extension);

// CAST-256 with the chaining of the Windows build's cipher component:
//  - Init: key schedule of the first KeySizeBits/8 key bytes; the initial
//    vector is the encryption of 16 zero bytes under that key;
//  - Encrypt/Decrypt: whole 16-byte blocks in CBC; a final partial block of
//    k bytes is XORed with the first k bytes of E(CV), which becomes the new
//    chaining value (CV), the same in both directions;
//  - the chaining value carries from call to call; Reset returns it to the
//    initial vector.
// Encrypt and Decrypt accept In == Out. Decrypt of 64 KiB or more splits the
// whole blocks between two threads.
class VEL_API TCast256Cipher {
 public:
  static constexpr int BlockSize = 16;     // bytes
  static constexpr int MaxKeySize = 256;   // bits

  TCast256Cipher();
  ~TCast256Cipher();
  TCast256Cipher(const TCast256Cipher&) = delete;
  TCast256Cipher& operator=(const TCast256Cipher&) = delete;

  // KeySizeBits: 128 to 256 in steps of 32; EInvalidOperation otherwise.
  void Init(const void* Key, int KeySizeBits);
  void Reset();
  // Wipes the key schedule and the vectors; Init is needed again.
  void Burn();
  void Encrypt(const void* In, void* Out, size_t Size);
  void Decrypt(const void* In, void* Out, size_t Size);
  // One block through the block function, no chaining.
  void EncryptECB(const void* In, void* Out);
  void DecryptECB(const void* In, void* Out);
  bool Initialized() const { return FInitialized; }

 private:
  struct TImpl;
  std::unique_ptr<TImpl> F;
  bool FInitialized = false;
};

}  // namespace vel
