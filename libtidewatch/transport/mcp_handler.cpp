#include "libtidewatch/transport/mcp_handler.h"

#include <cstring>

#include "libtidewatch/platform/log.h"
#include "libtidewatch/transport/scratch_queue.h"
#include "libtidewatch/transport/socket_connection.h"

namespace libtidewatch {
namespace {

// Byte-wise so that the wire stays little-endian on any host and no read is ever unaligned.
uint16_t LoadLE16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }

uint32_t LoadLE32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
         (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

void StoreLE16(uint8_t* p, uint16_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
}

void StoreLE32(uint8_t* p, uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}

bool Stopped(volatile bool* stop) { return stop != nullptr && *stop; }

// The packet type whose magic is `magic`, or MCP_TYPE_NONE.
MCP_TYPE TypeOfMagic(uint16_t magic) {
  for (const MCPTypeMagic& row : kMcpTypeMagics) {
    if (row.magic == magic) return row.type;
  }
  return MCP_TYPE_NONE;
}

// How many leading bytes the search would pop one at a time before it stops: up to the first
// full magic that still has a whole header behind it, or until only 9 bytes are left. The front
// byte is known not to start a magic.
size_t GarbageRunLength(const DataQueue& q) {
  const uint8_t* front = q.Front();
  const size_t lastStart = q.size - kMcpHeaderSize;  // a header starting later cannot fit
  size_t i = 1;
  while (i <= lastStart) {
    const void* hit = memchr(front + i, kMcpMagicBytes[0], lastStart - i + 1);
    if (hit == nullptr) break;
    i = static_cast<size_t>(static_cast<const uint8_t*>(hit) - front);
    if (memcmp(front + i, kMcpMagicBytes, sizeof(kMcpMagicBytes)) == 0) return i;
    ++i;
  }
  return lastStart + 1;
}

// Drops n (< q.size) bytes leaving start, size and the held bytes exactly as n calls of Pop(1)
// would. A single Pop(1) compacts whenever the data ended past the mark before it, so the first pop
// compacts, and so does each following one while the (compacted) data is still longer than the
// mark; the pops after the last compaction only advance start. One Pop() per phase gives the same
// result with at most one memmove.
void PopAsSingleBytes(DataQueue& q, size_t n) {
  if (n == 0) return;  // Pop(0) would compact
  if (q.start + q.size > DataQueue::kCompactMark) {
    size_t compacting = q.size > DataQueue::kCompactMark ? q.size - DataQueue::kCompactMark : 1;
    size_t first = n < compacting ? n : compacting;
    q.Pop(first);  // the data ended past the mark, so this compacts
    n -= first;
  }
  if (n != 0) q.Pop(n);  // the data now ends at or below the mark: start only advances
}

// Writes the wire form of `in` through `put(bytes, count)`. Drops (nothing to write, bad type or
// length) and a raised stop flag count as success; only a failed put is a failure. `*complete`
// tells whether the whole packet went out.
template <typename Put>
bool WritePacket(const MCPInfo& in, volatile bool* stop, Put put, bool* complete) {
  *complete = false;
  if (in.data == nullptr || in.length == 0) {
    TW_LOGE("Do not need to cmd. data = [%p], len = [%zu]", static_cast<const void*>(in.data),
            in.length);
    return true;
  }
  if (Stopped(stop)) {
    TW_LOGD("Stop flag is ON.");
    return true;
  }
  if (in.type < MCP_TYPE_CMD || in.type > MCP_TYPE_TRAP) {
    TW_LOGE("Undefined type! type = [%d]. DROP.", static_cast<int>(in.type));
    return true;
  }
  // The length field is 32 bits wide: a larger size_t is truncated before it is checked.
  const uint32_t length = static_cast<uint32_t>(in.length);
  if (length == 0 || length > kMcpMaxPayload) {
    TW_LOGE("Payload length is invalid! len = [%u]. DROP.", length);
    return true;
  }

  uint8_t header[kMcpHeaderSize];
  StoreLE32(header, HEADER_MAGIC);
  StoreLE16(header + 4, kMcpTypeMagics[in.type - 1].magic);
  StoreLE32(header + 6, length);
  // Field by field, checking the stop flag in between, so that a stop cuts a long write short.
  const struct {
    const uint8_t* bytes;
    size_t size;
    const char* name;  // for the log
  } pieces[] = {{header, 4, "HEADER_MAGIC"},
                {header + 4, 2, "TYPE_Magic"},
                {header + 6, 4, "Len"},
                {in.data, length, "Data"}};
  for (size_t i = 0; i < sizeof(pieces) / sizeof(pieces[0]); ++i) {
    if (i > 0 && Stopped(stop)) {
      TW_LOGD("Stop flag is ON.");
      return true;
    }
    if (!put(pieces[i].bytes, pieces[i].size)) {
      TW_LOGE("MCPHandler::WriteToConnection (%s) failed!", pieces[i].name);
      return false;
    }
  }
  *complete = true;
  return true;
}

enum class Framing {
  kPacket,    // a whole packet is in the queue
  kStopped,   // the stop flag is raised
  kEmpty,     // no bytes at all
  kNoHeader,  // no valid header in the bytes
  kShort,     // a header whose payload has not all arrived
};

// The checks both readers make, in order: the stop flag, any bytes at all, a header (found now,
// or pending in `io` from an earlier call), then the whole payload. On kPacket the payload is the
// first io.length bytes of `q`.
Framing Frame(DataQueue& q, MCPInfo& io, volatile bool* stop) {
  if (Stopped(stop)) {
    TW_LOGD("Stop flag is ON.");
    return Framing::kStopped;
  }
  if (q.size == 0) return Framing::kEmpty;
  if (io.length == 0) {
    if (!MCPHandler::SearchHeader(io, q)) return Framing::kNoHeader;
    TW_LOGD("Header is found! Type = [%d] Payload length = [%zu]", static_cast<int>(io.type),
            io.length);
    if (Stopped(stop)) {
      TW_LOGD("Stop flag is ON.");
      return Framing::kStopped;
    }
  }
  return q.size >= io.length ? Framing::kPacket : Framing::kShort;
}

}  // namespace

bool MCPHandler::WriteToBuffer(DataQueue& q, const MCPInfo& in, volatile bool* stop) {
  TW_LOGD("MCPHandler::WriteToBuffer start");
  bool complete = false;
  bool ok = WritePacket(
      in, stop, [&](const uint8_t* p, size_t n) { return q.Push(p, n); }, &complete);
  if (complete) TW_LOGD("MCPHandler::WriteToBuffer done");
  return ok;
}

bool MCPHandler::WriteToConnection(SocketConnection& c, const MCPInfo& in, volatile bool* stop) {
  bool complete = false;
  return WritePacket(
      in, stop, [&](const uint8_t* p, size_t n) { return c.Write(p, n, stop); }, &complete);
}

bool MCPHandler::SearchHeader(MCPInfo& out, DataQueue& q) {
  TW_LOGD("MCPHandler::SearchHeader");
  while (q.size >= kMcpHeaderSize) {
    if (LoadLE32(q.Front()) != HEADER_MAGIC) {
      if (LogEnabled(kLogDebug)) {
        TW_LOGD("Not magic header. Pop(1). Read data:");
        q.Pop(1);
      } else {
        // Nobody sees the per-byte lines, so a whole run of garbage goes at once, leaving the
        // queue as the byte-by-byte pops would.
        PopAsSingleBytes(q, GarbageRunLength(q));
      }
      continue;
    }
    q.Pop(4);
    TW_LOGD("Magic header is found.");
    // At least 6 bytes remain: the 10-byte test above covers the type and length reads.
    const MCP_TYPE type = TypeOfMagic(LoadLE16(q.Front()));
    if (type == MCP_TYPE_NONE) {
      // The search resumes right behind the magic, so a good header there is still found.
      TW_LOGD("Type magic is invalid! Read data:");
      continue;
    }
    q.Pop(2);
    TW_LOGD("Type Magic is found.");
    const uint32_t length = LoadLE32(q.Front());
    if (length == 0 || length > kMcpMaxPayload) {
      TW_LOGD("Command length is invalid! len = [%u]", length);
      continue;
    }
    q.Pop(4);
    TW_LOGD("Payload length [%u] is found.", length);
    out.SetData(type, length, nullptr, false);
    TW_LOGD("MCPHandler::SearchHeader done!");
    return true;
  }
  TW_LOGD("MCPHandler::SearchHeader failed!");
  return false;
}

bool MCPHandler::ProcessFromBuffer(SocketConnection& c, MCPInfo& io, volatile bool* stop) {
  DataQueue& q = c.ReadQueue();
  if (!FrameInPlace(q, io, stop)) return false;
  const size_t length = io.length;
  io.SetData(io.type, length, q.Front(), true);
  q.Pop(length);
  return true;
}

bool MCPHandler::FrameInPlace(DataQueue& q, MCPInfo& io, volatile bool* stop) {
  switch (Frame(q, io, stop)) {
    case Framing::kPacket:
      TW_LOGD("One packet is processed.");
      io.SetData(io.type, io.length, q.Front(), false);
      return true;
    case Framing::kStopped:
      return false;
    case Framing::kShort:
      TW_LOGD("Data size [%zu] < Payload length [%zu]. Wait for next time.", q.size, io.length);
      break;
    case Framing::kEmpty:
    case Framing::kNoHeader:
      break;
  }
  TW_LOGD("No packet received.");
  return false;
}

bool MCPHandler::ProcessFromBuffer(const uint8_t* bytes, size_t len, MCPInfo& out,
                                   volatile bool* stop) {
  TW_LOGD("MCPHandler::ProcessFromBuffer start");
  if (Stopped(stop)) {
    TW_LOGD("Stop flag is ON.");
    return false;
  }
  ScratchQueue scratch;
  DataQueue* q = scratch.get();
  if (q == nullptr || !q->Push(bytes, len)) {
    TW_LOGE("ProcessFromBuffer dataQ.Push false");
    return false;
  }
  // A self-contained buffer starts a packet of its own: nothing is pending.
  if (out.length != 0) out.SetData(MCP_TYPE_NONE, 0, nullptr, false);
  switch (Frame(*q, out, stop)) {
    case Framing::kPacket:
      TW_LOGD("One packet is processed.");
      out.SetData(out.type, out.length, q->Front(), true);
      TW_LOGD("MCPHandler::ProcessFromBuffer done");
      return true;
    case Framing::kStopped:
      break;
    case Framing::kEmpty:
      TW_LOGE("dataQ size is 0.");
      break;
    case Framing::kNoHeader:
      TW_LOGE("No Header in current buffer.");
      break;
    case Framing::kShort:
      TW_LOGE("Data size [%zu] < Payload length [%zu].", q->size, out.length);
      break;
  }
  return false;
}

}  // namespace libtidewatch
