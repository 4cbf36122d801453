// The tool's binary end to end: against the emulated service through the life of real sessions
// (every command's exact output and exit status, and the current-session file it keeps between
// runs); when the service is missing, refuses, or answers badly; and in receiver mode, where each
// trap that arrives over its socket becomes one printed line.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "libtidewatch/platform/abstract_socket.h"
#include "libtidewatch/platform/hal_link.h"
#include "tests/support/capture_service_fixture.h"
#include "tests/support/mcp_test_peer.h"

namespace {

using tidewatch_test::Bytes;
using tidewatch_test::CtrlProcess;
using tidewatch_test::CtrlResult;
using tidewatch_test::RunCtrl;

class CtrlTest : public tidewatch_test::CaptureServiceFixture {
 protected:
  // A service that is not there fails at once.
  void SetUp() override {
    CaptureServiceFixture::SetUp();
    setenv("TIDEWATCH_HAL_WAIT_MS", "0", 1);
  }
  void TearDown() override {
    unsetenv("TIDEWATCH_HAL_WAIT_MS");
    unsetenv("TIDEWATCH_HAL_CALL_TIMEOUT_MS");
  }

  // Runs one command and checks its whole output and exit status.
  void Expect(const std::vector<std::string>& args, const std::string& out, int status = 0) {
    std::string line;
    for (const std::string& a : args) line += " " + a;
    SCOPED_TRACE("tide_watch_ctrl" + line);
    CtrlResult r = RunCtrl(dir_.path(), args);
    EXPECT_EQ(r.out, out);
    EXPECT_EQ(r.status, status);
  }

  const std::string server_ = ReceiverName();
};

// The reply line of a command on session `session` done by `doer`, with the service's `resp`.
std::string Reply(int resp, int session, const std::string& rest = "", int doer = 0) {
  return "resp = [" + std::to_string(resp) + "], doerId = [" + std::to_string(doer) +
         "], sessionId = [" + std::to_string(session) + "]" + rest + "\n";
}

TEST_F(CtrlTest, CreateAtEveryLevel) {
  ASSERT_TRUE(emulator_.Start());
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

TEST_F(CtrlTest, FullSession) {
  ASSERT_TRUE(emulator_.Start());
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

TEST_F(CtrlTest, ReadersNeverFindTheSessionFileEmpty) {
  ASSERT_TRUE(emulator_.Start());
  Expect({"--create-session"}, "1\n");
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(3);
  int writes = 0;
  std::thread writer([&] {
    for (; std::chrono::steady_clock::now() < end; ++writes) {
      RunCtrl(dir_.path(), {"--create-session"});
    }
  });
  int reads = 0;
  std::vector<std::string> failed;
  for (; std::chrono::steady_clock::now() < end; ++reads) {
    CtrlResult r = RunCtrl(dir_.path(), {"--list-session"});
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

TEST_F(CtrlTest, WithoutAReadableLayoutNamesAreNull) {
  ASSERT_TRUE(emulator_.Start());
  Expect({"--create-session"}, "1\n");
  Expect({"--subscribe-trap", "type=OTA", "msgId=1003"},
         Reply(0, 1, ", type = [2], msgId = [1003]"));
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
    const CtrlResult r = RunCtrl(options, {"--get-session"}, 10000);
    EXPECT_EQ(
        r.out,
        "  Session ID: [1]\nTrap Enabled: [false]\nSubscribed OTA Messages:\n\t(null) (1003)\n");
    EXPECT_EQ(r.status, 0);
    std::string err = dir_.Read("stderr");
    EXPECT_LT(err.size(), 1000u * 1000u);
    EXPECT_EQ(err.find("not a regular file") != std::string::npos, !c.regular) << err;
  }
}

TEST_F(CtrlTest, ServiceThatNeverAnswersFailsEachCallAtTheDeadline) {
  std::string prefix = "ctrl_failure_test." + std::to_string(getpid()) + ".silent.";
  setenv("TIDEWATCH_HAL_SOCKET_PREFIX", prefix.c_str(), 1);
  setenv("TIDEWATCH_HAL_CALL_TIMEOUT_MS", "300", 1);
  tidewatch_test::ChildOptions options;
  options.dir = dir_.path();
  options.stderrPath = dir_.path() + "/stderr";
  // Silence from the start, and a length field and opcode of a reply whose rest never comes.
  for (const std::string& greeting : {std::string(), std::string("\x05\0\0\0\x81", 5)}) {
    SCOPED_TRACE("greeting of " + std::to_string(greeting.size()) + " bytes");
    // A service that never accepts; or one that accepts, sends the greeting and then nothing.
    const int service = libtidewatch::ListenAbstract(
        libtidewatch::HalEndpointName(libtidewatch::HalGeneration::kAidl), 8);
    ASSERT_GE(service, 0);
    auto start = std::chrono::steady_clock::now();
    CtrlProcess ctrl;
    ASSERT_TRUE(ctrl.Start(options, {"--create-session"}));
    pollfd p{service, POLLIN, 0};
    const int fd = greeting.empty() || poll(&p, 1, 3000) != 1 ? -1 : accept(service, nullptr, 0);
    if (fd >= 0) send(fd, greeting.data(), greeting.size(), MSG_NOSIGNAL);
    EXPECT_EQ(ctrl.ReadAll(5000), "9\n");
    EXPECT_EQ(ctrl.Wait(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
    EXPECT_EQ(fd >= 0, !greeting.empty());
    std::string err = dir_.Read("stderr");
    const std::string named = "within 300 ms (TIDEWATCH_HAL_CALL_TIMEOUT_MS)\n";
    size_t at = err.find(named);
    ASSERT_NE(at, std::string::npos) << err;
    EXPECT_EQ(err.find(named, at + 1), std::string::npos) << err;
    // The send failure came back in place of an id and was kept like one.
    EXPECT_EQ(dir_.Read("current_session"), "9");
    ASSERT_TRUE(dir_.Write("current_session", "0"));
    // The trap receiver's registration gives up too, and the receiver comes up.
    tidewatch_test::CtrlProcess receiver;
    ASSERT_TRUE(
        receiver.Start(options, {"--run-trap-receiver", "sessionId=1", "servername=" + server_}));
    EXPECT_EQ(receiver.ReadLine(3000), "MonitorTrapReceiver [1" + server_ + "] was created.\n");
    if (fd >= 0) close(fd);
    close(service);
  }
}

TEST_F(CtrlTest, RefusalsReachTheShellAs255) {
  // With no service: usage, and a session id the file cannot give.
  CtrlResult r = RunCtrl(dir_.path(), {});
  EXPECT_EQ(r.out.rfind("Usage: tide_watch_ctrl\n", 0), 0u) << r.out;
  EXPECT_EQ(r.status, 255);
  Expect({"--close-session"},
         "Failed to open [./current_session] for getting session."
         "Argument <sessionId> should be specified and cannot be zero",
         255);

  ASSERT_TRUE(emulator_.Start({"--manager-secret=SomethingElseEntirely"}));
  Expect({"--create-session", "level=1"}, "", 255);
  EXPECT_EQ(dir_.Read("current_session"), "0");
  // The root secret still matches the service's default; the last level word counts.
  Expect({"--create-session", "level=1", "level=2"}, "1\n");
  EXPECT_EQ(dir_.Read("current_session"), "1");
}

TEST_F(CtrlTest, BrokenReplies) {
  struct Case {
    const char* fault;
    std::string args;  // split at spaces
    std::string out;
    int status;
  } cases[] = {
      // The service's transaction failed, or its bytes hold no packet: nothing came back.
      {"transaction-fail", "--close-session sessionId=1", Reply(9, 1), 9},
      {"not-mcp", "--enable-trap sessionId=1", Reply(9, 1), 9},
      // A packet came back but does not answer the command.
      {"empty-reply", "--disable-trap sessionId=2", Reply(10, 2), 10},
      {"trap-type-reply", "--list-session doerId=1", "resp = [10], doerId = [1]\n", 10},
      {"wrong-api", "--get-session sessionId=1", Reply(10, 1), 10},
      {"wrong-version", "--set-debug-level doerId=1", "resp = [10], doerId = [1]\n", 10},
      {"ret-out-of-range", "--subscribe-trap sessionId=1 type=EM msgId=4",
       Reply(10, 1, ", type = [3], msgId = [4]"), 10},
      {"bad-json", "--set-trap-receiver sessionId=1 servername=x",
       Reply(10, 1, ", servername = [x]"), 10},
      // The bad-reply code stands in for the id, as any other failure code would.
      {"no-data", "--create-session", "10\n", 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.fault);
    ASSERT_TRUE(emulator_.Start({std::string("--fault=") + c.fault}));
    std::istringstream words(c.args);
    Expect({std::istream_iterator<std::string>(words), {}}, c.out, c.status);
    emulator_.Stop();
  }
}

TEST_F(CtrlTest, PrintsTrapsArrivingOnItsSocket) {
  // No service anywhere: the socket is served all the same.
  std::string prefix = "ctrl_trap_receiver_test." + std::to_string(getpid()) + ".nobody.";
  setenv("TIDEWATCH_HAL_SOCKET_PREFIX", prefix.c_str(), 1);
  ASSERT_TRUE(dir_.Write("current_session", "77\n"));

  CtrlProcess receiver;
  ASSERT_TRUE(receiver.Start(dir_.path(), {"--run-trap-receiver", "servername=" + server_}));
  ASSERT_EQ(receiver.ReadLine(), "MonitorTrapReceiver [77" + server_ + "] was created.\n");

  // The socket's name is the session id followed by the server name, without the prefix.
  int fd = -1;
  for (int i = 0; i < 200 && (fd = libtidewatch::ConnectAbstract("77" + server_)) < 0; ++i) {
    usleep(50 * 1000);  // the receiver may still be binding it
  }
  ASSERT_GE(fd, 0);
  // The line above is printed just before the handler goes in, and traps that come earlier are
  // dropped: probe until one is printed.
  const Bytes probe =
      tidewatch_test::McpPacket(libtidewatch::MCP_TYPE_TRAP, tidewatch_test::TrapRecord(8, {0}));
  const std::string probeLine = "Receive frame: time = [0] type = [8] len =[1]\n";
  std::string line;
  for (int attempt = 0; attempt < 100 && line != probeLine; ++attempt) {
    ASSERT_TRUE(tidewatch_test::WriteAll(fd, probe));
    line = receiver.ReadLine(200);
  }
  ASSERT_EQ(line, probeLine);
  using tidewatch_test::TrapRecord;
  struct Case {
    Bytes raw;
    std::string line;
  } cases[] = {
      {TrapRecord(3, {1, 2, 3, 4}), "Receive frame: time = [0] type = [3] len =[4]\n"},
      {tidewatch_test::Concat(
           {TrapRecord(2, Bytes(300, 0xAB)), tidewatch_test::DiscardRecord({{2, 3}, {3, 4}})}),
       "Receive frame: time = [0] type = [2] len =[300]\n"},
      // Data that fails to parse still reaches the printer, as type 0 and length 0.
      {tidewatch_test::Concat({tidewatch_test::DiscardRecord({}), TrapRecord(3, {9})}),
       "Receive frame: time = [0] type = [0] len =[0]\n"},
  };
  for (const Case& c : cases) {
    ASSERT_TRUE(tidewatch_test::WriteAll(
        fd, tidewatch_test::McpPacket(libtidewatch::MCP_TYPE_TRAP, c.raw)));
    do {
      line = receiver.ReadLine();
    } while (line == probeLine);  // a probe may have been answered twice
    EXPECT_EQ(line, c.line);
  }
  close(fd);
  // Still running: the receiver mode only ends when it is killed.
  EXPECT_EQ(receiver.Stop(), -SIGTERM);
}

}  // namespace
