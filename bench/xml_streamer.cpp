// Writing a root whose collection holds 100,000 items with 8 non-default
// properties each as XML (TXMLStreamer) and as indented object text
// (TObjectTextStreamer), against the binary streamer writing the same
// graph in the same run (the baseline).
#include <benchmark/benchmark.h>

#include <cstdio>

#include "holdings.h"
#include "vel/StreamClasses.h"

using namespace vel;

namespace {

TBenchRoot& Data() {
  static TBenchRoot* R = [] {
    auto* Root = new TBenchRoot;
    Fill(*Root);
    return Root;
  }();
  return *R;
}

template <class TStreamerClass>
void WriteWith(benchmark::State& State) {
  TBenchRoot& Root = Data();
  int64_t Bytes = 0;
  for (auto _ : State) {
    TMemoryStream S;
    TStreamerClass(&S).SaveToStream(&Root);
    Bytes = S.GetSize();
    benchmark::DoNotOptimize(S.Memory());
  }
  State.SetBytesProcessed(State.iterations() * Bytes);
  State.counters["output_bytes"] = static_cast<double>(Bytes);
}

}  // namespace



static void BM_Write_Binary(benchmark::State& State) {
  WriteWith<TBinaryStreamer>(State);
}
BENCHMARK(BM_Write_Binary)->Unit(benchmark::kMillisecond);

static void BM_Write_XML(benchmark::State& State) {
  WriteWith<TXMLStreamer>(State);
}
BENCHMARK(BM_Write_XML)->Unit(benchmark::kMillisecond);

static void BM_Write_ObjectText(benchmark::State& State) {
  WriteWith<TObjectTextStreamer>(State);
}
BENCHMARK(BM_Write_ObjectText)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
