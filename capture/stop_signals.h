// Ctrl-C and SIGTERM as a request to stop cleanly (the session is closed on the way out); a
// second Ctrl-C ends the process at once. SIGPIPE is ignored, so that a reader going away shows
// as a failed write.
#pragma once

#include "capture/wakeup.h"

namespace capture {

// Installs the handlers; `wakeup` is notified on the first signal and must live as long as the
// process. Call once.
void InstallStopSignals(const Wakeup* wakeup);
// Whether a stop was asked for.
bool StopRequested();

}  // namespace capture
