#include "capture/json_printer.h"

#include "capture/text_escape.h"

namespace capture {
namespace {

using libtidewatch::CapturedTrap;
using libtidewatch::DecodedTrap;
using libtidewatch::TrapNumber;

void Key(std::string* out, const char* key) {
  out->push_back(',');
  out->push_back('"');
  *out += key;
  out->push_back('"');
  out->push_back(':');
}

void Number(std::string* out, const char* key, const TrapNumber& number) {
  if (!number.present) return;
  Key(out, key);
  AppendUnsigned(out, number.value);
}

// The name of a message whose id was read: the name, or null when the layout does not know it.
void Name(std::string* out, const char* key, const TrapNumber& id,
          const std::optional<std::string_view>& name) {
  if (!id.present) return;
  Key(out, key);
  if (name.has_value()) {
    AppendJsonString(out, *name);
  } else {
    *out += "null";
  }
}

void Hex(std::string* out, const char* key, const libtidewatch::TrapBytes& bytes) {
  Key(out, key);
  out->push_back('"');
  AppendHex(out, bytes.data, bytes.size);
  out->push_back('"');
}

}  // namespace

JsonPrinter::JsonPrinter(int fd) : m_out(fd) {}

void JsonPrinter::AppendTrap(std::string* out, const CapturedTrap& trap) {
  const DecodedTrap& d = trap.decoded;
  *out += "{\"seq\":";
  AppendUnsigned(out, trap.seq);
  *out += ",\"time\":\"";
  m_time.AppendUtc(out, trap.timeUs);
  *out += "\",\"type\":\"";
  const char* typeName = libtidewatch::ToTrapStr(d.type);
  *out += typeName != nullptr ? typeName : "NONE";
  out->push_back('"');
  Key(out, "length");
  AppendUnsigned(out, trap.length);
  if (d.type == libtidewatch::TRAP_TYPE_OTA) {
    Number(out, "trace_id", d.traceId);
    Name(out, "trace", d.traceId, d.traceName);
    Number(out, "sim", d.sim);
    Number(out, "msg_id", d.msgId);
    Name(out, "msg", d.msgId, d.msgName);
    Number(out, "pdu_length", d.pduLength);
    if (d.pduPresent) Hex(out, "pdu", d.pdu);
  } else if (d.type == libtidewatch::TRAP_TYPE_EM) {
    Number(out, "sim", d.sim);
    Number(out, "msg_id", d.msgId);
    Name(out, "msg", d.msgId, d.msgName);
    Key(out, "fields");
    out->push_back('{');
    for (size_t i = 0; i < d.fields.size(); ++i) {
      if (i > 0) out->push_back(',');
      AppendJsonString(out, d.fields[i].name);
      out->push_back(':');
      AppendUnsigned(out, d.fields[i].value);
    }
    out->push_back('}');
    Number(out, "peer_count", d.peerCount);
    if (d.peersPresent) Hex(out, "peers", d.peers);
  } else {
    Hex(out, "payload", d.payload);
  }
  if (trap.HasDiscards()) {
    Key(out, "discards");
    out->push_back('{');
    bool first = true;
    for (size_t t = 0; t < libtidewatch::TRAP_TYPE_NUM; ++t) {
      if (trap.discards[t] == 0) continue;
      const char* name = libtidewatch::ToTrapStr(static_cast<libtidewatch::TRAP_TYPE>(t));
      if (!first) out->push_back(',');
      first = false;
      out->push_back('"');
      *out += name != nullptr ? name : "NONE";
      *out += "\":";
      AppendUnsigned(out, trap.discards[t]);
    }
    out->push_back('}');
  }
  if (trap.toolDrops != 0) {
    Key(out, "capture_drops");
    AppendUnsigned(out, trap.toolDrops);
  }
  *out += "}\n";
}

void JsonPrinter::OnTrap(const CapturedTrap& trap) {
  AppendTrap(m_out.text(), trap);
  m_out.Wrote();
}

}  // namespace capture
