// The current-session file as found in a scratch working directory.
#include "cli/session_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

namespace {

class SessionFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string tmpl = ::testing::TempDir() + "session_file_test_XXXXXX";
    ASSERT_NE(mkdtemp(&tmpl[0]), nullptr);
    dir_ = tmpl;
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof(cwd)), nullptr);
    oldCwd_ = cwd;
    ASSERT_EQ(chdir(dir_.c_str()), 0);
  }

  void TearDown() override {
    unlink("current_session");
    rmdir("current_session");
    EXPECT_EQ(chdir(oldCwd_.c_str()), 0);
    rmdir(dir_.c_str());
  }

  // Captures what `fn` prints on standard output.
  template <class Fn>
  std::string Printed(Fn fn) {
    std::string path = dir_ + "/stdout";
    fflush(stdout);
    int saved = dup(STDOUT_FILENO);
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(fd, STDOUT_FILENO);
    close(fd);
    fn();
    fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);
    std::string out = Content(path);
    unlink(path.c_str());
    return out;
  }

  static std::string Content(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }

  std::string dir_;
  std::string oldCwd_;
};

TEST_F(SessionFileTest, ReadsTheFirstNumber) {
  struct Case {
    const char* content;  // null: no file
    bool read;
    unsigned long id;  // what the variable holds afterwards; it starts at 99
    const char* printed;
  } cases[] = {
      {"42", true, 42, ""},
      {"42\n", true, 42, ""},
      {"  \n\t17 trailing words", true, 17, ""},
      {"0", true, 0, ""},
      {"18446744073709551615", true, ULONG_MAX, ""},
      {"abc", false, 99, "Read sessionId failed."},
      {"", false, 99, "Read sessionId failed."},
      {"\n", false, 99, "Read sessionId failed."},
      {nullptr, false, 99, "Failed to open [./current_session] for getting session."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string("content: [") + (c.content ? c.content : "no file") + "]");
    unlink("current_session");
    if (c.content) std::ofstream("current_session", std::ios::binary) << c.content;
    unsigned long id = 99;
    bool read = false;
    EXPECT_EQ(Printed([&] { read = GetCurSession(id); }), c.printed);
    EXPECT_EQ(read, c.read);
    EXPECT_EQ(id, c.id);
  }
}

TEST_F(SessionFileTest, WriteReplacesTheContentWithoutNewline) {
  std::ofstream("current_session") << "123456789 and more text";
  for (unsigned long id : {7ul, 0ul, ULONG_MAX}) {
    EXPECT_EQ(Printed([&] { SetCurSession(id); }), "");
    EXPECT_EQ(Content("current_session"), std::to_string(id));
    unsigned long back = 1;
    Printed([&] { EXPECT_TRUE(GetCurSession(back)); });
    EXPECT_EQ(back, id);
  }
}

TEST_F(SessionFileTest, UnwritablePathIsReportedOnly) {
  ASSERT_EQ(mkdir("current_session", 0700), 0);
  EXPECT_EQ(Printed([] { SetCurSession(3); }),
            "Failed to open [./current_session] for setting session.");
}

}  // namespace
