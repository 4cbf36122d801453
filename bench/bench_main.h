// The main of a benchmark that prints a summary (rates, ratios against their goals) after the
// usual report: the reporter keeps the figures while the runs are reported, then sums them up.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdio>
#include <functional>
#include <map>
#include <string>
#include <vector>

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

// Keeps the items-per-second figure of every timed run by benchmark name, and prints them at the
// end as "<name>: <rate> traps/s <what>".
class RateReporter : public benchmark::ConsoleReporter {
 public:
  explicit RateReporter(const char* what) : m_what(what) {}
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      auto items = run.counters.find("items_per_second");
      if (run.run_type == Run::RT_Iteration && !run.error_occurred && items != run.counters.end()) {
        m_rates[run.benchmark_name()] = items->second.value;
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }
  void PrintRates() const {
    for (const auto& rate : m_rates) {
      printf("%s: %.0f traps/s %s\n", rate.first.c_str(), rate.second, m_what);
    }
  }
  // The rate of benchmark `name`, or 0 when it did not run.
  double Rate(const std::string& name) const {
    auto found = m_rates.find(name);
    return found == m_rates.end() ? 0 : found->second;
  }

 private:
  const char* m_what;
  std::map<std::string, double> m_rates;
};

}  // namespace tidewatch_bench
