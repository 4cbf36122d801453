// The capture tool's binary against the emulated service: what a selection subscribes, how each
// way of stopping leaves the service, dropped traps, a service that restarts, and usage errors.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "libtidewatch/platform/abstract_socket.h"
#include "tests/support/capture_service_fixture.h"

namespace {

using tidewatch_test::RunCtrl;

constexpr int kWaitMs = 5000;

class CaptureTest : public tidewatch_test::CaptureServiceFixture {
 protected:
  void StartCapture(const std::vector<std::string>& args) {
    ASSERT_TRUE(capture_.Start(dir_.path(), WithReceiverName(args)));
  }

  // The session report of `sessionId`, as the root session sees it.
  std::string Report(int sessionId) {
    return RunCtrl(dir_.path(),
                   {"--get-session", "doerId=1", "sessionId=" + std::to_string(sessionId)})
        .out;
  }

  // Waits until the capture's session `sessionId` has traps enabled, which it does last.
  bool WaitEnabled(int sessionId) {
    return WaitFor(
        [&] { return Report(sessionId).find("Trap Enabled: [true]") != std::string::npos; });
  }

  // Polls `done` until it holds or the deadline passes.
  template <class Done>
  static bool WaitFor(Done done) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
    while (!done()) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
  }

  // Ends the capture's output and its process; its exit status.
  int Finish() {
    out_ += capture_.ReadAll();
    return capture_.Wait();
  }

  const std::string receiver_ = ReceiverName();
  tidewatch_test::CtrlProcess capture_{tidewatch_test::CtrlProcess::CaptureBinaryPath(),
                                       CaptureErrPath()};
  std::string out_;
};

TEST_F(CaptureTest, SelectionSubscribesExactlyItsIdsAndEveryStopClosesTheSession) {
  StartService({"--trap-rate=100"});
  const struct {
    std::vector<std::string> args;
    int signal;              // sent once traps are enabled; 0: none
    long lines;              // trap lines expected; -1: any number
    std::string subscribed;  // what the session's report lists, checked before the signal
  } cases[] = {
      {{"--em", "EM_LTE_SERVING_CELL_INFO"},
       SIGINT,
       -1,
       "Subscribed EM Messages:\n\tEM_LTE_SERVING_CELL_INFO (2000)\n"},
      {{"--ota", "LTE_RRC_CONNECTION_REL*", "--ota", "1003,LTE_RRC_PAGING"},
       SIGINT,
       -1,
       "Subscribed OTA Messages:\n\tLTE_RRC_CONNECTION_RELEASE (1015)\n\tLTE_RRC_PAGING (1003)\n"},
      {{"--em", "0x7d1", "--ota", "NR_NAS_REG*"},
       SIGTERM,
       -1,
       "Subscribed OTA Messages:\n\tNR_NAS_REGISTRATION_REQUEST (1035)\n"
       "\tNR_NAS_REGISTRATION_ACCEPT (1036)\nSubscribed EM Messages:\n"
       "\tEM_LTE_NEIGHBOUR_CELL_INFO (2001)\n"},
      {{"--em", "2000", "-c", "3"}, 0, 3, ""},
      {{"--em", "2000", "--duration", "0.5"}, 0, -1, ""},
  };
  int sessionId = 2;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args[1] + " " + c.args.back());
    out_.clear();
    StartCapture(c.args);
    if (c.signal != 0) {
      ASSERT_TRUE(WaitEnabled(sessionId));
      const std::string report = Report(sessionId);
      const size_t from = report.find("Subscribed");
      ASSERT_NE(from, std::string::npos) << report;
      EXPECT_EQ(report.substr(from, report.find("Trap Destination") - from), c.subscribed);
      EXPECT_NE(report.find(std::to_string(sessionId) + receiver_), std::string::npos) << report;
      kill(capture_.pid(), c.signal);
    }
    EXPECT_EQ(Finish(), 0);
    EXPECT_NE(Stderr().find("session " + std::to_string(sessionId) + " closed\n"),
              std::string::npos)
        << Stderr();
    EXPECT_EQ(Sessions(), "1\n");
    if (c.lines >= 0) {
      EXPECT_EQ(std::count(out_.begin(), out_.end(), '\n'), c.lines) << out_;
    }
    ++sessionId;
  }

  // A name that matches nothing names the closest ones and subscribes nothing.
  EXPECT_EQ(Capture({"--em", "EM_LTE_SERVNG_CELL_INFO"}).status, 2);
  EXPECT_EQ(Stderr(),
            "tide_watch_capture: unknown EM message name 'EM_LTE_SERVNG_CELL_INFO'; did you mean "
            "EM_LTE_SERVING_CELL_INFO or EM_NR_SERVING_CELL_INFO?\n");
  EXPECT_EQ(Sessions(), "1\n");
}

TEST_F(CaptureTest, StalledReaderReportsDroppedTraps) {
  // Large traps fill the socket fast, and a stalled callback is dropped after 200 ms.
  StartService({"--trap-rate=500", "--trap-size=4000", "--callback-timeout-ms=200"});
  StartCapture({"--em", "2000", "--format", "json"});
  ASSERT_TRUE(WaitEnabled(2));
  ASSERT_NE(capture_.ReadLine(kWaitMs), "");
  kill(capture_.pid(), SIGSTOP);
  std::this_thread::sleep_for(std::chrono::seconds(1));
  kill(capture_.pid(), SIGCONT);
  EXPECT_TRUE(WaitFor([&] {
    return capture_.ReadLine(kWaitMs).find("\"discards\":{\"EM\":") != std::string::npos;
  }));
  // Traps keep coming after the stall (the callback was registered again), and the summary counts
  // the drops.
  EXPECT_NE(capture_.ReadLine(kWaitMs), "");
  kill(capture_.pid(), SIGINT);
  EXPECT_EQ(Finish(), 0);
  EXPECT_NE(Stderr().find("\ndropped by the service: 0 OTA, "), std::string::npos) << Stderr();
  EXPECT_EQ(Stderr().find("\ndropped by the service: 0 OTA, 0 EM"), std::string::npos) << Stderr();
  EXPECT_EQ(Sessions(), "1\n");
}

TEST_F(CaptureTest, ARestartedServiceEndsOnlyTheRunWithoutReconnect) {
  StartService({"--trap-rate=50"});
  tidewatch_test::CtrlProcess once(tidewatch_test::CtrlProcess::CaptureBinaryPath(),
                                   dir_.path() + "/once.err");
  ASSERT_TRUE(once.Start(dir_.path(), WithReceiverName({"--em", "2000", "--no-reconnect"})));
  ASSERT_TRUE(WaitEnabled(2));
  StartCapture({"--em", "2000"});
  ASSERT_TRUE(WaitEnabled(3));
  ASSERT_NE(capture_.ReadLine(kWaitMs), "");
  emulator_.Kill();
  once.ReadAll(kWaitMs);
  EXPECT_EQ(once.Wait(), 1);
  EXPECT_NE(dir_.Read("once.err").find("the modem-monitor service has gone (session 2)\n"),
            std::string::npos)
      << dir_.Read("once.err");
  ASSERT_TRUE(emulator_.Restart());
  // The new service starts its ids again from 1: the other capture's new session is 1.
  ASSERT_TRUE(WaitFor([&] {
    return Stderr().find("the service is back: capturing on session 1\n") != std::string::npos;
  })) << Stderr();
  capture_.ReadLine(100);  // what was under way before the restart
  EXPECT_NE(capture_.ReadLine(kWaitMs), "");
  kill(capture_.pid(), SIGINT);
  EXPECT_EQ(Finish(), 0);
  EXPECT_NE(Stderr().find("service gaps: 1,"), std::string::npos) << Stderr();
  EXPECT_NE(Stderr().find("session 1 closed\n"), std::string::npos) << Stderr();
  ASSERT_EQ(RunCtrl(dir_.path(), {"--create-session", "level=2"}).out, "2\n");
  EXPECT_EQ(RunCtrl(dir_.path(), {"--list-session", "doerId=2"}).out, "2\n");
}

TEST_F(CaptureTest, ErrorsSayWhatToDo) {
  StartService({});
  // Someone else's receiver already listens where the next session's would.
  const int taken = libtidewatch::ListenAbstract("2" + receiver_, 4);
  ASSERT_GE(taken, 0);
  const struct {
    std::vector<std::string> args;
    int status;
    std::string error;
  } cases[] = {
      {{"--em", "2000", "--secret", "open"},
       1,
       "the service refused the secret given with --secret"},
      {{"--em", "2000", "--layout", dir_.path() + "/none.dat"},
       2,
       "layout file " + dir_.path() + "/none.dat does not load: No such file or directory"},
      {{"--em", "2000", "--layout", dir_.path()},
       2,
       "layout file " + dir_.path() + " does not load: not a regular file"},
      {{"--em", "2000"},
       1,  // session 2 is the one that the refused secret did not open
       "the receiver name 2" + receiver_ +
           " is taken: another process listens on it (choose another "
           "with --receiver-name)"},
      {{"--em", "2000", "--report", "missing/r.html"},
       2,
       "cannot write missing/r.html: No such file or directory"},
      {{"--ota", "1003", "--em", "2000", "--count", "0"}, 2, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.error);
    EXPECT_EQ(Capture(c.args).status, c.status);
    if (c.error.empty()) continue;
    EXPECT_EQ(Stderr(), "tide_watch_capture: " + c.error + "\n");
  }
  close(taken);
  // Nothing was left open by the failed runs.
  EXPECT_EQ(Sessions(), "1\n");

  emulator_.Kill();
  setenv("TIDEWATCH_HAL_WAIT_MS", "100", 1);
  EXPECT_EQ(Capture({"--em", "2000"}).status, 1);
  EXPECT_EQ(Stderr(),
            "tide_watch_capture: cannot reach the modem-monitor service: it is not running or does "
            "not answer\n");
  unsetenv("TIDEWATCH_HAL_WAIT_MS");
}

}  // namespace
