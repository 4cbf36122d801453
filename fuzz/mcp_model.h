// A deliberately plain model of the MCP reader, for the fuzz targets to hold the real one against.
// It keeps the whole stream and an absolute read position, searches for headers one byte at a
// time, and pops exactly as that search does, so that it also predicts where the reader's queue
// starts (the real reader skips garbage in bulk and must leave the queue in the same state).
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "libtidewatch/transport/data_queue.h"
#include "libtidewatch/transport/mcp_info.h"

namespace tidewatch_fuzz {

// DataQueue's start and size arithmetic without the bytes.
struct QueueShape {
  size_t start = 0;
  size_t size = 0;

  void Pop(size_t n) {
    if (n >= size) {
      start = 0;
      size = 0;
      return;
    }
    const size_t oldEnd = start + size;
    start += n;
    size -= n;
    if (start != 0 && (n == 0 || oldEnd > libtidewatch::DataQueue::kCompactMark)) start = 0;
  }
};

struct ModelPacket {
  libtidewatch::MCP_TYPE type = libtidewatch::MCP_TYPE_NONE;
  size_t offset = 0;  // of the payload, in Stream()
  size_t length = 0;
};

class McpModel {
 public:
  // `start`: where the queue's first byte sits before anything arrives.
  explicit McpModel(size_t start) { m_shape.start = start; }

  void Feed(const uint8_t* data, size_t len) {
    m_stream.insert(m_stream.end(), data, data + len);
    m_shape.size += len;
  }

  // One stream read: the next whole packet, or false (a found header may stay pending).
  bool NextFromStream(ModelPacket* packet) {
    if (Held() == 0) return false;
    while (m_pendingLength == 0) {
      if (!SearchHeader() || Held() == 0) return false;
    }
    return TakePayload(packet);
  }

  // The one-shot read of everything fed: the first packet whose payload is all there.
  bool FirstPacket(ModelPacket* packet) {
    if (Held() == 0 || !SearchHeader()) return false;
    return TakePayload(packet);
  }

  const std::vector<uint8_t>& Stream() const { return m_stream; }
  size_t Position() const { return m_pos; }
  size_t Held() const { return m_stream.size() - m_pos; }
  const QueueShape& Shape() const { return m_shape; }
  libtidewatch::MCP_TYPE PendingType() const { return m_pendingType; }
  size_t PendingLength() const { return m_pendingLength; }

 private:
  static uint32_t Le32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
           static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
  }

  static libtidewatch::MCP_TYPE TypeOf(const uint8_t* p) {
    switch (p[0] | p[1] << 8) {
      case 0x5775:
        return libtidewatch::MCP_TYPE_CMD;
      case 0x5875:
        return libtidewatch::MCP_TYPE_REPLY;
      case 0xCAAC:
        return libtidewatch::MCP_TYPE_TRAP;
      default:
        return libtidewatch::MCP_TYPE_NONE;
    }
  }

  void Pop(size_t n) {
    m_pos += n < Held() ? n : Held();
    m_shape.Pop(n);
  }

  bool SearchHeader() {
    while (Held() >= 10) {
      const uint8_t* p = &m_stream[m_pos];
      if (Le32(p) != 0xF4E8CDAE) {
        Pop(1);
        continue;
      }
      Pop(4);
      const libtidewatch::MCP_TYPE type = TypeOf(p + 4);
      if (type == libtidewatch::MCP_TYPE_NONE) continue;
      Pop(2);
      const uint32_t length = Le32(p + 6);
      if (length == 0 || length > 131072) continue;
      Pop(4);
      m_pendingType = type;
      m_pendingLength = length;
      return true;
    }
    return false;
  }

  bool TakePayload(ModelPacket* packet) {
    if (Held() < m_pendingLength) return false;
    packet->type = m_pendingType;
    packet->offset = m_pos;
    packet->length = m_pendingLength;
    Pop(m_pendingLength);
    m_pendingType = libtidewatch::MCP_TYPE_NONE;
    m_pendingLength = 0;
    return true;
  }

  std::vector<uint8_t> m_stream;
  size_t m_pos = 0;
  QueueShape m_shape;
  libtidewatch::MCP_TYPE m_pendingType = libtidewatch::MCP_TYPE_NONE;
  size_t m_pendingLength = 0;
};

}  // namespace tidewatch_fuzz
