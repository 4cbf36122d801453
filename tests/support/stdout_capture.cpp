#include "tests/support/stdout_capture.h"

#include <fcntl.h>

#include <cstdio>
#include <fstream>
#include <sstream>

namespace tidewatch_test {

std::string CaptureStdout(const std::string& path, const std::function<void()>& fn, int fd) {
  fflush(nullptr);
  int saved = dup(fd);
  int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  dup2(file, fd);
  close(file);
  fn();
  fflush(nullptr);
  dup2(saved, fd);
  close(saved);
  std::stringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  unlink(path.c_str());
  return text.str();
}

}  // namespace tidewatch_test
