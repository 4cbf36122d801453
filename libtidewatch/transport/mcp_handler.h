// Writing MCP packets to queues and connections, and cutting them out of byte streams,
// resynchronising on damaged input. Stateless: the only framing state is the header-only MCPInfo a
// stream reader keeps between calls. A null `stop` never stops an operation early.
#pragma once

#include <cstddef>
#include <cstdint>

#include "libtidewatch/transport/data_queue.h"
#include "libtidewatch/transport/mcp_info.h"

namespace libtidewatch {

class SocketConnection;

class MCPHandler {
 public:
  // Appends the packet's wire form. A packet that cannot be written (no data, bad type or length)
  // is dropped with an error log and counts as written; false only when the queue overflows.
  static bool WriteToBuffer(DataQueue& q, const MCPInfo& in, volatile bool* stop);
  // The same, as four writes to the connection.
  static bool WriteToConnection(SocketConnection& c, const MCPInfo& in, volatile bool* stop);
  // Finds and consumes the next valid header in `q`, making `out` header-only. Fewer than 10 bytes
  // never give a header; those bytes stay queued.
  static bool SearchHeader(MCPInfo& out, DataQueue& q);
  // Cuts the next whole packet out of the connection's read queue. A header whose payload has not
  // all arrived stays pending in `io`; the caller empties `io` after consuming a packet.
  static bool ProcessFromBuffer(SocketConnection& c, MCPInfo& io, volatile bool* stop);
  // The same without the copy: a whole packet stays where it lies at the front of `q`, and `io`
  // borrows it. The caller hands it on, then pops io.length bytes from `q` (the packet stays valid
  // until then) and empties `io`.
  static bool FrameInPlace(DataQueue& q, MCPInfo& io, volatile bool* stop);
  // Decodes the first packet of a self-contained buffer into `out`; bytes after it are ignored.
  static bool ProcessFromBuffer(const uint8_t* bytes, size_t len, MCPInfo& out,
                                volatile bool* stop);
};

}  // namespace libtidewatch
