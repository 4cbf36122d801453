#include "libtidewatch/transport/mcp_info.h"

#include <cstring>

namespace libtidewatch {

MCPInfo::~MCPInfo() {
  if (owned) delete[] data;
}

void MCPInfo::SetData(MCP_TYPE t, size_t len, const uint8_t* d, bool copy) {
  // The old buffer is released only after the copy, so that a packet can be re-set from its own
  // payload (or a part of it).
  const uint8_t* released = owned ? data : nullptr;
  data = nullptr;
  owned = false;
  type = t;
  length = len < kMcpMaxPayload ? len : kMcpMaxPayload;
  if (d != nullptr) {
    if (copy && len != 0) {
      uint8_t* buffer = new uint8_t[length];
      memcpy(buffer, d, length);
      data = buffer;
      owned = true;
    } else {
      data = d;
    }
  }
  delete[] released;
}

}  // namespace libtidewatch
