#include "libtidewatch/platform/abstract_socket.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

namespace libtidewatch {
namespace {

// A name has one listener, and a connect finds it or fails with the reason kept in errno. (Names
// cut to sun_path's size are checked through the socket listener.)
TEST(AbstractSocketTest, ANameHasOneListener) {
  const std::string name = "abstract-socket-test-" + std::to_string(getpid());
  EXPECT_EQ(-1, ConnectAbstract(name));
  EXPECT_EQ(ECONNREFUSED, errno);
  const int listener = ListenAbstract(name, 4);
  ASSERT_GE(listener, 0);
  EXPECT_EQ(-1, ListenAbstract(name, 4));
  EXPECT_EQ(EADDRINUSE, errno);
  const int client = ConnectAbstract(name);
  EXPECT_GE(client, 0);
  close(client);
  close(listener);
}

}  // namespace
}  // namespace libtidewatch
