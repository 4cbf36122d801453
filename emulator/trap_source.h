// Decides what each receiving session gets next: a synthetic trap that cycles over the session's
// subscriptions, or the next record of a replay file. Used by the trap thread only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "emulator/session_table.h"
#include "emulator/synthetic_traps.h"
#include "emulator/trap_records.h"

namespace hal_emulator {

class TrapSource {
 public:
  // Synthetic traps laid out by `layout` (which must outlive the source), of `payloadSize` bytes
  // where the layout leaves room.
  TrapSource(const libtidewatch::FrameDecoder* layout, size_t payloadSize);
  // Replays `records` to every session, from the first record each time the session starts
  // receiving, and once: a session that has had them all gets nothing more.
  explicit TrapSource(std::vector<ReplayRecord> records);

  // Appends the session's next trap record to `out` and gives its type byte; false when the
  // session has nothing more to receive.
  bool Next(const DeliveringSession& session, std::vector<uint8_t>* out, uint8_t* type);

  // Forgets the position of every session not in `receiving`.
  void Retain(const std::vector<DeliveringSession>& receiving);

 private:
  bool m_replay;
  std::optional<SyntheticTraps> m_synthetic;
  std::vector<uint8_t> m_payload;  // reused for every synthetic trap
  std::vector<ReplayRecord> m_records;
  std::map<uint64_t, uint64_t> m_position;  // session id -> traps sent so far
};

}  // namespace hal_emulator
