// Captures what code under test prints on standard output or error, for tests that compare it
// exactly.
#pragma once

#include <unistd.h>

#include <functional>
#include <string>

namespace tidewatch_test {

// Runs `fn` with `fd` going to the file at `path` (removed afterwards); returns what it received.
std::string CaptureStdout(const std::string& path, const std::function<void()>& fn,
                          int fd = STDOUT_FILENO);

}  // namespace tidewatch_test
