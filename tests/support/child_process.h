// Starts, waits for and ends one of the project's binaries as a child of a test or a benchmark,
// with its standard output on a pipe that the caller reads. The child is killed when the thread
// that started it ends, so that nothing outlives a test or benchmark binary that crashed.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

namespace tidewatch_test {

// Whether this build runs under AddressSanitizer or ThreadSanitizer, which take far more memory
// and time than the code they watch.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
constexpr bool kSanitized = __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
constexpr bool kSanitized = false;
#endif

struct ChildOptions {
  std::string dir;               // the child's working directory; empty: this process's
  bool dropStdout = false;       // standard output to /dev/null instead of a pipe
  bool dropStderr = false;       // standard error to /dev/null instead of this process's
  std::string stderrPath;        // when set, standard error to this file (created or truncated)
  size_t addressSpaceLimit = 0;  // when set, the child's RLIMIT_AS in bytes
};

// Runs `binary args...`. On success `*pid` is the child and `*stdoutFd` the read end of its
// standard output (close-on-exec; -1 with dropStdout); false when the pipe or the fork failed. A
// child that cannot set itself up exits with 126, one whose exec failed with 127.
bool StartChild(const std::string& binary, const std::vector<std::string>& args,
                const ChildOptions& options, pid_t* pid, int* stdoutFd);

// Reaps `pid`, killing it (SIGKILL) when it has not ended within `graceMs`: its exit status,
// -signal when a signal ended it, -1000 when it is no child of this process.
int WaitChild(pid_t pid, int graceMs);

// Runs `command` with /bin/sh: its standard output, and in `*status` its exit status (-1 when a
// signal ended it). Callers bound it with timeout(1), since a shell line can hang.
std::string RunShell(const std::string& command, int* status = nullptr);

}  // namespace tidewatch_test
