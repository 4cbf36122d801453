// Writing the current-session file; reading it is pinned through the commands that use it.
#include "cli/session_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <climits>
#include <fstream>
#include <string>

#include "tests/support/scratch_dir.h"
#include "tests/support/stdout_capture.h"

namespace {

TEST(SessionFileTest, WriteReplacesTheContentOrReportsWhyNot) {
  tidewatch_test::ScratchDir dir("session_file_test");
  ASSERT_TRUE(dir.Enter());
  auto printed = [&](unsigned long id) {
    return tidewatch_test::CaptureStdout(dir.path() + "/stdout", [&] { SetCurSession(id); });
  };
  std::ofstream("current_session") << "123456789 and more text";
  for (unsigned long id : {7ul, 0ul, ULONG_MAX}) {
    EXPECT_EQ(printed(id), "");
    EXPECT_EQ(dir.Read("current_session"), std::to_string(id));  // no newline
  }
  ASSERT_EQ(remove("current_session"), 0);
  ASSERT_EQ(mkdir("current_session", 0700), 0);
  EXPECT_EQ(printed(3), "Failed to open [./current_session] for setting session.");
  EXPECT_TRUE(dir.Leave());
}

}  // namespace
