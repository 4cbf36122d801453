// The payloads of the emulator's synthetic traps, laid out as its layout file says: an OTA trap
// names its trace, SIM, message and PDU length and carries the air message; an EM trap carries its
// message id, SIM and every named field with values that change from trap to trap, and peers where
// the message has them. A sequence number lets a reader see gaps: it sits in the first four bytes
// the message's layout leaves free.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string_view>
#include <utility>
#include <vector>

#include "libtidewatch/api/monitor_types.h"
#include "libtidewatch/trap/frame_decoder.h"

namespace hal_emulator {

class SyntheticTraps {
 public:
  // `layout` must outlive this object. Payloads are `trapSize` bytes, padded with zeros after what
  // the layout places, and longer only where the layout needs more room.
  SyntheticTraps(const libtidewatch::FrameDecoder* layout, size_t trapSize);

  // The payload of the `sequence`-th trap (from 0) that a session gets for its subscription to
  // message `msgId` of `type`, in `payload` (replaced).
  void Build(libtidewatch::TRAP_TYPE type, uint64_t msgId, uint32_t sequence,
             std::vector<uint8_t>* payload);

  // Where the sequence number of a trap of (type, msgId) goes when the layout leaves no four free
  // bytes: right after the PDU or the peers, which end the trap.
  static constexpr uint64_t kAfterContent = ~uint64_t{0};

 private:
  struct Slot {
    uint64_t offset = 0;
    uint64_t size = 0;  // 0: not placed
  };
  enum class Kind {
    kRsrp,
    kRsrq,
    kSinr,
    kCounter,
    kPeriod,
    kPci,
    kEarfcn,
    kNrArfcn,
    kCount,
    kState,
    kOther
  };
  struct Field {
    Slot slot;
    Kind kind = Kind::kOther;
    uint64_t salt = 0;  // keeps fields of one kind apart
  };
  struct Plan {
    Slot id;
    uint64_t idValue = 0;
    Slot sim;
    std::vector<uint8_t> sims;  // SIM indexes the message is sent on
    std::vector<Field> fields;
    // OTA with a trace: the PDU at `openStart`, its length in `pduLength`.
    bool hasPdu = false;
    Slot globalId;
    Slot pduLength;
    std::string_view messageName;
    // EM with peers: the count, and the peers (after a header) from `openStart`.
    bool hasPeers = false;
    Slot peerCount;
    uint64_t openBegin = 0;  // where the part that runs to the end of the trap begins
    uint64_t openStart = 0;
    uint64_t fixedEnd = 0;  // the end of everything the layout places before the open part
    uint64_t sequence = 0;  // offset of the sequence number, or kAfterContent
  };

  // A number's place, when it can be written: 1 to 8 bytes wide, inside the largest payload.
  static Slot Place(bool loaded, uint64_t offset, uint64_t size);
  Plan MakeOtaPlan(uint64_t msgId) const;
  Plan MakeEmPlan(uint64_t msgId) const;
  static Kind KindOf(std::string_view name);
  static uint64_t ValueOf(const Field& field, uint32_t sequence, size_t peers);
  // Finalises the plan: the sequence number's place and the fixed part's end. `closed` are the
  // ranges the message's fields take.
  static void Settle(const std::vector<Slot>& closed, bool open, Plan* plan);
  const Plan& PlanFor(libtidewatch::TRAP_TYPE type, uint64_t msgId);

  const libtidewatch::FrameDecoder* m_layout;
  size_t m_trapSize;
  std::map<std::pair<uint16_t, uint64_t>, Plan> m_plans;  // made on first use
};

}  // namespace hal_emulator
