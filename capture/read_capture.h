// -r: prints the traps of a capture file as the capture that wrote it printed them (the same text
// or JSON lines, byte for byte), filtered by --ota and --em, with no layout needed.
#pragma once

#include "capture/capture_options.h"

namespace capture {

// Returns the exit status: 0 when the whole file was read, 1 when it could not be opened or is
// damaged (after every trap before the damage was printed), 2 for a usage error.
int ReadCapture(const CaptureOptions& options);

}  // namespace capture
