#include "emulator/trap_source.h"

#include <set>
#include <utility>

namespace hal_emulator {

TrapSource::TrapSource(const libtidewatch::FrameDecoder* layout, size_t payloadSize)
    : m_replay(false), m_synthetic(std::in_place, layout, payloadSize) {}

TrapSource::TrapSource(std::vector<ReplayRecord> records)
    : m_replay(true), m_records(std::move(records)) {}

bool TrapSource::Next(const DeliveringSession& session, std::vector<uint8_t>* out, uint8_t* type) {
  uint64_t& position = m_position[session.id];
  if (m_replay) {
    if (position >= m_records.size()) return false;
    const ReplayRecord& record = m_records[position++];
    out->insert(out->end(), record.bytes.begin(), record.bytes.end());
    *type = record.type;
    return true;
  }
  if (session.subscriptions.empty()) return false;
  const auto& subscription = session.subscriptions[position % session.subscriptions.size()];
  m_synthetic->Build(subscription.first, subscription.second, static_cast<uint32_t>(position),
                     &m_payload);
  ++position;
  *type = static_cast<uint8_t>(subscription.first);
  AppendTrapRecord(*type, m_payload.data(), m_payload.size(), out);
  return true;
}

void TrapSource::Retain(const std::vector<DeliveringSession>& receiving) {
  std::set<uint64_t> keep;
  for (const DeliveringSession& s : receiving) keep.insert(s.id);
  for (auto it = m_position.begin(); it != m_position.end();) {
    it = keep.count(it->first) != 0 ? std::next(it) : m_position.erase(it);
  }
}

}  // namespace hal_emulator
