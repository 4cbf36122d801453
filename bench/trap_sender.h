// The sending side of the trap benchmarks: streams of MCP trap packets in their wire form and a
// plain client of an abstract-namespace socket that writes them.
#pragma once

#include <errno.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

#include "libtidewatch/api/monitor_types.h"
#include "libtidewatch/platform/abstract_socket.h"
#include "libtidewatch/transport/mcp_info.h"

namespace tidewatch_bench {

using Bytes = std::vector<uint8_t>;

inline void PutLE32(Bytes& out, uint32_t v) {
  for (int i = 0; i < 4; ++i) out.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

// About `batchBytes` of back-to-back MCP trap packets, each carrying one EM trap record whose
// payload is `payload`; `*traps` is how many.
inline Bytes EmTrapStream(const Bytes& payload, size_t batchBytes, uint64_t* traps) {
  Bytes packet;
  PutLE32(packet, libtidewatch::HEADER_MAGIC);
  packet.push_back(0xAC);
  packet.push_back(0xCA);
  PutLE32(packet, static_cast<uint32_t>(5 + payload.size()));
  packet.push_back(libtidewatch::TRAP_TYPE_EM);
  PutLE32(packet, static_cast<uint32_t>(payload.size()));
  packet.insert(packet.end(), payload.begin(), payload.end());
  Bytes stream;
  *traps = 0;
  while (stream.size() + packet.size() <= batchBytes) {
    stream.insert(stream.end(), packet.begin(), packet.end());
    ++*traps;
  }
  return stream;
}

// The same with a payload of `trapSize` counting bytes.
inline Bytes TrapStream(size_t trapSize, size_t batchBytes, uint64_t* traps) {
  Bytes payload(trapSize);
  for (size_t i = 0; i < trapSize; ++i) payload[i] = static_cast<uint8_t>(i);
  return EmTrapStream(payload, batchBytes, traps);
}

inline bool WriteAll(int fd, const Bytes& bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace tidewatch_bench
