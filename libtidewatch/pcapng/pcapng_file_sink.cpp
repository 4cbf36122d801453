#include "libtidewatch/pcapng/pcapng_file_sink.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstring>

namespace libtidewatch {

PcapngFileSink::~PcapngFileSink() {
  std::string ignored;
  Close(&ignored);
}

bool PcapngFileSink::Open(const std::string& path, std::string* error) {
  if (!Close(error)) return false;
  m_path = path;
  m_written = 0;
  if (path == "-") {
    m_fd = STDOUT_FILENO;
    m_ownsFd = false;
    return true;
  }
  m_fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (m_fd < 0) {
    *error = "cannot create " + path + ": " + strerror(errno);
    return false;
  }
  m_ownsFd = true;
  return true;
}

bool PcapngFileSink::Write(const std::string& bytes, std::string* error) {
  if (m_fd < 0) {
    *error = "capture file is not open";
    return false;
  }
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = write(m_fd, bytes.data() + done, bytes.size() - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      *error = "cannot write " + (m_path == "-" ? std::string("standard output") : m_path) + ": " +
               strerror(errno);
      return false;
    }
    done += static_cast<size_t>(n);
    m_written += static_cast<uint64_t>(n);
  }
  return true;
}

bool PcapngFileSink::Close(std::string* error) {
  if (m_fd < 0) return true;
  const int fd = m_fd;
  m_fd = -1;
  if (m_ownsFd && close(fd) != 0) {
    *error = "cannot close " + m_path + ": " + strerror(errno);
    return false;
  }
  return true;
}

}  // namespace libtidewatch
