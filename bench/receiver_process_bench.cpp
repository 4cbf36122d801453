// Traps per second through a whole receiver process: the real `tide_watch_ctrl
// --run-trap-receiver` with its output going to a pipe, fed at full speed with 64-byte trap
// packets over its abstract socket, counting the "Receive frame" lines as they come out of the
// pipe. The yardstick is the least possible receiver, run the same way: a process that reads the
// socket with blocking reads, writes one line per trap and flushes once per read (this binary
// itself, started with --least-receiver). Also timed: how soon a lone trap's line can be read from
// the pipe (goal: within 20 ms). No service runs (a private socket prefix), so only the socket
// road is measured.
#include <benchmark/benchmark.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "bench/bench_main.h"
#include "bench/trap_sender.h"
#include "libtidewatch/api/monitor_types.h"
#include "tests/support/child_process.h"

namespace {

using tidewatch_bench::Bytes;
using Clock = std::chrono::steady_clock;
using libtidewatch::ConnectAbstract;
using libtidewatch::MakeAbstractAddress;
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

// Follows the read end of a pipe that another process writes lines to, counting the trap lines
// and the receiver's creation line, and keeping the last trap line for a check of its content.
class OutputFollower {
 public:
  explicit OutputFollower(int fd) : m_fd(fd) { fcntl(m_fd, F_SETFL, O_NONBLOCK); }
  ~OutputFollower() {
    if (m_fd >= 0) close(m_fd);
  }
  OutputFollower(const OutputFollower&) = delete;
  OutputFollower& operator=(const OutputFollower&) = delete;

  uint64_t frames() const { return m_frames; }
  bool created() const { return m_created; }
  const std::string& lastFrame() const { return m_lastFrame; }

  // Reads what has been written since the last call, without waiting.
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

  // Reads until `done()` holds; false when nothing new arrived for kStallLimit.
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
      pollfd ready = {m_fd, POLLIN, 0};
      poll(&ready, 1, 100);
    }
  }

 private:
  int m_fd;
  std::string m_line;
  std::string m_lastFrame;
  uint64_t m_frames = 0;
  bool m_created = false;
};

// A receiver process with its output on a pipe, fed through a connection to its socket.
class Receiver {
 public:
  // `command` serves abstract `socketName`; it prints a line starting with kCreatedPrefix once
  // traps sent to it are handled.
  Receiver(std::vector<std::string> command, const std::string& socketName) {
    int out = -1;
    const std::vector<std::string> args(command.begin() + 1, command.end());
    const bool started =
        tidewatch_test::StartChild(command[0], args, tidewatch_test::ChildOptions(), &m_pid, &out);
    m_output.reset(new OutputFollower(out));
    m_fd = started ? ConnectWithRetry(socketName, std::chrono::seconds(10)) : -1;
    // Traps sent before the handler is installed (right after the creation line) would be
    // dropped, so the line is awaited and a moment given on top.
    if (m_fd >= 0 && m_output->WaitFor([&] { return m_output->created(); })) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      m_ready = true;
    }
  }
  ~Receiver() {
    if (m_fd >= 0) close(m_fd);
    if (m_pid > 0) kill(m_pid, SIGKILL);  // it never exits by itself
    if (m_pid > 0) tidewatch_test::WaitChild(m_pid, 10000);
  }

  bool ready() const { return m_ready; }
  int fd() const { return m_fd; }
  OutputFollower& output() { return *m_output; }

 private:
  pid_t m_pid = -1;
  std::unique_ptr<OutputFollower> m_output;
  int m_fd = -1;
  bool m_ready = false;
};

std::vector<std::string> ToolCommand(const std::string& server) {
  return {std::string(TIDEWATCH_BIN_DIR) + "/tide_watch_ctrl", "--run-trap-receiver",
          "sessionId=" + std::to_string(kSessionId), "servername=" + server};
}

std::vector<std::string> LeastCommand(const std::string& socketName) {
  return {"/proc/self/exe", "--least-receiver", socketName};
}

// Streams 64-byte traps into `receiver` and counts their lines.
void MeasureLines(benchmark::State& state, Receiver& receiver) {
  const size_t trapSize = static_cast<size_t>(state.range(0));
  uint64_t traps = 0;
  const Bytes stream = TrapStream(trapSize, kBatchBytes, &traps);
  if (!receiver.ready()) {
    state.SkipWithError("the receiver did not come up");
    return;
  }
  OutputFollower& output = receiver.output();
  uint64_t sent = 0;
  for (auto _ : state) {
    sent += traps;
    // Written from another thread while this one drains the pipe: a receiver whose pipe is full
    // stops reading its socket.
    bool written = false;
    std::thread writer([&] { written = WriteAll(receiver.fd(), stream); });
    const bool printed = output.WaitFor([&] { return output.frames() >= sent; });
    if (!printed) shutdown(receiver.fd(), SHUT_WR);  // lets a blocked writer return
    writer.join();
    if (!written || !printed) {
      state.SkipWithError(written ? "the receiver stopped printing traps"
                                  : "write to the receiver failed");
      break;
    }
  }
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

void BM_ReceiverProcess(benchmark::State& state) {
  const std::string server = ".tw_bench.receiver." + std::to_string(getpid());
  Receiver receiver(ToolCommand(server), std::to_string(kSessionId) + server);
  MeasureLines(state, receiver);
}
BENCHMARK(BM_ReceiverProcess)->Arg(64)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_LeastReceiverProcess(benchmark::State& state) {
  const std::string name = ".tw_bench.least." + std::to_string(getpid());
  Receiver receiver(LeastCommand(name), name);
  MeasureLines(state, receiver);
}
BENCHMARK(BM_LeastReceiverProcess)->Arg(64)->UseRealTime()->Unit(benchmark::kMillisecond);

// One trap at a time into an idle receiver: the time until its line can be read from the pipe.
// The mean is the benchmark's time; the worst case is the counter max_ms.
void BM_LoneTrapLatency(benchmark::State& state) {
  const std::string server = ".tw_bench.lone." + std::to_string(getpid());
  Receiver receiver(ToolCommand(server), std::to_string(kSessionId) + server);
  uint64_t traps = 0;
  const Bytes trap = TrapStream(64, 64 + 19, &traps);
  if (!receiver.ready() || traps != 1) {
    state.SkipWithError("the receiver did not come up");
    return;
  }
  OutputFollower& output = receiver.output();
  double worst = 0;
  uint64_t sent = 0;
  for (auto _ : state) {
    const auto start = Clock::now();
    ++sent;
    if (!WriteAll(receiver.fd(), trap) ||
        !output.WaitFor([&] { return output.frames() >= sent; })) {
      state.SkipWithError("the trap's line did not come");
      break;
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    state.SetIterationTime(seconds);
    worst = std::max(worst, seconds);
    // Idle again before the next trap, as a lone trap finds the receiver.
    state.PauseTiming();
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    state.ResumeTiming();
  }
  state.counters["max_ms"] = worst * 1e3;
}
BENCHMARK(BM_LoneTrapLatency)->Iterations(200)->UseManualTime()->Unit(benchmark::kMillisecond);

// The least possible receiver (run as a child of this benchmark): serves abstract `name`, makes
// blocking reads of 256 KiB, writes one line per trap as the tool does, and flushes once per read.
// Bytes that are not a well-formed packet end it: the benchmark sends none.
int RunLeastReceiver(const char* name) {
  sockaddr_un addr;
  socklen_t len = MakeAbstractAddress(name, &addr);
  int server = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (server < 0 || bind(server, reinterpret_cast<sockaddr*>(&addr), len) != 0 ||
      listen(server, 4) != 0) {
    return 1;
  }
  printf("%sleast] was created.\n", kCreatedPrefix);
  fflush(stdout);
  std::vector<uint8_t> buffer(256 << 10);
  for (;;) {
    int client = accept(server, nullptr, nullptr);
    if (client < 0) return 1;
    size_t held = 0;
    for (;;) {
      ssize_t n = read(client, buffer.data() + held, buffer.size() - held);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      held += static_cast<size_t>(n);
      size_t at = 0;
      // A packet: 10 bytes of MCP header, then a trap record: type (1), length (4), payload.
      while (held - at >= 15) {
        const uint8_t* p = buffer.data() + at;
        const size_t packet =
            10 + (p[6] | p[7] << 8 | p[8] << 16 | static_cast<size_t>(p[9]) << 24);
        if (packet > buffer.size()) return 1;
        if (held - at < packet) break;
        const uint32_t trapLength =
            p[11] | p[12] << 8 | p[13] << 16 | static_cast<uint32_t>(p[14]) << 24;
        printf("Receive frame: time = [%u] type = [%d] len =[%zu]\n", 0u, static_cast<int>(p[10]),
               static_cast<size_t>(trapLength));
        at += packet;
      }
      fflush(stdout);
      memmove(buffer.data(), buffer.data() + at, held - at);
      held -= at;
    }
    close(client);
  }
}

// Prints the trap rates at the end, and the tool's against the least possible receiver.
class ReceiverRateReporter : public tidewatch_bench::RateReporter {
 public:
  ReceiverRateReporter() : RateReporter("through the whole receiver process") {}
  void PrintSummary() const {
    PrintRates();
    const double tool = Rate("BM_ReceiverProcess/64/real_time");
    const double least = Rate("BM_LeastReceiverProcess/64/real_time");
    if (tool > 0 && least > 0) {
      printf("tool / least possible receiver: %.2f (goal: 0.30 or more)\n", tool / least);
    }
  }
};

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && strcmp(argv[1], "--least-receiver") == 0) return RunLeastReceiver(argv[2]);
  // A private prefix: no service is found, so the receiver registers nowhere and every trap
  // comes through its socket.
  setenv("TIDEWATCH_HAL_SOCKET_PREFIX",
         (".tw_bench.nohal." + std::to_string(getpid()) + ".").c_str(), 1);
  return tidewatch_bench::RunBenchmarks<ReceiverRateReporter>(argc, argv,
                                                              &ReceiverRateReporter::PrintSummary);
}
