#include "emulator/socket_destination.h"

#include <errno.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <utility>

#include "emulator/send_pending.h"
#include "libtidewatch/platform/abstract_socket.h"
#include "libtidewatch/platform/log.h"

namespace hal_emulator {

using libtidewatch::MakeAbstractAddress;

SocketDestination::SocketDestination(std::string name) : m_name(std::move(name)) {}

SocketDestination::~SocketDestination() { Disconnect(); }

bool SocketDestination::Connect() {
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  sockaddr_un addr;
  socklen_t addrLen = MakeAbstractAddress(m_name, &addr);
  // A non-blocking connect to a Unix socket completes at once or fails at once (EAGAIN when the
  // receiver's backlog is full); either way it never leaves the trap thread waiting.
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), addrLen) != 0) {
    TW_LOGD("trap socket %s: connect failed, errno %d", m_name.c_str(), errno);
    close(fd);
    return false;
  }
  m_fd = fd;
  TW_LOGI("trap socket %s connected", m_name.c_str());
  return true;
}

void SocketDestination::Disconnect() {
  if (m_fd >= 0) close(m_fd);
  m_fd = -1;
  m_pending.clear();
  m_pendingPos = 0;
}

bool SocketDestination::Flush() { return SendPending(m_fd, &m_pending, &m_pendingPos); }

bool SocketDestination::Deliver(const uint8_t* packet, size_t len) {
  bool fresh = false;
  if (m_fd < 0) {
    if (!Connect()) return false;
    fresh = true;
  }
  if (!Flush()) {
    // The receiver went away, perhaps to come back under the same name: one new connection.
    Disconnect();
    if (!Connect()) return false;
    fresh = true;
  }
  if (!m_pending.empty()) return false;
  m_pending.assign(packet, packet + len);
  if (Flush()) return true;
  Disconnect();
  if (fresh || !Connect()) return false;
  m_pending.assign(packet, packet + len);
  if (Flush()) return true;
  Disconnect();
  return false;
}

}  // namespace hal_emulator
