// tidewatch_hal_emulator: plays the modem-monitor HAL service on a Linux host, over the host HAL
// link, so that the tool can be tried and tested without a device.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "emulator/callback_registry.h"
#include "emulator/command_processor.h"
#include "emulator/command_service.h"
#include "emulator/emulator_options.h"
#include "emulator/link_server.h"
#include "emulator/session_table.h"
#include "emulator/trap_delivery.h"
#include "emulator/trap_records.h"
#include "emulator/trap_source.h"
#include "libtidewatch/platform/log.h"
#include "libtidewatch/trap/frame_decoder.h"

namespace {

int g_stopPipe[2] = {-1, -1};

void OnStopSignal(int) {
  char byte = 1;
  // Nothing to do about a failed write in a signal handler; a full pipe already means "stop".
  ssize_t ignored = write(g_stopPipe[1], &byte, 1);
  (void)ignored;
}

bool InstallSignals() {
  if (pipe2(g_stopPipe, O_CLOEXEC | O_NONBLOCK) != 0) return false;
  struct sigaction sa = {};
  sa.sa_handler = OnStopSignal;
  sigemptyset(&sa.sa_mask);
  sa.sa_flags = SA_RESTART;
  struct sigaction ignore = {};
  ignore.sa_handler = SIG_IGN;
  return sigaction(SIGTERM, &sa, nullptr) == 0 && sigaction(SIGINT, &sa, nullptr) == 0 &&
         sigaction(SIGPIPE, &ignore, nullptr) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  using namespace hal_emulator;
  using libtidewatch::HalGeneration;
  using libtidewatch::SetLogThreshold;
  EmulatorOptions options;
  std::string error;
  if (!ParseEmulatorOptions(argc, argv, &options, &error)) {
    fprintf(stderr, "tidewatch_hal_emulator: %s\n%s", error.c_str(), EmulatorUsage().c_str());
    return 2;
  }
  if (options.help) {
    fputs(EmulatorUsage().c_str(), stdout);
    return 0;
  }
  if (!InstallSignals()) {
    perror("tidewatch_hal_emulator: signals");
    return 1;
  }

  std::vector<ReplayRecord> replay;
  if (!options.trapReplay.empty() &&
      !LoadTrapReplay(options.trapReplay, kMaxReplayRecord, &replay, &error)) {
    fprintf(stderr, "tidewatch_hal_emulator: %s\n", error.c_str());
    return 1;
  }
  // Synthetic traps follow the layout file; replayed ones are sent as they are and need none.
  libtidewatch::FrameDecoder layout;
  if (options.trapReplay.empty()) {
    const std::string path = options.layout.empty() ? DefaultLayoutPath() : options.layout;
    if (!layout.LoadFromDESC(path.c_str())) {
      fprintf(stderr, "tidewatch_hal_emulator: cannot load the layout description file %s\n",
              path.c_str());
      return 1;
    }
  }
  TrapSource source = options.trapReplay.empty() ? TrapSource(&layout, options.trapSize)
                                                 : TrapSource(std::move(replay));

  SessionTable sessions(options.firstSessionId, options.limits);
  CommandProcessor processor(&sessions, options.secrets);
  // The service's debug level is the threshold of its own log.
  processor.SetDebugLevelHook([](int level) { SetLogThreshold(level); });
  CommandService commands(&processor, options.fault, options.verbose);
  CallbackRegistry callbacks(options.maxCallbacks, options.callbackTimeoutMs);
  TrapDelivery delivery(&sessions, &callbacks, std::move(source), options.trapRate);
  LinkServer server(&commands, &callbacks, options.maxClients);

  bool both = !options.aidl && !options.hidl;
  if (((both || options.aidl) && !server.Listen(HalGeneration::kAidl)) ||
      ((both || options.hidl) && !server.Listen(HalGeneration::kHidl))) {
    fprintf(stderr, "tidewatch_hal_emulator: cannot publish the service endpoints\n");
    return 1;
  }
  if (!delivery.Start()) return 1;

  printf("tidewatch_hal_emulator: ready\n");
  fflush(stdout);
  bool ok = server.Run(g_stopPipe[0]);
  delivery.Stop();
  callbacks.Clear();
  return ok ? 0 : 1;
}
