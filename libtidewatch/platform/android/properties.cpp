#include <sys/system_properties.h>

#include "libtidewatch/platform/properties.h"

namespace libtidewatch {

int GetSystemProperty(const char* name, char* value) { return __system_property_get(name, value); }

}  // namespace libtidewatch
