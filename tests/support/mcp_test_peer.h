// Helpers for tests of the receiving side: a peer that connects to an abstract-namespace socket and
// writes MCP packets and trap records in their wire form, and a capture of the library's log.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "libtidewatch/transport/mcp_info.h"

namespace tidewatch_test {

using Bytes = std::vector<uint8_t>;

// A name unique to the running test and process, for sockets that must not meet another test's.
std::string UniqueSocketName(const char* suffix = "");

// A blocking stream socket connected to abstract `name`; -1 when nobody listens there.
int ConnectAbstractName(const std::string& name);

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
// A discard-info record listing {trap type, dropped count} pairs.
Bytes DiscardRecord(const std::vector<std::pair<uint8_t, uint32_t>>& entries);

Bytes Concat(std::initializer_list<Bytes> parts);

// Captures every library log line that passes the threshold while it lives; restores the default
// output and the error threshold when it goes. Only one may live at a time.
class LogCapture {
 public:
  explicit LogCapture(int threshold);
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // Lines are "<priority> <text>", for example "3 MCPReceiver in".
  std::vector<std::string> Lines() const;
  bool Contains(const std::string& line) const;
  // Waits (up to a generous guard time) until some line contains `text`.
  bool WaitForText(const std::string& text) const;

 private:
  static void Sink(int priority, const char* tag, const char* text);
};

}  // namespace tidewatch_test
