// The compound-file engine as a peer of the compound-file benchmark harness
// (write, read and expect by the harness's protocol: workloads W1 many
// small, W2 few large, W3 tiny; content from the shared mulberry32 pool;
// checksums CRC-32 over the stream bytes and over the element paths in a
// depth-first walk with children sorted by name). One RESULT line on stdout.
//
//   bench_cfb_peer write|read|expect FILE [--workload W1|W2|W3]
//       [--storages N] [--streams N] [--size BYTES] [--chunk BYTES]
//       [--peer NAME] [--sector 512|4096] [--durable 0|1]
//
// --sector chooses the sector size of written files (default 512, as
// StgCreateDocfile); --durable 1 makes the final commit wait for the disk
// (the default commits to the page cache, as the other peers do; either way
// the header is written after everything it points to).
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "vel/rtl/StructuredStorage.h"

using namespace vel;

namespace {

constexpr uint32_t PoolSize = 1048573;

template <class I>
I** Out(IPtr<I>& P) {
  return reinterpret_cast<I**>(P.Out());
}

double Now() {
  timespec T{};
  clock_gettime(CLOCK_MONOTONIC, &T);
  return static_cast<double>(T.tv_sec) + static_cast<double>(T.tv_nsec) * 1e-9;
}

uint32_t CrcTable[8][256];

void InitCrc() {
  for (uint32_t I = 0; I < 256; ++I) {
    uint32_t C = I;
    for (int K = 0; K < 8; ++K) C = C & 1 ? 0xEDB88320u ^ (C >> 1) : C >> 1;
    CrcTable[0][I] = C;
  }
  for (uint32_t I = 0; I < 256; ++I)
    for (int T = 1; T < 8; ++T) CrcTable[T][I] = (CrcTable[T - 1][I] >> 8) ^ CrcTable[0][CrcTable[T - 1][I] & 0xFF];
}

// CRC-32 as zlib's crc32(), eight bytes at a time.
uint32_t Crc32(uint32_t Crc, const uint8_t* P, size_t N) {
  uint32_t C = ~Crc;
  while (N >= 8) {
    uint32_t A = C ^ (uint32_t(P[0]) | uint32_t(P[1]) << 8 | uint32_t(P[2]) << 16 | uint32_t(P[3]) << 24);
    uint32_t B = uint32_t(P[4]) | uint32_t(P[5]) << 8 | uint32_t(P[6]) << 16 | uint32_t(P[7]) << 24;
    C = CrcTable[7][A & 0xFF] ^ CrcTable[6][(A >> 8) & 0xFF] ^ CrcTable[5][(A >> 16) & 0xFF] ^
        CrcTable[4][A >> 24] ^ CrcTable[3][B & 0xFF] ^ CrcTable[2][(B >> 8) & 0xFF] ^
        CrcTable[1][(B >> 16) & 0xFF] ^ CrcTable[0][B >> 24];
    P += 8;
    N -= 8;
  }
  while (N--) C = CrcTable[0][(C ^ *P++) & 0xFF] ^ (C >> 8);
  return ~C;
}

// The pool, extended by one chunk so that every piece is contiguous.
std::vector<uint8_t> MakePool(uint32_t Chunk) {
  std::vector<uint8_t> P(PoolSize + Chunk);
  uint32_t S = 0x43464231;
  for (uint32_t I = 0; I < (PoolSize + 3) / 4; ++I) {
    S += 0x6D2B79F5u;
    uint32_t T = S;
    T = (T ^ T >> 15) * (T | 1);
    T ^= T + (T ^ T >> 7) * (T | 61);
    uint32_t V = T ^ T >> 14;
    for (int B = 0; B < 4; ++B)
      if (4 * I + B < PoolSize) P[4 * I + B] = static_cast<uint8_t>(V >> (8 * B));
  }
  for (uint32_t I = 0; I < Chunk; ++I) P[PoolSize + I] = P[I % PoolSize];
  return P;
}

struct TWork {
  std::string Name = "W1";
  uint32_t Storages = 100, Streams = 100;
  uint64_t Size = 4096;
  uint32_t Chunk = 65536;
  uint64_t StreamCount() const { return uint64_t(Storages ? Storages : 1) * Streams; }
};

std::string Pad(char C, uint32_t V, uint32_t Count) {
  uint32_t Width = std::max<uint32_t>(4, static_cast<uint32_t>(std::to_string(Count ? Count - 1 : 0).size()));
  std::string D = std::to_string(V);
  return std::string(1, C) + std::string(Width > D.size() ? Width - D.size() : 0, '0') + D;
}

uint64_t Offset(uint64_t K) {
  return (K * 2654435761ull) % PoolSize;
}

void Expected(const TWork& W, const std::vector<uint8_t>& Pool, uint32_t& Crc, uint32_t& NCrc) {
  Crc = NCrc = 0;
  uint64_t K = 0;
  for (uint32_t S = 0; S < (W.Storages ? W.Storages : 1); ++S) {
    std::string Prefix;
    if (W.Storages) {
      Prefix = Pad('S', S, W.Storages) + "/";
      std::string L = Prefix + "\n";
      NCrc = Crc32(NCrc, reinterpret_cast<const uint8_t*>(L.data()), L.size());
    }
    for (uint32_t T = 0; T < W.Streams; ++T, ++K) {
      std::string L = Prefix + Pad('T', T, W.Streams) + "\n";
      NCrc = Crc32(NCrc, reinterpret_cast<const uint8_t*>(L.data()), L.size());
      for (uint64_t Pos = 0; Pos < W.Size; Pos += W.Chunk) {
        uint64_t N = std::min<uint64_t>(W.Chunk, W.Size - Pos);
        Crc = Crc32(Crc, Pool.data() + (Offset(K) + Pos) % PoolSize, N);
      }
    }
  }
}

[[noreturn]] void Die(const char* What, HRESULT Hr) {
  std::fprintf(stderr, "%s failed: %08X %s\n", What, static_cast<unsigned>(Hr), StgResultMessage(Hr).c_str());
  std::exit(1);
}

struct TReader {
  uint32_t Chunk;
  std::vector<uint8_t> Buf;
  uint32_t Crc = 0, NCrc = 0;
  uint64_t Storages = 0, Streams = 0, Bytes = 0, Skipped = 0;
  double Hash = 0;

  void HashInto(uint32_t& C, const uint8_t* P, size_t N) {
    double T0 = Now();
    C = Crc32(C, P, N);
    Hash += Now() - T0;
  }

  void Walk(IStorage* Stg, const std::string& Prefix) {
    IPtr<IEnumSTATSTG> E;
    HRESULT Hr = Stg->EnumElements(0, nullptr, 0, Out(E));
    if (Failed(Hr)) Die("EnumElements", Hr);
    std::vector<STATSTG> Kids;
    STATSTG St;
    uint32_t N = 0;
    while (E->Next(1, &St, &N) == S_OK) Kids.push_back(std::move(St));
    std::sort(Kids.begin(), Kids.end(), [](const STATSTG& A, const STATSTG& B) { return A.pwcsName < B.pwcsName; });
    for (const STATSTG& K : Kids) {
      if (!K.pwcsName.empty() && K.pwcsName[0] < 0x20) {
        ++Skipped;
        continue;
      }
      std::string Path = Prefix + StgNameToUtf8(K.pwcsName);
      if (K.type == STGTY_STORAGE) {
        ++Storages;
        std::string L = Path + "/\n";
        HashInto(NCrc, reinterpret_cast<const uint8_t*>(L.data()), L.size());
        IPtr<IStorage> Sub;
        Hr = Stg->OpenStorage(K.pwcsName.c_str(), nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, nullptr, 0, Out(Sub));
        if (Failed(Hr)) Die("OpenStorage", Hr);
        Walk(Sub, Path + "/");
        continue;
      }
      ++Streams;
      std::string L = Path + "\n";
      HashInto(NCrc, reinterpret_cast<const uint8_t*>(L.data()), L.size());
      IPtr<IStream> S;
      Hr = Stg->OpenStream(K.pwcsName.c_str(), nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, 0, Out(S));
      if (Failed(Hr)) Die("OpenStream", Hr);
      for (;;) {
        uint32_t Got = 0;
        Hr = S->Read(Buf.data(), Chunk, &Got);
        if (Failed(Hr)) Die("Read", Hr);
        if (Got == 0) break;
        Bytes += Got;
        HashInto(Crc, Buf.data(), Got);
      }
    }
  }
};

int Usage() {
  std::fprintf(stderr,
               "usage: bench_cfb_peer write|read|expect FILE [--workload W1|W2|W3] [--storages N]\n"
               "       [--streams N] [--size BYTES] [--chunk BYTES] [--peer NAME]\n"
               "       [--sector 512|4096] [--durable 0|1]\n");
  return 2;
}

}  // namespace

int main(int Argc, char** Argv) {
  if (Argc < 3) return Usage();
  std::string Op = Argv[1], File = Argv[2], Peer = "vel";
  TWork W;
  bool Custom = false, Durable = false;
  uint32_t Sector = 512;
  for (int I = 3; I + 1 < Argc + 1; I += 2) {
    if (I + 1 >= Argc) return Usage();
    std::string A = Argv[I], V = Argv[I + 1];
    if (A == "--workload") {
      W.Name = V;
      if (V == "W1") W.Storages = 100, W.Streams = 100, W.Size = 4096;
      else if (V == "W2") W.Storages = 0, W.Streams = 4, W.Size = 64ull << 20;
      else if (V == "W3") W.Storages = 20, W.Streams = 1000, W.Size = 200;
      else return Usage();
    } else if (A == "--storages") W.Storages = static_cast<uint32_t>(std::stoul(V)), Custom = true;
    else if (A == "--streams") W.Streams = static_cast<uint32_t>(std::stoul(V)), Custom = true;
    else if (A == "--size") W.Size = std::stoull(V), Custom = true;
    else if (A == "--chunk") W.Chunk = static_cast<uint32_t>(std::stoul(V));
    else if (A == "--peer") Peer = V;
    else if (A == "--sector") Sector = static_cast<uint32_t>(std::stoul(V));
    else if (A == "--durable") Durable = V == "1";
    else return Usage();
  }
  if (Custom) W.Name = "custom";
  if (W.Chunk == 0 || W.Chunk > PoolSize) return Usage();
  InitCrc();
  std::vector<uint8_t> Pool = MakePool(W.Chunk);
  const uint64_t Total = W.StreamCount() * W.Size;
  uint32_t ECrc = 0, ENCrc = 0;

  if (Op == "expect") {
    Expected(W, Pool, ECrc, ENCrc);
    std::printf("EXPECT workload=%s storages=%u streams=%llu bytes=%llu crc32=%08x names_crc32=%08x\n",
                W.Name.c_str(), W.Storages, static_cast<unsigned long long>(W.StreamCount()),
                static_cast<unsigned long long>(Total), ECrc, ENCrc);
    return 0;
  }
  std::u16string Name = StgUtf8ToName(File);
  constexpr uint32_t RW = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;
  double Seconds = 0, HashSeconds = 0, TotalSeconds = 0;
  uint32_t Crc = 0, NCrc = 0;
  uint64_t Storages = 0, Streams = 0, Bytes = 0, Skipped = 0;

  if (Op == "write") {
    double T0 = Now();
    {
      STGOPTIONS O;
      O.ulSectorSize = Sector;
      IPtr<IStorage> Root;
      HRESULT Hr = StgCreateStorageEx(Name.c_str(), RW | STGM_CREATE, STGFMT_DOCFILE, 0, &O, nullptr,
                                      IIDOf<IStorage>, Root.Out());
      if (Failed(Hr)) Die("StgCreateStorageEx", Hr);
      uint64_t K = 0;
      for (uint32_t S = 0; S < (W.Storages ? W.Storages : 1); ++S) {
        IPtr<IStorage> Dir = Root;
        if (W.Storages) {
          std::u16string N = StgUtf8ToName(Pad('S', S, W.Storages));
          if (Failed(Hr = Root->CreateStorage(N.c_str(), RW, 0, 0, Out(Dir)))) Die("CreateStorage", Hr);
        }
        for (uint32_t T = 0; T < W.Streams; ++T, ++K) {
          std::u16string N = StgUtf8ToName(Pad('T', T, W.Streams));
          IPtr<IStream> Str;
          if (Failed(Hr = Dir->CreateStream(N.c_str(), RW, 0, 0, Out(Str)))) Die("CreateStream", Hr);
          for (uint64_t Pos = 0; Pos < W.Size; Pos += W.Chunk) {
            uint32_t Piece = static_cast<uint32_t>(std::min<uint64_t>(W.Chunk, W.Size - Pos));
            if (Failed(Hr = Str->Write(Pool.data() + (Offset(K) + Pos) % PoolSize, Piece, nullptr)))
              Die("Write", Hr);
          }
        }
      }
      Hr = Root->Commit(Durable ? STGC_DEFAULT : STGC_DANGEROUSLYCOMMITMERELYTODISKCACHE);
      if (Failed(Hr)) Die("Commit", Hr);
    }
    Seconds = TotalSeconds = Now() - T0;
    Storages = W.Storages;
    Streams = W.StreamCount();
    Bytes = Total;
    Expected(W, Pool, Crc, NCrc);
    ECrc = Crc;
    ENCrc = NCrc;
  } else if (Op == "read") {
    TReader R;
    R.Chunk = W.Chunk;
    R.Buf.resize(W.Chunk);
    double T0 = Now();
    {
      IPtr<IStorage> Root;
      HRESULT Hr = StgOpenStorage(Name.c_str(), nullptr, STGM_READ | STGM_SHARE_DENY_WRITE, nullptr, 0, Out(Root));
      if (Failed(Hr)) Die("StgOpenStorage", Hr);
      R.Walk(Root, "");
    }
    TotalSeconds = Now() - T0;
    HashSeconds = R.Hash;
    Seconds = TotalSeconds - HashSeconds;
    Crc = R.Crc;
    NCrc = R.NCrc;
    Storages = R.Storages;
    Streams = R.Streams;
    Bytes = R.Bytes;
    Skipped = R.Skipped;
    Expected(W, Pool, ECrc, ENCrc);
  } else {
    return Usage();
  }
  struct stat St{};
  stat(File.c_str(), &St);
  bool Match = Crc == ECrc && NCrc == ENCrc && Bytes == Total && Streams == W.StreamCount() && Storages == W.Storages;
  std::printf("RESULT peer=%s op=%s workload=%s storages=%llu streams=%llu bytes=%llu seconds=%.6f "
              "hash_seconds=%.6f total_seconds=%.6f mbps=%.2f file_size=%lld crc32=%08x names_crc32=%08x "
              "skipped=%llu match=%s\n",
              Peer.c_str(), Op.c_str(), W.Name.c_str(), static_cast<unsigned long long>(Storages),
              static_cast<unsigned long long>(Streams), static_cast<unsigned long long>(Bytes), Seconds,
              HashSeconds, TotalSeconds, Seconds > 0 ? static_cast<double>(Bytes) / 1e6 / Seconds : 0.0,
              static_cast<long long>(St.st_size), Crc, NCrc, static_cast<unsigned long long>(Skipped),
              Match ? "yes" : "no");
  return 0;
}
