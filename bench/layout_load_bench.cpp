// Load rate of the layout description file. --get-session loads the whole file on every run, so
// this rate is the command's latency. Files of 10,000 and 200,000 messages are generated at start
// by bench/make_layout.py; `wc -l` over the same files, timed in the same run, is the yardstick:
// the summary prints both rates and their ratio (goal: at least 100 MB/s, within 10x of wc -l).
// The load is timed in this process (no process start-up), `wc -l` as a whole process.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "libtidewatch/trap/frame_decoder.h"

extern char** environ;

namespace {

struct Layout {
  std::string path;
  size_t bytes = 0;
};

std::map<int64_t, Layout>& Layouts() {
  static std::map<int64_t, Layout> layouts;
  return layouts;
}

bool Generate(const std::string& dir, int64_t messages) {
  Layout layout;
  layout.path = dir + "/twd_layout_desc_" + std::to_string(messages) + ".dat";
  std::string command = "python3 '" + std::string(TIDEWATCH_SOURCE_DIR) +
                        "/bench/make_layout.py' " + std::to_string(messages) + " '" + layout.path +
                        "'";
  struct stat st;
  if (system(command.c_str()) != 0 || stat(layout.path.c_str(), &st) != 0) {
    fprintf(stderr, "failed to generate %s\n", layout.path.c_str());
    return false;
  }
  layout.bytes = static_cast<size_t>(st.st_size);
  Layouts()[messages] = layout;
  return true;
}

void BM_LoadLayout(benchmark::State& state) {
  const Layout& layout = Layouts().at(state.range(0));
  // One whole life of a fresh decoder per iteration: construction, load and destruction. The tool
  // never frees its decoder (the process exit does), but timing the free keeps the figure honest:
  // every iteration maps and touches fresh memory, as a new process does, instead of reusing what
  // the previous one left in the heap. The arena makes the free itself a handful of unmaps.
  for (auto _ : state) {
    auto* decoder = new libtidewatch::FrameDecoder;
    if (!decoder->LoadFromDESC(layout.path.c_str())) {
      state.SkipWithError("the generated layout did not load");
    }
    delete decoder;
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * layout.bytes));
}

double Seconds(const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; }

// One whole `wc -l` run per iteration, start-up included, as a user would see it.
void BM_WcLines(benchmark::State& state) {
  const Layout& layout = Layouts().at(state.range(0));
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  char wc[] = "wc";
  char lines[] = "-l";
  char* argv[] = {wc, lines, const_cast<char*>(layout.path.c_str()), nullptr};
  double childSeconds = 0;
  for (auto _ : state) {
    pid_t pid;
    int status = 0;
    struct rusage usage;
    if (posix_spawnp(&pid, "wc", &actions, nullptr, argv, environ) != 0 ||
        wait4(pid, &status, 0, &usage) != pid || status != 0) {
      state.SkipWithError("wc -l failed");
      break;
    }
    childSeconds += Seconds(usage.ru_utime) + Seconds(usage.ru_stime);
  }
  posix_spawn_file_actions_destroy(&actions);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * layout.bytes));
  // The child's processor time, for a comparison that a busy machine disturbs less.
  state.counters["wc_cpu_s"] = benchmark::Counter(childSeconds, benchmark::Counter::kAvgIterations);
}

BENCHMARK(BM_LoadLayout)->Arg(10000)->Arg(200000)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_WcLines)->Arg(10000)->Arg(200000)->Unit(benchmark::kMillisecond)->UseRealTime();

// Prints the usual table, then per file the two rates and their ratio: by elapsed time (what a
// user waits for) and by processor time (less disturbed when other work shares the machine).
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration || run.error_occurred || run.iterations == 0) continue;
      int64_t messages = std::stoll(run.run_name.args);
      double megabytes = static_cast<double>(Layouts().at(messages).bytes) / 1e6;
      double iterations = static_cast<double>(run.iterations);
      Rates& rates =
          run.run_name.function_name == "BM_LoadLayout" ? load_[messages] : wc_[messages];
      rates.elapsed = megabytes / (run.real_accumulated_time / iterations);
      auto cpu = run.counters.find("wc_cpu_s");
      double cpuSeconds =
          cpu != run.counters.end() ? cpu->second.value : run.cpu_accumulated_time / iterations;
      rates.cpu = cpuSeconds > 0 ? megabytes / cpuSeconds : 0;
    }
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    printf("\n");
    for (const auto& entry : Layouts()) {
      auto load = load_.find(entry.first);
      auto wc = wc_.find(entry.first);
      if (load == load_.end() || wc == wc_.end()) continue;
      Print(entry.first, entry.second.bytes, "elapsed", load->second.elapsed, wc->second.elapsed);
      Print(entry.first, entry.second.bytes, "cpu", load->second.cpu, wc->second.cpu);
    }
  }

 private:
  struct Rates {
    double elapsed = 0;
    double cpu = 0;
  };

  static void Print(int64_t messages, size_t bytes, const char* clock, double load, double wc) {
    printf(
        "%7lld messages (%5.1f MB), %-7s: load %7.1f MB/s, wc -l %7.1f MB/s, ratio %5.1fx "
        "(goal: load >= 100 MB/s, ratio <= 10x)\n",
        static_cast<long long>(messages), bytes / 1e6, clock, load, wc, load > 0 ? wc / load : 0.0);
  }

  std::map<int64_t, Rates> load_;
  std::map<int64_t, Rates> wc_;
};

}  // namespace

int main(int argc, char** argv) {
  char dir[] = "/tmp/layout_load_bench.XXXXXX";
  if (mkdtemp(dir) == nullptr) return 1;
  bool generated = Generate(dir, 10000) && Generate(dir, 200000);
  int status = 1;
  if (generated) {
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    status = 0;
  }
  for (const auto& entry : Layouts()) unlink(entry.second.path.c_str());
  rmdir(dir);
  return status;
}
