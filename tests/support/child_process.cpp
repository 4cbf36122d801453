#include "tests/support/child_process.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>

namespace tidewatch_test {

bool StartChild(const std::string& binary, const std::vector<std::string>& args,
                const ChildOptions& options, pid_t* pid, int* stdoutFd) {
  // Everything the child needs is prepared before fork: after it, only exec-safe calls.
  std::string path = binary;
  std::vector<std::string> storage = args;
  std::vector<char*> argv = {&path[0]};
  for (std::string& a : storage) argv.push_back(&a[0]);
  argv.push_back(nullptr);
  const char* dir = options.dir.empty() ? nullptr : options.dir.c_str();
  const char* errPath = options.stderrPath.empty() ? nullptr : options.stderrPath.c_str();
  if (errPath == nullptr && options.dropStderr) errPath = "/dev/null";
  const rlimit addressSpace = {options.addressSpaceLimit, options.addressSpaceLimit};
  int out[2] = {-1, -1};
  if (!options.dropStdout && pipe2(out, O_CLOEXEC) != 0) return false;
  pid_t parent = getpid();
  pid_t child = fork();
  if (child < 0) {
    if (out[0] >= 0) close(out[0]);
    if (out[1] >= 0) close(out[1]);
    return false;
  }
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(127);
    int stdoutTo = out[1] >= 0 ? out[1] : open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (stdoutTo < 0 || dup2(stdoutTo, STDOUT_FILENO) < 0) _exit(126);
    if (dir != nullptr && chdir(dir) != 0) _exit(126);
    if (errPath != nullptr) {
      int err = open(errPath, O_WRONLY | O_CREAT | O_TRUNC, 0600);
      if (err < 0 || dup2(err, STDERR_FILENO) < 0) _exit(126);
    }
    if (addressSpace.rlim_cur != 0 && setrlimit(RLIMIT_AS, &addressSpace) != 0) _exit(126);
    execv(argv[0], argv.data());
    _exit(127);
  }
  if (out[1] >= 0) close(out[1]);
  *pid = child;
  *stdoutFd = out[0];
  return true;
}

int WaitChild(pid_t pid, int graceMs) {
  // A pidfd turns readable when the child ends, so that a benchmark's timed wait carries no
  // polling delay; without one (old kernels) the wait polls.
  const int pidFd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(graceMs);
  int status = 0;
  pid_t got;
  while ((got = waitpid(pid, &status, WNOHANG)) == 0 || (got < 0 && errno == EINTR)) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      kill(pid, SIGKILL);
      do {
        got = waitpid(pid, &status, 0);
      } while (got < 0 && errno == EINTR);
      break;
    }
    pollfd p = {pidFd, POLLIN, 0};
    if (pidFd < 0 || poll(&p, 1, static_cast<int>(left.count())) < 0) usleep(2000);
  }
  if (pidFd >= 0) close(pidFd);
  if (got < 0) return -1000;
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  return WIFSIGNALED(status) ? -WTERMSIG(status) : -1000;
}

std::string RunShell(const std::string& command, int* status) {
  std::string out;
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return "<popen failed>";
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, pipe)) > 0) out.append(buf, n);
  const int raw = pclose(pipe);
  if (status != nullptr) *status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  return out;
}

}  // namespace tidewatch_test
