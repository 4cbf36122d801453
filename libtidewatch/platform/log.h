// The library's log: one process-wide threshold gates every message, and the platform writes what
// passes (the Android log on a device, standard error on a host) unless a sink takes it instead.
#pragma once

namespace libtidewatch {

// Priorities, on the Android log scale.
enum LogPriority {
  kLogVerbose = 2,
  kLogDebug = 3,
  kLogInfo = 4,
  kLogWarn = 5,
  kLogError = 6,
};

// The tag every library message is written under.
constexpr const char kLogTag[] = "libtidewatch";

// A message of priority P is written only when the threshold is at most P. Starts at 6 (errors).
int GetLogThreshold();
void SetLogThreshold(int threshold);

// Receives every message that passes the threshold, instead of the default output; nullptr restores it.
using LogSink = void (*)(int priority, const char* tag, const char* text);
void SetLogSink(LogSink sink);

// Whether a message of `priority` would be written; callers use it to skip work done only for a log.
bool LogEnabled(int priority);

// Formats and writes one message when the threshold admits `priority`. A text longer than 4000
// bytes is cut there and ends with "...[cut]", for the sink as for the platform's output.
void LogPrint(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace libtidewatch

// The arguments are evaluated only when the message will be written.
#define TW_LOG(priority, ...)                                                  \
  do {                                                                         \
    if (::libtidewatch::LogEnabled(priority)) ::libtidewatch::LogPrint(priority, __VA_ARGS__); \
  } while (0)
#define TW_LOGV(...) TW_LOG(::libtidewatch::kLogVerbose, __VA_ARGS__)
#define TW_LOGD(...) TW_LOG(::libtidewatch::kLogDebug, __VA_ARGS__)
#define TW_LOGI(...) TW_LOG(::libtidewatch::kLogInfo, __VA_ARGS__)
#define TW_LOGW(...) TW_LOG(::libtidewatch::kLogWarn, __VA_ARGS__)
#define TW_LOGE(...) TW_LOG(::libtidewatch::kLogError, __VA_ARGS__)
