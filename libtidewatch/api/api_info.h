// Maps a command code to the API name, method and version that name the command to the service,
// from one constant table, so that a request and the check of its reply use the same strings.
#pragma once

#include <cstdint>
#include <string>

#include "libtidewatch/api/monitor_types.h"

namespace libtidewatch {

class ApiInfo {
 public:
  // An unknown code logs an error and leaves empty names and version 0.
  explicit ApiInfo(MONITOR_CMD_CODE code);

  MONITOR_CMD_CODE code;
  std::string api;
  std::string method;
  uint32_t version;
};

}  // namespace libtidewatch
