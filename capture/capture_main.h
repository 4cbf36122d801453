// The capture tool from its command line to its exit status: options, layout and selection,
// then the session and the output until a stop, then the summary.
#pragma once

namespace capture {

// Where the tool runs: from a terminal or a script, or under Wireshark (extcap), where anything on
// standard error after a normal stop shows as an error, so the summary is left out.
enum class CaptureMode { kTerminal, kExtcap };

// Runs the tool; returns the exit status (0 normal stop, 1 failure at run time, 2 usage error).
int CaptureMain(int argc, char** argv, CaptureMode mode = CaptureMode::kTerminal);

}  // namespace capture
