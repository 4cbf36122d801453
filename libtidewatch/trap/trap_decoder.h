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
};

}  // namespace libtidewatch
