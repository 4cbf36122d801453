// The trap header that leads every packet block of a capture: the names, numbers and decoded fields
// that make a capture readable without its layout file. Part of PcapngReader.
#include <string>
#include <string_view>

#include "libtidewatch/pcapng/pcapng_format.h"
#include "libtidewatch/pcapng/pcapng_reader.h"

namespace libtidewatch {

namespace {

using namespace pcapng;  // NOLINT: the format's constants are this file's vocabulary

// A name of the trap header's variable part; false when it runs past `end`.
bool TakeName(const uint8_t*& p, const uint8_t* end, std::string_view* name) {
  if (end - p < 2) return false;
  const size_t n = Get16(p);
  p += 2;
  if (static_cast<size_t>(end - p) < n) return false;
  *name = std::string_view(reinterpret_cast<const char*>(p), n);
  p += n;
  return true;
}

}  // namespace

bool PcapngReader::ReadTrapHeader(const uint8_t* data, uint32_t size, CapturedTrap* trap) {
  auto bad = [this](const std::string& what) {
    Fail(kEnhancedPacketBlock, "bad trap header: " + what);
    return false;
  };
  if (size < kTrapFixedSize) return bad("only " + std::to_string(size) + " bytes");
  if (Get32(data) != kTrapMagic) return bad("no magic");
  if (data[4] != kTrapVersion) return bad("version " + std::to_string(data[4]) + " is not read");
  const uint16_t flags = Get16(data + 6);
  const uint32_t headerSize = Get32(data + 8);
  const uint32_t recordSize = Get32(data + 12);
  if (headerSize < kTrapFixedSize || headerSize > size || headerSize % 4 != 0) {
    return bad("header length " + std::to_string(headerSize));
  }
  if (recordSize != size - headerSize) {
    return bad("record length " + std::to_string(recordSize) + " but " +
               std::to_string(size - headerSize) + " bytes follow the header");
  }
  DecodedTrap& d = trap->decoded;
  d.type = static_cast<TRAP_TYPE>(data[5]);
  trap->seq = Get64(data + 16);
  trap->length = Get64(data + 24);
  auto number = [&](TrapNumber* n, size_t at, uint16_t flag) {
    n->value = Get64(data + at);
    n->present = (flags & flag) != 0;
  };
  number(&d.sim, 32, kHasSim);
  number(&d.msgId, 40, kHasMsgId);
  number(&d.traceId, 48, kHasTraceId);
  number(&d.pduLength, 56, kHasPduLength);
  number(&d.peerCount, 64, kHasPeerCount);

  const uint8_t* record = data + headerSize;
  trap->record = TrapBytes{record, recordSize};
  if (recordSize >= kTrapRecordHead) {
    d.payload = TrapBytes{record + kTrapRecordHead, recordSize - kTrapRecordHead};
  }
  auto range = [&](TrapBytes* out, size_t at) {
    const uint32_t offset = Get32(data + at);
    const uint32_t bytes = Get32(data + at + 4);
    if (offset > recordSize || bytes > recordSize - offset) return false;
    *out = TrapBytes{record + offset, bytes};
    return true;
  };
  d.pduPresent = (flags & kHasPdu) != 0;
  d.pduTruncated = (flags & kPduTruncated) != 0;
  if (d.pduPresent && !range(&d.pdu, 72)) return bad("PDU range outside the record");
  d.peersPresent = (flags & kHasPeers) != 0;
  if (d.peersPresent && !range(&d.peers, 80)) return bad("peer range outside the record");
  for (size_t i = 0; i < kDiscardSlots && i < TRAP_TYPE_NUM; ++i) {
    trap->discards[i] = Get32(data + 88 + 4 * i);
  }
  m_toolDrops = Get32(data + 124);
  trap->toolDrops = m_toolDrops;

  const uint8_t* p = data + kTrapFixedSize;
  const uint8_t* const end = data + headerSize;
  std::string_view traceName, msgName;
  if (!TakeName(p, end, &traceName) || !TakeName(p, end, &msgName) || end - p < 2) {
    return bad("names run past the header");
  }
  if (flags & kHasTraceName) d.traceName = traceName;
  if (flags & kHasMsgName) d.msgName = msgName;
  const uint16_t fields = Get16(p);
  p += 2;
  for (uint16_t i = 0; i < fields; ++i) {
    DecodedField field;
    if (!TakeName(p, end, &field.name) || end - p < 8) return bad("fields run past the header");
    field.value = Get64(p);
    p += 8;
    d.fields.push_back(field);
  }
  return true;
}

}  // namespace libtidewatch
