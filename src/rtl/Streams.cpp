// Streams of the runtime: see vel/rtl/Streams.h.
#include "vel/rtl/Streams.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <memory>
#include <new>

#include "vel/rtl/TypInfo.h"

namespace vel {

VEL_IMPLEMENT(TStream)
VEL_IMPLEMENT(THandleStream)
VEL_IMPLEMENT(TFileStream)
VEL_IMPLEMENT(TCustomMemoryStream)
VEL_IMPLEMENT(TMemoryStream)
VEL_IMPLEMENT(TReadOnlyMemoryStream)
VEL_IMPLEMENT(TStringStream)

namespace {

// Chunk size of CopyFrom and of reading a stream of unknown size.
constexpr int64_t kCopyChunk = 64 * 1024;
// Memory stream capacities are multiples of this.
constexpr int64_t kMemoryDelta = 8 * 1024;
// From this capacity on, growth by writing at least doubles the capacity.
constexpr int64_t kDoublingFrom = 64 * 1024;
// Largest capacity a memory stream asks for (keeps size arithmetic and
// pointer offsets far from overflow).
constexpr int64_t kMaxCapacity = std::numeric_limits<int64_t>::max() / 4;
// Largest count handed to one read(2)/write(2) call.
constexpr int64_t kMaxIoChunk = 1 << 30;

// Replaces the first %s of Fmt with Arg.
std::string FormatName(const char* Fmt, const std::string& Arg) {
  std::string S(Fmt);
  size_t P = S.find("%s");
  if (P != std::string::npos) S.replace(P, 2, Arg);
  return S;
}

[[noreturn]] void RaiseLastOSError(int Err) {
  std::string S(SOSError);
  size_t P = S.find("%d");
  S.replace(P, 2, std::to_string(Err));
  P = S.find("%s");
  S.replace(P, 2, std::strerror(Err));
  throw EOSError(S);
}

int64_t RoundUpToDelta(int64_t N) { return (N + (kMemoryDelta - 1)) & ~(kMemoryDelta - 1); }

bool PointsInto(const void* P, const void* Base, int64_t Len) {
  auto A = reinterpret_cast<uintptr_t>(P);
  auto B = reinterpret_cast<uintptr_t>(Base);
  return Base && A >= B && A - B < static_cast<uint64_t>(Len);
}

}  // namespace

// ---------------------------------------------------------------------------
// TStream

TStream::~TStream() = default;

int64_t TStream::GetSize() {
  int64_t Pos = Seek(0, soCurrent);
  int64_t Result = Seek(0, soEnd);
  Seek(Pos, soBeginning);
  return Result;
}

void TStream::SetSize(int64_t) {}

void TStream::ReadRest(void* Buffer, int64_t Count, int64_t Done) {
  if (Count < 0 || Done < 0 || Done > Count) throw EReadError(SReadError);
  auto* P = static_cast<uint8_t*>(Buffer);
  while (Done < Count) {
    int64_t N = Read(P + Done, Count - Done);
    if (N <= 0 || N > Count - Done) throw EReadError(SReadError);
    Done += N;
  }
}

void TStream::WriteRest(const void* Buffer, int64_t Count, int64_t Done) {
  if (Count < 0 || Done < 0 || Done > Count) throw EWriteError(SWriteError);
  auto* P = static_cast<const uint8_t*>(Buffer);
  while (Done < Count) {
    int64_t N = Write(P + Done, Count - Done);
    if (N <= 0 || N > Count - Done) throw EWriteError(SWriteError);
    Done += N;
  }
}

int64_t TStream::CopyFrom(TStream* Source, int64_t Count) {
  if (!Source) throw EReadError(SReadError);
  if (Count == 0) {
    Source->SetPosition(0);
    Count = Source->GetSize();
    if (Count == 0) return 0;
  }
  if (Count < 0) throw EReadError(SReadError);
  const int64_t Result = Count;

  // A memory source is written straight from its buffer.
  if (auto* Mem = dynamic_cast<TCustomMemoryStream*>(Source)) {
    int64_t Pos = Mem->GetPosition();
    int64_t Size = Mem->GetSize();
    if (Pos < 0 || Pos > Size || Size - Pos < Count) throw EReadError(SReadError);
    if (Source == this) {
      // Copying a memory stream onto itself: the buffer may move while it
      // grows, so go through a copy.
      std::unique_ptr<uint8_t[]> Tmp(new uint8_t[static_cast<size_t>(Count)]);
      Source->ReadBuffer(Tmp.get(), Count);
      WriteBuffer(Tmp.get(), Count);
      return Result;
    }
    WriteBuffer(static_cast<const uint8_t*>(Mem->Memory()) + Pos, Count);
    Mem->Seek(Pos + Count, soBeginning);
    return Result;
  }

  const int64_t BufSize = std::min(Count, kCopyChunk);
  std::unique_ptr<uint8_t[]> Buf(new uint8_t[static_cast<size_t>(BufSize)]);
  while (Count != 0) {
    int64_t N = std::min(Count, BufSize);
    Source->ReadBuffer(Buf.get(), N);
    WriteBuffer(Buf.get(), N);
    Count -= N;
  }
  return Result;
}

// ---------------------------------------------------------------------------
// THandleStream

THandleStream::~THandleStream() = default;

int64_t THandleStream::Read(void* Buffer, int64_t Count) {
  if (Count <= 0) return 0;
  auto* P = static_cast<uint8_t*>(Buffer);
  int64_t Done = 0;
  while (Done < Count) {
    ssize_t N = ::read(FHandle, P + Done, static_cast<size_t>(std::min(Count - Done, kMaxIoChunk)));
    if (N > 0) {
      Done += N;
    } else if (N == 0) {
      break;  // end of file
    } else if (errno != EINTR) {
      break;
    }
  }
  return Done;
}

int64_t THandleStream::Write(const void* Buffer, int64_t Count) {
  if (Count <= 0) return 0;
  auto* P = static_cast<const uint8_t*>(Buffer);
  int64_t Done = 0;
  while (Done < Count) {
    ssize_t N =
        ::write(FHandle, P + Done, static_cast<size_t>(std::min(Count - Done, kMaxIoChunk)));
    if (N > 0) {
      Done += N;
    } else if (N == 0) {
      break;  // device refuses further bytes
    } else if (errno != EINTR) {
      break;
    }
  }
  return Done;
}

int64_t THandleStream::Seek(int64_t Offset, TSeekOrigin Origin) {
  int Whence;
  switch (Origin) {
    case soBeginning: Whence = SEEK_SET; break;
    case soCurrent: Whence = SEEK_CUR; break;
    case soEnd: Whence = SEEK_END; break;
    default: return -1;
  }
  off_t R = ::lseek(FHandle, static_cast<off_t>(Offset), Whence);
  return R < 0 ? -1 : static_cast<int64_t>(R);
}

int64_t THandleStream::GetSize() {
  struct stat St;
  if (::fstat(FHandle, &St) == 0 && S_ISREG(St.st_mode)) return static_cast<int64_t>(St.st_size);
  return TStream::GetSize();
}

void THandleStream::SetSize(int64_t NewSize) {
  if (NewSize < 0) NewSize = 0;
  int R;
  do {
    R = ::ftruncate(FHandle, static_cast<off_t>(NewSize));
  } while (R != 0 && errno == EINTR);
  if (R != 0) RaiseLastOSError(errno);
  Seek(NewSize, soBeginning);
}

// ---------------------------------------------------------------------------
// TFileStream

namespace {

// What a stream holds on its file while open, and what a holder of no
// lock tries once at open time to see whether it is admitted.
struct TLockPlan {
  int Hold;   // LOCK_SH, LOCK_EX or 0
  int Probe;  // LOCK_SH, LOCK_EX or 0
};

TLockPlan PlanLock(uint16_t Mode) {
  if (Mode == fmCreate) return {LOCK_EX, 0};
  const bool Writes = (Mode & 3) != fmOpenRead;
  switch (Mode & 0xF0) {
    case fmShareDenyWrite: return {Writes ? LOCK_EX : LOCK_SH, 0};
    case fmShareDenyNone: return {0, Writes ? LOCK_EX : LOCK_SH};
    default: return {LOCK_EX, 0};  // compat, exclusive, deny read
  }
}

// false when another holder refuses us; a file system without flock
// support admits everyone.
bool TakeLock(int Fd, const TLockPlan& Plan) {
  auto Try = [Fd](int Op) {
    int R;
    do {
      R = ::flock(Fd, Op | LOCK_NB);
    } while (R != 0 && errno == EINTR);
    if (R == 0) return true;
    return errno != EWOULDBLOCK;
  };
  if (Plan.Probe) {
    if (!Try(Plan.Probe)) return false;
    ::flock(Fd, LOCK_UN);
  }
  if (Plan.Hold && !Try(Plan.Hold)) return false;
  return true;
}

void CloseFd(int Fd) {
  int Saved = errno;
  ::close(Fd);
  errno = Saved;
}

}  // namespace

TFileStream::TFileStream(const std::string& AFileName, uint16_t Mode)
    : THandleStream(-1), FFileName(AFileName) {
  Open(Mode, 0666);
}

TFileStream::TFileStream(const std::string& AFileName, uint16_t Mode, uint32_t Rights)
    : THandleStream(-1), FFileName(AFileName) {
  Open(Mode, Rights);
}

void TFileStream::Open(uint16_t Mode, uint32_t Rights) {
  const bool Create = Mode == fmCreate;
  auto Fail = [&]() {
    if (Create) throw EFCreateError(FormatName(SFCreateError, FFileName));
    throw EFOpenError(FormatName(SFOpenError, FFileName));
  };
  // A name with an embedded NUL would silently name another file.
  if (FFileName.find('\0') != std::string::npos) Fail();

  int Flags = O_CLOEXEC | O_NOCTTY;
  if (Create) {
    // Not O_TRUNC: the file is truncated only once the lock is ours, so a
    // refused create leaves another holder's file intact.
    Flags |= O_RDWR | O_CREAT;
  } else {
    if ((Mode & 3) == 3 || (Mode & 0xF0) > fmShareDenyNone) Fail();
    static const int Access[3] = {O_RDONLY, O_WRONLY, O_RDWR};
    Flags |= Access[Mode & 3];
  }
  int Fd;
  do {
    Fd = ::open(FFileName.c_str(), Flags, static_cast<mode_t>(Rights & 07777));
  } while (Fd < 0 && errno == EINTR);
  if (Fd < 0) Fail();

  struct stat St;
  if (::fstat(Fd, &St) != 0 || S_ISDIR(St.st_mode) || !TakeLock(Fd, PlanLock(Mode))) {
    CloseFd(Fd);
    Fail();
  }
  if (Create && S_ISREG(St.st_mode) && St.st_size != 0 && ::ftruncate(Fd, 0) != 0) {
    CloseFd(Fd);
    Fail();
  }
  FHandle = Fd;
}

TFileStream::~TFileStream() {
  if (FHandle >= 0) ::close(FHandle);  // also drops the lock
}

// ---------------------------------------------------------------------------
// TCustomMemoryStream

TCustomMemoryStream::~TCustomMemoryStream() = default;

int64_t TCustomMemoryStream::Read(void* Buffer, int64_t Count) {
  if (Count <= 0 || FPosition < 0 || FPosition >= FSize) return 0;
  int64_t N = std::min(Count, FSize - FPosition);
  std::memmove(Buffer, static_cast<const uint8_t*>(FMemory) + FPosition, static_cast<size_t>(N));
  FPosition += N;
  return N;
}

int64_t TCustomMemoryStream::Seek(int64_t Offset, TSeekOrigin Origin) {
  int64_t Base;
  switch (Origin) {
    case soBeginning: Base = 0; break;
    case soCurrent: Base = FPosition; break;
    case soEnd: Base = FSize; break;
    default: return FPosition;
  }
  int64_t NewPos;
  if (!__builtin_add_overflow(Base, Offset, &NewPos)) FPosition = NewPos;
  return FPosition;
}

void TCustomMemoryStream::SaveToStream(TStream* Stream) {
  if (!Stream) throw EWriteError(SWriteError);
  if (FSize != 0) Stream->WriteBuffer(FMemory, FSize);
}

void TCustomMemoryStream::SaveToFile(const std::string& FileName) {
  TFileStream Stream(FileName, fmCreate);
  SaveToStream(&Stream);
}

// ---------------------------------------------------------------------------
// TMemoryStream

TMemoryStream::~TMemoryStream() { Clear(); }

void TMemoryStream::Reallocate(int64_t NewCapacity) {
  if (NewCapacity == FCapacity) return;
  if (NewCapacity == 0) {
    std::free(FMemory);
    SetPointer(nullptr, FSize);
    FCapacity = 0;
    return;
  }
  if (NewCapacity < 0 || NewCapacity > kMaxCapacity ||
      static_cast<uint64_t>(NewCapacity) > std::numeric_limits<size_t>::max())
    throw EStreamError(SMemoryStreamError);
  void* P = std::realloc(FMemory, static_cast<size_t>(NewCapacity));
  if (!P) throw EStreamError(SMemoryStreamError);
  SetPointer(P, FSize);
  FCapacity = NewCapacity;
}

// Makes room for Needed bytes, growing geometrically once the buffer is
// large; falls back to the exact need when the larger block is refused.
void TMemoryStream::Grow(int64_t Needed) {
  if (Needed <= FCapacity) return;
  if (Needed > kMaxCapacity) throw EStreamError(SMemoryStreamError);
  int64_t Exact = RoundUpToDelta(Needed);
  int64_t Target = Exact;
  if (FCapacity >= kDoublingFrom && FCapacity <= kMaxCapacity / 2)
    Target = std::max(Target, RoundUpToDelta(FCapacity * 2));
  if (Target != Exact) {
    try {
      Reallocate(Target);
      return;
    } catch (const EStreamError&) {
    }
  }
  Reallocate(Exact);
}

void TMemoryStream::SetCapacity(int64_t NewCapacity) {
  Reallocate(std::max(NewCapacity, FSize));
}

int64_t TMemoryStream::Write(const void* Buffer, int64_t Count) {
  if (Count <= 0 || FPosition < 0) return 0;
  int64_t End;
  if (__builtin_add_overflow(FPosition, Count, &End)) return 0;
  if (End > FSize) {
    if (End > FCapacity) {
      // The source may lie in our own buffer, which may move.
      if (PointsInto(Buffer, FMemory, FCapacity)) {
        int64_t Off = static_cast<const uint8_t*>(Buffer) - static_cast<uint8_t*>(FMemory);
        Grow(End);
        Buffer = static_cast<uint8_t*>(FMemory) + Off;
      } else {
        Grow(End);
      }
    }
    if (FPosition > FSize)
      std::memset(static_cast<uint8_t*>(FMemory) + FSize, 0, static_cast<size_t>(FPosition - FSize));
    FSize = End;
  }
  std::memmove(static_cast<uint8_t*>(FMemory) + FPosition, Buffer, static_cast<size_t>(Count));
  FPosition = End;
  return Count;
}

void TMemoryStream::SetSize(int64_t NewSize) {
  if (NewSize < 0) NewSize = 0;
  const int64_t OldSize = FSize;
  if (NewSize > FCapacity) {
    Grow(NewSize);
  } else if (RoundUpToDelta(NewSize) < FCapacity) {
    Reallocate(RoundUpToDelta(NewSize));
  }
  if (NewSize > OldSize)
    std::memset(static_cast<uint8_t*>(FMemory) + OldSize, 0, static_cast<size_t>(NewSize - OldSize));
  FSize = NewSize;
  if (FPosition > NewSize) FPosition = NewSize;
}

void TMemoryStream::Clear() {
  std::free(FMemory);
  SetPointer(nullptr, 0);
  FCapacity = 0;
  FPosition = 0;
}

void TMemoryStream::LoadFromStream(TStream* Stream) {
  if (!Stream) throw EReadError(SReadError);
  if (Stream == this) return;
  // Load into a buffer of its own first, so that a failing source leaves
  // this stream's content as it was.
  TMemoryStream Tmp;
  Stream->SetPosition(0);
  int64_t Count = Stream->GetSize();
  if (Count >= 0) {
    Tmp.SetSize(Count);
    if (Count != 0) Stream->ReadBuffer(Tmp.FMemory, Count);
  } else {
    // Size unknown (a pipe): read to the end, then give back the slack.
    for (;;) {
      Tmp.Grow(Tmp.FSize + kCopyChunk);
      int64_t N = Stream->Read(static_cast<uint8_t*>(Tmp.FMemory) + Tmp.FSize, kCopyChunk);
      if (N <= 0) break;
      Tmp.FSize += std::min(N, kCopyChunk);
    }
    Tmp.Reallocate(RoundUpToDelta(Tmp.FSize));
  }
  std::swap(FMemory, Tmp.FMemory);
  std::swap(FSize, Tmp.FSize);
  std::swap(FCapacity, Tmp.FCapacity);
  if (FPosition > FSize) FPosition = FSize;
}

void TMemoryStream::LoadFromFile(const std::string& FileName) {
  TFileStream Stream(FileName, fmOpenRead | fmShareDenyWrite);
  LoadFromStream(&Stream);
}

// ---------------------------------------------------------------------------
// TReadOnlyMemoryStream

TReadOnlyMemoryStream::TReadOnlyMemoryStream(const void* AMemory, int64_t ASize) {
  SetPointer(const_cast<void*>(AMemory), AMemory && ASize > 0 ? ASize : 0);
}

TReadOnlyMemoryStream::~TReadOnlyMemoryStream() = default;

int64_t TReadOnlyMemoryStream::Write(const void*, int64_t) { return 0; }

void TReadOnlyMemoryStream::SetSize(int64_t) { throw EWriteError(SWriteError); }

// ---------------------------------------------------------------------------
// TStringStream

TStringStream::~TStringStream() = default;

int64_t TStringStream::Read(void* Buffer, int64_t Count) {
  const int64_t Len = static_cast<int64_t>(FDataString.size());
  if (Count <= 0 || FPosition >= Len) return 0;
  int64_t N = std::min(Count, Len - FPosition);
  std::memmove(Buffer, FDataString.data() + FPosition, static_cast<size_t>(N));
  FPosition += N;
  return N;
}

int64_t TStringStream::Write(const void* Buffer, int64_t Count) {
  if (Count <= 0) return 0;
  int64_t End;
  if (__builtin_add_overflow(FPosition, Count, &End) ||
      static_cast<uint64_t>(End) > FDataString.max_size())
    return 0;
  const auto* Src = static_cast<const char*>(Buffer);
  try {
    if (PointsInto(Src, FDataString.data(), static_cast<int64_t>(FDataString.size()))) {
      // Writing part of our own string: copy it out before resizing.
      std::string Tmp(Src, static_cast<size_t>(Count));
      FDataString.resize(static_cast<size_t>(End));
      std::memcpy(FDataString.data() + FPosition, Tmp.data(), Tmp.size());
    } else {
      FDataString.resize(static_cast<size_t>(End));
      std::memcpy(FDataString.data() + FPosition, Src, static_cast<size_t>(Count));
    }
  } catch (const std::bad_alloc&) {
    throw EStreamError(SMemoryStreamError);
  }
  FPosition = End;
  return Count;
}

int64_t TStringStream::Seek(int64_t Offset, TSeekOrigin Origin) {
  const int64_t Len = static_cast<int64_t>(FDataString.size());
  int64_t Base;
  switch (Origin) {
    case soBeginning: Base = 0; break;
    case soCurrent: Base = FPosition; break;
    case soEnd: Base = Len; break;
    default: return FPosition;
  }
  int64_t NewPos;
  if (__builtin_add_overflow(Base, Offset, &NewPos)) NewPos = Offset < 0 ? 0 : Len;
  FPosition = std::clamp<int64_t>(NewPos, 0, Len);
  return FPosition;
}

void TStringStream::SetSize(int64_t NewSize) {
  if (NewSize < 0) NewSize = 0;
  if (static_cast<uint64_t>(NewSize) > FDataString.max_size()) throw EStreamError(SMemoryStreamError);
  try {
    FDataString.resize(static_cast<size_t>(NewSize));
  } catch (const std::bad_alloc&) {
    throw EStreamError(SMemoryStreamError);
  }
  if (FPosition > NewSize) FPosition = NewSize;
}

std::string TStringStream::ReadString(int64_t Count) {
  const int64_t Len = static_cast<int64_t>(FDataString.size());
  if (Count <= 0 || FPosition >= Len) return std::string();
  int64_t N = std::min(Count, Len - FPosition);
  std::string Result = FDataString.substr(static_cast<size_t>(FPosition), static_cast<size_t>(N));
  FPosition += N;
  return Result;
}

void TStringStream::WriteString(const std::string& AString) {
  Write(AString.data(), static_cast<int64_t>(AString.size()));
}

}  // namespace vel
