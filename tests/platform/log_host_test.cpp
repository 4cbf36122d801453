// The host's default log output: one line per message on standard error.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "libtidewatch/platform/log.h"

namespace libtidewatch {
namespace {

class LogHostTest : public ::testing::Test {
 protected:
  void TearDown() override { SetLogThreshold(kLogError); }

  // Runs `body` with standard error sent to a file, and returns what was written there.
  template <typename Body>
  static std::string CaptureStderr(Body body) {
    std::string path = ::testing::TempDir() + "log_test_stderr_" + std::to_string(getpid());
    fflush(stderr);
    int saved = dup(STDERR_FILENO);
    FILE* fp = fopen(path.c_str(), "w+");
    dup2(fileno(fp), STDERR_FILENO);
    body();
    dup2(saved, STDERR_FILENO);
    close(saved);
    std::string out;
    rewind(fp);
    char buf[256];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), fp)) > 0) out.append(buf, n);
    fclose(fp);
    remove(path.c_str());
    return out;
  }
};

TEST_F(LogHostTest, HostOutputIsOneLinePerMessageOnStderr) {
  SetLogThreshold(kLogVerbose);
  std::string out = CaptureStderr([] {
    TW_LOGV("verbose");
    TW_LOGD("debug %d", 3);
    TW_LOGI("info");
    TW_LOGW("warn\n");
    TW_LOGE("error");
  });
  EXPECT_EQ(out,
            "V libtidewatch: verbose\n"
            "D libtidewatch: debug 3\n"
            "I libtidewatch: info\n"
            "W libtidewatch: warn\n"
            "E libtidewatch: error\n");
}

}  // namespace
}  // namespace libtidewatch
