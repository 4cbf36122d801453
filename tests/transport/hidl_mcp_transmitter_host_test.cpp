// Every case needs the host HAL link: the emulator, or a prefix where no service listens.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "libtidewatch/api/json_cmd_encoder.h"
#include "libtidewatch/platform/log.h"
#include "libtidewatch/transport/hidl_mcp_transmitter.h"
#include "tests/support/emulator_process.h"
#include "tests/support/log_capture.h"

namespace libtidewatch {
namespace {

using tidewatch_test::EmulatorProcess;
using tidewatch_test::LogCapture;

class HIDLMCPTransmitterTest : public ::testing::Test {
 protected:
  void SetUp() override { SetWaitMs(300); }
  void TearDown() override { unsetenv("TIDEWATCH_HAL_WAIT_MS"); }

  // How long the blocking AIDL lookup waits; short where the service is absent on purpose.
  static void SetWaitMs(int ms) { setenv("TIDEWATCH_HAL_WAIT_MS", std::to_string(ms).c_str(), 1); }

  // Sends list-session; true when the service answered it (refusing: there is no session).
  static bool SendsAndGetsReply(HIDLMCPTransmitter& tx) {
    std::vector<uint64_t> ids;
    const int32_t result = JsonCmdEncoder(&tx).ListSession(0, ids);
    EXPECT_NE(result, 0);
    return result != MONITOR_RESULT_SEND_FAILED && result != MONITOR_RESULT_BAD_REPLY;
  }

  // Polls `done` until it holds, within a generous guard time.
  static bool Eventually(const std::function<bool()>& done) {
    for (int i = 0; i < 2000; ++i) {
      if (done()) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  }

  static constexpr char kAidlConnected[] = "D HIDLMCPTransmitter AIDL service connect: true";
  static constexpr char kHidlConnected[] = "D HIDLMCPTransmitter HIDL service connect: true";
  static constexpr char kHidlFailed[] = "E HIDLMCPTransmitter HIDL service connect: false";
  static constexpr char kDied[] = "E HIDLMCPTransmitter :: serviceDied";

  EmulatorProcess emulator;
};

// A death reconnects by itself, maybe twice (a dying endpoint may still accept), never by a Send.
TEST_F(HIDLMCPTransmitterTest, ReconnectsAidlOnDeath) {
  SetWaitMs(20000);
  ASSERT_TRUE(emulator.Start());  // both generations published: AIDL is preferred
  LogCapture log(kLogDebug);
  HIDLMCPTransmitter tx("death");
  ASSERT_TRUE(SendsAndGetsReply(tx));
  emulator.Kill();
  ASSERT_TRUE(emulator.Restart());
  // Reconnected before any Send could have done it.
  ASSERT_TRUE(Eventually([&] { return log.Count(kAidlConnected) >= 2; }));
  ASSERT_TRUE(Eventually([&] { return SendsAndGetsReply(tx); }));
  EXPECT_TRUE(tx.CheckValid());
  EXPECT_EQ(log.Count(kAidlConnected), log.Count(kDied) + 1);
  EXPECT_EQ(log.Count(kHidlFailed) + log.Count(kHidlConnected), 0u);
}

// When the service is not back, the death leaves both handles empty; the next Send reconnects.
TEST_F(HIDLMCPTransmitterTest, HidlDeathLeavesNoHandleUntilNextSend) {
  ASSERT_TRUE(emulator.Start({"--hidl"}));
  LogCapture log(kLogDebug);
  HIDLMCPTransmitter tx("death");
  ASSERT_TRUE(SendsAndGetsReply(tx));
  emulator.Kill();
  ASSERT_TRUE(Eventually([&] { return log.Contains(kHidlFailed); }));
  EXPECT_GE(log.Count(kDied), 1u);
  EXPECT_FALSE(tx.CheckValid());
  const size_t connections = log.Count(kHidlConnected);
  ASSERT_TRUE(emulator.Restart());
  EXPECT_TRUE(SendsAndGetsReply(tx));
  EXPECT_EQ(log.Count(kHidlConnected), connections + 1);
}

// Sender and death handler share the connection mutex; neither may block the other for good.
TEST_F(HIDLMCPTransmitterTest, SendsRaceWithDeath) {
  SetWaitMs(20000);
  ASSERT_TRUE(emulator.Start({"--aidl"}));
  LogCapture log(kLogError);
  HIDLMCPTransmitter tx("race");
  std::atomic<bool> stop{false};
  std::atomic<bool> restarted{false};
  std::atomic<int> okBefore{0};
  std::atomic<int> okAfter{0};
  auto sender = std::async(std::launch::async, [&] {
    while (!stop) {
      const bool after = restarted;
      if (SendsAndGetsReply(tx)) {
        ++(after ? okAfter : okBefore);
      } else {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
    }
  });
  Eventually([&] { return okBefore >= 3; });
  emulator.Kill();
  const bool back = emulator.Restart();
  restarted = true;
  Eventually([&] { return !back || okAfter >= 3; });
  stop = true;
  if (sender.wait_for(std::chrono::seconds(60)) != std::future_status::ready) {
    ADD_FAILURE() << "the sender is stuck";
    _exit(1);  // a deadlocked thread cannot be joined
  }
  ASSERT_TRUE(back);
  EXPECT_GE(okBefore, 3);
  EXPECT_GE(okAfter, 3);
  EXPECT_GE(log.Count(kDied), 1u);
}

}  // namespace
}  // namespace libtidewatch
