// The phone side: the phones adb lists (only those in state "device", and none at all, promptly,
// when adb is missing or hangs), and the line adb hands to the phone's shell, which must give the
// tool exactly the words it was given, patterns and quotes included, as a real shell splits it.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <chrono>
#include <string>
#include <vector>

#include "capture/adb_devices.h"
#include "capture/phone_command.h"
#include "tests/support/child_process.h"
#include "tests/support/scratch_dir.h"

namespace capture {
namespace {

TEST(AdbDevicesTest, OnlyReadyPhonesAndWithinTheDeadlineWhateverAdbDoes) {
  tidewatch_test::ScratchDir dir("adb_devices");
  const struct {
    std::string script;  // empty: no such program
    std::vector<std::string> serials;
  } cases[] = {
      {"printf 'List of devices attached\\nA1\\tdevice\\n'", {"A1"}},
      // Only phones ready for use, whatever the daemon says first and however lines end.
      {"printf '* daemon not running; starting now at tcp:5037\\n* daemon started successfully\\n"
       "List of devices attached\\nR58M12ABCDE\\tdevice\\nemulator-5554\\toffline\\n"
       "0123456789\\tunauthorized\\r\\n192.168.1.7:5555\\tdevice\\r\\n\\n'",
       {"R58M12ABCDE", "192.168.1.7:5555"}},
      {"printf 'List of devices attached\\n\\n'", {}},
      {"", {}},
      {"sleep 30", {}},
      {"printf 'List of devices attached\\nA1\\tdevice\\n'; exit 1", {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.script);
    const std::string adb = dir.path() + "/adb";
    remove(adb.c_str());
    if (!c.script.empty()) {
      ASSERT_TRUE(dir.Write("adb", "#!/bin/sh\n" + c.script + "\n"));
      ASSERT_EQ(chmod(adb.c_str(), 0755), 0);
    }
    setenv("TIDEWATCH_ADB", adb.c_str(), 1);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ListAdbDevices(500), c.serials);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1500));
  }
  unsetenv("TIDEWATCH_ADB");
}

TEST(PhoneCommandTest, TheToolGetsEveryWordAsGiven) {
  const struct {
    std::vector<std::string> args;
    bool su;
    std::string line;
    std::string words;  // after the tool's name
  } cases[] = {
      {{"--em", "EM_*"},
       false,
       "'tide_watch_capture' '-w' '-' '--em' 'EM_*'",
       "-w\n-\n--em\nEM_*\n"},
      {{"--secret", "it's $HOME; `x` *"},
       false,
       "'tide_watch_capture' '-w' '-' '--secret' 'it'\\''s $HOME; `x` *'",
       "-w\n-\n--secret\nit's $HOME; `x` *\n"},
      {{"--ota", "LTE_RRC_*"},
       true,
       "'su' '0' 'tide_watch_capture' '-w' '-' '--ota' 'LTE_RRC_*'",
       "0\ntide_watch_capture\n-w\n-\n--ota\nLTE_RRC_*\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    const std::string line = PhoneCommandLine("tide_watch_capture", c.args, c.su);
    EXPECT_EQ(line, c.line);
    // The words a shell makes of the line, one per line, with the first (the tool) left out.
    EXPECT_EQ(tidewatch_test::RunShell("f() { shift; printf '%s\\n' \"$@\"; }; f " + line),
              c.words);
  }
}

}  // namespace
}  // namespace capture
