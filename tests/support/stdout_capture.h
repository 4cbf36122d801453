// Captures what code under test prints on standard output, for tests that compare it exactly.
#pragma once

#include <functional>
#include <string>

namespace tidewatch_test {

// Runs `fn` with standard output going to the file at `path` (created or truncated, and removed
// afterwards) and returns what it printed. Both C stdio and direct writes to the descriptor count.
std::string CaptureStdout(const std::string& path, const std::function<void()>& fn);

}  // namespace tidewatch_test
