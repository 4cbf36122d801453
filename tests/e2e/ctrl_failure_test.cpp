// The tool's binary when the service is missing, refuses, or answers badly: what it prints, the
// status it exits with, and what it leaves in the current-session file.
#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "libtidewatch/platform/abstract_socket.h"
#include "libtidewatch/platform/hal_link.h"
#include "tests/support/ctrl_process.h"
#include "tests/support/emulator_process.h"
#include "tests/support/scratch_dir.h"

namespace {

using tidewatch_test::CtrlResult;
using tidewatch_test::RunCtrl;

// A service that takes every connection, sends `greeting` on it (part of a frame, say) and then
// nothing, keeping the connection open until the service ends.
class SilentService {
 public:
  explicit SilentService(const std::string& greeting) {
    m_listen = libtidewatch::ListenAbstract(
        libtidewatch::HalEndpointName(libtidewatch::HalGeneration::kAidl), 8);
    if (m_listen >= 0) m_thread = std::thread([this, greeting] { Serve(greeting); });
  }
  ~SilentService() {
    m_stop = true;
    if (m_thread.joinable()) m_thread.join();
    for (int fd : m_clients) close(fd);
    if (m_listen >= 0) close(m_listen);
  }
  bool ok() const { return m_listen >= 0; }

 private:
  void Serve(const std::string& greeting) {
    while (!m_stop) {
      pollfd p{m_listen, POLLIN, 0};
      if (poll(&p, 1, 20) <= 0) continue;
      int fd = accept(m_listen, nullptr, nullptr);
      if (fd < 0) continue;
      m_clients.push_back(fd);
      if (!greeting.empty()) send(fd, greeting.data(), greeting.size(), MSG_NOSIGNAL);
    }
  }

  int m_listen = -1;
  std::atomic<bool> m_stop{false};
  std::vector<int> m_clients;  // only the serving thread touches it until it is joined
  std::thread m_thread;
};

class CtrlFailureTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(dir_.path().empty());
    setenv("TIDEWATCH_HAL_WAIT_MS", "0", 1);
  }
  void TearDown() override { unsetenv("TIDEWATCH_HAL_WAIT_MS"); }

  CtrlResult Ctl(const std::vector<std::string>& args) { return RunCtrl(dir_.path(), args); }

  tidewatch_test::ScratchDir dir_{"ctrl_failure_test"};
  tidewatch_test::EmulatorProcess emulator_;
};

TEST_F(CtrlFailureTest, ServiceThatNeverAnswersFailsEachCallAtTheDeadline) {
  std::string prefix = "ctrl_failure_test." + std::to_string(getpid()) + ".silent.";
  setenv("TIDEWATCH_HAL_SOCKET_PREFIX", prefix.c_str(), 1);
  setenv("TIDEWATCH_HAL_CALL_TIMEOUT_MS", "300", 1);
  tidewatch_test::ChildOptions options;
  options.dir = dir_.path();
  options.stderrPath = dir_.path() + "/stderr";
  const struct {
    std::vector<std::string> args;
    std::string out;
    int status;
  } commands[] = {
      {{"--create-session"}, "9\n", 0},
      {{"--close-session", "sessionId=1"}, "resp = [9], doerId = [0], sessionId = [1]\n", 9},
      {{"--list-session", "doerId=4"}, "resp = [9], doerId = [4]\n", 9},
  };
  // Silence from the start, and a length field and opcode of a reply whose rest never comes.
  for (const std::string& greeting : {std::string(), std::string("\x05\0\0\0\x81", 5)}) {
    SCOPED_TRACE("greeting of " + std::to_string(greeting.size()) + " bytes");
    SilentService service(greeting);
    ASSERT_TRUE(service.ok());
    for (const auto& c : commands) {
      SCOPED_TRACE(c.args[0]);
      auto start = std::chrono::steady_clock::now();
      CtrlResult r = RunCtrl(options, c.args, 5000);
      EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
      EXPECT_EQ(r.out, c.out);
      EXPECT_EQ(r.status, c.status);
      std::string err = dir_.Read("stderr");
      const std::string named = "within 300 ms (TIDEWATCH_HAL_CALL_TIMEOUT_MS)\n";
      size_t at = err.find(named);
      ASSERT_NE(at, std::string::npos) << err;
      EXPECT_EQ(err.find(named, at + 1), std::string::npos) << err;
    }
    // The send failure came back in place of an id and was kept like one.
    EXPECT_EQ(dir_.Read("current_session"), "9");
    ASSERT_TRUE(dir_.Write("current_session", "0"));
    // The trap receiver's registration gives up too, and the receiver comes up.
    tidewatch_test::CtrlProcess receiver;
    std::string server = "silent" + std::to_string(getpid());
    ASSERT_TRUE(
        receiver.Start(options, {"--run-trap-receiver", "sessionId=1", "servername=" + server}));
    EXPECT_EQ(receiver.ReadLine(3000), "MonitorTrapReceiver [1" + server + "] was created.\n");
  }
  unsetenv("TIDEWATCH_HAL_CALL_TIMEOUT_MS");
}

TEST_F(CtrlFailureTest, RefusedSecret) {
  ASSERT_TRUE(emulator_.Start({"--manager-secret=SomethingElseEntirely"}));
  CtrlResult r = Ctl({"--create-session", "level=1"});
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.status, 255);
  EXPECT_EQ(dir_.Read("current_session"), "0");

  // The root secret still matches the service's default; the last level word counts.
  r = Ctl({"--create-session", "level=1", "level=2"});
  EXPECT_EQ(r.out, "1\n");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(dir_.Read("current_session"), "1");
}

TEST_F(CtrlFailureTest, BrokenReplies) {
  struct Case {
    const char* fault;
    std::string args;  // split at spaces
    std::string out;
    int status;
  } cases[] = {
      // The service's transaction failed, or its bytes hold no packet: nothing came back.
      {"transaction-fail", "--close-session sessionId=1",
       "resp = [9], doerId = [0], sessionId = [1]\n", 9},
      {"not-mcp", "--enable-trap sessionId=1", "resp = [9], doerId = [0], sessionId = [1]\n", 9},
      // A packet came back but does not answer the command.
      {"empty-reply", "--disable-trap sessionId=2", "resp = [10], doerId = [0], sessionId = [2]\n",
       10},
      {"trap-type-reply", "--list-session doerId=1", "resp = [10], doerId = [1]\n", 10},
      {"wrong-api", "--get-session sessionId=1", "resp = [10], doerId = [0], sessionId = [1]\n",
       10},
      {"wrong-version", "--set-debug-level doerId=1", "resp = [10], doerId = [1]\n", 10},
      {"ret-out-of-range", "--subscribe-trap sessionId=1 type=EM msgId=4",
       "resp = [10], doerId = [0], sessionId = [1], type = [3], msgId = [4]\n", 10},
      {"bad-json", "--set-trap-receiver sessionId=1 servername=x",
       "resp = [10], doerId = [0], sessionId = [1], servername = [x]\n", 10},
      // The bad-reply code stands in for the id, as any other failure code would.
      {"no-data", "--create-session", "10\n", 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.fault);
    ASSERT_TRUE(emulator_.Start({std::string("--fault=") + c.fault}));
    std::istringstream words(c.args);
    CtrlResult r = Ctl({std::istream_iterator<std::string>(words), {}});
    EXPECT_EQ(r.out, c.out);
    EXPECT_EQ(r.status, c.status);
    emulator_.Stop();
  }
}

TEST_F(CtrlFailureTest, MinusOneReachesTheShellAs255) {
  CtrlResult r = Ctl({});
  EXPECT_EQ(r.out.rfind("Usage: tide_watch_ctrl\n", 0), 0u) << r.out;
  EXPECT_EQ(r.status, 255);
  r = Ctl({"--close-session"});
  EXPECT_EQ(r.out,
            "Failed to open [./current_session] for getting session."
            "Argument <sessionId> should be specified and cannot be zero");
  EXPECT_EQ(r.status, 255);
}

}  // namespace
