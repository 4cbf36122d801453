#include "capture/stop_signals.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>

namespace capture {
namespace {

const Wakeup* g_wakeup = nullptr;
volatile sig_atomic_t g_stops = 0;

void OnStopSignal(int) {
  if (g_stops++ > 0) {
    static const char kText[] = "tide_watch_capture: interrupted again; exiting at once\n";
    ssize_t ignored = write(STDERR_FILENO, kText, sizeof(kText) - 1);
    (void)ignored;
    _exit(1);
  }
  if (g_wakeup != nullptr) g_wakeup->Notify();
}

}  // namespace

void InstallStopSignals(const Wakeup* wakeup) {
  g_wakeup = wakeup;
  struct sigaction action = {};
  action.sa_handler = OnStopSignal;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  signal(SIGPIPE, SIG_IGN);
}

bool StopRequested() { return g_stops > 0; }

}  // namespace capture
