#include "libtidewatch/platform/log.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <string>

#include "libtidewatch/platform/log_writer.h"

namespace libtidewatch {
namespace {

std::atomic<int> g_threshold{kLogError};
std::atomic<LogSink> g_sink{nullptr};

}  // namespace

int GetLogThreshold() { return g_threshold.load(std::memory_order_relaxed); }

void SetLogThreshold(int threshold) { g_threshold.store(threshold, std::memory_order_relaxed); }

void SetLogSink(LogSink sink) { g_sink.store(sink, std::memory_order_release); }

bool LogEnabled(int priority) { return GetLogThreshold() <= priority; }

void LogPrint(int priority, const char* format, ...) {
  if (!LogEnabled(priority)) return;
  char small[512];
  va_list args;
  va_start(args, format);
  va_list copy;
  va_copy(copy, args);
  int n = vsnprintf(small, sizeof(small), format, args);
  va_end(args);
  std::string large;
  const char* text = small;
  if (n < 0) {
    text = format;  // an unformattable message still says something
  } else if (static_cast<size_t>(n) >= sizeof(small)) {
    large.resize(static_cast<size_t>(n) + 1);
    vsnprintf(&large[0], large.size(), format, copy);
    large.resize(static_cast<size_t>(n));
    text = large.c_str();
  }
  va_end(copy);
  LogSink sink = g_sink.load(std::memory_order_acquire);
  if (sink != nullptr) {
    sink(priority, kLogTag, text);
  } else {
    PlatformLogWrite(priority, kLogTag, text);
  }
}

// Build identification, written once when the library is loaded into a process.
__attribute__((constructor)) static void on_load_libtidewatch_binary() {
  TW_LOGI("libtidewatch loaded: platform %s, built %s %s with %s", TIDEWATCH_BUILD_PLATFORM,
          __DATE__, __TIME__, TIDEWATCH_BUILD_COMPILER);
}

}  // namespace libtidewatch
