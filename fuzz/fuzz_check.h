// What every fuzz target shares: a check that ends the run with a crash report when a property of
// the code under test is broken, and a log sink that formats each message (so that a bad format
// argument still trips the sanitizers) without printing it.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "libtidewatch/platform/log.h"

#define FUZZ_CHECK(cond)                                                          \
  do {                                                                            \
    if (!(cond)) {                                                                \
      fprintf(stderr, "%s:%d: property broken: %s\n", __FILE__, __LINE__, #cond); \
      __builtin_trap();                                                           \
    }                                                                             \
  } while (0)

namespace tidewatch_fuzz {

inline void SwallowLog(int /*priority*/, const char* tag, const char* text) {
  // Reading the texts makes an unterminated or dangling argument visible to ASan.
  volatile size_t n = strlen(tag) + strlen(text);
  (void)n;
}

// Routes the library's log into SwallowLog and lets messages of `threshold` and above through.
inline void QuietLog(int threshold) {
  libtidewatch::SetLogSink(SwallowLog);
  libtidewatch::SetLogThreshold(threshold);
}

// Where a target may put scratch files it rewrites on every run: $TMPDIR when set, else memory
// (/dev/shm), else /tmp, else the device's shell scratch folder.
inline std::string ScratchDir() {
  const char* dir = getenv("TMPDIR");
  if (dir != nullptr && dir[0] != '\0') return dir;
  for (const char* candidate : {"/dev/shm", "/tmp"}) {
    if (access(candidate, W_OK) == 0) return candidate;
  }
  return "/data/local/tmp";
}

}  // namespace tidewatch_fuzz
