// Writing a root whose collection holds 100,000 items with 8 non-default
// properties each as XML (TXMLStreamer) and as indented object text
// (TObjectTextStreamer), against the binary streamer writing the same
// graph in the same run (the baseline).
#include <benchmark/benchmark.h>

#include <cstdio>

#include "vel/StreamClasses.h"

using namespace vel;

namespace {

enum TKind : uint8_t { kdNone, kdBond, kdEquity, kdCash };
VEL_ENUM(TKind, "kdNone", "kdBond", "kdEquity", "kdCash")

class TBenchItem : public TCollectionItem {
  VEL_CLASS(TBenchItem, TCollectionItem)
 public:
  explicit TBenchItem(TCollection* C = nullptr) : TCollectionItem(C) {}
  int32_t Id = 0;
  int32_t Units = 0;
  std::string Code;
  std::string Label;
  double Price = 0;
  bool Active = false;
  TKind Kind = kdNone;
  TDateTime Since;
};

class TBenchRoot : public TPersistent {
  VEL_CLASS(TBenchRoot, TPersistent)
 public:
  ~TBenchRoot() override { delete Items; }
  TCollection* Items = new TCollection(TBenchItem::StaticClass());
};

constexpr int ItemCount = 100000;

void Fill(TBenchRoot& R) {
  for (int I = 0; I < ItemCount; ++I) {
    auto* It = static_cast<TBenchItem*>(R.Items->Add());
    It->Id = I + 1;
    It->Units = 1000 + I % 50000;
    char Buf[16];
    std::snprintf(Buf, sizeof Buf, "ISIN%08d", I);
    It->Code = Buf;
    std::snprintf(Buf, sizeof Buf, "Holding%05d", I % 100000);
    It->Label = Buf;
    It->Price = 1.25 + I * 0.01;
    It->Active = true;
    It->Kind = static_cast<TKind>(1 + I % 3);
    It->Since = TDateTime(37000.5 + I % 1000);
  }
}

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

VEL_PUBLISHED(TBenchItem, prop("Id", &TBenchItem::Id).defaults(0),
              prop("Units", &TBenchItem::Units).defaults(0), prop("Code", &TBenchItem::Code),
              prop("Label", &TBenchItem::Label), prop("Price", &TBenchItem::Price),
              prop("Active", &TBenchItem::Active).defaults(false),
              prop("Kind", &TBenchItem::Kind).defaults(kdNone), prop("Since", &TBenchItem::Since))
VEL_PUBLISHED(TBenchRoot, prop("Items", &TBenchRoot::Items))

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
