// Time and size of a capture report of one million traps: each iteration feeds the traps one at a
// time to a fresh ReportBuilder, renders the page and writes it to a file, as the capture tool does
// at the end of a run or of a file read back. Goal: under 5 seconds and under 5 MB.
//
// The capture is the report's worst case for size: as many EM series as the report draws (16
// messages of 4 fields on 2 SIMs), every value wandering with noise so that no band is flat, 40
// OTA names beside them, and drops now and then, over twenty minutes.
#include <benchmark/benchmark.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "capture/report/html_report.h"
#include "capture/report/report_builder.h"

namespace {

using libtidewatch::CapturedTrap;

constexpr int kTraps = 1'000'000;
constexpr int64_t kT0 = 1'795'000'000'000'000;
constexpr int64_t kSpanUs = 20 * 60 * 1'000'000LL;

void BM_ReportOfAMillionTraps(benchmark::State& state) {
  std::vector<std::string> em, ota;
  for (int i = 0; i < 16; ++i) em.push_back("EM_BENCH_MESSAGE_" + std::to_string(i));
  for (int i = 0; i < 40; ++i) ota.push_back("LTE_RRC_BENCH_MESSAGE_" + std::to_string(i));
  const char* fields[] = {"RSRP", "RSRQ", "SINR", "BYTES"};
  std::string path = "/tmp/report_bench." + std::to_string(getpid()) + ".html";
  uint8_t record[64] = {};
  size_t bytes = 0;

  for (auto _ : state) {
    std::mt19937 random(1);
    std::normal_distribution<double> noise(0, 3);
    capture::ReportBuilder builder;
    CapturedTrap trap;
    trap.record = {record, sizeof(record)};
    for (int i = 0; i < kTraps; ++i) {
      trap.seq = i + 1;
      trap.timeUs = kT0 + kSpanUs * i / kTraps;
      trap.decoded.Clear();
      trap.decoded.payload = {record + 5, sizeof(record) - 5};
      trap.decoded.sim = {static_cast<uint64_t>(i & 1), true};
      trap.discards[libtidewatch::TRAP_TYPE_EM] = i % 50'000 == 7 ? 25 : 0;
      if (i % 3 == 0) {
        trap.decoded.type = libtidewatch::TRAP_TYPE_OTA;
        trap.decoded.msgName = ota[(i / 3) % ota.size()];
        trap.decoded.traceName = "OTA_TRACE_LTE_RRC";
        trap.decoded.pduLength = {static_cast<uint64_t>(i % 200), true};
      } else {
        trap.decoded.type = libtidewatch::TRAP_TYPE_EM;
        trap.decoded.msgName = em[(i >> 1) % em.size()];
        double wave = 1000 + 200 * std::sin(i * 1e-5);
        for (const char* f : fields) {
          double v = wave + noise(random);
          trap.decoded.fields.push_back({f, static_cast<uint64_t>(v)});
        }
      }
      builder.Add(trap);
      if (i % 100'000 == 99'999) builder.AddToolDrop(trap.timeUs, libtidewatch::TRAP_TYPE_OTA, 10);
    }
    std::string error;
    if (!capture::HtmlReport(builder.data()).WriteFile(path, &error)) {
      state.SkipWithError(error.c_str());
      break;
    }
    struct stat st;
    bytes = stat(path.c_str(), &st) == 0 ? static_cast<size_t>(st.st_size) : 0;
  }
  unlink(path.c_str());
  state.counters["file_bytes"] = static_cast<double>(bytes);
  state.counters["traps"] = kTraps;
  state.SetItemsProcessed(state.iterations() * kTraps);
}
BENCHMARK(BM_ReportOfAMillionTraps)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

}  // namespace

BENCHMARK_MAIN();
