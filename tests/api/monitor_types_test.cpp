#include "libtidewatch/api/monitor_types.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "libtidewatch/api/api_info.h"
#include "libtidewatch/platform/log.h"
#include "tests/support/log_capture.h"

namespace libtidewatch {
namespace {

TEST(MonitorTypesTest, NamesRoundTripAndMatchExactly) {
  for (uint16_t t = TRAP_TYPE_OTA; t <= TRAP_TYPE_ICD_EVENT; ++t) {
    const char* name = ToTrapStr(static_cast<TRAP_TYPE>(t));
    ASSERT_NE(name, nullptr) << t;
    EXPECT_EQ(StrToTrapType(name), t) << name;
  }
  for (uint16_t t : {0, 1, 9, 10, 0xffff}) EXPECT_EQ(ToTrapStr(static_cast<TRAP_TYPE>(t)), nullptr);
  for (const char* text : {"VOLTE", "volte", "ota", "", "EM ", static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(StrToTrapType(text), TRAP_TYPE_NONE) << (text ? text : "(null)");
  }
  EXPECT_STREQ(ToTrapStr(TRAP_TYPE_VOLTE), "VoLTE");
}

// The codes with an entry are pinned by the encoder's request bytes.
TEST(ApiInfoTest, CodesWithoutEntryAreEmptyAndLoggedOnce) {
  tidewatch_test::LogCapture log(kLogError);
  for (int code : {0, 10, 14, -1}) {
    log.Clear();
    ApiInfo info(static_cast<MONITOR_CMD_CODE>(code));
    EXPECT_EQ(info.api + info.method + std::to_string(info.version), "0") << code;
    EXPECT_EQ(log.Lines(), std::vector<std::string>{"E No entry in API mapping table for code: [" +
                                                    std::to_string(code) + "]"});
  }
}

}  // namespace
}  // namespace libtidewatch
