// A capture of the library's log for tests: while it lives, every message that passes the
// threshold is kept for the test to inspect instead of going to the default output.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace tidewatch_test {

// Sinks are plain functions, so the captured lines live in one process-wide store: only one
// capture may live at a time. The store is safe to fill from any thread (listener and platform
// threads log too), and outlives the capture for threads that are still finishing a message.
class LogCapture {
 public:
  // Takes the sink and sets `threshold`. Each message is kept as "<letter> <text>" with V, D, I, W
  // or E for its priority, for example "E Bad type: [0]". `maxText` keeps only the start of each
  // text, for tests that log lines of many kilobytes they never compare whole.
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
