#include "libtidewatch/trap/trap_decoder.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <string_view>

#include "libtidewatch/trap/frame_decoder.h"

namespace libtidewatch {
namespace {

constexpr std::string_view kGlobalIdField = "GLOBAL_ID";
constexpr std::string_view kPduLengthField = "PDU_LENGTH";

// The layout's fields of one record in the order the file gave them (the maps are ordered by name).
std::vector<std::pair<std::string_view, const FrameDecoder::FIELD_INFO*>> InFileOrder(
    const FrameDecoder::FieldMap& fields) {
  std::vector<std::pair<std::string_view, const FrameDecoder::FIELD_INFO*>> sorted;
  sorted.reserve(fields.size());
  for (const auto& [name, info] : fields) sorted.emplace_back(name, &info);
  std::sort(sorted.begin(), sorted.end(),
            [](const auto& a, const auto& b) { return a.second->order < b.second->order; });
  return sorted;
}

uint64_t SaturatingAdd(uint64_t a, uint64_t b) {
  return b > std::numeric_limits<uint64_t>::max() - a ? std::numeric_limits<uint64_t>::max()
                                                      : a + b;
}

}  // namespace

void DecodedTrap::Clear() {
  std::vector<DecodedField> keep = std::move(fields);
  keep.clear();
  *this = DecodedTrap();
  fields = std::move(keep);
}

template <typename Value>
const Value* TrapDecoder::Index<Value>::Find(uint64_t id) const {
  auto it = std::lower_bound(ids.begin(), ids.end(), id);
  if (it == ids.end() || *it != id) return nullptr;
  return &values[static_cast<size_t>(it - ids.begin())];
}

TrapDecoder::Slot TrapDecoder::SlotOf(bool loaded, uint64_t offset, uint64_t size) {
  Slot slot;
  if (loaded && size >= 1 && size <= 8) slot = {offset, size};
  return slot;
}

TrapDecoder::TrapDecoder(const FrameDecoder& layout) {
  auto top = [](const FrameDecoder::FIELD_INFO& f) { return SlotOf(f.loaded, f.offset, f.size); };
  m_traceId = top(layout.m_otaTraceID);
  m_otaSim = top(layout.m_otaSIMIdx);
  m_msgId = top(layout.m_msgID);
  m_msgSim = top(layout.m_msgSIMIdx);
  m_peerCount = top(layout.m_peerSize);

  // The maps are ordered by id, so each index comes out sorted.
  for (const auto& [id, trace] : layout.m_otaTraces) {
    Trace t;
    t.name = trace.name;
    t.msgOffset = trace.msgOffset;
    // A trace's fields are written by the collectors with their size, so they count as placed.
    auto global = trace.fields.find(kGlobalIdField);
    if (global != trace.fields.end())
      t.globalId = SlotOf(true, global->second.offset, global->second.size);
    auto pdu = trace.fields.find(kPduLengthField);
    if (pdu != trace.fields.end()) t.pduLength = SlotOf(true, pdu->second.offset, pdu->second.size);
    m_traces.ids.push_back(id);
    m_traces.values.push_back(t);
  }
  for (const auto& [id, ota] : layout.m_globalIDs) {
    m_globalIds.ids.push_back(id);
    m_globalIds.values.push_back(ota.name);
  }
  const uint64_t header = layout.m_peerHeaderSize.set ? layout.m_peerHeaderSize.value : 0;
  for (const auto& [id, msg] : layout.m_msgs) {
    Message m;
    m.name = msg.name;
    m.firstField = static_cast<uint32_t>(m_fields.size());
    for (const auto& [name, info] : InFileOrder(msg.fields)) {
      // A field that can never be read is left out here rather than tested on every trap.
      Slot slot = SlotOf(true, info->offset, info->size);
      if (slot.size != 0) m_fields.push_back({name, slot});
    }
    m.fieldCount = static_cast<uint32_t>(m_fields.size() - m.firstField);
    // An offset of 0 is what a message without a PEER_OFFSET line has; a negative one points
    // nowhere. Neither has peers.
    if (msg.peerOffset > 0) {
      m.hasPeers = true;
      m.peerStart =
          SaturatingAdd(static_cast<uint64_t>(msg.peerOffset), msg.peerHeader ? header : 0);
    }
    m_messages.ids.push_back(id);
    m_messages.values.push_back(m);
  }
}

TrapNumber TrapDecoder::Read(const Slot& slot, const uint8_t* payload, size_t length) {
  TrapNumber n;
  if (slot.size == 0 || slot.offset > length || slot.size > length - slot.offset) return n;
  const uint8_t* p = payload + slot.offset;
  uint64_t v = 0;
  if (length - slot.offset >= 8) {
    // One unaligned load where eight bytes are there to read, then only the field's bytes kept.
    memcpy(&v, p, 8);
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    v = __builtin_bswap64(v);
#endif
    if (slot.size < 8) v &= (uint64_t{1} << (8 * slot.size)) - 1;
  } else {
    for (uint64_t i = 0; i < slot.size; ++i) v |= static_cast<uint64_t>(p[i]) << (8 * i);
  }
  n.value = v;
  n.present = true;
  return n;
}

void TrapDecoder::Decode(TRAP_TYPE type, const uint8_t* payload, size_t length,
                         DecodedTrap* out) const {
  out->Clear();
  out->type = type;
  if (payload == nullptr) length = 0;
  out->payload = {payload, length};
  if (type == TRAP_TYPE_OTA) {
    DecodeOta(payload, length, out);
  } else if (type == TRAP_TYPE_EM) {
    DecodeEm(payload, length, out);
  }
}

void TrapDecoder::DecodeOta(const uint8_t* payload, size_t length, DecodedTrap* out) const {
  out->traceId = Read(m_traceId, payload, length);
  out->sim = Read(m_otaSim, payload, length);
  if (!out->traceId.present) return;
  const Trace* trace = m_traces.Find(out->traceId.value);
  if (trace == nullptr) return;
  out->traceName = trace->name;
  out->msgId = Read(trace->globalId, payload, length);
  if (out->msgId.present) {
    if (const std::string_view* name = m_globalIds.Find(out->msgId.value)) out->msgName = *name;
  }
  out->pduLength = Read(trace->pduLength, payload, length);
  if (!out->pduLength.present) return;
  const uint64_t want = out->pduLength.value;
  if (trace->msgOffset > length) {
    out->pduTruncated = want > 0;
    return;
  }
  const uint64_t room = length - trace->msgOffset;
  out->pduPresent = true;
  out->pduTruncated = want > room;
  out->pdu = {payload + trace->msgOffset, static_cast<size_t>(std::min(want, room))};
}

void TrapDecoder::DecodeEm(const uint8_t* payload, size_t length, DecodedTrap* out) const {
  out->msgId = Read(m_msgId, payload, length);
  out->sim = Read(m_msgSim, payload, length);
  if (!out->msgId.present) return;
  const Message* msg = m_messages.Find(out->msgId.value);
  if (msg == nullptr) return;
  out->msgName = msg->name;
  const NamedSlot* field = m_fields.data() + msg->firstField;
  const NamedSlot* end = field + msg->fieldCount;
  for (; field != end; ++field) {
    TrapNumber n = Read(field->slot, payload, length);
    if (n.present) out->fields.push_back({field->name, n.value});
  }
  if (!msg->hasPeers) return;
  out->peerCount = Read(m_peerCount, payload, length);
  if (msg->peerStart <= length) {
    out->peersPresent = true;
    out->peers = {payload + msg->peerStart, static_cast<size_t>(length - msg->peerStart)};
  }
}

}  // namespace libtidewatch
