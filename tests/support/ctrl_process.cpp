#include "tests/support/ctrl_process.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tidewatch_test {

CtrlResult RunCtrl(const std::string& dir, const std::vector<std::string>& args) {
  CtrlProcess process;
  if (!process.Start(dir, args)) return {-1000, ""};
  std::string out = process.ReadAll();
  return {process.Wait(), out};
}

CtrlProcess::~CtrlProcess() {
  if (m_pid > 0) Stop();
  if (m_fd >= 0) close(m_fd);
}

std::string CtrlProcess::BinaryPath() { return TIDEWATCH_BIN_DIR "/tide_watch_ctrl"; }

bool CtrlProcess::Start(const std::string& dir, const std::vector<std::string>& args) {
  // Everything the child needs is prepared before fork: after it, only exec-safe calls.
  std::string binary = BinaryPath();
  std::vector<std::string> storage = args;
  std::vector<char*> argv = {&binary[0]};
  for (std::string& a : storage) argv.push_back(&a[0]);
  argv.push_back(nullptr);
  int out[2];
  if (pipe2(out, O_CLOEXEC) != 0) return false;
  pid_t parent = getpid();
  pid_t pid = fork();
  if (pid < 0) {
    close(out[0]);
    close(out[1]);
    return false;
  }
  if (pid == 0) {
    // A receiver never ends by itself: it must not outlive a test binary that crashed.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(127);
    int null = open("/dev/null", O_WRONLY);
    if (chdir(dir.c_str()) != 0 || null < 0 || dup2(out[1], STDOUT_FILENO) < 0 ||
        dup2(null, STDERR_FILENO) < 0) {
      _exit(126);
    }
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(out[1]);
  m_fd = out[0];
  m_pid = pid;
  m_pending.clear();
  return true;
}

bool CtrlProcess::Fill(int timeoutMs) {
  if (m_fd < 0) return false;
  pollfd p{m_fd, POLLIN, 0};
  int n;
  do {
    n = poll(&p, 1, timeoutMs);
  } while (n < 0 && errno == EINTR);
  if (n <= 0) return false;
  char buf[4096];
  ssize_t got;
  do {
    got = read(m_fd, buf, sizeof(buf));
  } while (got < 0 && errno == EINTR);
  if (got <= 0) {
    close(m_fd);
    m_fd = -1;
    return false;
  }
  m_pending.append(buf, static_cast<size_t>(got));
  return true;
}

std::string CtrlProcess::ReadLine(int timeoutMs) {
  // Each wait gets the whole allowance: this guards against a hang, it measures nothing.
  size_t end;
  while ((end = m_pending.find('\n')) == std::string::npos) {
    if (!Fill(timeoutMs)) break;
  }
  size_t take = end == std::string::npos ? m_pending.size() : end + 1;
  std::string line = m_pending.substr(0, take);
  m_pending.erase(0, take);
  return line;
}

std::string CtrlProcess::ReadAll() {
  while (Fill(-1)) {
  }
  std::string all;
  all.swap(m_pending);
  return all;
}

int CtrlProcess::Wait() {
  if (m_pid <= 0) return -1000;
  int status = 0;
  pid_t got;
  do {
    got = waitpid(m_pid, &status, 0);
  } while (got < 0 && errno == EINTR);
  m_pid = -1;
  if (got < 0) return -1000;
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  return WIFSIGNALED(status) ? -WTERMSIG(status) : -1000;
}

int CtrlProcess::Stop() {
  if (m_pid <= 0) return -1000;
  kill(m_pid, SIGTERM);
  return Wait();
}

}  // namespace tidewatch_test
