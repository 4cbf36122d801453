// Captures what code under test prints on standard output or error, for tests that compare it
// exactly.
#pragma once

#include <unistd.h>

#include <functional>
#include <string>

namespace tidewatch_test {

// Runs `fn` with descriptor `fd` (standard output unless told) going to the file at `path`
// (created or truncated, and removed afterwards) and returns what was written there. Both C stdio
// and direct writes to the descriptor count.
std::string CaptureStdout(const std::string& path, const std::function<void()>& fn,
                          int fd = STDOUT_FILENO);

}  // namespace tidewatch_test
