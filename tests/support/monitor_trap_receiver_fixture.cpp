#include "tests/support/monitor_trap_receiver_fixture.h"

#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "libtidewatch/transport/mcp_info.h"
#include "tests/support/mcp_test_peer.h"

namespace tidewatch_test {

using libtidewatch::MonitorTrapReceiver;

void MonitorTrapReceiverFixture::Recorder::Handle(void* context, unsigned int time,
                                                  libtidewatch::TRAP_TYPE type,
                                                  unsigned long length, const unsigned char* data,
                                                  unsigned long discardCount) {
  auto* self = static_cast<Recorder*>(context);
  std::lock_guard<std::mutex> lock(self->m_mutex);
  self->m_calls.push_back({context, time, type, length, data == nullptr,
                           data == nullptr ? std::string()
                                           : std::string(reinterpret_cast<const char*>(data),
                                                         std::min<unsigned long>(length, kCopied)),
                           discardCount});
  self->m_changed.notify_all();
}

void MonitorTrapReceiverFixture::Recorder::Drained(void* context) {
  auto* self = static_cast<Recorder*>(context);
  std::lock_guard<std::mutex> lock(self->m_mutex);
  self->m_drains.push_back(self->m_calls.size());
  self->m_changed.notify_all();
}

std::vector<size_t> MonitorTrapReceiverFixture::Recorder::WaitForDrainAfter(size_t n) {
  std::unique_lock<std::mutex> lock(m_mutex);
  m_changed.wait_for(lock, std::chrono::seconds(5),
                     [&] { return !m_drains.empty() && m_drains.back() >= n; });
  return m_drains;
}

bool MonitorTrapReceiverFixture::Recorder::WaitForCount(size_t n) {
  std::unique_lock<std::mutex> lock(m_mutex);
  return m_changed.wait_for(lock, std::chrono::seconds(60), [&] { return m_calls.size() >= n; });
}

std::vector<MonitorTrapReceiverFixture::Call> MonitorTrapReceiverFixture::Recorder::Calls() {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_calls;
}

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
