// Sends one command packet to the service and brings back its reply packet.
#pragma once

#include "libtidewatch/transport/mcp_info.h"

namespace libtidewatch {

class Transmitter {
 public:
  virtual ~Transmitter() = default;
  // Sends `request`; when `reply` is not null, stores there a packet allocated with new that the
  // caller owns (or null). A true `*stop` ends the operation early.
  virtual bool Send(const MCPInfo& request, MCPInfo** reply, volatile bool* stop) = 0;
  // Whether a service handle is held.
  virtual bool CheckValid() = 0;
};

}  // namespace libtidewatch
