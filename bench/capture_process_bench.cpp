// Traps per second through the whole capture tool: the real `tide_watch_capture --format json`
// writing to /dev/null, with its session on the real service emulator, fed 64-byte EM trap packets
// over its socket as fast as one writer can. The socket's buffer holds well under a millisecond of
// traps, so the time the writer takes for a million traps is the time the tool takes to read,
// decode and print them; the tool's own count (-c) then proves that none was lost.
#include <benchmark/benchmark.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "bench/bench_main.h"
#include "bench/trap_sender.h"
#include "libtidewatch/api/json_cmd_encoder.h"
#include "libtidewatch/api/monitor_cmd_proxy.h"
#include "tests/support/child_process.h"

namespace {

using Clock = std::chrono::steady_clock;
using tidewatch_bench::Bytes;

constexpr size_t kBatchBytes = 1 << 20;
constexpr int kBatches = 100;  // about 1.4 million traps per run
constexpr int kLimitMs = 20000;
constexpr auto kLimit = std::chrono::milliseconds(kLimitMs);
constexpr size_t kPayloadOffset = 10 + 5;  // the MCP header, then the trap record's

// Ends (SIGKILL) and reaps a child that is still running.
void Kill(pid_t pid) {
  if (pid <= 0) return;
  kill(pid, SIGKILL);
  tidewatch_test::WaitChild(pid, 10000);
}

// Starts the emulator, into `*pid`; true once it has printed its ready line.
bool StartEmulator(pid_t* pid) {
  int out = -1;
  if (!tidewatch_test::StartChild(std::string(TIDEWATCH_BIN_DIR) + "/tidewatch_hal_emulator", {},
                                  tidewatch_test::ChildOptions(), pid, &out)) {
    return false;
  }
  std::string seen;
  const auto deadline = Clock::now() + kLimit;
  while (seen.find("ready\n") == std::string::npos && Clock::now() < deadline) {
    pollfd p{out, POLLIN, 0};
    if (poll(&p, 1, 100) <= 0) continue;
    char buf[256];
    const ssize_t n = read(out, buf, sizeof(buf));
    if (n <= 0) break;
    seen.append(buf, static_cast<size_t>(n));
  }
  close(out);
  return seen.find("ready\n") != std::string::npos;
}

// Waits until the capture's session has traps enabled: its receiver takes traps from then on.
bool WaitEnabled(unsigned long sessionId) {
  libtidewatch::MonitorCmdProxy<libtidewatch::JsonCmdEncoder> proxy;
  const auto deadline = Clock::now() + kLimit;
  while (Clock::now() < deadline) {
    libtidewatch::MONITOR_SESSION_STATUS status;
    if (proxy.GetSession(0, sessionId, status) == 0 && status.trapEnabled) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return false;
}

void BM_CaptureProcess(benchmark::State& state) {
  const size_t trapSize = static_cast<size_t>(state.range(0));
  uint64_t perBatch = 0;
  Bytes stream = tidewatch_bench::TrapStream(trapSize, kBatchBytes, &perBatch);
  // Each trap becomes EM_LTE_SERVING_CELL_INFO (id 2000 at payload offset 4 in the sample
  // layout), so that every line carries a name and decoded fields, as a real capture's would.
  const size_t packetSize = stream.size() / perBatch;
  for (size_t at = 0; at < stream.size(); at += packetSize) {
    stream[at + kPayloadOffset + 4] = 2000 & 0xff;
    stream[at + kPayloadOffset + 5] = 2000 >> 8;
  }
  const uint64_t traps = perBatch * kBatches;

  pid_t emulator = -1;
  if (!StartEmulator(&emulator)) {
    Kill(emulator);
    state.SkipWithError("the emulator did not come up");
    return;
  }
  const std::string name = ".tw_bench.capture." + std::to_string(getpid());
  unsigned long sessionId = 0;
  uint64_t sent = 0;
  for (auto _ : state) {
    ++sessionId;  // the emulator numbers sessions from 1
    tidewatch_test::ChildOptions options;
    options.dropStdout = true;
    pid_t capture = -1;
    int fd = -1;
    if (tidewatch_test::StartChild(std::string(TIDEWATCH_BIN_DIR) + "/tide_watch_capture",
                                   {"--em", "2000", "--format", "json", "--receiver-name", name,
                                    "-c", std::to_string(traps)},
                                   options, &capture, &fd) &&
        WaitEnabled(sessionId)) {
      fd = libtidewatch::ConnectAbstract(std::to_string(sessionId) + name);
    }
    if (fd < 0) {
      Kill(capture);
      state.SkipWithError("the capture did not come up");
      break;
    }
    const auto start = Clock::now();
    bool written = true;
    for (int i = 0; i < kBatches && written; ++i) written = tidewatch_bench::WriteAll(fd, stream);
    const auto end = Clock::now();
    close(fd);
    // Its exit status once it has ended by itself; a capture still running after the limit is
    // killed and shows as -9.
    const int status = tidewatch_test::WaitChild(capture, kLimitMs);
    if (!written || status != 0) {
      state.SkipWithError(
          ("the capture did not take every trap (exit status " + std::to_string(status) + ")")
              .c_str());
      break;
    }
    state.SetIterationTime(std::chrono::duration<double>(end - start).count());
    sent += traps;
  }
  Kill(emulator);
  state.SetItemsProcessed(static_cast<int64_t>(sent));
  state.SetBytesProcessed(static_cast<int64_t>(sent / perBatch * stream.size()));
}
BENCHMARK(BM_CaptureProcess)
    ->Arg(64)
    ->Iterations(3)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

class CaptureRateReporter : public tidewatch_bench::RateReporter {
 public:
  CaptureRateReporter() : RateReporter("through the capture tool writing JSON") {}
};

}  // namespace

int main(int argc, char** argv) {
  // A private service for the run; the capture's summary goes to the log like any output.
  setenv("TIDEWATCH_HAL_SOCKET_PREFIX",
         (".tw_bench.capture." + std::to_string(getpid()) + ".").c_str(), 1);
  return tidewatch_bench::RunBenchmarks<CaptureRateReporter>(argc, argv,
                                                             &CaptureRateReporter::PrintRates);
}
