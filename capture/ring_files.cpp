#include "capture/ring_files.h"

#include <errno.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <utility>

namespace capture {

RingFiles::RingFiles(std::string path, bool ring, uint64_t maxFiles)
    : m_path(std::move(path)), m_ring(ring), m_maxFiles(maxFiles) {}

std::string RingFiles::RingName(const std::string& path, uint64_t number, time_t started) {
  // The extension is what follows the last dot of the last path component, if anything does.
  const size_t slash = path.rfind('/');
  size_t dot = path.rfind('.');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash) ||
      dot == (slash == std::string::npos ? 0 : slash + 1)) {
    dot = path.size();
  }
  tm local;
  localtime_r(&started, &local);
  char middle[48];
  snprintf(middle, sizeof middle, "_%05llu_%04d%02d%02d%02d%02d%02d",
           static_cast<unsigned long long>(number), local.tm_year + 1900, local.tm_mon + 1,
           local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
  return path.substr(0, dot) + middle + path.substr(dot);
}

bool RingFiles::OpenNext(std::string* error) {
  if (!m_file.Close(error)) return false;
  ++m_number;
  if (!m_ring) return m_file.Open(m_path, error);
  const std::string name = RingName(m_path, m_number, time(nullptr));
  if (!m_file.Open(name, error)) return false;
  m_kept.push_back(name);
  while (m_maxFiles != 0 && m_kept.size() > m_maxFiles) {
    // A file that is already gone is what we wanted; any other failure only leaves it behind.
    if (unlink(m_kept.front().c_str()) != 0 && errno != ENOENT) {
      fprintf(stderr, "tide_watch_capture: cannot delete %s: %s\n", m_kept.front().c_str(),
              strerror(errno));
    }
    m_kept.pop_front();
  }
  return true;
}

}  // namespace capture
