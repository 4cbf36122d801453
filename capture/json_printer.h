// The JSON form of captured traps: one object per line with the keys seq, time, type, length;
// trace_id, trace, sim, msg_id, msg, pdu_length, pdu (OTA); msg_id, msg, sim, fields, peer_count,
// peers (EM); payload (other types); discards where the service reported dropped traps, and
// capture_drops where the capture lost traps just before this one (its file fell behind). An
// unknown name is null; a value the trap does not hold is left out.
#pragma once

#include <string>

#include "capture/output_buffer.h"
#include "capture/trap_format.h"
#include "capture/trap_sink.h"

namespace capture {

class JsonPrinter : public TrapSink {
 public:
  // Writes to `fd` (not owned).
  explicit JsonPrinter(int fd);

  void OnTrap(const libtidewatch::CapturedTrap& trap) override;
  void OnDrained() override { m_out.Flush(); }
  bool Finish() override { return m_out.Flush(); }
  bool Failed() const override { return m_out.failed(); }

  // The object of one trap, with its line feed.
  void AppendTrap(std::string* out, const libtidewatch::CapturedTrap& trap);

 private:
  OutputBuffer m_out;
  TimeFormatter m_time;
};

}  // namespace capture
