#include "capture/extcap_main.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "capture/adb_devices.h"
#include "capture/capture_main.h"
#include "capture/capture_options.h"
#include "capture/extcap_listing.h"
#include "capture/extcap_request.h"
#include "capture/phone_capture.h"

namespace capture {
namespace {

// Wireshark asks for the interfaces at every start: a slow adb must not hold it up.
constexpr int kAdbListDeadlineMs = 1500;

int Fail(const std::string& text, int status) {
  fprintf(stderr, "tide_watch_capture: %s\n", text.c_str());
  return status;
}

int Print(const std::string& text) {
  fwrite(text.data(), 1, text.size(), stdout);
  return fflush(stdout) == 0 ? kExitOk : kExitFailure;
}

// Runs the tool's own capture with `args`, as from its command line.
int RunCapture(std::vector<std::string> args) {
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(&a[0]);
  argv.push_back(nullptr);
  return CaptureMain(static_cast<int>(args.size()), argv.data(), CaptureMode::kExtcap);
}

int Capture(const ExtcapRequest& request, InterfaceKind kind, const std::string& serial,
            const char* program) {
  if (kind == InterfaceKind::kLocal) {
    std::vector<std::string> args = {program};
    args.insert(args.end(), request.toolArgs.begin(), request.toolArgs.end());
    args.insert(args.end(), {"-w", "-"});
    return RunCapture(std::move(args));
  }
  PhoneCaptureSetup setup;
  setup.serial = serial;
  setup.tool = request.phoneTool;
  setup.toolArgs = request.toolArgs;
  setup.su = request.su;
  return RunPhoneCapture(setup, STDOUT_FILENO);
}

}  // namespace

int ExtcapMain(int argc, char** argv) {
  ExtcapRequest request;
  std::string error;
  const bool parsed = ParseExtcapRequest(argc, argv, &request, &error);
  const bool capture = request.action == ExtcapRequest::Action::kCapture;
  int fifo = -1;
  if (capture && !request.fifo.empty()) {
    // Opened before anything can fail, so that Wireshark sees the end of the capture at once.
    do {
      fifo = open(request.fifo.c_str(), O_WRONLY | O_CLOEXEC);
    } while (fifo < 0 && errno == EINTR);
    if (fifo < 0) {
      return Fail("cannot open the fifo '" + request.fifo + "': " + strerror(errno), kExitFailure);
    }
  }
  if (!parsed) return Fail(error, kExitUsage);
  std::string serial;
  const InterfaceKind kind = ClassifyInterface(request.interface, &serial);
  if (request.action != ExtcapRequest::Action::kInterfaces && kind == InterfaceKind::kUnknown) {
    return Fail("unknown interface '" + request.interface + "': '" + kLocalInterface +
                    "' or 'tidewatch-<serial>'",
                kExitUsage);
  }
  switch (request.action) {
    case ExtcapRequest::Action::kInterfaces:
      return Print(InterfacesText(ListAdbDevices(kAdbListDeadlineMs)));
    case ExtcapRequest::Action::kDlts:
      return Print(DltsText(request.interface));
    case ExtcapRequest::Action::kConfig:
      return Print(ConfigText(kind));
    case ExtcapRequest::Action::kCapture:
      break;
  }
  // Both captures write pcapng on standard output: there it goes into the fifo.
  if (dup2(fifo, STDOUT_FILENO) < 0) return Fail("cannot use the fifo", kExitFailure);
  close(fifo);
  return Capture(request, kind, serial, argv[0]);
}

}  // namespace capture
