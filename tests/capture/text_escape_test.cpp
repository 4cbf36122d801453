#include "capture/text_escape.h"

#include <gtest/gtest.h>

#include <string>

namespace capture {
namespace {

TEST(TextEscapeTest, OnlyWhatCouldDriveATerminalIsEscaped) {
  const struct {
    std::string in;
    std::string text;
    std::string json;
  } cases[] = {
      {"LTE_RRC_PAGING", "LTE_RRC_PAGING", R"("LTE_RRC_PAGING")"},
      {"", "", R"("")"},
      {"a\tb\nc\x7f", "a\\x09b\\x0ac\\x7f", R"("a\u0009b\u000ac\u007f")"},
      {"\x1b[31mred", "\\x1b[31mred", R"("\u001b[31mred")"},
      // UTF-8 text stays; C1 controls (U+0080 to U+009F) and bytes that are no UTF-8 do not.
      {"Zelle \xc3\xa9\xe2\x82\xac", "Zelle \xc3\xa9\xe2\x82\xac",
       "\"Zelle \xc3\xa9\xe2\x82\xac\""},
      {"\xc2\x9b"
       "0m",
       "\\xc2\\x9b0m", R"("\u00c2\u009b0m")"},
      {"\xff\xe2\x82", "\\xff\\xe2\\x82", R"("\u00ff\u00e2\u0082")"},
      {"\xed\xa0\x80", "\\xed\\xa0\\x80", R"("\u00ed\u00a0\u0080")"},  // a surrogate
      {"say \"hi\" \\", "say \"hi\" \\", R"("say \"hi\" \\")"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(EscapedText(c.in), c.text);
    std::string json;
    AppendJsonString(&json, c.in);
    EXPECT_EQ(json, c.json);
  }
}

}  // namespace
}  // namespace capture
