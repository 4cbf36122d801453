// How fast a capture keeps traps in a pcapng file: MCP trap packets streamed over an abstract
// socket into the capture's own pipeline (the trap receiver, the collector that decodes each trap
// by the sample layout, and the pcapng output with its writer thread) writing a file on tmpfs,
// against a plain reader that writes the same stream's bytes into a file of the same folder. Every
// trap is an EM_LTE_SERVING_CELL_INFO laid out by the layout, so that decoding yields its name and
// fields. Goals: 4 KiB traps at no less than half the plain reader's byte rate; 64-byte traps at
// 1,000,000 or more per second. A trap lost by the capture would not count: `lost` shows there were
// none.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <glob.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "bench/trap_sender.h"
#include "capture/pcapng_output.h"
#include "capture/trap_collector.h"
#include "capture/wakeup.h"
#include "libtidewatch/trap/frame_decoder.h"
#include "libtidewatch/trap/monitor_trap_receiver.h"
#include "libtidewatch/trap/trap_decoder.h"

namespace {

using tidewatch_bench::Bytes;

constexpr size_t kBatchBytes = 4 << 20;  // sent per benchmark iteration
constexpr size_t kReadBufferSize = 256 << 10;
constexpr uint64_t kRestartBytes = 256ull << 20;  // files start again, so that tmpfs never fills

std::string Unique(const char* what) {
  return std::string(".tw_bench.") + what + "." + std::to_string(getpid());
}
std::string ScratchFile(const char* what, const char* extension) {
  const char* dir = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
  return std::string(dir) + "/tw_bench_" + what + "_" + std::to_string(getpid()) + extension;
}

void RemoveRing(const std::string& path) {
  glob_t found;
  const std::string pattern = path.substr(0, path.rfind('.')) + "_*";
  if (glob(pattern.c_str(), 0, nullptr, &found) == 0) {
    for (size_t i = 0; i < found.gl_pathc; ++i) unlink(found.gl_pathv[i]);
  }
  globfree(&found);
}

const libtidewatch::FrameDecoder& Layout() {
  static const auto* layout = [] {
    auto* d = new libtidewatch::FrameDecoder;
    if (!d->LoadFromDESC(TIDEWATCH_SOURCE_DIR "/resources/twd_layout_desc.dat")) {
      fprintf(stderr, "the sample layout did not load\n");
    }
    return d;
  }();
  return *layout;
}

// About kBatchBytes of MCP packets, each one EM trap of `trapSize` payload bytes that the sample
// layout reads as EM_LTE_SERVING_CELL_INFO; `*traps` is how many.
Bytes ServingCellStream(size_t trapSize, uint64_t* traps) {
  Bytes payload(trapSize);
  for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<uint8_t>(i * 7);
  const libtidewatch::FrameDecoder& layout = Layout();
  auto put = [&](const libtidewatch::FrameDecoder::FIELD_INFO& at, uint64_t value) {
    for (uint64_t i = 0; i < at.size && at.offset + i < payload.size(); ++i) {
      payload[at.offset + i] = static_cast<uint8_t>(value >> (8 * i));
    }
  };
  put(layout.m_msgID, 2000);
  put(layout.m_msgSIMIdx, 1);
  return tidewatch_bench::EmTrapStream(payload, kBatchBytes, traps);
}

// Waits until `done` holds, looking rarely enough to leave the pipeline its cores. A batch takes
// milliseconds, so the look adds well under 2% to it.
template <class Done>
void WaitFor(Done done) {
  while (!done()) std::this_thread::sleep_for(std::chrono::microseconds(200));
}

void BM_CaptureToPcapng(benchmark::State& state) {
  uint64_t traps = 0;
  const Bytes stream = ServingCellStream(static_cast<size_t>(state.range(0)), &traps);
  const libtidewatch::TrapDecoder decoder(Layout());
  capture::Wakeup wakeup;
  capture::TrapCollector collector(decoder, 0, wakeup);
  capture::PcapngOutput::Config config;
  config.path = ScratchFile("capture", ".pcapng");
  // Ring files of one: the file starts again now and then, as the plain reader's does.
  config.ringBytes = kRestartBytes;
  config.ringFiles = 1;
  config.userAppl = "tide_watch_capture bench";
  capture::PcapngOutput output(config, &wakeup);
  std::string error;
  if (!output.Start(&error)) {
    state.SkipWithError(error.c_str());
    return;
  }
  collector.SetFile(&output);
  const std::string server = Unique("capture");
  libtidewatch::MonitorTrapReceiver receiver(1, server.c_str());
  collector.Attach(&receiver);
  const int fd = libtidewatch::ConnectAbstract("1" + server);
  if (fd < 0) {
    state.SkipWithError("cannot connect to the receiver");
    return;
  }
  uint64_t sent = 0;
  for (auto _ : state) {
    sent += traps;
    if (!tidewatch_bench::WriteAll(fd, stream)) {
      state.SkipWithError("write failed");
      break;
    }
    // Taken by the capture, then in the file.
    WaitFor([&] { return collector.traps() >= sent; });
    WaitFor([&] { return output.unwritten() == 0 || output.Failed(); });
  }
  close(fd);
  capture::TrapCollector::Detach(&receiver);
  output.Finish();
  RemoveRing(config.path);
  state.counters["lost"] = static_cast<double>(output.lost());
  state.SetItemsProcessed(static_cast<int64_t>(sent - output.lost()));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * stream.size()));
}
BENCHMARK(BM_CaptureToPcapng)->Arg(64)->Arg(4096)->UseRealTime()->Unit(benchmark::kMillisecond);

// The yardstick: accepts one client and writes everything it reads into a file, nothing else.
void BM_PlainReaderToFile(benchmark::State& state) {
  uint64_t traps = 0;
  const Bytes stream = ServingCellStream(static_cast<size_t>(state.range(0)), &traps);
  const std::string name = Unique("plain");
  sockaddr_un addr;
  const socklen_t len = libtidewatch::MakeAbstractAddress(name, &addr);
  const int server = socket(AF_UNIX, SOCK_STREAM, 0);
  const std::string path = ScratchFile("plain", ".bin");
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (server < 0 || file < 0 || bind(server, reinterpret_cast<sockaddr*>(&addr), len) != 0 ||
      listen(server, 1) != 0) {
    state.SkipWithError("cannot set up the plain reader");
    return;
  }
  std::atomic<uint64_t> stored{0};
  std::atomic<bool> stop{false};
  std::thread reader([&] {
    const int client = accept(server, nullptr, nullptr);
    Bytes buffer(kReadBufferSize);
    uint64_t inFile = 0;
    while (client >= 0 && !stop) {
      pollfd p{client, POLLIN, 0};
      if (poll(&p, 1, 100) <= 0) continue;
      const ssize_t n = read(client, buffer.data(), buffer.size());
      if (n <= 0) break;
      if (write(file, buffer.data(), static_cast<size_t>(n)) != n) break;
      inFile += static_cast<uint64_t>(n);
      if (inFile >= kRestartBytes) {
        if (ftruncate(file, 0) != 0 || lseek(file, 0, SEEK_SET) != 0) break;
        inFile = 0;
      }
      stored += static_cast<uint64_t>(n);
    }
    if (client >= 0) close(client);
  });
  const int fd = libtidewatch::ConnectAbstract(name);
  uint64_t sent = 0;
  for (auto _ : state) {
    sent += stream.size();
    if (fd < 0 || !tidewatch_bench::WriteAll(fd, stream)) {
      state.SkipWithError("write failed");
      break;
    }
    WaitFor([&] { return stored.load() >= sent; });
  }
  stop = true;
  if (fd >= 0) close(fd);
  reader.join();
  close(server);
  close(file);
  unlink(path.c_str());
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * traps));
  state.SetBytesProcessed(static_cast<int64_t>(sent));
}
BENCHMARK(BM_PlainReaderToFile)->Arg(64)->Arg(4096)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  // Only the socket road is measured: no service may be found and registered with.
  setenv("TIDEWATCH_HAL_SOCKET_PREFIX", Unique("nohal").c_str(), 1);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
