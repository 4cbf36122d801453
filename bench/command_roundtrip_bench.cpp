// What one command costs its caller: the whole `tide_watch_ctrl --list-session doerId=N` process
// (fork, exec, the command against a running service emulator, exit, wait) against starting and
// ending `/bin/true` the same way. A second benchmark does the command's work inside this process
// (connect, one request, one reply), which separates the service link from the process start.
// Prints the ratio at the end; the goal is a command within 3x of a trivial process.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench/bench_main.h"
#include "libtidewatch/api/json_cmd_encoder.h"
#include "libtidewatch/api/monitor_cmd_proxy.h"
#include "tests/support/child_process.h"
#include "tests/support/scratch_dir.h"

namespace {

using tidewatch_test::ScratchDir;
using CmdProxy = libtidewatch::MonitorCmdProxy<libtidewatch::JsonCmdEncoder>;

constexpr char kReadyLine[] = "tidewatch_hal_emulator: ready\n";
// Well above the small failure codes that CreateSession returns in place of an id.
constexpr uint64_t kFirstSessionId = 1000;

std::string BinPath(const char* name) { return std::string(TIDEWATCH_BIN_DIR) + "/" + name; }

// The emulator under a socket prefix of its own, with one session created, shared by every
// benchmark of the run.
class Service {
 public:
  // Null (with the reason on standard error) when the emulator did not come up or refused the
  // session.
  static Service* Get() {
    static std::unique_ptr<Service> service = [] {
      std::unique_ptr<Service> s(new Service);
      if (!s->Start()) s.reset();
      return s;
    }();
    return service.get();
  }
  ~Service() {
    if (m_emulator > 0) kill(m_emulator, SIGTERM);
    if (m_emulator > 0) tidewatch_test::WaitChild(m_emulator, 10000);
    if (m_out >= 0) close(m_out);
  }

  uint64_t sessionId() const { return m_sessionId; }
  const std::string& dir() const { return m_dir.path(); }

 private:
  Service() : m_dir("tw_bench") {}

  bool Start() {
    setenv("TIDEWATCH_HAL_SOCKET_PREFIX", (".tw_bench." + std::to_string(getpid()) + ".").c_str(),
           1);
    tidewatch_test::ChildOptions options;
    options.dir = m_dir.path();
    if (m_dir.path().empty() ||
        !tidewatch_test::StartChild(
            BinPath("tidewatch_hal_emulator"),
            {"--aidl", "--first-session-id=" + std::to_string(kFirstSessionId)}, options,
            &m_emulator, &m_out)) {
      fprintf(stderr, "cannot start %s\n", BinPath("tidewatch_hal_emulator").c_str());
      return false;
    }
    if (!WaitReady(std::chrono::seconds(20))) {
      fprintf(stderr, "the emulator did not get ready\n");
      return false;
    }
    CmdProxy proxy;
    m_sessionId = proxy.CreateSession(nullptr);
    if (m_sessionId < kFirstSessionId) {
      fprintf(stderr, "the emulator refused a session: %lu\n",
              static_cast<unsigned long>(m_sessionId));
      return false;
    }
    return true;
  }

  bool WaitReady(std::chrono::steady_clock::duration limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    std::string seen;
    while (seen.find(kReadyLine) == std::string::npos) {
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) return false;
      pollfd p = {m_out, POLLIN, 0};
      if (poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
      char buf[256];
      ssize_t n = read(m_out, buf, sizeof(buf));
      if (n <= 0) return false;  // it exited
      seen.append(buf, static_cast<size_t>(n));
    }
    return true;
  }

  ScratchDir m_dir;
  pid_t m_emulator = -1;
  // Kept open so that the emulator never writes into a closed pipe.
  int m_out = -1;
  uint64_t m_sessionId = 0;
};

// Runs `command` in `dir` to its end, its output dropped; its wall time in seconds, or a negative
// value when it failed.
double TimedRun(const std::vector<std::string>& command, const std::string& dir) {
  tidewatch_test::ChildOptions options;
  options.dir = dir;
  options.dropStdout = true;
  const std::vector<std::string> args(command.begin() + 1, command.end());
  const auto start = std::chrono::steady_clock::now();
  pid_t pid;
  int out;
  if (!tidewatch_test::StartChild(command[0], args, options, &pid, &out) ||
      tidewatch_test::WaitChild(pid, 30000) != 0) {
    return -1;
  }
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// The value below which a `fraction` of the values lie (0.5: the median).
double Quantile(std::vector<double> values, double fraction) {
  if (values.empty()) return 0;
  auto at = values.begin() + static_cast<ptrdiff_t>(fraction * (values.size() - 1));
  std::nth_element(values.begin(), at, values.end());
  return *at;
}

// The two processes run in turns, so that a load that comes and goes on a shared machine weighs
// on both alike. The figures are lower quartiles: on a busy machine a run only ever gets slower by
// waiting for a core, and the tool (two processes, five switches between them and the service)
// waits more often than /bin/true, so the upper half measures the machine, not the program. The
// median ratio is kept beside it as "ratio_median".
void BM_ListSessionVsTrivial(benchmark::State& state) {
  Service* service = Service::Get();
  if (service == nullptr) {
    state.SkipWithError("no service emulator");
    return;
  }
  const std::vector<std::string> trivial = {"/bin/true"};
  // The scratch directory holds no session file, so the explicit doerId is all the tool has.
  const std::vector<std::string> command = {BinPath("tide_watch_ctrl"), "--list-session",
                                            "doerId=" + std::to_string(service->sessionId())};
  std::vector<double> trivialSeconds;
  std::vector<double> commandSeconds;
  for (auto _ : state) {
    const double t = TimedRun(trivial, "");
    const double c = TimedRun(command, service->dir());
    if (t < 0 || c < 0) {
      state.SkipWithError(t < 0 ? "/bin/true failed" : "tide_watch_ctrl --list-session failed");
      return;
    }
    trivialSeconds.push_back(t);
    commandSeconds.push_back(c);
  }
  const double trivialQ1 = Quantile(trivialSeconds, 0.25);
  const double commandQ1 = Quantile(commandSeconds, 0.25);
  const double trivialMedian = Quantile(trivialSeconds, 0.5);
  state.counters["trivial_us"] = trivialQ1 * 1e6;
  state.counters["command_us"] = commandQ1 * 1e6;
  state.counters["ratio"] = trivialQ1 > 0 ? commandQ1 / trivialQ1 : 0;
  state.counters["ratio_median"] =
      trivialMedian > 0 ? Quantile(commandSeconds, 0.5) / trivialMedian : 0;
}
BENCHMARK(BM_ListSessionVsTrivial)->UseRealTime()->Unit(benchmark::kMicrosecond);

void BM_ListSessionInProcess(benchmark::State& state) {
  Service* service = Service::Get();
  if (service == nullptr) {
    state.SkipWithError("no service emulator");
    return;
  }
  for (auto _ : state) {
    CmdProxy proxy;  // connects, as the tool does once per run
    std::vector<uint64_t> ids;
    int resp = proxy.ListSession(service->sessionId(), ids);
    if (resp != 0 || ids.empty()) {
      state.SkipWithError(("list-session failed: " + std::to_string(resp)).c_str());
      break;
    }
  }
}
BENCHMARK(BM_ListSessionInProcess)->UseRealTime()->Unit(benchmark::kMicrosecond);

// Keeps the paired run's figures for the summary printed at the end.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration || run.iterations == 0 || run.error_occurred) continue;
      if (run.run_name.function_name == "BM_ListSessionInProcess") {
        m_inProcessUs = run.GetAdjustedRealTime();
      }
      for (const char* name : {"trivial_us", "command_us", "ratio", "ratio_median"}) {
        auto counter = run.counters.find(name);
        if (counter != run.counters.end()) m_counters[name] = counter->second.value;
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }
  void PrintSummary() {
    if (m_counters.size() != 4) return;
    printf(
        "list-session process %.0f us, trivial process %.0f us (lower quartiles): ratio %.2f "
        "(goal: at most 3); ratio of the medians %.2f\n",
        m_counters["command_us"], m_counters["trivial_us"], m_counters["ratio"],
        m_counters["ratio_median"]);
    if (m_inProcessUs > 0) {
      printf("connect + request + reply inside this process: %.0f us\n", m_inProcessUs);
    }
  }

 private:
  std::map<std::string, double> m_counters;
  double m_inProcessUs = 0;
};

}  // namespace

int main(int argc, char** argv) {
  return tidewatch_bench::RunBenchmarks<RatioReporter>(argc, argv, &RatioReporter::PrintSummary);
}
