// The main of a benchmark that prints a summary (rates, ratios against their goals) after the
// usual report: the reporter keeps the figures while the runs are reported, then sums them up.
#pragma once

#include <benchmark/benchmark.h>

#include <functional>

namespace tidewatch_bench {

// Runs the benchmarks chosen on the command line through a `Reporter`, then calls `summary` on
// it (a member function such as &Reporter::PrintRatio, or anything taking a Reporter&).
template <class Reporter, class Summary>
int RunBenchmarks(int argc, char** argv, Summary summary) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  Reporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  std::invoke(summary, reporter);
  benchmark::Shutdown();
  return 0;
}

}  // namespace tidewatch_bench
