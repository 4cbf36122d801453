// A capture on a phone: the capture tool runs there through `adb -s SERIAL exec-out`, writing
// pcapng on its standard output, and the blocks are passed on into Wireshark's fifo.
#pragma once

#include <string>
#include <vector>

namespace capture {

struct PhoneCaptureSetup {
  std::string serial;
  std::string tool;                   // the tool's name or path on the phone
  std::vector<std::string> toolArgs;  // its capture options, as Wireshark gave them
  bool su = false;
};

// Relays until a stop (SIGTERM, Ctrl-C, the fifo's reader gone: status 0, nothing on standard
// error) or until adb ends. When the phone's tool or adb failed, their words go to standard error
// and the status is 1. `fifoFd` is open for writing and stays the caller's.
int RunPhoneCapture(const PhoneCaptureSetup& setup, int fifoFd);

}  // namespace capture
