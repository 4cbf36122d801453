#include "capture/capture_stats.h"

#include <algorithm>

namespace capture {
namespace {

bool Same(const MessageCount& m, libtidewatch::TRAP_TYPE type, bool hasId, uint64_t id) {
  return m.type == type && m.hasId == hasId && m.msgId == id;
}

}  // namespace

void CaptureStats::Count(const libtidewatch::CapturedTrap& trap) {
  const libtidewatch::DecodedTrap& d = trap.decoded;
  ++m_traps;
  m_bytes += d.payload.size;
  for (size_t t = 0; t < libtidewatch::TRAP_TYPE_NUM; ++t) m_dropped[t] += trap.discards[t];

  const bool hasId =
      (d.type == libtidewatch::TRAP_TYPE_OTA || d.type == libtidewatch::TRAP_TYPE_EM) &&
      d.msgId.present;
  const uint64_t id = hasId ? d.msgId.value : 0;
  if (m_last.entry == nullptr || !Same(*m_last.entry, d.type, hasId, id)) {
    std::vector<MessageCount>& slot = m_byKey[(id << 4) ^ d.type ^ (hasId ? 8u : 0u)];
    auto it = std::find_if(slot.begin(), slot.end(),
                           [&](const MessageCount& m) { return Same(m, d.type, hasId, id); });
    if (it == slot.end()) {
      MessageCount m;
      m.type = d.type;
      m.hasId = hasId;
      m.msgId = id;
      m.named = hasId && d.msgName.has_value();
      if (m.named) m.name = std::string(*d.msgName);
      slot.push_back(std::move(m));
      it = slot.end() - 1;
    }
    // Pointers into the slot stay valid until the next insertion, which resets m_last first.
    m_last.entry = &*it;
  }
  ++m_last.entry->traps;
  m_last.entry->bytes += d.payload.size;
}

uint64_t CaptureStats::droppedTotal() const {
  uint64_t total = 0;
  for (uint64_t n : m_dropped) total += n;
  return total;
}

std::vector<MessageCount> CaptureStats::Messages() const {
  std::vector<MessageCount> all;
  for (const auto& slot : m_byKey) all.insert(all.end(), slot.second.begin(), slot.second.end());
  std::sort(all.begin(), all.end(), [](const MessageCount& a, const MessageCount& b) {
    if (a.type != b.type) return a.type < b.type;
    if (a.hasId != b.hasId) return a.hasId;
    return a.msgId < b.msgId;
  });
  return all;
}

}  // namespace capture
