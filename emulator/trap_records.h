// Raw trap data as the service sends it inside an MCP trap packet: records of a type byte, a
// little-endian u32 length and the payload, optionally closed by a discard-info record
//
//   +------+--------------+-------------------------------------+
//   | 0x01 | count (u32)  | count x { type (1), dropped (u32) } |
//   +------+--------------+-------------------------------------+
//
// and the reading of a replay file, which is a plain sequence of trap records.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "libtidewatch/api/monitor_types.h"

namespace hal_emulator {

constexpr size_t kTrapRecordHeaderSize = 5;
constexpr size_t kDiscardEntrySize = 5;
// The largest discard-info record: one entry per trap type value.
constexpr size_t kMaxDiscardRecordSize =
    kTrapRecordHeaderSize + libtidewatch::TRAP_TYPE_NUM * kDiscardEntrySize;

// Appends one trap record.
void AppendTrapRecord(uint8_t type, const uint8_t* payload, size_t len, std::vector<uint8_t>* out);

// The synthetic payload of one trap: the message id (u64 LE), then the sequence number (u32 LE)
// as far as it fits, then a byte pattern, `size` bytes in all (at least the 8 of the id).
std::vector<uint8_t> SyntheticTrapPayload(uint64_t msgId, uint32_t sequence, size_t size);

// Traps dropped for one destination since its last successful delivery, per trap type value.
class DiscardCounter {
 public:
  void Count(uint8_t type);  // values of 9 and above cannot be reported and are not counted
  bool Empty() const;
  // Appends the discard-info record of the non-zero counts (nothing when all are zero).
  void AppendRecord(std::vector<uint8_t>* out) const;
  void Reset() { m_counts.fill(0); }
  uint32_t Get(uint8_t type) const {
    return type < libtidewatch::TRAP_TYPE_NUM ? m_counts[type] : 0;
  }

 private:
  std::array<uint32_t, libtidewatch::TRAP_TYPE_NUM> m_counts{};
};

// One record read from a replay file, kept whole (header included).
struct ReplayRecord {
  uint8_t type = 0;
  std::vector<uint8_t> bytes;
};

// Splits `data` into records. False, with a reason in `error`, when the last record is cut short
// or a record is larger than `maxRecord` bytes.
bool ParseTrapRecords(const uint8_t* data, size_t len, size_t maxRecord,
                      std::vector<ReplayRecord>* records, std::string* error);
// Reads and splits the file at `path` (at most 64 MiB).
bool LoadTrapReplay(const std::string& path, size_t maxRecord, std::vector<ReplayRecord>* records,
                    std::string* error);

}  // namespace hal_emulator
