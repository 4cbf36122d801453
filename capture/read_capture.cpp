#include "capture/read_capture.h"

#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>

#include "capture/capture_stats.h"
#include "capture/capture_summary.h"
#include "capture/json_printer.h"
#include "capture/layout_source.h"
#include "capture/read_filter.h"
#include "capture/report_sink.h"
#include "capture/text_printer.h"
#include "libtidewatch/pcapng/pcapng_reader.h"

namespace capture {
namespace {

void Error(const std::string& text) { fprintf(stderr, "tide_watch_capture: %s\n", text.c_str()); }

}  // namespace

int ReadCapture(const CaptureOptions& options) {
  std::string error;
  // The file names its messages; a layout, when given, only widens what names select.
  LoadedLayout layout;
  if (!options.layoutPath.empty() && !LoadLayout(options.layoutPath, nullptr, &layout, &error)) {
    Error(error);
    return kExitUsage;
  }
  ReadFilter filter;
  for (const auto& [type, selector] : Selectors(options)) {
    if (!filter.Add(type, selector, layout.decoder.get(), &error)) {
      Error(error);
      return kExitUsage;
    }
  }

  std::unique_ptr<ReportSink> report;
  if (!options.reportPath.empty()) {
    if (!ReportSink::CanWrite(options.reportPath, &error)) {
      Error(error);
      return kExitUsage;
    }
    report = std::make_unique<ReportSink>(options.reportPath, options.readPath, false);
  }

  libtidewatch::PcapngReader reader;
  if (!reader.Open(options.readPath, &error)) {
    Error(error);
    return kExitFailure;
  }
  std::unique_ptr<TrapSink> printer;
  if (options.format == OutputFormat::kJson) {
    if (!options.quiet) printer = std::make_unique<JsonPrinter>(STDOUT_FILENO);
  } else {
    printer = std::make_unique<TextPrinter>(STDOUT_FILENO, options.quiet);
  }

  CaptureStats stats;
  int64_t firstUs = 0;
  int64_t lastUs = 0;
  libtidewatch::CapturedTrap trap;
  libtidewatch::PcapngReader::Status status;
  while ((status = reader.Next(&trap)) == libtidewatch::PcapngReader::kTrap) {
    if (!filter.Matches(trap.decoded)) {
      if (report != nullptr) report->OnSkippedTrap(trap);
      continue;
    }
    if (report != nullptr) report->OnTrap(trap);
    if (stats.traps() == 0) firstUs = trap.timeUs;
    lastUs = trap.timeUs;
    stats.Count(trap);
    if (printer != nullptr) {
      printer->OnTrap(trap);
      if (printer->Failed()) break;  // the reader of our output has gone
    }
    if (options.count != 0 && stats.traps() >= options.count) break;
  }

  int exitStatus = kExitOk;
  if (printer != nullptr && !printer->Finish()) {
    Error("cannot write the output");
    exitStatus = kExitFailure;
  }
  // After the traps, so that the message follows the last good one wherever both are shown.
  if (status == libtidewatch::PcapngReader::kError) {
    Error(options.readPath + ": " + reader.error());
    exitStatus = kExitFailure;
  }
  if (report != nullptr) {
    if (status == libtidewatch::PcapngReader::kError) report->OnReadStopped(reader.error());
    if (status == libtidewatch::PcapngReader::kEnd && reader.hasStats()) {
      report->OnFileStats(reader.stats());
    }
    if (!report->Finish()) exitStatus = kExitFailure;
  }
  if (options.summary) {
    RunFacts facts;
    facts.seconds = static_cast<double>(lastUs - firstUs) / 1e6;
    const std::string summary = FormatSummary(stats, facts);
    fwrite(summary.data(), 1, summary.size(), stderr);
  }
  return exitStatus;
}

}  // namespace capture
