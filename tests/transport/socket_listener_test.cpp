#include "libtidewatch/transport/socket_listener.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "libtidewatch/platform/log.h"
#include "tests/support/log_capture.h"
#include "tests/support/mcp_test_peer.h"

namespace libtidewatch {
namespace {

using tidewatch_test::LogCapture;
using tidewatch_test::UniqueSocketName;
using tidewatch_test::WriteAll;

bool WriteText(int fd, const std::string& text) {
  return WriteAll(fd, reinterpret_cast<const uint8_t*>(text.data()), text.size());
}

class SocketListenerTest : public ::testing::Test {
 protected:
  // Takes every byte a connection offers and remembers the peer address it was given.
  class RecordingHandler : public ConnectionDataInInterface {
   public:
    bool DataIn(SocketConnection& conn) override {
      bool ok = conn.ReadToBuffer();
      std::lock_guard<std::mutex> lock(m_mutex);
      DataQueue& q = conn.ReadQueue();
      m_bytes.append(reinterpret_cast<const char*>(q.Front()), q.size);
      q.Pop(q.size);
      m_address = conn.address;
      m_changed.notify_all();
      return ok;
    }
    // Everything received, once at least `n` bytes have come (or a guard time has passed).
    std::string WaitForBytes(size_t n) {
      std::unique_lock<std::mutex> lock(m_mutex);
      m_changed.wait_for(lock, std::chrono::seconds(20), [&] { return m_bytes.size() >= n; });
      return m_bytes;
    }
    std::string address() {
      std::lock_guard<std::mutex> lock(m_mutex);
      return m_address;
    }

   private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::string m_bytes;
    std::string m_address = "(none)";
  };

  void TearDown() override {
    for (int fd : m_fds) close(fd);
  }
  // A client whose reads give up after a few seconds.
  int Connect(const std::string& name) {
    int fd = ConnectAbstract(name);
    timeval deadline{5, 0};
    if (fd >= 0) setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &deadline, sizeof(deadline));
    if (fd >= 0) m_fds.push_back(fd);
    return fd;
  }

  RecordingHandler handler;
  std::vector<int> m_fds;
};

// Exact bytes in two pieces; removal on close, with or without a handler; long names cut to 107.
TEST_F(SocketListenerTest, ServesAClientAndRemovesItAfterItCloses) {
  for (bool withHandler : {true, false}) {
    SCOPED_TRACE(withHandler ? "with handler" : "without handler");
    LogCapture log(kLogDebug);
    std::string name = UniqueSocketName(withHandler ? "h" : "n");
    name += std::string(150 - name.size(), 'x');
    RecordingHandler recorder;
    SocketListener listener(name.c_str());
    if (withHandler) listener.SetHandler(&recorder);
    EXPECT_LT(Connect(name.substr(0, 106)), 0);
    int fd = ConnectAbstract(name.substr(0, 107));
    ASSERT_GE(fd, 0);
    const std::string first("\xAE\xCD\0\xFF", 4);
    ASSERT_TRUE(WriteText(fd, first));
    EXPECT_EQ(recorder.WaitForBytes(withHandler ? 4 : 0), withHandler ? first : "");
    ASSERT_TRUE(WriteText(fd, "second"));
    EXPECT_EQ(recorder.WaitForBytes(withHandler ? 10 : 0), withHandler ? first + "second" : "");
    EXPECT_EQ(recorder.address(), withHandler ? "" : "(none)");  // an unbound peer has no name
    close(fd);
    EXPECT_TRUE(log.WaitForText("RemoveSocket fd = ["));
    EXPECT_EQ(log.Lines(kLogError), std::vector<std::string>{});  // a healthy run logs no error
  }
}

// A known descriptor is only renamed, one beyond select's limit closed (FD_SETSIZE fds).
TEST_F(SocketListenerTest, AddSocketRenamesKnownDescriptorsAndRefusesHugeOnes) {
  LogCapture log(kLogError);
  SocketListener listener(nullptr);
  EXPECT_TRUE(log.Contains("E SocketListener. szServerName is NULL"));
  listener.SetHandler(&handler);
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
  m_fds.push_back(pair[1]);
  listener.AddSocket(SocketListener::SOCKET_TYPE_CLIENT, pair[0], "first");
  listener.AddSocket(SocketListener::SOCKET_TYPE_CLIENT, pair[0], "second");

  rlimit limit;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  if (limit.rlim_cur > FD_SETSIZE + 10) {
    int huge = fcntl(pair[1], F_DUPFD, FD_SETSIZE + 5);
    ASSERT_GE(huge, FD_SETSIZE);
    listener.AddSocket(SocketListener::SOCKET_TYPE_CLIENT, huge, "huge");
    EXPECT_EQ(fcntl(huge, F_GETFD), -1) << "the descriptor should have been closed";
    EXPECT_TRUE(log.WaitForText("does not fit in the select set"));
  }

  std::thread loop([&] { listener.Listen(); });
  ASSERT_TRUE(WriteText(pair[1], "abc"));
  EXPECT_EQ(handler.WaitForBytes(3), "abc");
  // Stopped from a third thread: there is no thread of its own to join.
  auto stopper = std::async(std::launch::async, [&] { listener.Stop(); });
  if (stopper.wait_for(std::chrono::seconds(5)) != std::future_status::ready) {
    ADD_FAILURE() << "Stop waits for a thread it never started";
    _exit(1);  // a thread stuck in a join cannot be joined
  }
  loop.join();
  EXPECT_EQ(handler.address(), "second");
}

// Destruction stops the thread and closes every socket, busy or idle: the name is free again.
TEST_F(SocketListenerTest, DestructionStopsTheThreadAndFreesTheName) {
  std::string name = UniqueSocketName();
  for (int round = 1; round <= 2; ++round) {
    auto listener = std::make_unique<SocketListener>(name.c_str());
    listener->SetHandler(&handler);
    int idle = Connect(name);
    int busy = Connect(name);
    ASSERT_GE(idle, 0);
    ASSERT_TRUE(WriteText(busy, "z"));
    ASSERT_EQ(handler.WaitForBytes(round).size(), static_cast<size_t>(round));
    listener.reset();
    char c;
    EXPECT_EQ(read(busy, &c, 1), 0) << "the listener's end should be closed";
    EXPECT_EQ(read(idle, &c, 1), 0);
  }
  EXPECT_LT(Connect(name), 0);
}

}  // namespace
}  // namespace libtidewatch
