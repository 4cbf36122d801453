// The report page: hostile names stay text, nothing refers outside the page, every EM field gets a
// chart with data, a damaged capture says where reading stopped, and write errors are told; and in
// a real browser (headless Chromium, no network) the page draws those charts and logs no console
// message at all: no script error, no blocked request (the page's policy refuses every fetch, so a
// reference out of the page would show there). Its charts keep round axis steps and a least size.
#include "capture/report/html_report.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <set>
#include <string>

#include "capture/report/html_text.h"
#include "capture/report/report_builder.h"
#include "capture/report/svg_chart.h"
#include "tests/support/report_charts.h"
#include "tests/support/scratch_dir.h"

namespace {

using capture::ChartLine;
using capture::ChartPoint;
using capture::HtmlReport;
using capture::ReportBuilder;
using capture::SvgChart;
using libtidewatch::CapturedTrap;

constexpr int64_t kT0 = 1'795'000'000'000'000;
constexpr int64_t kSecondUs = 1000000;
const char kHostile[] = "EM_<script>alert(1)</script><img src=//x.example/a onerror=\"f()\">'&";
const char kChromium[] = "/usr/bin/chromium";

TEST(HtmlTextTest, EscapesMarkupControlsAndBrokenUtf8) {
  const std::string bad = "\xEF\xBF\xBD";  // U+FFFD
  const std::pair<std::string, std::string> cases[] = {
      {"LTE_RRC_PAGING", "LTE_RRC_PAGING"},
      {"<b a=\"1\" c='2'>&amp;", "&lt;b a=&quot;1&quot; c=&#39;2&#39;&gt;&amp;amp;"},
      {std::string("a\0b\n\x7f", 5), "a\\x00b\\x0A\\x7F"},
      {"\xC2\xB5s \xE2\x80\x94 \xF0\x9F\x93\xB6", "\xC2\xB5s \xE2\x80\x94 \xF0\x9F\x93\xB6"},
      // Stray, cut, overlong and surrogate sequences: a U+FFFD per byte that starts none.
      {"\xFF"
       "a\xE2\x82",
       bad + "a" + bad + bad},
      {"\xC0\xAF\xED\xA0\x80", bad + bad + bad + bad + bad},
  };
  for (const auto& [in, expected] : cases) EXPECT_EQ(capture::Escaped(in), expected) << in;
}

TEST(HtmlTextTest, FormatsTimesAndNumbers) {
  EXPECT_EQ(capture::UtcDateTime(kT0 + 123'456), "2026-11-18 11:06:40.123456 UTC");
  EXPECT_EQ(capture::UtcDateTime(-1), "1969-12-31 23:59:59.999999 UTC");
  EXPECT_EQ(capture::GroupedNumber(1'234'567), "1,234,567");
  EXPECT_EQ(capture::ShortNumber(-2.5),
            "\xE2\x88\x92"
            "2.5");
  const std::pair<int64_t, const char*> durations[] = {{850, "850 \xC2\xB5s"},
                                                       {12'400'000, "12.4 s"},
                                                       {1'203'000'000, "20 min 3 s"},
                                                       {7'500'000'000, "2 h 5 min"},
                                                       {277'200'000'000, "3 d 5 h"}};
  for (const auto& [us, text] : durations) EXPECT_EQ(capture::Duration(us), text) << us;
}

class HtmlReportTest : public ::testing::Test {
 protected:
  void AddEm(int64_t t, const char* name, std::vector<libtidewatch::DecodedField> fields,
             uint64_t sim) {
    CapturedTrap trap;
    trap.timeUs = t;
    trap.decoded.type = libtidewatch::TRAP_TYPE_EM;
    trap.decoded.msgName = name;
    trap.decoded.sim = {sim, true};
    trap.decoded.fields = std::move(fields);
    if (t == kT0 + 500 * 50'000) trap.discards[libtidewatch::TRAP_TYPE_EM] = 9;
    builder_.Add(trap);
  }

  // A damaged capture of two EM messages on two SIMs and hostile OTA names, dropped traps and a
  // hostile source: its page.
  std::string HostilePage() {
    for (int i = 0; i < 1100; ++i) {
      int64_t t = kT0 + i * 50'000;
      AddEm(t, "EM_LTE_SERVING_CELL_INFO", {{"RSRP", 100u + i % 9}, {"SINR", 20}}, i % 2);
      AddEm(t, kHostile, {{"<i>FIELD</i>", 7}}, 0);
      CapturedTrap ota;
      ota.timeUs = t + 5;
      ota.seq = i;
      ota.decoded.type = libtidewatch::TRAP_TYPE_OTA;
      ota.decoded.msgName = kHostile;
      builder_.Add(ota);
    }
    builder_.AddToolDrop(kT0 + 1'000'000, libtidewatch::TRAP_TYPE_EM, 5);
    builder_.SetSource("</title><script>document.title='x'</script><img src=//x.example/b>");
    builder_.SetStoppedAt("block 12 at byte offset 4096: <truncated>");
    return HtmlReport(builder_.data()).Render();
  }

  // The charts of `page`: message/field, each with more than 100 points and a drawn line.
  static std::set<std::string> Charts(const std::string& page) {
    std::set<std::string> charts;
    for (const tidewatch_test::ReportChart& chart : tidewatch_test::FindReportCharts(page)) {
      EXPECT_GT(chart.points, 100u) << chart.field;
      EXPECT_TRUE(chart.drawn) << chart.field;
      charts.insert(chart.message + "/" + chart.field);
    }
    return charts;
  }

  // Has headless Chromium dump the DOM of report.html in the scratch folder, standard output and
  // error into files there. Its exit status; 137 when it overran the deadline of a loaded 2-core
  // machine and was killed, with every process it started.
  int DumpDom() {
    const std::string command =
        "cd " + dir_.path() + " && timeout -s KILL 45 " + kChromium +
        " --headless --no-sandbox --disable-gpu --disable-background-networking"
        " --disable-component-update --disable-sync --no-first-run --hide-scrollbars"
        " --user-data-dir=profile --enable-logging=stderr --v=0 --dump-dom file://" +
        dir_.path() + "/report.html >stdout 2>stderr";
    const int status = system(command.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  ReportBuilder builder_;
  tidewatch_test::ScratchDir dir_{"html_report"};
};

TEST_F(HtmlReportTest, DrawsEveryFieldAndKeepsHostileTextAsText) {
  const std::string page = HostilePage();
  EXPECT_NE(page.find("content=\"default-src 'none'; style-src 'unsafe-inline'\""),
            std::string::npos);
  // The hostile names are in the page, but only as text: no element, attribute or URL of theirs.
  for (const char* banned :
       {"<script", "<img", "<i>", "http://", "https://", "src=\"", "href=\"", "url(", "@import"}) {
    EXPECT_EQ(page.find(banned), std::string::npos) << banned;
  }
  EXPECT_NE(page.find("&lt;script&gt;alert(1)&lt;/script&gt;&lt;img src=//x.example/a"),
            std::string::npos);
  EXPECT_NE(page.find("stopped at block 12 at byte offset 4096: &lt;truncated&gt;. This report"),
            std::string::npos);
  // A figure per field of each message, with points and a drawn line.
  EXPECT_EQ(Charts(page),
            (std::set<std::string>{"EM_LTE_SERVING_CELL_INFO/RSRP", "EM_LTE_SERVING_CELL_INFO/SINR",
                                   capture::Escaped(kHostile) + "/&lt;i&gt;FIELD&lt;/i&gt;"}));
  EXPECT_NE(page.find("and 100 more OTA messages, not listed"), std::string::npos);
}

#ifndef __ANDROID__  // host only: the browser runs on the host
TEST_F(HtmlReportTest, ABrowserDrawsItWithNoConsoleMessage) {
  ASSERT_EQ(access(kChromium, X_OK), 0) << "no Chromium: run scripts/install-deps.sh";
  ASSERT_TRUE(dir_.Write("report.html", HostilePage()));
  ASSERT_EQ(DumpDom(), 0) << dir_.Read("stderr");
  const std::string dom = dir_.Read("stdout");
  EXPECT_EQ(dir_.Read("stderr").find(":CONSOLE"), std::string::npos) << dir_.Read("stderr");
  EXPECT_NE(dom.find("<title>Capture report"), std::string::npos) << "the page's own title";
  EXPECT_EQ(dom.find("<script"), std::string::npos);
  EXPECT_EQ(dom.find("<img"), std::string::npos);
  EXPECT_NE(dom.find("id=\"damaged\""), std::string::npos);
  EXPECT_EQ(Charts(dom).size(), 3u);
  EXPECT_NE(dom.find("<g class=\"mark m0\">"), std::string::npos) << "the service's drop marked";
  EXPECT_NE(dom.find("<g class=\"mark m1\">"), std::string::npos) << "the tool's drop marked";
}
#endif

TEST_F(HtmlReportTest, EmptyAndFarFlungCapturesStillMakeAPage) {
  std::string page = HtmlReport(builder_.data()).Render();
  EXPECT_NE(page.find("No traps were captured."), std::string::npos);
  EXPECT_NE(page.find("</html>"), std::string::npos);

  // Times a damaged file may hold, at the ends of the type: drawn at the report's limits.
  AddEm(INT64_MIN, "EM_A", {{"F", 1}}, 0);
  AddEm(INT64_MAX, "EM_A", {{"F", 2}}, 0);
  builder_.AddToolDrop(INT64_MAX, libtidewatch::TRAP_TYPE_EM, 1);
  builder_.SetSpan(INT64_MIN, INT64_MAX);
  page = HtmlReport(builder_.data()).Render();
  EXPECT_EQ(tidewatch_test::FindReportCharts(page).size(), 1u);
  EXPECT_NE(page.find("</html>"), std::string::npos);
}

TEST_F(HtmlReportTest, WriteErrorsNameThePath) {
  std::string error;
  EXPECT_FALSE(HtmlReport(builder_.data()).WriteFile("/nonexistent-dir/r.html", &error));
  EXPECT_EQ(error, "cannot write /nonexistent-dir/r.html: No such file or directory");
}

size_t Count(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

// Axis steps are what a reader expects on a clock or a ruler: 15 s, 2 h, 2.5, and beyond a week
// still a whole number of weeks.
TEST(SvgChartTest, TickStepsAreRound) {
  const struct {
    int64_t spanUs;
    int64_t step;
  } times[] = {{0, 1},
               {9, 2},
               {50 * kSecondUs, 15 * kSecondUs},
               {60 * kSecondUs, 15 * kSecondUs},
               {61 * kSecondUs, 30 * kSecondUs},
               {5 * 3600 * kSecondUs, 7200 * kSecondUs},
               {8 * 3600 * kSecondUs, 7200 * kSecondUs},
               {9 * 3600 * kSecondUs, 10800 * kSecondUs},
               {40 * 86400 * kSecondUs, 70 * 86400 * kSecondUs}};
  for (const auto& row : times) {
    EXPECT_EQ(SvgChart::TimeStep(row.spanUs, 4), row.step) << "span " << row.spanUs;
  }
  const struct {
    double range;
    double step;
  } values[] = {{10, 2.5}, {7, 2}, {1, 0.25}, {45, 20}, {0, 1}, {-3, 1}, {NAN, 1}};
  for (const auto& row : values) {
    EXPECT_DOUBLE_EQ(SvgChart::ValueStep(row.range, 4), row.step) << "range " << row.range;
  }
}

// A small box is drawn at the least size that still has room for the axes; a point between two
// gaps of a long line gets a dot, or it would not show at all.
TEST(SvgChartTest, KeepsItsLeastSizeAndDotsLonePoints) {
  SvgChart chart(0, 70 * kSecondUs, 10, 10);
  ChartLine line;
  for (int i = 0; i < 70; ++i) {
    ChartPoint p;
    p.timeUs = i * kSecondUs;
    p.value = i % 7;
    p.breakBefore = i == 30 || i == 31;
    line.points.push_back(p);
  }
  chart.AddLine(line);
  std::string svg;
  chart.Render("rate", &svg);
  EXPECT_NE(svg.find("viewBox=\"0 0 200 100\""), std::string::npos) << svg.substr(0, 80);
  EXPECT_EQ(Count(svg, "<circle"), 1u);
}

}  // namespace
