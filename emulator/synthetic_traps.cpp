#include "emulator/synthetic_traps.h"

#include <algorithm>
#include <string_view>

#include "emulator/air_message.h"
#include "emulator/emulator_options.h"
#include "emulator/trap_records.h"
#include "libtidewatch/trap/frame_decoder.h"

namespace hal_emulator {
namespace {

using libtidewatch::FrameDecoder;
using libtidewatch::TRAP_TYPE;

constexpr uint64_t kSequenceSize = 4;
// A peer as the emulator sends it: PCI (u16), RSRP and RSRQ report indexes (u8 each).
constexpr uint64_t kPeerSize = 4;
constexpr std::string_view kTracePrefix = "OTA_TRACE_";

bool Has(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

uint64_t Hash(std::string_view text) {
  uint64_t h = 1469598103934665603ull;
  for (char c : text) h = (h ^ static_cast<uint8_t>(c)) * 1099511628211ull;
  return h;
}

// A value that wanders around `center`, at most `amplitude` away: points drawn every eight traps,
// joined by straight lines, as a measurement drifts while a phone moves.
uint64_t Wander(uint64_t salt, uint32_t t, int64_t center, int64_t amplitude) {
  auto point = [&](uint64_t k) {
    uint64_t x = (k + salt) * 0xBF58476D1CE4E5B9ull;
    x ^= x >> 31;
    return static_cast<int64_t>(x % static_cast<uint64_t>(2 * amplitude + 1)) - amplitude;
  };
  const int64_t a = point(t / 8);
  const int64_t b = point(t / 8 + 1);
  return static_cast<uint64_t>(center + a + (b - a) * static_cast<int64_t>(t % 8) / 8);
}

// Writes the low `size` bytes of `value` at `offset`, as far as the payload reaches.
void Put(std::vector<uint8_t>* payload, uint64_t offset, uint64_t size, uint64_t value) {
  for (uint64_t i = 0; i < size && offset + i < payload->size(); ++i) {
    (*payload)[offset + i] = static_cast<uint8_t>(value >> (8 * i));
  }
}

}  // namespace

SyntheticTraps::SyntheticTraps(const FrameDecoder* layout, size_t trapSize)
    : m_layout(layout), m_trapSize(trapSize) {}

SyntheticTraps::Slot SyntheticTraps::Place(bool loaded, uint64_t offset, uint64_t size) {
  Slot slot;
  if (loaded && size >= 1 && size <= 8 && offset <= kMaxTrapSize - size) slot = {offset, size};
  return slot;
}

SyntheticTraps::Kind SyntheticTraps::KindOf(std::string_view name) {
  if (Has(name, "RSRP")) return Kind::kRsrp;
  if (Has(name, "RSRQ")) return Kind::kRsrq;
  if (Has(name, "SINR")) return Kind::kSinr;
  if (Has(name, "BYTES") || Has(name, "PDU") || Has(name, "RETX") || Has(name, "POLL") ||
      Has(name, "DISCARDED")) {
    return Kind::kCounter;
  }
  if (Has(name, "PERIOD")) return Kind::kPeriod;
  if (Has(name, "PCI")) return Kind::kPci;
  if (Has(name, "EARFCN")) return Kind::kEarfcn;
  if (Has(name, "ARFCN")) return Kind::kNrArfcn;
  if (Has(name, "COUNT")) return Kind::kCount;
  if (Has(name, "STATE") || Has(name, "CAUSE") || Has(name, "RESULT") || Has(name, "EVENT")) {
    return Kind::kState;
  }
  return Kind::kOther;
}

uint64_t SyntheticTraps::ValueOf(const Field& field, uint32_t sequence, size_t peers) {
  switch (field.kind) {
    case Kind::kRsrp:  // report index: dBm + 140, around -90 dBm
      return Wander(field.salt, sequence, 50, 15);
    case Kind::kRsrq:  // report index, around -10 dB
      return Wander(field.salt, sequence, 20, 6);
    case Kind::kSinr:
      return Wander(field.salt, sequence, 20, 10);
    case Kind::kCounter:  // totals since attach: they only grow (and wrap at the field's width)
      return (uint64_t{sequence} + 1) * (1000 + field.salt % 150000);
    case Kind::kPeriod:
      return 1000;
    case Kind::kPci:
      return 301 + field.salt % 8;
    case Kind::kEarfcn:
      return 1850;
    case Kind::kNrArfcn:
      return 627264;
    case Kind::kCount:
      return peers != 0 ? peers : 1 + (sequence / 16) % 3;
    case Kind::kState:
      return (sequence / 16 + field.salt) % 4;
    case Kind::kOther:
      break;
  }
  return Wander(field.salt, sequence, 20, 10);
}

void SyntheticTraps::Settle(const std::vector<Slot>& closed, bool open, Plan* plan) {
  const uint64_t limit = open ? plan->openBegin : kMaxTrapSize;
  std::vector<uint64_t> candidates{0};
  for (const Slot& r : closed) {
    plan->fixedEnd = std::max(plan->fixedEnd, r.offset + r.size);
    candidates.push_back(r.offset + r.size);
  }
  std::sort(candidates.begin(), candidates.end());
  plan->sequence = kAfterContent;
  for (uint64_t at : candidates) {
    if (at > limit || limit - at < kSequenceSize) break;
    bool taken = std::any_of(closed.begin(), closed.end(), [&](const Slot& r) {
      return r.size != 0 && r.offset < at + kSequenceSize && at < r.offset + r.size;
    });
    if (!taken) {
      plan->sequence = at;
      plan->fixedEnd = std::max(plan->fixedEnd, at + kSequenceSize);
      return;
    }
  }
}

SyntheticTraps::Plan SyntheticTraps::MakeOtaPlan(uint64_t msgId) const {
  const FrameDecoder& d = *m_layout;
  Plan plan;
  plan.sims = {0};
  plan.id = Place(d.m_otaTraceID.loaded, d.m_otaTraceID.offset, d.m_otaTraceID.size);
  plan.idValue = msgId;
  plan.sim = Place(d.m_otaSIMIdx.loaded, d.m_otaSIMIdx.offset, d.m_otaSIMIdx.size);
  // Unknown ids keep their own value in the trace id, the one id an OTA trap has outside a trace.
  std::vector<Slot> closed{plan.id, plan.sim};
  auto global = d.m_globalIDs.find(msgId);
  const FrameDecoder::FIELD_TRACE* trace = nullptr;
  size_t best = 0;
  if (global != d.m_globalIDs.end()) {
    const std::string_view name = global->second.name;
    for (const auto& [traceId, t] : d.m_otaTraces) {
      std::string_view stem = t.name;
      if (stem.substr(0, kTracePrefix.size()) != kTracePrefix) continue;
      stem.remove_prefix(kTracePrefix.size());
      if (!stem.empty() && stem.size() > best && name.substr(0, stem.size()) == stem) {
        best = stem.size();
        trace = &t;
        plan.idValue = traceId;
      }
    }
    plan.messageName = name;
  }
  if (trace == nullptr || trace->msgOffset >= kMaxTrapSize) {
    plan.idValue = msgId;
    Settle(closed, false, &plan);
    return plan;
  }
  for (const auto& [name, f] : trace->fields) {
    Slot slot = Place(true, f.offset, f.size);
    if (name == "GLOBAL_ID") plan.globalId = slot;
    if (name == "PDU_LENGTH") plan.pduLength = slot;
    closed.push_back(slot);
  }
  plan.hasPdu = true;
  plan.openBegin = plan.openStart = trace->msgOffset;
  Settle(closed, true, &plan);
  return plan;
}

SyntheticTraps::Plan SyntheticTraps::MakeEmPlan(uint64_t msgId) const {
  const FrameDecoder& d = *m_layout;
  Plan plan;
  plan.id = Place(d.m_msgID.loaded, d.m_msgID.offset, d.m_msgID.size);
  plan.idValue = msgId;
  plan.sim = Place(d.m_msgSIMIdx.loaded, d.m_msgSIMIdx.offset, d.m_msgSIMIdx.size);
  // SIM 1 always; SIM 2 to 4 for the messages their sections list. The index is the number - 1.
  plan.sims = {0};
  for (size_t n = 2; n < d.m_simMsgSets.size() && n <= 4; ++n) {
    if (d.m_simMsgSets[n].count(msgId) != 0) plan.sims.push_back(static_cast<uint8_t>(n - 1));
  }
  std::vector<Slot> closed{plan.id, plan.sim};
  auto msg = d.m_msgs.find(msgId);
  if (msg == d.m_msgs.end()) {
    Settle(closed, false, &plan);
    return plan;
  }
  std::vector<std::pair<uint32_t, Field>> fields;
  for (const auto& [name, f] : msg->second.fields) {
    Field field{Place(true, f.offset, f.size), KindOf(name), Hash(name)};
    closed.push_back(field.slot);
    if (field.slot.size != 0) fields.emplace_back(f.order, field);
  }
  std::sort(fields.begin(), fields.end(),
            [](const auto& a, const auto& b) { return a.first < b.first; });
  for (const auto& entry : fields) plan.fields.push_back(entry.second);
  const int32_t peerOffset = msg->second.peerOffset;
  const uint64_t header =
      msg->second.peerHeader && d.m_peerHeaderSize.set ? d.m_peerHeaderSize.value : 0;
  if (peerOffset > 0 && header < kMaxTrapSize && uint64_t(peerOffset) < kMaxTrapSize - header) {
    plan.hasPeers = true;
    plan.peerCount = Place(d.m_peerSize.loaded, d.m_peerSize.offset, d.m_peerSize.size);
    closed.push_back(plan.peerCount);
    plan.openBegin = static_cast<uint64_t>(peerOffset);
    plan.openStart = plan.openBegin + header;
  }
  Settle(closed, plan.hasPeers, &plan);
  return plan;
}

const SyntheticTraps::Plan& SyntheticTraps::PlanFor(TRAP_TYPE type, uint64_t msgId) {
  auto key = std::make_pair(static_cast<uint16_t>(type), msgId);
  auto it = m_plans.find(key);
  if (it == m_plans.end()) {
    it = m_plans
             .emplace(key,
                      type == libtidewatch::TRAP_TYPE_OTA ? MakeOtaPlan(msgId) : MakeEmPlan(msgId))
             .first;
  }
  return it->second;
}

void SyntheticTraps::Build(TRAP_TYPE type, uint64_t msgId, uint32_t sequence,
                           std::vector<uint8_t>* payload) {
  if (type != libtidewatch::TRAP_TYPE_OTA && type != libtidewatch::TRAP_TYPE_EM) {
    // The layout describes OTA and EM traps only.
    *payload = SyntheticTrapPayload(msgId, sequence, m_trapSize);
    return;
  }
  const Plan& plan = PlanFor(type, msgId);
  // The part that runs to the end of the trap: the air message, or a peer header and peers.
  std::vector<uint8_t> open;
  size_t peers = 0;
  if (plan.hasPdu) {
    AppendAirMessage(plan.messageName, sequence, &open);
  } else if (plan.hasPeers) {
    peers = 2 + (sequence / 32) % 3;
    open.assign(plan.openStart - plan.openBegin + peers * kPeerSize, 0);
    for (size_t i = 0; i < peers; ++i) {
      uint8_t* peer = open.data() + (plan.openStart - plan.openBegin) + i * kPeerSize;
      const uint64_t pci = 302 + i;
      peer[0] = static_cast<uint8_t>(pci);
      peer[1] = static_cast<uint8_t>(pci >> 8);
      peer[2] = static_cast<uint8_t>(Wander(pci, sequence, 45 - 3 * int64_t(i), 10));
      peer[3] = static_cast<uint8_t>(Wander(pci + 7, sequence, 14, 4));
    }
  }
  uint64_t end = plan.fixedEnd;
  if (plan.hasPdu || plan.hasPeers) {
    end = std::max<uint64_t>(
        end, plan.openBegin + std::min<uint64_t>(open.size(), kMaxTrapSize - plan.openBegin));
  }
  uint64_t sequenceAt = plan.sequence;
  if (sequenceAt == kAfterContent) {
    sequenceAt = end;
    end += kSequenceSize;
  }
  payload->assign(std::min<uint64_t>(std::max<uint64_t>(end, m_trapSize), kMaxTrapSize), 0);

  if (plan.hasPdu || plan.hasPeers) {
    const uint64_t fits = std::min<uint64_t>(open.size(), payload->size() - plan.openBegin);
    std::copy(open.begin(), open.begin() + fits, payload->begin() + plan.openBegin);
    // The length never claims more PDU bytes than the trap carries.
    if (plan.hasPdu) Put(payload, plan.pduLength.offset, plan.pduLength.size, fits);
  }
  for (const Field& field : plan.fields) {
    Put(payload, field.slot.offset, field.slot.size, ValueOf(field, sequence, peers));
  }
  if (plan.hasPeers) Put(payload, plan.peerCount.offset, plan.peerCount.size, peers);
  if (plan.hasPdu) Put(payload, plan.globalId.offset, plan.globalId.size, msgId);
  const uint8_t sim = plan.sims[(sequence / 16) % plan.sims.size()];
  Put(payload, plan.sim.offset, plan.sim.size, sim);
  Put(payload, plan.id.offset, plan.id.size, plan.idValue);
  Put(payload, sequenceAt, kSequenceSize, sequence);
}

}  // namespace hal_emulator
