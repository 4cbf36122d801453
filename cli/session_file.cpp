#include "cli/session_file.h"

#include <fcntl.h>
#include <unistd.h>

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
  // The id goes to a file of its own in the same folder, which then replaces the old one in one
  // step: a run reading the file meanwhile finds the old id or the new one, never an empty file.
  char tempPath[sizeof(kCurSessionPath) + 32];
  snprintf(tempPath, sizeof(tempPath), "%s.%ld.tmp", kCurSessionPath, static_cast<long>(getpid()));
  unlink(tempPath);  // left by a run of the same pid that was killed
  int fd = open(tempPath, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  FILE* fp = fd < 0 ? nullptr : fdopen(fd, "wt");
  if (fp == nullptr) {
    if (fd >= 0) close(fd);
    unlink(tempPath);
    printf("Failed to open [%s] for setting session.", kCurSessionPath);
    return;
  }
  bool ok = true;
  if (fprintf(fp, "%llu", static_cast<unsigned long long>(sessionId)) < 0) {
    printf("Failed to fprintf [%s] for setting session.", kCurSessionPath);
    ok = false;
  }
  // Buffered bytes are written here, so a full disk shows up as a failed close.
  if (fclose(fp) != 0) {
    printf("SetCurSession Failed to close file fp, errno=%d", errno);
    ok = false;
  }
  // A file that could not be written whole leaves the old one in place.
  if (!ok) {
    unlink(tempPath);
    return;
  }
  // A folder in the file's place refuses the rename, as it refused being opened for writing.
  if (rename(tempPath, kCurSessionPath) != 0) {
    unlink(tempPath);
    printf("Failed to open [%s] for setting session.", kCurSessionPath);
  }
}
