// Writing text that comes from outside (the service, a layout file) so that it cannot drive the
// user's terminal or break the output's syntax: control characters, C1 controls and bytes that are
// not UTF-8 are escaped; everything else is copied as it is.
#pragma once

#include <string>
#include <string_view>

namespace capture {

// For plain text: each such byte as \xNN.
void AppendEscapedText(std::string* out, std::string_view text);
std::string EscapedText(std::string_view text);

// For a JSON string, quotes included: " and \ escaped, each such byte as \u00NN (so the result is
// valid JSON even for bytes that are not UTF-8).
void AppendJsonString(std::string* out, std::string_view text);

}  // namespace capture
