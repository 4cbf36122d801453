#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
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

Bytes Answer(std::initializer_list<uint8_t> statusAndReply) {
  Bytes raw;
  AppendHalLinkFrame(kHalLinkCommandResult, statusAndReply.begin(), statusAndReply.size(), &raw);
  return raw;
}

// A service on the host HAL link. Each connection is served on a thread of its own: COMMAND gets
// the scripted answer written back as raw bytes (empty: the connection is closed instead), and
// REGISTER_TRAP_CALLBACK the scripted status; a registered connection is then handed to the test,
// which plays the service's side of the callback through CallbackFd().
class FakeService {
 public:
  explicit FakeService(HalGeneration generation)
      : m_listener(ListenAbstract(HalEndpointName(generation), 4)) {
    EXPECT_GE(m_listener, 0);
    m_acceptor = std::thread([this] { AcceptLoop(); });
  }
  ~FakeService() {
    shutdown(m_listener, SHUT_RDWR);  // wakes accept()
    m_acceptor.join();
    CloseConnections();
    for (std::thread& t : m_servers) t.join();
    for (int fd : m_fds) close(fd);
    close(m_listener);
  }

  // Ends every connection from the service's side, as a dying service does, once at least
  // `accepted` connections have been accepted (a client's connect returns before the accept).
  void CloseConnections(size_t accepted = 0) {
    std::unique_lock<std::mutex> lock(m_mutex);
    EXPECT_TRUE(m_changed.wait_for(lock, kPatience, [&] { return m_fds.size() >= accepted; }));
    for (int fd : m_fds) shutdown(fd, SHUT_RDWR);
  }
  void Script(Bytes commandAnswer, uint8_t registerStatus = kHalLinkStatusOk) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_commandAnswer = std::move(commandAnswer);
    m_registerStatus = registerStatus;
  }
  // Every request frame received, on any connection.
  std::vector<HalLinkFrame> Requests() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_requests;
  }
  int CallbackFd() {
    std::unique_lock<std::mutex> lock(m_mutex);
    EXPECT_TRUE(m_changed.wait_for(lock, kPatience, [&] { return m_callbackFd >= 0; }));
    return m_callbackFd;
  }
  // Waits until `n` connections have been closed by the client (or ended by us).
  bool WaitConnectionsEnded(int n) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, kPatience, [&] { return m_ended >= n; });
  }

 private:
  void AcceptLoop() {
    for (int fd; (fd = accept(m_listener, nullptr, nullptr)) >= 0;) {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_fds.push_back(fd);
      m_servers.emplace_back([this, fd] { Serve(fd); });
      m_changed.notify_all();
    }
  }

  void Serve(int fd) {
    HalLinkFrame frame;
    while (ReadHalLinkFrame(fd, &frame) == HalLinkReadResult::kFrame) {
      std::unique_lock<std::mutex> lock(m_mutex);
      m_requests.push_back(frame);
      if (frame.opcode == kHalLinkCommand) {
        if (m_commandAnswer.empty()) break;
        ASSERT_EQ(static_cast<ssize_t>(m_commandAnswer.size()),
                  write(fd, m_commandAnswer.data(), m_commandAnswer.size()));
      } else if (frame.opcode == kHalLinkRegisterTrapCallback) {
        ASSERT_TRUE(WriteHalLinkFrame(fd, kHalLinkRegisterResult, &m_registerStatus, 1));
        if (m_registerStatus == kHalLinkStatusOk) {
          m_callbackFd = fd;
          m_changed.notify_all();
          return;
        }
      }
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    shutdown(fd, SHUT_RDWR);
    ++m_ended;
    m_changed.notify_all();
  }

  int m_listener;
  std::thread m_acceptor;
  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::vector<std::thread> m_servers;
  std::vector<int> m_fds;
  Bytes m_commandAnswer = Answer({kHalLinkStatusOk});
  uint8_t m_registerStatus = kHalLinkStatusOk;
  std::vector<HalLinkFrame> m_requests;
  int m_callbackFd = -1;
  int m_ended = 0;
};

// Records what the service pushed and answers with `answer`.
class RecordingTarget : public HalCallbackTarget {
 public:
  bool OnServiceData(const uint8_t* data, size_t len) override {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_received.emplace_back(data, data + len);
    return answer;
  }
  std::vector<Bytes> Received() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_received;
  }
  std::atomic<bool> answer{true};

 private:
  std::mutex m_mutex;
  std::vector<Bytes> m_received;
};

// The cookie of a death handler: counts its calls and notes the thread; when `handle` is set, the
// handler releases it, as a client that drops a dead service does.
struct DeathProbe {
  std::mutex mutex;
  std::condition_variable fired;
  int calls = 0;
  std::thread::id thread;
  std::shared_ptr<HalService> handle;

  static void OnDeath(void* cookie) {
    auto* probe = static_cast<DeathProbe*>(cookie);
    std::shared_ptr<HalService> doomed;
    std::lock_guard<std::mutex> lock(probe->mutex);
    doomed.swap(probe->handle);
    doomed.reset();
    ++probe->calls;
    probe->thread = std::this_thread::get_id();
    probe->fired.notify_all();
  }
  bool WaitCalls(int n) {
    std::unique_lock<std::mutex> lock(mutex);
    return fired.wait_for(lock, kPatience, [&] { return calls >= n; });
  }
};

class HostHalServiceTest : public testing::Test {
 protected:
  void SetUp() override {
    static int count = 0;
    std::string prefix = "test-" + std::to_string(getpid()) + "-" + std::to_string(count++) + "-";
    setenv("TIDEWATCH_HAL_SOCKET_PREFIX", prefix.c_str(), 1);
    unsetenv("TIDEWATCH_HAL_WAIT_MS");
  }
  void TearDown() override {
    unsetenv("TIDEWATCH_HAL_SOCKET_PREFIX");
    unsetenv("TIDEWATCH_HAL_WAIT_MS");
  }

  // A command connection to the AIDL endpoint.
  static std::shared_ptr<HalService> Open() {
    std::shared_ptr<HalService> handle = CheckAidlHalService();
    EXPECT_NE(nullptr, handle);
    return handle;
  }
  // Sends one TRAP on the callback connection and returns the TRAP_RESULT payload.
  static Bytes PushTrap(int fd, const Bytes& trap) {
    EXPECT_TRUE(WriteHalLinkFrame(fd, kHalLinkTrap, trap.data(), trap.size()));
    HalLinkFrame answer;
    EXPECT_EQ(HalLinkReadResult::kFrame,
              ReadHalLinkFrame(fd, &answer, std::chrono::steady_clock::now() + kPatience));
    EXPECT_EQ(kHalLinkTrapResult, answer.opcode);
    return answer.payload;
  }

  std::unique_ptr<HalDeathRecipient> m_recipient = NewHalDeathRecipient(&DeathProbe::OnDeath);
  Bytes m_reply;
};

// A command's bytes go out as they are and its reply comes back; a refusal keeps the connection,
// an answer that cannot be accepted (or none) closes it for good.
TEST_F(HostHalServiceTest, CommandAnswers) {
  FakeService service(HalGeneration::kAidl);
  const struct {
    Bytes answer;
    bool ok;
    Bytes reply;  // what the caller's vector holds afterwards
    bool closes;
  } cases[] = {
      {Answer({0x00, 'r', 'e'}), true, {'r', 'e'}, false},
      {Answer({0x00}), true, {}, false},
      {Answer({0x05, 'x'}), false, {0xEE}, false},
      {{0x00, 0x00, 0x00, 0x00}, false, {0xEE}, true},                                // length 0
      {{0x02, 0x00, 0x00, 0x00, kHalLinkRegisterResult, 0x00}, false, {0xEE}, true},  // opcode
      {{0x01, 0x00, 0x00, 0x00, kHalLinkCommandResult}, false, {0xEE}, true},  // no status byte
      {{}, false, {0xEE}, true},  // the service hangs up instead
  };
  const Bytes request = {0x01, 0x02, 0x03};
  int ended = 0;
  size_t requests = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.answer));
    service.Script(c.answer);
    std::shared_ptr<HalService> handle = GetAidlHalService();
    ASSERT_NE(nullptr, handle);
    EXPECT_EQ(HalGeneration::kAidl, handle->Generation());
    m_reply = {0xEE};
    EXPECT_EQ(c.ok, handle->SendCommand(request.data(), request.size(), &m_reply));
    EXPECT_EQ(c.reply, m_reply);
    EXPECT_EQ(request, service.Requests().back().payload);
    EXPECT_TRUE(!c.closes || service.WaitConnectionsEnded(++ended));
    EXPECT_EQ(c.ok, handle->SendCommand(request.data(), request.size(), &m_reply));
    requests += c.closes ? 1 : 2;
    EXPECT_EQ(requests, service.Requests().size());
  }
}

TEST_F(HostHalServiceTest, LookupsFindOnlyTheirOwnEndpoint) {
  EXPECT_EQ(nullptr, CheckAidlHalService());
  EXPECT_EQ(nullptr, GetHidlHalService());
  setenv("TIDEWATCH_HAL_WAIT_MS", "0", 1);
  EXPECT_EQ(nullptr, GetAidlHalService());

  FakeService hidl(HalGeneration::kHidl);
  EXPECT_EQ(nullptr, CheckAidlHalService());
  std::shared_ptr<HalService> handle = GetHidlHalService();
  ASSERT_NE(nullptr, handle);
  EXPECT_EQ(HalGeneration::kHidl, handle->Generation());
  EXPECT_TRUE(handle->SendCommand(nullptr, 0, &m_reply));
}

TEST_F(HostHalServiceTest, RegisteredConnectionServesTheCallback) {
  FakeService service(HalGeneration::kAidl);
  auto target = std::make_shared<RecordingTarget>();
  std::shared_ptr<HalService> handle = Open();
  ASSERT_NE(nullptr, handle);
  // A refused registration leaves a command connection.
  service.Script(Answer({kHalLinkStatusOk}), 3);
  EXPECT_FALSE(handle->RegisterTrapCallback("7", target));
  EXPECT_TRUE(handle->SendCommand(nullptr, 0, &m_reply));

  service.Script(Answer({kHalLinkStatusOk}));
  ASSERT_TRUE(handle->RegisterTrapCallback("5trapd", target));
  HalLinkFrame registration = service.Requests().back();
  EXPECT_EQ(kHalLinkRegisterTrapCallback, registration.opcode);
  EXPECT_EQ(Bytes({'5', 't', 'r', 'a', 'p', 'd'}), registration.payload);

  // The connection now belongs to the callback.
  EXPECT_FALSE(handle->SendCommand(nullptr, 0, &m_reply));
  EXPECT_FALSE(handle->RegisterTrapCallback("6trapd", target));
  EXPECT_EQ(3u, service.Requests().size());

  // The callback outlives the handle, and answers with the target's result.
  handle.reset();
  int fd = service.CallbackFd();
  EXPECT_EQ(Bytes({1}), PushTrap(fd, {9, 8, 7}));
  target->answer = false;
  EXPECT_EQ(Bytes({0}), PushTrap(fd, {}));
  EXPECT_EQ(std::vector<Bytes>({{9, 8, 7}, {}}), target->Received());
}

TEST_F(HostHalServiceTest, DeathRunsEveryLinkOnceOnAnotherThread) {
  for (bool registered : {false, true}) {
    SCOPED_TRACE(registered ? "registered" : "commands only");
    FakeService service(HalGeneration::kAidl);
    std::shared_ptr<HalService> handle = Open();
    ASSERT_NE(nullptr, handle);
    if (registered) {
      ASSERT_TRUE(handle->RegisterTrapCallback("9", std::make_shared<RecordingTarget>()));
    }
    DeathProbe first, second;
    ASSERT_EQ(0, handle->LinkToDeath(m_recipient.get(), &first));
    ASSERT_EQ(0, handle->LinkToDeath(m_recipient.get(), &second));
    EXPECT_NE(0, handle->LinkToDeath(nullptr, &first));

    service.CloseConnections(1);
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
}

// Destroying a handle is no death; a death handler may drop the last reference to its handle,
// which then dies on its own watcher thread.
TEST_F(HostHalServiceTest, DeathHandlerMayReleaseItsHandle) {
  FakeService service(HalGeneration::kAidl);
  DeathProbe unlinked, probe;
  std::shared_ptr<HalService> handle = Open();
  ASSERT_NE(nullptr, handle);
  ASSERT_EQ(0, handle->LinkToDeath(m_recipient.get(), &unlinked));
  handle.reset();
  EXPECT_TRUE(service.WaitConnectionsEnded(1));
  EXPECT_EQ(0, unlinked.calls);

  handle = Open();
  ASSERT_NE(nullptr, handle);
  ASSERT_EQ(0, handle->LinkToDeath(m_recipient.get(), &probe));
  EXPECT_TRUE(handle->SendCommand(nullptr, 0, &m_reply));
  {
    std::lock_guard<std::mutex> lock(probe.mutex);
    probe.handle = std::move(handle);
  }
  service.CloseConnections(2);
  ASSERT_TRUE(probe.WaitCalls(1));
  std::lock_guard<std::mutex> lock(probe.mutex);
  EXPECT_EQ(nullptr, probe.handle);
  EXPECT_EQ(0, unlinked.calls);
}

}  // namespace
}  // namespace libtidewatch
