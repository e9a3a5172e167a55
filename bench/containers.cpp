// Growth of the container operations with their size: sorting a string
// list, finding and adding lines in a sorted one, loading text into a sorted
// list (merged, not inserted line by line) and clearing a large collection.
// Each reports its fitted complexity, so a step that turns quadratic shows
// here long before it shows as a slow program.
#include <benchmark/benchmark.h>

#include <random>
#include <string>
#include <vector>

#include "vel/rtl/Components.h"
#include "vel/rtl/StringLists.h"

using namespace vel;

namespace {

std::vector<std::string> RandomLines(int64_t Count, uint32_t Seed) {
  std::mt19937 Rng(Seed);
  std::vector<std::string> Lines;
  Lines.reserve(static_cast<size_t>(Count));
  for (int64_t I = 0; I < Count; ++I) Lines.push_back("item" + std::to_string(Rng()));
  return Lines;
}

void Fill(TStringList& L, const std::vector<std::string>& Lines) {
  for (const std::string& S : Lines) L.Add(S);
}

void BM_StringListSort(benchmark::State& State) {
  const auto Lines = RandomLines(State.range(0), 5);
  for (auto _ : State) {
    State.PauseTiming();
    TStringList L;
    Fill(L, Lines);
    State.ResumeTiming();
    L.Sort();
    benchmark::DoNotOptimize(L[0]);
  }
  State.SetComplexityN(State.range(0));
}
BENCHMARK(BM_StringListSort)->RangeMultiplier(4)->Range(1 << 10, 1 << 16)->Complexity();

// Every line of a sorted list looked up once.
void BM_SortedIndexOf(benchmark::State& State) {
  const auto Lines = RandomLines(State.range(0), 6);
  TStringList L;
  Fill(L, Lines);
  L.SetSorted(true);
  for (auto _ : State) {
    for (const std::string& S : Lines) benchmark::DoNotOptimize(L.IndexOf(S));
  }
  State.SetComplexityN(State.range(0));
}
BENCHMARK(BM_SortedIndexOf)->RangeMultiplier(4)->Range(1 << 10, 1 << 16)->Complexity();

// Lines added one at a time to a sorted list: each is a search and an insert
// that moves the lines after it, so the whole is quadratic, as with any list
// kept in one array; the figure to watch is the constant.
void BM_SortedAdd(benchmark::State& State) {
  const auto Lines = RandomLines(State.range(0), 7);
  for (auto _ : State) {
    TStringList L;
    L.SetSorted(true);
    Fill(L, Lines);
    benchmark::DoNotOptimize(L.Count());
  }
  State.SetComplexityN(State.range(0));
}
BENCHMARK(BM_SortedAdd)->RangeMultiplier(4)->Range(1 << 10, 1 << 14)->Complexity();

// Text with repeated lines loaded into a sorted list that drops duplicates.
void BM_SortedSetText(benchmark::State& State) {
  std::mt19937 Rng(8);
  std::string Text;
  for (int64_t I = 0; I < State.range(0); ++I)
    Text += std::to_string(Rng() % static_cast<uint32_t>(State.range(0) / 2)) + "\n";
  for (auto _ : State) {
    TStringList L;
    L.SetSorted(true);
    L.SetText(Text);
    benchmark::DoNotOptimize(L.Count());
  }
  State.SetComplexityN(State.range(0));
}
BENCHMARK(BM_SortedSetText)->RangeMultiplier(4)->Range(1 << 10, 1 << 16)->Complexity();

// Clearing a collection frees its items from the end: linear, where removal
// from the front would move the rest each time.
void BM_CollectionClear(benchmark::State& State) {
  for (auto _ : State) {
    State.PauseTiming();
    TCollection Col(TCollectionItem::StaticClass());
    for (int64_t I = 0; I < State.range(0); ++I) Col.Add();
    State.ResumeTiming();
    Col.Clear();
    benchmark::DoNotOptimize(Col.Count());
  }
  State.SetComplexityN(State.range(0));
}
BENCHMARK(BM_CollectionClear)->RangeMultiplier(4)->Range(1 << 10, 1 << 18)->Complexity();

}  // namespace
