#include "tests/support/stdout_capture.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>

namespace tidewatch_test {

std::string CaptureStdout(const std::string& path, const std::function<void()>& fn) {
  fflush(stdout);
  int saved = dup(STDOUT_FILENO);
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  dup2(fd, STDOUT_FILENO);
  close(fd);
  fn();
  fflush(stdout);
  dup2(saved, STDOUT_FILENO);
  close(saved);
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  unlink(path.c_str());
  return text.str();
}

}  // namespace tidewatch_test
