// Hash tables: AddItem and KeyExists of string keys, against
// std::unordered_map<std::string, std::vector<std::string>> under one
// std::recursive_mutex doing the same work, in the same run.
//  - TStringKeyHashTable (256 buckets, byte-sum hash) at 10,000 keys: slow
//    by design as the table grows, measured to show by how much;
//  - the table's structure through a descendant with 65,536 buckets and
//    FNV-1a at 1,000,000 keys.
// The debug output is silent, so the lock trace costs one atomic load. The
// ratios printed at the end are of CPU time (all single-threaded), which
// other processes on the machine disturb less than wall time.
//
// Own main instead of BENCHMARK_MAIN: it prints the time ratios at the end
// (bench/ratio_reporter.h).
#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "../tests/fnv_hash_table.h"
#include "ratio_reporter.h"
#include "vel/velHash.h"

namespace {

const std::vector<std::string>& Keys(size_t N) {
  static std::map<size_t, std::vector<std::string>> Cache;
  auto& K = Cache[N];
  if (K.empty()) {
    K.reserve(N);
    for (size_t I = 0; I < N; ++I) K.push_back("customer-" + std::to_string(I * 7919 % 1000003));
  }
  return K;
}

template <class TTable>
void RunTable(benchmark::State& State) {
  const auto& K = Keys(static_cast<size_t>(State.range(0)));
  for (auto _ : State) {
    TTable T;
    for (const std::string& Key : K) T.AddItem(Key, "value");
    size_t Found = 0;
    for (const std::string& Key : K) Found += T.KeyExists(Key);
    if (Found != K.size()) State.SkipWithError("lost keys");
  }
  State.SetItemsProcessed(State.iterations() * State.range(0) * 2);
}

void RunMap(benchmark::State& State) {
  const auto& K = Keys(static_cast<size_t>(State.range(0)));
  for (auto _ : State) {
    std::recursive_mutex Lock;
    std::unordered_map<std::string, std::vector<std::string>> M;
    for (const std::string& Key : K) {
      std::lock_guard<std::recursive_mutex> G(Lock);
      if (!M.try_emplace(Key, std::vector<std::string>{"value"}).second)
        State.SkipWithError("duplicate");
    }
    size_t Found = 0;
    for (const std::string& Key : K) {
      std::lock_guard<std::recursive_mutex> G(Lock);
      Found += M.count(Key);
    }
    if (Found != K.size()) State.SkipWithError("lost keys");
  }
  State.SetItemsProcessed(State.iterations() * State.range(0) * 2);
}

void BM_StringKeyHashTable(benchmark::State& State) {
  RunTable<vel::TStringKeyHashTable>(State);
}
void BM_FnvHashTable(benchmark::State& State) {
  RunTable<TFnvTable>(State);
}
void BM_UnorderedMapBaseline(benchmark::State& State) {
  RunMap(State);
}

BENCHMARK(BM_UnorderedMapBaseline)->Arg(10000)->Arg(1000000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StringKeyHashTable)->Arg(10000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FnvHashTable)->Arg(10000)->Arg(1000000)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  const auto Row = [](const std::string& Mine, const std::string& Base) {
    return vel_bench::TRatio{Mine + " time / " + Base + " time", Mine, Base};
  };
  vel_bench::TRatioReporter Reporter(
      true, {Row("BM_StringKeyHashTable/10000", "BM_UnorderedMapBaseline/10000"),
             Row("BM_FnvHashTable/10000", "BM_UnorderedMapBaseline/10000"),
             Row("BM_FnvHashTable/1000000", "BM_UnorderedMapBaseline/1000000")});
  return vel_bench::RunWithRatios(argc, argv, Reporter);
}
