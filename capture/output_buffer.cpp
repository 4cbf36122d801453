#include "capture/output_buffer.h"

#include <unistd.h>

#include <cerrno>

namespace capture {

OutputBuffer::OutputBuffer(int fd) : m_fd(fd) { m_text.reserve(2 * kHighWater); }

bool OutputBuffer::Flush() {
  size_t done = 0;
  while (!m_failed && done < m_text.size()) {
    const ssize_t n = write(m_fd, m_text.data() + done, m_text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    // EPIPE included: the reader has gone, and the capture stops rather than write into nothing.
    if (n <= 0) {
      m_failed = true;
      m_readerGone = n < 0 && errno == EPIPE;
      break;
    }
    done += static_cast<size_t>(n);
  }
  m_text.clear();
  return !m_failed || m_readerGone;
}

}  // namespace capture
