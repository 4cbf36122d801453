#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "libtidewatch/platform/abstract_socket.h"
#include "libtidewatch/platform/hal_link.h"
#include "libtidewatch/platform/hal_service.h"

namespace libtidewatch {
namespace {

using Bytes = std::vector<uint8_t>;

// Guards the waits below against a hang; never an expectation about speed.
constexpr auto kPatience = std::chrono::seconds(20);

Bytes Frame(uint8_t opcode, std::initializer_list<uint8_t> payload) {
  Bytes raw;
  AppendHalLinkFrame(opcode, payload.begin(), payload.size(), &raw);
  return raw;
}

// Records what the service pushed and answers with `answer`.
class RecordingTarget : public HalCallbackTarget {
 public:
  bool OnServiceData(const uint8_t* data, size_t len) override {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_received.emplace_back(data, data + len);
    return m_received.size() == 1;
  }
  std::vector<Bytes> Received() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_received;
  }

 private:
  std::mutex m_mutex;
  std::vector<Bytes> m_received;
};

// The cookie of a death handler: counts its calls and notes the thread.
struct DeathProbe {
  std::mutex mutex;
  std::condition_variable fired;
  int calls = 0;
  std::thread::id thread;

  static void OnDeath(void* cookie) {
    auto* probe = static_cast<DeathProbe*>(cookie);
    std::lock_guard<std::mutex> lock(probe->mutex);
    ++probe->calls;
    probe->thread = std::this_thread::get_id();
    probe->fired.notify_all();
  }
  bool WaitCalls(int n) {
    std::unique_lock<std::mutex> lock(mutex);
    return fired.wait_for(lock, kPatience, [&] { return calls >= n; });
  }
};

// The test plays the service, writing each answer before the call that reads it: no thread.
class HostHalServiceTest : public testing::Test {
 protected:
  void SetUp() override {
    static int count = 0;
    std::string prefix = "test-" + std::to_string(getpid()) + "-" + std::to_string(count++) + "-";
    setenv("TIDEWATCH_HAL_SOCKET_PREFIX", prefix.c_str(), 1);
    unsetenv("TIDEWATCH_HAL_WAIT_MS");
    m_listener = ListenAbstract(HalEndpointName(HalGeneration::kAidl), 4);
    ASSERT_GE(m_listener, 0);
    m_fds.push_back(m_listener);
    fcntl(m_listener, F_SETFL, O_NONBLOCK);  // a lookup that failed must not leave accept waiting
  }
  void TearDown() override {
    for (int fd : m_fds) close(fd);
    unsetenv("TIDEWATCH_HAL_SOCKET_PREFIX");
    unsetenv("TIDEWATCH_HAL_WAIT_MS");
  }

  // Looks the AIDL service up and accepts the connection as the service's end, m_service.
  std::shared_ptr<HalService> Open() {
    std::shared_ptr<HalService> handle = CheckAidlHalService();
    m_service = accept(m_listener, nullptr, nullptr);
    EXPECT_GE(m_service, 0);
    m_fds.push_back(m_service);
    return m_service >= 0 ? handle : nullptr;
  }
  void Serve(const Bytes& raw) {
    ASSERT_EQ(static_cast<ssize_t>(raw.size()), write(m_service, raw.data(), raw.size()));
  }
  // The next frame the service's end receives, or what ended the wait for it.
  HalLinkReadResult Request(HalLinkFrame* frame) {
    return ReadHalLinkFrame(m_service, frame, std::chrono::steady_clock::now() + kPatience);
  }
  // Sends one TRAP on the callback connection and returns the TRAP_RESULT payload.
  Bytes PushTrap(const Bytes& trap) {
    EXPECT_TRUE(WriteHalLinkFrame(m_service, kHalLinkTrap, trap.data(), trap.size()));
    HalLinkFrame answer;
    EXPECT_EQ(HalLinkReadResult::kFrame, Request(&answer));
    EXPECT_EQ(kHalLinkTrapResult, answer.opcode);
    return answer.payload;
  }

  std::unique_ptr<HalDeathRecipient> m_recipient = NewHalDeathRecipient(&DeathProbe::OnDeath);
  std::vector<int> m_fds;
  int m_listener = -1;
  int m_service = -1;
  Bytes m_reply;
};

// A refusal keeps the connection; an answer that cannot be accepted (or none) closes it.
TEST_F(HostHalServiceTest, CommandAnswers) {
  const struct {
    Bytes answer;  // written twice; empty: the service hangs up instead
    bool ok;
    Bytes reply;  // what the caller's vector holds afterwards
    bool closes;
  } cases[] = {
      {Frame(kHalLinkCommandResult, {0x00, 'r', 'e'}), true, {'r', 'e'}, false},
      {Frame(kHalLinkCommandResult, {0x00}), true, {}, false},
      {Frame(kHalLinkCommandResult, {0x05, 'x'}), false, {0xEE}, false},
      {{0x00, 0x00, 0x00, 0x00}, false, {0xEE}, true},                                // length 0
      {{0x02, 0x00, 0x00, 0x00, kHalLinkRegisterResult, 0x00}, false, {0xEE}, true},  // opcode
      {{0x01, 0x00, 0x00, 0x00, kHalLinkCommandResult}, false, {0xEE}, true},  // no status byte
      {{}, false, {0xEE}, true},
  };
  const Bytes request = {0x01, 0x02, 0x03};
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.answer));
    std::shared_ptr<HalService> handle = Open();
    ASSERT_NE(nullptr, handle);
    EXPECT_EQ(HalGeneration::kAidl, handle->Generation());
    Serve(c.answer);
    Serve(c.answer);
    if (c.answer.empty()) shutdown(m_service, SHUT_WR);
    for (int call = 0; call < 2; ++call) {
      m_reply = {0xEE};
      EXPECT_EQ(c.ok, handle->SendCommand(request.data(), request.size(), &m_reply));
      EXPECT_EQ(c.reply, m_reply);
    }
    HalLinkFrame frame;
    for (int call = 0; call < (c.closes ? 1 : 2); ++call) {
      ASSERT_EQ(HalLinkReadResult::kFrame, Request(&frame));
      EXPECT_EQ(request, frame.payload);
    }
    EXPECT_TRUE(!c.closes || Request(&frame) == HalLinkReadResult::kClosed);
  }
}

TEST_F(HostHalServiceTest, RegisteredConnectionServesTheCallback) {
  auto target = std::make_shared<RecordingTarget>();
  std::shared_ptr<HalService> handle = Open();
  ASSERT_NE(nullptr, handle);
  // A refused registration leaves a command connection.
  Serve(Frame(kHalLinkRegisterResult, {3}));
  EXPECT_FALSE(handle->RegisterTrapCallback("7", target));
  Serve(Frame(kHalLinkCommandResult, {0x00}));
  EXPECT_TRUE(handle->SendCommand(nullptr, 0, &m_reply));
  Serve(Frame(kHalLinkRegisterResult, {kHalLinkStatusOk}));
  ASSERT_TRUE(handle->RegisterTrapCallback("5trapd", target));
  const std::pair<uint8_t, Bytes> requests[] = {
      {kHalLinkRegisterTrapCallback, {'7'}},
      {kHalLinkCommand, {}},
      {kHalLinkRegisterTrapCallback, {'5', 't', 'r', 'a', 'p', 'd'}}};
  for (const auto& want : requests) {
    HalLinkFrame frame;
    ASSERT_EQ(HalLinkReadResult::kFrame, Request(&frame));
    EXPECT_EQ(want, std::make_pair(frame.opcode, frame.payload));
  }
  // The connection now belongs to the callback: nothing more goes out.
  EXPECT_FALSE(handle->SendCommand(nullptr, 0, &m_reply));
  EXPECT_FALSE(handle->RegisterTrapCallback("6trapd", target));
  uint8_t byte;
  EXPECT_EQ(-1, recv(m_service, &byte, 1, MSG_DONTWAIT));

  // The callback outlives the handle, and answers with the target's result.
  handle.reset();
  EXPECT_EQ(Bytes({1}), PushTrap({9, 8, 7}));
  EXPECT_EQ(Bytes({0}), PushTrap({}));
  EXPECT_EQ(std::vector<Bytes>({{9, 8, 7}, {}}), target->Received());
}

TEST_F(HostHalServiceTest, DeathRunsEveryLinkOnceOnAnotherThread) {
  // Destroying a handle is no death.
  DeathProbe unlinked;
  ASSERT_EQ(0, Open()->LinkToDeath(m_recipient.get(), &unlinked));
  for (bool registered : {false, true}) {
    SCOPED_TRACE(registered ? "registered" : "commands only");
    std::shared_ptr<HalService> handle = Open();
    ASSERT_NE(nullptr, handle);
    if (registered) {
      Serve(Frame(kHalLinkRegisterResult, {kHalLinkStatusOk}));
      ASSERT_TRUE(handle->RegisterTrapCallback("9", std::make_shared<RecordingTarget>()));
    }
    DeathProbe first, second;
    ASSERT_EQ(0, handle->LinkToDeath(m_recipient.get(), &first));
    ASSERT_EQ(0, handle->LinkToDeath(m_recipient.get(), &second));
    EXPECT_NE(0, handle->LinkToDeath(nullptr, &first));

    shutdown(m_service, SHUT_RDWR);  // as a dying service does
    ASSERT_TRUE(first.WaitCalls(1));
    ASSERT_TRUE(second.WaitCalls(1));
    EXPECT_NE(std::this_thread::get_id(), first.thread);
    // A link made after the death is refused rather than left waiting forever.
    DeathProbe late;
    EXPECT_NE(0, handle->LinkToDeath(m_recipient.get(), &late));
    handle.reset();
    EXPECT_EQ(1, first.calls);
    EXPECT_EQ(1, second.calls);
    EXPECT_EQ(0, late.calls);
  }
  EXPECT_EQ(0, unlinked.calls);
}

}  // namespace
}  // namespace libtidewatch
