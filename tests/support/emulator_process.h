// Runs the real tidewatch_hal_emulator binary for a test: under a socket prefix of its own (which
// the test process also takes, through TIDEWATCH_HAL_SOCKET_PREFIX), with extra arguments, waiting
// for its ready line; and ends it gracefully or abruptly, restarts it and reaps it. The emulator is
// killed when the thread that started it ends, so start it from the test's own thread.
#pragma once

#include <string>
#include <vector>

#include "tests/support/ctrl_process.h"

namespace tidewatch_test {

class EmulatorProcess {
 public:
  // Picks a prefix no other test or process uses.
  EmulatorProcess();
  // Kills and reaps a process still running.
  ~EmulatorProcess() { Kill(); }
  EmulatorProcess(const EmulatorProcess&) = delete;
  EmulatorProcess& operator=(const EmulatorProcess&) = delete;

  static std::string BinaryPath();

  // Sets TIDEWATCH_HAL_SOCKET_PREFIX in this process, starts the binary with `args` and waits up
  // to `timeoutMs` for its ready line. False (and nothing left running) when it did not come.
  bool Start(const std::vector<std::string>& args = {}, int timeoutMs = 20000);
  // SIGTERM, then reaps; the exit status, or -signal when a signal ended it (SIGKILL after 10 s).
  int Stop() { return m_process.Stop(); }
  // SIGKILL, then reaps: the service dies without a word, as for death tests.
  void Kill();
  // Starts again with the same prefix and arguments, after Stop or Kill.
  bool Restart(int timeoutMs = 20000) { return Start(std::vector<std::string>(m_args), timeoutMs); }

  bool running() const { return m_process.pid() > 0; }
  const std::string& prefix() const { return m_prefix; }

 private:
  std::string m_prefix;
  std::vector<std::string> m_args;
  CtrlProcess m_process{BinaryPath()};
};

}  // namespace tidewatch_test
