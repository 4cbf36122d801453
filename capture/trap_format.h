// Small formatting pieces shared by the trap printers: numbers, hex, and receive times in local
// time (text) or RFC 3339 UTC (JSON), each appended to a string without allocating per call.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace capture {

void AppendUnsigned(std::string* out, uint64_t value);
void AppendHex(std::string* out, const uint8_t* data, size_t size);

// Formats times of one second or of nearby seconds cheaply: the date and clock part is kept from
// the previous call with the same second.
class TimeFormatter {
 public:
  // "HH:MM:SS.uuuuuu" in local time.
  void AppendLocal(std::string* out, int64_t timeUs);
  // "YYYY-MM-DDTHH:MM:SSZ" with ".uuuuuu" before the Z: 2026-11-22T20:24:01.123456Z.
  void AppendUtc(std::string* out, int64_t timeUs);

 private:
  int64_t m_localSecond = INT64_MIN;
  char m_local[48] = {};
  int64_t m_utcSecond = INT64_MIN;
  char m_utc[80] = {};
};

}  // namespace capture
