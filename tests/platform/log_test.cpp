#include "libtidewatch/platform/log.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace libtidewatch {
namespace {

class LogTest : public ::testing::Test {
 protected:
  struct Line {
    int priority;
    std::string tag;
    std::string text;
  };
  static void Record(int priority, const char* tag, const char* text) {
    lines.push_back({priority, tag, text});
  }
  void SetUp() override { lines.clear(); }
  void TearDown() override {
    SetLogSink(nullptr);
    SetLogThreshold(kLogError);
  }

  static std::vector<Line> lines;
};
std::vector<LogTest::Line> LogTest::lines;

TEST_F(LogTest, StartsAtErrorThreshold) { EXPECT_EQ(GetLogThreshold(), kLogError); }

TEST_F(LogTest, ThresholdGatesEveryPriority) {
  SetLogSink(&Record);
  for (int threshold : {2, 3, 4, 5, 6, 10}) {
    lines.clear();
    SetLogThreshold(threshold);
    for (int p = kLogVerbose; p <= kLogError; ++p) LogPrint(p, "p%d", p);
    size_t expected = threshold > kLogError ? 0 : static_cast<size_t>(kLogError - threshold + 1);
    ASSERT_EQ(lines.size(), expected) << threshold;
    for (const Line& line : lines) {
      EXPECT_GE(line.priority, threshold);
      EXPECT_EQ(line.tag, "libtidewatch");
      EXPECT_EQ(line.text, "p" + std::to_string(line.priority));
    }
  }
}

TEST_F(LogTest, MacroSkipsArgumentsBelowThreshold) {
  SetLogSink(&Record);
  int evaluated = 0;
  TW_LOGD("%d", ++evaluated);
  EXPECT_EQ(evaluated, 0);
  TW_LOGE("%d", ++evaluated);
  EXPECT_EQ(evaluated, 1);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].text, "1");
}

TEST_F(LogTest, TextsBeyond4000BytesAreCutAndMarked) {
  SetLogSink(&Record);
  const std::string head(4000, 'x');
  for (size_t length : {3999u, 4000u, 4001u, 20u * 1000 * 1000}) {
    std::string text(length, 'x');
    TW_LOGE("%s", text.c_str());
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back().text, length <= 4000 ? text : head + "...[cut]") << length;
  }
}

}  // namespace
}  // namespace libtidewatch
