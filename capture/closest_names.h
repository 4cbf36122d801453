// Suggests what a user probably meant by a message name that the layout does not know: the known
// names nearest to it by edit distance, ignoring case.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace capture {

// At most `limit` names of `known` close to `wanted`, nearest first (ties in the order given).
// Names too far off to be a typo are left out, so the result may be empty.
std::vector<std::string> ClosestNames(std::string_view wanted,
                                      const std::vector<std::string_view>& known, size_t limit);

}  // namespace capture
