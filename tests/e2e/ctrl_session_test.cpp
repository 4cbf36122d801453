// The tool's binary against the emulated service through the life of real sessions: every
// command's exact output and exit status, and the current-session file it keeps between runs.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/capture_service_fixture.h"

namespace {

using tidewatch_test::CtrlResult;

class CtrlSessionTest : public tidewatch_test::CaptureServiceFixture {
 protected:
  void SetUp() override {
    CaptureServiceFixture::SetUp();
    ASSERT_TRUE(emulator_.Start());
  }

  // Runs one command and checks its whole output and exit status.
  void Expect(const std::vector<std::string>& args, const std::string& out, int status = 0) {
    std::string line;
    for (const std::string& a : args) line += " " + a;
    SCOPED_TRACE("tide_watch_ctrl" + line);
    CtrlResult r = tidewatch_test::RunCtrl(dir_.path(), args);
    EXPECT_EQ(r.out, out);
    EXPECT_EQ(r.status, status);
  }
};

TEST_F(CtrlSessionTest, CreateAtEveryLevel) {
  Expect({"--create-session"}, "1\n");
  EXPECT_EQ(dir_.Read("current_session"), "1");
  Expect({"--create-session", "level=1"}, "2\n");
  Expect({"--create-session", "LEVEL=2"}, "3\n");
  EXPECT_EQ(dir_.Read("current_session"), "3");
  // The last level word wins: a guest session, which may list only itself.
  Expect({"--create-session", "level=1", "level=0"}, "4\n");
  Expect({"--list-session"}, "4\n");
  Expect({"--list-session", "doerId=3"}, "1\n2\n3\n4\n");
  // Only privileged doers change the service's debug level; success prints nothing.
  Expect({"--set-debug-level", "level=10"}, "resp = [7], doerId = [4]\n", 7);
  Expect({"--set-debug-level", "doerId=2", "level=3"}, "");
  Expect({"--set-debug-level", "doerId=3"}, "");
}

// The reply line of a command on session `session` done by `doer`, with the service's `resp`.
std::string Reply(int resp, int session, const std::string& rest = "", int doer = 0) {
  return "resp = [" + std::to_string(resp) + "], doerId = [" + std::to_string(doer) +
         "], sessionId = [" + std::to_string(session) + "]" + rest + "\n";
}

TEST_F(CtrlSessionTest, FullSession) {
  Expect({"--create-session", "level=2"}, "1\n");
  const struct {
    const char* type;
    int number;
    const char* msgId;
  } subscriptions[] = {{"OTA", 2, "1003"}, {"OTA", 2, "999"},  {"EM", 3, "2010"}, {"EM", 3, "2000"},
                       {"VoLTE", 4, "5"},  {"PSTIME", 5, "1"}, {"IP", 6, "6"}};
  for (const auto& s : subscriptions) {
    Expect({"--subscribe-trap", std::string("type=") + s.type, std::string("msgId=") + s.msgId},
           Reply(0, 1, ", type = [" + std::to_string(s.number) + "], msgId = [" + s.msgId + "]"));
  }
  Expect({"--enable-trap"}, Reply(0, 1));
  Expect({"--set-trap-receiver", "servername=e2e"}, Reply(0, 1, ", servername = [e2e]"));

  // Names come from the layout file, in subscription order; unknown ids and every VoLTE id show
  // the C library's null marker, and IP subscriptions are not listed.
  const auto report = [](const char* enabled, const char* em) {
    return std::string("  Session ID: [1]\nTrap Enabled: [") + enabled +
           "]\nSubscribed OTA Messages:\n\tLTE_RRC_PAGING (1003)\n\t(null) (999)\n"
           "Subscribed EM Messages:\n" +
           em +
           "\tEM_LTE_SERVING_CELL_INFO (2000)\nSubscribed VoLTE Messages:\n\t(null) (5)\n"
           "Subscribed PSTIME.\nTrap Destination: [1e2e]\n";
  };
  Expect({"--get-session"}, report("true", "\tEM_NR_SERVING_CELL_INFO (2010)\n"));

  const std::string em2010 = ", type = [3], msgId = [2010]";
  Expect({"--unsubscribe-trap", "type=EM", "msgId=2010"}, Reply(0, 1, em2010));
  Expect({"--unsubscribe-trap", "type=EM", "msgId=2010"}, Reply(13, 1, em2010), 13);
  Expect({"--disable-trap"}, Reply(0, 1));

  // A second session, seen and closed by the first one as its doer.
  Expect({"--create-session"}, "2\n");
  Expect({"--subscribe-trap", "sessionId=2", "type=OTA", "msgId=1004"},
         Reply(0, 2, ", type = [2], msgId = [1004]"));
  Expect({"--get-session", "doerId=1", "sessionId=2"},
         "  Session ID: [2]\nTrap Enabled: [false]\nSubscribed OTA Messages:\n"
         "\tLTE_RRC_CONNECTION_REQUEST (1004)\n");
  Expect({"--list-session", "doerId=1"}, "1\n2\n");
  Expect({"--close-session", "doerId=1", "sessionId=2"}, Reply(0, 2, "", 1));
  Expect({"--list-session", "doerId=1"}, "1\n");

  Expect({"--get-session", "sessionId=1"}, report("false", ""));
  Expect({"--close-session", "sessionId=1"}, Reply(0, 1));
  // The service's own codes pass through as the status.
  Expect({"--close-session", "sessionId=1"}, Reply(6, 1), 6);
  Expect({"--get-session", "sessionId=1"}, Reply(6, 1), 6);
}

TEST_F(CtrlSessionTest, ReadersNeverFindTheSessionFileEmpty) {
  Expect({"--create-session"}, "1\n");
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(3);
  int writes = 0;
  std::thread writer([&] {
    for (; std::chrono::steady_clock::now() < end; ++writes) {
      tidewatch_test::RunCtrl(dir_.path(), {"--create-session"});
    }
  });
  int reads = 0;
  std::vector<std::string> failed;
  for (; std::chrono::steady_clock::now() < end; ++reads) {
    CtrlResult r = tidewatch_test::RunCtrl(dir_.path(), {"--list-session"});
    if (r.out.find("sessionId failed") != std::string::npos ||
        r.out.find("Failed to open") != std::string::npos) {
      failed.push_back(r.out);
    }
  }
  writer.join();
  EXPECT_GT(writes, 10);
  EXPECT_GT(reads, 10);
  EXPECT_TRUE(failed.empty()) << failed.size() << " of " << reads << " reads, first: " << failed[0];
}

TEST_F(CtrlSessionTest, WithoutAReadableLayoutNamesAreNull) {
  Expect({"--create-session"}, "1\n");
  Expect({"--subscribe-trap", "type=OTA", "msgId=1003"},
         "resp = [0], doerId = [0], sessionId = [1], type = [2], msgId = [1003]\n");
  const std::string layout = dir_.path() + "/resources/twd_layout_desc.dat";
  const std::string fifo = dir_.path() + "/fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  tidewatch_test::ChildOptions options;
  options.dir = dir_.path();
  options.stderrPath = dir_.path() + "/stderr";
  // Reading without end hits this at once. The sanitizers reserve far more address space up front.
  if (!tidewatch_test::kSanitized) options.addressSpaceLimit = size_t{2} << 30;
  const struct {
    const char* name;
    const char* linkTo;   // the layout path is a symbolic link to this
    std::string content;  // else, when not empty, the file's content
    bool regular;
  } cases[] = {
      {"missing", nullptr, "", true},
      {"/dev/zero", "/dev/zero", "", false},
      {"a FIFO", fifo.c_str(), "", false},
      // A log message holds only the start of the line that failed.
      {"a 20 MB line", nullptr, "#MSG_INFO\n" + std::string(20 * 1000 * 1000, 'A') + "\n", true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    unlink(layout.c_str());
    if (c.linkTo != nullptr) {
      ASSERT_EQ(symlink(c.linkTo, layout.c_str()), 0);
    } else if (!c.content.empty()) {
      ASSERT_TRUE(dir_.Write("resources/twd_layout_desc.dat", c.content));
    }
    CtrlResult r = tidewatch_test::RunCtrl(options, {"--get-session"}, 10000);
    EXPECT_EQ(r.out,
              "  Session ID: [1]\n"
              "Trap Enabled: [false]\n"
              "Subscribed OTA Messages:\n"
              "\t(null) (1003)\n");
    EXPECT_EQ(r.status, 0);
    std::string err = dir_.Read("stderr");
    EXPECT_LT(err.size(), 1000u * 1000u);
    EXPECT_EQ(err.find("not a regular file") != std::string::npos, !c.regular) << err;
  }
}

}  // namespace
