// How fast traps become pcapng: PcapngWriter encoding decoded traps (names, EM fields, PDU) into
// a buffer that is handed to a file every 256 KiB, as a capture's writer thread does, against a
// plain writer that puts the same trap records into a file of the same folder (tmpfs when there
// is one). Goals: 64-byte traps well over 1,000,000 per second, and 4 KiB traps into a file at no
// less than half the plain writer's byte rate.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "libtidewatch/pcapng/pcapng_file_sink.h"
#include "libtidewatch/pcapng/pcapng_writer.h"

namespace {

using libtidewatch::CapturedTrap;
using libtidewatch::PcapngFileSink;
using libtidewatch::PcapngWriter;
using libtidewatch::TrapBytes;

constexpr size_t kFlushBytes = 256 << 10;

std::string ScratchFile(const char* what) {
  const char* dir = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
  return std::string(dir) + "/tw_bench." + what + "." + std::to_string(getpid());
}

// An EM trap of `size` record bytes with five decoded fields, as a live capture holds it.
struct Sample {
  std::vector<uint8_t> record;
  CapturedTrap trap;
  explicit Sample(size_t size) : record(size, 0x33) {
    record[0] = libtidewatch::TRAP_TYPE_EM;
    trap.record = TrapBytes{record.data(), record.size()};
    trap.length = size - 5;
    trap.timeUs = 1700000000000000;
    auto& d = trap.decoded;
    d.type = libtidewatch::TRAP_TYPE_EM;
    d.payload = TrapBytes{record.data() + 5, size - 5};
    d.sim = {1, true};
    d.msgId = {2000, true};
    d.msgName = "EM_LTE_SERVING_CELL_INFO";
    for (const char* name : {"EARFCN", "PCI", "RSRP", "RSRQ", "SINR"})
      d.fields.push_back({name, 7});
  }
};

void BM_EncodeTraps(benchmark::State& state) {
  Sample sample(static_cast<size_t>(state.range(0)));
  PcapngWriter writer("tide_watch_capture bench");
  std::string buffer;
  buffer.reserve(kFlushBytes + 64 * 1024);
  writer.BeginSection(0, &buffer);
  for (auto _ : state) {
    sample.trap.seq++;
    writer.AppendTrap(sample.trap, 0, &buffer);
    if (buffer.size() >= kFlushBytes) buffer.clear();
  }
  benchmark::DoNotOptimize(buffer.data());
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_EncodeTraps)->Arg(64)->Arg(4096);

void BM_PcapngFile(benchmark::State& state) {
  Sample sample(static_cast<size_t>(state.range(0)));
  PcapngWriter writer("tide_watch_capture bench");
  PcapngFileSink sink;
  std::string error;
  const std::string path = ScratchFile("pcapng");
  if (!sink.Open(path, &error)) {
    state.SkipWithError(error.c_str());
    return;
  }
  std::string buffer;
  writer.BeginSection(0, &buffer);
  for (auto _ : state) {
    sample.trap.seq++;
    writer.AppendTrap(sample.trap, 0, &buffer);
    if (buffer.size() >= kFlushBytes) {
      if (!sink.Write(buffer, &error)) state.SkipWithError(error.c_str());
      buffer.clear();
      // Start the file again now and then, so that tmpfs does not fill up on long runs.
      if (sink.BytesWritten() >= (256u << 20)) sink.Open(path, &error);
    }
  }
  sink.Close(&error);
  unlink(path.c_str());
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_PcapngFile)->Arg(64)->Arg(4096)->UseRealTime();

// The yardstick: the same trap records copied into a buffer and written out, nothing else.
void BM_PlainFile(benchmark::State& state) {
  Sample sample(static_cast<size_t>(state.range(0)));
  const std::string path = ScratchFile("plain");
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) {
    state.SkipWithError("cannot create the plain file");
    return;
  }
  std::string buffer;
  size_t written = 0;
  for (auto _ : state) {
    buffer.append(reinterpret_cast<const char*>(sample.record.data()), sample.record.size());
    if (buffer.size() >= kFlushBytes) {
      if (write(fd, buffer.data(), buffer.size()) != static_cast<ssize_t>(buffer.size())) {
        state.SkipWithError("short write");
      }
      written += buffer.size();
      buffer.clear();
      if (written >= (256u << 20)) {
        if (ftruncate(fd, 0) != 0 || lseek(fd, 0, SEEK_SET) != 0) {
          state.SkipWithError("cannot start the plain file again");
        }
        written = 0;
      }
    }
  }
  close(fd);
  unlink(path.c_str());
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_PlainFile)->Arg(64)->Arg(4096)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
