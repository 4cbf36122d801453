// PhoneCommandLine: the line adb hands to the phone's shell gives the tool exactly the words it
// was given, patterns and quotes included, as a real shell splits it.
#include "capture/phone_command.h"

#include <gtest/gtest.h>
#include <stdio.h>

#include <string>
#include <vector>

namespace capture {
namespace {

// The words a shell makes of `line`, one per line, with the first (the tool) left out.
std::string ShellWords(const std::string& line) {
  FILE* pipe = popen(("f() { shift; printf '%s\\n' \"$@\"; }; f " + line).c_str(), "r");
  if (pipe == nullptr) return "<popen failed>";
  std::string out;
  char buf[256];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, pipe)) > 0) out.append(buf, n);
  pclose(pipe);
  return out;
}

TEST(PhoneCommandTest, TheToolGetsEveryWordAsGiven) {
  const struct {
    std::vector<std::string> args;
    bool su;
    std::string line;
    std::string words;  // after the tool's name
  } cases[] = {
      {{"--em", "EM_*"},
       false,
       "'tide_watch_capture' '-w' '-' '--em' 'EM_*'",
       "-w\n-\n--em\nEM_*\n"},
      {{"--secret", "it's $HOME; `x` *"},
       false,
       "'tide_watch_capture' '-w' '-' '--secret' 'it'\\''s $HOME; `x` *'",
       "-w\n-\n--secret\nit's $HOME; `x` *\n"},
      {{"--ota", "LTE_RRC_*"},
       true,
       "'su' '0' 'tide_watch_capture' '-w' '-' '--ota' 'LTE_RRC_*'",
       "0\ntide_watch_capture\n-w\n-\n--ota\nLTE_RRC_*\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    const std::string line = PhoneCommandLine("tide_watch_capture", c.args, c.su);
    EXPECT_EQ(line, c.line);
    EXPECT_EQ(ShellWords(line), c.words);
  }
}

}  // namespace
}  // namespace capture
