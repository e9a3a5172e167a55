// File encryption throughput: EncryptFile and DecryptFile on a 64 MiB file
// against Crypto++'s own CBC mode over the same bytes in memory, in the same
// run. The file functions include reading and writing the files; the
// baselines touch no file. Decryption splits the blocks between two threads,
// the baseline uses one (CBC encryption cannot be split).
//
// Own main instead of BENCHMARK_MAIN: it prints the throughput ratios at the
// end (bench/ratio_reporter.h).
#include <benchmark/benchmark.h>

#include <cryptopp/cast.h>
#include <cryptopp/modes.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "ratio_reporter.h"
#include "vel/Cryption.h"
#include "vel/rtl/SysUtils.h"

namespace {

constexpr size_t KSize = 64u << 20;
const std::string KPass = "benchmark pass phrase";

struct TFixture {
  std::string Dir, Plain, Encrypted;
  std::vector<uint8_t> Data;
  uint8_t Key[32];
  uint8_t IV[16] = {};
  TFixture() {
    const char* T = std::getenv("TMPDIR");
    Dir = std::string(T && *T ? T : "/tmp");
    Plain = Dir + "/vel_bench_cryption_" + std::to_string(::getpid()) + ".dat";
    Data.resize(KSize);
    std::mt19937_64 G(42);
    for (size_t I = 0; I < KSize; I += 8) {
      const uint64_t V = G();
      std::memcpy(&Data[I], &V, 8);
    }
    std::ofstream(Plain, std::ios::binary).write(reinterpret_cast<const char*>(Data.data()), KSize);
    Encrypted = vel::EncryptFile(Plain, KPass, "enc", true);
    std::memset(Key, 0xFF, 32);
    std::memcpy(Key, KPass.data(), KPass.size());
    CryptoPP::CAST256::Encryption E(Key, 32);
    E.ProcessBlock(IV);  // the chaining's initial vector, E(0)
  }
  ~TFixture() {
    vel::DeleteFile(Plain);
    vel::DeleteFile(Encrypted);
    vel::DeleteFile(vel::ChangeFileExt(Plain, ".out"));
  }
};

TFixture& Fix() {
  static TFixture F;
  return F;
}

void BM_Encrypt_CryptoPPCbcInMemory(benchmark::State& State) {
  TFixture& F = Fix();
  std::vector<uint8_t> Buf(F.Data);
  for (auto _ : State) {
    CryptoPP::CBC_Mode<CryptoPP::CAST256>::Encryption E(F.Key, 32, F.IV);
    E.ProcessData(Buf.data(), Buf.data(), KSize);
    benchmark::DoNotOptimize(Buf.data());
  }
  State.SetBytesProcessed(State.iterations() * static_cast<int64_t>(KSize));
}
BENCHMARK(BM_Encrypt_CryptoPPCbcInMemory)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(3);

void BM_Encrypt_EncryptFile(benchmark::State& State) {
  TFixture& F = Fix();
  for (auto _ : State) {
    if (vel::EncryptFile(F.Plain, KPass, "enc", true).empty()) State.SkipWithError("no output");
  }
  State.SetBytesProcessed(State.iterations() * static_cast<int64_t>(KSize));
}
BENCHMARK(BM_Encrypt_EncryptFile)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

void BM_Decrypt_CryptoPPCbcInMemory(benchmark::State& State) {
  TFixture& F = Fix();
  std::vector<uint8_t> Enc(KSize);
  {
    CryptoPP::CBC_Mode<CryptoPP::CAST256>::Encryption E(F.Key, 32, F.IV);
    E.ProcessData(Enc.data(), F.Data.data(), KSize);
  }
  std::vector<uint8_t> Out(KSize);
  for (auto _ : State) {
    CryptoPP::CBC_Mode<CryptoPP::CAST256>::Decryption D(F.Key, 32, F.IV);
    D.ProcessData(Out.data(), Enc.data(), KSize);
    benchmark::DoNotOptimize(Out.data());
  }
  if (Out != F.Data) State.SkipWithError("baseline decryption differs");
  State.SetBytesProcessed(State.iterations() * static_cast<int64_t>(KSize));
}
BENCHMARK(BM_Decrypt_CryptoPPCbcInMemory)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(3);

void BM_Decrypt_DecryptFile(benchmark::State& State) {
  TFixture& F = Fix();
  for (auto _ : State) {
    if (vel::DecryptFile(F.Encrypted, KPass, "out").empty()) State.SkipWithError("no output");
  }
  State.SetBytesProcessed(State.iterations() * static_cast<int64_t>(KSize));
}
BENCHMARK(BM_Decrypt_DecryptFile)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

}  // namespace

int main(int argc, char** argv) {
  vel_bench::TRatioReporter Reporter(
      false, {{"EncryptFile throughput / Crypto++ CBC in memory", "BM_Encrypt_EncryptFile",
               "BM_Encrypt_CryptoPPCbcInMemory", true},
              {"DecryptFile throughput / Crypto++ CBC in memory", "BM_Decrypt_DecryptFile",
               "BM_Decrypt_CryptoPPCbcInMemory", true}});
  return vel_bench::RunWithRatios(argc, argv, Reporter);
}
