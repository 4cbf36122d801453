// The capture tool's process entry, with the only exception handler of the program.
#include <cstdio>
#include <exception>

#include "capture/capture_main.h"
#include "capture/extcap_main.h"
#include "capture/extcap_request.h"

int main(int argc, char** argv) {
  try {
    if (capture::IsExtcapCall(argc, argv)) return capture::ExtcapMain(argc, argv);
    return capture::CaptureMain(argc, argv);
  } catch (const std::exception& e) {
    // The JSON layer throws for numbers it refuses to convert; nothing below handles them.
    fprintf(stderr, "tide_watch_capture: unexpected failure: %s\n", e.what());
    return 1;
  }
}
