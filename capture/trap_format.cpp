#include "capture/trap_format.h"

#include <time.h>

#include <charconv>
#include <cstdio>

namespace capture {
namespace {

// Splits microseconds since the epoch into whole seconds and the microseconds of that second,
// rounding towards the past also before 1970.
void Split(int64_t timeUs, int64_t* second, int* micros) {
  *second = timeUs / 1000000;
  int64_t rest = timeUs % 1000000;
  if (rest < 0) {
    rest += 1000000;
    --*second;
  }
  *micros = static_cast<int>(rest);
}

void AppendMicros(std::string* out, int micros) {
  char digits[7];
  for (int i = 5; i >= 0; --i) {
    digits[i] = static_cast<char>('0' + micros % 10);
    micros /= 10;
  }
  digits[6] = '\0';
  out->push_back('.');
  out->append(digits, 6);
}

}  // namespace

void AppendUnsigned(std::string* out, uint64_t value) {
  char digits[24];
  const auto result = std::to_chars(digits, digits + sizeof(digits), value);
  out->append(digits, static_cast<size_t>(result.ptr - digits));
}

void AppendHex(std::string* out, const uint8_t* data, size_t size) {
  static constexpr char kHex[] = "0123456789abcdef";
  const size_t at = out->size();
  out->resize(at + 2 * size);
  char* p = &(*out)[at];
  for (size_t i = 0; i < size; ++i) {
    *p++ = kHex[data[i] >> 4];
    *p++ = kHex[data[i] & 15];
  }
}

void TimeFormatter::AppendLocal(std::string* out, int64_t timeUs) {
  int64_t second;
  int micros;
  Split(timeUs, &second, &micros);
  if (second != m_localSecond) {
    const time_t t = static_cast<time_t>(second);
    struct tm tm = {};
    localtime_r(&t, &tm);
    snprintf(m_local, sizeof(m_local), "%02d:%02d:%02d", tm.tm_hour, tm.tm_min, tm.tm_sec);
    m_localSecond = second;
  }
  out->append(m_local);
  AppendMicros(out, micros);
}

void TimeFormatter::AppendUtc(std::string* out, int64_t timeUs) {
  int64_t second;
  int micros;
  Split(timeUs, &second, &micros);
  if (second != m_utcSecond) {
    const time_t t = static_cast<time_t>(second);
    struct tm tm = {};
    gmtime_r(&t, &tm);
    snprintf(m_utc, sizeof(m_utc), "%04d-%02d-%02dT%02d:%02d:%02d", tm.tm_year + 1900,
             tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
    m_utcSecond = second;
  }
  out->append(m_utc);
  AppendMicros(out, micros);
  out->push_back('Z');
}

}  // namespace capture
