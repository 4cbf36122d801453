#include "capture/text_printer.h"

#include "capture/text_escape.h"

namespace capture {
namespace {

using libtidewatch::CapturedTrap;
using libtidewatch::DecodedTrap;

void AppendName(std::string* out, const std::optional<std::string_view>& name,
                const libtidewatch::TrapNumber& id) {
  if (name.has_value()) {
    AppendEscapedText(out, *name);
  } else {
    out->push_back('?');
  }
  out->push_back('(');
  if (id.present) {
    AppendUnsigned(out, id.value);
  } else {
    out->push_back('?');
  }
  out->push_back(')');
}

}  // namespace

TextPrinter::TextPrinter(int fd, bool quiet) : m_out(fd), m_quiet(quiet) {}

void AppendDroppedLine(std::string* out, const CapturedTrap& trap) {
  if (trap.toolDrops != 0) {
    *out += "dropped by the capture: ";
    AppendUnsigned(out, trap.toolDrops);
    *out += " (the capture file fell behind)\n";
  }
  if (!trap.HasDiscards()) return;
  *out += "dropped by the service: ";
  AppendUnsigned(out, trap.discards[libtidewatch::TRAP_TYPE_OTA]);
  *out += " OTA, ";
  AppendUnsigned(out, trap.discards[libtidewatch::TRAP_TYPE_EM]);
  *out += " EM";
  for (size_t t = libtidewatch::TRAP_TYPE_VOLTE; t < libtidewatch::TRAP_TYPE_NUM; ++t) {
    if (trap.discards[t] == 0) continue;
    *out += ", ";
    AppendUnsigned(out, trap.discards[t]);
    out->push_back(' ');
    *out += libtidewatch::ToTrapStr(static_cast<libtidewatch::TRAP_TYPE>(t));
  }
  out->push_back('\n');
}

void TextPrinter::AppendTrap(std::string* out, const CapturedTrap& trap) {
  AppendDroppedLine(out, trap);
  if (m_quiet) return;
  const DecodedTrap& d = trap.decoded;
  m_time.AppendLocal(out, trap.timeUs);
  out->push_back(' ');
  const bool message =
      d.type == libtidewatch::TRAP_TYPE_OTA || d.type == libtidewatch::TRAP_TYPE_EM;
  if (message) {
    *out += "SIM";
    if (d.sim.present) {
      AppendUnsigned(out, d.sim.value);
    } else {
      out->push_back('?');
    }
    out->push_back(' ');
  }
  const char* typeName = libtidewatch::ToTrapStr(d.type);
  *out += typeName != nullptr ? typeName : "NONE";
  out->push_back(' ');
  if (message) {
    AppendName(out, d.msgName, d.msgId);
    out->push_back(' ');
  }
  *out += "len=";
  AppendUnsigned(out, trap.length);
  if (d.type == libtidewatch::TRAP_TYPE_EM) {
    for (const libtidewatch::DecodedField& field : d.fields) {
      out->push_back(' ');
      AppendEscapedText(out, field.name);
      out->push_back('=');
      AppendUnsigned(out, field.value);
    }
  } else if (d.type == libtidewatch::TRAP_TYPE_OTA) {
    *out += " trace=";
    AppendName(out, d.traceName, d.traceId);
    if (d.pduLength.present) {
      *out += " pdu_length=";
      AppendUnsigned(out, d.pduLength.value);
    }
  }
  out->push_back('\n');
}

void TextPrinter::OnTrap(const CapturedTrap& trap) {
  AppendTrap(m_out.text(), trap);
  m_out.Wrote();
}

}  // namespace capture
