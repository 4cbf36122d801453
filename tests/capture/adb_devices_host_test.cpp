// The phones adb lists: only those in state "device", and no phones at all, promptly, when adb is
// missing or hangs.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <chrono>
#include <string>
#include <vector>

#include "capture/adb_devices.h"
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

}  // namespace
}  // namespace capture
