// The current-session file as found in a scratch working directory.
#include "cli/session_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <fstream>
#include <functional>
#include <string>

#include "tests/support/scratch_dir.h"
#include "tests/support/stdout_capture.h"

namespace {

class SessionFileTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(dir_.Enter()); }
  void TearDown() override { EXPECT_TRUE(dir_.Leave()); }

  // Captures what `fn` prints on standard output.
  std::string Printed(const std::function<void()>& fn) {
    return tidewatch_test::CaptureStdout(dir_.path() + "/stdout", fn);
  }

  tidewatch_test::ScratchDir dir_{"session_file_test"};
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
    EXPECT_EQ(dir_.Read("current_session"), std::to_string(id));
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
