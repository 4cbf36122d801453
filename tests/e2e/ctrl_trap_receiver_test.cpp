// The tool's receiver mode, run as its own process: traps delivered over its socket and through
// the emulated service's callback each become one printed line, as they arrive.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/support/ctrl_process.h"
#include "tests/support/emulator_process.h"
#include "tests/support/mcp_test_peer.h"
#include "tests/support/scratch_dir.h"

namespace {

using tidewatch_test::Bytes;
using tidewatch_test::CtrlProcess;
using tidewatch_test::CtrlResult;
using tidewatch_test::RunCtrl;

class CtrlTrapReceiverTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_FALSE(dir_.path().empty()); }

  CtrlResult Ctl(const std::vector<std::string>& args) { return RunCtrl(dir_.path(), args); }

  // Connects to the receiver's socket, retrying while the receiver may still be binding it.
  static int Connect(const std::string& name) {
    for (int attempt = 0; attempt < 200; ++attempt) {
      int fd = libtidewatch::ConnectAbstract(name);
      if (fd >= 0) return fd;
      usleep(50 * 1000);
    }
    return -1;
  }

  tidewatch_test::ScratchDir dir_{"ctrl_trap_receiver_test"};
  // Unique per test process, so that receivers of parallel tests never share a socket name.
  const std::string server_ = "rx" + std::to_string(getpid());
};

TEST_F(CtrlTrapReceiverTest, PrintsTrapsArrivingOnItsSocket) {
  // No service anywhere: the socket is served all the same.
  std::string prefix = "ctrl_trap_receiver_test." + std::to_string(getpid()) + ".nobody.";
  setenv("TIDEWATCH_HAL_SOCKET_PREFIX", prefix.c_str(), 1);
  ASSERT_TRUE(dir_.Write("current_session", "77\n"));

  CtrlProcess receiver;
  ASSERT_TRUE(receiver.Start(dir_.path(), {"--run-trap-receiver", "servername=" + server_}));
  ASSERT_EQ(receiver.ReadLine(), "MonitorTrapReceiver [77" + server_ + "] was created.\n");

  // The socket's name is the session id followed by the server name, without the prefix.
  int fd = Connect("77" + server_);
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

TEST_F(CtrlTrapReceiverTest, PrintsTrapsFromTheService) {
  tidewatch_test::EmulatorProcess emulator;
  ASSERT_TRUE(emulator.Start({"--trap-rate=50", "--trap-size=24"}));
  ASSERT_EQ(Ctl({"--create-session"}).out, "1\n");
  ASSERT_EQ(Ctl({"--subscribe-trap", "type=EM", "msgId=9"}).status, 0);
  ASSERT_EQ(Ctl({"--enable-trap"}).status, 0);
  ASSERT_EQ(Ctl({"--set-trap-receiver", "servername=" + server_}).status, 0);

  CtrlProcess receiver;
  ASSERT_TRUE(receiver.Start(dir_.path(), {"--run-trap-receiver", "servername=" + server_}));
  ASSERT_EQ(receiver.ReadLine(), "MonitorTrapReceiver [1" + server_ + "] was created.\n");
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(receiver.ReadLine(), "Receive frame: time = [0] type = [3] len =[24]\n") << i;
  }
  EXPECT_EQ(receiver.Stop(), -SIGTERM);
}

}  // namespace
