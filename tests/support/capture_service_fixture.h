// The set-up that the end-to-end suites of both tools share: a scratch folder holding the sample
// layout where tide_watch_ctrl looks for it, the emulator, and for captures a root session (id 1)
// that can see and list every session a capture creates.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/support/ctrl_process.h"
#include "tests/support/emulator_process.h"
#include "tests/support/scratch_dir.h"

namespace tidewatch_test {

class CaptureServiceFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(dir_.path().empty());
    // tide_watch_ctrl names subscriptions from the layout in its working directory.
    ASSERT_TRUE(dir_.CopyIn(TIDEWATCH_SOURCE_DIR "/resources/twd_layout_desc.dat",
                            "resources/twd_layout_desc.dat"));
  }

  // The emulator with `args`, and the root session.
  void StartService(const std::vector<std::string>& args) {
    ASSERT_TRUE(emulator_.Start(args));
    ASSERT_EQ(RunCtrl(dir_.path(), {"--create-session", "level=2"}).out, "1\n");
  }

  // The sessions the service holds, as the root session lists them.
  std::string Sessions() { return RunCtrl(dir_.path(), {"--list-session", "doerId=1"}).out; }

  // A receiver name of this process's own, so that suites running side by side never meet.
  static std::string ReceiverName() { return ".cap" + std::to_string(getpid()); }
  static std::vector<std::string> WithReceiverName(const std::vector<std::string>& args) {
    std::vector<std::string> all = {"--receiver-name", ReceiverName()};
    all.insert(all.end(), args.begin(), args.end());
    return all;
  }

  // Runs the capture tool in the scratch folder to its end (SIGTERM after `timeoutMs`): its
  // standard output and exit status.
  CtrlResult Capture(const std::vector<std::string>& args, int timeoutMs = 20000) {
    ChildOptions options;
    options.dir = dir_.path();
    options.stderrPath = CaptureErrPath();
    return RunCtrl(options, WithReceiverName(args), timeoutMs, CtrlProcess::CaptureBinaryPath());
  }

  // What the capture wrote on standard error, for captures started with CaptureErrPath().
  std::string Stderr() { return dir_.Read("capture.err"); }
  std::string CaptureErrPath() const { return dir_.path() + "/capture.err"; }

  ScratchDir dir_{::testing::UnitTest::GetInstance()->current_test_info()->test_suite_name()};
  EmulatorProcess emulator_;
};

}  // namespace tidewatch_test
