// The shell line that runs the capture tool on a phone through `adb exec-out`. adb joins the words
// it is given into one line for the phone's shell, so every word is quoted here: a pattern such as
// EM_* reaches the tool as it was typed, never expanded against the phone's working directory.
#pragma once

#include <string>
#include <vector>

namespace capture {

// `word` in single quotes, any single quote inside written as '\''.
std::string ShellQuote(const std::string& word);

// `tool -w - toolArgs...`, each word quoted; through `su 0` when `su` is set (the form the
// phone's own su takes: user, then the command and its arguments).
std::string PhoneCommandLine(const std::string& tool, const std::vector<std::string>& toolArgs,
                             bool su);

}  // namespace capture
