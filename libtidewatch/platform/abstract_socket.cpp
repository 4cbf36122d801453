// Abstract-namespace Unix stream sockets: one way to spell the address, for every side.
#include "libtidewatch/platform/abstract_socket.h"

#include <errno.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace libtidewatch {

socklen_t MakeAbstractAddress(const std::string& name, sockaddr_un* addr) {
  memset(addr, 0, sizeof(*addr));
  addr->sun_family = AF_UNIX;
  // sun_path[0] stays 0: that is what puts the name in the abstract namespace.
  size_t n = std::min(name.size(), sizeof(addr->sun_path) - 1);
  memcpy(addr->sun_path + 1, name.data(), n);
  return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + n);
}

int ConnectAbstract(const std::string& name) {
  sockaddr_un addr;
  socklen_t addrLen = MakeAbstractAddress(name, &addr);
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  int rc;
  do {
    rc = connect(fd, reinterpret_cast<const sockaddr*>(&addr), addrLen);
  } while (rc < 0 && errno == EINTR);
  // A connect interrupted and then retried may find the connection already made.
  if (rc < 0 && errno != EISCONN) {
    int saved = errno;
    close(fd);
    errno = saved;
    return -1;
  }
  return fd;
}

int ListenAbstract(const std::string& name, int backlog) {
  sockaddr_un addr;
  socklen_t addrLen = MakeAbstractAddress(name, &addr);
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  if (bind(fd, reinterpret_cast<const sockaddr*>(&addr), addrLen) < 0 || listen(fd, backlog) < 0) {
    int saved = errno;
    close(fd);
    errno = saved;
    return -1;
  }
  return fd;
}

}  // namespace libtidewatch
