#include "tests/support/mcp_test_peer.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <stddef.h>
#include <sys/socket.h>
#include <unistd.h>

namespace tidewatch_test {
namespace {

void PutLE32(Bytes& out, uint32_t v) {
  for (int i = 0; i < 4; ++i) out.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

}  // namespace

std::string UniqueSocketName(const char* suffix) {
  const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
  std::string name = "tw_test_";
  if (info != nullptr) name += std::string(info->test_suite_name()) + "." + info->name();
  return name + "." + std::to_string(getpid()) + suffix;
}

bool WriteAll(int fd, const uint8_t* bytes, size_t len) {
  while (len > 0) {
    ssize_t n = send(fd, bytes, len, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    bytes += n;
    len -= static_cast<size_t>(n);
  }
  return true;
}

Bytes McpPacket(libtidewatch::MCP_TYPE type, const Bytes& payload, int64_t length) {
  Bytes out;
  PutLE32(out, libtidewatch::HEADER_MAGIC);
  uint16_t magic = type >= 1 && type <= 3 ? libtidewatch::kMcpTypeMagics[type - 1].magic : 0;
  out.push_back(static_cast<uint8_t>(magic));
  out.push_back(static_cast<uint8_t>(magic >> 8));
  PutLE32(out, static_cast<uint32_t>(length < 0 ? static_cast<int64_t>(payload.size()) : length));
  out.insert(out.end(), payload.begin(), payload.end());
  return out;
}

Bytes TrapRecord(uint8_t type, const Bytes& payload, int64_t length) {
  Bytes out{type};
  PutLE32(out, static_cast<uint32_t>(length < 0 ? static_cast<int64_t>(payload.size()) : length));
  out.insert(out.end(), payload.begin(), payload.end());
  return out;
}

Bytes DiscardRecord(const std::vector<std::pair<uint8_t, uint32_t>>& entries, int64_t count) {
  Bytes out{1};
  PutLE32(out, static_cast<uint32_t>(count < 0 ? static_cast<int64_t>(entries.size()) : count));
  for (const auto& entry : entries) {
    out.push_back(entry.first);
    PutLE32(out, entry.second);
  }
  return out;
}

Bytes Concat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes& part : parts) out.insert(out.end(), part.begin(), part.end());
  return out;
}

}  // namespace tidewatch_test
