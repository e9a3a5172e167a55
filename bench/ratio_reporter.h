// The console reporter of the benchmarks that compare the library with a
// baseline in the same run: it keeps each benchmark's time per iteration
// (the median when repetitions are asked for) and, after the console table,
// prints one line per pair "<text>: <ratio>x".
#pragma once

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace vel_bench {

struct TRatio {
  std::string Text;  // printed before the figure
  std::string Mine;  // "<function>" or "<function>/<args>"
  std::string Base;
  bool BaseOverMine = false;  // a throughput ratio rather than a time ratio
};

class TRatioReporter : public benchmark::ConsoleReporter {
 public:
  // CpuTime: CPU time, which other processes disturb less, for
  // single-threaded work; real time otherwise.
  TRatioReporter(bool CpuTime, std::vector<TRatio> Ratios)
      : FCpuTime(CpuTime), FRatios(std::move(Ratios)) {}

  void ReportRuns(const std::vector<Run>& Runs) override {
    for (const Run& R : Runs) {
      std::string Key = R.run_name.function_name;
      if (!R.run_name.args.empty()) Key += "/" + R.run_name.args;
      const bool Median = R.run_type == Run::RT_Aggregate && R.aggregate_name == "median";
      if (Median || (R.run_type == Run::RT_Iteration && !FMedians.count(Key)))
        FTimes[Key] = FCpuTime ? R.GetAdjustedCPUTime() : R.GetAdjustedRealTime();
      if (Median) FMedians.insert(Key);
    }
    ConsoleReporter::ReportRuns(Runs);
  }

  void Finalize() override {
    ConsoleReporter::Finalize();
    for (const TRatio& R : FRatios) {
      const double M = Time(R.Mine), B = Time(R.Base);
      if (M > 0 && B > 0)
        std::printf("%s: %.2fx\n", R.Text.c_str(), R.BaseOverMine ? B / M : M / B);
    }
  }

 private:
  double Time(const std::string& Key) const {
    const auto It = FTimes.find(Key);
    return It == FTimes.end() ? 0 : It->second;
  }
  bool FCpuTime;
  std::vector<TRatio> FRatios;
  std::map<std::string, double> FTimes;
  std::set<std::string> FMedians;
};

// The body of a benchmark program's main with this reporter.
inline int RunWithRatios(int argc, char** argv, TRatioReporter& Reporter) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks(&Reporter);
  benchmark::Shutdown();
  return 0;
}

}  // namespace vel_bench
