// Starts one of the project's binaries as a child of the test, with its standard output on a pipe
// that the test reads. The child is killed when the thread that started it ends, so that nothing
// outlives a test binary that crashed.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

namespace tidewatch_test {

struct ChildOptions {
  std::string dir;               // the child's working directory; empty: this process's
  bool dropStderr = false;       // standard error to /dev/null instead of this process's
  std::string stderrPath;        // when set, standard error to this file (created or truncated)
  size_t addressSpaceLimit = 0;  // when set, the child's RLIMIT_AS in bytes
};

// Runs `binary args...`. On success `*pid` is the child and `*stdoutFd` the read end of its
// standard output (close-on-exec); false when the pipe or the fork failed. A child that cannot
// set itself up exits with 126, one whose exec failed with 127.
bool StartChild(const std::string& binary, const std::vector<std::string>& args,
                const ChildOptions& options, pid_t* pid, int* stdoutFd);

}  // namespace tidewatch_test
