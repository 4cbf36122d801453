#include "capture/pcapng_relay.h"

#include <algorithm>
#include <cstdint>

#include "libtidewatch/pcapng/pcapng_format.h"

namespace capture {
namespace {

namespace fmt = libtidewatch::pcapng;

// Larger than any block the writer makes (a trap is at most a few MiB).
constexpr uint32_t kMaxBlock = 64u << 20;

uint32_t Get32(const std::string& bytes, size_t at) {
  const auto* p = reinterpret_cast<const unsigned char*>(bytes.data() + at);
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
         static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

// The block types of the pcapng format; anything else means the bytes are not a block.
bool KnownType(uint32_t type) {
  return type == fmt::kSectionHeaderBlock || (type >= 1 && type <= 0xA) || type == 0xBAD ||
         type == 0x40000BAD;
}

}  // namespace

void PcapngRelay::ToText() {
  m_inText = true;
  m_text = m_pending.substr(0, kMaxText);
  m_pending.clear();
}

void PcapngRelay::End() {
  if (!m_inText && !m_pending.empty()) ToText();
}

void PcapngRelay::Feed(const char* data, size_t size, std::string* blocks) {
  if (m_inText) {
    m_text.append(data, std::min(size, kMaxText - std::min(kMaxText, m_text.size())));
    return;
  }
  m_pending.append(data, size);
  size_t at = 0;
  while (m_pending.size() - at >= 8) {
    const uint32_t type = Get32(m_pending, at);
    const uint32_t length = Get32(m_pending, at + 4);
    // A stream starts with a section header; every block is framed by its length twice.
    const bool first = !m_started && at == 0;
    if ((first && type != fmt::kSectionHeaderBlock) || !KnownType(type) || length < 12 ||
        length % 4 != 0 || length > kMaxBlock) {
      m_pending.erase(0, at);
      ToText();
      return;
    }
    if (m_pending.size() - at < length) break;
    if (Get32(m_pending, at + length - 4) != length ||
        (type == fmt::kSectionHeaderBlock && Get32(m_pending, at + 8) != fmt::kByteOrderMagic)) {
      m_pending.erase(0, at);
      ToText();
      return;
    }
    blocks->append(m_pending, at, length);
    m_started = true;
    at += length;
  }
  m_pending.erase(0, at);
  // A message shorter than a block header still must not wait for more bytes forever.
  if (!m_started && m_pending.size() >= 4 && Get32(m_pending, 0) != fmt::kSectionHeaderBlock) {
    ToText();
  }
}

}  // namespace capture
