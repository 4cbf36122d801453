// The capture tool's --report against the emulated service: on a live run the page is written at
// the end with a chart for every field of the EM messages captured; a capture file read back gives
// the same charts, and a damaged one a page that says where reading stopped; an output that cannot
// be written is refused before anything else is done.
#include <gtest/gtest.h>
#include <unistd.h>

#include <set>
#include <string>
#include <vector>

#include "tests/support/capture_service_fixture.h"
#include "tests/support/ctrl_process.h"
#include "tests/support/emulator_process.h"
#include "tests/support/report_charts.h"
#include "tests/support/scratch_dir.h"

namespace {

using tidewatch_test::CtrlProcess;

class CaptureReportTest : public tidewatch_test::CaptureServiceFixture {
 protected:
  void SetUp() override {
    CaptureServiceFixture::SetUp();
    if (HasFatalFailure()) return;
    ASSERT_TRUE(emulator_.Start({"--trap-rate=200"}));
  }

  // Runs the capture to its end; its exit status.
  int Capture(const std::vector<std::string>& args) {
    std::vector<std::string> all = WithReceiverName({"-q"});
    all.insert(all.end(), args.begin(), args.end());
    if (!capture_.Start(dir_.path(), all)) return -1;
    capture_.ReadAll();
    return capture_.Wait();
  }

  CtrlProcess capture_{CtrlProcess::CaptureBinaryPath(), CaptureErrPath()};
};

TEST_F(CaptureReportTest, LiveRunWritesItsReportAtTheEnd) {
  ASSERT_EQ(Capture({"--em", "EM_LTE_SERVING_CELL_INFO", "--ota", "LTE_RRC_PAGING", "--duration",
                     "1.5", "--report", "live.html"}),
            0)
      << dir_.Read("capture.err");
  std::string page = dir_.Read("live.html");
  std::set<std::string> fields;
  for (const tidewatch_test::ReportChart& chart : tidewatch_test::FindReportCharts(page)) {
    EXPECT_EQ(chart.message, "EM_LTE_SERVING_CELL_INFO");
    EXPECT_GT(chart.points, 0u) << chart.field;
    EXPECT_TRUE(chart.drawn) << chart.field;
    fields.insert(chart.field);
  }
  EXPECT_EQ(fields, (std::set<std::string>{"EARFCN", "PCI", "RSRP", "RSRQ", "SINR"}));
  EXPECT_NE(page.find("<td class=\"name\">LTE_RRC_PAGING</td>"), std::string::npos);
  EXPECT_NE(page.find("live capture"), std::string::npos);
  EXPECT_EQ(page.find("http://"), std::string::npos);
  EXPECT_EQ(page.find("https://"), std::string::npos);
}

TEST_F(CaptureReportTest, FileReadBackGivesTheSameChartsAndSaysWhereDamageStopsIt) {
  ASSERT_EQ(Capture({"--em", "EM_LTE_SERVING_CELL_INFO,EM_NR_SERVING_CELL_INFO", "--duration", "1",
                     "-w", "cap.pcapng", "--report", "live.html"}),
            0)
      << dir_.Read("capture.err");
  ASSERT_EQ(Capture({"-r", "cap.pcapng", "--report", "read.html"}), 0) << dir_.Read("capture.err");
  auto charts = [&](const std::string& name) {
    std::vector<std::string> found;
    for (const auto& c : tidewatch_test::FindReportCharts(dir_.Read(name))) {
      found.push_back(c.message + "/" + c.field + "/" + std::to_string(c.points));
    }
    return found;
  };
  EXPECT_EQ(charts("read.html").size(), 10u);
  EXPECT_EQ(charts("read.html"), charts("live.html"));

  // Cut inside its last packets, the file gives what it holds, and the page says where it ended.
  std::string file = dir_.Read("cap.pcapng");
  ASSERT_GT(file.size(), 4000u);
  ASSERT_TRUE(dir_.Write("cut.pcapng", file.substr(0, file.size() - 700)));
  EXPECT_EQ(Capture({"-r", "cut.pcapng", "--report", "cut.html"}), 1);
  std::string page = dir_.Read("cut.html");
  EXPECT_NE(page.find("<div class=\"alert\" id=\"damaged\"><strong>The capture is damaged.</strong>"
                      " Reading stopped at block "),
            std::string::npos);
  EXPECT_EQ(charts("cut.html").size(), 10u);
}

TEST_F(CaptureReportTest, UnwritableReportIsAUsageError) {
  EXPECT_EQ(Capture({"--em", "2000", "--report", "missing/r.html"}), 2);
  EXPECT_EQ(dir_.Read("capture.err"),
            "tide_watch_capture: cannot write missing/r.html: No such file or directory\n");
}

}  // namespace
