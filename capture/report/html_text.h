// Text for the report page: escaping what a capture says (names can hold anything, markup
// included), and the number, time and duration formats the page uses throughout.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace capture {

// Appends `text` escaped for HTML text and attribute values. Bytes that are not valid UTF-8 become
// U+FFFD, and control characters a visible \xNN, so that no capture can change the page's markup.
void AppendEscaped(std::string_view text, std::string* out);
std::string Escaped(std::string_view text);

// 1234567 -> "1,234,567".
std::string GroupedNumber(uint64_t n);
// A value for an axis or a table: grouped integers, else up to `digits` significant digits.
std::string ShortNumber(double v, int digits = 3);
// "2026-11-23 01:02:03.123456 UTC".
std::string UtcDateTime(int64_t timeUs);
// "01:02:03.123456" (UTC).
std::string UtcTimeOfDay(int64_t timeUs);
// "850 ms", "12.4 s", "20 min 3 s", "2 h 5 min", "3 d 4 h".
std::string Duration(int64_t us);

}  // namespace capture
