// How fast the MCP reader skips garbage: a full queue of bytes without a single header (but with
// the magic's first byte now and then), against a plain memchr over the same bytes. Prints the time
// ratio of the two at the end; the goal is a resynchronisation within 4x of memchr.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "bench/bench_main.h"
#include "libtidewatch/transport/data_queue.h"
#include "libtidewatch/transport/mcp_handler.h"

namespace {

using libtidewatch::DataQueue;

constexpr uint8_t kMagicFirstByte = 0xAE;

// Random bytes in which about one in 64 is the magic's first byte, and no full magic appears.
const std::vector<uint8_t>& Garbage() {
  static const std::vector<uint8_t> bytes = [] {
    std::vector<uint8_t> b(DataQueue::kCapacity);
    std::mt19937 rng(7);
    for (uint8_t& x : b) {
      x = static_cast<uint8_t>(rng());
      if (x == kMagicFirstByte) x = 0;
      if (rng() % 64 == 0) x = kMagicFirstByte;
    }
    return b;
  }();
  return bytes;
}

void BM_ResyncFullQueue(benchmark::State& state) {
  const std::vector<uint8_t>& garbage = Garbage();
  std::unique_ptr<DataQueue> q(new DataQueue);
  for (auto _ : state) {
    state.PauseTiming();  // skipping garbage moves it, so every pass starts from a fresh copy
    q->Reset();
    q->Push(garbage.data(), garbage.size());
    state.ResumeTiming();
    libtidewatch::MCPInfo out;
    bool found = libtidewatch::MCPHandler::SearchHeader(out, *q);
    benchmark::DoNotOptimize(found);
    if (found || q->size != 9) state.SkipWithError("garbage yielded a header");
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * garbage.size()));
}
BENCHMARK(BM_ResyncFullQueue);

void BM_MemchrFullQueue(benchmark::State& state) {
  const std::vector<uint8_t>& garbage = Garbage();
  for (auto _ : state) {
    size_t hits = 0;
    const uint8_t* p = garbage.data();
    const uint8_t* end = p + garbage.size();
    while ((p = static_cast<const uint8_t*>(memchr(p, kMagicFirstByte, end - p))) != nullptr) {
      ++hits;
      ++p;
    }
    benchmark::DoNotOptimize(hits);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * garbage.size()));
}
BENCHMARK(BM_MemchrFullQueue);

// Keeps the CPU time per iteration of every run (steadier than wall time on a shared machine), for
// the ratio printed at the end.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type == Run::RT_Iteration && run.iterations > 0) {
        seconds_[run.benchmark_name()] = run.GetAdjustedCPUTime();
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }
  void PrintRatio() const {
    auto resync = seconds_.find("BM_ResyncFullQueue");
    auto memchr = seconds_.find("BM_MemchrFullQueue");
    if (resync == seconds_.end() || memchr == seconds_.end() || memchr->second <= 0) return;
    printf("resync / memchr CPU time ratio: %.2f (goal: at most 4)\n",
           resync->second / memchr->second);
  }

 private:
  std::map<std::string, double> seconds_;
};

}  // namespace

int main(int argc, char** argv) {
  return tidewatch_bench::RunBenchmarks<RatioReporter>(argc, argv, &RatioReporter::PrintRatio);
}
