// The capture tool from its command line to its exit status: options, layout and selection,
// then the session and the output until a stop, then the summary.
#pragma once

namespace capture {

// Runs the tool; returns the exit status (0 normal stop, 1 failure at run time, 2 usage error).
int CaptureMain(int argc, char** argv);

}  // namespace capture
