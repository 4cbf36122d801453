// The fixture of the tool's command-line tests: runs the entry point in-process, in a scratch
// working directory (where the session file lives), with standard output captured, over tables of
// arguments, session-file contents and the exact output and status expected.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "libtidewatch/platform/log.h"
#include "tests/support/log_capture.h"
#include "tests/support/scratch_dir.h"

namespace tidewatch_test {

// Texts the tool prints, exactly.
inline const std::string kUsage =
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
inline const std::string kNoFile = "Failed to open [./current_session] for getting session.";
inline const std::string kNeedSession =
    "Argument <sessionId> should be specified and cannot be zero";
inline const std::string kNeedDoer = "Argument <doerId> should be specified and cannot be zero";
inline const std::string kNeedType =
    "Argument <type> should be one of \"OTA\", \"EM\" and \"VoLTE\".";
inline const std::string kNeedMsgId = "Argument <msgId> should be specified and cannot be zero";
inline const char* const kNone = nullptr;  // no session file

class DoMainFixture : public ::testing::Test {
 protected:
  using EntryPoint = int (*)(int argc, char** argv);

  struct Case {
    std::string args;         // after the program name, split at spaces
    const char* sessionFile;  // content of ./current_session, or kNone
    std::string out;
    int status;
  };

  // The entry point is handed in so that the support library does not depend on the front end.
  explicit DoMainFixture(EntryPoint entry) : m_entry(entry) {}

  void SetUp() override;
  void TearDown() override;

  // Runs the entry point on every case, each with ./current_session as it says, and compares
  // what it printed and its status.
  void RunCases(const std::vector<Case>& cases);

  LogCapture quiet_{libtidewatch::kLogError};  // the errors the commands log are expected
  ScratchDir dir_{"do_main_test"};

 private:
  EntryPoint m_entry;
};

}  // namespace tidewatch_test
