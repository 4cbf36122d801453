#include "libtidewatch/transport/mcp_receiver.h"

#include "libtidewatch/platform/log.h"
#include "libtidewatch/transport/mcp_handler.h"

namespace libtidewatch {
namespace {

bool IsDefinedType(MCP_TYPE type) { return type >= MCP_TYPE_CMD && type <= MCP_TYPE_TRAP; }

void Empty(MCPInfo& packet) { packet.SetData(MCP_TYPE_NONE, 0, nullptr, false); }

// About 8 MiB of 128 KiB reads before the listener looks at its other connections again.
constexpr int kMaxReadsPerWakeup = 64;

}  // namespace

MCPReceiver::MCPReceiver() = default;
MCPReceiver::~MCPReceiver() = default;

void MCPReceiver::SetPayloadHandler(MCP_TYPE type, PayloadHandlerInterface* handler) {
  if (!IsDefinedType(type)) return;
  std::lock_guard<std::mutex> lock(m_lock);
  m_handlers[type] = handler;
}

bool MCPReceiver::DataIn(SocketConnection& conn) {
  TW_LOGD("MCPReceiver::DataIn");
  if (!conn.ReadToBuffer()) {
    TW_LOGD("Failed to refresh buffer. (connection is lost)");
    std::lock_guard<std::mutex> lock(m_lock);
    m_pending.erase(&conn);  // its half packet can never be completed now
    return false;
  }

  std::unique_lock<std::mutex> lock(m_lock);
  ResumePending(conn);
  DataQueue& q = conn.ReadQueue();
  MCPInfo answer;
  unsigned delivered = 0;
  bool handled = false;
  // The connection is drained, a bounded number of reads per wake-up: a busy sender then costs one
  // `select` per many reads, while a flood still leaves room for the other connections and a stop.
  for (int reads = 1;; ++reads) {
    while (MCPHandler::FrameInPlace(q, current, nullptr)) {
      if (!IsDefinedType(current.type)) {
        TW_LOGE("MCP_TYPE type IS invalide");
        Empty(current);
        m_pending.erase(&conn);
        FinishDelivery(delivered);
        return false;
      }
      TW_LOGD("Receive MCP: type:[%d], len:[%zu], data:", static_cast<int>(current.type),
              current.length);
      const size_t length = current.length;
      Dispatch(answer, delivered);  // the handler reads the packet where it lies in the queue
      q.Pop(length);
      handled = true;
      if (answer.length != 0) {
        TW_LOGD("Send MCP: type:[%d], len:[%zu], data:", static_cast<int>(answer.type),
                answer.length);
        // The write may wait for a slow peer; the callback road need not wait with it.
        lock.unlock();
        const bool written = MCPHandler::WriteToConnection(conn, answer, nullptr);
        Empty(answer);
        lock.lock();
        Empty(current);  // the callback road may have used it meanwhile
        if (!written) {
          TW_LOGE("Failed to write socket. (write error)");
          m_pending.erase(&conn);
          FinishDelivery(delivered);
          return false;
        }
      }
    }
    size_t got = 0;
    if (reads == kMaxReadsPerWakeup) break;
    if (!conn.ReadMore(&got)) {
      // The peer has gone (or the queue is full of rubbish): its half packet is dropped.
      TW_LOGD("Failed to refresh buffer. (connection is lost)");
      Empty(current);
      m_pending.erase(&conn);
      FinishDelivery(delivered);
      return handled;
    }
    if (got == 0) break;
  }
  ParkPending(conn);
  FinishDelivery(delivered);
  TW_LOGD("MCPReceiver::DataIn done!");
  return handled;
}

bool MCPReceiver::DataIn(const uint8_t* data, size_t len, DataQueue& replyQueue) {
  TW_LOGD("MCPReceiver::DataIn");
  std::lock_guard<std::mutex> lock(m_lock);
  Empty(current);
  if (!MCPHandler::ProcessFromBuffer(data, len, current, nullptr)) {
    TW_LOGE("Failed to parse MCP from buffer");
    Empty(current);  // a header without its payload must not linger
    return false;
  }
  TW_LOGD("Receive MCP: type:[%d], len:[%zu], data:", static_cast<int>(current.type),
          current.length);
  MCPInfo answer;
  unsigned delivered = 0;
  Dispatch(answer, delivered);
  FinishDelivery(delivered);
  if (answer.length != 0) {
    TW_LOGD("Send MCP: type:[%d], len:[%zu], data:", static_cast<int>(answer.type), answer.length);
    if (!MCPHandler::WriteToBuffer(replyQueue, answer, nullptr)) {
      TW_LOGE("Failed to write MCP to buffer");
      return false;
    }
  }
  TW_LOGD("MCPReceiver::DataIn done!");
  return true;
}

void MCPReceiver::ResumePending(const SocketConnection& conn) {
  auto it = m_pending.find(&conn);
  if (it == m_pending.end()) {
    Empty(current);
  } else {
    current.SetData(it->second.type, it->second.length, nullptr, false);
  }
}

void MCPReceiver::ParkPending(const SocketConnection& conn) {
  if (current.length != 0 && current.data == nullptr) {
    m_pending[&conn] = PendingHeader{current.type, current.length};
  } else if (!m_pending.empty()) {
    m_pending.erase(&conn);
  }
  Empty(current);
}

void MCPReceiver::Dispatch(MCPInfo& answer, unsigned& delivered) {
  PayloadHandlerInterface* handler = m_handlers[current.type];
  if (handler != nullptr) {
    handler->ProcessPayload(current, answer);
    delivered |= 1u << current.type;
  }
  Empty(current);
}

void MCPReceiver::FinishDelivery(unsigned delivered) {
  for (unsigned type = MCP_TYPE_CMD; type <= MCP_TYPE_TRAP; ++type) {
    PayloadHandlerInterface* handler = m_handlers[type];
    if ((delivered & (1u << type)) != 0 && handler != nullptr) handler->DeliveryDone();
  }
}

}  // namespace libtidewatch
