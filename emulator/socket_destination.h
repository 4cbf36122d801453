// The socket road of trap delivery: a connection to a trap receiver's own abstract-namespace socket
// (named exactly by the destination, never prefixed), kept open between traps and made again when
// it breaks. Writes never block: a receiver that stops reading loses traps, not the service's time.
// Used by the trap thread only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace hal_emulator {

class SocketDestination {
 public:
  explicit SocketDestination(std::string name);
  ~SocketDestination();
  SocketDestination(const SocketDestination&) = delete;
  SocketDestination& operator=(const SocketDestination&) = delete;

  // Hands one whole MCP packet to the socket. False, and the packet dropped, when nobody listens
  // under the name, the connection broke and could not be made again, or the previous packet is
  // still stuck in a full socket buffer. A packet accepted in part is finished by later calls
  // before anything else is written, so the stream never carries a torn packet.
  bool Deliver(const uint8_t* packet, size_t len);

  bool connected() const { return m_fd >= 0; }

 private:
  bool Connect();
  void Disconnect();
  // Writes what it can of the pending bytes; false when the connection broke.
  bool Flush();

  std::string m_name;
  int m_fd = -1;
  std::vector<uint8_t> m_pending;
  size_t m_pendingPos = 0;
};

}  // namespace hal_emulator
