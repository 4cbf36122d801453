// The secrets the tool presents when it asks for a privileged session. The service's configuration
// decides what they must be; these are the values it is set up with.
#pragma once

namespace cli {

constexpr char kManagerSecret[] = "TidewatchManagerAccess";  // level 1
constexpr char kRootSecret[] = "TidewatchRootAccess";        // level 2

}  // namespace cli
