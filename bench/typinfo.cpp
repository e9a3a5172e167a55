// Cost of published-property access against direct member access (the
// baseline, measured in the same run).
#include <benchmark/benchmark.h>

#include "vel/rtl/Persistent.h"
#include "vel/rtl/TypInfo.h"

using namespace vel;

namespace {

enum TMode : uint8_t { mdOff, mdOn, mdAuto };
VEL_ENUM(TMode, "mdOff", "mdOn", "mdAuto")

class TRow : public TPersistent {
  VEL_CLASS(TRow, TPersistent)
 public:
  int32_t Id = 0;
  int32_t Count = 0;
  std::string Name = "abcdefghijkl";
  std::string Code = "XYZ-00012345";
  double Amount = 0;
  bool Active = false;
  TMode Mode = mdOff;
  int32_t GetTwice() const { return Count * 2; }
  void SetTwice(int32_t V) { Count = V / 2; }
};

}  // namespace

VEL_PUBLISHED(TRow, prop("Id", &TRow::Id), prop("Count", &TRow::Count),
              prop("Name", &TRow::Name), prop("Code", &TRow::Code),
              prop("Amount", &TRow::Amount), prop("Active", &TRow::Active),
              prop("Mode", &TRow::Mode), prop("Twice", &TRow::GetTwice, &TRow::SetTwice))

static void BM_DirectFieldBaseline(benchmark::State& State) {
  TRow R;
  TRow* P = &R;
  benchmark::DoNotOptimize(P);
  int32_t I = 0;
  for (auto _ : State) {
    P->Count = I++;
    benchmark::DoNotOptimize(P->Count);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_DirectFieldBaseline);

static void BM_SetGetOrdProp(benchmark::State& State) {
  TRow R;
  PPropInfo Info = GetPropInfo(&R, "Count");
  int32_t I = 0;
  for (auto _ : State) {
    SetOrdProp(&R, Info, I++);
    benchmark::DoNotOptimize(GetOrdProp(&R, Info));
  }
}
BENCHMARK(BM_SetGetOrdProp);

static void BM_SetGetOrdPropGetterSetter(benchmark::State& State) {
  TRow R;
  PPropInfo Info = GetPropInfo(&R, "Twice");
  int32_t I = 0;
  for (auto _ : State) {
    SetOrdProp(&R, Info, I += 2);
    benchmark::DoNotOptimize(GetOrdProp(&R, Info));
  }
}
BENCHMARK(BM_SetGetOrdPropGetterSetter);

static void BM_GetStrProp(benchmark::State& State) {
  TRow R;
  PPropInfo Info = GetPropInfo(&R, "Name");
  for (auto _ : State) benchmark::DoNotOptimize(GetStrProp(&R, Info));
}
BENCHMARK(BM_GetStrProp);

static void BM_GetPropInfoByName(benchmark::State& State) {
  TRow R;
  for (auto _ : State) benchmark::DoNotOptimize(GetPropInfo(&R, "amount"));
}
BENCHMARK(BM_GetPropInfoByName);

// The walk a streamer does per object: every property in name order, the
// default test and a read through the channel of its kind.
static void BM_WalkAllProperties(benchmark::State& State) {
  TRow R;
  R.Id = 7;
  R.Amount = 1.5;
  int64_t Sum = 0;
  for (auto _ : State) {
    for (PPropInfo P : GetSortedProps(R.ClassType())) {
      if (IsDefaultPropValue(&R, P)) continue;
      switch (P->Kind()) {
        case tkInteger:
        case tkEnumeration:
          Sum += GetOrdProp(&R, P);
          break;
        case tkFloat:
          Sum += static_cast<int64_t>(GetFloatProp(&R, P));
          break;
        case tkLString:
          Sum += static_cast<int64_t>(P->GetProc->StrField(&R)->size());
          break;
        default:
          break;
      }
    }
    benchmark::DoNotOptimize(Sum);
  }
}
BENCHMARK(BM_WalkAllProperties);

BENCHMARK_MAIN();
