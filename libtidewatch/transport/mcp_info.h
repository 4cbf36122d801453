// One MCP packet in memory, and the constants of the MCP wire format.
//
// Wire format, every field little-endian, no padding, no checksum:
//
//   +--------------+-----------+----------------+------------------------+
//   | magic (4)    | type (2)  | length (4)     | payload (length bytes) |
//   | AE CD E8 F4  | see below | 1 .. 131072    |                        |
//   +--------------+-----------+----------------+------------------------+
//
// The type field carries the packet type as a magic: 0x5775 command, 0x5875 reply, 0xCAAC trap.
#pragma once

#include <cstddef>
#include <cstdint>

namespace libtidewatch {

enum MCP_TYPE : uint32_t {
  MCP_TYPE_NONE = 0,
  MCP_TYPE_CMD = 1,
  MCP_TYPE_REPLY = 2,
  MCP_TYPE_TRAP = 3,
};

constexpr uint32_t HEADER_MAGIC = 0xF4E8CDAE;
// HEADER_MAGIC as it appears on the wire, for byte searches.
constexpr uint8_t kMcpMagicBytes[4] = {
    static_cast<uint8_t>(HEADER_MAGIC), static_cast<uint8_t>(HEADER_MAGIC >> 8),
    static_cast<uint8_t>(HEADER_MAGIC >> 16), static_cast<uint8_t>(HEADER_MAGIC >> 24)};
constexpr size_t kMcpHeaderSize = 10;
constexpr size_t kMcpMaxPayload = 0x20000;  // 131072

struct MCPTypeMagic {
  MCP_TYPE type;
  uint16_t magic;
};
// Writers index this by type - 1; readers search it by magic, in this order.
constexpr MCPTypeMagic kMcpTypeMagics[3] = {
    {MCP_TYPE_CMD, 0x5775},
    {MCP_TYPE_REPLY, 0x5875},
    {MCP_TYPE_TRAP, 0xCAAC},
};

class MCPInfo {
 public:
  MCPInfo() = default;
  virtual ~MCPInfo();
  MCPInfo(const MCPInfo&) = delete;
  MCPInfo& operator=(const MCPInfo&) = delete;

  // Replaces the packet: releases owned data, stores type and min(len, 131072) (even when data is
  // null or only borrowed), then copies the bytes when `copy` is set and len is not 0, else
  // borrows the caller's pointer. SetData(MCP_TYPE_NONE, 0, nullptr, false) empties the packet.
  void SetData(MCP_TYPE type, size_t len, const uint8_t* data, bool copy);

  MCP_TYPE type = MCP_TYPE_NONE;
  // Payload length. Non-zero with null data is a header-only packet: its payload is awaited.
  size_t length = 0;
  const uint8_t* data = nullptr;
  bool owned = false;  // data was allocated by SetData and is released by this object
};

}  // namespace libtidewatch
