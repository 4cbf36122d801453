#include "libtidewatch/pcapng/pcapng_writer.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <string_view>
#include <utility>

#include "libtidewatch/pcapng/pcapng_format.h"

namespace libtidewatch {

namespace {

using namespace pcapng;  // NOLINT: the format's constants are this file's vocabulary

constexpr size_t kMaxName = std::numeric_limits<uint16_t>::max();
constexpr size_t kEpbFixed = 28;  // type, length, interface, time (2), captured, original
constexpr size_t kEpbOptions = 12 + 12 + 4;  // drop count, packet id, end of options
constexpr size_t kMaxFields = std::numeric_limits<uint16_t>::max();

size_t NameSize(std::string_view name) { return std::min(name.size(), kMaxName); }

size_t HeaderSize(const DecodedTrap& d) {
  size_t n = kTrapFixedSize + 2 + 2 + 2;
  if (d.traceName) n += NameSize(*d.traceName);
  if (d.msgName) n += NameSize(*d.msgName);
  const size_t fields = std::min(d.fields.size(), kMaxFields);
  for (size_t i = 0; i < fields; ++i) n += 2 + NameSize(d.fields[i].name) + 8;
  return Pad4(n);
}

// Where `range` lies inside `record`, as an offset and a size; {0, 0} when it is not inside.
std::pair<uint32_t, uint32_t> RangeIn(const TrapBytes& record, const TrapBytes& range) {
  if (range.data == nullptr || record.data == nullptr) return {0, 0};
  const auto base = reinterpret_cast<uintptr_t>(record.data);
  const auto at = reinterpret_cast<uintptr_t>(range.data);
  if (at < base || at - base > record.size || range.size > record.size - (at - base)) {
    return {0, 0};
  }
  return {static_cast<uint32_t>(at - base), static_cast<uint32_t>(range.size)};
}

uint8_t* PutName(uint8_t* p, std::string_view name) {
  const size_t n = NameSize(name);
  p = Put16(p, static_cast<uint16_t>(n));
  if (n != 0) memcpy(p, name.data(), n);
  return p + n;
}

uint8_t* PutOption64(uint8_t* p, uint16_t code, uint64_t value) {
  p = Put16(p, code);
  p = Put16(p, 8);
  return Put64(p, value);
}

uint8_t* PutOptionText(uint8_t* p, uint16_t code, const std::string& text) {
  p = Put16(p, code);
  p = Put16(p, static_cast<uint16_t>(text.size()));
  memcpy(p, text.data(), text.size());
  memset(p + text.size(), 0, Pad4(text.size()) - text.size());
  return p + Pad4(text.size());
}

// Timestamps and times of the statistics are microseconds in two 32-bit halves, high first.
uint8_t* PutTime(uint8_t* p, int64_t us) {
  const uint64_t t = us < 0 ? 0 : static_cast<uint64_t>(us);
  p = Put32(p, static_cast<uint32_t>(t >> 32));
  return Put32(p, static_cast<uint32_t>(t));
}

uint8_t* PutOptionTime(uint8_t* p, uint16_t code, int64_t us) {
  p = Put16(p, code);
  p = Put16(p, 8);
  return PutTime(p, us);
}

// Grows `out` by `size` bytes and returns where they start.
uint8_t* Grow(std::string* out, size_t size) {
  const size_t at = out->size();
  out->resize(at + size);
  return reinterpret_cast<uint8_t*>(&(*out)[at]);
}

uint8_t* EndBlock(uint8_t* p, uint32_t length) {
  p = Put16(p, kOptEndOfOpt);
  p = Put16(p, 0);
  return Put32(p, length);
}

std::string Clip(std::string text) {
  if (text.size() > kMaxName) text.resize(kMaxName);
  return text;
}

// The decoded type, else the record's own type byte (an undecoded trap).
uint8_t TypeOf(const CapturedTrap& trap) {
  if (trap.decoded.type != TRAP_TYPE_NONE) return static_cast<uint8_t>(trap.decoded.type);
  return trap.record.data != nullptr && trap.record.size != 0 ? trap.record.data[0] : 0;
}

}  // namespace

PcapngWriter::PcapngWriter(std::string userAppl, std::string interfaceName)
    : m_userAppl(Clip(std::move(userAppl))), m_interfaceName(Clip(std::move(interfaceName))) {}

void PcapngWriter::BeginSection(int64_t startUs, std::string* out) {
  m_stats = PcapngSectionStats();
  m_stats.startUs = startUs;

  const uint32_t shbLength = static_cast<uint32_t>(28 + 4 + Pad4(m_userAppl.size()) + 4);
  uint8_t* p = Grow(out, shbLength);
  p = Put32(p, kSectionHeaderBlock);
  p = Put32(p, shbLength);
  p = Put32(p, kByteOrderMagic);
  p = Put16(p, 1);  // version 1.0
  p = Put16(p, 0);
  p = Put64(p, ~uint64_t{0});  // section length unknown: the file is written as a stream
  p = PutOptionText(p, kShbUserAppl, m_userAppl);
  EndBlock(p, shbLength);

  const size_t nameOption = m_interfaceName.empty() ? 0 : 4 + Pad4(m_interfaceName.size());
  const uint32_t idbLength = static_cast<uint32_t>(16 + nameOption + 8 + 4 + 4);
  p = Grow(out, idbLength);
  p = Put32(p, kInterfaceDescriptionBlock);
  p = Put32(p, idbLength);
  p = Put16(p, kLinkType);
  p = Put16(p, 0);
  p = Put32(p, 0);  // no snap length: records are kept whole
  if (nameOption != 0) p = PutOptionText(p, kIfName, m_interfaceName);
  p = Put16(p, kIfTsresol);
  p = Put16(p, 1);
  p = Put32(p, 6);  // 10^-6 s, then three bytes of padding (zero in little-endian)
  EndBlock(p, idbLength);
}

size_t PcapngWriter::EncodedSize(const CapturedTrap& trap) {
  return kEpbFixed + Pad4(HeaderSize(trap.decoded) + trap.record.size) + kEpbOptions + 4;
}

void PcapngWriter::AppendTrap(const CapturedTrap& trap, uint32_t toolDrops, std::string* out) {
  const DecodedTrap& d = trap.decoded;
  const size_t headerSize = HeaderSize(d);
  const size_t recordSize = trap.record.data != nullptr ? trap.record.size : 0;
  const size_t captured = headerSize + recordSize;
  const uint32_t blockLength = static_cast<uint32_t>(kEpbFixed + Pad4(captured) + kEpbOptions + 4);
  uint64_t original = headerSize + kTrapRecordHead + trap.length;
  original = std::max<uint64_t>(std::min<uint64_t>(original, UINT32_MAX), captured);

  uint64_t discards = toolDrops;
  for (uint32_t count : trap.discards) discards += count;
  m_stats.written++;
  m_stats.toolDrops += toolDrops;
  m_stats.serviceDrops += discards - toolDrops;
  m_stats.endUs = std::max(m_stats.endUs, trap.timeUs);

  uint8_t* p = Grow(out, blockLength);
  uint8_t* const block = p;
  p = Put32(p, kEnhancedPacketBlock);
  p = Put32(p, blockLength);
  p = Put32(p, 0);  // interface 0
  p = PutTime(p, trap.timeUs);
  p = Put32(p, static_cast<uint32_t>(captured));
  p = Put32(p, static_cast<uint32_t>(original));

  uint16_t flags = 0;
  if (d.sim.present) flags |= kHasSim;
  if (d.msgId.present) flags |= kHasMsgId;
  if (d.msgName) flags |= kHasMsgName;
  if (d.traceId.present) flags |= kHasTraceId;
  if (d.traceName) flags |= kHasTraceName;
  if (d.pduLength.present) flags |= kHasPduLength;
  const auto pdu = d.pduPresent ? RangeIn(trap.record, d.pdu) : std::pair<uint32_t, uint32_t>();
  if (d.pduPresent && (pdu.second != 0 || d.pdu.size == 0)) flags |= kHasPdu;
  if (d.pduTruncated) flags |= kPduTruncated;
  if (d.peerCount.present) flags |= kHasPeerCount;
  const auto peers =
      d.peersPresent ? RangeIn(trap.record, d.peers) : std::pair<uint32_t, uint32_t>();
  if (d.peersPresent && (peers.second != 0 || d.peers.size == 0)) flags |= kHasPeers;

  p = Put32(p, kTrapMagic);
  *p++ = kTrapVersion;
  *p++ = TypeOf(trap);
  p = Put16(p, flags);
  p = Put32(p, static_cast<uint32_t>(headerSize));
  p = Put32(p, static_cast<uint32_t>(recordSize));
  p = Put64(p, trap.seq);
  p = Put64(p, trap.length);
  p = Put64(p, d.sim.value);
  p = Put64(p, d.msgId.value);
  p = Put64(p, d.traceId.value);
  p = Put64(p, d.pduLength.value);
  p = Put64(p, d.peerCount.value);
  p = Put32(p, pdu.first);
  p = Put32(p, pdu.second);
  p = Put32(p, peers.first);
  p = Put32(p, peers.second);
  for (uint32_t count : trap.discards) p = Put32(p, count);
  p = Put32(p, toolDrops);
  p = PutName(p, d.traceName ? *d.traceName : std::string_view());
  p = PutName(p, d.msgName ? *d.msgName : std::string_view());
  const size_t fields = std::min(d.fields.size(), kMaxFields);
  p = Put16(p, static_cast<uint16_t>(fields));
  for (size_t i = 0; i < fields; ++i) {
    p = PutName(p, d.fields[i].name);
    p = Put64(p, d.fields[i].value);
  }
  uint8_t* const recordAt = block + kEpbFixed + headerSize;
  memset(p, 0, recordAt - p);
  if (recordSize != 0) memcpy(recordAt, trap.record.data, recordSize);
  p = recordAt + recordSize;
  memset(p, 0, Pad4(captured) - captured);
  p += Pad4(captured) - captured;

  p = PutOption64(p, kEpbDropCount, discards);
  p = PutOption64(p, kEpbPacketId, trap.seq);
  EndBlock(p, blockLength);
}

void PcapngWriter::EndSection(int64_t endUs, uint64_t pendingToolDrops, std::string* out) {
  m_stats.toolDrops += pendingToolDrops;
  m_stats.endUs = std::max(m_stats.endUs, endUs);
  constexpr uint32_t kIsbLength = 20 + 6 * 12 + 4 + 4;
  uint8_t* p = Grow(out, kIsbLength);
  p = Put32(p, kInterfaceStatisticsBlock);
  p = Put32(p, kIsbLength);
  p = Put32(p, 0);
  p = PutTime(p, m_stats.endUs);
  p = PutOptionTime(p, kIsbStartTime, m_stats.startUs);
  p = PutOptionTime(p, kIsbEndTime, m_stats.endUs);
  p = PutOption64(p, kIsbIfRecv, m_stats.Received());
  p = PutOption64(p, kIsbIfDrop, m_stats.serviceDrops);
  p = PutOption64(p, kIsbOsDrop, m_stats.toolDrops);
  p = PutOption64(p, kIsbUsrDeliv, m_stats.written);
  EndBlock(p, kIsbLength);
}

}  // namespace libtidewatch
