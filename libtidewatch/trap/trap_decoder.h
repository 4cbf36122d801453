// Reads one trap's payload through a loaded layout: which message it is, on which SIM, with which
// field values, and where the air message (OTA) or the peer list (EM) sits inside it.
//
// The result is a view: names point into the layout decoder, byte ranges into the payload that was
// decoded. It stays valid while both live, and is meant to be printed or serialised right away.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "libtidewatch/api/monitor_types.h"

namespace libtidewatch {

class FrameDecoder;

// A number read from the payload; absent when the layout does not place it, or places it past the
// payload's end, or gives it a width of 0 or more than 8 bytes.
struct TrapNumber {
  uint64_t value = 0;
  bool present = false;
};

struct TrapBytes {
  const uint8_t* data = nullptr;
  size_t size = 0;
};

struct DecodedField {
  std::string_view name;
  uint64_t value = 0;
};

struct DecodedTrap {
  TRAP_TYPE type = TRAP_TYPE_NONE;
  TrapBytes payload;  // the whole payload as it arrived

  // OTA and EM.
  TrapNumber sim;
  TrapNumber msgId;  // OTA: the trace's GLOBAL_ID field; EM: the message id
  std::optional<std::string_view> msgName;

  // OTA only.
  TrapNumber traceId;
  std::optional<std::string_view> traceName;
  TrapNumber pduLength;  // as the trace's PDU_LENGTH field says
  TrapBytes pdu;         // from OTA_MSG_OFFSET, pduLength bytes, clipped to the payload
  bool pduPresent = false;
  bool pduTruncated = false;  // the payload ended before pduLength bytes

  // EM only: the message's named fields that could be read, in the layout file's order.
  std::vector<DecodedField> fields;
  TrapNumber peerCount;
  TrapBytes peers;  // from the peer offset (after the peer header) to the end of the payload
  bool peersPresent = false;

  // Empties the view but keeps the field vector's room, so that decoding into the same value again
  // allocates nothing.
  void Clear();
};

// Decodes traps by one layout. Build it once per layout (it indexes the layout for fast lookups);
// Decode is then const and may be called from several threads at once.
class TrapDecoder {
 public:
  // `layout` must be loaded and outlive the decoder.
  explicit TrapDecoder(const FrameDecoder& layout);

  // Decodes `length` bytes of payload of a trap of `type` into `out`. Never reads outside
  // [payload, payload + length), whatever the payload or the layout says.
  void Decode(TRAP_TYPE type, const uint8_t* payload, size_t length, DecodedTrap* out) const;

 private:
  // Where a number sits. A width of 0 marks a number the layout does not place or gives a width
  // that cannot be read (0, or more than 8 bytes): it is never read.
  struct Slot {
    uint64_t offset = 0;
    uint64_t size = 0;
  };
  struct NamedSlot {
    std::string_view name;
    Slot slot;
  };
  struct Trace {
    std::string_view name;
    Slot globalId;
    Slot pduLength;
    uint64_t msgOffset = 0;
  };
  struct Message {
    std::string_view name;
    uint32_t firstField = 0;  // into m_fields
    uint32_t fieldCount = 0;
    bool hasPeers = false;
    uint64_t peerStart = 0;  // peer offset plus the peer header, when the message has one
  };
  // Ids sorted, values beside them: one binary search over a contiguous array per lookup, where
  // the layout decoder's trees would chase a pointer per level.
  template <typename Value>
  struct Index {
    std::vector<uint64_t> ids;
    std::vector<Value> values;
    const Value* Find(uint64_t id) const;
  };

  static Slot SlotOf(bool loaded, uint64_t offset, uint64_t size);
  static TrapNumber Read(const Slot& slot, const uint8_t* payload, size_t length);
  void DecodeOta(const uint8_t* payload, size_t length, DecodedTrap* out) const;
  void DecodeEm(const uint8_t* payload, size_t length, DecodedTrap* out) const;

  Slot m_traceId;
  Slot m_otaSim;
  Slot m_msgId;
  Slot m_msgSim;
  Slot m_peerCount;
  Index<Trace> m_traces;
  Index<std::string_view> m_globalIds;
  Index<Message> m_messages;
  std::vector<NamedSlot> m_fields;  // every message's fields, each message's in file order
};

}  // namespace libtidewatch
