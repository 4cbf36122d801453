// The host HAL link's environment settings.
#include "libtidewatch/platform/host/host_link_settings.h"

#include <errno.h>

#include <cstdlib>

#include "libtidewatch/platform/log.h"

namespace libtidewatch {
namespace {

// The variable `name` as a non-negative number of milliseconds, or `fallback` when it is unset or
// not one (with a warning, so that a typing slip does not go unnoticed).
long Milliseconds(const char* name, long fallback) {
  const char* text = getenv(name);
  if (text == nullptr || text[0] == '\0') return fallback;
  char* end = nullptr;
  errno = 0;
  long value = strtol(text, &end, 10);
  if (errno != 0 || *end != '\0' || value < 0) {
    TW_LOGW("HAL link: ignoring %s=\"%s\"", name, text);
    return fallback;
  }
  return value;
}

}  // namespace

long HalWaitMs() { return Milliseconds("TIDEWATCH_HAL_WAIT_MS", 1000); }

long HalCallTimeoutMs() { return Milliseconds("TIDEWATCH_HAL_CALL_TIMEOUT_MS", 5000); }

}  // namespace libtidewatch
