#include "vel/Cryption.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <future>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "storage/Cast256Module.h"
#include "vel/rtl/Messages.h"
#include "vel/rtl/SysUtils.h"
#include "vel/rtl/System.h"

namespace vel {

// ---------------------------------------------------------------------------
// TCast256Cipher

// The key schedules live in the CAST-256 module, loaded by the first Init.
struct TCast256Cipher::TImpl {
  const TCast256Module* M = nullptr;
  void* Schedules = nullptr;
  alignas(16) uint8_t IV[16] = {};
  alignas(16) uint8_t CV[16] = {};
  ~TImpl() {
    if (Schedules) M->Free(Schedules);
  }
  void Encrypt(const uint8_t* In, uint8_t* Out) const { M->Encrypt(Schedules, In, Out); }
  void Encrypt(uint8_t* InOut) const { M->Encrypt(Schedules, InOut, InOut); }
};

namespace {

constexpr size_t KBlock = 16;
// Below this a second thread costs more than it saves.
constexpr size_t KParallelDecrypt = 64 * 1024;

inline void XorBlock(uint8_t* Dst, const uint8_t* A, const uint8_t* B, size_t N = KBlock) {
  for (size_t I = 0; I < N; ++I) Dst[I] = A[I] ^ B[I];
}

void SecureZero(void* P, size_t N) {
  ::explicit_bzero(P, N);
}

// CBC decryption of Blocks whole blocks from In to Out (may be equal),
// Prev being the cipher block before In[0]. Works from the last block back
// so that an in-place run still reads every cipher block before it is
// overwritten.
void DecryptBlocksBackwards(const TCast256Module& M, const void* Schedules, const uint8_t* In,
                            uint8_t* Out, size_t Blocks, const uint8_t* Prev) {
  for (size_t I = Blocks; I-- > 1;) {
    M.DecryptXor(Schedules, In + I * KBlock, In + (I - 1) * KBlock, Out + I * KBlock);
  }
  if (Blocks > 0) M.DecryptXor(Schedules, In, Prev, Out);
}

}  // namespace

// A cipher that was never given a key has no schedules to run.
void CheckKeyed(const void* Schedules) {
  if (!Schedules) throw EInvalidOperation("CAST-256 cipher used before Init");
}

TCast256Cipher::TCast256Cipher() : F(new TImpl) {}

TCast256Cipher::~TCast256Cipher() {
  Burn();
}

void TCast256Cipher::Init(const void* Key, int KeySizeBits) {
  if (KeySizeBits < 128 || KeySizeBits > MaxKeySize || KeySizeBits % 32 != 0) {
    throw EInvalidOperation(Format("Invalid key size %d for CAST-256", {KeySizeBits}));
  }
  const auto* K = static_cast<const uint8_t*>(Key);
  const size_t Bytes = static_cast<size_t>(KeySizeBits / 8);
  if (!F->Schedules) {
    F->M = &Cast256Module();
    F->Schedules = F->M->New();
  }
  F->M->SetKey(F->Schedules, K, Bytes);
  // No initialisation vector given: the vector is E(0).
  std::memset(F->IV, 0, KBlock);
  F->Encrypt(F->IV);
  std::memcpy(F->CV, F->IV, KBlock);
  FInitialized = true;
}

void TCast256Cipher::Reset() {
  std::memcpy(F->CV, F->IV, KBlock);
}

void TCast256Cipher::Burn() {
  if (!F) return;
  SecureZero(F->IV, KBlock);
  SecureZero(F->CV, KBlock);
  if (FInitialized) {
    // Overwrite the key schedules with those of an all-zero key.
    const uint8_t Zero[32] = {};
    F->M->SetKey(F->Schedules, Zero, sizeof Zero);
  }
  FInitialized = false;
}

void TCast256Cipher::EncryptECB(const void* In, void* Out) {
  CheckKeyed(F->Schedules);
  F->Encrypt(static_cast<const uint8_t*>(In), static_cast<uint8_t*>(Out));
}

void TCast256Cipher::DecryptECB(const void* In, void* Out) {
  CheckKeyed(F->Schedules);
  F->M->Decrypt(F->Schedules, static_cast<const uint8_t*>(In), static_cast<uint8_t*>(Out));
}

void TCast256Cipher::Encrypt(const void* InData, void* OutData, size_t Size) {
  CheckKeyed(F->Schedules);
  const auto* In = static_cast<const uint8_t*>(InData);
  auto* Out = static_cast<uint8_t*>(OutData);
  uint8_t* CV = F->CV;
  const size_t Blocks = Size / KBlock;
  for (size_t I = 0; I < Blocks; ++I) {
    XorBlock(CV, CV, In);
    F->Encrypt(CV);
    std::memcpy(Out, CV, KBlock);
    In += KBlock;
    Out += KBlock;
  }
  if (const size_t Rest = Size % KBlock) {
    F->Encrypt(CV);
    XorBlock(Out, In, CV, Rest);
  }
}

void TCast256Cipher::Decrypt(const void* InData, void* OutData, size_t Size) {
  CheckKeyed(F->Schedules);
  const auto* In = static_cast<const uint8_t*>(InData);
  auto* Out = static_cast<uint8_t*>(OutData);
  const size_t Blocks = Size / KBlock;
  if (Blocks > 0) {
    // The last cipher block is the next chaining value; keep it before an
    // in-place run overwrites it, and keep the current one for block 0.
    uint8_t First[KBlock], Last[KBlock];
    std::memcpy(First, F->CV, KBlock);
    std::memcpy(Last, In + (Blocks - 1) * KBlock, KBlock);
    if (Size >= KParallelDecrypt) {
      const size_t Half = Blocks / 2;
      uint8_t Mid[KBlock];
      std::memcpy(Mid, In + (Half - 1) * KBlock, KBlock);
      const TCast256Module& M = *F->M;
      const void* Schedules = F->Schedules;
      std::thread Second([&] {
        DecryptBlocksBackwards(M, Schedules, In + Half * KBlock, Out + Half * KBlock,
                               Blocks - Half, Mid);
      });
      try {
        DecryptBlocksBackwards(M, Schedules, In, Out, Half, First);
      } catch (...) {
        Second.join();
        throw;
      }
      Second.join();
    } else {
      DecryptBlocksBackwards(*F->M, F->Schedules, In, Out, Blocks, First);
    }
    std::memcpy(F->CV, Last, KBlock);
  }
  if (const size_t Rest = Size % KBlock) {
    F->Encrypt(F->CV);
    XorBlock(Out + Blocks * KBlock, In + Blocks * KBlock, F->CV, Rest);
  }
}

// ---------------------------------------------------------------------------
// Files

namespace {

// The texts of the runtime's I/O errors, by the codes it reports.
std::string InOutErrorText(int Code) {
  switch (Code) {
    case 2: return "File not found";
    case 3: return "Invalid filename";
    case 4: return "Too many open files";
    case 5: return "File access denied";
    case 100: return "Read beyond end of file";
    case 101: return "Disk full";
    default: return Format("I/O error %d", {Code});
  }
}

[[noreturn]] void RaiseInOut(int Code) {
  throw EInOutError(InOutErrorText(Code));
}

[[noreturn]] void RaiseErrno(int Err) {
  switch (Err) {
    case ENOENT: RaiseInOut(2);
    case ENOTDIR:
    case ENAMETOOLONG: RaiseInOut(3);
    case EMFILE:
    case ENFILE: RaiseInOut(4);
    case EACCES:
    case EPERM:
    case EISDIR:
    case EROFS:
    case ETXTBSY: RaiseInOut(5);
    case ENOSPC:
    case EDQUOT:
    case EFBIG: RaiseInOut(101);
    default: RaiseInOut(Err);
  }
}

// An untyped file with record size 1: opened for reading or created, read
// and written in blocks, closed by the destructor.
class TBlockFile {
 public:
  static TBlockFile OpenRead(const std::string& Name) {
    const int Fd = ::open(Name.c_str(), O_RDONLY | O_CLOEXEC);
    if (Fd < 0) RaiseErrno(errno);
    TBlockFile F(Fd);
    struct stat St {};
    if (::fstat(Fd, &St) != 0) RaiseErrno(errno);
    if (S_ISDIR(St.st_mode)) RaiseInOut(5);
    F.FSize = St.st_size;
    return F;
  }
  static TBlockFile Create(const std::string& Name) {
    const int Fd = ::open(Name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (Fd < 0) RaiseErrno(errno);
    return TBlockFile(Fd);
  }
  TBlockFile(TBlockFile&& O) noexcept : FFd(std::exchange(O.FFd, -1)), FSize(O.FSize), FPos(O.FPos) {}
  TBlockFile& operator=(TBlockFile&&) = delete;
  ~TBlockFile() {
    if (FFd >= 0) ::close(FFd);
  }

  // Reads up to Count bytes; fewer only at the end of the file.
  size_t Read(void* Buffer, size_t Count) {
    auto* P = static_cast<uint8_t*>(Buffer);
    size_t Done = 0;
    while (Done < Count) {
      const ssize_t R = ::read(FFd, P + Done, Count - Done);
      if (R < 0) {
        if (errno == EINTR) continue;
        RaiseErrno(errno);
      }
      if (R == 0) break;
      Done += static_cast<size_t>(R);
    }
    FPos += static_cast<int64_t>(Done);
    return Done;
  }
  // Reads exactly Count bytes; a short file is the runtime's end-of-file error.
  void ReadExact(void* Buffer, size_t Count) {
    if (Read(Buffer, Count) != Count) RaiseInOut(100);
  }
  void Write(const void* Buffer, size_t Count) {
    const auto* P = static_cast<const uint8_t*>(Buffer);
    while (Count > 0) {
      const ssize_t R = ::write(FFd, P, Count);
      if (R < 0) {
        if (errno == EINTR) continue;
        RaiseErrno(errno);
      }
      if (R == 0) RaiseInOut(101);
      P += R;
      Count -= static_cast<size_t>(R);
    }
  }
  // The end test of the runtime's Eof: the position has reached the size
  // the file had when it was opened.
  bool AtEnd() const { return FPos >= FSize; }
  int Handle() const { return FFd; }
  int64_t Size() const { return FSize; }

 private:
  explicit TBlockFile(int Fd) : FFd(Fd) {}
  int FFd;
  int64_t FSize = 0;
  int64_t FPos = 0;
};

// Data is moved in chunks of 8192 bytes; the files are read and written in
// runs of whole chunks, which gives the same bytes (every chunk but the last
// is a multiple of the block size, so the cipher stream does not depend on
// where the runs end) with fewer system calls.
constexpr size_t KChunk = 8192;
constexpr size_t KRun = 128 * KChunk;

// The buffer of a file's runs: a run, or less for a smaller file (whole
// chunks, one more than needed so that the last read finds the end).
size_t RunSize(const TBlockFile& F) {
  const auto Chunks = static_cast<uint64_t>(F.Size()) / KChunk + 1;
  return Chunks >= KRun / KChunk ? KRun : static_cast<size_t>(Chunks) * KChunk;
}

// One run's buffer, what was read into it, and whether that read reached
// the end of the source.
struct TRun {
  std::unique_ptr<uint8_t[]> P;
  size_t N = 0;
  size_t Used = 0;  // the most bytes it has held, wiped at the end
  bool AtEnd = false;
  ~TRun() {
    if (P) SecureZero(P.get(), Used);
  }
};

// Reads Src run by run, transforms each run in place and writes it to Dst,
// as the chunk loop of the file format does: the loop ends with the first
// short read, or in ".znd" mode (Znd) with the read that reaches the end,
// whose last byte is then left as it is. Files of more than one run are
// pipelined over three buffers: while Transform works on one run, a helper
// thread writes the previous one and reads the next, so reading and writing
// cost no time of their own when a core is free.
template <class TTransform>
void ProcessRuns(TBlockFile& Src, TBlockFile& Dst, bool Znd, TTransform Transform) {
  const size_t Run = RunSize(Src);
  const bool Pipelined = Src.Size() > static_cast<int64_t>(Run);
  TRun Runs[3];
  for (int I = 0; I < (Pipelined ? 3 : 1); ++I) Runs[I].P.reset(new uint8_t[Run]);
  auto Read = [&](TRun& R) {
    R.N = Src.Read(R.P.get(), Run);
    R.Used = std::max(R.Used, R.N);
    R.AtEnd = Src.AtEnd();
  };
  auto IsLast = [&](const TRun& R) { return Znd ? R.AtEnd : R.N != Run; };
  auto Count = [&](const TRun& R) { return Znd && R.AtEnd ? (R.N > 0 ? R.N - 1 : 0) : R.N; };
  if (!Pipelined) {
    TRun& R = Runs[0];
    do {
      Read(R);
      Transform(R.P.get(), Count(R));
      Dst.Write(R.P.get(), R.N);
    } while (!IsLast(R));
    return;
  }
  Read(Runs[0]);
  TRun* Prev = nullptr;
  for (int Cur = 0;; Cur = (Cur + 1) % 3) {
    TRun& C = Runs[Cur];
    TRun& Next = Runs[(Cur + 1) % 3];
    const bool More = !IsLast(C);
    // The future's destructor waits for the helper, also when Transform
    // raises.
    auto Io = std::async(std::launch::async, [&, Prev, More] {
      if (Prev) Dst.Write(Prev->P.get(), Prev->N);
      if (More) Read(Next);
    });
    Transform(C.P.get(), Count(C));
    Io.get();
    if (!More) {
      Dst.Write(C.P.get(), C.N);
      break;
    }
    Prev = &C;
  }
}

struct TKeyBlock {
  uint8_t Bytes[32];
  explicit TKeyBlock(const std::string& PassPhrase) {
    std::memset(Bytes, 0xFF, sizeof Bytes);
    std::memcpy(Bytes, PassPhrase.data(), std::min(PassPhrase.size(), sizeof Bytes));
  }
  ~TKeyBlock() { SecureZero(Bytes, sizeof Bytes); }
};

// Key size: the cipher's maximum when that is below 256 bits, else 256.
constexpr int KKeyBits = TCast256Cipher::MaxKeySize < 256 ? TCast256Cipher::MaxKeySize : 256;

// Cipher steps shared by both directions: load the key block, encrypt it in
// place into the check block, reset the chaining.
void PrepareCipher(TCast256Cipher& Cipher, TKeyBlock& Key, uint8_t Check[32]) {
  Cipher.Init(Key.Bytes, KKeyBits);
  std::memcpy(Check, Key.Bytes, 32);
  Cipher.Encrypt(Check, Check, 32);
  Cipher.Reset();
}

std::string OutputExtension(const std::string& FileName, const std::string& Extension) {
  if (Trim(Extension).empty()) {
    const std::string Ext = ExtractFileExt(FileName);
    return ".~" + (Ext.empty() ? Ext : Ext.substr(1));
  }
  return "." + Extension;
}

// True when both names lead to the same existing file.
bool SameFile(const std::string& A, const std::string& B) {
  struct stat SA {}, SB {};
  if (::stat(A.c_str(), &SA) != 0 || ::stat(B.c_str(), &SB) != 0) return false;
  return SA.st_dev == SB.st_dev && SA.st_ino == SB.st_ino;
}

void ShowDialog(const std::string& Text) {
  MessageBoxA(0, Text, Application ? Application->Title() : std::string(), MB_OK);
}

}  // namespace

std::string EncryptFile(const std::string& FileName, const std::string& PassPhrase,
                        const std::string& Extension, bool KeepName) {
  TCast256Cipher Cipher;
  TKeyBlock Key(PassPhrase);
  const std::string OutExt = OutputExtension(FileName, Extension);
  // A bare name's folder is the current directory (not the root).
  const std::string Path = ExtractFilePath(FileName);
  const std::string Folder = Path.empty() ? Path : IncludeTrailingPathDelimiter(Path);
  const std::string OutName =
      Folder + (KeepName ? ChangeFileExt(ExtractFileName(FileName), OutExt) : "EncryptedFile" + OutExt);

  const bool OntoItself = SameFile(FileName, OutName);
  if (!OntoItself && FileExists(OutName)) DeleteFile(OutName);
  if (!FileExists(FileName)) {
    ShowDialog(SEncryptSourceMissing);
    return std::string();
  }
  try {
    if (OntoItself) throw EInOutError(Format(SCryptSameFile, {FileName}));
    TBlockFile Src = TBlockFile::OpenRead(FileName);
    TBlockFile Dst = TBlockFile::Create(OutName);
    uint8_t Check[32];
    PrepareCipher(Cipher, Key, Check);
    Dst.Write(Check, sizeof Check);

    const bool Znd = SameText(ExtractFileExt(FileName), ".znd") || SameText(OutExt, ".znd");
    ProcessRuns(Src, Dst, Znd, [&](uint8_t* P, size_t N) { Cipher.Encrypt(P, P, N); });
    Cipher.Burn();
  } catch (const std::exception& E) {
    ShowDialog(std::string(SEncryptionFailed) + E.what());
    throw;
  }
  return OutName;
}

std::string DecryptFile(const std::string& FileName, const std::string& PassPhrase,
                        const std::string& Extension) {
  TBlockFile Src = TBlockFile::OpenRead(FileName);
  const std::string OutName = ChangeFileExt(FileName, OutputExtension(FileName, Extension));
  if (SameFile(FileName, OutName)) throw EInOutError(Format(SCryptSameFile, {FileName}));
  if (FileExists(OutName)) DeleteFile(OutName);
  TBlockFile Dst = TBlockFile::Create(OutName);

  TKeyBlock Key(PassPhrase);
  TCast256Cipher Cipher;
  uint8_t Check[32], Head[32];
  PrepareCipher(Cipher, Key, Check);
  Src.ReadExact(Head, sizeof Head);
  if (std::memcmp(Check, Head, sizeof Check) != 0) {
    Cipher.Burn();
    return std::string();
  }
  // No ".znd" case here: such a file's last byte is decrypted too.
  ProcessRuns(Src, Dst, false, [&](uint8_t* P, size_t N) { Cipher.Decrypt(P, P, N); });
  Cipher.Burn();
  return OutName;
}

}  // namespace vel
