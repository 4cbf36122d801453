// Helpers for tests of the receiving side: a peer that connects to an abstract-namespace socket
// (with the platform's ConnectAbstract) and writes MCP packets and trap records in their wire form.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "libtidewatch/platform/abstract_socket.h"
#include "libtidewatch/transport/mcp_info.h"

namespace tidewatch_test {

using Bytes = std::vector<uint8_t>;

// A name unique to the running test and process, for sockets that must not meet another test's.
std::string UniqueSocketName(const char* suffix = "");

// Writes all of `bytes`; false on any error.
bool WriteAll(int fd, const uint8_t* bytes, size_t len);
inline bool WriteAll(int fd, const Bytes& bytes) {
  return WriteAll(fd, bytes.data(), bytes.size());
}

// The wire form of one packet: magic, type magic, 32-bit length (`length` when given, else the
// payload's size), payload.
Bytes McpPacket(libtidewatch::MCP_TYPE type, const Bytes& payload, int64_t length = -1);

// One raw trap record: type byte, 32-bit length (`length` when given, else the payload's size),
// payload.
Bytes TrapRecord(uint8_t type, const Bytes& payload, int64_t length = -1);
// A discard-info record listing {trap type, dropped count} pairs; its count field says `count`
// when given, else the number of pairs.
Bytes DiscardRecord(const std::vector<std::pair<uint8_t, uint32_t>>& entries, int64_t count = -1);

Bytes Concat(std::initializer_list<Bytes> parts);

}  // namespace tidewatch_test
