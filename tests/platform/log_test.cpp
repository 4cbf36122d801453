#include "libtidewatch/platform/log.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace libtidewatch {
namespace {

class LogTest : public ::testing::Test {
 protected:
  static void Record(int priority, const char* tag, const char* text) {
    EXPECT_STREQ(tag, "libtidewatch");
    lines.push_back(std::to_string(priority) + " " + text);
  }
  void SetUp() override {
    EXPECT_EQ(GetLogThreshold(), kLogError);  // the default, and what every test leaves
    lines.clear();
    SetLogSink(&Record);
  }
  void TearDown() override {
    SetLogSink(nullptr);
    SetLogThreshold(kLogError);
  }

  static std::vector<std::string> lines;
};
std::vector<std::string> LogTest::lines;

// Which priorities pass the threshold is pinned by every suite that captures the log at one.
TEST_F(LogTest, MacroSkipsArgumentsBelowThreshold) {
  int evaluated = 0;
  TW_LOGD("%d", ++evaluated);
  TW_LOGE("%d", ++evaluated);
  EXPECT_EQ(evaluated, 1);
  EXPECT_EQ(lines, std::vector<std::string>{"6 1"});
}

TEST_F(LogTest, TextsBeyond4000BytesAreCutAndMarked) {
  const std::string head(4000, 'x');
  for (size_t length : {3999u, 4000u, 4001u, 20u * 1000 * 1000}) {
    std::string text(length, 'x');
    TW_LOGE("%s", text.c_str());
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), "6 " + (length <= 4000 ? text : head + "...[cut]")) << length;
  }
}

}  // namespace
}  // namespace libtidewatch
