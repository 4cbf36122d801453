// The report page in a real browser: headless Chromium loads it with no network, draws a chart
// with data for every EM field, logs no console message at all (no script error, no blocked
// request: the page's policy refuses every fetch, so a reference out of the page would show here),
// and renders it to an image.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "capture/report/html_report.h"
#include "capture/report/report_builder.h"
#include "tests/support/report_charts.h"
#include "tests/support/scratch_dir.h"

namespace {

using capture::ReportBuilder;
using libtidewatch::CapturedTrap;

constexpr int64_t kT0 = 1'795'000'000'000'000;
constexpr auto kBrowserDeadline = std::chrono::seconds(45);  // a loaded 2-core machine is slow
const char kChromium[] = "/usr/bin/chromium";

class HtmlReportBrowserTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(dir_.path().empty());
    ASSERT_EQ(access(kChromium, X_OK), 0) << "no Chromium: run scripts/install-deps.sh";
  }

  // Runs headless Chromium on the page with `mode` (--dump-dom, --screenshot=...), standard output
  // and error into files of the scratch folder; its exit status, or -1 when it overran the deadline
  // (it is killed then, with every process it started).
  int RunChromium(const std::string& page, const std::string& mode) {
    std::vector<std::string> args = {kChromium,
                                     "--headless",
                                     "--no-sandbox",
                                     "--disable-gpu",
                                     "--disable-background-networking",
                                     "--disable-component-update",
                                     "--disable-sync",
                                     "--no-first-run",
                                     "--hide-scrollbars",
                                     "--user-data-dir=" + dir_.path() + "/profile",
                                     "--enable-logging=stderr",
                                     "--v=0",
                                     "--window-size=1280,2200",
                                     mode,
                                     "file://" + page};
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    std::string out = dir_.path() + "/stdout";
    std::string err = dir_.path() + "/stderr";
    pid_t pid = fork();
    if (pid == 0) {
      setpgid(0, 0);
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      int o = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      int e = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      if (o < 0 || e < 0 || dup2(o, 1) < 0 || dup2(e, 2) < 0) _exit(126);
      execv(argv[0], argv.data());
      _exit(127);
    }
    if (pid < 0) return -1;
    auto deadline = std::chrono::steady_clock::now() + kBrowserDeadline;
    int status = 0;
    while (waitpid(pid, &status, WNOHANG) == 0) {
      if (std::chrono::steady_clock::now() > deadline) {
        kill(-pid, SIGKILL);
        waitpid(pid, &status, 0);
        return -1;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    kill(-pid, SIGKILL);  // helpers it may have left behind
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

  tidewatch_test::ScratchDir dir_{"report_browser"};
};

TEST_F(HtmlReportBrowserTest, ChartsEveryFieldWithNoConsoleMessage) {
  ReportBuilder builder;
  builder.SetSource("emulator <img src=//x.example/a>");
  const char* hostile = "EM_\"><script>document.title='x'</script><img src=//x.example/b>";
  for (int i = 0; i < 3000; ++i) {
    CapturedTrap trap;
    trap.seq = i + 1;
    trap.timeUs = kT0 + i * 200'000;
    trap.decoded.sim = {static_cast<uint64_t>(i % 2), true};
    if (i % 3 == 0) {
      trap.decoded.type = libtidewatch::TRAP_TYPE_OTA;
      trap.decoded.msgName = "LTE_RRC_PAGING";
      trap.decoded.pduLength = {12, true};
    } else {
      trap.decoded.type = libtidewatch::TRAP_TYPE_EM;
      trap.decoded.msgName = i % 3 == 1 ? "EM_LTE_SERVING_CELL_INFO" : hostile;
      trap.decoded.fields = {{"RSRP", 90u + i % 17}, {"RSRQ", 10u + i % 5}, {"SINR", 20u}};
    }
    if (i == 1000) trap.discards[libtidewatch::TRAP_TYPE_EM] = 9;
    builder.Add(trap);
  }
  builder.AddToolDrop(kT0 + 400'000'000, libtidewatch::TRAP_TYPE_OTA, 4);
  builder.SetStoppedAt(
      "block 3002 (EPB 0x00000006) at byte offset 91234: the block runs past the end");
  std::string page = dir_.path() + "/report.html";
  std::string error;
  ASSERT_TRUE(capture::HtmlReport(builder.data()).WriteFile(page, &error)) << error;

  ASSERT_EQ(RunChromium(page, "--dump-dom"), 0) << dir_.Read("stderr");
  std::string dom = dir_.Read("stdout");
  std::string log = dir_.Read("stderr");
  EXPECT_EQ(log.find(":CONSOLE"), std::string::npos) << log;
  EXPECT_NE(dom.find("<title>Capture report"), std::string::npos) << "the page's own title";
  EXPECT_EQ(dom.find("<script"), std::string::npos);
  EXPECT_EQ(dom.find("<img"), std::string::npos);
  EXPECT_NE(dom.find("id=\"damaged\""), std::string::npos);

  // Two messages with three fields each: six charts, each with a line through its points.
  int charts = 0;
  for (const tidewatch_test::ReportChart& chart : tidewatch_test::FindReportCharts(dom)) {
    EXPECT_GT(chart.points, 100u) << chart.field;
    EXPECT_TRUE(chart.drawn) << chart.field;
    ++charts;
  }
  EXPECT_EQ(charts, 6);
  EXPECT_NE(dom.find("<g class=\"mark m0\">"), std::string::npos) << "the service's drop marked";
  EXPECT_NE(dom.find("<g class=\"mark m1\">"), std::string::npos) << "the tool's drop marked";

  std::string png = dir_.path() + "/report.png";
  ASSERT_EQ(RunChromium(page, "--screenshot=" + png), 0) << dir_.Read("stderr");
  log = dir_.Read("stderr");
  EXPECT_EQ(log.find(":CONSOLE"), std::string::npos) << log;
  std::string image = dir_.Read("report.png");
  ASSERT_GT(image.size(), 24u);
  EXPECT_EQ(image.substr(0, 8), "\x89PNG\r\n\x1a\n");
  auto be32 = [&](size_t at) {
    return (uint32_t{static_cast<uint8_t>(image[at])} << 24) |
           (uint32_t{static_cast<uint8_t>(image[at + 1])} << 16) |
           (uint32_t{static_cast<uint8_t>(image[at + 2])} << 8) |
           static_cast<uint8_t>(image[at + 3]);
  };
  EXPECT_EQ(be32(16), 1280u);  // the IHDR's width
  EXPECT_GT(image.size(), 50'000u) << "a page of charts is not a blank image";
}

}  // namespace
