#include "capture/report/html_text.h"

#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <ctime>

namespace capture {

namespace {

// The length of the valid UTF-8 sequence at the start of `s`, or 0 when it is not one.
size_t Utf8Length(std::string_view s) {
  auto cont = [&](size_t i) {
    return i < s.size() && (static_cast<unsigned char>(s[i]) & 0xC0) == 0x80;
  };
  unsigned char c = static_cast<unsigned char>(s[0]);
  if (c < 0x80) return 1;
  if (c >= 0xC2 && c <= 0xDF) return cont(1) ? 2 : 0;
  if (c >= 0xE0 && c <= 0xEF) {
    if (!cont(1) || !cont(2)) return 0;
    unsigned char c1 = static_cast<unsigned char>(s[1]);
    if ((c == 0xE0 && c1 < 0xA0) || (c == 0xED && c1 >= 0xA0)) return 0;  // overlong, surrogate
    return 3;
  }
  if (c >= 0xF0 && c <= 0xF4) {
    if (!cont(1) || !cont(2) || !cont(3)) return 0;
    unsigned char c1 = static_cast<unsigned char>(s[1]);
    if ((c == 0xF0 && c1 < 0x90) || (c == 0xF4 && c1 >= 0x90)) return 0;
    return 4;
  }
  return 0;
}

void SplitTime(int64_t timeUs, struct tm* tm, int64_t* micros) {
  int64_t secs = timeUs / 1000000;
  int64_t us = timeUs % 1000000;
  if (us < 0) {
    us += 1000000;
    --secs;
  }
  time_t t = static_cast<time_t>(secs);
  if (gmtime_r(&t, tm) == nullptr) *tm = {};
  *micros = us;
}

}  // namespace

void AppendEscaped(std::string_view text, std::string* out) {
  size_t i = 0;
  while (i < text.size()) {
    char c = text[i];
    switch (c) {
      case '&':
        out->append("&amp;");
        ++i;
        continue;
      case '<':
        out->append("&lt;");
        ++i;
        continue;
      case '>':
        out->append("&gt;");
        ++i;
        continue;
      case '"':
        out->append("&quot;");
        ++i;
        continue;
      case '\'':
        out->append("&#39;");
        ++i;
        continue;
      default:
        break;
    }
    unsigned char u = static_cast<unsigned char>(c);
    if (u < 0x20 || u == 0x7F) {
      char hex[8];
      snprintf(hex, sizeof(hex), "\\x%02X", u);
      out->append(hex);
      ++i;
      continue;
    }
    size_t n = Utf8Length(text.substr(i));
    if (n == 0) {
      out->append("\xEF\xBF\xBD");
      ++i;
    } else {
      out->append(text.substr(i, n));
      i += n;
    }
  }
}

std::string Escaped(std::string_view text) {
  std::string out;
  AppendEscaped(text, &out);
  return out;
}

std::string GroupedNumber(uint64_t n) {
  std::string digits = std::to_string(n);
  std::string out;
  for (size_t i = 0; i < digits.size(); ++i) {
    if (i > 0 && (digits.size() - i) % 3 == 0) out.push_back(',');
    out.push_back(digits[i]);
  }
  return out;
}

std::string ShortNumber(double v, int digits) {
  if (!std::isfinite(v)) return "-";
  double a = std::fabs(v);
  if (a < 1e15 && v == std::floor(v)) {
    std::string s = GroupedNumber(static_cast<uint64_t>(a));
    return v < 0 ? "\xE2\x88\x92" + s : s;  // a real minus sign
  }
  char buf[32];
  snprintf(buf, sizeof(buf), "%.*g", digits, v);
  std::string s = buf;
  if (!s.empty() && s[0] == '-') s = "\xE2\x88\x92" + s.substr(1);
  return s;
}

std::string UtcDateTime(int64_t timeUs) {
  struct tm tm;
  int64_t us;
  SplitTime(timeUs, &tm, &us);
  char buf[64];
  snprintf(buf, sizeof(buf), "%04d-%02d-%02d %02d:%02d:%02d.%06" PRId64 " UTC", tm.tm_year + 1900,
           tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, us);
  return buf;
}

std::string UtcTimeOfDay(int64_t timeUs) {
  struct tm tm;
  int64_t us;
  SplitTime(timeUs, &tm, &us);
  char buf[32];
  snprintf(buf, sizeof(buf), "%02d:%02d:%02d.%06" PRId64, tm.tm_hour, tm.tm_min, tm.tm_sec, us);
  return buf;
}

std::string Duration(int64_t us) {
  char buf[48];
  if (us < 0) us = 0;
  if (us < 1000) {
    snprintf(buf, sizeof(buf), "%" PRId64 " \xC2\xB5s", us);
  } else if (us < 1000000) {
    snprintf(buf, sizeof(buf), "%.3g ms", us / 1e3);
  } else if (us < 60000000) {
    snprintf(buf, sizeof(buf), "%.3g s", us / 1e6);
  } else {
    int64_t s = us / 1000000;
    if (s < 3600) {
      snprintf(buf, sizeof(buf), "%" PRId64 " min %" PRId64 " s", s / 60, s % 60);
    } else if (s < 86400) {
      snprintf(buf, sizeof(buf), "%" PRId64 " h %" PRId64 " min", s / 3600, s % 3600 / 60);
    } else {
      snprintf(buf, sizeof(buf), "%" PRId64 " d %" PRId64 " h", s / 86400, s % 86400 / 3600);
    }
  }
  return buf;
}

}  // namespace capture
