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

class ApiInfoTest : public ::testing::Test {
 protected:
  tidewatch_test::LogCapture log_{kLogError};
};

TEST_F(ApiInfoTest, KnownCodesNameTheirCommand) {
  struct Case {
    int code;
    const char* api;
    const char* method;
  } cases[] = {{1, "Tidewatch.Session", "create"},  {7, "Tidewatch.Trap.Receiver", "set"},
               {8, "Tidewatch.Session", "get"},     {9, "Tidewatch.Session", "list"},
               {11, "Tidewatch.DebugLevel", "set"}, {13, "Tidewatch.ICD.RangeInfo", "list"}};
  for (const Case& c : cases) {
    ApiInfo info(static_cast<MONITOR_CMD_CODE>(c.code));
    EXPECT_EQ(info.api, c.api) << c.code;
    EXPECT_EQ(info.method, c.method) << c.code;
    EXPECT_EQ(info.version, 1u);
  }
  EXPECT_TRUE(log_.Lines(kLogError).empty());
}

TEST_F(ApiInfoTest, CodesWithoutEntryAreEmptyAndLoggedOnce) {
  for (int code : {0, 10, 14, -1}) {
    log_.Clear();
    ApiInfo info(static_cast<MONITOR_CMD_CODE>(code));
    EXPECT_TRUE(info.api.empty());
    EXPECT_TRUE(info.method.empty());
    EXPECT_EQ(info.version, 0u);
    EXPECT_EQ(log_.Lines(kLogError),
              std::vector<std::string>{"E No entry in API mapping table for code: [" +
                                       std::to_string(code) + "]"});
  }
}

}  // namespace
}  // namespace libtidewatch
