// The phones adb can capture on: the serials that `adb devices` lists in state "device". Wireshark
// asks for the interface list at every start, so the answer comes within a deadline whatever adb
// does: missing, hanging, starting its server, or listing nothing.
#pragma once

#include <string>
#include <vector>

namespace capture {

// The serials of `adb devices` output whose state is "device" (not offline, unauthorized, ...).
std::vector<std::string> ParseAdbDevices(const std::string& text);

// Runs `adb devices` and parses what it printed by `deadlineMs`; an adb still running then is
// killed. No phones when adb cannot be run.
std::vector<std::string> ListAdbDevices(int deadlineMs);

}  // namespace capture
