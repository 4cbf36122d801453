// DoMain's commands that send: with no service they fail at once and show the ids settled on.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cli/tide_watch_ctrl.h"
#include "tests/support/do_main_fixture.h"

namespace {

using tidewatch_test::kNeedDoer;
using tidewatch_test::kNeedMsgId;
using tidewatch_test::kNeedSession;
using tidewatch_test::kNeedType;
using tidewatch_test::kNoFile;
using tidewatch_test::kNone;
using tidewatch_test::kUsage;

class DoMainHostTest : public tidewatch_test::DoMainFixture {
 protected:
  DoMainHostTest() : DoMainFixture(&DoMain) {}
};

TEST_F(DoMainHostTest, ArgumentValues) {
  const std::string max = "18446744073709551615";
  const std::string name(300, 'n');
  RunCases({
      {"--set-trap-receiver sessionId=3 servername=" + name, kNone,
       "resp = [9], doerId = [0], sessionId = [3], servername = [" + name.substr(0, 127) + "]\n",
       9},
      {"--close-session sessionId=12abc", kNone, "Failed to convert [12abc] to uint64_t.", 0},
      {"--close-session sessionId=abc", kNone,
       "strtoull return 0 [abc] to uint64_t.Failed to convert [abc] to uint64_t.", 0},
      {"--close-session sessionId=" + max, kNone, "Failed to convert [" + max + "] to uint64_t.",
       0},
      {"--close-session sessionId=99999999999999999999", kNone,
       "Failed to convert [99999999999999999999] to uint64_t.", 0},
      {"--close-session sessionId=5 doerId=1x", kNone, "Failed to convert [1x] to uint64_t.", 0},
      // Keys match case-insensitively, and the last word of a key wins.
      {"--close-session DOERID=5 SessionID=6 sessionid=18446744073709551614", kNone,
       "resp = [9], doerId = [5], sessionId = [18446744073709551614]\n", 9},
      // An explicit 0 counts as not given: the session file supplies the id.
      {"--close-session sessionId=0", "7",
       "strtoull return 0 [0] to uint64_t.resp = [9], doerId = [0], sessionId = [7]\n", 9},
      {"--close-session sessionId=0", kNone,
       "strtoull return 0 [0] to uint64_t." + kNoFile + kNeedSession, -1},
      {"--set-debug-level doerId=0", "12",
       "strtoull return 0 [0] to uint64_t.resp = [9], doerId = [12]\n", 9},
  });
}

TEST_F(DoMainHostTest, SessionFileDefaults) {
  RunCases({
      {"--enable-trap", "42\n", "resp = [9], doerId = [0], sessionId = [42]\n", 9},
      {"--disable-trap doerId=3", "abc", "Read sessionId failed." + kNeedSession, -1},
      {"--disable-trap", "", "Read sessionId failed." + kNeedSession, -1},
      // The first number counts, after any white space and before any other words.
      {"--enable-trap", "  \n\t17 trailing words", "resp = [9], doerId = [0], sessionId = [17]\n",
       9},
      {"--enable-trap", "18446744073709551615",
       "resp = [9], doerId = [0], sessionId = [18446744073709551615]\n", 9},
      // A stored 0 is a successful read: the command goes on with session 0.
      {"--close-session", "0", "resp = [9], doerId = [0], sessionId = [0]\n", 9},
      // A given id means the file is not read at all.
      {"--close-session sessionId=8", "abc", "resp = [9], doerId = [0], sessionId = [8]\n", 9},
      {"--list-session", kNone, kNoFile + kNeedDoer, -1},
      {"--list-session", "31", "resp = [9], doerId = [31]\n", 9},
      {"--set-debug-level", kNone, kNoFile + kNeedDoer, -1},
      {"--run-trap-receiver servername=x", kNone, kNoFile + kNeedSession, -1},
  });
}

TEST_F(DoMainHostTest, SubscriptionChecksTypeThenSessionThenMsgId) {
  for (std::string option : {"--subscribe-trap ", "--unsubscribe-trap "}) {
    RunCases({
        {option, "4", kNeedType, -1},
        {option + "sessionId=1 msgId=5", "4", kNeedType, -1},
        {option + "type=ota sessionId=1 msgId=5", "4", kNeedType, -1},
        {option + "type=EM type=bogus sessionId=1 msgId=5", "4", kNeedType, -1},
        {option + "type=EM msgId=5", kNone, kNoFile + kNeedSession, -1},
        {option + "type=EM sessionId=2", kNone, kNeedMsgId, -1},
        {option + "type=VoLTE msgId=77", "4",
         "resp = [9], doerId = [0], sessionId = [4], type = [4], msgId = [77]\n", 9},
    });
  }
}

TEST_F(DoMainHostTest, DebugLevelWordsAreCheckedAsRead) {
  // A bad level is refused even when the doer id is missing too: words come first.
  std::vector<Case> cases = {
      {"--set-debug-level level=8", kNone, "invalid option: level=8" + kUsage, -1}};
  for (std::string word : {"level=0", "level=-1", "level=7", "level=11", "level=abc"}) {
    cases.push_back(
        {"--set-debug-level doerId=3 " + word, kNone, "invalid option: " + word + kUsage, -1});
  }
  for (std::string word : {"level=1", "level=6", "level=10"}) {
    cases.push_back({"--set-debug-level doerId=3 " + word, kNone, "resp = [9], doerId = [3]\n", 9});
  }
  RunCases(cases);
}

}  // namespace
