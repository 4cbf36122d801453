#include "libtidewatch/transport/mcp_info.h"

#include <cstring>

namespace libtidewatch {

MCPInfo::~MCPInfo() {
  if (owned) delete[] data;
}

void MCPInfo::SetData(MCP_TYPE t, size_t len, const uint8_t* d, bool copy) {
  if (owned) delete[] data;
  data = nullptr;
  length = 0;
  owned = false;
  type = t;
  length = len < kMcpMaxPayload ? len : kMcpMaxPayload;
  if (d == nullptr) return;
  if (copy && len != 0) {
    uint8_t* buffer = new uint8_t[length];
    memcpy(buffer, d, length);
    data = buffer;
    owned = true;
  } else {
    data = d;
  }
}

}  // namespace libtidewatch
