// The host's default log output: one line per message on standard error.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "libtidewatch/platform/log.h"
#include "tests/support/log_capture.h"

namespace libtidewatch {
namespace {

TEST(LogHostTest, HostOutputIsOneLinePerMessageOnStderr) {
  SetLogThreshold(kLogVerbose);
  const std::string path = ::testing::TempDir() + "log_test_stderr_" + std::to_string(getpid());
  std::string out = tidewatch_test::CaptureStdout(
      path,
      [] {
        TW_LOGV("verbose");
        TW_LOGD("debug %d", 3);
        TW_LOGI("info");
        TW_LOGW("warn\n");
        TW_LOGE("error");
        LogPrint(kLogError + 1, "beyond");  // a priority without a letter of its own
      },
      STDERR_FILENO);
  SetLogThreshold(kLogError);
  EXPECT_EQ(out,
            "V libtidewatch: verbose\n"
            "D libtidewatch: debug 3\n"
            "I libtidewatch: info\n"
            "W libtidewatch: warn\n"
            "E libtidewatch: error\n"
            "? libtidewatch: beyond\n");
}

}  // namespace
}  // namespace libtidewatch
