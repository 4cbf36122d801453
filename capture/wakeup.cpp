#include "capture/wakeup.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>

namespace capture {

Wakeup::Wakeup() {
  if (pipe2(m_fds, O_NONBLOCK | O_CLOEXEC) != 0) m_fds[0] = m_fds[1] = -1;
}

Wakeup::~Wakeup() {
  if (m_fds[0] >= 0) close(m_fds[0]);
  if (m_fds[1] >= 0) close(m_fds[1]);
}

void Wakeup::Notify() const {
  const int saved = errno;  // a signal handler must leave errno as it found it
  const char byte = 1;
  if (m_fds[1] >= 0 && write(m_fds[1], &byte, 1) < 0) {
    // A full pipe already holds a wake-up.
  }
  errno = saved;
}

bool Wakeup::Wait(int timeoutMs) const {
  if (m_fds[0] < 0) return false;
  pollfd p{m_fds[0], POLLIN, 0};
  const int n = poll(&p, 1, timeoutMs);
  if (n <= 0) return false;
  char buf[64];
  while (read(m_fds[0], buf, sizeof(buf)) > 0) {
  }
  return true;
}

}  // namespace capture
