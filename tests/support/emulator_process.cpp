#include "tests/support/emulator_process.h"

#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>

namespace tidewatch_test {

EmulatorProcess::EmulatorProcess() {
  static std::atomic<int> counter{0};
  m_prefix = "twtest." + std::to_string(getpid()) + "." + std::to_string(counter++) + ".";
}

std::string EmulatorProcess::BinaryPath() { return TIDEWATCH_BIN_DIR "/tidewatch_hal_emulator"; }

bool EmulatorProcess::Start(const std::vector<std::string>& args, int timeoutMs) {
  Kill();
  m_args = args;
  setenv("TIDEWATCH_HAL_SOCKET_PREFIX", m_prefix.c_str(), 1);
  // Standard error stays this process's, so that the emulator's complaints show in the test log.
  if (!m_process.Start(ChildOptions(), m_args)) return false;
  // The emulator writes nothing more after the ready line, and ignores SIGPIPE.
  std::string line;
  do {
    line = m_process.ReadLine(timeoutMs);
    if (line == "tidewatch_hal_emulator: ready\n") return true;
  } while (!line.empty() && line.back() == '\n');
  fprintf(stderr, "%s did not get ready\n", BinaryPath().c_str());
  Kill();
  return false;
}

void EmulatorProcess::Kill() {
  if (m_process.pid() <= 0) return;
  kill(m_process.pid(), SIGKILL);
  m_process.Wait();
}

}  // namespace tidewatch_test
