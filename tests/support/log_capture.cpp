#include "tests/support/log_capture.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>

#include "libtidewatch/platform/log.h"

namespace tidewatch_test {
namespace {

// Never destroyed: platform threads that outlive a test may still log through the sink while the
// process exits.
struct LogStore {
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::string> lines;  // already in the capture's form
  size_t maxText = std::string::npos;
  bool active = false;
};
LogStore& Store() {
  static LogStore* store = new LogStore;
  return *store;
}

char Letter(int priority) {
  bool known = priority >= libtidewatch::kLogVerbose && priority <= libtidewatch::kLogError;
  return known ? "??VDIWE"[priority] : '?';
}

}  // namespace

LogCapture::LogCapture(int threshold, size_t maxText)
    : m_savedThreshold(libtidewatch::GetLogThreshold()) {
  {
    std::lock_guard<std::mutex> lock(Store().mutex);
    if (Store().active) ADD_FAILURE() << "a second LogCapture would share the first one's lines";
    Store().active = true;
    Store().lines.clear();
    Store().maxText = maxText;
  }
  libtidewatch::SetLogSink(&Sink);
  libtidewatch::SetLogThreshold(threshold);
}

LogCapture::~LogCapture() {
  libtidewatch::SetLogThreshold(m_savedThreshold);
  libtidewatch::SetLogSink(nullptr);
  std::lock_guard<std::mutex> lock(Store().mutex);
  Store().active = false;
}

void LogCapture::Sink(int priority, const char* /*tag*/, const char* text) {
  std::lock_guard<std::mutex> lock(Store().mutex);
  std::string line = {Letter(priority), ' '};
  line.append(text, std::min(strlen(text), Store().maxText));
  Store().lines.push_back(std::move(line));
  Store().changed.notify_all();
}

std::vector<std::string> LogCapture::Lines(int priority) const {
  std::lock_guard<std::mutex> lock(Store().mutex);
  std::vector<std::string> lines;
  for (const std::string& line : Store().lines) {
    if (priority < 0 || line[0] == Letter(priority)) lines.push_back(line);
  }
  return lines;
}

bool LogCapture::Contains(const std::string& line) const { return Count(line) > 0; }

size_t LogCapture::Count(const std::string& line) const {
  std::lock_guard<std::mutex> lock(Store().mutex);
  return std::count(Store().lines.begin(), Store().lines.end(), line);
}

void LogCapture::Clear() {
  std::lock_guard<std::mutex> lock(Store().mutex);
  Store().lines.clear();
}

bool LogCapture::WaitForText(const std::string& text) const {
  std::unique_lock<std::mutex> lock(Store().mutex);
  return Store().changed.wait_for(lock, std::chrono::seconds(20), [&] {
    return std::any_of(Store().lines.begin(), Store().lines.end(), [&](const std::string& line) {
      return line.find(text) != std::string::npos;
    });
  });
}

std::string CaptureStdout(const std::string& path, const std::function<void()>& fn, int fd) {
  fflush(nullptr);
  int saved = dup(fd);
  int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  dup2(file, fd);
  close(file);
  fn();
  fflush(nullptr);
  dup2(saved, fd);
  close(saved);
  std::stringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  unlink(path.c_str());
  return text.str();
}

}  // namespace tidewatch_test
