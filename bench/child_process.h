// Starting, waiting for and killing the programs that the process benchmarks measure, with plain
// fork/exec/wait so that the cost of a run is what a shell or a test script would pay for it.
#pragma once

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace tidewatch_bench {

// One child program. The argument vector is built once, so that starting the same command again
// and again costs only the fork and the exec. The child is killed if the benchmark dies first, so
// that no emulator or receiver outlives a crashed run.
class ChildProcess {
 public:
  explicit ChildProcess(std::vector<std::string> argv) : m_args(std::move(argv)) {
    for (std::string& arg : m_args) m_argv.push_back(&arg[0]);
    m_argv.push_back(nullptr);
  }
  ~ChildProcess() { Kill(); }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Starts the program in `dir` (empty: the current directory) with standard input from
  // /dev/null, standard output to `stdoutFd` (or /dev/null when negative) and standard error
  // inherited. False when the fork failed; an exec failure shows as exit status 127.
  bool Start(const std::string& dir, int stdoutFd = -1) {
    const char* cdir = dir.empty() ? nullptr : dir.c_str();
    const pid_t parent = getpid();
    m_pid = fork();
    if (m_pid < 0) return false;
    if (m_pid == 0) {
      // Only async-signal-safe calls between fork and exec.
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (getppid() != parent) _exit(126);
      int null = open("/dev/null", O_RDWR);
      if (null < 0 || dup2(null, STDIN_FILENO) < 0 ||
          dup2(stdoutFd >= 0 ? stdoutFd : null, STDOUT_FILENO) < 0) {
        _exit(126);
      }
      if (null > STDERR_FILENO) close(null);
      if (cdir != nullptr && chdir(cdir) != 0) _exit(126);
      execv(m_argv[0], m_argv.data());
      _exit(127);
    }
    return true;
  }

  // Waits for the child; its exit status, or 128 + signal when a signal ended it, -1 when there
  // is no child.
  int Wait() {
    if (m_pid <= 0) return -1;
    int status = 0;
    pid_t r;
    do {
      r = waitpid(m_pid, &status, 0);
    } while (r < 0 && errno == EINTR);
    m_pid = -1;
    if (r < 0) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

  // Starts, waits and returns the exit status (-1 when it could not be started).
  int Run(const std::string& dir, int stdoutFd = -1) { return Start(dir, stdoutFd) ? Wait() : -1; }

  // Sends `sig` to a running child and reaps it.
  void Kill(int sig = SIGKILL) {
    if (m_pid <= 0) return;
    kill(m_pid, sig);
    Wait();
  }

  pid_t pid() const { return m_pid; }

 private:
  std::vector<std::string> m_args;
  std::vector<char*> m_argv;
  pid_t m_pid = -1;
};

// A private directory under $TMPDIR (or /tmp) for the files a child writes, removed with its
// contents at the end.
class ScratchDir {
 public:
  ScratchDir() {
    const char* tmp = getenv("TMPDIR");
    std::string pattern =
        std::string(tmp != nullptr && tmp[0] != '\0' ? tmp : "/tmp") + "/tw_bench.XXXXXX";
    if (mkdtemp(&pattern[0]) != nullptr) m_path = pattern;
  }
  ~ScratchDir() {
    if (m_path.empty()) return;
    for (const std::string& file : m_files) unlink(file.c_str());
    rmdir(m_path.c_str());
  }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;

  bool ok() const { return !m_path.empty(); }
  const std::string& path() const { return m_path; }
  // The path of `name` in the directory, remembered for removal.
  std::string File(const std::string& name) {
    m_files.push_back(m_path + "/" + name);
    return m_files.back();
  }

 private:
  std::string m_path;
  std::vector<std::string> m_files;
};

}  // namespace tidewatch_bench
