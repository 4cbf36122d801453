#include "tests/support/monitor_trap_receiver_fixture.h"

#include <stdlib.h>
#include <unistd.h>

#include "libtidewatch/transport/mcp_info.h"
#include "tests/support/mcp_test_peer.h"

namespace tidewatch_test {

using libtidewatch::MonitorTrapReceiver;

void MonitorTrapReceiverFixture::SetUp() {
  // No service may be found by accident on a host: look it up under a prefix nobody publishes.
  // A device's build ignores the variable.
  setenv("TIDEWATCH_HAL_SOCKET_PREFIX", UniqueSocketName(".nohal.").c_str(), 1);
  m_serverName = UniqueSocketName();
}

void MonitorTrapReceiverFixture::TearDown() {
  for (int fd : m_fds) close(fd);
  unsetenv("TIDEWATCH_HAL_SOCKET_PREFIX");
  unsetenv("TIDEWATCH_HAL_WAIT_MS");
}

std::unique_ptr<MonitorTrapReceiver> MonitorTrapReceiverFixture::NewReceiver(
    unsigned long sessionId, const char* serverName) {
  auto receiver = std::make_unique<MonitorTrapReceiver>(sessionId, serverName);
  receiver->userData = &recorder;
  receiver->drainHandler = &Recorder::Drained;
  receiver->trapHandler = &Recorder::Handle;
  return receiver;
}

int MonitorTrapReceiverFixture::Connect(const std::string& name) {
  int fd = libtidewatch::ConnectAbstract(name);
  if (fd >= 0) m_fds.push_back(fd);
  return fd;
}

void MonitorTrapReceiverFixture::ExpectTrapArrives(const std::string& name, const std::string& text,
                                                   size_t n) {
  int fd = libtidewatch::ConnectAbstract(name);
  ASSERT_GE(fd, 0);
  const Bytes payload(text.begin(), text.end());
  ASSERT_TRUE(WriteAll(
      fd, McpPacket(libtidewatch::MCP_TYPE_TRAP, TrapRecord(libtidewatch::TRAP_TYPE_EM, payload))));
  ASSERT_TRUE(recorder.WaitForCount(n)) << "no trap " << text;
  close(fd);
  EXPECT_EQ(recorder.Calls()[n - 1].data, text);
}

}  // namespace tidewatch_test
