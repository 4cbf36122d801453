// The capture tool's files against the emulated service and capinfos: a capture written with -w
// and printed at once agrees with -r and with its report page, whole or cut; ring files stand
// alone; a stalled or vanished reader costs drops, never memory or the session.
#include <gtest/gtest.h>
#include <json/json.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "libtidewatch/pcapng/pcapng_reader.h"
#include "tests/support/capture_service_fixture.h"
#include "tests/support/report_charts.h"

namespace {

using libtidewatch::PcapngReader;
using tidewatch_test::CtrlProcess;

// A sanitizer's shadow memory and quarantine of freed blocks dwarf what the tool itself holds.
// They also slow the session's close, which ends a capture whose reader has gone.
constexpr long kResidentLimitKiB = (tidewatch_test::kSanitized ? 1024 : 64) * 1024;
constexpr auto kEndAfterReaderGone =
    std::chrono::milliseconds(tidewatch_test::kSanitized ? 3000 : 1500);

// The lines of `text`, without their line feeds.
std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  for (size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1) {
    lines.push_back(text.substr(at, end - at));
  }
  return lines;
}

// Whether `text` has the shape of `shape`, where # stands for any digit.
bool Shaped(const std::string& text, const std::string& shape) {
  for (size_t i = 0; i < text.size() && i < shape.size(); ++i) {
    if (shape[i] == '#' ? !isdigit(static_cast<unsigned char>(text[i])) : text[i] != shape[i]) {
      return false;
    }
  }
  return text.size() == shape.size();
}

class CaptureFileTest : public tidewatch_test::CaptureServiceFixture {
 protected:
  // Standard output of a shell command run in the scratch folder, cut off after 60 s.
  std::string Shell(const std::string& command) {
    return tidewatch_test::RunShell("cd " + dir_.path() + " && timeout -k 5 60 " + command);
  }

  // The traps of a ring file, each following the one read before it (from any file), and in
  // `*written` what its statistics block counts (0 when it has none); damage fails the test.
  size_t Traps(const std::string& file, uint64_t* written) {
    PcapngReader reader;
    std::string error;
    EXPECT_TRUE(reader.Open(dir_.path() + "/" + file, &error)) << error;
    libtidewatch::CapturedTrap trap;
    PcapngReader::Status s;
    size_t traps = 0;
    for (; (s = reader.Next(&trap)) == PcapngReader::kTrap; ++traps) {
      EXPECT_TRUE(lastSeq_ == 0 || trap.seq == lastSeq_ + 1) << file << ": " << trap.seq;
      lastSeq_ = trap.seq;
    }
    EXPECT_EQ(s, PcapngReader::kEnd) << file << ": " << reader.error();
    *written = reader.hasStats() ? reader.stats().written : 0;
    return traps;
  }

  // The EM charts of a report page: message/field/points.
  std::vector<std::string> Charts(const std::string& page) {
    std::vector<std::string> found;
    for (const auto& c : tidewatch_test::FindReportCharts(dir_.Read(page))) {
      EXPECT_TRUE(c.drawn && c.points > 0) << page << ": " << c.field;
      found.push_back(c.message + "/" + c.field + "/" + std::to_string(c.points));
    }
    return found;
  }

  uint64_t lastSeq_ = 0;  // the seq of the last trap that Traps read; 0 before the first
  const bool haveCapinfos_ = system("command -v capinfos >/dev/null 2>&1") == 0;
};

TEST_F(CaptureFileTest, OneRunReadsTheSameInEveryReader) {
  StartService({"--trap-rate=200"});
  const std::vector<std::string> selection = {
      "--ota", "LTE_RRC_MASTER_INFORMATION_BLOCK",
      "--em",  "EM_LTE_SERVING_CELL_INFO,EM_LTE_NEIGHBOUR_CELL_INFO",
      "-c",    "12"};
  // Live and back from the file, the same bytes in each format; each run writes a report too.
  std::string live;
  for (const char* format : {"text", "json"}) {
    SCOPED_TRACE(format);
    const std::string file = std::string("traps.") + format + ".pcapng";
    std::vector<std::string> args = selection;
    args.insert(args.end(), {"-w", file, "--format", format, "--report", "live.html"});
    const auto run = Capture(args);
    ASSERT_EQ(run.status, 0) << Stderr();
    ASSERT_EQ(Lines(run.out).size(), 12u) << run.out;
    const auto read = Capture({"-r", file, "--format", format});
    EXPECT_EQ(read.status, 0) << Stderr();
    EXPECT_EQ(read.out, run.out);
    live = run.out;
  }
  const std::string file = "traps.json.pcapng";

  // Each line an object, numbered from 1, with the traps' names and values decoded.
  std::string serving;
  uint64_t seq = 0;
  for (const std::string& line : Lines(live)) {
    SCOPED_TRACE(line);
    Json::Value trap;
    ASSERT_TRUE(Json::Reader().parse(line, trap, false));
    EXPECT_EQ(trap["seq"].asUInt64(), ++seq);
    EXPECT_TRUE(Shaped(trap["time"].asString(), "####-##-##T##:##:##.######Z"));  // RFC 3339
    if (trap["type"] == "OTA") {
      EXPECT_EQ(trap["trace"], "OTA_TRACE_LTE_RRC");
    } else {
      EXPECT_TRUE(trap["fields"].isMember("EARFCN") || trap["fields"].isMember("CELL_COUNT"));
    }
    if (trap["msg"] == "EM_LTE_SERVING_CELL_INFO") serving += line + "\n";
  }
  // --em filters by the names the file carries.
  EXPECT_EQ(Capture({"-r", file, "--format", "json", "--em", "EM_LTE_SERV*"}).out, serving);
  if (haveCapinfos_) {
    EXPECT_NE(Shell("capinfos -c " + file).find("Number of packets:   12\n"), std::string::npos);
  }

  // The report: a drawn chart for every field of the EM messages, the same from the file, and
  // nothing that the page would fetch from outside.
  const std::string page = dir_.Read("live.html");
  std::set<std::string> lteFields;
  for (const tidewatch_test::ReportChart& chart : tidewatch_test::FindReportCharts(page)) {
    if (chart.message == "EM_LTE_SERVING_CELL_INFO") lteFields.insert(chart.field);
  }
  EXPECT_EQ(lteFields, (std::set<std::string>{"EARFCN", "PCI", "RSRP", "RSRQ", "SINR"}));
  EXPECT_NE(page.find("<td class=\"name\">LTE_RRC_MASTER_INFORMATION_BLOCK</td>"),
            std::string::npos);
  EXPECT_NE(page.find("live capture"), std::string::npos);
  EXPECT_EQ(page.find("://"), std::string::npos);
  ASSERT_EQ(Capture({"-r", file, "--report", "read.html"}).status, 0) << Stderr();
  EXPECT_EQ(Charts("read.html"), Charts("live.html"));

  // A file cut inside its last packet: every trap before it, then where the damage is, on
  // standard error and in the report.
  const std::string cut = "cut.pcapng", bytes = dir_.Read(file);
  ASSERT_TRUE(dir_.Write(cut, bytes.substr(0, bytes.size() - 120)));
  const auto damaged = Capture({"-r", cut, "--format", "json", "--report", "cut.html"});
  EXPECT_EQ(damaged.status, 1);
  EXPECT_EQ(damaged.out, live.substr(0, live.rfind('\n', live.size() - 2) + 1));
  EXPECT_NE(Stderr().find(cut + ": block 14 (Enhanced Packet Block 0x00000006) at byte offset "),
            std::string::npos)
      << Stderr();
  EXPECT_NE(dir_.Read("cut.html")
                .find("<div class=\"alert\" id=\"damaged\"><strong>The capture is "
                      "damaged.</strong> Reading stopped at block 14 "),
            std::string::npos);
  EXPECT_EQ(Charts("cut.html").size(), Charts("live.html").size());
}

TEST_F(CaptureFileTest, EveryRingFileIsAWholeCaptureOnItsOwn) {
  StartService({"--trap-rate=400", "--trap-size=200"});
  ASSERT_EQ(
      Capture({"--em", "EM_*", "-q", "-w", "ring.pcapng", "-C", "0.01", "-W", "3", "-c", "150"})
          .status,
      0)
      << Stderr();
  // Three files are left, the last ones of the ring, each named by number and start time.
  const std::vector<std::string> files = Lines(Shell("ls ring_*"));
  EXPECT_EQ(files.size(), 3u);
  for (const std::string& file : files) {
    SCOPED_TRACE(file);
    EXPECT_TRUE(Shaped(file, "ring_#####_##############.pcapng"));
    EXPECT_GE(std::stoul(file.substr(5, 5)), 4u);  // the first ones were deleted
    if (haveCapinfos_) {
      EXPECT_NE(Shell("capinfos -c " + file + " && echo ok").find("\nok\n"), std::string::npos);
    }
    // Whole, with its statistics block, and continuing the previous file's traps.
    uint64_t written = 0;
    const size_t traps = Traps(file, &written);
    EXPECT_GT(traps, 0u);
    EXPECT_EQ(written, traps);
  }
  EXPECT_EQ(lastSeq_, 150u);
}

// Resident memory of `pid` in KiB, from /proc; 0 when unknown.
long ResidentKiB(pid_t pid) {
  long pages = 0, resident = 0;
  std::ifstream("/proc/" + std::to_string(pid) + "/statm") >> pages >> resident;
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

TEST_F(CaptureFileTest, AStalledReaderCostsDropsNotMemory) {
  // 80 MB/s of traps into a pipe nobody reads for a while.
  StartService({"--trap-rate=10000", "--trap-size=8000"});
  CtrlProcess capture(CtrlProcess::CaptureBinaryPath(), CaptureErrPath());
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
  PcapngReader reader;
  reader.OpenBuffer(reinterpret_cast<const uint8_t*>(out.data()), out.size());
  libtidewatch::CapturedTrap trap;
  while (reader.Next(&trap) == PcapngReader::kTrap) {
  }
  ASSERT_TRUE(reader.hasStats()) << reader.error();
  EXPECT_GT(reader.stats().toolDrops, 0u);
  const std::string lost = "dropped by the capture: " + std::to_string(reader.stats().toolDrops);
  EXPECT_NE(Stderr().find(lost + " "), std::string::npos) << Stderr();
  EXPECT_EQ(Sessions(), "1\n");
}

TEST_F(CaptureFileTest, AReaderThatGoesAwayEndsTheCaptureAndItsSession) {
  // With traps flowing, and with none at all (only the file's headers were ever written).
  for (const char* rate : {"--trap-rate=100", "--trap-rate=0"}) {
    SCOPED_TRACE(rate);
    StartService({rate});
    CtrlProcess capture(CtrlProcess::CaptureBinaryPath(), CaptureErrPath());
    ASSERT_TRUE(capture.Start(dir_.path(),
                              WithReceiverName({"--em", "EM_LTE_SERVING_CELL_INFO", "-w", "-"})));
    ASSERT_EQ(capture.ReadLine(5000), "\n");  // the first byte of the section header
    capture.ReadAll(300);                     // traps are enabled by now
    capture.CloseOutput();
    const auto closed = std::chrono::steady_clock::now();
    // A capture that went on is killed after 10 s, and its status says so.
    EXPECT_EQ(capture.Wait(), 0) << Stderr();
    EXPECT_LT(std::chrono::steady_clock::now() - closed, kEndAfterReaderGone);
    EXPECT_NE(Stderr().find("closed\n"), std::string::npos) << Stderr();
    EXPECT_EQ(Sessions(), "1\n");
  }
}

}  // namespace
