#include "tests/support/emulator_process.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "tests/support/child_process.h"

namespace tidewatch_test {
namespace {

constexpr char kReadyLine[] = "tidewatch_hal_emulator: ready\n";

int64_t NowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// Reads `fd` until the ready line has arrived (true), or it closed or time ran out (false).
bool WaitForReadyLine(int fd, int timeoutMs) {
  std::string seen;
  int64_t deadline = NowMs() + timeoutMs;
  for (;;) {
    if (seen.find(kReadyLine) != std::string::npos) return true;
    int64_t left = deadline - NowMs();
    if (left <= 0) return false;
    pollfd p{fd, POLLIN, 0};
    int n = poll(&p, 1, static_cast<int>(left));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    char buf[256];
    ssize_t got = read(fd, buf, sizeof(buf));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    seen.append(buf, static_cast<size_t>(got));
  }
}

}  // namespace

EmulatorProcess::EmulatorProcess() {
  static std::atomic<int> counter{0};
  m_prefix = "twtest." + std::to_string(getpid()) + "." + std::to_string(counter++) + ".";
}

EmulatorProcess::~EmulatorProcess() { Kill(); }

std::string EmulatorProcess::BinaryPath() { return TIDEWATCH_BIN_DIR "/tidewatch_hal_emulator"; }

bool EmulatorProcess::Start(const std::vector<std::string>& args, int timeoutMs) {
  Kill();
  m_args = args;
  setenv("TIDEWATCH_HAL_SOCKET_PREFIX", m_prefix.c_str(), 1);
  int out = -1;
  if (!StartChild(BinaryPath(), m_args, ChildOptions(), &m_pid, &out)) return false;
  bool ready = WaitForReadyLine(out, timeoutMs);
  close(out);  // the emulator writes nothing more there, and ignores SIGPIPE
  if (!ready) {
    fprintf(stderr, "%s did not get ready\n", BinaryPath().c_str());
    Kill();
  }
  return ready;
}

int EmulatorProcess::Reap(int graceMs) {
  const int status = WaitChild(m_pid, graceMs);
  m_pid = -1;
  return status;
}

int EmulatorProcess::Stop() {
  if (m_pid <= 0) return -1;
  kill(m_pid, SIGTERM);
  return Reap(20000);
}

void EmulatorProcess::Kill() {
  if (m_pid <= 0) return;
  kill(m_pid, SIGKILL);
  Reap(INT32_MAX);
}

bool EmulatorProcess::Restart(int timeoutMs) {
  std::vector<std::string> args = m_args;
  return Start(args, timeoutMs);
}

}  // namespace tidewatch_test
