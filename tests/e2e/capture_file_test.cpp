// The capture tool's files against the emulated service and the real pcapng tools: a capture
// written with -w and printed at once agrees with capinfos, with tshark and our dissector, and
// with -r; ring files stand alone; a stalled or vanished reader costs drops, never memory or the
// session.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "libtidewatch/pcapng/pcapng_reader.h"
#include "tests/support/capture_service_fixture.h"
#include "tests/support/child_process.h"
#include "tests/support/ctrl_process.h"
#include "tests/support/emulator_process.h"
#include "tests/support/scratch_dir.h"

namespace {

using tidewatch_test::CtrlProcess;
using tidewatch_test::RunCtrl;

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define TIDEWATCH_SANITIZED 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TIDEWATCH_SANITIZED 1
#endif
// A sanitizer's shadow memory and quarantine of freed blocks dwarf what the tool itself holds.
// They also slow the session's close, which ends a capture whose reader has gone.
#ifdef TIDEWATCH_SANITIZED
constexpr long kResidentLimitKiB = 1024 * 1024;
constexpr auto kEndAfterReaderGone = std::chrono::milliseconds(3000);
#else
constexpr long kResidentLimitKiB = 64 * 1024;
constexpr auto kEndAfterReaderGone = std::chrono::milliseconds(1500);
#endif

constexpr char kDissector[] = TIDEWATCH_SOURCE_DIR "/tools/wireshark/tidewatch.lua";

class CaptureFileTest : public tidewatch_test::CaptureServiceFixture {
 protected:
  // Runs the capture tool in the scratch folder to its end: its standard output and exit status.
  tidewatch_test::CtrlResult Capture(const std::vector<std::string>& args) {
    tidewatch_test::ChildOptions options;
    options.dir = dir_.path();
    options.stderrPath = CaptureErrPath();
    CtrlProcess capture(CtrlProcess::CaptureBinaryPath());
    if (!capture.Start(options, WithReceiverName(args))) return {-1000, ""};
    std::string out = capture.ReadAll(20000);
    return {capture.ended() ? capture.Wait() : capture.Stop(), out};
  }

  // Standard output of a shell command run in the scratch folder, cut off after 60 s.
  std::string Shell(const std::string& command) {
    std::string out;
    FILE* pipe = popen(("cd " + dir_.path() + " && timeout 60 " + command).c_str(), "r");
    if (pipe == nullptr) return "<popen failed>";
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, pipe)) > 0) out.append(buf, n);
    pclose(pipe);
    return out;
  }
  static bool HaveTools() {
    return system("command -v tshark >/dev/null 2>&1 && command -v capinfos >/dev/null 2>&1") == 0;
  }
};

// What follows `key` in `text` up to the first of `stops`; empty when `key` is not there.
std::string After(const std::string& text, const std::string& key, const char* stops) {
  const size_t at = text.find(key);
  if (at == std::string::npos) return "";
  const size_t from = at + key.size();
  return text.substr(from, text.find_first_of(stops, from) - from);
}

// What the dissector should show for one JSON line: seq|type|msg|sim|EM fields|MIB frame number.
std::string ExpectedFields(const std::string& json) {
  std::string line = After(json, "\"seq\":", ",") + "|" +
                     (After(json, "\"type\":\"", "\"") == "OTA" ? "2" : "3") + "|" +
                     After(json, "\"msg\":\"", "\"") + "|" + After(json, "\"sim\":", ",}") + "|";
  // EM fields in the order of the line: "A":1,"B":2 becomes A=1,B=2.
  for (char c : After(json, "\"fields\":{", "}")) {
    if (c != '"') line += c == ':' ? '=' : c;
  }
  line += "|";
  const std::string pdu = After(json, "\"pdu\":\"", "\"");
  if (json.find("MASTER_INFORMATION_BLOCK") != std::string::npos && pdu.size() >= 4) {
    // systemFrameNumber: the 8 bits after the first 6 of the MIB, shown by tshark in hex.
    const unsigned b0 = std::stoul(pdu.substr(0, 2), nullptr, 16);
    const unsigned b1 = std::stoul(pdu.substr(2, 2), nullptr, 16);
    char sfn[16];
    snprintf(sfn, sizeof sfn, "%02x", ((b0 & 3) << 6) | (b1 >> 2));
    line += sfn;
  }
  return line + "\n";
}

TEST_F(CaptureFileTest, OneRunReadsTheSameInEveryReader) {
  StartService({"--trap-rate=200"});
  const std::vector<std::string> selection = {
      "--ota", "LTE_RRC_MASTER_INFORMATION_BLOCK",
      "--em",  "EM_LTE_SERVING_CELL_INFO,EM_LTE_NEIGHBOUR_CELL_INFO",
      "-c",    "12"};
  for (const char* format : {"json", "text"}) {
    SCOPED_TRACE(format);
    const std::string file = std::string("traps.") + format + ".pcapng";
    std::vector<std::string> args = selection;
    args.insert(args.end(), {"-w", file, "--format", format});
    const auto live = Capture(args);
    ASSERT_EQ(live.status, 0) << Stderr();
    ASSERT_EQ(std::count(live.out.begin(), live.out.end(), '\n'), 12) << live.out;

    // Back from the file: the same bytes.
    const auto read = Capture({"-r", file, "--format", format});
    EXPECT_EQ(read.status, 0) << Stderr();
    EXPECT_EQ(read.out, live.out);
    if (std::string(format) != "json") continue;

    // --em filters by the names the file carries.
    std::string serving;
    for (size_t at = 0, end; (end = live.out.find('\n', at)) != std::string::npos; at = end + 1) {
      const std::string line = live.out.substr(at, end + 1 - at);
      if (line.find("\"EM_LTE_SERVING_CELL_INFO\"") != std::string::npos) serving += line;
    }
    EXPECT_EQ(Capture({"-r", file, "--format", "json", "--em", "EM_LTE_SERV*"}).out, serving);

    if (!HaveTools()) continue;
    EXPECT_NE(Shell("capinfos -c " + file).find("Number of packets:   12\n"), std::string::npos);
    std::string expected;
    for (size_t at = 0, end; (end = live.out.find('\n', at)) != std::string::npos; at = end + 1) {
      expected += ExpectedFields(live.out.substr(at, end - at));
    }
    EXPECT_EQ(Shell(std::string("tshark -X lua_script:") + kDissector + " -r " + file +
                    " -T fields -E separator='|' -e frame.packet_id -e tidewatch.type"
                    " -e tidewatch.msg_name -e tidewatch.sim -e tidewatch.em"
                    " -e lte-rrc.systemFrameNumber 2>/dev/null"),
              expected);
    EXPECT_NE(expected.find("LTE_RRC_MASTER_INFORMATION_BLOCK"), std::string::npos);

    // A file cut inside its last packet: every trap before it, then where the damage is.
    const std::string cut = "cut.pcapng";
    Shell("head -c $(( $(stat -c %s " + file + ") - 120 )) " + file + " > " + cut);
    const auto damaged = Capture({"-r", cut, "--format", "json"});
    EXPECT_EQ(damaged.status, 1);
    EXPECT_EQ(damaged.out, live.out.substr(0, live.out.rfind('\n', live.out.size() - 2) + 1));
    EXPECT_NE(Stderr().find(cut + ": block 14 (Enhanced Packet Block 0x00000006) at byte offset "),
              std::string::npos)
        << Stderr();
  }
}

TEST_F(CaptureFileTest, EveryRingFileIsAWholeCaptureOnItsOwn) {
  StartService({"--trap-rate=400", "--trap-size=200"});
  const struct {
    const char* name;
    std::vector<std::string> stop;
    int signal;
  } cases[] = {{"count", {"-c", "150"}, 0}, {"sigterm", {}, SIGTERM}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string base = std::string(c.name) + ".pcapng";
    std::vector<std::string> args = {"--em", "EM_*", "-q", "-w", base, "-C", "0.01", "-W", "3"};
    args.insert(args.end(), c.stop.begin(), c.stop.end());
    int status;
    if (c.signal == 0) {
      status = Capture(args).status;
    } else {
      CtrlProcess capture(CtrlProcess::CaptureBinaryPath());
      ASSERT_TRUE(capture.Start(dir_.path(), WithReceiverName(args)));
      // Long enough for several files at about 100 KB/s.
      std::this_thread::sleep_for(std::chrono::milliseconds(700));
      kill(capture.pid(), c.signal);
      capture.ReadAll(10000);
      status = capture.Wait();
    }
    EXPECT_EQ(status, 0) << Stderr();
    const std::string files = Shell(std::string("ls ") + c.name + "_*");
    // Three files are left, the last ones of the ring, each named by number and start time.
    EXPECT_EQ(std::count(files.begin(), files.end(), '\n'), 3) << files;
    for (size_t at = 0, end; (end = files.find('\n', at)) != std::string::npos; at = end + 1) {
      unsigned number = 0;
      char time[16] = {};
      int used = 0;
      const std::string format = std::string(c.name) + "_%5u_%14[0-9].pcapng%n";
      ASSERT_EQ(sscanf(files.c_str() + at, format.c_str(), &number, time, &used), 2) << files;
      EXPECT_EQ(at + static_cast<size_t>(used), end) << files;
      EXPECT_EQ(strlen(time), 14u) << files;
      EXPECT_GE(number, 4u) << files;  // the first ones were deleted
    }
    uint64_t nextSeq = 0;
    for (size_t at = 0, end; (end = files.find('\n', at)) != std::string::npos; at = end + 1) {
      const std::string file = files.substr(at, end - at);
      if (HaveTools()) {
        EXPECT_NE(Shell("capinfos -c " + file + " && echo ok").find("\nok\n"), std::string::npos)
            << file;
      }
      // Whole, with its statistics block, and continuing the previous file's traps.
      libtidewatch::PcapngReader reader;
      std::string error;
      ASSERT_TRUE(reader.Open(dir_.path() + "/" + file, &error)) << error;
      libtidewatch::CapturedTrap trap;
      uint64_t traps = 0;
      libtidewatch::PcapngReader::Status s;
      while ((s = reader.Next(&trap)) == libtidewatch::PcapngReader::kTrap) {
        if (nextSeq != 0) {
          EXPECT_EQ(trap.seq, nextSeq);
        }
        nextSeq = trap.seq + 1;
        ++traps;
      }
      EXPECT_EQ(s, libtidewatch::PcapngReader::kEnd) << file << ": " << reader.error();
      ASSERT_TRUE(reader.hasStats()) << file;
      EXPECT_EQ(reader.stats().written, traps) << file;
      EXPECT_GT(traps, 0u) << file;
    }
    if (c.signal == 0) {
      EXPECT_EQ(nextSeq, 151u);
    }
  }
}

// Resident memory of `pid` in KiB, from /proc; 0 when unknown.
long ResidentKiB(pid_t pid) {
  FILE* f = fopen(("/proc/" + std::to_string(pid) + "/status").c_str(), "r");
  if (f == nullptr) return 0;
  char line[256];
  long kib = 0;
  while (fgets(line, sizeof line, f) != nullptr) {
    if (sscanf(line, "VmRSS: %ld kB", &kib) == 1) break;
  }
  fclose(f);
  return kib;
}

TEST_F(CaptureFileTest, AStalledReaderCostsDropsNotMemory) {
  // 80 MB/s of traps into a pipe nobody reads for a while.
  StartService({"--trap-rate=10000", "--trap-size=8000"});
  CtrlProcess capture(CtrlProcess::CaptureBinaryPath(), dir_.path() + "/capture.err");
  ASSERT_TRUE(capture.Start(dir_.path(), WithReceiverName({"--em", "EM_*", "-w", "-"})));
  long peak = 0;
  for (int i = 0; i < 15; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    peak = std::max(peak, ResidentKiB(capture.pid()));
  }
  EXPECT_GT(peak, 0);
  EXPECT_LT(peak, kResidentLimitKiB);
  kill(capture.pid(), SIGTERM);
  // The reader catches up at last: the whole capture arrives, its losses counted in it.
  const std::string out = capture.ReadAll(10000);
  EXPECT_EQ(capture.Wait(), 0) << Stderr();
  const std::string lost = After(Stderr(), "dropped by the capture: ", " ");
  ASSERT_FALSE(lost.empty()) << Stderr();
  libtidewatch::PcapngReader reader;
  reader.OpenBuffer(reinterpret_cast<const uint8_t*>(out.data()), out.size());
  libtidewatch::CapturedTrap trap;
  while (reader.Next(&trap) == libtidewatch::PcapngReader::kTrap) {
  }
  ASSERT_TRUE(reader.hasStats()) << reader.error();
  EXPECT_GT(reader.stats().toolDrops, 0u);
  EXPECT_EQ(std::to_string(reader.stats().toolDrops), lost);
  EXPECT_EQ(Sessions(), "1\n");
}

TEST_F(CaptureFileTest, AReaderThatGoesAwayEndsTheCaptureAndItsSession) {
  // With traps flowing, and with none at all (only the file's headers were ever written).
  for (const char* rate : {"--trap-rate=100", "--trap-rate=0"}) {
    SCOPED_TRACE(rate);
    if (emulator_.running()) emulator_.Stop();
    StartService({rate});
    tidewatch_test::ChildOptions options;
    options.dir = dir_.path();
    options.stderrPath = CaptureErrPath();
    pid_t pid;
    int fd;
    ASSERT_TRUE(tidewatch_test::StartChild(
        CtrlProcess::CaptureBinaryPath(),
        WithReceiverName({"--em", "EM_LTE_SERVING_CELL_INFO", "-w", "-"}), options, &pid, &fd));
    pollfd p = {fd, POLLIN, 0};
    char buf[256];
    ASSERT_EQ(poll(&p, 1, 5000), 1);
    ASSERT_GT(read(fd, buf, sizeof buf), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // traps enabled by now
    close(fd);
    const auto closed = std::chrono::steady_clock::now();
    int status = -1;
    while (waitpid(pid, &status, WNOHANG) == 0 &&
           std::chrono::steady_clock::now() - closed < std::chrono::seconds(5)) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (!WIFEXITED(status)) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      FAIL() << "the capture went on after its reader had gone";
    }
    EXPECT_LT(std::chrono::steady_clock::now() - closed, kEndAfterReaderGone);
    EXPECT_EQ(WEXITSTATUS(status), 0) << Stderr();
    EXPECT_NE(Stderr().find("closed\n"), std::string::npos) << Stderr();
    EXPECT_EQ(Sessions(), "1\n");
  }
}

}  // namespace
