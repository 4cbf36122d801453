#include "tests/support/sample_traps.h"

namespace tidewatch_test {

using libtidewatch::TRAP_TYPE;
using libtidewatch::TrapBytes;

namespace {

std::unique_ptr<SampleTrap> Start(uint64_t seq, TRAP_TYPE type, const std::vector<uint8_t>& payload,
                                  size_t declared) {
  auto s = std::make_unique<SampleTrap>();
  s->record = {static_cast<uint8_t>(type)};
  for (int i = 0; i < 4; ++i) s->record.push_back(static_cast<uint8_t>(declared >> (8 * i)));
  s->record.insert(s->record.end(), payload.begin(), payload.end());
  s->trap.seq = seq;
  s->trap.timeUs = 1700000000000000 + static_cast<int64_t>(seq) * 1250;
  s->trap.length = declared;
  s->trap.record = TrapBytes{s->record.data(), s->record.size()};
  s->trap.decoded.type = type;
  s->trap.decoded.payload = TrapBytes{s->record.data() + 5, payload.size()};
  return s;
}

std::string Number(const libtidewatch::TrapNumber& n) {
  return n.present ? std::to_string(n.value) : "-";
}

std::string Named(const libtidewatch::TrapNumber& n, const std::optional<std::string_view>& name) {
  return Number(n) + (name ? ":" + std::string(*name) : "");
}

}  // namespace

std::unique_ptr<SampleTrap> OtaSample(uint64_t seq, const std::string& traceName, uint64_t traceId,
                                      const std::string& msgName, uint64_t msgId,
                                      const std::vector<uint8_t>& pdu, size_t cut) {
  std::vector<uint8_t> payload(12, 0);
  payload[4] = static_cast<uint8_t>(traceId);
  payload[8] = static_cast<uint8_t>(msgId);
  payload[9] = static_cast<uint8_t>(msgId >> 8);
  payload[10] = static_cast<uint8_t>(pdu.size());
  payload.insert(payload.end(), pdu.begin(), pdu.end() - cut);
  auto s = Start(seq, libtidewatch::TRAP_TYPE_OTA, payload, payload.size() + cut);
  s->traceName = traceName;
  s->msgName = msgName;
  libtidewatch::DecodedTrap& d = s->trap.decoded;
  d.sim = {1, true};
  d.traceId = {traceId, true};
  d.traceName = s->traceName;
  d.msgId = {msgId, true};
  d.msgName = s->msgName;
  d.pduLength = {pdu.size(), true};
  d.pdu = TrapBytes{s->record.data() + 5 + 12, pdu.size() - cut};
  d.pduPresent = true;
  d.pduTruncated = cut != 0;
  return s;
}

std::unique_ptr<SampleTrap> EmSample(uint64_t seq, const std::string& msgName, uint64_t msgId,
                                     const std::vector<std::pair<std::string, uint64_t>>& fields,
                                     size_t peers) {
  std::vector<uint8_t> payload(8 + 8 * fields.size() + peers, 0x5A);
  auto s = Start(seq, libtidewatch::TRAP_TYPE_EM, payload, payload.size());
  s->msgName = msgName;
  libtidewatch::DecodedTrap& d = s->trap.decoded;
  d.sim = {0, true};
  d.msgId = {msgId, true};
  d.msgName = s->msgName;
  s->fieldNames.reserve(fields.size());
  for (const auto& f : fields) s->fieldNames.push_back(f.first);
  for (size_t i = 0; i < fields.size(); ++i)
    d.fields.push_back({s->fieldNames[i], fields[i].second});
  if (peers != 0) {
    d.peerCount = {peers / 4, true};
    d.peers = TrapBytes{s->record.data() + s->record.size() - peers, peers};
    d.peersPresent = true;
  }
  return s;
}

std::unique_ptr<SampleTrap> RawSample(uint64_t seq, TRAP_TYPE type,
                                      const std::vector<uint8_t>& payload) {
  auto s = Start(seq, type, payload, payload.size());
  s->trap.decoded.type = libtidewatch::TRAP_TYPE_NONE;
  return s;
}

std::string Hex(const uint8_t* p, size_t n) {
  static const char kDigits[] = "0123456789abcdef";
  std::string s;
  for (size_t i = 0; i < n; ++i) s += {kDigits[p[i] >> 4], kDigits[p[i] & 15]};
  return s;
}

std::string Render(const libtidewatch::DecodedTrap& d) {
  std::string s;
  if (d.type == libtidewatch::TRAP_TYPE_OTA) {
    s = "trace=" + Named(d.traceId, d.traceName) + " sim=" + Number(d.sim) +
        " msg=" + Named(d.msgId, d.msgName) + " len=" + Number(d.pduLength) +
        " pdu=" + (d.pduPresent ? Hex(d.pdu.data, d.pdu.size) : "-") +
        (d.pduTruncated ? " cut" : "");
  } else if (d.type == libtidewatch::TRAP_TYPE_EM) {
    s = "msg=" + Named(d.msgId, d.msgName) + " sim=" + Number(d.sim);
    for (const libtidewatch::DecodedField& f : d.fields) {
      s += " " + std::string(f.name) + "=" + std::to_string(f.value);
    }
    if (d.peerCount.present || d.peersPresent) {
      s += " peers=" + Number(d.peerCount) + "/" +
           (d.peersPresent ? Hex(d.peers.data, d.peers.size) : "-");
    }
  } else {
    s = "type=" + std::to_string(d.type);
  }
  return s + " payload=" + Hex(d.payload.data, d.payload.size);
}

std::vector<uint8_t> LteMib(uint8_t sfn) {
  // dl-Bandwidth n50 (3 bits), phich-Config (3 bits), systemFrameNumber (8 bits), the rest 0.
  const uint32_t bits = (3u << 21) | (sfn << 10);
  return {static_cast<uint8_t>(bits >> 16), static_cast<uint8_t>(bits >> 8),
          static_cast<uint8_t>(bits)};
}

}  // namespace tidewatch_test
