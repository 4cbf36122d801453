// DoMain's handling of options and words, run in-process with standard output captured. Nothing
// here needs the service: commands that get as far as sending meet a socket prefix where nothing
// listens, fail at once, and their resp lines show which ids the driver settled on.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "cli/tide_watch_ctrl.h"
#include "libtidewatch/platform/log.h"
#include "tests/support/log_capture.h"
#include "tests/support/scratch_dir.h"
#include "tests/support/stdout_capture.h"

namespace {

const std::string kUsage =
    "Usage: tide_watch_ctrl\n"
    "\t--create-session [<level=0(guest,default)|1(manager)|2(root)>]\n"
    "\t--close-session [<doerId=x>] <sessionId=x>\n"
    "\t--subscribe-trap [<doerId=x>] <sessionId=x> <type=x> <msgId=x>\n"
    "\t--unsubscribe-trap [<doerId=x>] <sessionId=x> <type=x> <msgId=x>\n"
    "\t--enable-trap [<doerId=x>] <sessionId=x>\n"
    "\t--disable-trap [<doerId=x>] <sessionId=x>\n"
    "\t--set-trap-receiver [<doerId=x>] <sessionId=x> <servername=x>\n"
    "\t--run-trap-receiver <sessionId=x> <servername=x>\n"
    "\t--get-session [<doerId=x>] <sessionId=x>\n"
    "\t--list-session <doerId=x>\n"
    "\t--set-debug-level <doerId=x> [level=1(raw data dumper)|2(verbose)|3(debug)|4(info)|5(warn)|"
    "6(error, default)|10(disable)]\n"
    "\t--help\n";
const std::string kNoFile = "Failed to open [./current_session] for getting session.";
const std::string kNeedSession = "Argument <sessionId> should be specified and cannot be zero";
const std::string kNeedDoer = "Argument <doerId> should be specified and cannot be zero";
const std::string kNeedType = "Argument <type> should be one of \"OTA\", \"EM\" and \"VoLTE\".";
const std::string kNeedMsgId = "Argument <msgId> should be specified and cannot be zero";
const char* const kNone = nullptr;  // no session file

struct Case {
  std::vector<std::string> args;  // after the program name
  const char* sessionFile;        // content of ./current_session, or kNone
  std::string out;
  int status;
};

class DoMainTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(dir_.Enter());
    setenv("TIDEWATCH_HAL_WAIT_MS", "0", 1);
    std::string prefix = "do_main_test." + std::to_string(getpid()) + ".nobody.";
    setenv("TIDEWATCH_HAL_SOCKET_PREFIX", prefix.c_str(), 1);
  }

  void TearDown() override { EXPECT_TRUE(dir_.Leave()); }

  // Runs DoMain on "tide_watch_ctrl" + args and returns what it printed.
  std::string Run(const std::vector<std::string>& args, int* status) {
    std::vector<std::string> storage = {"tide_watch_ctrl"};
    storage.insert(storage.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& s : storage) argv.push_back(&s[0]);
    argv.push_back(nullptr);
    return tidewatch_test::CaptureStdout(dir_.path() + "/stdout", [&] {
      *status = DoMain(static_cast<int>(argv.size()) - 1, argv.data());
    });
  }

  static void WriteSessionFile(const char* content) {
    unlink("current_session");
    if (content == nullptr) return;
    std::ofstream("current_session", std::ios::binary) << content;
  }

  void RunCases(const std::vector<Case>& cases) {
    for (const Case& c : cases) {
      std::string line;
      for (const std::string& a : c.args) line += a + " ";
      SCOPED_TRACE(line + "| file: " + (c.sessionFile ? c.sessionFile : "none"));
      WriteSessionFile(c.sessionFile);
      int status = 0;
      EXPECT_EQ(Run(c.args, &status), c.out);
      EXPECT_EQ(status, c.status);
    }
  }

  tidewatch_test::LogCapture quiet_{
      libtidewatch::kLogError};  // the failed connections are expected
  tidewatch_test::ScratchDir dir_{"do_main_test"};
};

TEST_F(DoMainTest, OptionSelection) {
  RunCases({
      {{}, kNone, kUsage, -1},
      {{"sessionId=5"}, kNone, kUsage, -1},
      {{"--help"}, kNone, "unknown parameters" + kUsage, -1},
      {{"--no-such-command"}, kNone, "unknown parameters" + kUsage, -1},
      {{"--create-session=1"}, kNone, "unknown parameters" + kUsage, -1},
      // Long options may be abbreviated and written with one dash.
      {{"--list"}, kNone, kNoFile + kNeedDoer, -1},
      {{"-create-session", "level=5"}, kNone, "Value of [level] is invalid: [5]" + kUsage, -1},
      // Only the first option is an option; a second one is a word like any other.
      {{"--close-session", "sessionId=5", "--enable-trap"},
       kNone,
       "invalid option: --enable-trap" + kUsage,
       -1},
  });
}

TEST_F(DoMainTest, WordsAreRefusedPerCommand) {
  RunCases({
      {{"--create-session", "sessionId=1"}, kNone, "invalid option: sessionId=1" + kUsage, -1},
      {{"--close-session", "type=EM"}, kNone, "invalid option: type=EM" + kUsage, -1},
      {{"--enable-trap", "msgId=3"}, kNone, "invalid option: msgId=3" + kUsage, -1},
      {{"--disable-trap", "level=1"}, kNone, "invalid option: level=1" + kUsage, -1},
      {{"--get-session", "servername=x"}, kNone, "invalid option: servername=x" + kUsage, -1},
      {{"--list-session", "sessionId=1"}, kNone, "invalid option: sessionId=1" + kUsage, -1},
      {{"--set-trap-receiver", "msgId=1"}, kNone, "invalid option: msgId=1" + kUsage, -1},
      {{"--run-trap-receiver", "doerId=1"}, kNone, "invalid option: doerId=1" + kUsage, -1},
      {{"--subscribe-trap", "level=1"}, kNone, "invalid option: level=1" + kUsage, -1},
      {{"--close-session", "sessionId"}, kNone, "invalid option: sessionId" + kUsage, -1},
      {{"--close-session", "session=4"}, kNone, "invalid option: session=4" + kUsage, -1},
      // The first word decides: a refused word ends the run before a later bad value.
      {{"--close-session", "x=1", "sessionId=abc"}, kNone, "invalid option: x=1" + kUsage, -1},
  });
}

TEST_F(DoMainTest, IdConversions) {
  const std::string max = "18446744073709551615";
  RunCases({
      {{"--close-session", "sessionId=12abc"}, kNone, "Failed to convert [12abc] to uint64_t.", 0},
      {{"--close-session", "sessionId=abc"},
       kNone,
       "strtoull return 0 [abc] to uint64_t.Failed to convert [abc] to uint64_t.",
       0},
      {{"--close-session", "sessionId=" + max},
       kNone,
       "Failed to convert [" + max + "] to uint64_t.",
       0},
      {{"--close-session", "sessionId=99999999999999999999"},
       kNone,
       "Failed to convert [99999999999999999999] to uint64_t.",
       0},
      {{"--close-session", "sessionId=5", "doerId=1x"},
       kNone,
       "Failed to convert [1x] to uint64_t.",
       0},
      // Keys match case-insensitively, and the last word of a key wins.
      {{"--close-session", "DOERID=5", "SessionID=6", "sessionid=18446744073709551614"},
       kNone,
       "resp = [9], doerId = [5], sessionId = [18446744073709551614]\n",
       9},
      // An explicit 0 counts as not given: the session file supplies the id.
      {{"--close-session", "sessionId=0"},
       "7",
       "strtoull return 0 [0] to uint64_t.resp = [9], doerId = [0], sessionId = [7]\n",
       9},
      {{"--close-session", "sessionId=0"},
       kNone,
       "strtoull return 0 [0] to uint64_t." + kNoFile + kNeedSession,
       -1},
      {{"--set-debug-level", "doerId=0"},
       "12",
       "strtoull return 0 [0] to uint64_t.resp = [9], doerId = [12]\n",
       9},
  });
}

TEST_F(DoMainTest, SessionFileDefaults) {
  RunCases({
      {{"--enable-trap"}, "42\n", "resp = [9], doerId = [0], sessionId = [42]\n", 9},
      {{"--disable-trap", "doerId=3"}, "abc", "Read sessionId failed." + kNeedSession, -1},
      {{"--get-session"}, kNone, kNoFile + kNeedSession, -1},
      // A stored 0 is a successful read: the command goes on with session 0.
      {{"--close-session"}, "0", "resp = [9], doerId = [0], sessionId = [0]\n", 9},
      // A given id means the file is not read at all.
      {{"--close-session", "sessionId=8"}, "abc", "resp = [9], doerId = [0], sessionId = [8]\n", 9},
      {{"--list-session"}, kNone, kNoFile + kNeedDoer, -1},
      {{"--list-session"}, "31", "resp = [9], doerId = [31]\n", 9},
      {{"--set-debug-level"}, kNone, kNoFile + kNeedDoer, -1},
      {{"--run-trap-receiver", "servername=x"}, kNone, kNoFile + kNeedSession, -1},
  });
}

TEST_F(DoMainTest, SubscriptionChecksTypeThenSessionThenMsgId) {
  for (const char* option : {"--subscribe-trap", "--unsubscribe-trap"}) {
    RunCases({
        {{option}, "4", kNeedType, -1},
        {{option, "sessionId=1", "msgId=5"}, "4", kNeedType, -1},
        {{option, "type=ota", "sessionId=1", "msgId=5"}, "4", kNeedType, -1},
        {{option, "type=EM", "type=bogus", "sessionId=1", "msgId=5"}, "4", kNeedType, -1},
        {{option, "type=EM", "msgId=5"}, kNone, kNoFile + kNeedSession, -1},
        {{option, "type=EM"}, kNone, kNoFile + kNeedSession, -1},
        {{option, "type=EM", "sessionId=2"}, kNone, kNeedMsgId, -1},
        {{option, "type=VoLTE", "msgId=77"},
         "4",
         "resp = [9], doerId = [0], sessionId = [4], type = [4], msgId = [77]\n",
         9},
    });
  }
}

TEST_F(DoMainTest, DebugLevelWordsAreCheckedAsRead) {
  for (const char* word : {"level=0", "level=-1", "level=7", "level=9", "level=11", "level=abc"}) {
    RunCases({{{"--set-debug-level", "doerId=3", word},
               kNone,
               std::string("invalid option: ") + word + kUsage,
               -1}});
  }
  // A bad level is refused even when the doer id is missing too: words come first.
  RunCases({{{"--set-debug-level", "level=8"}, kNone, "invalid option: level=8" + kUsage, -1}});
  for (const char* word : {"level=1", "level=6", "level=10"}) {
    RunCases({{{"--set-debug-level", "doerId=3", word}, kNone, "resp = [9], doerId = [3]\n", 9}});
  }
}

TEST_F(DoMainTest, CreateSessionRefusesLevelsOutsideZeroToTwo) {
  for (const char* word : {"level=3", "level=-1", "level=2147483647", "level=-2147483648"}) {
    SCOPED_TRACE(word);
    WriteSessionFile("55");
    int status = 0;
    // The last level word is the one checked.
    std::string out = Run({"--create-session", "level=0", word}, &status);
    EXPECT_EQ(out, std::string("Value of [level] is invalid: [") + (word + 6) + "]" + kUsage);
    EXPECT_EQ(status, -1);
    EXPECT_EQ(dir_.Read("current_session"), "55") << "a refused level must not touch the file";
  }
}

TEST_F(DoMainTest, ServerNameIsCutTo127Characters) {
  std::string name(300, 'n');
  int status = 0;
  std::string out = Run({"--set-trap-receiver", "sessionId=3", "servername=" + name}, &status);
  EXPECT_EQ(out, "resp = [9], doerId = [0], sessionId = [3], servername = [" + name.substr(0, 127) +
                     "]\n");
  EXPECT_EQ(status, 9);
}

}  // namespace
