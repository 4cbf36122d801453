#include "capture/capture_main.h"

#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>

#include "capture/capture_options.h"
#include "capture/capture_session.h"
#include "capture/capture_summary.h"
#include "capture/json_printer.h"
#include "capture/layout_source.h"
#include "capture/message_selection.h"
#include "capture/pcapng_output.h"
#include "capture/read_capture.h"
#include "capture/report_sink.h"
#include "capture/stop_signals.h"
#include "capture/text_printer.h"
#include "capture/trap_collector.h"
#include "capture/wakeup.h"
#include "libtidewatch/platform/log.h"
#include "libtidewatch/trap/trap_decoder.h"

#ifndef TIDEWATCH_SAMPLE_LAYOUT
#define TIDEWATCH_SAMPLE_LAYOUT nullptr
#endif

namespace capture {
namespace {

constexpr char kTool[] = "tide_watch_capture";
constexpr char kUserAppl[] = "tide_watch_capture 1.0";  // names the writer in capture files
constexpr int kTickMs = 250;                            // progress updates and stop checks
constexpr double kHealthPeriod = 1.0;  // seconds between checks of the command link
constexpr int kRetryMs = 500;          // between attempts to reopen a session

double Now() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

void Error(const std::string& text) { fprintf(stderr, "%s: %s\n", kTool, text.c_str()); }

// The library logs its failures as it meets them (a dead link, a refused frame); the tool says
// what they mean for the capture in its own words, so they are shown only on request.
void DropLibraryLog(int /*priority*/, const char* /*tag*/, const char* /*text*/) {}

// The server name that makes this run's receiver unique: the process id and the start time.
std::string UniqueReceiverName() {
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  char name[64];
  snprintf(name, sizeof(name), ".capture.%d.%lx", static_cast<int>(getpid()),
           static_cast<unsigned long>(ts.tv_nsec / 1000) & 0xfffff);
  return name;
}

// The progress line, when standard error is a terminal: rewritten in place a few times a second,
// and wiped before anything else is written there.
class Progress {
 public:
  explicit Progress(bool enabled) : m_enabled(enabled) {}
  void Show(uint64_t traps, uint64_t dropped, double now) {
    if (!m_enabled) return;
    const double rate =
        now > m_lastTime ? static_cast<double>(traps - m_lastTraps) / (now - m_lastTime) : 0;
    m_lastTime = now;
    m_lastTraps = traps;
    std::string line = FormatProgress(traps, rate, dropped);
    const size_t width = line.size();
    if (line.size() < m_width) line.append(m_width - line.size(), ' ');
    m_width = width;
    fprintf(stderr, "\r%s", line.c_str());
    fflush(stderr);
  }
  void Clear() {
    if (!m_enabled || m_width == 0) return;
    fprintf(stderr, "\r%s\r", std::string(m_width, ' ').c_str());
    m_width = 0;
  }

 private:
  bool m_enabled;
  size_t m_width = 0;
  double m_lastTime = 0;
  uint64_t m_lastTraps = 0;
};

bool Resolve(const CaptureOptions& options, MessageSelection* selection) {
  for (const auto& [type, selector] : Selectors(options)) {
    std::string error;
    if (!selection->Add(type, selector, &error)) {
      Error(error);
      return false;
    }
  }
  return true;
}

}  // namespace

int CaptureMain(int argc, char** argv, CaptureMode mode) {
  CaptureOptions options;
  const int parsed = ParseCaptureOptions(argc, argv, &options);
  if (parsed >= 0) return parsed;
  if (mode == CaptureMode::kExtcap) options.summary = false;
  if (!options.readPath.empty()) return ReadCapture(options);
  if (options.writePath == "-" && isatty(STDOUT_FILENO) == 1) {
    Error(
        "-w - writes binary pcapng to standard output, which is a terminal: redirect it to a "
        "file or a pipe");
    return kExitUsage;
  }

  LoadedLayout layout;
  std::string error;
  if (!LoadLayout(options.layoutPath, TIDEWATCH_SAMPLE_LAYOUT, &layout, &error)) {
    Error(error);
    return options.layoutPath.empty() ? kExitFailure : kExitUsage;
  }
  if (!options.verbose) libtidewatch::SetLogSink(DropLibraryLog);
  if (options.listMessages) {
    const std::string list = MessageSelection::ListMessages(*layout.decoder);
    fwrite(list.data(), 1, list.size(), stdout);
    return kExitOk;
  }
  MessageSelection selection(*layout.decoder);
  if (!Resolve(options, &selection)) return kExitUsage;

  const libtidewatch::TrapDecoder decoder(*layout.decoder);
  Wakeup wakeup;
  InstallStopSignals(&wakeup);

  TrapCollector collector(decoder, options.count, wakeup);
  std::unique_ptr<PcapngOutput> file;
  if (!options.writePath.empty()) {
    PcapngOutput::Config config;
    config.path = options.writePath;
    config.ringBytes = static_cast<uint64_t>(options.ringMegabytes * 1e6);
    config.ringFiles = options.ringFiles;
    config.userAppl = kUserAppl;
    file = std::make_unique<PcapngOutput>(config, &wakeup);
    if (!file->Start(&error)) {
      Error(error);
      return kExitFailure;
    }
    collector.SetFile(file.get());
  }
  std::unique_ptr<TrapSink> printer;
  if (options.writePath == "-") {
    // Standard output holds the capture file.
  } else if (options.format == OutputFormat::kJson) {
    if (!options.quiet) printer = std::make_unique<JsonPrinter>(STDOUT_FILENO);
  } else {
    printer = std::make_unique<TextPrinter>(STDOUT_FILENO, options.quiet);
  }
  if (printer != nullptr) collector.AddSink(printer.get());
  std::unique_ptr<ReportSink> report;
  if (!options.reportPath.empty()) {
    // Made sure of now, not found out after a long capture.
    if (!ReportSink::CanWrite(options.reportPath, &error)) {
      Error(error);
      return kExitUsage;
    }
    report = std::make_unique<ReportSink>(options.reportPath, "live capture", true);
    collector.AddSink(report.get());
  }

  SessionPlan plan;
  plan.hasSecret = options.hasSecret;
  plan.secret = options.secret;
  plan.existingSession = options.sessionId;
  plan.subscriptions = selection.subscriptions();
  plan.receiverName = options.receiverName.empty() ? UniqueReceiverName() : options.receiverName;

  auto proxy = std::make_unique<CmdProxy>();
  CaptureSession session(proxy.get(), &collector, plan);
  const double start = Now();
  if (session.Open(&error) != CaptureSession::OpenResult::kOk) {
    Error(error);
    return kExitFailure;
  }

  Progress progress(isatty(STDERR_FILENO) == 1);
  RunFacts facts;
  int status = kExitOk;
  double nextCheck = start + kHealthPeriod;
  for (;;) {
    wakeup.Wait(kTickMs);
    const double now = Now();
    if (StopRequested() || collector.Done()) break;
    if (options.durationSec > 0 && now - start >= options.durationSec) break;
    progress.Show(collector.traps(), collector.dropped(), now);
    if (now < nextCheck && session.CallbackAlive()) continue;
    nextCheck = now + kHealthPeriod;
    if (session.Check() == CaptureSession::Health::kAlive) {
      session.KeepCallback();
      continue;
    }

    // The command link failed: the service is gone, and the session with it.
    progress.Clear();
    ++facts.gaps;
    const double gapStart = now;
    Error("the modem-monitor service has gone (session " + std::to_string(session.sessionId()) +
          ")" + (options.reconnect ? "; waiting for it to come back" : ""));
    const std::string lost =
        "session " + std::to_string(session.sessionId()) + " lost with the service";
    session.Abandon();
    if (!options.reconnect) {
      facts.sessionOutcome = lost;
      facts.endedWithoutService = true;
      status = kExitFailure;
      break;
    }
    CaptureSession::OpenResult reopened = CaptureSession::OpenResult::kNoService;
    while (!StopRequested() && !collector.Done()) {
      if (options.durationSec > 0 && Now() - start >= options.durationSec) break;
      reopened = session.Open(&error);
      if (reopened != CaptureSession::OpenResult::kNoService) break;
      wakeup.Wait(kRetryMs);
    }
    facts.gapSeconds += Now() - gapStart;
    facts.endedWithoutService = reopened != CaptureSession::OpenResult::kOk;
    if (reopened == CaptureSession::OpenResult::kFailed) {
      Error(error);
      status = kExitFailure;
      break;
    }
    if (reopened == CaptureSession::OpenResult::kOk) {
      Error("the service is back: capturing on session " + std::to_string(session.sessionId()));
    }
  }

  // Measured before the session is closed: what the summary reports is the capture itself.
  facts.seconds = Now() - start;
  const std::string closed = session.Close();
  if (!closed.empty()) facts.sessionOutcome = closed;
  if (!collector.FinishSinks()) {
    Error(file != nullptr && !file->error().empty() ? file->error() : "cannot write the output");
    status = kExitFailure;
  }
  progress.Clear();
  if (options.summary) {
    const std::string summary = FormatSummary(collector.Stats(), facts);
    fwrite(summary.data(), 1, summary.size(), stderr);
    if (file != nullptr && file->lost() != 0) {
      fprintf(stderr, "dropped by the capture: %llu (the capture file fell behind)\n",
              static_cast<unsigned long long>(file->lost()));
    }
  }
  return status;
}

}  // namespace capture
