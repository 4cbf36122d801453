// The text form of captured traps, one line each: receive time (local, microseconds), SIM, type,
// message name and id, length; then the EM fields as NAME=value, or the OTA trace and PDU length.
// Traps the service dropped before a trap get a line of their own ahead of it.
#pragma once

#include <string>

#include "capture/output_buffer.h"
#include "capture/trap_format.h"
#include "capture/trap_sink.h"

namespace capture {

class TextPrinter : public TrapSink {
 public:
  // Writes to `fd` (not owned). With `quiet`, only the lines about dropped traps are written.
  TextPrinter(int fd, bool quiet);

  void OnTrap(const libtidewatch::CapturedTrap& trap) override;
  void OnDrained() override { m_out.Flush(); }
  bool Finish() override { return m_out.Flush(); }
  bool Failed() const override { return m_out.failed(); }

  // The line of one trap, with its line feed (and the dropped line before it, if any).
  void AppendTrap(std::string* out, const libtidewatch::CapturedTrap& trap);

 private:
  OutputBuffer m_out;
  bool m_quiet;
  TimeFormatter m_time;
};

// "dropped by the service: N OTA, M EM", and the other types where the service named them, with
// a line feed; nothing when the trap carried no discard counts. Before it, the traps the capture
// itself lost just before this one, when there were any.
void AppendDroppedLine(std::string* out, const libtidewatch::CapturedTrap& trap);

}  // namespace capture
