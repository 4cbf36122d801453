#include "capture/adb_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace capture {

AdbProcess::~AdbProcess() { Stop(); }

std::string AdbProcess::Program() {
  const char* adb = getenv("TIDEWATCH_ADB");
  return adb != nullptr && adb[0] != '\0' ? adb : "adb";
}

bool AdbProcess::Start(const std::vector<std::string>& args, std::string* error) {
  // Everything the child needs is prepared before fork: after it, only exec-safe calls.
  std::vector<std::string> storage = {Program()};
  storage.insert(storage.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& a : storage) argv.push_back(&a[0]);
  argv.push_back(nullptr);
  int out[2], err[2];
  if (pipe2(out, O_CLOEXEC) != 0) {
    *error = std::string("cannot make a pipe for adb: ") + strerror(errno);
    return false;
  }
  if (pipe2(err, O_CLOEXEC) != 0) {
    *error = std::string("cannot make a pipe for adb: ") + strerror(errno);
    close(out[0]);
    close(out[1]);
    return false;
  }
  const pid_t parent = getpid();
  const pid_t child = fork();
  if (child < 0) {
    *error = std::string("cannot start adb: ") + strerror(errno);
    for (int fd : {out[0], out[1], err[0], err[1]}) close(fd);
    return false;
  }
  if (child == 0) {
    // adb must not outlive a tool that was killed outright: it would hold the phone's capture.
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) _exit(127);
    signal(SIGPIPE, SIG_DFL);
    int in = open("/dev/null", O_RDONLY);
    if (in < 0 || dup2(in, STDIN_FILENO) < 0 || dup2(out[1], STDOUT_FILENO) < 0 ||
        dup2(err[1], STDERR_FILENO) < 0) {
      _exit(127);
    }
    execvp(argv[0], argv.data());
    _exit(127);
  }
  close(out[1]);
  close(err[1]);
  m_pid = child;
  m_out = out[0];
  m_err = err[0];
  return true;
}

void AdbProcess::CloseOut() {
  if (m_out >= 0) close(m_out);
  m_out = -1;
}

void AdbProcess::CloseErr() {
  if (m_err >= 0) close(m_err);
  m_err = -1;
}

bool AdbProcess::Reap(int* status) {
  if (m_pid <= 0) return false;
  int raw = 0;
  pid_t done;
  do {
    done = waitpid(m_pid, &raw, WNOHANG);
  } while (done < 0 && errno == EINTR);
  if (done == 0) return false;
  m_pid = -1;
  if (done < 0) {
    *status = 127;
  } else {
    *status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
  }
  return true;
}

void AdbProcess::Stop(int graceMs) {
  CloseOut();
  CloseErr();
  if (m_pid <= 0) return;
  kill(m_pid, SIGTERM);
  int status;
  const timespec step = {0, 10 * 1000 * 1000};
  for (int waited = 0; waited < graceMs; waited += 10) {
    if (Reap(&status)) return;
    nanosleep(&step, nullptr);
  }
  kill(m_pid, SIGKILL);
  while (waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {
  }
  m_pid = -1;
}

}  // namespace capture
