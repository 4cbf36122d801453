#include "libtidewatch/platform/abstract_socket.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace libtidewatch {
namespace {

class AbstractSocketTest : public testing::Test {
 protected:
  void TearDown() override {
    for (int fd : m_open) close(fd);
  }
  int Keep(int fd) {
    if (fd >= 0) m_open.push_back(fd);
    return fd;
  }
  // Unique per process and test, so that parallel runs do not meet.
  static std::string Name(const char* test) {
    return "abstract-socket-test-" + std::to_string(getpid()) + "-" + test;
  }

  std::vector<int> m_open;
};

TEST_F(AbstractSocketTest, AddressHoldsTheNameAfterANulByte) {
  sockaddr_un addr;
  EXPECT_EQ(2u + 1u + 4u, MakeAbstractAddress("7abc", &addr));
  EXPECT_EQ(AF_UNIX, addr.sun_family);
  EXPECT_EQ('\0', addr.sun_path[0]);
  EXPECT_EQ("7abc", std::string(addr.sun_path + 1, 4));

  // A name longer than sun_path is cut to what fits after the leading NUL.
  std::string longName(200, 'n');
  EXPECT_EQ(sizeof(sockaddr_un), MakeAbstractAddress(longName, &addr));
  EXPECT_EQ(longName.substr(0, sizeof(addr.sun_path) - 1),
            std::string(addr.sun_path + 1, sizeof(addr.sun_path) - 1));
}

TEST_F(AbstractSocketTest, ANameHasOneListener) {
  const std::string name = Name("listen");
  EXPECT_EQ(-1, Keep(ConnectAbstract(name)));
  EXPECT_EQ(ECONNREFUSED, errno);
  ASSERT_GE(Keep(ListenAbstract(name, 4)), 0);
  EXPECT_EQ(-1, Keep(ListenAbstract(name, 4)));
  EXPECT_EQ(EADDRINUSE, errno);
  EXPECT_GE(Keep(ConnectAbstract(name)), 0);
}

}  // namespace
}  // namespace libtidewatch
