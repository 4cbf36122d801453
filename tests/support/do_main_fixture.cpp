#include "tests/support/do_main_fixture.h"

#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "tests/support/log_capture.h"

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

void DoMainFixture::RunCases(const std::vector<Case>& cases) {
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args + " | file: " + (c.sessionFile ? c.sessionFile : "none"));
    unlink("current_session");
    if (c.sessionFile != nullptr) std::ofstream("current_session") << c.sessionFile;
    std::vector<std::string> storage = {"tide_watch_ctrl"};
    std::istringstream words(c.args);
    for (std::string word; words >> word;) storage.push_back(word);
    std::vector<char*> argv;
    for (std::string& s : storage) argv.push_back(&s[0]);
    argv.push_back(nullptr);
    int status = 0;
    EXPECT_EQ(
        CaptureStdout(dir_.path() + "/stdout",
                      [&] { status = m_entry(static_cast<int>(argv.size()) - 1, argv.data()); }),
        c.out);
    EXPECT_EQ(status, c.status);
    // Without a service no command succeeds, and a failed one never touches the file.
    EXPECT_EQ(c.sessionFile ? dir_.Read("current_session") : "",
              c.sessionFile ? c.sessionFile : "");
  }
}

}  // namespace tidewatch_test
