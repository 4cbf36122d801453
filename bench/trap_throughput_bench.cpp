// Trap throughput of the socket road: MCP trap packets streamed over an abstract-namespace socket
// into a MonitorTrapReceiver whose handler only counts, against a plain reader that only makes
// blocking reads of the same stream from the same kind of socket into a 256 KiB buffer. Prints
// both rates and their ratio at the end. Goals: 5,000,000 traps per second for 64-byte traps, and
// at least half the plain reader's rate for 4 KiB traps.
#include <benchmark/benchmark.h>
#include <errno.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bench/bench_main.h"
#include "bench/trap_sender.h"
#include "libtidewatch/trap/monitor_trap_receiver.h"

namespace {

using libtidewatch::ConnectAbstract;
using libtidewatch::MakeAbstractAddress;
using tidewatch_bench::Bytes;
using tidewatch_bench::TrapStream;
using tidewatch_bench::WriteAll;

constexpr size_t kBatchBytes = 4 << 20;  // written per benchmark iteration
constexpr size_t kReadBufferSize = 256 << 10;

std::string UniqueName(const char* what) {
  return std::string(".tw_bench.") + what + "." + std::to_string(getpid());
}

// A count that a waiting thread can follow without polling.
class Progress {
 public:
  void Add(uint64_t n) {
    if (m_count.fetch_add(n) + n >= m_target.load()) {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_reached.notify_all();
    }
  }
  // Set before the data that reaches `n` is sent, so that the counting side wakes the waiter only
  // once per batch.
  void Expect(uint64_t n) { m_target.store(n); }
  void Wait() {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_reached.wait(lock, [&] { return m_count.load() >= m_target.load(); });
  }

 private:
  std::atomic<uint64_t> m_count{0};
  std::atomic<uint64_t> m_target{UINT64_MAX};
  std::mutex m_mutex;
  std::condition_variable m_reached;
};

void CountTrap(void* context, unsigned int, libtidewatch::TRAP_TYPE, unsigned long,
               const unsigned char*, unsigned long) {
  static_cast<Progress*>(context)->Add(1);
}

void BM_TrapReceiver(benchmark::State& state) {
  uint64_t traps = 0;
  const Bytes stream = TrapStream(static_cast<size_t>(state.range(0)), kBatchBytes, &traps);
  Progress progress;
  const std::string server = UniqueName("receiver");
  libtidewatch::MonitorTrapReceiver receiver(1, server.c_str());
  receiver.userData = &progress;
  receiver.trapHandler = &CountTrap;
  int fd = ConnectAbstract("1" + server);
  if (fd < 0) {
    state.SkipWithError("cannot connect to the receiver");
    return;
  }
  uint64_t sent = 0;
  for (auto _ : state) {
    sent += traps;
    progress.Expect(sent);
    if (!WriteAll(fd, stream)) {
      state.SkipWithError("write failed");
      break;
    }
    progress.Wait();
  }
  close(fd);
  state.SetItemsProcessed(static_cast<int64_t>(sent));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * stream.size()));
}
BENCHMARK(BM_TrapReceiver)->Arg(64)->Arg(4096)->UseRealTime()->Unit(benchmark::kMillisecond);

// Accepts one client and reads everything it sends with plain blocking reads into a 256 KiB
// buffer, counting bytes: the least a reader of such a socket can do, so the receiver's yardstick.
class PlainReader {
 public:
  explicit PlainReader(const std::string& name) : m_name(name), m_buffer(kReadBufferSize) {
    sockaddr_un addr;
    socklen_t len = MakeAbstractAddress(name, &addr);
    m_server = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(m_server, reinterpret_cast<sockaddr*>(&addr), len) != 0 || listen(m_server, 4) != 0) {
      close(m_server);
      m_server = -1;
      return;
    }
    m_thread = std::thread([this] { Run(); });
  }
  // The client closes its end first, which ends the reads; a client that never came is stood in
  // for, so that the blocked accept returns.
  ~PlainReader() {
    if (m_thread.joinable()) {
      if (!m_accepted.load()) {
        int fd = ConnectAbstract(m_name);
        if (fd >= 0) close(fd);
      }
      m_thread.join();
    }
    if (m_server >= 0) close(m_server);
  }
  bool ok() const { return m_server >= 0; }
  Progress& progress() { return m_progress; }

 private:
  void Run() {
    int client = accept(m_server, nullptr, nullptr);
    m_accepted = true;
    if (client < 0) return;
    for (;;) {
      ssize_t n = read(client, m_buffer.data(), m_buffer.size());
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      m_progress.Add(static_cast<uint64_t>(n));
    }
    close(client);
  }

  std::string m_name;
  Bytes m_buffer;
  int m_server = -1;
  std::atomic<bool> m_accepted{false};
  Progress m_progress;
  std::thread m_thread;
};

void BM_PlainReader(benchmark::State& state) {
  uint64_t traps = 0;
  const Bytes stream = TrapStream(static_cast<size_t>(state.range(0)), kBatchBytes, &traps);
  const std::string name = UniqueName("plain");
  PlainReader reader(name);
  int fd = reader.ok() ? ConnectAbstract(name) : -1;
  if (fd < 0) {
    state.SkipWithError("cannot set up the plain reader");
    return;
  }
  uint64_t sent = 0;
  for (auto _ : state) {
    sent += stream.size();
    reader.progress().Expect(sent);
    if (!WriteAll(fd, stream)) {
      state.SkipWithError("write failed");
      break;
    }
    reader.progress().Wait();
  }
  close(fd);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * traps));
  state.SetBytesProcessed(static_cast<int64_t>(sent));
}
BENCHMARK(BM_PlainReader)->Arg(64)->Arg(4096)->UseRealTime()->Unit(benchmark::kMillisecond);

// Keeps every run's rates for the comparison printed at the end.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration || run.iterations == 0) continue;
      auto items = run.counters.find("items_per_second");
      auto bytes = run.counters.find("bytes_per_second");
      if (items == run.counters.end() || bytes == run.counters.end()) continue;
      m_rates[run.benchmark_name()] = {items->second.value, bytes->second.value};
    }
    ConsoleReporter::ReportRuns(runs);
  }
  void PrintRatios() {
    for (const char* size : {"64", "4096"}) {
      auto receiver = m_rates.find(std::string("BM_TrapReceiver/") + size + "/real_time");
      auto plain = m_rates.find(std::string("BM_PlainReader/") + size + "/real_time");
      if (receiver == m_rates.end() || plain == m_rates.end() || plain->second.bytes <= 0) continue;
      printf(
          "%5s-byte traps: receiver %.0f traps/s, %.1f MB/s; plain reader %.1f MB/s; "
          "receiver / plain %.2f\n",
          size, receiver->second.items, receiver->second.bytes / 1e6, plain->second.bytes / 1e6,
          receiver->second.bytes / plain->second.bytes);
    }
    printf(
        "goals: 64-byte traps at 5000000 traps/s or more; 4096-byte traps at a ratio of 0.50 "
        "or more\n");
  }

 private:
  struct Rates {
    double items;
    double bytes;
  };
  std::map<std::string, Rates> m_rates;
};

}  // namespace

int main(int argc, char** argv) {
  // Only the socket road is measured: no service may be found and registered with.
  setenv("TIDEWATCH_HAL_SOCKET_PREFIX", UniqueName("nohal").c_str(), 1);
  return tidewatch_bench::RunBenchmarks<RatioReporter>(argc, argv, &RatioReporter::PrintRatios);
}
