#include "tests/support/do_main_fixture.h"

#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "tests/support/stdout_capture.h"

namespace tidewatch_test {

void DoMainFixture::SetUp() {
  ASSERT_TRUE(dir_.Enter());
  // On a host, a command that gets as far as sending meets a socket prefix where nothing listens
  // and fails at once; a device's build ignores both variables.
  setenv("TIDEWATCH_HAL_WAIT_MS", "0", 1);
  std::string prefix = "do_main_test." + std::to_string(getpid()) + ".nobody.";
  setenv("TIDEWATCH_HAL_SOCKET_PREFIX", prefix.c_str(), 1);
}

void DoMainFixture::TearDown() { EXPECT_TRUE(dir_.Leave()); }

std::string DoMainFixture::Run(const std::vector<std::string>& args, int* status) {
  std::vector<std::string> storage = {"tide_watch_ctrl"};
  storage.insert(storage.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& s : storage) argv.push_back(&s[0]);
  argv.push_back(nullptr);
  return CaptureStdout(dir_.path() + "/stdout",
                       [&] { *status = m_entry(static_cast<int>(argv.size()) - 1, argv.data()); });
}

void DoMainFixture::WriteSessionFile(const char* content) {
  unlink("current_session");
  if (content == nullptr) return;
  std::ofstream("current_session", std::ios::binary) << content;
}

void DoMainFixture::RunCases(const std::vector<Case>& cases) {
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args + " | file: " + (c.sessionFile ? c.sessionFile : "none"));
    std::vector<std::string> args;
    std::istringstream words(c.args);
    for (std::string word; words >> word;) args.push_back(word);
    WriteSessionFile(c.sessionFile);
    int status = 0;
    EXPECT_EQ(Run(args, &status), c.out);
    EXPECT_EQ(status, c.status);
  }
}

}  // namespace tidewatch_test
