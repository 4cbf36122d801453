// checkSysPropEq against the host property file, which the test rewrites between lookups.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "libtidewatch/api/monitor_types.h"

namespace libtidewatch {
namespace {

TEST(SysPropTest, ComparesTheWholeValueOrTheDefault) {
  // ctest runs each test in a process of its own, several at once: one file per process.
  const std::string path = ::testing::TempDir() + "sysprop_test_props_" + std::to_string(getpid());
  setenv("TIDEWATCH_HOST_PROPERTIES", path.c_str(), 1);
  const struct {
    const char* file;
    const char* value;
    const char* fallback;
    bool equal;
  } cases[] = {
      // Whole values and the "0" default are pinned through the layout file's lookup.
      {"", "0", nullptr, false},  // no default: an unset property equals nothing
      {"", "", nullptr, false},
      {"# comment\n\nro.test.other=1\nro.test.flag=\n", "0", "0", true},  // empty is unset
      {"ro.test.flag=1\n", "1", "0", true},  // read afresh at every lookup
  };
  for (const auto& c : cases) {
    std::ofstream(path) << c.file;
    EXPECT_EQ(checkSysPropEq("ro.test.flag", c.value, c.fallback), c.equal)
        << c.file << " | " << c.value << " | " << (c.fallback ? c.fallback : "null");
  }
  unsetenv("TIDEWATCH_HOST_PROPERTIES");
  remove(path.c_str());
}

}  // namespace
}  // namespace libtidewatch
