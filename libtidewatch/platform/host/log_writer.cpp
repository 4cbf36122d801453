// Host log output: one line per message on standard error, "<P> <tag>: <text>".
#include <unistd.h>

#include <cstring>
#include <string>

#include "libtidewatch/platform/log_writer.h"

namespace libtidewatch {

void PlatformLogWrite(int priority, const char* tag, const char* text) {
  static const char kLetters[] = "VDIWE";
  char letter = (priority >= 2 && priority <= 6) ? kLetters[priority - 2] : '?';
  std::string line;
  line.reserve(strlen(tag) + strlen(text) + 8);
  line += letter;
  line += ' ';
  line += tag;
  line += ": ";
  line += text;
  if (line.back() != '\n') line += '\n';
  // One write per line keeps lines whole when several threads log at once.
  size_t done = 0;
  while (done < line.size()) {
    ssize_t n = write(STDERR_FILENO, line.data() + done, line.size() - done);
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
}

}  // namespace libtidewatch
