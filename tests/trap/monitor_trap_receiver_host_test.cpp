// The trap receiver's cases that need the host: the service emulator delivering traps through the
// registered callback, and the unprefixed abstract name "7", which any process on the machine (on
// a device, a real receiver) may hold.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdint>
#include <memory>
#include <string>

#include "libtidewatch/api/json_cmd_encoder.h"
#include "libtidewatch/api/monitor_cmd_proxy.h"
#include "libtidewatch/platform/log.h"
#include "libtidewatch/trap/monitor_trap_receiver.h"
#include "tests/support/emulator_process.h"
#include "tests/support/log_capture.h"
#include "tests/support/monitor_trap_receiver_fixture.h"

namespace libtidewatch {
namespace {

using tidewatch_test::LogCapture;

class MonitorTrapReceiverHostTest : public tidewatch_test::MonitorTrapReceiverFixture {};

// Session 7 without a server name: the destination is "7". The name is shared by every process on
// the machine, so a run that finds it taken cannot check anything.
TEST_F(MonitorTrapReceiverHostTest, NullServerNameUsesTheSessionNumberAlone) {
  LogCapture log(kLogDebug);
  auto receiver = NewReceiver(7, nullptr);
  if (log.Contains("E Fail to setup domain socket.")) {
    GTEST_SKIP() << "the abstract socket name \"7\" is taken by another process";
  }
  ExpectTrapArrives("7", "seven", 1);
}

// Traps pushed by the service emulator through the registered callback, for each generation it may
// publish. The receiver is destroyed while traps keep coming: the detached callbacks then refuse
// them.
TEST_F(MonitorTrapReceiverHostTest, TrapsArriveThroughTheServiceCallback) {
  const struct {
    const char* publish;
    const char* connectLine;
    const char* callbackLine;
    const char* refusedLine;
  } cases[] = {
      {"--aidl", "D MonitorTrapReceiver AIDL service connect: true",
       "D AIDLTidewatchClientCallback MCPReceiver in",
       "D AIDLTidewatchClientCallback MCPReceiver out"},
      {"--hidl", "D MonitorTrapReceiver HIDL service connect: true", "D MCPReceiver in",
       "D MCPReceiver out wo CB"},
  };
  // The command channel need not wait for an AIDL service that is not published.
  setenv("TIDEWATCH_HAL_WAIT_MS", "0", 1);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.publish);
    tidewatch_test::EmulatorProcess emulator;
    // Ids above the encoder's error codes keep a failure from passing for an id.
    ASSERT_TRUE(
        emulator.Start({c.publish, "--first-session-id=100", "--trap-rate=200", "--trap-size=24"}));
    MonitorCmdProxy<JsonCmdEncoder> proxy;
    const uint64_t session = proxy.CreateSession(nullptr);
    ASSERT_NE(session, 0u);
    ASSERT_GT(session, static_cast<uint64_t>(MONITOR_RESULT_BAD_REPLY));

    LogCapture log(kLogDebug);
    Recorder viaService;
    auto receiver = std::make_unique<MonitorTrapReceiver>(session, m_serverName.c_str());
    receiver->userData = &viaService;
    receiver->trapHandler = &Recorder::Handle;
    EXPECT_TRUE(log.Contains(c.connectLine));
    ASSERT_EQ(proxy.SubscribeTrap(0, session, TRAP_TYPE_OTA, 1234, false), 0);
    ASSERT_EQ(proxy.SetTrapReceiver(0, session, m_serverName.c_str()), 0);
    ASSERT_EQ(proxy.EnableTrap(0, session), 0);

    ASSERT_TRUE(viaService.WaitForCount(3));
    EXPECT_TRUE(log.Contains(c.callbackLine));
    for (const Call& call : viaService.Calls()) {
      EXPECT_EQ(call.time, 0u);
      EXPECT_EQ(call.type, TRAP_TYPE_OTA);
      EXPECT_EQ(call.length, 24u);
      EXPECT_FALSE(call.dataNull);
    }
    receiver.reset();
    EXPECT_TRUE(log.WaitForText(c.refusedLine));
    EXPECT_EQ(emulator.Stop(), 0);
  }
}

}  // namespace
}  // namespace libtidewatch
