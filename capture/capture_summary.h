// The summary a capture prints on standard error when it ends, and the one-line progress status
// it keeps up to date on a terminal meanwhile.
#pragma once

#include <cstdint>
#include <string>

#include "capture/capture_stats.h"

namespace capture {

struct RunFacts {
  double seconds = 0;                // from the start of the capture to its end
  uint64_t gaps = 0;                 // times the service went away and came back (or not)
  double gapSeconds = 0;             // time spent without a service
  bool endedWithoutService = false;  // the last gap lasted to the end
  std::string sessionOutcome;        // "session 7 closed", or empty when there was none at the end
};

// Several lines: totals and rate, then traps and bytes per message, dropped traps by type,
// service gaps, and what became of the session.
std::string FormatSummary(const CaptureStats& stats, const RunFacts& facts);

// One line without a line feed: traps, rate, dropped.
std::string FormatProgress(uint64_t traps, double rate, uint64_t dropped);

}  // namespace capture
