// Ring file names: the number and start time go before the extension of the last path component,
// whatever dots the folders or a hidden name hold.
#include "capture/ring_files.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

namespace capture {
namespace {

TEST(RingFilesTest, NumberAndTimeGoBeforeTheExtension) {
  setenv("TZ", "UTC", 1);
  tzset();
  const time_t started = 1795398300;  // 2026-11-23 01:45:00 UTC
  const struct {
    const char* path;
    uint64_t number;
    const char* name;
  } cases[] = {
      {"traps.pcapng", 1, "traps_00001_20261123014500.pcapng"},
      {"traps", 12, "traps_00012_20261123014500"},
      {"runs.v2/traps", 3, "runs.v2/traps_00003_20261123014500"},
      {"/tmp/a.b.pcapng", 4, "/tmp/a.b_00004_20261123014500.pcapng"},
      {"logs/.hidden", 5, "logs/.hidden_00005_20261123014500"},
      {"cap.", 123456, "cap_123456_20261123014500."},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(RingFiles::RingName(c.path, c.number, started), c.name) << c.path;
  }
}

}  // namespace
}  // namespace capture
