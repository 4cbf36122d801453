// Host system properties: lines "name=value" in the file named by TIDEWATCH_HOST_PROPERTIES, read
// afresh at every lookup so that a test can change them between calls.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "libtidewatch/platform/properties.h"

namespace libtidewatch {
namespace {

// Reads one line of any length into `line`; false at end of file.
bool ReadLine(FILE* fp, char*& line, size_t& capacity) {
  return getline(&line, &capacity, fp) >= 0;
}

}  // namespace

int GetSystemProperty(const char* name, char* value) {
  value[0] = '\0';
  const char* path = getenv("TIDEWATCH_HOST_PROPERTIES");
  if (name == nullptr || path == nullptr || path[0] == '\0') return 0;
  FILE* fp = fopen(path, "r");
  if (fp == nullptr) return 0;
  size_t nameLen = strlen(name);
  char* line = nullptr;
  size_t capacity = 0;
  int length = 0;
  while (ReadLine(fp, line, capacity)) {
    if (line[0] == '#' || line[0] == '\n' || line[0] == '\0') continue;
    char* eq = strchr(line, '=');
    if (eq == nullptr || static_cast<size_t>(eq - line) != nameLen ||
        memcmp(line, name, nameLen) != 0) {
      continue;
    }
    const char* v = eq + 1;
    size_t n = strcspn(v, "\r\n");
    if (n > static_cast<size_t>(kPropValueMax - 1)) n = kPropValueMax - 1;
    memcpy(value, v, n);
    value[n] = '\0';
    length = static_cast<int>(n);
    break;
  }
  free(line);
  fclose(fp);
  return length;
}

}  // namespace libtidewatch
