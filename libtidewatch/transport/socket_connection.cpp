#include "libtidewatch/transport/socket_connection.h"

#include <errno.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "libtidewatch/platform/log.h"

namespace libtidewatch {
namespace {

constexpr useconds_t kWriteRetryPauseUs = 50000;
constexpr int kReadRetries = 5;

bool WouldBlockOrInterrupted(int err) {
  return err == EAGAIN || err == EWOULDBLOCK || err == EINTR;
}

// A peer that has gone must not take the process down with SIGPIPE, hence send with
// MSG_NOSIGNAL; descriptors that are not sockets (pipes in tools and tests) fall back to write.
ssize_t WriteSome(int fd, const uint8_t* data, size_t len) {
  ssize_t n = send(fd, data, len, MSG_NOSIGNAL);
  if (n < 0 && errno == ENOTSOCK) n = write(fd, data, len);
  return n;
}

}  // namespace

SocketConnection::SocketConnection(int fd, const char* addr) : fd(fd) {
  if (addr != nullptr && snprintf(address, sizeof(address), "%s", addr) < 0) {
    TW_LOGE("SocketConnection snprintf,erno=%d.", errno);
  }
}

SocketConnection::~SocketConnection() {
  TW_LOGD("~SocketConnection fd = [%d]", fd);
  if (fd >= 0) close(fd);
  fd = -1;
  valid = false;
  memset(address, 0, sizeof(address));
}

void SocketConnection::SetAddr(const char* addr) {
  if (addr != nullptr && snprintf(address, sizeof(address), "%s", addr) < 0) {
    TW_LOGE("SetAddr snprintf,erno=%d.", errno);
  }
}

bool SocketConnection::Write(const uint8_t* data, size_t len, const volatile bool* stop) {
  TW_LOGD("SocketConnection::Write to fd: [%d] size=[%zu]", fd, len);
  if (data == nullptr) return false;
  if (len == 0) return true;
  if (!valid) return false;
  size_t done = 0;
  while (done < len) {
    if (stop != nullptr && *stop) return true;
    ssize_t n = WriteSome(fd, data + done, len - done);
    if (n >= 0) {
      done += static_cast<size_t>(n);
      continue;
    }
    const int err = errno;
    if (!WouldBlockOrInterrupted(err)) {
      TW_LOGE("Failed to write to fd: [%d], err = [%s](%d)", fd, strerror(err), err);
      valid = false;
      return false;
    }
    // The peer is slow, not gone: wait for it without limit, unless asked to stop.
    if (stop != nullptr && *stop) return true;
    TW_LOGE("write to fd failed: [%d], err = [%s]", fd, strerror(err));
    usleep(kWriteRetryPauseUs);
  }
  TW_LOGD("SocketConnection::Send to fd: [%d] size=[%zu] successfully.", fd, len);
  return true;
}

bool SocketConnection::ReadToBuffer() { return Read(kReadRetries, nullptr); }

bool SocketConnection::ReadMore(size_t* got) { return Read(0, got); }

bool SocketConnection::Read(int retries, size_t* got) {
  if (got != nullptr) *got = 0;
  TW_LOGD("BufferedConnection::ReadToBuffer. There're [%zu] bytes of data in dataQ.", dataQ.size);
  TW_LOGD("SocketConnection::Read");
  uint8_t* buffer = dataQ.SpaceStart();
  size_t bufferSize = dataQ.SpaceSize();
  // The queue moves its data to the front on every pop once the data ends past its middle, so
  // reading only up to the middle keeps the packets read here from being moved once per pop. The
  // rest of the space is used only when the data already reaches the middle (a large packet).
  const size_t end = dataQ.start + dataQ.size;
  if (end < DataQueue::kCompactMark && bufferSize > DataQueue::kCompactMark - end) {
    bufferSize = DataQueue::kCompactMark - end;
  }
  if (buffer == nullptr || bufferSize == 0) {
    // A full queue lands here: the caller drops a connection whose peer sends more than it reads.
    TW_LOGE("Bad parameters. buffer = [%p], bufferSize = [%zu]", static_cast<void*>(buffer),
            bufferSize);
    TW_LOGD("Failed to read from connection");
    return false;
  }
  ssize_t n = read(fd, buffer, bufferSize);
  int err = n < 0 ? errno : 0;
  for (int retry = 0; n < 0 && WouldBlockOrInterrupted(err) && retry < retries; ++retry) {
    n = read(fd, buffer, bufferSize);
    err = n < 0 ? errno : 0;
  }
  if (n < 0 && WouldBlockOrInterrupted(err)) {
    // Nothing there after all: not an error, the connection stays.
    TW_LOGD("No data to read from fd: [%d], retry [%d] times when err = [%s](%d)", fd, retries,
            strerror(err), err);
    n = 0;
  } else if (n < 0) {
    TW_LOGE("Failed to read from fd: [%d], err = [%s](%d)", fd, strerror(err), err);
    TW_LOGD("Failed to read from connection");
    return false;
  } else if (n == 0) {
    TW_LOGD("Socket is closed. fd: [%d]", fd);
    valid = false;
    TW_LOGD("Failed to read from connection");
    return false;
  } else {
    TW_LOGD("SocketConnection::Read done! read [%zd] bytes.", n);
  }
  dataQ.IncSize(static_cast<size_t>(n));
  if (got != nullptr) *got = static_cast<size_t>(n);
  TW_LOGD("BufferedConnection::ReadToBuffer done! read [%zd] bytes.", n);
  return true;
}

}  // namespace libtidewatch
