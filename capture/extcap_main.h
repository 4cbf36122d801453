// The tool as Wireshark runs it from its extcap folder: interface listing, link types,
// configuration, and captures into Wireshark's fifo, locally or on a phone over adb.
#pragma once

namespace capture {

// Runs an extcap call (IsExtcapCall); returns the exit status. A capture that cannot start opens
// the fifo first, writes nothing into it and says why on standard error: Wireshark otherwise waits
// for the fifo forever. A normal stop writes nothing on standard error, which Wireshark would show
// as an error.
int ExtcapMain(int argc, char** argv);

}  // namespace capture
