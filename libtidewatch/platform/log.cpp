#include "libtidewatch/platform/log.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>

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
  // The device's logger keeps about 4 KiB of a message; a longer text is cut here on every
  // platform, marked, so that a huge value (a line of a file, say) costs no more than that.
  static constexpr size_t kMaxText = 4000;
  static constexpr char kCutMark[] = "...[cut]";
  char buffer[kMaxText + sizeof(kCutMark)];
  va_list args;
  va_start(args, format);
  int n = vsnprintf(buffer, kMaxText + 1, format, args);
  va_end(args);
  const char* text = buffer;
  if (n < 0) {
    text = format;  // an unformattable message still says something
  } else if (static_cast<size_t>(n) > kMaxText) {
    memcpy(buffer + kMaxText, kCutMark, sizeof(kCutMark));
  }
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
