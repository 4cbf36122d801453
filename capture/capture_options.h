// The capture tool's command line: what to subscribe, where the layout comes from, how to show
// traps and when to stop. Parsed with CLI11 so that every option has its help text and example.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "libtidewatch/api/monitor_types.h"

namespace capture {

enum class OutputFormat { kText, kJson };

struct CaptureOptions {
  // Selectors as given, comma lists already split: an id, a layout name or a name pattern.
  std::vector<std::string> ota;
  std::vector<std::string> em;
  std::string layoutPath;  // empty: the layout the system chooses, then the usual fallbacks
  bool listMessages = false;

  bool hasSecret = false;
  std::string secret;
  uint64_t sessionId = 0;    // 0: create a session of our own
  std::string receiverName;  // empty: a name unique to this run

  uint64_t count = 0;      // stop after this many traps; 0: no limit
  double durationSec = 0;  // stop after this long; 0: no limit
  bool reconnect = true;   // carry on after the service restarts
  OutputFormat format = OutputFormat::kText;
  bool quiet = false;      // no per-trap lines
  std::string reportPath;  // the HTML report to write at the end; empty: none
  bool summary = true;     // the summary on standard error at the end
  bool verbose = false;    // the library's own log lines on standard error

  std::string writePath;     // -w: a pcapng file ("-": standard output); empty: none
  double ringMegabytes = 0;  // -C: a new file at this size (10^6 bytes); 0: one file
  uint64_t ringFiles = 0;    // -W: keep at most this many ring files; 0: all
  std::string readPath;      // -r: print this capture file instead of capturing
};

// Every selector with the trap type it selects for: the --ota ones, then the --em ones, as given.
std::vector<std::pair<libtidewatch::TRAP_TYPE, std::string>> Selectors(
    const CaptureOptions& options);

// Exit statuses of the tool.
constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

// Parses the command line into `*options`. Returns -1 when the capture should run; otherwise the
// exit status, after printing the help (status 0) or what is wrong (status 2).
int ParseCaptureOptions(int argc, char** argv, CaptureOptions* options);

}  // namespace capture
