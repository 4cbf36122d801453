#include "libtidewatch/api/api_info.h"

#include "libtidewatch/platform/log.h"

namespace libtidewatch {
namespace {

struct ApiRow {
  MONITOR_CMD_CODE code;
  const char* api;
  const char* method;
};

constexpr ApiRow kApiRows[] = {
    {MONITOR_CMD_CREATE_SESSION, "Tidewatch.Session", "create"},
    {MONITOR_CMD_CLOSE_SESSION, "Tidewatch.Session", "close"},
    {MONITOR_CMD_SUBSCRIBE_TRAP, "Tidewatch.Trap", "subscribe"},
    {MONITOR_CMD_UNSUBSCRIBE_TRAP, "Tidewatch.Trap", "unsubscribe"},
    {MONITOR_CMD_ENABLE_TRAP, "Tidewatch.Trap", "enable"},
    {MONITOR_CMD_DISABLE_TRAP, "Tidewatch.Trap", "disable"},
    {MONITOR_CMD_SET_TRAP_RECEIVER, "Tidewatch.Trap.Receiver", "set"},
    {MONITOR_CMD_GET_SESSION, "Tidewatch.Session", "get"},
    {MONITOR_CMD_LIST_SESSION, "Tidewatch.Session", "list"},
    {MONITOR_CMD_SET_DEBUG_LEVEL, "Tidewatch.DebugLevel", "set"},
    {MONITOR_CMD_SET_ICD_IP_PAYLOAD_FORMAT, "Tidewatch.ICD.IPPayloadFormat", "set"},
    {MONITOR_CMD_LIST_ICD_RANGE_INFO, "Tidewatch.ICD.RangeInfo", "list"},
};

// Row of each code, indexed by (code - 1). Code 10 has no row; its slot is masked out below.
constexpr uint8_t kRowOfCode[13] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 0, 9, 10, 11};

// Bit (code - 1) is set for every code that has a row: 1 to 9 and 11 to 13.
constexpr uint32_t kValidCodeMask = 0x1DFF;

}  // namespace

ApiInfo::ApiInfo(MONITOR_CMD_CODE c) : code(c), version(0) {
  uint32_t index = static_cast<uint32_t>(c) - 1u;
  if (index > 12 || (kValidCodeMask & (1u << index)) == 0) {
    TW_LOGE("No entry in API mapping table for code: [%d]", static_cast<int>(c));
    return;
  }
  const ApiRow& row = kApiRows[kRowOfCode[index]];
  api = row.api;
  method = row.method;
  version = 1;
}

}  // namespace libtidewatch
