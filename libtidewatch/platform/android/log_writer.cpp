// Device log output: the Android log.
#include <android/log.h>

#include "libtidewatch/platform/log_writer.h"

namespace libtidewatch {

void PlatformLogWrite(int priority, const char* tag, const char* text) {
  __android_log_print(priority, tag, "%s", text);
}

}  // namespace libtidewatch
