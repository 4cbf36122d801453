#include "emulator/link_server.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "emulator/send_pending.h"
#include "libtidewatch/platform/abstract_socket.h"
#include "libtidewatch/platform/log.h"

namespace hal_emulator {

using libtidewatch::AppendHalLinkFrame;
using libtidewatch::HalEndpointName;
using libtidewatch::HalGeneration;
using libtidewatch::HalLinkFrame;
using libtidewatch::kHalLinkCommand;
using libtidewatch::kHalLinkCommandResult;
using libtidewatch::kHalLinkRegisterResult;
using libtidewatch::kHalLinkRegisterTrapCallback;
using libtidewatch::kHalLinkStatusOk;
using libtidewatch::ListenAbstract;
namespace {

constexpr int kBacklog = 16;
// A client that keeps sending without reading its answers is not read from while this much is
// waiting for it, so its answers cannot pile up without bound.
constexpr size_t kMaxUnsentBytes = 4u * 1024u * 1024u;
// Reads per readiness event, so that one busy client cannot starve the others.
constexpr int kReadsPerEvent = 16;
// Destination names are for the service's bookkeeping only; this is plenty.
constexpr size_t kMaxDestinationName = 1024;

bool SetNonBlocking(int fd) {
  int flags = fcntl(fd, F_GETFL);
  return flags >= 0 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0;
}

}  // namespace

LinkServer::LinkServer(CommandService* commands, CallbackRegistry* callbacks, size_t maxClients)
    : m_commands(commands), m_callbacks(callbacks), m_maxClients(maxClients) {}

LinkServer::~LinkServer() {
  for (auto& client : m_clients) close(client->fd);
  for (int fd : m_listeners) close(fd);
}

bool LinkServer::Listen(HalGeneration generation) {
  std::string name = HalEndpointName(generation);
  int fd = ListenAbstract(name, kBacklog);
  if (fd < 0) {
    TW_LOGE("cannot listen on %s: %s", name.c_str(), strerror(errno));
    return false;
  }
  if (!SetNonBlocking(fd)) {
    TW_LOGE("cannot make the endpoint %s non-blocking", name.c_str());
    close(fd);
    return false;
  }
  m_listeners.push_back(fd);
  TW_LOGI("listening on %s", name.c_str());
  return true;
}

void LinkServer::Accept(int listenFd) {
  for (;;) {
    int fd = accept4(listenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
      if (errno == EINTR) continue;
      if (errno == EMFILE || errno == ENFILE) {
        // Out of descriptors: the pending client stays queued; pause instead of spinning on it.
        TW_LOGW("cannot accept a client: out of file descriptors");
        usleep(50 * 1000);
      }
      return;
    }
    if (m_clients.size() >= m_maxClients) {
      TW_LOGW("client refused: %zu clients already connected", m_clients.size());
      close(fd);
      continue;
    }
    m_clients.emplace_back(new Client(fd));
  }
}

bool LinkServer::ReadFrom(Client* client) {
  uint8_t buf[64 * 1024];
  for (int i = 0; i < kReadsPerEvent; ++i) {
    ssize_t n = recv(client->fd, buf, sizeof(buf), 0);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return true;
    if (n <= 0) return false;  // closed, or a read error
    if (!client->decoder.Feed(buf, static_cast<size_t>(n))) {
      TW_LOGW("client sent a frame length of %u; closing it", client->decoder.bad_length());
      return false;
    }
    if (static_cast<size_t>(n) < sizeof(buf)) return true;
  }
  return true;
}

bool LinkServer::WriteTo(Client* client) {
  return SendPending(client->fd, &client->out, &client->outPos);
}

bool LinkServer::Register(Client* client, const std::vector<uint8_t>& name, bool* handedOver) {
  // The client waits for this answer before sending anything more; anything already queued
  // breaks the protocol, and would be lost once the connection is a callback connection.
  HalLinkFrame extra;
  if (client->outPos < client->out.size() || client->decoder.pending() != 0 ||
      client->decoder.Next(&extra)) {
    TW_LOGW("client sent more after a trap callback registration; closing it");
    return false;
  }
  std::string destination(name.begin(), name.end());
  uint8_t status = 1;
  bool usable = !destination.empty() && destination.size() <= kMaxDestinationName &&
                destination.find('\0') == std::string::npos;
  if (usable) {
    std::vector<uint8_t> ok;
    uint8_t okStatus = kHalLinkStatusOk;
    AppendHalLinkFrame(kHalLinkRegisterResult, &okStatus, 1, &ok);
    switch (m_callbacks->Adopt(destination, client->fd, ok)) {
      case CallbackRegistry::AdoptResult::kAdopted:
        *handedOver = true;
        return true;
      case CallbackRegistry::AdoptResult::kBroken:
        return false;
      case CallbackRegistry::AdoptResult::kFull:
        TW_LOGW("trap callback for %s refused: too many callbacks", destination.c_str());
        break;
    }
  }
  // A refused registration leaves the connection an ordinary command connection.
  AppendHalLinkFrame(kHalLinkRegisterResult, &status, 1, &client->out);
  return true;
}

bool LinkServer::HandleFrames(Client* client, bool* handedOver) {
  HalLinkFrame frame;
  while (!*handedOver && client->decoder.Next(&frame)) {
    switch (frame.opcode) {
      case kHalLinkCommand: {
        CommandAnswer answer = m_commands->Handle(frame.payload.data(), frame.payload.size());
        answer.reply.insert(answer.reply.begin(), answer.status);
        AppendHalLinkFrame(kHalLinkCommandResult, answer.reply.data(), answer.reply.size(),
                           &client->out);
        break;
      }
      case kHalLinkRegisterTrapCallback:
        if (!Register(client, frame.payload, handedOver)) return false;
        break;
      default:
        TW_LOGW("client sent opcode 0x%02x; closing it", frame.opcode);
        return false;
    }
  }
  return true;
}

void LinkServer::Drop(size_t index, bool closeFd) {
  if (closeFd) close(m_clients[index]->fd);
  m_clients.erase(m_clients.begin() + static_cast<std::ptrdiff_t>(index));
}

bool LinkServer::Run(int stopFd) {
  std::vector<pollfd> fds;
  for (;;) {
    fds.clear();
    fds.push_back({stopFd, POLLIN, 0});
    for (int fd : m_listeners) fds.push_back({fd, POLLIN, 0});
    for (const auto& client : m_clients) {
      size_t unsent = client->out.size() - client->outPos;
      short events = unsent < kMaxUnsentBytes ? POLLIN : 0;
      if (unsent > 0) events |= POLLOUT;
      fds.push_back({client->fd, events, 0});
    }
    if (poll(fds.data(), fds.size(), -1) < 0) {
      if (errno == EINTR) continue;
      TW_LOGE("poll failed: %s", strerror(errno));
      return false;
    }
    if (fds[0].revents != 0) return true;

    // Clients first, while the poll entries still line up with m_clients; accepting appends.
    size_t first = 1 + m_listeners.size();
    for (size_t i = m_clients.size(); i-- > 0;) {
      short revents = fds[first + i].revents;
      if (revents == 0) continue;
      Client* client = m_clients[i].get();
      bool keep = true;
      bool handedOver = false;
      if (revents & POLLIN) {
        keep = ReadFrom(client);
        // Frames that arrived before the client closed are still answered as far as possible.
        if (!HandleFrames(client, &handedOver)) keep = false;
      } else if (revents & (POLLERR | POLLHUP | POLLNVAL)) {
        keep = false;
      }
      if (keep && !handedOver) keep = WriteTo(client);
      if (handedOver) {
        Drop(i, false);
      } else if (!keep) {
        Drop(i, true);
      }
    }
    for (size_t i = 0; i < m_listeners.size(); ++i) {
      if (fds[1 + i].revents & POLLIN) Accept(m_listeners[i]);
    }
  }
}

}  // namespace hal_emulator
