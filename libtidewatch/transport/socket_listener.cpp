#include "libtidewatch/transport/socket_listener.h"

#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <vector>

#include "libtidewatch/platform/abstract_socket.h"
#include "libtidewatch/platform/log.h"

namespace libtidewatch {
namespace {

constexpr int kBacklog = 4;

}  // namespace

SocketListener::SocketListener(const char* name) : m_listenThread(pthread_self()) {
  FD_ZERO(&m_readSet);
  if (name == nullptr) {
    TW_LOGE("SocketListener. szServerName is NULL");
  } else if (SetupDomainSocket(name)) {
    pthread_t thread;
    int rc = pthread_create(&thread, nullptr, ListenThread, this);
    if (rc != 0) {
      TW_LOGE("Fail to create MonitorCmdService's listener thread, error=%s", strerror(rc));
      Cleanup();
    } else {
      m_listenThread = thread;
      m_threadStarted = true;
    }
    rc = pthread_setname_np(m_listenThread, "twd_cmd_serv");
    if (rc != 0) {
      TW_LOGE("Fail to set name for MonitorCmdService's listener thread, error=%s", strerror(rc));
    }
    return;
  }
  TW_LOGE("Fail to setup domain socket.");
  Cleanup();
}

SocketListener::~SocketListener() {
  Stop();
  Cleanup();
}

bool SocketListener::SetupDomainSocket(const char* name) {
  TW_LOGD("SocketListener::SetupDomainSocket [%s]", name);
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    TW_LOGE("Failed to create domain socket.");
    return false;
  }
  TW_LOGD("Domain sockect was created. fd = [%d]", fd);

  sockaddr_un addr;
  const socklen_t addrLength = MakeAbstractAddress(name, &addr);
  if (bind(fd, reinterpret_cast<const sockaddr*>(&addr), addrLength) != 0) {
    int err = errno;
    TW_LOGE("Failed to bind domain socket to [%s]. err = [%s](%d)", name, strerror(err), err);
    close(fd);
    TW_LOGE("SocketListener::SetupDomainSocket failed.");
    return false;
  }
  // listen() reports failure as -1, so this test never fires and a socket that failed to listen
  // is kept (it then accepts nothing). The lenient test is deliberate and kept.
  if (listen(fd, kBacklog) > 0) {
    int err = errno;
    TW_LOGE("Failed to listen domain socket, fd = [%d]. err = [%s](%d)", fd, strerror(err), err);
    close(fd);
    TW_LOGE("SocketListener::SetupDomainSocket failed.");
    return false;
  }
  AddSocket(SOCKET_TYPE_SERVER, fd, nullptr);
  if (m_servers.count(fd) == 0) return false;  // refused by AddSocket, which closed it
  TW_LOGD(
      "SocketListener::SetupDomainSocket done! Start to listen domain sockect, fd =[%d], file = "
      "[%s].",
      fd, name);
  return true;
}

void SocketListener::Stop() {
  m_stop.store(true, std::memory_order_release);
  if (!m_threadStarted || pthread_equal(m_listenThread, pthread_self())) {
    TW_LOGD("Thread is cancelled.");
    return;
  }
  TW_LOGD("Stopping Listen thread ....");
  int rc = pthread_join(m_listenThread, nullptr);
  if (rc != 0) TW_LOGE("pthread_join failed. err = [%s](%d)", strerror(rc), rc);
  m_listenThread = pthread_self();
  m_threadStarted = false;
}

void SocketListener::AddSocket(SOCKET_TYPE type, int fd, const char* addr) {
  TW_LOGD("AddSocket fd = [%d]", fd);
  ConnectionMap& sockets = type == SOCKET_TYPE_SERVER ? m_servers : m_clients;
  auto it = sockets.find(fd);
  if (it != sockets.end()) {
    it->second->SetAddr(addr);
    return;
  }
  // FD_SET on a descriptor of FD_SETSIZE or more writes outside the set.
  if (fd < 0 || fd >= FD_SETSIZE) {
    TW_LOGE("Socket fd = [%d] does not fit in the select set (limit %d). Closed.", fd, FD_SETSIZE);
    if (fd >= 0) close(fd);
    return;
  }
  sockets.emplace(fd, std::make_unique<SocketConnection>(fd, addr));
  FD_SET(fd, &m_readSet);
  if (fd > m_maxFd) m_maxFd = fd;
}

void SocketListener::RemoveSocket(SOCKET_TYPE type, int fd) {
  TW_LOGD("RemoveSocket fd = [%d]", fd);
  ConnectionMap& sockets = type == SOCKET_TYPE_SERVER ? m_servers : m_clients;
  sockets.erase(fd);  // the connection closes its descriptor
  if (fd >= 0 && fd < FD_SETSIZE) FD_CLR(fd, &m_readSet);
}

void SocketListener::Cleanup() {
  m_clients.clear();
  m_servers.clear();
}

void* SocketListener::ListenThread(void* self) {
  TW_LOGD("SocketListener::ListenThread Loop");
  static_cast<SocketListener*>(self)->Listen();
  return nullptr;
}

void SocketListener::Listen() {
  TW_LOGD("SocketListener::Listen");
  TW_LOGD("Max number of fd = [%d]", m_maxFd);
  if (Stopped()) return;
  TW_LOGD("SocketListener begins to select.");
  std::vector<int> dead;
  do {
    fd_set ready = m_readSet;
    timeval timeout = {1, 0};
    int count = select(m_maxFd + 1, &ready, nullptr, nullptr, &timeout);
    if (count < 0) {
      if (errno == EINTR) continue;
      int err = errno;
      TW_LOGE("Failed to select, err = [%s](%d). EXIT.", strerror(err), err);
      exit(1);
    }
    if (count == 0) {
      TW_LOGV("Select timeout. CONTINUE.");
      continue;
    }
    TW_LOGD("SocketListener select done! num of fd = [%d]. max fd = [%d].", count, m_maxFd);

    dead.clear();
    for (auto& entry : m_servers) {
      const int fd = entry.first;
      if (!entry.second->valid) {
        dead.push_back(fd);
        continue;
      }
      if (!FD_ISSET(fd, &ready)) continue;
      TW_LOGD("SocketListener begins to accept. fd = [%d]", fd);
      if (Stopped()) return;
      AcceptClient(fd);
      if (Stopped()) return;
    }
    for (int fd : dead) RemoveSocket(SOCKET_TYPE_SERVER, fd);

    dead.clear();
    for (auto& entry : m_clients) {
      const int fd = entry.first;
      SocketConnection& conn = *entry.second;
      if (!conn.valid) {
        dead.push_back(fd);
        continue;
      }
      if (!FD_ISSET(fd, &ready)) continue;
      TW_LOGD("Start to read command from fd = [%d] addr = [%s]", fd, conn.address);
      if (Stopped()) return;
      ServeClient(conn);
      if (Stopped()) return;
    }
    for (int fd : dead) RemoveSocket(SOCKET_TYPE_CLIENT, fd);
  } while (!Stopped());
}

void SocketListener::AcceptClient(int serverFd) {
  sockaddr_un peer;
  socklen_t peerLength = sizeof(peer);
  int fd = accept(serverFd, reinterpret_cast<sockaddr*>(&peer), &peerLength);
  if (fd < 0) {
    int err = errno;
    TW_LOGE("Failed to accept from server socket [%d], err = [%s](%d)", serverFd, strerror(err),
            err);
    // A second's pause, cut short when the listener is being stopped.
    for (int i = 0; i < 20 && !Stopped(); ++i) usleep(50000);
    return;
  }
  if (fd >= FD_SETSIZE) {
    TW_LOGE("Client fd = [%d] does not fit in the select set (limit %d). Closed.", fd, FD_SETSIZE);
    close(fd);
    return;
  }
  int flags = fcntl(fd, F_GETFL);
  if (flags >= 0) fcntl(fd, F_SETFL, flags | O_NONBLOCK);
  if (Stopped()) {
    close(fd);
    return;
  }
  char address[SocketConnection::kAddressSize] = {};
  const size_t pathOffset = offsetof(sockaddr_un, sun_path);
  if (peerLength > pathOffset) {
    // The kernel reports the full length even when it truncated the address.
    size_t pathLength = peerLength - pathOffset;
    if (pathLength > sizeof(peer.sun_path)) pathLength = sizeof(peer.sun_path);
    // An abstract peer name starts with NUL and so reads as empty, like an unbound peer.
    snprintf(address, sizeof(address), "%.*s", static_cast<int>(pathLength), peer.sun_path);
  }
  TW_LOGD("Accept a client. fd = [%d]", fd);
  AddSocket(SOCKET_TYPE_CLIENT, fd, address);
  if (Stopped()) return;
  TW_LOGD("SocketListener accepts one client, fd = [%d] addr = [%s]", fd, address);
}

void SocketListener::ServeClient(SocketConnection& conn) {
  ConnectionDataInInterface* handler = m_handler.load(std::memory_order_acquire);
  if (handler != nullptr) {
    handler->DataIn(conn);
    return;
  }
  // Nobody consumes the bytes, but they are still read: a peer that closed would otherwise keep
  // its socket readable and the loop would spin on it.
  conn.ReadToBuffer();
  conn.ReadQueue().Reset();
}

}  // namespace libtidewatch
