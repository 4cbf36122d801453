#include "capture/report/svg_chart.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <string>

namespace capture {
namespace {

constexpr int64_t kSecond = 1000000;

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
               {50 * kSecond, 15 * kSecond},
               {60 * kSecond, 15 * kSecond},
               {61 * kSecond, 30 * kSecond},
               {5 * 3600 * kSecond, 7200 * kSecond},
               {8 * 3600 * kSecond, 7200 * kSecond},
               {9 * 3600 * kSecond, 10800 * kSecond},
               {40 * 86400 * kSecond, 70 * 86400 * kSecond}};
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
  SvgChart chart(0, 70 * kSecond, 10, 10);
  ChartLine line;
  for (int i = 0; i < 70; ++i) {
    ChartPoint p;
    p.timeUs = i * kSecond;
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
}  // namespace capture
