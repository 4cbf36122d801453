// The capture report as a sink of the capture: every trap of a live run or of a file read back
// goes into a ReportBuilder, and the page is written when the capture is over (--report FILE).
#pragma once

#include <string>

#include "capture/report/report_builder.h"
#include "capture/trap_sink.h"

namespace capture {

class ReportSink : public TrapSink {
 public:
  // Writes to `path` at Finish. `source` heads the page ("live capture", a file's path). A live
  // run's span is from now to Finish; a file's comes from the file (builder().SetSpan).
  ReportSink(std::string path, std::string source, bool live);

  // Whether `path` can be written (it is created, empty); false with a message when not.
  static bool CanWrite(const std::string& path, std::string* error);

  void OnTrap(const libtidewatch::CapturedTrap& trap) override { m_builder.Add(trap); }
  // Writes the page; false, after saying why on standard error, when it could not.
  bool Finish() override;
  bool Failed() const override { return m_failed; }

  // For what a capture knows beside its traps: its own drops (AddToolDrop), a file's span, and
  // where reading a damaged file stopped (SetStoppedAt).
  ReportBuilder& builder() { return m_builder; }

 private:
  std::string m_path;
  bool m_live;
  int64_t m_startUs;
  bool m_failed = false;
  ReportBuilder m_builder;
};

}  // namespace capture
