// One connected host HAL link socket, shared by the service handle and the threads that watch or
// read it, so that its descriptor is closed only when the last of them lets go of it (a descriptor
// closed under a thread still polling it could be reused for another file).
#pragma once

#include <sys/socket.h>
#include <unistd.h>

namespace libtidewatch {

class HalLinkSocket {
 public:
  explicit HalLinkSocket(int fd) : m_fd(fd) {}
  ~HalLinkSocket() { close(m_fd); }
  HalLinkSocket(const HalLinkSocket&) = delete;
  HalLinkSocket& operator=(const HalLinkSocket&) = delete;

  int fd() const { return m_fd; }

  // Ends the connection both ways while keeping the descriptor: the peer sees it closed, and every
  // thread blocked on it wakes up.
  void Shutdown() { shutdown(m_fd, SHUT_RDWR); }

 private:
  const int m_fd;
};

}  // namespace libtidewatch
