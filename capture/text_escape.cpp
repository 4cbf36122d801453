#include "capture/text_escape.h"

#include <cstdint>

namespace capture {
namespace {

constexpr char kHex[] = "0123456789abcdef";

// The length of the valid UTF-8 sequence at `i` that is safe to copy; 0 when the byte there must
// be escaped (a control, DEL, a C1 control encoded in UTF-8, or a byte that starts no valid
// sequence).
size_t SafeSequence(std::string_view s, size_t i) {
  const auto byte = [&](size_t k) { return static_cast<uint8_t>(s[k]); };
  const uint8_t c = byte(i);
  if (c >= 0x20 && c < 0x7f) return 1;
  if (c < 0xc2 || c > 0xf4) return 0;
  const size_t n = c < 0xe0 ? 2 : c < 0xf0 ? 3 : 4;
  if (i + n > s.size()) return 0;
  for (size_t k = 1; k < n; ++k) {
    if ((byte(i + k) & 0xc0) != 0x80) return 0;
  }
  if (c == 0xc2 && byte(i + 1) < 0xa0) return 0;   // U+0080 to U+009F: C1 controls
  if (c == 0xe0 && byte(i + 1) < 0xa0) return 0;   // overlong
  if (c == 0xed && byte(i + 1) >= 0xa0) return 0;  // surrogates
  if (c == 0xf0 && byte(i + 1) < 0x90) return 0;   // overlong
  if (c == 0xf4 && byte(i + 1) >= 0x90) return 0;  // beyond U+10FFFF
  return n;
}

template <class Escape>
void AppendWith(std::string* out, std::string_view text, Escape escape) {
  size_t i = 0;
  while (i < text.size()) {
    size_t run = i;
    size_t n;
    while (run < text.size() && (n = SafeSequence(text, run)) != 0) run += n;
    out->append(text.data() + i, run - i);
    if (run == text.size()) break;
    escape(static_cast<uint8_t>(text[run]));
    i = run + 1;
  }
}

}  // namespace

void AppendEscapedText(std::string* out, std::string_view text) {
  AppendWith(out, text, [out](uint8_t c) {
    const char esc[4] = {'\\', 'x', kHex[c >> 4], kHex[c & 15]};
    out->append(esc, 4);
  });
}

std::string EscapedText(std::string_view text) {
  std::string out;
  AppendEscapedText(&out, text);
  return out;
}

void AppendJsonString(std::string* out, std::string_view text) {
  out->push_back('"');
  size_t start = 0;
  // Quotes and backslashes are safe for a terminal but not for JSON: split the text at them.
  for (size_t i = 0; i <= text.size(); ++i) {
    if (i < text.size() && text[i] != '"' && text[i] != '\\') continue;
    AppendWith(out, text.substr(start, i - start), [out](uint8_t c) {
      const char esc[6] = {'\\', 'u', '0', '0', kHex[c >> 4], kHex[c & 15]};
      out->append(esc, 6);
    });
    if (i < text.size()) {
      out->push_back('\\');
      out->push_back(text[i]);
    }
    start = i + 1;
  }
  out->push_back('"');
}

}  // namespace capture
