// Runs the real tide_watch_ctrl binary for end-to-end tests: one command to its end, or a trap
// receiver in the background whose output is read line by line as it comes. The child inherits
// this process's environment (so the socket prefix of a running EmulatorProcess) and runs in a
// working directory of the test's choice, where it keeps its current_session file.
#pragma once

#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

#include "tests/support/child_process.h"

namespace tidewatch_test {

struct CtrlResult {
  int status;       // the exit status as the shell sees it (-1 from the tool is 255)
  std::string out;  // everything written on standard output
};

class CtrlProcess {
 public:
  // Runs `binary` (the tool unless given), with standard error dropped, or written to
  // `stderrPath` when that is not empty.
  explicit CtrlProcess(std::string binary = BinaryPath(), std::string stderrPath = "")
      : m_binary(std::move(binary)), m_stderrPath(std::move(stderrPath)) {}
  // Ends (SIGTERM) and reaps a process still running.
  ~CtrlProcess();
  CtrlProcess(const CtrlProcess&) = delete;
  CtrlProcess& operator=(const CtrlProcess&) = delete;

  static std::string BinaryPath();
  // The capture tool, which the same helper runs.
  static std::string CaptureBinaryPath();

  // Starts the tool in `dir` with standard output on a pipe; false when it could not be started.
  bool Start(const std::string& dir, const std::vector<std::string>& args);
  bool Start(const ChildOptions& options, const std::vector<std::string>& args);
  // The next line of output with its line feed, waiting up to `timeoutMs` for it; what arrived so
  // far (without a line feed) when the time ran out or the output ended.
  std::string ReadLine(int timeoutMs = 20000);
  // Everything up to the end of the output, or what came within `timeoutMs` in all.
  std::string ReadAll(int timeoutMs = 30000);
  // Whether the output has ended.
  bool ended() const { return m_fd < 0; }
  // Closes this end of the output, as a reader that goes away does.
  void CloseOutput();
  // Reaps the process after its output ended: its exit status, or -signal (SIGKILL when it has
  // not ended 10 s later).
  int Wait();
  // SIGTERM, then reaps.
  int Stop();

  pid_t pid() const { return m_pid; }

 private:
  // Reads what is there within `timeoutMs` into the buffer; false at the end of the output or on
  // time-out.
  bool Fill(int timeoutMs);

  std::string m_binary;
  std::string m_stderrPath;
  pid_t m_pid = -1;
  int m_fd = -1;
  std::string m_pending;
};

// Runs `tide_watch_ctrl args...` in `dir` to its end. Standard error is dropped.
CtrlResult RunCtrl(const std::string& dir, const std::vector<std::string>& args);
// The same (or `binary` in its place) as the child `options` set it up. A run still going after
// `timeoutMs` is ended with SIGTERM, so that a hang fails the test instead of stalling it.
CtrlResult RunCtrl(const ChildOptions& options, const std::vector<std::string>& args,
                   int timeoutMs = 30000, const std::string& binary = CtrlProcess::BinaryPath());

}  // namespace tidewatch_test
