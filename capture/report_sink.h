// The capture report as a sink of the capture: every trap of a live run or of a file read back
// goes into a ReportBuilder, and the page is written when the capture is over (--report FILE).
#pragma once

#include <string>

#include "capture/report/report_builder.h"
#include "capture/trap_sink.h"
#include "libtidewatch/pcapng/pcapng_writer.h"

namespace capture {

class ReportSink : public TrapSink {
 public:
  // Writes to `path` at Finish. `source` heads the page ("live capture", a file's path). A live
  // run's span is from now to Finish; a file's comes from the file (OnFileStats).
  ReportSink(std::string path, std::string source, bool live);

  // Whether `path` can be written (it is created, empty); false with a message when not.
  static bool CanWrite(const std::string& path, std::string* error);

  void OnTrap(const libtidewatch::CapturedTrap& trap) override { m_builder.Add(trap); }
  // Writes the page; false, after saying why on standard error, when it could not.
  bool Finish() override;
  bool Failed() const override { return m_failed; }

  // A trap that a filter leaves out: only the drops it carries are reported.
  void OnSkippedTrap(const libtidewatch::CapturedTrap& trap) { m_builder.AddDrops(trap); }
  // What a capture file says of itself when read to its end: its span, and the losses it counted
  // at its close that no trap carried.
  void OnFileStats(const libtidewatch::PcapngSectionStats& stats);
  // Reading a damaged file stopped: `where` is the reader's error.
  void OnReadStopped(const std::string& where) { m_builder.SetStoppedAt(where); }

 private:
  std::string m_path;
  bool m_live;
  int64_t m_startUs;
  bool m_failed = false;
  ReportBuilder m_builder;
};

}  // namespace capture
