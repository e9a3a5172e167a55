// Streams of the runtime: the abstract TStream with its buffer and
// little-endian helpers, streams over POSIX file descriptors and files,
// memory streams and string streams.
//
// Thread safety: a stream object is not internally synchronised; use one
// stream from one thread at a time (or lock around it). Distinct stream
// objects may be used from distinct threads freely, including two streams
// on the same file.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>

#include "vel/Export.h"
#include "vel/rtl/System.h"

namespace vel {

// ---------------------------------------------------------------------------
// Exceptions

VEL_EXCEPTION(EStreamError, Exception);
VEL_EXCEPTION(EFCreateError, EStreamError);
VEL_EXCEPTION(EFOpenError, EStreamError);
VEL_EXCEPTION(EFilerError, EStreamError);
VEL_EXCEPTION(EReadError, EFilerError);
VEL_EXCEPTION(EWriteError, EFilerError);
VEL_EXCEPTION(EInvalidImage, EFilerError);

// Message texts of this unit (the runtime's resource strings). The %s of
// the file messages is replaced by the file name exactly as passed.
inline constexpr const char* SReadError = "Stream read error";
inline constexpr const char* SWriteError = "Stream write error";
inline constexpr const char* SFCreateError = "Cannot create file %s";
inline constexpr const char* SFOpenError = "Cannot open file %s";
inline constexpr const char* SMemoryStreamError = "Out of memory while expanding memory stream";
inline constexpr const char* SOSError = "System Error.  Code: %d.\r\n%s";

// ---------------------------------------------------------------------------
// Seek origins and file modes

enum TSeekOrigin : uint8_t { soBeginning = 0, soCurrent = 1, soEnd = 2 };

// The runtime's older Word origins; same values, usable wherever a
// TSeekOrigin is expected.
inline constexpr TSeekOrigin soFromBeginning = soBeginning;
inline constexpr TSeekOrigin soFromCurrent = soCurrent;
inline constexpr TSeekOrigin soFromEnd = soEnd;

// Open mode word of TFileStream: fmCreate alone, or one access value
// combined (or-ed) with one share value.
inline constexpr uint16_t fmCreate = 0xFFFF;
inline constexpr uint16_t fmOpenRead = 0x0000;
inline constexpr uint16_t fmOpenWrite = 0x0001;
inline constexpr uint16_t fmOpenReadWrite = 0x0002;
inline constexpr uint16_t fmShareCompat = 0x0000;
inline constexpr uint16_t fmShareExclusive = 0x0010;
inline constexpr uint16_t fmShareDenyWrite = 0x0020;
inline constexpr uint16_t fmShareDenyRead = 0x0030;
inline constexpr uint16_t fmShareDenyNone = 0x0040;

// ---------------------------------------------------------------------------
// TStream

// The abstract stream. Descendants implement Read, Write and Seek; the
// rest is built on them. Streams are owned by whoever created them.
class VEL_API TStream : public TObject {
  VEL_CLASS(TStream, TObject)
 public:
  TStream() = default;
  ~TStream() override;

  // Moves up to Count bytes and returns how many were moved (0 at the end
  // of the stream, for Count <= 0 and on failure). Never raises for
  // reaching the end.
  virtual int64_t Read(void* Buffer, int64_t Count) = 0;
  virtual int64_t Write(const void* Buffer, int64_t Count) = 0;
  // Returns the new position, or -1 when the stream cannot seek.
  virtual int64_t Seek(int64_t Offset, TSeekOrigin Origin) = 0;

  int64_t GetPosition() { return Seek(0, soCurrent); }
  void SetPosition(int64_t Pos) { Seek(Pos, soBeginning); }
  // Seeks to the end and back; descendants that know their size override.
  virtual int64_t GetSize();
  // Does nothing here (a stream that cannot be resized keeps its size).
  virtual void SetSize(int64_t NewSize);

  // Reads exactly Count bytes or raises EReadError "Stream read error".
  void ReadBuffer(void* Buffer, int64_t Count) {
    int64_t N = Read(Buffer, Count);
    if (N != Count) ReadRest(Buffer, Count, N);
  }
  // Writes exactly Count bytes or raises EWriteError "Stream write error".
  void WriteBuffer(const void* Buffer, int64_t Count) {
    int64_t N = Write(Buffer, Count);
    if (N != Count) WriteRest(Buffer, Count, N);
  }

  // Copies Count bytes from Source's current position to this stream and
  // returns Count. Count 0 copies the whole of Source from position 0.
  // Raises EReadError when Source ends early (or Count is negative) and
  // EWriteError when this stream refuses bytes.
  int64_t CopyFrom(TStream* Source, int64_t Count);

  // Little-endian values, each read or written in full (EReadError /
  // EWriteError otherwise).
  uint8_t ReadU8() {
    uint8_t B;
    ReadBuffer(&B, 1);
    return B;
  }
  int8_t ReadI8() { return static_cast<int8_t>(ReadU8()); }
  uint16_t ReadU16LE() {
    uint8_t B[2];
    ReadBuffer(B, 2);
    return static_cast<uint16_t>(B[0] | (B[1] << 8));
  }
  int16_t ReadI16LE() { return static_cast<int16_t>(ReadU16LE()); }
  uint32_t ReadU32LE() {
    uint8_t B[4];
    ReadBuffer(B, 4);
    return LoadU32(B);
  }
  int32_t ReadI32LE() { return static_cast<int32_t>(ReadU32LE()); }
  uint64_t ReadU64LE() {
    uint8_t B[8];
    ReadBuffer(B, 8);
    return LoadU32(B) | (static_cast<uint64_t>(LoadU32(B + 4)) << 32);
  }
  int64_t ReadI64LE() { return static_cast<int64_t>(ReadU64LE()); }
  float ReadF32() {
    uint32_t Bits = ReadU32LE();
    float F;
    std::memcpy(&F, &Bits, 4);
    return F;
  }
  double ReadF64() {
    uint64_t Bits = ReadU64LE();
    double D;
    std::memcpy(&D, &Bits, 8);
    return D;
  }

  void WriteU8(uint8_t V) { WriteBuffer(&V, 1); }
  void WriteI8(int8_t V) { WriteU8(static_cast<uint8_t>(V)); }
  void WriteU16LE(uint16_t V) {
    uint8_t B[2] = {static_cast<uint8_t>(V), static_cast<uint8_t>(V >> 8)};
    WriteBuffer(B, 2);
  }
  void WriteI16LE(int16_t V) { WriteU16LE(static_cast<uint16_t>(V)); }
  void WriteU32LE(uint32_t V) {
    uint8_t B[4];
    StoreU32(B, V);
    WriteBuffer(B, 4);
  }
  void WriteI32LE(int32_t V) { WriteU32LE(static_cast<uint32_t>(V)); }
  void WriteU64LE(uint64_t V) {
    uint8_t B[8];
    StoreU32(B, static_cast<uint32_t>(V));
    StoreU32(B + 4, static_cast<uint32_t>(V >> 32));
    WriteBuffer(B, 8);
  }
  void WriteI64LE(int64_t V) { WriteU64LE(static_cast<uint64_t>(V)); }
  void WriteF32(float V) {
    uint32_t Bits;
    std::memcpy(&Bits, &V, 4);
    WriteU32LE(Bits);
  }
  void WriteF64(double V) {
    uint64_t Bits;
    std::memcpy(&Bits, &V, 8);
    WriteU64LE(Bits);
  }

 private:
  static uint32_t LoadU32(const uint8_t* B) {
    return static_cast<uint32_t>(B[0]) | (static_cast<uint32_t>(B[1]) << 8) |
           (static_cast<uint32_t>(B[2]) << 16) | (static_cast<uint32_t>(B[3]) << 24);
  }
  static void StoreU32(uint8_t* B, uint32_t V) {
    B[0] = static_cast<uint8_t>(V);
    B[1] = static_cast<uint8_t>(V >> 8);
    B[2] = static_cast<uint8_t>(V >> 16);
    B[3] = static_cast<uint8_t>(V >> 24);
  }
  // Slow paths of ReadBuffer/WriteBuffer: keep moving while the stream
  // makes progress (a descendant may return short counts), then raise.
  void ReadRest(void* Buffer, int64_t Count, int64_t Done);
  void WriteRest(const void* Buffer, int64_t Count, int64_t Done);
};

// ---------------------------------------------------------------------------
// THandleStream

// A stream over a POSIX file descriptor. Reads and writes continue over
// partial transfers and interrupted calls; an error ends the transfer and
// the count moved so far is returned (so ReadBuffer/WriteBuffer raise).
// The descriptor is not closed by this class.
class VEL_API THandleStream : public TStream {
  VEL_CLASS(THandleStream, TStream)
 public:
  explicit THandleStream(int AHandle) : FHandle(AHandle) {}
  ~THandleStream() override;

  int64_t Read(void* Buffer, int64_t Count) override;
  int64_t Write(const void* Buffer, int64_t Count) override;
  // lseek; -1 when the descriptor cannot seek (pipes, sockets).
  int64_t Seek(int64_t Offset, TSeekOrigin Origin) override;
  int64_t GetSize() override;
  // Truncates or extends the file (extension reads as zeros) and moves the
  // position to NewSize, as the runtime does; a negative size counts as 0.
  // Raises EOSError "System Error.  Code: <errno>.\r\n<reason>" on failure.
  void SetSize(int64_t NewSize) override;

  int Handle() const { return FHandle; }

 protected:
  int FHandle;
};

// ---------------------------------------------------------------------------
// TFileStream

// A stream over a file opened by name. The file is closed (and its lock
// released) when the stream is freed.
//
// Mode: fmCreate creates the file or truncates an existing one and opens
// it for reading and writing; otherwise the access value (fmOpenRead,
// fmOpenWrite, fmOpenReadWrite) is combined with a share value. An access
// value of 3 or a share value above fmShareDenyNone fails to open. Rights
// are the permission bits of a newly created file (0666 by default; the
// process umask applies).
//
// Sharing is mapped to advisory flock(2) locks, always taken without
// waiting, so that streams of this library (and other processes using
// flock) refuse each other as the Windows share modes do:
//
//   mode                                     lock held while open
//   fmCreate                                 LOCK_EX
//   fmShareCompat, fmShareExclusive,         LOCK_EX
//   fmShareDenyRead (any access)
//   fmShareDenyWrite + fmOpenRead            LOCK_SH
//   fmShareDenyWrite + write access          LOCK_EX
//   fmShareDenyNone                          none
//
// A deny-none opener still checks at open time that it is admitted: it
// briefly takes (and drops) LOCK_SH when reading only, LOCK_EX when it
// writes. Hence: an exclusive holder refuses everyone; readers that deny
// writing share with each other and with deny-none readers; any writer is
// refused while someone denies writing. fmShareCompat is exclusive, as it
// was on Windows. Where flock is coarser than Windows: fmShareDenyRead is
// widened to exclusive; a writer denying writes also refuses deny-none
// readers; and a deny-none opener holds no lock, so it does not stop a
// later exclusive or deny-write opener.
//
// A refused lock fails the constructor with EFOpenError "Cannot open file
// <name>" (EFCreateError "Cannot create file <name>" for fmCreate; an
// existing file is then left untouched). On file systems without flock
// support the file is opened without a lock.
class VEL_API TFileStream : public THandleStream {
  VEL_CLASS(TFileStream, THandleStream)
 public:
  TFileStream(const std::string& AFileName, uint16_t Mode);
  TFileStream(const std::string& AFileName, uint16_t Mode, uint32_t Rights);
  ~TFileStream() override;

  const std::string& FileName() const { return FFileName; }

 private:
  void Open(uint16_t Mode, uint32_t Rights);
  std::string FFileName;
};

// ---------------------------------------------------------------------------
// Memory streams

// A stream over a block of memory held by a descendant. Any position may
// be set with Seek, including one before the start or past the end; reads
// there return 0 bytes.
class VEL_API TCustomMemoryStream : public TStream {
  VEL_CLASS(TCustomMemoryStream, TStream)
 public:
  ~TCustomMemoryStream() override;

  int64_t Read(void* Buffer, int64_t Count) override;
  // Computes the new position; an unknown origin or an arithmetic overflow
  // leaves the position unchanged.
  int64_t Seek(int64_t Offset, TSeekOrigin Origin) override;
  int64_t GetSize() override { return FSize; }

  // Writes the whole content (from offset 0, whatever the position) to
  // Stream at its position.
  void SaveToStream(TStream* Stream);
  // Writes the whole content to a file created with fmCreate.
  void SaveToFile(const std::string& FileName);

  void* Memory() const { return FMemory; }

  // Inline forms of Read and of the position, for hot loops that know the
  // stream's class overrides neither (the object streamers use them).
  int64_t ReadInline(void* Buffer, int64_t Count) {
    if (Count <= 0 || FPosition < 0 || FPosition >= FSize) return 0;
    int64_t N = FSize - FPosition < Count ? FSize - FPosition : Count;
    std::memcpy(Buffer, static_cast<const uint8_t*>(FMemory) + FPosition, static_cast<size_t>(N));
    FPosition += N;
    return N;
  }
  int64_t PositionInline() const { return FPosition; }
  void SetPositionInline(int64_t Value) { FPosition = Value; }
  // The bytes from the position to the end (none when it lies outside).
  const uint8_t* PeekInline(int64_t& Available) const {
    Available = (FPosition >= 0 && FPosition < FSize) ? FSize - FPosition : 0;
    return static_cast<const uint8_t*>(FMemory) + (Available ? FPosition : 0);
  }

 protected:
  TCustomMemoryStream() = default;
  void SetPointer(void* Ptr, int64_t Size) {
    FMemory = Ptr;
    FSize = Size;
  }

  void* FMemory = nullptr;
  int64_t FSize = 0;
  int64_t FPosition = 0;
};

// A growable memory stream owning its buffer. Writing past the end grows
// it; writing after a seek beyond the end fills the gap with zeros, and so
// does SetSize when it extends. Capacity grows in 8 KiB steps, and at
// least doubles once it has reached 64 KiB so that long sequences of
// small writes stay linear.
class VEL_API TMemoryStream : public TCustomMemoryStream {
  VEL_CLASS(TMemoryStream, TCustomMemoryStream)
 public:
  TMemoryStream() = default;
  ~TMemoryStream() override;

  int64_t Write(const void* Buffer, int64_t Count) override;
  // Sets the size (a negative size counts as 0); the position is kept
  // unless it lies past the new end, where it moves to the end. Shrinking
  // gives memory back. Raises EStreamError "Out of memory while expanding
  // memory stream" when the memory cannot be had.
  void SetSize(int64_t NewSize) override;
  // Frees the memory; size and position become 0.
  void Clear();
  // Replaces the content with the whole of Stream (read from its position
  // 0). A stream that cannot tell its size (a pipe) is read to its end.
  // When Stream delivers less than its size, EReadError is raised and the
  // content stays as it was.
  void LoadFromStream(TStream* Stream);
  // Replaces the content with the file's (opened fmOpenRead |
  // fmShareDenyWrite).
  void LoadFromFile(const std::string& FileName);

  int64_t Capacity() const { return FCapacity; }
  // Write, inline when the bytes fit in the capacity at or before the end.
  int64_t WriteInline(const void* Buffer, int64_t Count) {
    if (Count > 0 && FPosition >= 0 && FPosition <= FSize && FCapacity - FPosition >= Count) {
      std::memmove(static_cast<uint8_t*>(FMemory) + FPosition, Buffer, static_cast<size_t>(Count));
      FPosition += Count;
      if (FPosition > FSize) FSize = FPosition;
      return Count;
    }
    return Write(Buffer, Count);
  }
  // Reserves (or gives back) memory; never below the current size.
  void SetCapacity(int64_t NewCapacity);

 private:
  void Reallocate(int64_t NewCapacity);
  void Grow(int64_t Needed);
  int64_t FCapacity = 0;
};

// A read-only stream over memory owned by someone else, to parse bytes in
// place without copying them. The memory must outlive the stream. Write
// moves nothing (WriteBuffer raises "Stream write error") and SetSize
// raises EWriteError.
class VEL_API TReadOnlyMemoryStream : public TCustomMemoryStream {
  VEL_CLASS(TReadOnlyMemoryStream, TCustomMemoryStream)
 public:
  TReadOnlyMemoryStream(const void* AMemory, int64_t ASize);
  ~TReadOnlyMemoryStream() override;

  int64_t Write(const void* Buffer, int64_t Count) override;
  void SetSize(int64_t NewSize) override;
};

// ---------------------------------------------------------------------------
// TStringStream

// A stream over an 8-bit string. The position stays within 0..length:
// seeking outside is clamped. A write of n bytes at position p replaces
// the string's tail from p: the string becomes its first p characters
// followed by the n bytes written (writing in the middle drops what
// followed, as the runtime's string stream does). A write of no bytes
// changes nothing.
class VEL_API TStringStream : public TStream {
  VEL_CLASS(TStringStream, TStream)
 public:
  explicit TStringStream(const std::string& AString = std::string()) : FDataString(AString) {}
  ~TStringStream() override;

  int64_t Read(void* Buffer, int64_t Count) override;
  int64_t Write(const void* Buffer, int64_t Count) override;
  int64_t Seek(int64_t Offset, TSeekOrigin Origin) override;
  int64_t GetSize() override { return static_cast<int64_t>(FDataString.size()); }
  // Truncates or extends with NUL characters; the position is clamped.
  void SetSize(int64_t NewSize) override;

  // Up to Count characters from the position (fewer at the end).
  std::string ReadString(int64_t Count);
  void WriteString(const std::string& AString);

  const std::string& DataString() const { return FDataString; }

 private:
  std::string FDataString;
  int64_t FPosition = 0;
};

}  // namespace vel
