// Traps per second through the whole receiver process: the real `tide_watch_ctrl
// --run-trap-receiver` with its output going to a file, fed at full speed with 64-byte trap
// packets over its abstract socket, counting the "Receive frame" lines as they appear in the file.
// No service runs (a private socket prefix), so only the socket road is measured.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "bench/bench_main.h"
#include "bench/child_process.h"
#include "bench/trap_sender.h"
#include "libtidewatch/api/monitor_types.h"

namespace {

using tidewatch_bench::Bytes;
using Clock = std::chrono::steady_clock;
using libtidewatch::ConnectAbstract;
using tidewatch_bench::ChildProcess;
using tidewatch_bench::ScratchDir;
using tidewatch_bench::TrapStream;
using tidewatch_bench::WriteAll;

constexpr size_t kBatchBytes = 1 << 20;  // written per benchmark iteration
constexpr unsigned long kSessionId = 7;
constexpr char kFramePrefix[] = "Receive frame: ";
constexpr char kCreatedPrefix[] = "MonitorTrapReceiver [";
// A receiver that falls this far behind has stopped; the run is abandoned rather than hung.
constexpr auto kStallLimit = std::chrono::seconds(10);

// The receiver's socket appears some time after the process starts; keeps trying until then.
int ConnectWithRetry(const std::string& name, Clock::duration limit) {
  const auto deadline = Clock::now() + limit;
  for (;;) {
    int fd = ConnectAbstract(name);
    if (fd >= 0 || Clock::now() >= deadline) return fd;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
}

// Follows a file that another process appends lines to, counting the trap lines and the
// receiver's creation line, and keeping the last trap line for a check of its content.
class OutputFollower {
 public:
  explicit OutputFollower(const std::string& path) : m_fd(open(path.c_str(), O_RDONLY)) {}
  ~OutputFollower() {
    if (m_fd >= 0) close(m_fd);
  }
  OutputFollower(const OutputFollower&) = delete;
  OutputFollower& operator=(const OutputFollower&) = delete;

  bool ok() const { return m_fd >= 0; }
  uint64_t frames() const { return m_frames; }
  bool created() const { return m_created; }
  const std::string& lastFrame() const { return m_lastFrame; }

  // Reads what has been appended since the last call.
  void Poll() {
    char buf[64 << 10];
    ssize_t n;
    while ((n = read(m_fd, buf, sizeof(buf))) > 0) {
      for (ssize_t i = 0; i < n; ++i) {
        if (buf[i] != '\n') {
          m_line.push_back(buf[i]);
          continue;
        }
        if (m_line.compare(0, sizeof(kFramePrefix) - 1, kFramePrefix) == 0) {
          ++m_frames;
          m_lastFrame.swap(m_line);
        } else if (m_line.compare(0, sizeof(kCreatedPrefix) - 1, kCreatedPrefix) == 0) {
          m_created = true;
        }
        m_line.clear();
      }
    }
  }

  // Polls until `done()` holds; false when nothing new arrived for kStallLimit.
  template <class Done>
  bool WaitFor(Done done) {
    uint64_t lastFrames = m_frames;
    auto lastProgress = Clock::now();
    for (;;) {
      Poll();
      if (done()) return true;
      if (m_frames != lastFrames) {
        lastFrames = m_frames;
        lastProgress = Clock::now();
      } else if (Clock::now() - lastProgress > kStallLimit) {
        return false;
      }
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
  }

 private:
  int m_fd;
  std::string m_line;
  std::string m_lastFrame;
  uint64_t m_frames = 0;
  bool m_created = false;
};

void BM_ReceiverProcess(benchmark::State& state) {
  const size_t trapSize = static_cast<size_t>(state.range(0));
  uint64_t traps = 0;
  const Bytes stream = TrapStream(trapSize, kBatchBytes, &traps);

  ScratchDir dir;
  const std::string outPath = dir.ok() ? dir.File("receiver.out") : "";
  int out = dir.ok() ? open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600) : -1;
  if (out < 0) {
    state.SkipWithError("cannot create the output file");
    return;
  }
  const std::string server = ".tw_bench.receiver." + std::to_string(getpid());
  ChildProcess receiver({std::string(TIDEWATCH_BIN_DIR) + "/tide_watch_ctrl", "--run-trap-receiver",
                         "sessionId=" + std::to_string(kSessionId), "servername=" + server});
  const bool started = receiver.Start(dir.path(), out);
  close(out);
  OutputFollower output(outPath);
  int fd = started && output.ok()
               ? ConnectWithRetry(std::to_string(kSessionId) + server, std::chrono::seconds(10))
               : -1;
  // The handler is installed right after the creation line is printed; traps sent before that
  // would be dropped, so the line is awaited and a moment given on top.
  if (fd < 0 || !output.WaitFor([&] { return output.created(); })) {
    state.SkipWithError("the receiver did not come up");
    if (fd >= 0) close(fd);
    return;
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(20));

  uint64_t sent = 0;
  for (auto _ : state) {
    sent += traps;
    if (!WriteAll(fd, stream)) {
      state.SkipWithError("write to the receiver failed");
      break;
    }
    if (!output.WaitFor([&] { return output.frames() >= sent; })) {
      state.SkipWithError("the receiver stopped printing traps");
      break;
    }
  }
  close(fd);
  receiver.Kill(SIGKILL);  // it never exits by itself
  output.Poll();

  const std::string expectedEnd = "type = [" + std::to_string(libtidewatch::TRAP_TYPE_EM) +
                                  "] len =[" + std::to_string(trapSize) + "]";
  const std::string& last = output.lastFrame();
  if (output.frames() != sent ||
      (sent > 0 &&
       (last.size() < expectedEnd.size() ||
        last.compare(last.size() - expectedEnd.size(), std::string::npos, expectedEnd) != 0))) {
    state.SkipWithError(("unexpected output: " + std::to_string(output.frames()) + " lines for " +
                         std::to_string(sent) + " traps, last \"" + last + "\"")
                            .c_str());
  }
  state.SetItemsProcessed(static_cast<int64_t>(sent));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * stream.size()));
}
BENCHMARK(BM_ReceiverProcess)->Arg(64)->UseRealTime()->Unit(benchmark::kMillisecond);

// Prints the trap rate at the end, as the other throughput benchmarks do.
class RateReporter : public benchmark::ConsoleReporter {
 public:
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
      printf("%s: %.0f traps/s through the whole receiver process\n", rate.first.c_str(),
             rate.second);
    }
  }

 private:
  std::map<std::string, double> m_rates;
};

}  // namespace

int main(int argc, char** argv) {
  // A private prefix: no service is found, so the receiver registers nowhere and every trap
  // comes through its socket.
  setenv("TIDEWATCH_HAL_SOCKET_PREFIX",
         (".tw_bench.nohal." + std::to_string(getpid()) + ".").c_str(), 1);
  return tidewatch_bench::RunBenchmarks<RateReporter>(argc, argv, &RateReporter::PrintRates);
}
