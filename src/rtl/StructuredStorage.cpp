// The compound-file engine, in layers:
//   TCfbFile      the file: positioned reads and writes, the advisory lock;
//   TCfbDoc       sectors and allocation (FAT, DIFAT, mini FAT, mini
//                 stream), the directory (entries, one sorted child map per
//                 storage, written as red-black trees), stream contents with
//                 moves across the mini-stream cut-off, and the save;
//   TCfbStorage, TCfbStream, TCfbEnum
//                 the COM surface over one document.
// Everything read from a file is untrusted: sector numbers, chain lengths,
// directory links and sizes are checked before use, and no allocation is
// sized by a field that has not been checked against the file's length.
#include "vel/rtl/StructuredStorage.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "vel/rtl/SysUtils.h"
#include "vel/rtl/TypInfo.h"

namespace vel {

namespace {

// ---------------------------------------------------------------------------
// Format constants

constexpr uint32_t ENDOFCHAIN = 0xFFFFFFFE;
constexpr uint32_t FREESECT = 0xFFFFFFFF;
constexpr uint32_t FATSECT = 0xFFFFFFFD;
constexpr uint32_t DIFSECT = 0xFFFFFFFC;
constexpr uint32_t MAXREGSECT = 0xFFFFFFFA;
constexpr uint32_t NOSTREAM = 0xFFFFFFFF;
constexpr uint32_t MiniCutoff = 4096;
constexpr uint32_t MiniSectorSize = 64;
constexpr uint32_t DirEntrySize = 128;
constexpr uint32_t HeaderDifatCount = 109;
constexpr uint8_t Signature[8] = {0xD0, 0xCF, 0x11, 0xE0, 0xA1, 0xB1, 0x1A, 0xE1};
// Storages nested deeper than this are taken as damage: the copy and walk
// code recurses once per level.
constexpr int MaxDepth = 2000;

enum : uint8_t { ObjUnused = 0, ObjStorage = 1, ObjStream = 2, ObjRoot = 5 };

inline uint16_t Get16(const uint8_t* P) {
  return static_cast<uint16_t>(P[0] | P[1] << 8);
}
inline uint32_t Get32(const uint8_t* P) {
  return static_cast<uint32_t>(P[0]) | static_cast<uint32_t>(P[1]) << 8 |
         static_cast<uint32_t>(P[2]) << 16 | static_cast<uint32_t>(P[3]) << 24;
}
inline uint64_t Get64(const uint8_t* P) {
  return Get32(P) | static_cast<uint64_t>(Get32(P + 4)) << 32;
}
inline void Put16(uint8_t* P, uint16_t V) {
  P[0] = static_cast<uint8_t>(V);
  P[1] = static_cast<uint8_t>(V >> 8);
}
inline void Put32(uint8_t* P, uint32_t V) {
  for (int I = 0; I < 4; ++I) P[I] = static_cast<uint8_t>(V >> (8 * I));
}
inline void Put64(uint8_t* P, uint64_t V) {
  Put32(P, static_cast<uint32_t>(V));
  Put32(P + 4, static_cast<uint32_t>(V >> 32));
}

void GetGUID(const uint8_t* P, TGUID& G) {
  G.D1 = Get32(P);
  G.D2 = Get16(P + 4);
  G.D3 = Get16(P + 6);
  std::memcpy(G.D4, P + 8, 8);
}
void PutGUID(uint8_t* P, const TGUID& G) {
  Put32(P, G.D1);
  Put16(P + 4, G.D2);
  Put16(P + 6, G.D3);
  std::memcpy(P + 8, G.D4, 8);
}
FILETIME GetTime(const uint8_t* P) {
  return FILETIME{Get32(P), Get32(P + 4)};
}
void PutTime(uint8_t* P, const FILETIME& T) {
  Put32(P, T.dwLowDateTime);
  Put32(P + 4, T.dwHighDateTime);
}

// Upper case as Windows folds element names: ASCII, Latin-1, Latin
// Extended-A, Greek, Cyrillic and the full-width Latin letters.
char16_t UpperChar(char16_t C) {
  if (C < 0x80) return (C >= 'a' && C <= 'z') ? static_cast<char16_t>(C - 32) : C;
  if (C >= 0xE0 && C <= 0xFE && C != 0xF7) return static_cast<char16_t>(C - 32);
  if (C == 0xFF) return 0x178;
  if (C == 0xB5) return 0x39C;
  if (C >= 0x100 && C <= 0x17F) {
    if ((C <= 0x137) || (C >= 0x14A && C <= 0x177))
      return (C & 1) ? static_cast<char16_t>(C - 1) : C;
    if ((C >= 0x139 && C <= 0x148) || (C >= 0x179 && C <= 0x17E))
      return (C & 1) ? C : static_cast<char16_t>(C - 1);
    if (C == 0x17F) return 'S';
    return C;
  }
  if (C >= 0x3B1 && C <= 0x3CB && C != 0x3C2) return static_cast<char16_t>(C - 32);
  if (C == 0x3C2) return 0x3A3;
  if (C == 0x3AC) return 0x386;
  if (C >= 0x3AD && C <= 0x3AF) return static_cast<char16_t>(C - 37);
  if (C == 0x3CC) return 0x38C;
  if (C == 0x3CD || C == 0x3CE) return static_cast<char16_t>(C - 63);
  if (C >= 0x430 && C <= 0x44F) return static_cast<char16_t>(C - 32);
  if (C >= 0x450 && C <= 0x45F) return static_cast<char16_t>(C - 80);
  if (C >= 0xFF41 && C <= 0xFF5A) return static_cast<char16_t>(C - 32);
  return C;
}

std::u16string UpperName(std::u16string_view S) {
  std::u16string R(S);
  for (char16_t& C : R) C = UpperChar(C);
  return R;
}

// The directory's order on folded names: shorter first, then by code.
struct TNameLess {
  bool operator()(const std::u16string& A, const std::u16string& B) const {
    if (A.size() != B.size()) return A.size() < B.size();
    return A < B;
  }
};

// Units of Unit bytes needed for Size bytes, without overflow.
inline uint64_t Units(uint64_t Size, uint32_t Unit) {
  return Size / Unit + (Size % Unit != 0);
}

FILETIME NowFileTime() {
  timespec Ts{};
  clock_gettime(CLOCK_REALTIME, &Ts);
  uint64_t V = (static_cast<uint64_t>(Ts.tv_sec) + 11644473600ULL) * 10000000ULL +
               static_cast<uint64_t>(Ts.tv_nsec) / 100;
  return FILETIME{static_cast<uint32_t>(V), static_cast<uint32_t>(V >> 32)};
}

// An element name: 1 to 31 characters, none of / \ : !
HRESULT CheckName(const char16_t* Name, std::u16string& Out) {
  if (!Name) return STG_E_INVALIDPOINTER;
  Out.assign(Name);
  if (Out.empty() || Out.size() > 31) return STG_E_INVALIDNAME;
  for (char16_t C : Out)
    if (C == u'/' || C == u'\\' || C == u':' || C == u'!') return STG_E_INVALIDNAME;
  return S_OK;
}

// ---------------------------------------------------------------------------
// Sector chains and allocation maps

// A chain of sector numbers (regular or mini) kept as runs of consecutive
// numbers: a stream written in one go is one run whatever its length, so a
// large file costs a few bytes per stream instead of four per sector.
class TChain {
 public:
  struct TRun {
    uint64_t Start;   // index in the chain of the run's first sector
    uint32_t Sector;  // its sector number
    uint32_t Count;
  };

  size_t size() const { return FCount; }
  bool empty() const { return FCount == 0; }
  uint32_t front() const { return FRuns.front().Sector; }
  const std::vector<TRun>& Runs() const { return FRuns; }

  void clear() {
    FRuns.clear();
    FCount = 0;
  }

  void push_back(uint32_t S) {
    if (!FRuns.empty() && FRuns.back().Sector + uint64_t(FRuns.back().Count) == S &&
        FRuns.back().Count < UINT32_MAX)
      ++FRuns.back().Count;
    else
      FRuns.push_back({FCount, S, 1});
    ++FCount;
  }

  // The sector at index I; Following receives how many sectors after it
  // are consecutive in the file (the rest of its run).
  uint32_t At(size_t I, size_t* Following = nullptr) const {
    const TRun& R = FRuns[Find(I)];
    uint64_t Off = I - R.Start;
    if (Following) *Following = static_cast<size_t>(R.Count - Off - 1);
    return static_cast<uint32_t>(R.Sector + Off);
  }
  uint32_t operator[](size_t I) const { return At(I); }

  // Cuts the chain to its first N sectors.
  void Shrink(size_t N) {
    if (N >= FCount) return;
    if (N == 0) return clear();
    size_t R = Find(N - 1);
    FRuns[R].Count = static_cast<uint32_t>(N - FRuns[R].Start);
    FRuns.resize(R + 1);
    FCount = N;
  }

  // Replaces the sector at index I by S (a copy written elsewhere).
  void Set(size_t I, uint32_t S) {
    size_t R = Find(I);
    TRun Old = FRuns[R];
    uint64_t Off = I - Old.Start;
    if (Off == 0 && R > 0 && FRuns[R - 1].Sector + uint64_t(FRuns[R - 1].Count) == S &&
        FRuns[R - 1].Count < UINT32_MAX) {
      // The usual case of a rewrite from the front: the previous run, made
      // of new sectors, grows by one and this run loses its first.
      ++FRuns[R - 1].Count;
      if (Old.Count == 1) {
        FRuns.erase(FRuns.begin() + static_cast<ptrdiff_t>(R));
        Merge(R - 1);
      } else {
        FRuns[R] = {Old.Start + 1, Old.Sector + 1, Old.Count - 1};
      }
      return;
    }
    TRun Parts[3];
    size_t N = 0;
    if (Off > 0) Parts[N++] = {Old.Start, Old.Sector, static_cast<uint32_t>(Off)};
    Parts[N++] = {I, S, 1};
    if (Off + 1 < Old.Count)
      Parts[N++] = {I + 1, static_cast<uint32_t>(Old.Sector + Off + 1),
                    static_cast<uint32_t>(Old.Count - Off - 1)};
    FRuns[R] = Parts[0];
    FRuns.insert(FRuns.begin() + static_cast<ptrdiff_t>(R + 1), Parts + 1, Parts + N);
    size_t Mid = R + (Off > 0 ? 1 : 0);
    Merge(Mid);
    if (Mid > 0) Merge(Mid - 1);
  }

 private:
  size_t Find(size_t I) const {
    auto It = std::upper_bound(FRuns.begin(), FRuns.end(), uint64_t(I),
                               [](uint64_t V, const TRun& R) { return V < R.Start; });
    return static_cast<size_t>(It - FRuns.begin()) - 1;
  }

  // Joins run R with the one after it when their sectors continue.
  void Merge(size_t R) {
    if (R + 1 >= FRuns.size()) return;
    TRun& A = FRuns[R];
    const TRun& B = FRuns[R + 1];
    if (A.Sector + uint64_t(A.Count) != B.Sector || uint64_t(A.Count) + B.Count > UINT32_MAX) return;
    A.Count += B.Count;
    FRuns.erase(FRuns.begin() + static_cast<ptrdiff_t>(R + 1));
  }

  std::vector<TRun> FRuns;
  size_t FCount = 0;
};

// One bit per sector.
class TBits {
 public:
  size_t size() const { return FSize; }
  bool operator[](size_t I) const { return (FWords[I >> 6] >> (I & 63)) & 1; }
  void Set(size_t I) { FWords[I >> 6] |= uint64_t(1) << (I & 63); }
  void Reset(size_t I) { FWords[I >> 6] &= ~(uint64_t(1) << (I & 63)); }
  void Assign(size_t N) {
    FWords.assign((N + 63) / 64, 0);
    FSize = N;
  }
  void Resize(size_t N) {
    for (size_t I = N; I < std::min(FSize, (N + 63) / 64 * 64); ++I) Reset(I);
    FWords.resize((N + 63) / 64, 0);
    FSize = N;
  }
  void PushBack(bool V) {
    Resize(FSize + 1);
    if (V) Set(FSize - 1);
  }
  void Clear() { Assign(0); }

  // The first index from From on that is clear here and in Other (Other
  // may be shorter: missing bits are clear); size() when there is none.
  size_t FindFree(size_t From, const TBits* Other = nullptr) const {
    for (size_t W = From >> 6; W < FWords.size(); ++W) {
      uint64_t Busy = FWords[W];
      if (Other && W < Other->FWords.size()) Busy |= Other->FWords[W];
      if (W == From >> 6) Busy |= (uint64_t(1) << (From & 63)) - 1;
      if (Busy != ~uint64_t(0)) {
        size_t I = W * 64 + static_cast<size_t>(__builtin_ctzll(~Busy));
        return std::min(I, FSize);
      }
    }
    return FSize;
  }

 private:
  std::vector<uint64_t> FWords;
  size_t FSize = 0;
};

// ---------------------------------------------------------------------------
// The file

class TCfbFile {
 public:
  ~TCfbFile() { Close(); }

  HRESULT Open(const std::string& Path, int Flags) {
    FFd = ::open(Path.c_str(), Flags | O_CLOEXEC, 0666);
    if (FFd < 0) {
      switch (errno) {
        case ENOENT: return STG_E_FILENOTFOUND;
        case ENOTDIR: return STG_E_PATHNOTFOUND;
        case EEXIST: return STG_E_FILEALREADYEXISTS;
        case EACCES:
        case EPERM:
        case EISDIR: return STG_E_ACCESSDENIED;
        case EROFS: return STG_E_DISKISWRITEPROTECTED;
        case EMFILE:
        case ENFILE: return STG_E_TOOMANYOPENFILES;
        default: return STG_E_FILENOTFOUND;
      }
    }
    struct stat St{};
    if (fstat(FFd, &St) != 0 || !S_ISREG(St.st_mode)) {
      Close();
      return STG_E_ACCESSDENIED;
    }
    FSize = static_cast<uint64_t>(St.st_size);
    return S_OK;
  }

  // Exclusive or shared advisory lock, refused at once when another open
  // file description holds a conflicting one.
  HRESULT Lock(bool Exclusive) {
    if (flock(FFd, (Exclusive ? LOCK_EX : LOCK_SH) | LOCK_NB) == 0) return S_OK;
    return errno == EWOULDBLOCK ? STG_E_SHAREVIOLATION : STG_E_LOCKVIOLATION;
  }

  void Close() {
    if (FFd >= 0) ::close(FFd);
    FFd = -1;
  }

  uint64_t Size() const { return FSize; }

  // Reads Len bytes at Off. Bytes past the end of the file read as zero
  // when at least the first byte is inside it (writers may leave the last
  // sector short); a read that starts at or past the end fails.
  HRESULT ReadAt(uint64_t Off, void* Buf, size_t Len) {
    if (Len == 0) return S_OK;
    if (Off >= FSize) return STG_E_DOCFILECORRUPT;
    uint8_t* P = static_cast<uint8_t*>(Buf);
    size_t Done = 0;
    while (Done < Len) {
      ssize_t N = ::pread(FFd, P + Done, Len - Done, static_cast<off_t>(Off + Done));
      if (N < 0) {
        if (errno == EINTR) continue;
        return STG_E_READFAULT;
      }
      if (N == 0) break;
      Done += static_cast<size_t>(N);
    }
    if (Done < Len) std::memset(P + Done, 0, Len - Done);
    return S_OK;
  }

  HRESULT WriteAt(uint64_t Off, const void* Buf, size_t Len) {
    const uint8_t* P = static_cast<const uint8_t*>(Buf);
    size_t Done = 0;
    while (Done < Len) {
      ssize_t N = ::pwrite(FFd, P + Done, Len - Done, static_cast<off_t>(Off + Done));
      if (N < 0) {
        if (errno == EINTR) continue;
        return errno == ENOSPC ? STG_E_MEDIUMFULL : STG_E_WRITEFAULT;
      }
      Done += static_cast<size_t>(N);
    }
    if (Off + Len > FSize) FSize = Off + Len;
    return S_OK;
  }

  HRESULT Extend(uint64_t NewSize) {
    if (NewSize <= FSize) return S_OK;
    if (ftruncate(FFd, static_cast<off_t>(NewSize)) != 0) return STG_E_MEDIUMFULL;
    FSize = NewSize;
    return S_OK;
  }

  HRESULT Truncate() {
    if (ftruncate(FFd, 0) != 0) return STG_E_WRITEFAULT;
    FSize = 0;
    return S_OK;
  }

  bool FreeSpace(struct statvfs& Fs) const { return fstatvfs(FFd, &Fs) == 0; }

  HRESULT Sync() { return fdatasync(FFd) == 0 ? S_OK : STG_E_WRITEFAULT; }

 private:
  int FFd = -1;
  uint64_t FSize = 0;
};

// ---------------------------------------------------------------------------
// The document: sectors, allocation, directory and stream contents

struct TEntry {
  uint8_t Type = ObjUnused;
  std::u16string Name;
  TCLSID Clsid;
  uint32_t StateBits = 0;
  FILETIME CTime, MTime, ATime;
  uint64_t Size = 0;
  TChain Chain;                 // regular or mini sectors, by Size
  bool Damaged = false;         // the chain in the file is unsound
  uint32_t Parent = NOSTREAM;
  std::map<std::u16string, uint32_t, TNameLess> Children;  // folded name -> entry
  uint64_t Serial = 0;  // identifies this element for the objects open on it
  int OpenCount = 0;
};

class TCfbDoc {
 public:
  std::recursive_mutex Lock;
  TCfbFile File;
  std::string Path;
  uint32_t Mode = 0;
  bool Writable = false;
  bool Closed = false;
  bool DeleteOnRelease = false;

  uint32_t SectorSize = 512;
  uint16_t Major = 3;
  std::vector<TEntry> Entries;

  ~TCfbDoc() { Close(); }

  bool IsMini(const TEntry& E) const { return E.Type == ObjStream && E.Size < MiniCutoff; }

  // -- creation and loading ------------------------------------------------

  // A fresh, empty document (written by the first save).
  void InitEmpty(uint32_t Sector) {
    SectorSize = Sector;
    Major = Sector == 4096 ? 4 : 3;
    FShift = Sector == 4096 ? 12 : 9;
    Entries.assign(1, TEntry());
    TEntry& R = Entries[0];
    R.Type = ObjRoot;
    R.Name = u"Root Entry";
    R.Serial = ++FSerial;
    FUsed.Clear();
    FCommitted.Clear();
    FMiniUsed.Clear();
    FMini.clear();
    FRootChain.clear();
    FDirChain.clear();
    FMiniFatChain.clear();
    FFatSectors.clear();
    FDifatSectors.clear();
    FDirty = true;
    FMiniLoaded = true;
    FMiniSize = 0;
    FHeaderClsid = TCLSID();
    FHint = FMiniHint = 0;
    FEntryHint = 1;
  }

  HRESULT Load() {
    uint8_t H[512];
    FRootChain.clear();
    FDirChain.clear();
    FMiniFatChain.clear();
    FMini.clear();
    FHint = FMiniHint = 0;
    FEntryHint = 1;
    FMiniDirty = false;
    if (File.Size() < 8) return STG_E_FILEALREADYEXISTS;
    HRESULT Hr = File.ReadAt(0, H, 512);
    if (Failed(Hr)) return Hr;
    if (std::memcmp(H, Signature, 8) != 0) return STG_E_FILEALREADYEXISTS;
    if (File.Size() < 512) return STG_E_INVALIDHEADER;
    GetGUID(H + 8, FHeaderClsid);
    Major = Get16(H + 26);
    uint16_t Shift = Get16(H + 30);
    if (Get16(H + 28) != 0xFFFE) return STG_E_INVALIDHEADER;
    if (!((Major == 3 && Shift == 9) || (Major == 4 && Shift == 12))) return STG_E_INVALIDHEADER;
    if (Get16(H + 32) != 6 || Get32(H + 56) != MiniCutoff) return STG_E_INVALIDHEADER;
    FShift = Shift;
    SectorSize = 1u << Shift;
    if (File.Size() < SectorSize) return STG_E_DOCFILECORRUPT;

    // Sectors present in the file (a short last sector counts).
    uint64_t Avail = (File.Size() - SectorSize + SectorSize - 1) / SectorSize;
    uint32_t NSect = static_cast<uint32_t>(std::min<uint64_t>(Avail, MAXREGSECT));
    FUsed.Assign(NSect);
    const uint32_t PerSec = SectorSize / 4;

    // DIFAT: the header's 109 entries, then the DIFAT chain.
    uint32_t NFat = Get32(H + 44);
    uint32_t NDifat = Get32(H + 72);
    if (NFat > NSect || NDifat > NSect) return STG_E_DOCFILECORRUPT;
    std::vector<uint32_t> FatSecs;
    FatSecs.reserve(NFat);
    for (uint32_t I = 0; I < HeaderDifatCount && FatSecs.size() < NFat; ++I)
      FatSecs.push_back(Get32(H + 76 + 4 * I));
    uint32_t D = Get32(H + 68);
    std::vector<uint8_t> Buf(SectorSize);
    FDifatSectors.clear();
    while (FatSecs.size() < NFat) {
      if (D >= NSect || FUsed[D] || FDifatSectors.size() >= NDifat + 1u) return STG_E_DOCFILECORRUPT;
      FUsed.Set(D);
      FDifatSectors.push_back(D);
      if (Failed(Hr = ReadSector(D, Buf.data()))) return Hr;
      for (uint32_t I = 0; I + 1 < PerSec && FatSecs.size() < NFat; ++I)
        FatSecs.push_back(Get32(Buf.data() + 4 * I));
      D = Get32(Buf.data() + 4 * (PerSec - 1));
    }
    // The FAT, cut to the sectors that exist.
    std::vector<uint32_t> Fat;
    Fat.reserve(static_cast<size_t>(NFat) * PerSec);
    // Consecutive FAT sectors are read together, up to 64 KiB at a time.
    const size_t Batch = std::max<size_t>(1, (64u << 10) / SectorSize);
    for (size_t I = 0; I < FatSecs.size();) {
      size_t N = 1;
      while (I + N < FatSecs.size() && N < Batch && FatSecs[I + N] == FatSecs[I] + uint64_t(N)) ++N;
      for (size_t K = 0; K < N; ++K) {
        uint32_t S = FatSecs[I + K];
        if (S >= NSect || FUsed[S]) return STG_E_DOCFILECORRUPT;
        FUsed.Set(S);
      }
      Buf.resize(N * SectorSize);
      if (Failed(Hr = File.ReadAt(SectorOffset(FatSecs[I]), Buf.data(), Buf.size()))) return Hr;
      for (size_t K = 0; K < N * PerSec; ++K) Fat.push_back(Get32(Buf.data() + 4 * K));
      I += N;
    }
    if (Fat.size() > NSect) Fat.resize(NSect);
    FFatSectors.clear();
    for (uint32_t S : FatSecs) FFatSectors.push_back(S);

    // Directory.
    if (Failed(Hr = FollowFat(Fat, Get32(H + 48), UINT32_MAX, FDirChain)) || FDirChain.empty())
      return STG_E_DOCFILECORRUPT;
    const uint32_t PerDir = SectorSize / DirEntrySize;
    size_t NEnt = FDirChain.size() * PerDir;
    // Entries are parsed in place; those the tree does not reach are
    // cleared after the walk.
    std::vector<TEntry>& Raw = Entries;
    Raw.assign(NEnt, TEntry());
    std::vector<uint32_t> Left(NEnt), Right(NEnt), Child(NEnt), Start(NEnt);
    // The directory is read a run of sectors at a time, at most 64 KiB, so
    // that a large directory is never held twice (as bytes and as entries).
    std::vector<uint8_t> DirBytes;
    size_t DirFrom = 0, DirTo = 0;  // entries held in DirBytes
    for (size_t I = 0; I < NEnt; ++I) {
      if (I == DirTo) {
        size_t Following = 0;
        size_t Sec = I / PerDir;
        uint32_t First = FDirChain.At(Sec, &Following);
        size_t Count = std::min<size_t>(Following + 1, std::max<size_t>(1, (64u << 10) / SectorSize));
        DirBytes.resize(Count * SectorSize);
        if (Failed(Hr = File.ReadAt(SectorOffset(First), DirBytes.data(), DirBytes.size()))) return Hr;
        DirFrom = I;
        DirTo = I + Count * PerDir;
      }
      const uint8_t* P = DirBytes.data() + (I - DirFrom) * DirEntrySize;
      TEntry& E = Raw[I];
      E.Type = P[66];
      uint16_t Cb = Get16(P + 64);
      size_t Chars = std::min<size_t>(Cb / 2, 32);
      for (size_t C = 0; C < Chars; ++C) {
        char16_t Ch = static_cast<char16_t>(Get16(P + 2 * C));
        if (Ch == 0) break;
        E.Name.push_back(Ch);
      }
      Left[I] = Get32(P + 68);
      Right[I] = Get32(P + 72);
      Child[I] = Get32(P + 76);
      GetGUID(P + 80, E.Clsid);
      E.StateBits = Get32(P + 96);
      E.CTime = GetTime(P + 100);
      E.MTime = GetTime(P + 108);
      Start[I] = Get32(P + 116);
      E.Size = Major == 3 ? Get32(P + 120) : Get64(P + 120);
    }
    DirBytes = std::vector<uint8_t>();
    if (Raw[0].Type != ObjRoot) return STG_E_DOCFILECORRUPT;

    // The mini FAT and the mini stream.
    std::vector<uint32_t> MiniFat;
    if (Get32(H + 64) != 0 || Get32(H + 60) != ENDOFCHAIN) {
      if (Failed(Hr = FollowFat(Fat, Get32(H + 60), UINT32_MAX, FMiniFatChain)))
        return STG_E_DOCFILECORRUPT;
      std::vector<uint8_t> MB(FMiniFatChain.size() * static_cast<size_t>(SectorSize));
      if (Failed(Hr = ReadChain(FMiniFatChain, MB.data()))) return Hr;
      MiniFat.resize(MB.size() / 4);
      for (size_t I = 0; I < MiniFat.size(); ++I) MiniFat[I] = Get32(MB.data() + 4 * I);
    }
    uint64_t RootSize = Raw[0].Size;
    uint64_t RootNeed = Units(RootSize, SectorSize);
    if (RootSize > 0) {
      if (Failed(FollowFat(Fat, Start[0], RootNeed, FRootChain))) return STG_E_DOCFILECORRUPT;
    }
    // The mini stream is read from the file until something changes it.
    FMiniSize = std::min<uint64_t>(RootSize, uint64_t(FRootChain.size()) * SectorSize);
    FMiniSize -= FMiniSize % MiniSectorSize;
    FMiniLoaded = false;
    size_t MiniCount = FMiniSize / MiniSectorSize;
    if (MiniFat.size() > MiniCount) MiniFat.resize(MiniCount);
    FMiniUsed.Assign(MiniCount);

    // Walk the tree from the root; every entry may be reached once.
    Entries[0].Serial = ++FSerial;
    Entries[0].Size = 0;
    Entries[0].Chain.clear();
    std::vector<uint8_t> Seen(NEnt, 0);
    Seen[0] = 1;
    std::vector<std::pair<uint32_t, int>> Storages{{0, 0}};  // entry, depth
    std::vector<uint32_t> Stack;
    while (!Storages.empty()) {
      auto [Parent, Depth] = Storages.back();
      Storages.pop_back();
      if (Depth >= MaxDepth) return STG_E_DOCFILECORRUPT;
      Stack.clear();
      if (Child[Parent] != NOSTREAM) Stack.push_back(Child[Parent]);
      while (!Stack.empty()) {
        uint32_t I = Stack.back();
        Stack.pop_back();
        if (I >= NEnt || Seen[I]) return STG_E_DOCFILECORRUPT;
        Seen[I] = 1;
        if (Left[I] != NOSTREAM) Stack.push_back(Left[I]);
        if (Right[I] != NOSTREAM) Stack.push_back(Right[I]);
        TEntry& E = Raw[I];
        if (E.Type != ObjStorage && E.Type != ObjStream) return STG_E_DOCFILECORRUPT;
        if (E.Name.empty()) return STG_E_DOCFILECORRUPT;
        std::u16string Key = UpperName(E.Name);
        if (Entries[Parent].Children.count(Key)) {
          Seen[I] = 2;  // a duplicate name: the first wins
          continue;
        }
        E.Parent = Parent;
        E.Serial = ++FSerial;
        if (E.Type == ObjStorage) {
          E.Size = 0;
          Storages.push_back({I, Depth + 1});
        } else if (IsMini(E)) {
          if (Failed(FollowMini(MiniFat, Start[I], Units(E.Size, MiniSectorSize), E.Chain))) {
            E.Damaged = true;
            E.Chain.clear();
          }
        } else if (Failed(FollowFat(Fat, Start[I], Units(E.Size, SectorSize), E.Chain))) {
          E.Damaged = true;
          E.Chain.clear();
        }
        Entries[Parent].Children.emplace(std::move(Key), I);
      }
    }
    for (size_t I = 1; I < NEnt; ++I)
      if (Seen[I] != 1) Entries[I] = TEntry();
    FCommitted = FUsed;
    FDirty = false;
    return S_OK;
  }

  // -- allocation -----------------------------------------------------------

  // A sector free now and unused by the saved state (so that writing it
  // cannot damage what the header on disk describes).
  uint32_t AllocSector() {
    size_t I = FUsed.FindFree(FHint, &FCommitted);
    if (I == FUsed.size()) FUsed.PushBack(false);
    FUsed.Set(I);
    FHint = I + 1;
    return static_cast<uint32_t>(I);
  }
  void FreeSector(uint32_t S) {
    if (S < FUsed.size()) {
      FUsed.Reset(S);
      if (S < FHint) FHint = S;
    }
  }
  uint32_t AllocMini() {
    if (Failed(EnsureMini())) {
      // Unreadable: continue over zeros rather than over a half state.
      FMini.assign(FMiniSize, 0);
      FMiniLoaded = true;
    }
    size_t I = FMiniUsed.FindFree(FMiniHint);
    if (I == FMiniUsed.size()) {
      FMiniUsed.PushBack(false);
      FMini.resize(FMiniUsed.size() * MiniSectorSize);
    }
    FMiniUsed.Set(I);
    FMiniHint = I + 1;
    return static_cast<uint32_t>(I);
  }
  void FreeMini(uint32_t S) {
    if (S < FMiniUsed.size()) {
      FMiniUsed.Reset(S);
      if (S < FMiniHint) FMiniHint = S;
    }
  }

  // -- stream contents ------------------------------------------------------

  HRESULT ReadStream(TEntry& E, uint64_t Pos, void* Buf, uint32_t Len, uint32_t& Done) {
    Done = 0;
    if (Pos >= E.Size) return S_OK;
    uint64_t N = std::min<uint64_t>(Len, E.Size - Pos);
    uint8_t* P = static_cast<uint8_t*>(Buf);
    if (IsMini(E)) {
      while (Done < N) {
        uint64_t At = Pos + Done;
        uint32_t Off = static_cast<uint32_t>(At % MiniSectorSize);
        uint32_t Take = static_cast<uint32_t>(std::min<uint64_t>(MiniSectorSize - Off, N - Done));
        size_t Following = 0;
        uint64_t MiniOff =
            uint64_t(E.Chain.At(At / MiniSectorSize, &Following)) * MiniSectorSize + Off;
        if (FMiniLoaded) {
          std::memcpy(P + Done, FMini.data() + MiniOff, Take);
        } else {
          // Straight from the file: consecutive mini sectors that lie in
          // the same sector are one read.
          uint64_t InSec = MiniOff % SectorSize;
          while (Take < N - Done && Following > 0 && InSec + Take + MiniSectorSize <= SectorSize) {
            --Following;
            Take = static_cast<uint32_t>(std::min<uint64_t>(Take + MiniSectorSize, N - Done));
          }
          HRESULT Hr =
              File.ReadAt(SectorOffset(FRootChain.At(MiniOff / SectorSize)) + InSec, P + Done, Take);
          if (Failed(Hr)) return Hr;
        }
        Done += Take;
      }
      return S_OK;
    }
    while (Done < N) {
      uint64_t At = Pos + Done;
      size_t Idx = At / SectorSize;
      uint32_t Off = static_cast<uint32_t>(At % SectorSize);
      // A run of consecutive sectors is one read.
      size_t Following = 0;
      uint32_t S = E.Chain.At(Idx, &Following);
      uint64_t Span = SectorSize - Off + uint64_t(Following) * SectorSize;
      uint32_t Take = static_cast<uint32_t>(std::min<uint64_t>(Span, N - Done));
      HRESULT Hr = File.ReadAt(SectorOffset(S) + Off, P + Done, Take);
      if (Failed(Hr)) return Hr;
      Done += Take;
    }
    return S_OK;
  }

  HRESULT WriteStream(TEntry& E, uint64_t Pos, const void* Buf, uint32_t Len) {
    if (Len == 0) return S_OK;
    if (Pos + Len < Pos) return STG_E_MEDIUMFULL;
    if (Pos > E.Size) {
      // The gap before the written bytes reads as zero.
      HRESULT Hr = Resize(E, Pos, true);
      if (Failed(Hr)) return Hr;
    }
    if (Pos + Len > E.Size) {
      HRESULT Hr = Resize(E, Pos + Len, false);
      if (Failed(Hr)) return Hr;
    }
    FDirty = true;
    HRESULT Hr0;
    const uint8_t* P = static_cast<const uint8_t*>(Buf);
    uint32_t Done = 0;
    if (IsMini(E)) {
      if (Failed(Hr0 = EnsureMini())) return Hr0;
      while (Done < Len) {
        uint64_t At = Pos + Done;
        uint32_t Off = static_cast<uint32_t>(At % MiniSectorSize);
        uint32_t Take = std::min<uint32_t>(MiniSectorSize - Off, Len - Done);
        std::memcpy(FMini.data() + size_t(E.Chain.At(At / MiniSectorSize)) * MiniSectorSize + Off,
                    P + Done, Take);
        Done += Take;
      }
      FMiniDirty = true;
      return S_OK;
    }
    std::vector<uint8_t> Tmp;
    while (Done < Len) {
      uint64_t At = Pos + Done;
      size_t Idx = At / SectorSize;
      uint32_t Off = static_cast<uint32_t>(At % SectorSize);
      size_t Following = 0;
      uint32_t S = E.Chain.At(Idx, &Following);
      if (S < FCommitted.size() && FCommitted[S]) {
        // The saved state owns this sector: write a copy elsewhere.
        uint32_t Take = std::min<uint32_t>(SectorSize - Off, Len - Done);
        Tmp.resize(SectorSize);
        if (Off != 0 || Take != SectorSize) {
          HRESULT Hr = File.ReadAt(SectorOffset(S), Tmp.data(), SectorSize);
          if (Failed(Hr)) return Hr;
        }
        std::memcpy(Tmp.data() + Off, P + Done, Take);
        uint32_t NewS = AllocSector();
        HRESULT Hr = File.WriteAt(SectorOffset(NewS), Tmp.data(), SectorSize);
        if (Failed(Hr)) return Hr;
        FreeSector(S);
        E.Chain.Set(Idx, NewS);
        Done += Take;
        continue;
      }
      // A run of consecutive sectors the saved state does not own is one
      // write.
      uint64_t Span = SectorSize - Off;
      for (uint32_t Next = S + 1; Span < Len - Done && Following > 0; ++Next, --Following) {
        if (Next < FCommitted.size() && FCommitted[Next]) break;
        Span += SectorSize;
      }
      uint32_t Take = static_cast<uint32_t>(std::min<uint64_t>(Span, Len - Done));
      HRESULT Hr = File.WriteAt(SectorOffset(S) + Off, P + Done, Take);
      if (Failed(Hr)) return Hr;
      Done += Take;
    }
    return S_OK;
  }

  // Sets the size of stream E, moving its contents between the mini stream
  // and regular sectors when the size crosses the cut-off. With ZeroFill
  // the bytes added read as zero.
  HRESULT Resize(TEntry& E, uint64_t NewSize, bool ZeroFill) {
    if (Major == 3 && NewSize > 0xFFFFFFFFull) return STG_E_DOCFILETOOLARGE;
    if (NewSize == E.Size) return S_OK;
    if (NewSize > E.Size && Units(NewSize, SectorSize) > MAXREGSECT) return STG_E_DOCFILETOOLARGE;
    // Growth the file system cannot hold fails before any allocation.
    if (NewSize > E.Size + (64u << 20)) {
      struct statvfs Fs{};
      if (File.FreeSpace(Fs) && NewSize - E.Size > uint64_t(Fs.f_bavail) * Fs.f_frsize)
        return STG_E_MEDIUMFULL;
    }
    FDirty = true;
    bool WasMini = IsMini(E);
    bool NowMini = NewSize < MiniCutoff;
    if (NowMini) {
      HRESULT Hr = EnsureMini();
      if (Failed(Hr)) return Hr;
    }
    uint64_t OldSize = E.Size;
    if (WasMini != NowMini) {
      // Move across the cut-off through a buffer of at most 4096 bytes.
      std::vector<uint8_t> Keep(static_cast<size_t>(std::min<uint64_t>(OldSize, NewSize)));
      uint32_t Got = 0;
      HRESULT Hr = ReadStream(E, 0, Keep.data(), static_cast<uint32_t>(Keep.size()), Got);
      if (Failed(Hr)) return Hr;
      ReleaseChain(E);
      E.Size = NewSize;  // decides the kind of chain below
      if (NowMini) {
        AllocMiniChain(E.Chain, (NewSize + 63) / 64);
        FMiniDirty = true;
      } else {
        AllocChain(E.Chain, (NewSize + SectorSize - 1) / SectorSize);
      }
      // Zero the whole new contents first when asked, then the kept bytes.
      if (ZeroFill || NowMini) Hr = ZeroRange(E, 0, NewSize);
      if (Succeeded(Hr) && !Keep.empty())
        Hr = WriteStream(E, 0, Keep.data(), static_cast<uint32_t>(Keep.size()));
      return Hr;
    }
    uint32_t Unit = NowMini ? MiniSectorSize : SectorSize;
    size_t Need = static_cast<size_t>((NewSize + Unit - 1) / Unit);
    if (Need < E.Chain.size()) {
      FreeChain(E.Chain, NowMini, Need);
    } else if (Need > E.Chain.size()) {
      if (NowMini) {
        FMiniDirty = true;
        AllocMiniChain(E.Chain, Need);
      } else {
        AllocChain(E.Chain, Need);
      }
    }
    E.Size = NewSize;
    if (NewSize > OldSize && (ZeroFill || NowMini)) return ZeroRange(E, OldSize, NewSize);
    return S_OK;
  }

  HRESULT ZeroRange(TEntry& E, uint64_t From, uint64_t To) {
    static const uint8_t Zeros[4096] = {};
    while (From < To) {
      uint32_t N = static_cast<uint32_t>(std::min<uint64_t>(sizeof Zeros, To - From));
      HRESULT Hr = WriteStream(E, From, Zeros, N);
      if (Failed(Hr)) return Hr;
      From += N;
    }
    return S_OK;
  }

  void ReleaseChain(TEntry& E) {
    if (E.Type != ObjStream || E.Damaged) {
      E.Chain.clear();
      return;
    }
    FreeChain(E.Chain, IsMini(E));
  }

  // Frees the sectors of a chain from index From on and cuts it there.
  void FreeChain(TChain& Chain, bool Mini, size_t From = 0) {
    for (const TChain::TRun& R : Chain.Runs())
      for (uint64_t K = From > R.Start ? From - R.Start : 0; K < R.Count; ++K)
        Mini ? FreeMini(static_cast<uint32_t>(R.Sector + K))
             : FreeSector(static_cast<uint32_t>(R.Sector + K));
    Chain.Shrink(From);
  }

  // -- directory ------------------------------------------------------------

  uint32_t NewEntry(uint32_t Parent, const std::u16string& Name, uint8_t Type) {
    uint32_t I = static_cast<uint32_t>(std::max<size_t>(FEntryHint, 1));
    while (I < Entries.size() && Entries[I].Type != ObjUnused) ++I;
    if (I == Entries.size()) Entries.emplace_back();
    FEntryHint = I + 1;
    TEntry& E = Entries[I];
    E = TEntry();
    E.Type = Type;
    E.Name = Name;
    E.Parent = Parent;
    E.Serial = ++FSerial;
    if (Type == ObjStorage) E.CTime = E.MTime = NowFileTime();
    Entries[Parent].Children.emplace(UpperName(Name), I);
    Touch(Parent);
    return I;
  }

  // Removes entry I and everything below it.
  void DestroyTree(uint32_t I) {
    std::vector<uint32_t> Todo{I};
    while (!Todo.empty()) {
      uint32_t J = Todo.back();
      Todo.pop_back();
      TEntry& E = Entries[J];
      for (auto& [K, C] : E.Children) Todo.push_back(C);
      ReleaseChain(E);
      E = TEntry();
      FEntryHint = std::min<size_t>(FEntryHint, J);
    }
  }

  void Unlink(uint32_t I) {
    TEntry& E = Entries[I];
    Entries[E.Parent].Children.erase(UpperName(E.Name));
    Touch(E.Parent);
  }

  uint32_t Find(uint32_t Parent, const std::u16string& Name) const {
    const auto& C = Entries[Parent].Children;
    auto It = C.find(UpperName(Name));
    return It == C.end() ? NOSTREAM : It->second;
  }

  bool IsInside(uint32_t I, uint32_t Ancestor) const {
    for (int N = 0; I != NOSTREAM && N <= MaxDepth + 1; ++N, I = Entries[I].Parent)
      if (I == Ancestor) return true;
    return false;
  }

  void Touch(uint32_t Storage) {
    FDirty = true;
    if (Storage != 0) Entries[Storage].MTime = NowFileTime();
  }
  void MarkDirty() { FDirty = true; }
  bool Dirty() const { return FDirty; }

  // -- saving ---------------------------------------------------------------

  // Writes every changed structure to sectors the saved state does not use,
  // makes it durable, then writes the header that switches to it.
  // Durable: wait for the disk before and after the header (the order of
  // the writes alone already protects against a killed process).
  HRESULT Save(bool Durable = true) {
    HRESULT Hr;
    const uint32_t PerSec = SectorSize / 4;

    // Mini stream: trailing free mini sectors are dropped, the rest is
    // written to new sectors when it changed.
    size_t MiniCount = FMiniUsed.size();
    while (MiniCount > 0 && !FMiniUsed[MiniCount - 1]) --MiniCount;
    if ((MiniCount != FMiniUsed.size() || FMiniDirty) && Failed(Hr = EnsureMini())) return Hr;
    if (MiniCount != FMiniUsed.size()) {
      FMiniUsed.Resize(MiniCount);
      FMini.resize(MiniCount * MiniSectorSize);
      FMiniDirty = true;
    }
    if (FMiniDirty) {
      FreeChain(FRootChain, false);
      AllocChain(FRootChain, (FMini.size() + SectorSize - 1) / SectorSize);
      if (Failed(Hr = WriteChain(FRootChain, FMini.data(), FMini.size()))) return Hr;
    }

    // Mini FAT.
    std::vector<uint8_t> Bytes;
    {
      size_t Count = (MiniCount + PerSec - 1) / PerSec * PerSec;
      Bytes.assign(Count * 4, 0xFF);
      for (const TEntry& E : Entries)
        if (E.Type == ObjStream && !E.Damaged && IsMini(E)) LinkChain(Bytes, E.Chain);
      FreeChain(FMiniFatChain, false);
      AllocChain(FMiniFatChain, Count / PerSec);
      if (Failed(Hr = WriteChain(FMiniFatChain, Bytes.data(), Bytes.size()))) return Hr;
    }

    // Directory: unused slots at the end are dropped, the trees rebuilt.
    while (Entries.size() > 1 && Entries.back().Type == ObjUnused) Entries.pop_back();
    const uint32_t PerDir = SectorSize / DirEntrySize;
    size_t NDir = (Entries.size() + PerDir - 1) / PerDir;
    Bytes.assign(NDir * SectorSize, 0);
    std::vector<uint32_t> L(Entries.size(), NOSTREAM), R(Entries.size(), NOSTREAM),
        C(Entries.size(), NOSTREAM);
    std::vector<uint8_t> Red(Entries.size(), 0);
    std::vector<uint32_t> Sorted;
    for (size_t I = 0; I < Entries.size(); ++I) {
      const TEntry& E = Entries[I];
      if (E.Type != ObjRoot && E.Type != ObjStorage) continue;
      Sorted.clear();
      for (auto& [K, J] : E.Children) Sorted.push_back(J);
      C[I] = BuildTree(Sorted, 0, Sorted.size(), 0, TreeDepth(Sorted.size()), L, R, Red);
    }
    for (size_t I = 0; I < Bytes.size() / DirEntrySize; ++I) {
      uint8_t* P = Bytes.data() + I * DirEntrySize;
      if (I >= Entries.size() || Entries[I].Type == ObjUnused) {
        Put32(P + 68, NOSTREAM);
        Put32(P + 72, NOSTREAM);
        Put32(P + 76, NOSTREAM);
        continue;
      }
      const TEntry& E = Entries[I];
      for (size_t K = 0; K < E.Name.size(); ++K) Put16(P + 2 * K, E.Name[K]);
      Put16(P + 64, static_cast<uint16_t>((E.Name.size() + 1) * 2));
      P[66] = E.Type;
      P[67] = Red[I] ? 0 : 1;
      Put32(P + 68, L[I]);
      Put32(P + 72, R[I]);
      Put32(P + 76, C[I]);
      PutGUID(P + 80, E.Clsid);
      Put32(P + 96, E.StateBits);
      PutTime(P + 100, E.CTime);
      PutTime(P + 108, E.MTime);
      uint32_t Start = ENDOFCHAIN;
      uint64_t Size = E.Size;
      if (E.Type == ObjRoot) {
        Size = FMiniLoaded ? FMini.size() : FMiniSize;
        if (!FRootChain.empty()) Start = FRootChain.front();
      } else if (E.Type == ObjStorage) {
        Start = 0;
        Size = 0;
      } else if (E.Damaged) {
        Size = 0;  // nothing of it could be read
      } else if (!E.Chain.empty()) {
        Start = E.Chain.front();
      }
      Put32(P + 116, Start);
      Put64(P + 120, Size);
    }
    FreeChain(FDirChain, false);
    AllocChain(FDirChain, NDir);
    if (Failed(Hr = WriteChain(FDirChain, Bytes.data(), Bytes.size()))) return Hr;

    // FAT and DIFAT: their own sectors are counted in the FAT, so size them
    // until the count stops changing.
    FreeChain(FFatSectors, false);
    FreeChain(FDifatSectors, false);
    for (;;) {
      size_t Total = FUsed.size();
      size_t NFat = (Total + PerSec - 1) / PerSec;
      size_t NDifat = NFat > HeaderDifatCount ? (NFat - HeaderDifatCount + PerSec - 2) / (PerSec - 1) : 0;
      if (FFatSectors.size() >= NFat && FDifatSectors.size() >= NDifat) break;
      while (FFatSectors.size() < NFat) FFatSectors.push_back(AllocSector());
      while (FDifatSectors.size() < NDifat) FDifatSectors.push_back(AllocSector());
    }
    if (FUsed.size() > MAXREGSECT) return STG_E_DOCFILETOOLARGE;
    if (Failed(Hr = WriteFat())) return Hr;
    std::vector<uint8_t> Sec(SectorSize);
    for (size_t D = 0; D < FDifatSectors.size(); ++D) {
      std::fill(Sec.begin(), Sec.end(), 0xFF);
      for (uint32_t K = 0; K + 1 < PerSec; ++K) {
        size_t F = HeaderDifatCount + D * (PerSec - 1) + K;
        if (F < FFatSectors.size()) Put32(Sec.data() + 4 * K, FFatSectors[F]);
      }
      Put32(Sec.data() + 4 * (PerSec - 1),
            D + 1 < FDifatSectors.size() ? FDifatSectors[D + 1] : ENDOFCHAIN);
      if (Failed(Hr = File.WriteAt(SectorOffset(FDifatSectors[D]), Sec.data(), SectorSize))) return Hr;
    }
    if (Failed(Hr = File.Extend(SectorOffset(static_cast<uint32_t>(FUsed.size()))))) return Hr;
    if (Durable && Failed(Hr = File.Sync())) return Hr;

    // The header: one write, after everything it points to is durable.
    std::vector<uint8_t> H(SectorSize, 0);
    std::memcpy(H.data(), Signature, 8);
    PutGUID(H.data() + 8, FHeaderClsid);
    Put16(H.data() + 24, 0x003E);
    Put16(H.data() + 26, Major);
    Put16(H.data() + 28, 0xFFFE);
    Put16(H.data() + 30, FShift);
    Put16(H.data() + 32, 6);
    Put32(H.data() + 40, Major == 4 ? static_cast<uint32_t>(FDirChain.size()) : 0);
    Put32(H.data() + 44, static_cast<uint32_t>(FFatSectors.size()));
    Put32(H.data() + 48, FDirChain.front());
    Put32(H.data() + 56, MiniCutoff);
    Put32(H.data() + 60, FMiniFatChain.empty() ? ENDOFCHAIN : FMiniFatChain.front());
    Put32(H.data() + 64, static_cast<uint32_t>(FMiniFatChain.size()));
    Put32(H.data() + 68, FDifatSectors.empty() ? ENDOFCHAIN : FDifatSectors.front());
    Put32(H.data() + 72, static_cast<uint32_t>(FDifatSectors.size()));
    for (uint32_t I = 0; I < HeaderDifatCount; ++I)
      Put32(H.data() + 76 + 4 * I, I < FFatSectors.size() ? FFatSectors[I] : FREESECT);
    // Only the first 512 bytes change after creation; the rest of a
    // 4096-byte header sector is zero.
    size_t HLen = File.Size() >= SectorSize ? 512 : SectorSize;
    if (Failed(Hr = File.WriteAt(0, H.data(), HLen))) return Hr;
    if (Durable && Failed(Hr = File.Sync())) return Hr;
    FCommitted = FUsed;
    FHint = 0;
    FMiniDirty = false;
    FDirty = false;
    return S_OK;
  }

  void Close() {
    if (Closed) return;
    Closed = true;
    File.Close();
    if (DeleteOnRelease && !Path.empty()) ::unlink(Path.c_str());
  }

  // Objects opened on an element check it is still the same one.
  bool Alive(uint32_t I, uint64_t Serial) const {
    return !Closed && I < Entries.size() && Entries[I].Type != ObjUnused &&
           Entries[I].Serial == Serial;
  }


 private:
  uint64_t SectorOffset(uint32_t S) const { return (static_cast<uint64_t>(S) + 1) << FShift; }

  HRESULT ReadSector(uint32_t S, uint8_t* Buf) { return File.ReadAt(SectorOffset(S), Buf, SectorSize); }

  // Reads the sectors of Chain into Buf, a run of consecutive sectors at a
  // time.
  HRESULT ReadChain(const TChain& Chain, uint8_t* Buf) {
    for (const TChain::TRun& R : Chain.Runs()) {
      HRESULT Hr = File.ReadAt(SectorOffset(R.Sector), Buf + R.Start * SectorSize,
                               size_t(R.Count) * SectorSize);
      if (Failed(Hr)) return Hr;
    }
    return S_OK;
  }

  // Writes Len bytes of Data to the sectors of Chain, a run at a time; the
  // part of the last sector past Len is written as zeros.
  HRESULT WriteChain(const TChain& Chain, const uint8_t* Data, size_t Len) {
    for (const TChain::TRun& R : Chain.Runs()) {
      size_t Off = static_cast<size_t>(R.Start) * SectorSize;
      size_t Span = size_t(R.Count) * SectorSize;
      size_t Whole = std::min(Span, Len - std::min(Len, Off)) / SectorSize * SectorSize;
      HRESULT Hr = File.WriteAt(SectorOffset(R.Sector), Data + Off, Whole);
      for (size_t At = Whole; Succeeded(Hr) && At < Span; At += SectorSize) {
        std::vector<uint8_t> Sec(SectorSize, 0);
        size_t N = std::min<size_t>(SectorSize, Len - std::min(Len, Off + At));
        if (N) std::memcpy(Sec.data(), Data + Off + At, N);
        Hr = File.WriteAt(SectorOffset(static_cast<uint32_t>(R.Sector + At / SectorSize)), Sec.data(),
                          SectorSize);
      }
      if (Failed(Hr)) return Hr;
    }
    return S_OK;
  }

  // Writes the FAT sector by sector without holding the whole table: the
  // chains in use are listed as runs sorted by sector, and each FAT sector
  // is filled from the runs that cross it.
  HRESULT WriteFat() {
    struct TSpan {
      uint32_t First, Count;
      uint32_t Tail;  // the value of the last entry (or of every entry when Fixed)
      bool Fixed;
    };
    std::vector<TSpan> Spans;
    auto AddChain = [&](const TChain& C) {
      const auto& Runs = C.Runs();
      for (size_t I = 0; I < Runs.size(); ++I)
        Spans.push_back({Runs[I].Sector, Runs[I].Count,
                         I + 1 < Runs.size() ? Runs[I + 1].Sector : ENDOFCHAIN, false});
    };
    auto AddFixed = [&](const TChain& C, uint32_t V) {
      for (const TChain::TRun& R : C.Runs()) Spans.push_back({R.Sector, R.Count, V, true});
    };
    for (const TEntry& E : Entries)
      if (E.Type == ObjStream && !E.Damaged && !IsMini(E)) AddChain(E.Chain);
    AddChain(FRootChain);
    AddChain(FMiniFatChain);
    AddChain(FDirChain);
    AddFixed(FFatSectors, FATSECT);
    AddFixed(FDifatSectors, DIFSECT);
    std::sort(Spans.begin(), Spans.end(),
              [](const TSpan& A, const TSpan& B) { return A.First < B.First; });

    const uint32_t PerSec = SectorSize / 4;
    // Consecutive FAT sectors are written together, up to 64 KiB at a time.
    const size_t Batch = std::max<size_t>(1, (64u << 10) / SectorSize);
    std::vector<uint8_t> Buf;
    size_t Next = 0;  // first span that may still cross a FAT sector
    const auto& FatRuns = FFatSectors.Runs();
    for (const TChain::TRun& Run : FatRuns) {
      for (uint64_t Done = 0; Done < Run.Count;) {
        size_t N = static_cast<size_t>(std::min<uint64_t>(Batch, Run.Count - Done));
        Buf.assign(N * SectorSize, 0xFF);
        for (size_t K = 0; K < N; ++K) {
          uint64_t Lo = (Run.Start + Done + K) * PerSec, Hi = Lo + PerSec;
          uint8_t* Out = Buf.data() + K * SectorSize;
          while (Next < Spans.size() && uint64_t(Spans[Next].First) + Spans[Next].Count <= Lo) ++Next;
          for (size_t J = Next; J < Spans.size() && Spans[J].First < Hi; ++J) {
            const TSpan& Sp = Spans[J];
            uint64_t End = uint64_t(Sp.First) + Sp.Count;
            for (uint64_t S = std::max<uint64_t>(Sp.First, Lo); S < std::min(End, Hi); ++S) {
              uint32_t V = Sp.Fixed || S + 1 == End ? Sp.Tail : static_cast<uint32_t>(S + 1);
              Put32(Out + 4 * (S - Lo), V);
            }
          }
          // Sectors still in use whose chain is not known (damaged streams)
          // stay allocated, as one-sector chains.
          for (uint64_t S = Lo; S < std::min<uint64_t>(Hi, FUsed.size()); ++S)
            if (FUsed[S] && Get32(Out + 4 * (S - Lo)) == FREESECT) Put32(Out + 4 * (S - Lo), ENDOFCHAIN);
        }
        HRESULT Hr = File.WriteAt(SectorOffset(static_cast<uint32_t>(Run.Sector + Done)), Buf.data(),
                                  Buf.size());
        if (Failed(Hr)) return Hr;
        Done += N;
      }
    }
    return S_OK;
  }

  void AllocChain(TChain& Chain, uint64_t Count) {
    while (Chain.size() < Count) Chain.push_back(AllocSector());
  }
  void AllocMiniChain(TChain& Chain, uint64_t Count) {
    while (Chain.size() < Count) Chain.push_back(AllocMini());
  }

  static void LinkChain(std::vector<uint8_t>& Table, const TChain& Chain) {
    const auto& Runs = Chain.Runs();
    for (size_t I = 0; I < Runs.size(); ++I)
      for (uint32_t K = 0; K < Runs[I].Count; ++K)
        Put32(Table.data() + 4 * (size_t(Runs[I].Sector) + K),
              K + 1 < Runs[I].Count ? Runs[I].Sector + K + 1
              : I + 1 < Runs.size() ? Runs[I + 1].Sector
                                    : ENDOFCHAIN);
  }

  // Follows a FAT chain from Start for at most Need sectors (all of it
  // when Need is UINT32_MAX). Every sector must exist and be used once in
  // the whole file; a chain shorter than Need is damage.
  HRESULT FollowFat(const std::vector<uint32_t>& Fat, uint32_t Start, uint64_t Need, TChain& Out) {
    Out.clear();
    uint32_t S = Start;
    while (Out.size() < Need) {
      if (S == ENDOFCHAIN && Need == UINT32_MAX) break;
      if (S >= Fat.size() || FUsed[S]) {
        for (const TChain::TRun& R : Out.Runs())
          for (uint32_t K = 0; K < R.Count; ++K) FUsed.Reset(R.Sector + K);
        Out.clear();
        return STG_E_DOCFILECORRUPT;
      }
      FUsed.Set(S);
      Out.push_back(S);
      S = Fat[S];
    }
    return S_OK;
  }

  HRESULT FollowMini(const std::vector<uint32_t>& MiniFat, uint32_t Start, uint64_t Need,
                     TChain& Out) {
    Out.clear();
    uint32_t S = Start;
    while (Out.size() < Need) {
      if (S >= MiniFat.size() || FMiniUsed[S]) {
        for (const TChain::TRun& R : Out.Runs())
          for (uint32_t K = 0; K < R.Count; ++K) FMiniUsed.Reset(R.Sector + K);
        Out.clear();
        return STG_E_DOCFILECORRUPT;
      }
      FMiniUsed.Set(S);
      Out.push_back(S);
      S = MiniFat[S];
    }
    return S_OK;
  }

  // Brings the mini stream into memory before its first change.
  HRESULT EnsureMini() {
    if (FMiniLoaded) return S_OK;
    std::vector<uint8_t> B(FRootChain.size() * static_cast<size_t>(SectorSize));
    HRESULT Hr = ReadChain(FRootChain, B.data());
    if (Failed(Hr)) return Hr;
    B.resize(FMiniSize);
    FMini = std::move(B);
    FMiniLoaded = true;
    return S_OK;
  }

  static int TreeDepth(size_t N) {
    int D = 0;
    while (N) {
      ++D;
      N >>= 1;
    }
    return D;
  }

  // A balanced tree over Sorted[From, To): nodes on the last level are red
  // when that level is not full, all others black, which keeps the number
  // of black nodes equal on every path.
  static uint32_t BuildTree(const std::vector<uint32_t>& Sorted, size_t From, size_t To, int Level,
                            int Depth, std::vector<uint32_t>& L, std::vector<uint32_t>& R,
                            std::vector<uint8_t>& Red) {
    if (From >= To) return NOSTREAM;
    size_t Mid = From + (To - From) / 2;
    uint32_t N = Sorted[Mid];
    L[N] = BuildTree(Sorted, From, Mid, Level + 1, Depth, L, R, Red);
    R[N] = BuildTree(Sorted, Mid + 1, To, Level + 1, Depth, L, R, Red);
    size_t Count = Sorted.size();
    bool Full = ((Count + 1) & Count) == 0;
    Red[N] = !Full && Level == Depth - 1 ? 1 : 0;
    return N;
  }

  uint16_t FShift = 9;
  TCLSID FHeaderClsid;
  TBits FUsed;       // sectors in use now
  TBits FCommitted;  // sectors in use by the saved state
  size_t FHint = 0;
  std::vector<uint8_t> FMini;      // the mini stream's contents, once loaded
  bool FMiniLoaded = false;
  uint64_t FMiniSize = 0;          // its size in the file
  TBits FMiniUsed;                 // mini sectors in use
  size_t FMiniHint = 0;
  bool FMiniDirty = false;
  TChain FRootChain, FDirChain, FMiniFatChain, FFatSectors, FDifatSectors;
  bool FDirty = false;
  uint64_t FSerial = 0;
  size_t FEntryHint = 1;
};

using TDocPtr = std::shared_ptr<TCfbDoc>;

uint32_t Access(uint32_t Mode) {
  return Mode & 3;
}

// ---------------------------------------------------------------------------
// The COM surface

class TCfbStorage;

class TCfbStream : public TInterfacedObject, public IStream {
  VEL_CLASS(TCfbStream, TInterfacedObject)
  VEL_INTERFACES(ISequentialStream, IStream)
 public:
  TCfbStream(TDocPtr Doc, uint32_t Entry, uint32_t Mode, uint64_t Pos = 0)
      : FDoc(std::move(Doc)), FEntry(Entry), FMode(Mode), FPos(Pos) {
    TEntry& E = FDoc->Entries[Entry];
    FSerial = E.Serial;
    ++E.OpenCount;
  }
  ~TCfbStream() override {
    std::lock_guard<std::recursive_mutex> G(FDoc->Lock);
    if (FDoc->Alive(FEntry, FSerial)) --FDoc->Entries[FEntry].OpenCount;
  }

  HRESULT Read(void* pv, uint32_t cb, uint32_t* pcbRead) override {
    if (pcbRead) *pcbRead = 0;
    if (!pv && cb) return STG_E_INVALIDPOINTER;
    std::lock_guard<std::recursive_mutex> G(FDoc->Lock);
    if (!FDoc->Alive(FEntry, FSerial)) return STG_E_REVERTED;
    if (Access(FMode) == STGM_WRITE) return STG_E_ACCESSDENIED;
    uint32_t Done = 0;
    HRESULT Hr = FDoc->ReadStream(FDoc->Entries[FEntry], FPos, pv, cb, Done);
    FPos += Done;
    if (pcbRead) *pcbRead = Done;
    return Hr;
  }

  HRESULT Write(const void* pv, uint32_t cb, uint32_t* pcbWritten) override {
    if (pcbWritten) *pcbWritten = 0;
    if (!pv && cb) return STG_E_INVALIDPOINTER;
    std::lock_guard<std::recursive_mutex> G(FDoc->Lock);
    if (!FDoc->Alive(FEntry, FSerial)) return STG_E_REVERTED;
    if (Access(FMode) == STGM_READ || !FDoc->Writable) return STG_E_ACCESSDENIED;
    HRESULT Hr = FDoc->WriteStream(FDoc->Entries[FEntry], FPos, pv, cb);
    if (Failed(Hr)) return Hr;
    FPos += cb;
    if (pcbWritten) *pcbWritten = cb;
    return S_OK;
  }

  HRESULT Seek(int64_t dlibMove, uint32_t dwOrigin, uint64_t* plibNewPosition) override {
    std::lock_guard<std::recursive_mutex> G(FDoc->Lock);
    if (!FDoc->Alive(FEntry, FSerial)) return STG_E_REVERTED;
    int64_t Base;
    switch (dwOrigin) {
      case STREAM_SEEK_SET: Base = 0; break;
      case STREAM_SEEK_CUR: Base = static_cast<int64_t>(FPos); break;
      case STREAM_SEEK_END: Base = static_cast<int64_t>(FDoc->Entries[FEntry].Size); break;
      default: return STG_E_INVALIDFUNCTION;
    }
    if (dlibMove < 0 && Base + dlibMove < 0) return STG_E_INVALIDFUNCTION;
    FPos = static_cast<uint64_t>(Base + dlibMove);
    if (plibNewPosition) *plibNewPosition = FPos;
    return S_OK;
  }

  HRESULT SetSize(uint64_t libNewSize) override {
    std::lock_guard<std::recursive_mutex> G(FDoc->Lock);
    if (!FDoc->Alive(FEntry, FSerial)) return STG_E_REVERTED;
    if (Access(FMode) == STGM_READ || !FDoc->Writable) return STG_E_ACCESSDENIED;
    return FDoc->Resize(FDoc->Entries[FEntry], libNewSize, true);
  }

  HRESULT CopyTo(IStream* pstm, uint64_t cb, uint64_t* pcbRead, uint64_t* pcbWritten) override {
    if (pcbRead) *pcbRead = 0;
    if (pcbWritten) *pcbWritten = 0;
    if (!pstm) return STG_E_INVALIDPOINTER;
    std::vector<uint8_t> Buf(65536);
    uint64_t Read = 0, Written = 0;
    HRESULT Hr = S_OK;
    while (Read < cb) {
      uint32_t Want = static_cast<uint32_t>(std::min<uint64_t>(Buf.size(), cb - Read));
      uint32_t Got = 0, Put = 0;
      if (Failed(Hr = this->Read(Buf.data(), Want, &Got)) || Got == 0) break;
      Read += Got;
      Hr = pstm->Write(Buf.data(), Got, &Put);
      Written += Put;
      if (Failed(Hr) || Put < Got) break;
    }
    if (pcbRead) *pcbRead = Read;
    if (pcbWritten) *pcbWritten = Written;
    return Failed(Hr) ? Hr : S_OK;
  }

  HRESULT Commit(uint32_t) override {
    std::lock_guard<std::recursive_mutex> G(FDoc->Lock);
    return FDoc->Alive(FEntry, FSerial) ? S_OK : STG_E_REVERTED;
  }
  HRESULT Revert() override { return S_OK; }
  HRESULT LockRegion(uint64_t, uint64_t, uint32_t) override { return STG_E_INVALIDFUNCTION; }
  HRESULT UnlockRegion(uint64_t, uint64_t, uint32_t) override { return STG_E_INVALIDFUNCTION; }

  HRESULT Stat(STATSTG* pstatstg, uint32_t grfStatFlag) override {
    if (!pstatstg) return STG_E_INVALIDPOINTER;
    std::lock_guard<std::recursive_mutex> G(FDoc->Lock);
    if (!FDoc->Alive(FEntry, FSerial)) return STG_E_REVERTED;
    const TEntry& E = FDoc->Entries[FEntry];
    *pstatstg = STATSTG();
    if (!(grfStatFlag & STATFLAG_NONAME)) pstatstg->pwcsName = E.Name;
    pstatstg->type = STGTY_STREAM;
    pstatstg->cbSize = E.Size;
    pstatstg->mtime = E.MTime;
    pstatstg->ctime = E.CTime;
    pstatstg->atime = E.ATime;
    pstatstg->grfMode = FMode;
    pstatstg->clsid = E.Clsid;
    pstatstg->grfStateBits = E.StateBits;
    return S_OK;
  }

  HRESULT Clone(IStream** ppstm) override {
    if (!ppstm) return STG_E_INVALIDPOINTER;
    *ppstm = nullptr;
    std::lock_guard<std::recursive_mutex> G(FDoc->Lock);
    if (!FDoc->Alive(FEntry, FSerial)) return STG_E_REVERTED;
    IPtr<IStream> C(new TCfbStream(FDoc, FEntry, FMode, FPos));
    *ppstm = C.Detach();
    return S_OK;
  }

 private:
  TDocPtr FDoc;
  uint32_t FEntry;
  uint64_t FSerial;
  uint32_t FMode;
  uint64_t FPos;
};

class TCfbEnum : public TInterfacedObject, public IEnumSTATSTG {
  VEL_CLASS(TCfbEnum, TInterfacedObject)
  VEL_INTERFACES(IEnumSTATSTG)
 public:
  explicit TCfbEnum(std::shared_ptr<std::vector<STATSTG>> Items, size_t Pos = 0)
      : FItems(std::move(Items)), FPos(Pos) {}

  HRESULT Next(uint32_t celt, STATSTG* rgelt, uint32_t* pceltFetched) override {
    if (!rgelt) return STG_E_INVALIDPOINTER;
    uint32_t N = 0;
    while (N < celt && FPos < FItems->size()) rgelt[N++] = (*FItems)[FPos++];
    if (pceltFetched) *pceltFetched = N;
    return N == celt ? S_OK : S_FALSE;
  }
  HRESULT Skip(uint32_t celt) override {
    size_t Left = FItems->size() - FPos;
    FPos += std::min<size_t>(celt, Left);
    return celt <= Left ? S_OK : S_FALSE;
  }
  HRESULT Reset() override {
    FPos = 0;
    return S_OK;
  }
  HRESULT Clone(IEnumSTATSTG** ppenum) override {
    if (!ppenum) return STG_E_INVALIDPOINTER;
    IPtr<IEnumSTATSTG> C(new TCfbEnum(FItems, FPos));
    *ppenum = C.Detach();
    return S_OK;
  }

 private:
  std::shared_ptr<std::vector<STATSTG>> FItems;
  size_t FPos;
};

VEL_IMPLEMENT(TCfbStream)
VEL_IMPLEMENT(TCfbEnum)

bool Excluded(SNB Snb, const std::u16string& Name) {
  if (!Snb) return false;
  for (; *Snb; ++Snb)
    if (StgCompareNames(*Snb, Name) == 0) return true;
  return false;
}

class TCfbStorage : public TInterfacedObject, public IStorage {
  VEL_CLASS(TCfbStorage, TInterfacedObject)
  VEL_INTERFACES(IStorage)
 public:
  TCfbStorage(TDocPtr Doc, uint32_t Entry, uint32_t Mode, bool Root)
      : FDoc(std::move(Doc)), FEntry(Entry), FMode(Mode), FRoot(Root) {
    TEntry& E = FDoc->Entries[Entry];
    FSerial = E.Serial;
    if (!Root) ++E.OpenCount;
  }

  ~TCfbStorage() override {
    std::lock_guard<std::recursive_mutex> G(FDoc->Lock);
    if (FRoot) {
      // Releasing the root of a direct-mode file saves it; a transacted
      // root drops what was not committed. Either way the file closes and
      // objects still open on its elements report STG_E_REVERTED.
      if (!FDoc->Closed && FDoc->Writable && !(FMode & STGM_TRANSACTED) && FDoc->Dirty())
        FDoc->Save();
      FDoc->Close();
    } else if (FDoc->Alive(FEntry, FSerial)) {
      --FDoc->Entries[FEntry].OpenCount;
    }
  }

  TCfbDoc* Doc() const { return FDoc.get(); }
  uint32_t Entry() const { return FEntry; }

  HRESULT CreateStream(const char16_t* pwcsName, uint32_t grfMode, uint32_t, uint32_t,
                       IStream** ppstm) override {
    if (!ppstm) return STG_E_INVALIDPOINTER;
    *ppstm = nullptr;
    std::u16string Name;
    HRESULT Hr = CheckName(pwcsName, Name);
    if (Failed(Hr)) return Hr;
    std::lock_guard<std::recursive_mutex> G(FDoc->Lock);
    if (Failed(Hr = CheckWrite(grfMode, true))) return Hr;
    uint32_t I = FDoc->Find(FEntry, Name);
    if (I != NOSTREAM) {
      if (!(grfMode & STGM_CREATE)) return STG_E_FILEALREADYEXISTS;
      if (FDoc->Entries[I].OpenCount > 0) return STG_E_ACCESSDENIED;
      TEntry& E = FDoc->Entries[I];
      if (E.Type == ObjStream) {
        FDoc->ReleaseChain(E);
        E.Size = 0;
        E.Damaged = false;
        FDoc->MarkDirty();
      } else {
        FDoc->Unlink(I);
        FDoc->DestroyTree(I);
        I = NOSTREAM;
      }
    }
    if (I == NOSTREAM) I = FDoc->NewEntry(FEntry, Name, ObjStream);
    IPtr<IStream> S(new TCfbStream(FDoc, I, grfMode & ~STGM_CREATE));
    *ppstm = S.Detach();
    return S_OK;
  }

  HRESULT OpenStream(const char16_t* pwcsName, void*, uint32_t grfMode, uint32_t,
                     IStream** ppstm) override {
    if (!ppstm) return STG_E_INVALIDPOINTER;
    *ppstm = nullptr;
    std::u16string Name;
    HRESULT Hr = CheckName(pwcsName, Name);
    if (Failed(Hr)) return Hr == STG_E_INVALIDNAME ? STG_E_FILENOTFOUND : Hr;
    std::lock_guard<std::recursive_mutex> G(FDoc->Lock);
    if (Failed(Hr = CheckOpen(grfMode))) return Hr;
    uint32_t I = FDoc->Find(FEntry, Name);
    if (I == NOSTREAM || FDoc->Entries[I].Type != ObjStream) return STG_E_FILENOTFOUND;
    if (FDoc->Entries[I].OpenCount > 0) return STG_E_ACCESSDENIED;
    if (FDoc->Entries[I].Damaged) return STG_E_DOCFILECORRUPT;
    IPtr<IStream> S(new TCfbStream(FDoc, I, grfMode));
    *ppstm = S.Detach();
    return S_OK;
  }

  HRESULT CreateStorage(const char16_t* pwcsName, uint32_t grfMode, uint32_t, uint32_t,
                        IStorage** ppstg) override {
    if (!ppstg) return STG_E_INVALIDPOINTER;
    *ppstg = nullptr;
    std::u16string Name;
    HRESULT Hr = CheckName(pwcsName, Name);
    if (Failed(Hr)) return Hr;
    std::lock_guard<std::recursive_mutex> G(FDoc->Lock);
    if (Failed(Hr = CheckWrite(grfMode, true))) return Hr;
    uint32_t I = FDoc->Find(FEntry, Name);
    if (I != NOSTREAM) {
      if (!(grfMode & STGM_CREATE)) return STG_E_FILEALREADYEXISTS;
      if (FDoc->Entries[I].OpenCount > 0) return STG_E_ACCESSDENIED;
      FDoc->Unlink(I);
      FDoc->DestroyTree(I);
    }
    if (Depth() + 1 >= MaxDepth) return STG_E_DOCFILETOOLARGE;
    I = FDoc->NewEntry(FEntry, Name, ObjStorage);
    IPtr<IStorage> S(new TCfbStorage(FDoc, I, grfMode & ~STGM_CREATE, false));
    *ppstg = S.Detach();
    return S_OK;
  }

  HRESULT OpenStorage(const char16_t* pwcsName, IStorage* pstgPriority, uint32_t grfMode,
                      SNB snbExclude, uint32_t, IStorage** ppstg) override {
    if (!ppstg) return STG_E_INVALIDPOINTER;
    *ppstg = nullptr;
    if (pstgPriority || snbExclude) return STG_E_INVALIDPARAMETER;
    std::u16string Name;
    HRESULT Hr = CheckName(pwcsName, Name);
    if (Failed(Hr)) return Hr == STG_E_INVALIDNAME ? STG_E_FILENOTFOUND : Hr;
    std::lock_guard<std::recursive_mutex> G(FDoc->Lock);
    if (Failed(Hr = CheckOpen(grfMode))) return Hr;
    uint32_t I = FDoc->Find(FEntry, Name);
    if (I == NOSTREAM || FDoc->Entries[I].Type != ObjStorage) return STG_E_FILENOTFOUND;
    if (FDoc->Entries[I].OpenCount > 0) return STG_E_ACCESSDENIED;
    IPtr<IStorage> S(new TCfbStorage(FDoc, I, grfMode, false));
    *ppstg = S.Detach();
    return S_OK;
  }

  HRESULT CopyTo(uint32_t, const TIID*, SNB snbExclude, IStorage* pstgDest) override {
    if (!pstgDest) return STG_E_INVALIDPOINTER;
    std::lock_guard<std::recursive_mutex> G(FDoc->Lock);
    if (!Alive()) return STG_E_REVERTED;
    if (auto* D = dynamic_cast<TCfbStorage*>(pstgDest);
        D && D->FDoc == FDoc && FDoc->IsInside(D->FEntry, FEntry))
      return STG_E_ACCESSDENIED;
    return CopyInto(FEntry, pstgDest, snbExclude);
  }

  HRESULT MoveElementTo(const char16_t* pwcsName, IStorage* pstgDest, const char16_t* pwcsNewName,
                        uint32_t grfFlags) override {
    if (!pstgDest) return STG_E_INVALIDPOINTER;
    std::u16string Name, NewName;
    HRESULT Hr = CheckName(pwcsName, Name);
    if (Failed(Hr)) return Hr;
    if (Failed(Hr = CheckName(pwcsNewName, NewName))) return Hr;
    if (grfFlags > STGMOVE_COPY) return STG_E_INVALIDFLAG;
    std::lock_guard<std::recursive_mutex> G(FDoc->Lock);
    if (!Alive()) return STG_E_REVERTED;
    uint32_t I = FDoc->Find(FEntry, Name);
    if (I == NOSTREAM) return STG_E_FILENOTFOUND;
    if (grfFlags == STGMOVE_MOVE && Access(FMode) == STGM_READ) return STG_E_ACCESSDENIED;
    if (FDoc->Entries[I].OpenCount > 0) return STG_E_ACCESSDENIED;
    auto* D = dynamic_cast<TCfbStorage*>(pstgDest);
    if (D && D->FDoc == FDoc && FDoc->IsInside(D->FEntry, I)) return STG_E_ACCESSDENIED;
    if (D && D->FDoc == FDoc && D->FEntry == FEntry && grfFlags == STGMOVE_MOVE)
      return RenameElement(pwcsName, pwcsNewName);
    Hr = CopyElement(I, pstgDest, NewName, false);
    if (Failed(Hr)) return Hr;
    if (grfFlags == STGMOVE_MOVE) {
      I = FDoc->Find(FEntry, Name);
      if (I != NOSTREAM) {
        FDoc->Unlink(I);
        FDoc->DestroyTree(I);
      }
    }
    return S_OK;
  }

  HRESULT Commit(uint32_t grfCommitFlags) override {
    std::lock_guard<std::recursive_mutex> G(FDoc->Lock);
    if (!Alive()) return STG_E_REVERTED;
    if (!FDoc->Writable || !FDoc->Dirty()) return S_OK;
    return FDoc->Save(!(grfCommitFlags & STGC_DANGEROUSLYCOMMITMERELYTODISKCACHE));
  }

  HRESULT Revert() override {
    std::lock_guard<std::recursive_mutex> G(FDoc->Lock);
    if (!Alive()) return STG_E_REVERTED;
    if (!(FDoc->Mode & STGM_TRANSACTED) || !FDoc->Dirty()) return S_OK;
    // Back to the saved state: every element object but the root's is
    // reverted.
    HRESULT Hr = FDoc->Load();
    if (Failed(Hr)) return Hr;
    if (FRoot) FSerial = FDoc->Entries[0].Serial;
    return S_OK;
  }

  HRESULT EnumElements(uint32_t, void*, uint32_t, IEnumSTATSTG** ppenum) override {
    if (!ppenum) return STG_E_INVALIDPOINTER;
    *ppenum = nullptr;
    std::lock_guard<std::recursive_mutex> G(FDoc->Lock);
    if (!Alive()) return STG_E_REVERTED;
    auto Items = std::make_shared<std::vector<STATSTG>>();
    const TEntry& E = FDoc->Entries[FEntry];
    Items->reserve(E.Children.size());
    for (auto& [K, I] : E.Children) {
      Items->emplace_back();
      Fill(FDoc->Entries[I], Items->back(), STATFLAG_DEFAULT, 0);
    }
    IPtr<IEnumSTATSTG> R(new TCfbEnum(std::move(Items)));
    *ppenum = R.Detach();
    return S_OK;
  }

  HRESULT DestroyElement(const char16_t* pwcsName) override {
    std::u16string Name;
    HRESULT Hr = CheckName(pwcsName, Name);
    if (Failed(Hr)) return Hr == STG_E_INVALIDNAME ? STG_E_FILENOTFOUND : Hr;
    std::lock_guard<std::recursive_mutex> G(FDoc->Lock);
    if (Failed(Hr = CheckWrite(0, false))) return Hr;
    uint32_t I = FDoc->Find(FEntry, Name);
    if (I == NOSTREAM) return STG_E_FILENOTFOUND;
    FDoc->Unlink(I);
    FDoc->DestroyTree(I);
    return S_OK;
  }

  HRESULT RenameElement(const char16_t* pwcsOldName, const char16_t* pwcsNewName) override {
    std::u16string Old, New;
    HRESULT Hr = CheckName(pwcsOldName, Old);
    if (Failed(Hr)) return Hr == STG_E_INVALIDNAME ? STG_E_FILENOTFOUND : Hr;
    if (Failed(Hr = CheckName(pwcsNewName, New))) return Hr;
    std::lock_guard<std::recursive_mutex> G(FDoc->Lock);
    if (Failed(Hr = CheckWrite(0, false))) return Hr;
    uint32_t I = FDoc->Find(FEntry, Old);
    if (I == NOSTREAM) return STG_E_FILENOTFOUND;
    uint32_t J = FDoc->Find(FEntry, New);
    if (J != NOSTREAM && J != I) return STG_E_ACCESSDENIED;
    if (FDoc->Entries[I].OpenCount > 0) return STG_E_ACCESSDENIED;
    FDoc->Unlink(I);
    TEntry& E = FDoc->Entries[I];
    E.Name = New;
    FDoc->Entries[FEntry].Children.emplace(UpperName(New), I);
    return S_OK;
  }

  HRESULT SetElementTimes(const char16_t* pwcsName, const FILETIME* pctime,
                          const FILETIME* patime, const FILETIME* pmtime) override {
    std::lock_guard<std::recursive_mutex> G(FDoc->Lock);
    HRESULT Hr = CheckWrite(0, false);
    if (Failed(Hr)) return Hr;
    uint32_t I = FEntry;
    if (pwcsName) {
      std::u16string Name;
      if (Failed(Hr = CheckName(pwcsName, Name))) return Hr == STG_E_INVALIDNAME ? STG_E_FILENOTFOUND : Hr;
      I = FDoc->Find(FEntry, Name);
      if (I == NOSTREAM) return STG_E_FILENOTFOUND;
    }
    TEntry& E = FDoc->Entries[I];
    if (pctime) E.CTime = *pctime;
    if (patime) E.ATime = *patime;
    if (pmtime) E.MTime = *pmtime;
    FDoc->MarkDirty();
    return S_OK;
  }

  HRESULT SetClass(const TCLSID& clsid) override {
    std::lock_guard<std::recursive_mutex> G(FDoc->Lock);
    HRESULT Hr = CheckWrite(0, false);
    if (Failed(Hr)) return Hr;
    FDoc->Entries[FEntry].Clsid = clsid;
    FDoc->MarkDirty();
    return S_OK;
  }

  HRESULT SetStateBits(uint32_t grfStateBits, uint32_t grfMask) override {
    std::lock_guard<std::recursive_mutex> G(FDoc->Lock);
    HRESULT Hr = CheckWrite(0, false);
    if (Failed(Hr)) return Hr;
    TEntry& E = FDoc->Entries[FEntry];
    E.StateBits = (E.StateBits & ~grfMask) | (grfStateBits & grfMask);
    FDoc->MarkDirty();
    return S_OK;
  }

  HRESULT Stat(STATSTG* pstatstg, uint32_t grfStatFlag) override {
    if (!pstatstg) return STG_E_INVALIDPOINTER;
    std::lock_guard<std::recursive_mutex> G(FDoc->Lock);
    if (!Alive()) return STG_E_REVERTED;
    Fill(FDoc->Entries[FEntry], *pstatstg, grfStatFlag, FMode);
    if (FRoot && !(grfStatFlag & STATFLAG_NONAME)) pstatstg->pwcsName = Utf8ToWide(FDoc->Path);
    return S_OK;
  }

 private:
  bool Alive() const { return FRoot ? !FDoc->Closed : FDoc->Alive(FEntry, FSerial); }

  int Depth() const {
    int D = 0;
    for (uint32_t I = FEntry; I != 0 && I != NOSTREAM && D <= MaxDepth; I = FDoc->Entries[I].Parent) ++D;
    return D;
  }

  // Sub-elements are opened share-exclusive, with an access the file allows.
  HRESULT CheckOpen(uint32_t grfMode) const {
    if (!Alive()) return STG_E_REVERTED;
    if (Access(grfMode) == 3) return STG_E_INVALIDFLAG;
    if ((grfMode & 0x70) != STGM_SHARE_EXCLUSIVE) return STG_E_INVALIDFLAG;
    if (Access(grfMode) != STGM_READ && (!FDoc->Writable || Access(FMode) == STGM_READ))
      return STG_E_ACCESSDENIED;
    return S_OK;
  }
  HRESULT CheckWrite(uint32_t grfMode, bool IsOpen) const {
    if (!Alive()) return STG_E_REVERTED;
    if (IsOpen) {
      if (Access(grfMode) == 3) return STG_E_INVALIDFLAG;
      if ((grfMode & 0x70) != STGM_SHARE_EXCLUSIVE) return STG_E_INVALIDFLAG;
    }
    if (!FDoc->Writable || Access(FMode) == STGM_READ) return STG_E_ACCESSDENIED;
    return S_OK;
  }

  static void Fill(const TEntry& E, STATSTG& S, uint32_t Flag, uint32_t Mode) {
    S = STATSTG();
    if (!(Flag & STATFLAG_NONAME)) S.pwcsName = E.Name;
    S.type = E.Type == ObjStream ? STGTY_STREAM : STGTY_STORAGE;
    S.cbSize = E.Type == ObjStream ? E.Size : 0;
    S.mtime = E.MTime;
    S.ctime = E.CTime;
    S.atime = E.ATime;
    S.grfMode = Mode;
    S.clsid = E.Clsid;
    S.grfStateBits = E.StateBits;
  }

  // Copies the children of storage entry Src (this document) into Dest.
  HRESULT CopyInto(uint32_t Src, IStorage* Dest, SNB Exclude) {
    std::vector<uint32_t> Kids;
    for (auto& [K, I] : FDoc->Entries[Src].Children)
      if (!Excluded(Exclude, FDoc->Entries[I].Name)) Kids.push_back(I);
    for (uint32_t I : Kids) {
      HRESULT Hr = CopyElement(I, Dest, FDoc->Entries[I].Name, true);
      if (Failed(Hr)) return Hr;
    }
    const TEntry& S = FDoc->Entries[Src];
    HRESULT Hr = Dest->SetClass(S.Clsid);
    if (Succeeded(Hr)) Hr = Dest->SetStateBits(S.StateBits, 0xFFFFFFFF);
    return Hr;
  }

  // Copies element I as Name into Dest. With Merge an existing storage of
  // that name receives the copy's elements; a stream is replaced.
  HRESULT CopyElement(uint32_t I, IStorage* Dest, const std::u16string& Name, bool Merge) {
    const uint32_t M = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;
    HRESULT Hr;
    if (FDoc->Entries[I].Type == ObjStorage) {
      IPtr<IStorage> Sub;
      Hr = Merge ? Dest->OpenStorage(Name.c_str(), nullptr, M, nullptr, 0,
                                     reinterpret_cast<IStorage**>(Sub.Out()))
                 : STG_E_FILENOTFOUND;
      if (Failed(Hr)) {
        Hr = Dest->CreateStorage(Name.c_str(), M | (Merge ? uint32_t(STGM_CREATE) : 0u), 0, 0,
                                 reinterpret_cast<IStorage**>(Sub.Out()));
        if (Failed(Hr)) return Hr;
      }
      if (Failed(Hr = CopyInto(I, Sub, nullptr))) return Hr;
      const TEntry& E = FDoc->Entries[I];
      return Dest->SetElementTimes(Name.c_str(), &E.CTime, &E.ATime, &E.MTime);
    }
    if (FDoc->Entries[I].Damaged) return STG_E_DOCFILECORRUPT;
    IPtr<IStream> Out;
    Hr = Dest->CreateStream(Name.c_str(), M | (Merge ? uint32_t(STGM_CREATE) : 0u), 0, 0,
                            reinterpret_cast<IStream**>(Out.Out()));
    if (Failed(Hr)) return Hr;
    std::vector<uint8_t> Buf(65536);
    uint64_t Pos = 0;
    while (Pos < FDoc->Entries[I].Size) {
      uint32_t Got = 0;
      Hr = FDoc->ReadStream(FDoc->Entries[I], Pos, Buf.data(), static_cast<uint32_t>(Buf.size()), Got);
      if (Failed(Hr)) return Hr;
      if (Got == 0) break;
      uint32_t Put = 0;
      if (Failed(Hr = Out->Write(Buf.data(), Got, &Put))) return Hr;
      Pos += Got;
    }
    const TEntry& E = FDoc->Entries[I];
    if (E.StateBits || !(E.Clsid == GUID_NULL) || E.CTime.dwHighDateTime || E.MTime.dwHighDateTime) {
      // Streams carry no class or bits through IStream; set them directly
      // when the destination is one of ours.
      if (auto* D = dynamic_cast<TCfbStorage*>(Dest)) {
        uint32_t J = D->FDoc->Find(D->FEntry, Name);
        if (J != NOSTREAM) {
          TEntry& T = D->FDoc->Entries[J];
          T.Clsid = E.Clsid;
          T.StateBits = E.StateBits;
          T.CTime = E.CTime;
          T.MTime = E.MTime;
        }
      }
    }
    return S_OK;
  }

  TDocPtr FDoc;
  uint32_t FEntry;
  uint64_t FSerial = 0;
  uint32_t FMode;
  bool FRoot;
};

VEL_IMPLEMENT(TCfbStorage)

std::string FileName(const char16_t* Name) {
  return WideToUtf8(std::u16string_view(Name));
}

// The lock a root open takes: shared for reading when others may read and
// write too, exclusive otherwise.
bool WantsExclusive(uint32_t Mode) {
  uint32_t Share = Mode & 0x70;
  if (Access(Mode) != STGM_READ) return true;
  return Share == STGM_SHARE_EXCLUSIVE || Share == STGM_SHARE_DENY_READ;
}

HRESULT CreateDoc(const char16_t* pwcsName, uint32_t grfMode, uint32_t Sector, IStorage** ppstg) {
  if (!ppstg) return STG_E_INVALIDPOINTER;
  *ppstg = nullptr;
  if (Access(grfMode) == 3 || Access(grfMode) == STGM_READ) return STG_E_INVALIDFLAG;
  if (grfMode & STGM_CONVERT) return STG_E_INVALIDFLAG;
  auto Doc = std::make_shared<TCfbDoc>();
  Doc->Mode = grfMode;
  Doc->Writable = true;
  HRESULT Hr;
  if (!pwcsName) {
    const char* Tmp = getenv("TMPDIR");
    std::string Pattern = std::string(Tmp && *Tmp ? Tmp : "/tmp") + "/~stgXXXXXX";
    int Fd = mkstemp(Pattern.data());
    if (Fd < 0) return STG_E_ACCESSDENIED;
    ::close(Fd);
    Doc->Path = Pattern;
    Doc->DeleteOnRelease = true;
    if (Failed(Hr = Doc->File.Open(Doc->Path, O_RDWR))) return Hr;
  } else {
    Doc->Path = FileName(pwcsName);
    Doc->DeleteOnRelease = (grfMode & STGM_DELETEONRELEASE) != 0;
    int Flags = O_RDWR | O_CREAT | ((grfMode & STGM_CREATE) ? 0 : O_EXCL);
    if (Failed(Hr = Doc->File.Open(Doc->Path, Flags))) return Hr;
  }
  if (Failed(Hr = Doc->File.Lock(true))) return Hr;
  // A new file is not truncated: on some file systems a truncated file is
  // flushed to disk when it is closed.
  if (Doc->File.Size() != 0 && Failed(Hr = Doc->File.Truncate())) return Hr;
  Doc->InitEmpty(Sector);
  // The empty state is written for a reader that comes before the first
  // commit; the first commit makes it durable.
  if (Failed(Hr = Doc->Save(false))) return Hr;
  IPtr<IStorage> R(new TCfbStorage(Doc, 0, grfMode & ~STGM_CREATE, true));
  *ppstg = R.Detach();
  return S_OK;
}

}  // namespace

// ---------------------------------------------------------------------------
// Functions

namespace {
struct TStgText {
  HRESULT Code;
  const char* Text;
};
const TStgText StgTexts[] = {
    {STG_E_INVALIDFUNCTION, "Unable to perform requested operation"},
    {STG_E_ACCESSDENIED, "Access Denied"},
    {STG_E_INVALIDPOINTER, "Invalid pointer error"},
    {STG_E_MEDIUMFULL, "There is insufficient disk space to complete operation"},
    {STG_E_FILENOTFOUND, "%1 could not be found"},
    {STG_E_PATHNOTFOUND, "The path %1 could not be found"},
    {STG_E_TOOMANYOPENFILES, "There are insufficient resources to open another file"},
    {STG_E_INVALIDHANDLE, "Attempted an operation on an invalid object"},
    {STG_E_INSUFFICIENTMEMORY, "There is insufficient memory available to complete operation"},
    {STG_E_NOMOREFILES, "There are no more entries to return"},
    {STG_E_DISKISWRITEPROTECTED, "Disk is write-protected"},
    {STG_E_SEEKERROR, "An error occurred during a seek operation"},
    {STG_E_WRITEFAULT, "A disk error occurred during a write operation"},
    {STG_E_READFAULT, "A disk error occurred during a read operation"},
    {STG_E_SHAREVIOLATION, "A share violation has occurred"},
    {STG_E_LOCKVIOLATION, "A lock violation has occurred"},
    {STG_E_FILEALREADYEXISTS, "%1 already exists"},
    {STG_E_INVALIDPARAMETER, "Invalid parameter error"},
    {STG_E_INVALIDHEADER, "The file %1 is not a valid compound file"},
    {STG_E_INVALIDNAME, "The name %1 is not valid"},
    {STG_E_UNKNOWN, "An unexpected error occurred"},
    {STG_E_UNIMPLEMENTEDFUNCTION, "That function is not implemented"},
    {STG_E_INVALIDFLAG, "Invalid flag error"},
    {STG_E_INUSE, "Attempted to use an object that is busy"},
    {STG_E_NOTCURRENT, "The storage has been changed since the last commit"},
    {STG_E_REVERTED, "Attempted to use an object that has ceased to exist"},
    {STG_E_CANTSAVE, "Can't save"},
    {STG_E_OLDFORMAT, "The compound file %1 was produced with an incompatible version of storage"},
    {STG_E_OLDDLL, "The compound file %1 was produced with a newer version of storage"},
    {STG_E_DOCFILECORRUPT, "The docfile has been corrupted"},
    {STG_E_DOCFILETOOLARGE, "The compound file is too large for the current implementation"},
};
}  // namespace

std::string StgResultMessage(HRESULT Code) {
  for (const TStgText& T : StgTexts)
    if (T.Code == Code) return T.Text;
  return std::string();
}

std::u16string StgUtf8ToName(std::string_view Utf8) {
  return Utf8ToWide(Utf8);
}

std::string StgNameToUtf8(std::u16string_view Name) {
  return WideToUtf8(Name);
}

int StgCompareNames(std::u16string_view A, std::u16string_view B) {
  if (A.size() != B.size()) return A.size() < B.size() ? -1 : 1;
  for (size_t I = 0; I < A.size(); ++I) {
    char16_t X = UpperChar(A[I]), Y = UpperChar(B[I]);
    if (X != Y) return X < Y ? -1 : 1;
  }
  return 0;
}

FILETIME StgCurrentFileTime() {
  return NowFileTime();
}

HRESULT StgCreateDocfile(const char16_t* pwcsName, uint32_t grfMode, uint32_t, IStorage** ppstgOpen) {
  return CreateDoc(pwcsName, grfMode, 512, ppstgOpen);
}

HRESULT StgCreateStorageEx(const char16_t* pwcsName, uint32_t grfMode, uint32_t stgfmt, uint32_t,
                           STGOPTIONS* pStgOptions, void*, const TIID& riid, void** ppObjectOpen) {
  if (!ppObjectOpen) return STG_E_INVALIDPOINTER;
  *ppObjectOpen = nullptr;
  if (stgfmt != STGFMT_STORAGE && stgfmt != STGFMT_DOCFILE) return STG_E_INVALIDPARAMETER;
  if (!(riid == IIDOf<IStorage>)) return E_NOINTERFACE;
  uint32_t Sector = pStgOptions ? pStgOptions->ulSectorSize : 512;
  if (Sector != 512 && Sector != 4096) return STG_E_INVALIDPARAMETER;
  return CreateDoc(pwcsName, grfMode, Sector, reinterpret_cast<IStorage**>(ppObjectOpen));
}

HRESULT StgOpenStorage(const char16_t* pwcsName, IStorage* pstgPriority, uint32_t grfMode,
                       SNB snbExclude, uint32_t, IStorage** ppstgOpen) {
  if (!ppstgOpen) return STG_E_INVALIDPOINTER;
  *ppstgOpen = nullptr;
  if (!pwcsName) return STG_E_INVALIDNAME;
  if (pstgPriority || snbExclude) return STG_E_INVALIDPARAMETER;
  if (Access(grfMode) == 3) return STG_E_INVALIDFLAG;
  if (grfMode & (STGM_CREATE | STGM_CONVERT)) return STG_E_INVALIDFLAG;
  auto Doc = std::make_shared<TCfbDoc>();
  Doc->Path = FileName(pwcsName);
  Doc->Mode = grfMode;
  Doc->Writable = Access(grfMode) != STGM_READ;
  Doc->DeleteOnRelease = (grfMode & STGM_DELETEONRELEASE) != 0;
  HRESULT Hr = Doc->File.Open(Doc->Path, Doc->Writable ? O_RDWR : O_RDONLY);
  if (Failed(Hr)) return Hr;
  if (Failed(Hr = Doc->File.Lock(WantsExclusive(grfMode)))) return Hr;
  try {
    if (Failed(Hr = Doc->Load())) return Hr;
  } catch (const std::bad_alloc&) {
    return STG_E_INSUFFICIENTMEMORY;
  }
  IPtr<IStorage> R(new TCfbStorage(Doc, 0, grfMode, true));
  *ppstgOpen = R.Detach();
  return S_OK;
}

HRESULT StgIsStorageFile(const char16_t* pwcsName) {
  if (!pwcsName) return STG_E_INVALIDNAME;
  int Fd = ::open(FileName(pwcsName).c_str(), O_RDONLY | O_CLOEXEC);
  if (Fd < 0) return STG_E_FILENOTFOUND;
  uint8_t Buf[8];
  ssize_t N = ::pread(Fd, Buf, 8, 0);
  ::close(Fd);
  return N == 8 && std::memcmp(Buf, Signature, 8) == 0 ? S_OK : S_FALSE;
}

}  // namespace vel
