#include "capture/phone_command.h"

namespace capture {

std::string ShellQuote(const std::string& word) {
  std::string quoted = "'";
  for (char c : word) {
    if (c == '\'') {
      quoted += "'\\''";
    } else {
      quoted += c;
    }
  }
  quoted += '\'';
  return quoted;
}

std::string PhoneCommandLine(const std::string& tool, const std::vector<std::string>& toolArgs,
                             bool su) {
  std::vector<std::string> words;
  if (su) words = {"su", "0"};
  words.insert(words.end(), {tool, "-w", "-"});
  words.insert(words.end(), toolArgs.begin(), toolArgs.end());
  std::string line;
  for (const std::string& word : words) {
    if (!line.empty()) line += ' ';
    line += ShellQuote(word);
  }
  return line;
}

}  // namespace capture
