// One run of the adb program (TIDEWATCH_ADB, else `adb` on the PATH) with its standard output and
// standard error on pipes, so that the tool can give up on an adb that hangs and can tell adb's
// own complaints from the bytes it relays.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace capture {

class AdbProcess {
 public:
  AdbProcess() = default;
  // Ends (Stop) a process still running.
  ~AdbProcess();
  AdbProcess(const AdbProcess&) = delete;
  AdbProcess& operator=(const AdbProcess&) = delete;

  // The program that plays adb.
  static std::string Program();

  // Starts `Program() args...`. False with `*error` when the pipes or the fork failed; a program
  // that cannot be run shows as exit status 127 with nothing on its output.
  bool Start(const std::vector<std::string>& args, std::string* error);

  // Read ends (close-on-exec, blocking); -1 once closed.
  int outFd() const { return m_out; }
  int errFd() const { return m_err; }
  void CloseOut();
  void CloseErr();

  // Reaps the process if it has ended; true then, with its status in `*status` (exit status, or
  // 128 + signal). Never blocks.
  bool Reap(int* status);
  // SIGTERM, then SIGKILL when it is still there after `graceMs`; reaps it. Closes both pipes
  // first, so that what the process still writes fails.
  void Stop(int graceMs = 2000);

  pid_t pid() const { return m_pid; }

 private:
  pid_t m_pid = -1;
  int m_out = -1;
  int m_err = -1;
};

}  // namespace capture
