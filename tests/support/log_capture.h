// Captures for tests: of the library's log (while it lives, every message that passes the threshold
// is kept for the test to inspect instead of going to the default output), and of what code under
// test prints on standard output or error, for tests that compare it exactly.
#pragma once

#include <unistd.h>

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace tidewatch_test {

// Sinks are plain functions: one process-wide store, safe from any thread, one capture at a time.
class LogCapture {
 public:
  // Keeps each message past `threshold` as "<V|D|I|W|E> <text>", cut to `maxText` characters.
  explicit LogCapture(int threshold, size_t maxText = std::string::npos);
  // Gives the default output back and restores the threshold found at construction.
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // Every line, or only those logged with `priority`.
  std::vector<std::string> Lines(int priority = -1) const;
  bool Contains(const std::string& line) const;
  size_t Count(const std::string& line) const;
  // Forgets what has been captured so far.
  void Clear();
  // Waits (up to a generous guard time) until some line contains `text`.
  bool WaitForText(const std::string& text) const;

 private:
  static void Sink(int priority, const char* tag, const char* text);

  int m_savedThreshold;
};

// Runs `fn` with `fd` going to the file at `path` (removed afterwards); returns what it received.
std::string CaptureStdout(const std::string& path, const std::function<void()>& fn,
                          int fd = STDOUT_FILENO);

}  // namespace tidewatch_test
