// The vocabulary shared by the command side and the trap side: trap types and their names, command
// codes, the service's debug levels, the session status record, and the property comparison used
// to choose a layout file.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace libtidewatch {

enum TRAP_TYPE : uint16_t {
  TRAP_TYPE_NONE = 0,
  TRAP_TYPE_DISCARD_INFO = 1,  // only a record type inside raw trap data; never subscribed
  TRAP_TYPE_OTA = 2,
  TRAP_TYPE_EM = 3,
  TRAP_TYPE_VOLTE = 4,
  TRAP_TYPE_PSTIME = 5,
  TRAP_TYPE_IP = 6,
  TRAP_TYPE_ICD_RECORD = 7,
  TRAP_TYPE_ICD_EVENT = 8,
};
// Sizes every array indexed by trap type.
constexpr size_t TRAP_TYPE_NUM = 9;

enum MONITOR_CMD_CODE : int32_t {
  MONITOR_CMD_CREATE_SESSION = 1,
  MONITOR_CMD_CLOSE_SESSION = 2,
  MONITOR_CMD_SUBSCRIBE_TRAP = 3,
  MONITOR_CMD_UNSUBSCRIBE_TRAP = 4,
  MONITOR_CMD_ENABLE_TRAP = 5,
  MONITOR_CMD_DISABLE_TRAP = 6,
  MONITOR_CMD_SET_TRAP_RECEIVER = 7,
  MONITOR_CMD_GET_SESSION = 8,
  MONITOR_CMD_LIST_SESSION = 9,
  MONITOR_CMD_RESERVED_10 = 10,  // exists, but has no API mapping
  MONITOR_CMD_SET_DEBUG_LEVEL = 11,
  MONITOR_CMD_SET_ICD_IP_PAYLOAD_FORMAT = 12,
  MONITOR_CMD_LIST_ICD_RANGE_INFO = 13,
};

// The service's debug levels; the gap between 6 and 10 is deliberate.
enum MONITOR_DEBUG_LEVEL : int32_t {
  MONITOR_DEBUG_LEVEL_RAW_DATA_DUMPER = 1,
  MONITOR_DEBUG_LEVEL_VERBOSE = 2,
  MONITOR_DEBUG_LEVEL_DEBUG = 3,
  MONITOR_DEBUG_LEVEL_INFO = 4,
  MONITOR_DEBUG_LEVEL_WARN = 5,
  MONITOR_DEBUG_LEVEL_ERROR = 6,
  MONITOR_DEBUG_LEVEL_DISABLE = 10,
};

// A session's status as the get-session command reports it.
struct MONITOR_SESSION_STATUS {
  bool trapEnabled = false;
  // Element t lists the message ids subscribed for trap type t, in the service's order.
  std::vector<uint64_t> subscribedTraps[TRAP_TYPE_NUM];
  std::string trapReceiverHost;
};

// The trap type named exactly (case-sensitively) `str`; TRAP_TYPE_NONE for null or unknown text.
TRAP_TYPE StrToTrapType(const char* str);

// The name of `type` for values 2 to 8, null for any other value. Never freed.
const char* ToTrapStr(TRAP_TYPE type);

// Whether system property `name` equals `expected`; an unset or empty property reads as
// `defaultValue` when that is not null. An empty value never matches.
bool checkSysPropEq(const char* name, const char* expected, const char* defaultValue);

}  // namespace libtidewatch
