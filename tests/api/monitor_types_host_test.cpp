// checkSysPropEq against the host property file, which a test rewrites between lookups.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "libtidewatch/api/monitor_types.h"

namespace libtidewatch {
namespace {

class SysPropTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // ctest runs each test in a process of its own, several at once: one file per process.
    path_ = ::testing::TempDir() + "sysprop_test_props_" + std::to_string(getpid());
    setenv("TIDEWATCH_HOST_PROPERTIES", path_.c_str(), 1);
    Write("");
  }
  void TearDown() override {
    unsetenv("TIDEWATCH_HOST_PROPERTIES");
    remove(path_.c_str());
  }
  void Write(const std::string& text) {
    FILE* fp = fopen(path_.c_str(), "w");
    ASSERT_NE(fp, nullptr);
    fputs(text.c_str(), fp);
    fclose(fp);
  }
  std::string path_;
};

TEST_F(SysPropTest, DefaultStandsInForAnUnsetProperty) {
  EXPECT_FALSE(checkSysPropEq("ro.test.flag", "1", "0"));
  EXPECT_TRUE(checkSysPropEq("ro.test.flag", "0", "0"));
  EXPECT_FALSE(checkSysPropEq("ro.test.flag", "0", nullptr));
  EXPECT_FALSE(checkSysPropEq("ro.test.flag", "", nullptr));
}

TEST_F(SysPropTest, ComparesTheWholeValue) {
  Write("# comment\n\nro.test.other=1\nro.test.flag=10\n");
  EXPECT_FALSE(checkSysPropEq("ro.test.flag", "1", "0"));
  EXPECT_TRUE(checkSysPropEq("ro.test.flag", "10", "0"));
  Write("ro.test.flag=1\n");  // read afresh at every lookup
  EXPECT_TRUE(checkSysPropEq("ro.test.flag", "1", "0"));
  Write("ro.test.flag=\n");  // empty counts as unset
  EXPECT_TRUE(checkSysPropEq("ro.test.flag", "0", "0"));
}

}  // namespace
}  // namespace libtidewatch
