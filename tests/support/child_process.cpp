#include "tests/support/child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

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
  int out[2];
  if (pipe2(out, O_CLOEXEC) != 0) return false;
  pid_t parent = getpid();
  pid_t child = fork();
  if (child < 0) {
    close(out[0]);
    close(out[1]);
    return false;
  }
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(127);
    if (dup2(out[1], STDOUT_FILENO) < 0) _exit(126);
    if (dir != nullptr && chdir(dir) != 0) _exit(126);
    if (errPath != nullptr) {
      int err = open(errPath, O_WRONLY | O_CREAT | O_TRUNC, 0600);
      if (err < 0 || dup2(err, STDERR_FILENO) < 0) _exit(126);
    }
    if (addressSpace.rlim_cur != 0 && setrlimit(RLIMIT_AS, &addressSpace) != 0) _exit(126);
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(out[1]);
  *pid = child;
  *stdoutFd = out[0];
  return true;
}

}  // namespace tidewatch_test
