// System properties, read the way the platform's __system_property_get reads them.
#pragma once

namespace libtidewatch {

// Longest property value including its terminating NUL.
constexpr int kPropValueMax = 92;

// Copies the value of property `name` into `value` (at least kPropValueMax bytes), NUL-terminated,
// and returns its length; an unset property gives 0 and an empty string.
int GetSystemProperty(const char* name, char* value);

}  // namespace libtidewatch
