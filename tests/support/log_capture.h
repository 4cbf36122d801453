// A capture of the library's log for tests: while it lives, every message that passes the
// threshold is kept for the test to inspect instead of going to the default output.
#pragma once

#include <cstddef>
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

}  // namespace tidewatch_test
