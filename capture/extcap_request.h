// What Wireshark asks of the tool when it runs it as an extcap program: list the interfaces, their
// link types or their configuration, or capture on one into a fifo. The arguments that are not the
// protocol's own are the tool's capture options, passed on unchanged.
#pragma once

#include <string>
#include <vector>

namespace capture {

struct ExtcapRequest {
  enum class Action { kInterfaces, kDlts, kConfig, kCapture };
  Action action = Action::kInterfaces;
  std::string interface;  // --extcap-interface
  std::string fifo;       // --fifo, for a capture
  // Phone interfaces only: run the tool through su, and where the tool lies on the phone.
  bool su = false;
  std::string phoneTool = "tide_watch_capture";
  // Everything else, in order: the capture options (--ota, --em, --layout, ...).
  std::vector<std::string> toolArgs;
};

// Whether the command line is an extcap call (any --extcap-* argument or --capture).
bool IsExtcapCall(int argc, char** argv);

// Splits an extcap command line. False with `*error` when it names no action, no interface for
// one that needs it, or a capture without its fifo.
bool ParseExtcapRequest(int argc, char** argv, ExtcapRequest* request, std::string* error);

}  // namespace capture
