// DoMain's options and words that never reach the service: every case is an argument error. And
// writing the current-session file; reading it is pinned through the commands that use it.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <climits>
#include <fstream>
#include <string>
#include <vector>

#include "cli/session_file.h"
#include "cli/tide_watch_ctrl.h"
#include "tests/support/do_main_fixture.h"
#include "tests/support/log_capture.h"
#include "tests/support/scratch_dir.h"

namespace {

using tidewatch_test::kNeedDoer;
using tidewatch_test::kNoFile;
using tidewatch_test::kNone;
using tidewatch_test::kUsage;

class DoMainTest : public tidewatch_test::DoMainFixture {
 protected:
  DoMainTest() : DoMainFixture(&DoMain) {}
};

TEST_F(DoMainTest, OptionsAndWords) {
  RunCases({
      {"", kNone, kUsage, -1},
      {"sessionId=5", kNone, kUsage, -1},
      {"--help", kNone, "unknown parameters" + kUsage, -1},
      {"--no-such-command", kNone, "unknown parameters" + kUsage, -1},
      {"--create-session=1", kNone, "unknown parameters" + kUsage, -1},
      // Long options may be abbreviated and written with one dash.
      {"--list", kNone, kNoFile + kNeedDoer, -1},
      {"-create-session level=5", kNone, "Value of [level] is invalid: [5]" + kUsage, -1},
      // Only the first option is an option; a second one is a word like any other.
      {"--close-session sessionId=5 --enable-trap", kNone, "invalid option: --enable-trap" + kUsage,
       -1},
      // Each command takes only its own words (close, enable, disable and get share theirs).
      {"--create-session sessionId=1", kNone, "invalid option: sessionId=1" + kUsage, -1},
      {"--close-session type=EM", kNone, "invalid option: type=EM" + kUsage, -1},
      {"--list-session sessionId=1", kNone, "invalid option: sessionId=1" + kUsage, -1},
      {"--set-trap-receiver msgId=1", kNone, "invalid option: msgId=1" + kUsage, -1},
      {"--run-trap-receiver doerId=1", kNone, "invalid option: doerId=1" + kUsage, -1},
      {"--subscribe-trap level=1", kNone, "invalid option: level=1" + kUsage, -1},
      {"--close-session sessionId", kNone, "invalid option: sessionId" + kUsage, -1},
      // The first word decides: a refused word ends the run before a later bad value.
      {"--close-session x=1 sessionId=abc", kNone, "invalid option: x=1" + kUsage, -1},
      // The last level word is the one checked; a refused level leaves the file alone.
      {"--create-session level=0 level=3", "55", "Value of [level] is invalid: [3]" + kUsage, -1},
      {"--create-session level=2147483647", "55",
       "Value of [level] is invalid: [2147483647]" + kUsage, -1},
  });
}

TEST(SessionFileTest, WriteReplacesTheContentOrReportsWhyNot) {
  tidewatch_test::ScratchDir dir("session_file");
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
