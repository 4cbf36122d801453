#include "cli/session_file.h"

#include <cerrno>
#include <cstdio>

bool GetCurSession(unsigned long& sessionId) {
  FILE* fp = fopen(kCurSessionPath, "rt");
  if (fp == nullptr) {
    printf("Failed to open [%s] for getting session.", kCurSessionPath);
    return false;
  }
  unsigned long long value = 0;
  bool read = fscanf(fp, "%llu", &value) == 1;
  if (read) {
    sessionId = value;
  } else {
    printf("Read sessionId failed.");
  }
  if (fclose(fp) != 0) printf("GetCurSession Failed to close file fp, errno=%d", errno);
  return read;
}

void SetCurSession(unsigned long sessionId) {
  FILE* fp = fopen(kCurSessionPath, "wt");
  if (fp == nullptr) {
    printf("Failed to open [%s] for setting session.", kCurSessionPath);
    return;
  }
  if (fprintf(fp, "%llu", static_cast<unsigned long long>(sessionId)) < 0) {
    printf("Failed to fprintf [%s] for setting session.", kCurSessionPath);
  }
  // Buffered bytes are written here, so a full disk shows up as a failed close.
  if (fclose(fp) != 0) printf("SetCurSession Failed to close file fp, errno=%d", errno);
}
