#include "libtidewatch/transport/socket_connection.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <thread>
#include <vector>

#include "libtidewatch/platform/log.h"
#include "tests/support/log_capture.h"

namespace libtidewatch {
namespace {

using Bytes = std::vector<uint8_t>;

// The connection owns one end of a non-blocking socket pair; the test is the peer on the other.
class SocketConnectionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // Writes spin until stopped and the peer's reads block: a fault ends the test by SIGALRM.
    alarm(20);
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    fcntl(fds[0], F_SETFL, fcntl(fds[0], F_GETFL) | O_NONBLOCK);
    conn.reset(new SocketConnection(fds[0], "test-peer"));
    peer = fds[1];
  }
  void TearDown() override {
    alarm(0);
    conn.reset();
    close(peer);
  }

  tidewatch_test::LogCapture log_{kLogDebug};
  std::unique_ptr<SocketConnection> conn;
  int peer = -1;
};

// An empty read keeps the connection, a full queue fails and keeps it, the peer's close ends it.
TEST_F(SocketConnectionTest, ReadsWritesAndNoticesTheEnd) {
  const Bytes out = {1, 2, 3, 0, 255};
  ASSERT_TRUE(conn->Write(out.data(), out.size(), nullptr));
  Bytes got(64);
  got.resize(static_cast<size_t>(std::max<ssize_t>(0, read(peer, got.data(), got.size()))));
  EXPECT_EQ(got, out);
  ASSERT_TRUE(conn->ReadToBuffer());
  EXPECT_EQ(conn->ReadQueue().size, 0u);

  const Bytes in = {9, 8, 7};
  ASSERT_EQ(write(peer, in.data(), in.size()), 3);
  ASSERT_TRUE(conn->ReadToBuffer());
  const DataQueue& q = conn->ReadQueue();
  EXPECT_EQ(Bytes(q.Front(), q.Front() + q.size), in);
  ASSERT_EQ(write(peer, in.data(), 1), 1);
  conn->ReadQueue().size = DataQueue::kCapacity;
  EXPECT_FALSE(conn->ReadToBuffer());
  EXPECT_TRUE(conn->valid);

  conn->ReadQueue().Reset();
  shutdown(peer, SHUT_RDWR);
  EXPECT_TRUE(conn->ReadToBuffer());  // the byte still waiting
  EXPECT_FALSE(conn->ReadToBuffer());
  EXPECT_FALSE(conn->valid);
  // A write to the gone peer fails instead of raising SIGPIPE.
  conn->valid = true;
  EXPECT_FALSE(conn->Write(out.data(), 1, nullptr));
  EXPECT_FALSE(conn->valid);
}

TEST_F(SocketConnectionTest, StopFlagEndsABlockedWriteAsSuccess) {
  // Far more than the socket buffers hold while the peer does not read: the write must block.
  Bytes big(16 << 20, 0x5A);
  volatile bool stop = false;
  std::thread stopper([&] {
    log_.WaitForText("write to fd failed: [");  // the stop lands mid-write
    stop = true;
  });
  EXPECT_TRUE(conn->Write(big.data(), big.size(), &stop));
  stopper.join();
  EXPECT_TRUE(conn->valid);
}

}  // namespace
}  // namespace libtidewatch
