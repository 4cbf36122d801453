#include "tests/support/log_capture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>

#include "libtidewatch/platform/log.h"

namespace tidewatch_test {
namespace {

struct Entry {
  int priority;
  std::string line;  // already in the capture's form
};

// Never destroyed: platform threads that outlive a test may still log through the sink while the
// process exits.
struct LogStore {
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<Entry> entries;
  size_t maxText = std::string::npos;
  bool active = false;
};
LogStore& Store() {
  static LogStore* store = new LogStore;
  return *store;
}

std::string Prefix(int priority) {
  bool known = priority >= libtidewatch::kLogVerbose && priority <= libtidewatch::kLogError;
  return std::string(1, known ? "??VDIWE"[priority] : '?') + " ";
}

}  // namespace

LogCapture::LogCapture(int threshold, size_t maxText)
    : m_savedThreshold(libtidewatch::GetLogThreshold()) {
  {
    LogStore& store = Store();
    std::lock_guard<std::mutex> lock(store.mutex);
    if (store.active) ADD_FAILURE() << "a second LogCapture would share the first one's lines";
    store.active = true;
    store.entries.clear();
    store.maxText = maxText;
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
  LogStore& store = Store();
  std::lock_guard<std::mutex> lock(store.mutex);
  std::string line = Prefix(priority);
  line.append(text, std::min(strlen(text), store.maxText));
  store.entries.push_back({priority, std::move(line)});
  store.changed.notify_all();
}

std::vector<std::string> LogCapture::Lines() const {
  std::lock_guard<std::mutex> lock(Store().mutex);
  std::vector<std::string> lines;
  for (const Entry& entry : Store().entries) lines.push_back(entry.line);
  return lines;
}

std::vector<std::string> LogCapture::Lines(int priority) const {
  std::lock_guard<std::mutex> lock(Store().mutex);
  std::vector<std::string> lines;
  for (const Entry& entry : Store().entries) {
    if (entry.priority == priority) lines.push_back(entry.line);
  }
  return lines;
}

bool LogCapture::Contains(const std::string& line) const { return Count(line) > 0; }

size_t LogCapture::Count(const std::string& line) const {
  std::lock_guard<std::mutex> lock(Store().mutex);
  const std::vector<Entry>& entries = Store().entries;
  return std::count_if(entries.begin(), entries.end(),
                       [&](const Entry& entry) { return entry.line == line; });
}

void LogCapture::Clear() {
  std::lock_guard<std::mutex> lock(Store().mutex);
  Store().entries.clear();
}

bool LogCapture::WaitForText(const std::string& text) const {
  LogStore& store = Store();
  std::unique_lock<std::mutex> lock(store.mutex);
  return store.changed.wait_for(lock, std::chrono::seconds(20), [&] {
    return std::any_of(store.entries.begin(), store.entries.end(), [&](const Entry& entry) {
      return entry.line.find(text) != std::string::npos;
    });
  });
}

}  // namespace tidewatch_test
