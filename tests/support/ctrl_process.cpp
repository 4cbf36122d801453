#include "tests/support/ctrl_process.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>

namespace tidewatch_test {

CtrlResult RunCtrl(const std::string& dir, const std::vector<std::string>& args) {
  ChildOptions options;
  options.dir = dir;
  options.dropStderr = true;
  return RunCtrl(options, args);
}

CtrlResult RunCtrl(const ChildOptions& options, const std::vector<std::string>& args,
                   int timeoutMs, const std::string& binary) {
  CtrlProcess process(binary);
  if (!process.Start(options, args)) return {-1000, ""};
  std::string out = process.ReadAll(timeoutMs);
  return {process.ended() ? process.Wait() : process.Stop(), out};
}

CtrlProcess::~CtrlProcess() {
  Stop();
  CloseOutput();
}

void CtrlProcess::CloseOutput() {
  if (m_fd >= 0) close(m_fd);
  m_fd = -1;
}

std::string CtrlProcess::BinaryPath() { return TIDEWATCH_BIN_DIR "/tide_watch_ctrl"; }

std::string CtrlProcess::CaptureBinaryPath() { return TIDEWATCH_BIN_DIR "/tide_watch_capture"; }

bool CtrlProcess::Start(const std::string& dir, const std::vector<std::string>& args) {
  ChildOptions options;
  options.dir = dir;
  options.dropStderr = true;
  options.stderrPath = m_stderrPath;
  return Start(options, args);
}

bool CtrlProcess::Start(const ChildOptions& options, const std::vector<std::string>& args) {
  // A receiver never ends by itself: StartChild ties it to this thread.
  CloseOutput();
  m_pending.clear();
  return StartChild(m_binary, args, options, &m_pid, &m_fd);
}

bool CtrlProcess::Fill(int timeoutMs) {
  if (m_fd < 0) return false;
  pollfd p{m_fd, POLLIN, 0};
  int n;
  while ((n = poll(&p, 1, timeoutMs)) < 0 && errno == EINTR) {
  }
  if (n <= 0) return false;
  char buf[4096];
  ssize_t got;
  while ((got = read(m_fd, buf, sizeof(buf))) < 0 && errno == EINTR) {
  }
  if (got <= 0) {
    CloseOutput();
    return false;
  }
  m_pending.append(buf, static_cast<size_t>(got));
  return true;
}

std::string CtrlProcess::ReadLine(int timeoutMs) {
  // Each wait gets the whole allowance: this guards against a hang, it measures nothing.
  while (m_pending.find('\n') == std::string::npos && Fill(timeoutMs)) {
  }
  const size_t end = m_pending.find('\n');
  const size_t take = end == std::string::npos ? m_pending.size() : end + 1;
  std::string line = m_pending.substr(0, take);
  m_pending.erase(0, take);
  return line;
}

std::string CtrlProcess::ReadAll(int timeoutMs) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0 || !Fill(static_cast<int>(left.count()))) break;
  }
  std::string all;
  all.swap(m_pending);
  return all;
}

int CtrlProcess::Wait() {
  if (m_pid <= 0) return -1000;
  // A child that closed its output but does not end is killed after a grace time: a hang in the
  // tool must fail the test, not stall it.
  const int status = WaitChild(m_pid, 10000);
  m_pid = -1;
  return status;
}

int CtrlProcess::Stop() {
  if (m_pid > 0) kill(m_pid, SIGTERM);
  return Wait();
}

}  // namespace tidewatch_test
