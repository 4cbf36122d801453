#include "libtidewatch/api/monitor_types.h"

#include <cstring>

#include "libtidewatch/platform/properties.h"

namespace libtidewatch {
namespace {

struct TrapTypeName {
  uint16_t type;
  const char* name;
};

// The one table both conversions read, so that a value and its name cannot disagree.
constexpr TrapTypeName kTrapTypeNames[] = {
    {TRAP_TYPE_OTA, "OTA"},
    {TRAP_TYPE_EM, "EM"},
    {TRAP_TYPE_VOLTE, "VoLTE"},
    {TRAP_TYPE_PSTIME, "PSTIME"},
    {TRAP_TYPE_IP, "IP"},
    {TRAP_TYPE_ICD_RECORD, "ICD_RECORD"},
    {TRAP_TYPE_ICD_EVENT, "ICD_EVENT"},
};
constexpr uint16_t kTrapTypeRows = sizeof(kTrapTypeNames) / sizeof(kTrapTypeNames[0]);

}  // namespace

TRAP_TYPE StrToTrapType(const char* str) {
  if (str == nullptr) return TRAP_TYPE_NONE;
  for (const TrapTypeName& row : kTrapTypeNames) {
    if (strcmp(str, row.name) == 0) return static_cast<TRAP_TYPE>(row.type);
  }
  return TRAP_TYPE_NONE;
}

const char* ToTrapStr(TRAP_TYPE type) {
  // 16-bit arithmetic: values below 2 wrap to large indexes and fall out of the table.
  uint16_t index = static_cast<uint16_t>(static_cast<uint16_t>(type) - TRAP_TYPE_OTA);
  if (index >= kTrapTypeRows) return nullptr;
  return kTrapTypeNames[index].name;
}

bool checkSysPropEq(const char* name, const char* expected, const char* defaultValue) {
  char value[kPropValueMax] = {};
  int length = GetSystemProperty(name, value);
  if (defaultValue != nullptr && length < 1) {
    strncpy(value, defaultValue, kPropValueMax - 1);
    value[kPropValueMax - 1] = '\0';
  }
  size_t n = strlen(value);
  if (n == 0 || expected == nullptr || n != strlen(expected)) return false;
  return strncmp(value, expected, n) == 0;
}

}  // namespace libtidewatch
