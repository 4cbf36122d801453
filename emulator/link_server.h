// The service side of the host HAL link: listens on the endpoints of the generations served, and
// runs one poll loop over all client connections. Commands are answered in place; a connection that
// registers a trap callback is handed to the callback registry. A connection that sends a frame
// the service cannot accept is closed; nothing a client sends or fails to read can block the loop.
#pragma once

#include <poll.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "emulator/callback_registry.h"
#include "emulator/command_service.h"
#include "libtidewatch/platform/hal_link.h"
#include "libtidewatch/platform/hal_service.h"

namespace hal_emulator {

class LinkServer {
 public:
  // `commands` and `callbacks` must outlive the server.
  LinkServer(CommandService* commands, CallbackRegistry* callbacks, size_t maxClients);
  ~LinkServer();
  LinkServer(const LinkServer&) = delete;
  LinkServer& operator=(const LinkServer&) = delete;

  // Publishes the endpoint of `generation` under the current socket prefix; false (with a log
  // line) when the name is taken or the socket cannot be made.
  bool Listen(libtidewatch::HalGeneration generation);

  // Serves until `stopFd` becomes readable (or the loop fails); returns false on failure.
  bool Run(int stopFd);

  size_t clients() const { return m_clients.size(); }

 private:
  struct Client {
    explicit Client(int fd) : fd(fd) {}
    int fd;
    libtidewatch::HalLinkDecoder decoder;
    std::vector<uint8_t> out;  // bytes of answers not yet written
    size_t outPos = 0;
  };

  void Accept(int listenFd);
  // Each returns false when the connection must be closed.
  bool ReadFrom(Client* client);
  bool WriteTo(Client* client);
  bool HandleFrames(Client* client, bool* handedOver);
  bool Register(Client* client, const std::vector<uint8_t>& name, bool* handedOver);
  void Drop(size_t index, bool closeFd);

  CommandService* m_commands;
  CallbackRegistry* m_callbacks;
  size_t m_maxClients;
  std::vector<int> m_listeners;
  std::vector<std::unique_ptr<Client>> m_clients;
};

}  // namespace hal_emulator
