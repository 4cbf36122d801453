// The receiving side of MCP: cuts the bytes that arrive over accepted socket connections or through
// the HAL client callbacks into packets and hands each one to the payload handler registered for
// its type, writing the handler's answer packet, if any, back the way the packet came.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <unordered_map>

#include "libtidewatch/transport/data_queue.h"
#include "libtidewatch/transport/mcp_info.h"
#include "libtidewatch/transport/socket_connection.h"
#include "libtidewatch/transport/socket_listener.h"

namespace libtidewatch {

// Consumes one packet. `out` may be filled with an answer packet; length 0 means no answer. The
// result is not examined by the receiver.
class PayloadHandlerInterface {
 public:
  virtual ~PayloadHandlerInterface() = default;
  virtual bool ProcessPayload(const MCPInfo& in, MCPInfo& out) = 0;
  // Called once the packets of one delivery (what the receiver read from a connection in one
  // go, or one callback's buffer) have all been handed to ProcessPayload, serialised with it, and
  // only when this handler got at least one of them. A handler that buffers its output flushes
  // here: nothing more has arrived at that moment.
  virtual void DeliveryDone() {}
};

// Takes a self-contained byte buffer (a HAL callback's argument); answers go to `replyQueue`.
class BufferDataInInterface {
 public:
  virtual ~BufferDataInInterface() = default;
  virtual bool DataIn(const uint8_t* data, size_t len, DataQueue& replyQueue) = 0;
};

// Both roads may be live at once (the listener's thread and platform callback threads), so every
// packet is handled under one lock: payload handlers are never entered concurrently by one
// receiver. Handlers are not owned and must outlive the receiver's use.
//
// A half-received packet belongs to the connection it came from. While its payload is awaited the
// header is parked per connection, so bytes of another connection, or a callback in between, can
// never complete it. Parked headers are dropped when their connection's read fails (the peer has
// gone); a receiver therefore serves the connections of one listener at a time.
class MCPReceiver : public ConnectionDataInInterface, public BufferDataInInterface {
 public:
  MCPReceiver();
  ~MCPReceiver() override;
  MCPReceiver(const MCPReceiver&) = delete;
  MCPReceiver& operator=(const MCPReceiver&) = delete;

  // Stores the handler for types 1 to 3; other types are ignored. Null removes the handler.
  void SetPayloadHandler(MCP_TYPE type, PayloadHandlerInterface* handler);

  // Stream road: reads the connection and handles every whole packet in its queue. True when at
  // least one packet was handled.
  bool DataIn(SocketConnection& conn) override;
  // Callback road: handles the first packet of the buffer only.
  bool DataIn(const uint8_t* data, size_t len, DataQueue& replyQueue) override;

 private:
  struct PendingHeader {
    MCP_TYPE type;
    size_t length;
  };

  // With m_lock held: `current` becomes the packet `conn` left half-received, or empty; and back.
  void ResumePending(const SocketConnection& conn);
  void ParkPending(const SocketConnection& conn);
  // With m_lock held: hands the whole packet in `current` to its handler, then empties `current`.
  // The handler is noted in `delivered` (a bit per type) for FinishDelivery.
  void Dispatch(MCPInfo& answer, unsigned& delivered);
  // With m_lock held: tells each handler noted in `delivered` that its delivery is complete.
  void FinishDelivery(unsigned delivered);

  std::mutex m_lock;
  PayloadHandlerInterface* m_handlers[4] = {};  // indexed by MCP_TYPE; entry 0 unused
  MCPInfo current;  // the packet being assembled or handled; guarded by m_lock
  std::unordered_map<const SocketConnection*, PendingHeader> m_pending;  // guarded by m_lock
};

}  // namespace libtidewatch
