#include "capture/adb_devices.h"

#include <fcntl.h>
#include <poll.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <sstream>

#include "capture/adb_process.h"

namespace capture {
namespace {

constexpr size_t kMaxOutput = 64 * 1024;

double NowMs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) * 1e3 + static_cast<double>(ts.tv_nsec) / 1e6;
}

// Appends what can be read now; false at the end of the output or on an error.
bool ReadSome(int fd, std::string* out) {
  errno = 0;
  char buf[4096];
  const ssize_t n = read(fd, buf, sizeof(buf));
  if (n > 0 && out->size() < kMaxOutput) out->append(buf, static_cast<size_t>(n));
  return n > 0 || (n < 0 && (errno == EINTR || errno == EAGAIN));
}

}  // namespace

std::vector<std::string> ParseAdbDevices(const std::string& text) {
  std::vector<std::string> serials;
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    const size_t tab = line.find('\t');
    if (tab == 0 || tab == std::string::npos) continue;  // the header, daemon notes, blank lines
    const std::string serial = line.substr(0, tab);
    if (line.compare(tab + 1, std::string::npos, "device") != 0) continue;
    // A serial becomes part of an interface name and of an extcap sentence.
    if (serial.find_first_of(" {}") != std::string::npos) continue;
    serials.push_back(serial);
  }
  return serials;
}

std::vector<std::string> ListAdbDevices(int deadlineMs) {
  AdbProcess adb;
  std::string error;
  if (!adb.Start({"devices"}, &error)) return {};
  const double deadline = NowMs() + deadlineMs;
  std::string out;
  int status = -1;
  bool ended = false;
  // The output ends when adb exits, except where a server it started keeps the pipe: then adb's
  // own exit is the end.
  while (!ended) {
    const double left = deadline - NowMs();
    if (left <= 0) break;
    pollfd p{adb.outFd(), POLLIN, 0};
    const int n = poll(&p, 1, left < 50 ? static_cast<int>(left) + 1 : 50);
    if (n > 0 && !ReadSome(adb.outFd(), &out)) {
      adb.CloseOut();
      while (!adb.Reap(&status) && NowMs() < deadline) poll(nullptr, 0, 10);
      ended = true;
    } else if (adb.Reap(&status)) {
      // What it wrote before exiting is in the pipe already.
      fcntl(adb.outFd(), F_SETFL, O_NONBLOCK);
      while (ReadSome(adb.outFd(), &out) && errno != EAGAIN) errno = 0;
      ended = true;
    }
  }
  adb.Stop(0);
  if (!ended || status != 0) return {};
  return ParseAdbDevices(out);
}

}  // namespace capture
