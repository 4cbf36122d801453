#include "capture/output_file.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cstring>

namespace capture {
namespace {

constexpr int kPollMs = 200;  // how often a wait for room looks at the stop request

int64_t NowMs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

}  // namespace

OutputFile::~OutputFile() {
  std::string ignored;
  Close(&ignored);
}

bool OutputFile::Open(const std::string& path, std::string* error) {
  if (!Close(error)) return false;
  if (path == "-") {
    m_fd = STDOUT_FILENO;
    m_ownsFd = false;
    m_name = "standard output";
  } else {
    m_fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (m_fd < 0) {
      *error = "cannot create " + path + ": " + strerror(errno);
      return false;
    }
    m_ownsFd = true;
    m_name = path;
  }
  struct stat st;
  m_stream = fstat(m_fd, &st) == 0 && (S_ISFIFO(st.st_mode) || S_ISSOCK(st.st_mode));
  m_savedFlags = -1;
  if (m_stream) {
    // Only pipes and sockets: a terminal's flags are shared with the shell that waits on it.
    const int flags = fcntl(m_fd, F_GETFL);
    if (flags >= 0 && fcntl(m_fd, F_SETFL, flags | O_NONBLOCK) == 0) m_savedFlags = flags;
  }
  return true;
}

OutputFile::Result OutputFile::Write(const char* data, size_t size,
                                     const std::atomic<bool>& stopping, int giveUpMs,
                                     std::string* error) {
  size_t done = 0;
  int64_t lastProgress = NowMs();
  while (done < size) {
    const ssize_t n = write(m_fd, data + done, size - done);
    if (n > 0) {
      done += static_cast<size_t>(n);
      lastProgress = NowMs();
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      pollfd p = {m_fd, POLLOUT, 0};
      if (poll(&p, 1, kPollMs) > 0 && (p.revents & (POLLERR | POLLHUP)) != 0) return kReaderGone;
      if (stopping.load(std::memory_order_acquire) && NowMs() - lastProgress >= giveUpMs) {
        *error = m_name + ": the reader stopped reading; " + std::to_string(size - done) +
                 " bytes were not written";
        return kGaveUp;
      }
      continue;
    }
    if (n < 0 && (errno == EPIPE || errno == ECONNRESET)) return kReaderGone;
    *error = "cannot write " + m_name + ": " + (n < 0 ? strerror(errno) : "nothing written");
    return kFailed;
  }
  return kOk;
}

bool OutputFile::ReaderGone() const {
  if (m_fd < 0 || !m_stream) return false;
  // The write end of a pipe reports POLLERR once no reader is left; a socket reports POLLHUP.
  pollfd p = {m_fd, 0, 0};
  return poll(&p, 1, 0) > 0 && (p.revents & (POLLERR | POLLHUP)) != 0;
}

bool OutputFile::Close(std::string* error) {
  if (m_fd < 0) return true;
  const int fd = m_fd;
  m_fd = -1;
  if (m_savedFlags >= 0) fcntl(fd, F_SETFL, m_savedFlags);
  if (m_ownsFd && close(fd) != 0) {
    *error = "cannot close " + m_name + ": " + strerror(errno);
    return false;
  }
  return true;
}

}  // namespace capture
