#include "libtidewatch/transport/client_callbacks.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "libtidewatch/platform/log.h"
#include "tests/support/log_capture.h"

namespace libtidewatch {
namespace {

using AidlCallback = aidl::vendor::velora::hardware::tidewatch::AIDLTidewatchClientCallback;
using HidlCallback =
    vendor::velora::hardware::tidewatch::V1_0::implementation::TidewatchClientCallback;
using tidewatch_test::LogCapture;

class ClientCallbacksTest : public ::testing::Test {
 protected:
  // Remembers what it was given and puts one byte into the reply queue per call.
  class FakeReceiver : public BufferDataInInterface {
   public:
    bool DataIn(const uint8_t* data, size_t len, DataQueue& replyQueue) override {
      received.emplace_back(data, data + len);
      const uint8_t mark = 0x5A;
      replyQueue.Push(&mark, 1);
      return false;  // the callbacks do not look at it
    }
    std::vector<std::vector<uint8_t>> received;
  };

  // One callback object behind a common face: its method's answer, and the log line it ends with
  // when the bytes were taken or refused.
  struct Subject {
    const char* name;
    std::shared_ptr<ClientCallbackBase> object;
    std::function<bool(const std::vector<uint8_t>&)> call;
    const char* firstLine;
    const char* refusedLine;
  };

  static std::vector<Subject> Subjects() {
    auto aidl = std::make_shared<AidlCallback>();
    auto hidl = std::make_shared<HidlCallback>();
    return {
        {"AIDL", aidl,
         [aidl](const std::vector<uint8_t>& mcp) {
           bool taken = true;
           // The status is OK whether or not a receiver took the bytes.
           EXPECT_TRUE(aidl->MCPReceiver(mcp, &taken));
           return taken;
         },
         "3 AIDLTidewatchClientCallback MCPReceiver in",
         "3 AIDLTidewatchClientCallback MCPReceiver out"},
        {"HIDL", hidl, [hidl](const std::vector<uint8_t>& mcp) { return hidl->MCPReceiver(mcp); },
         "3 MCPReceiver in", "3 MCPReceiver out wo CB"},
    };
  }
};

TEST_F(ClientCallbacksTest, WithoutReceiverTheBytesAreRefused) {
  for (const Subject& s : Subjects()) {
    SCOPED_TRACE(s.name);
    LogCapture log(kLogDebug);
    EXPECT_FALSE(s.call({1, 2, 3}));
    EXPECT_EQ(log.Lines(), (std::vector<std::string>{s.firstLine, s.refusedLine}));
    EXPECT_FALSE(s.object->OnServiceData(nullptr, 0));
    EXPECT_EQ(s.object->replyQueue.size, 0u);
  }
}

TEST_F(ClientCallbacksTest, ReceiverGetsTheExactBytesUntilDetached) {
  for (const Subject& s : Subjects()) {
    SCOPED_TRACE(s.name);
    FakeReceiver receiver;
    s.object->SetReceiver(&receiver);
    {
      LogCapture log(kLogDebug);
      EXPECT_TRUE(s.call({0xAE, 0x00, 0xFF}));
      EXPECT_EQ(log.Lines(), (std::vector<std::string>{s.firstLine, "3 MCPReceiver out"}));
    }
    const uint8_t pushed[] = {9, 8};
    EXPECT_TRUE(s.object->OnServiceData(pushed, sizeof(pushed)));
    EXPECT_TRUE(s.object->OnServiceData(nullptr, 0));
    EXPECT_EQ(receiver.received,
              (std::vector<std::vector<uint8_t>>{{0xAE, 0x00, 0xFF}, {9, 8}, {}}));
    EXPECT_EQ(s.object->replyQueue.size, 3u);

    s.object->SetReceiver(nullptr);
    EXPECT_FALSE(s.object->OnServiceData(pushed, sizeof(pushed)));
    EXPECT_EQ(receiver.received.size(), 3u);
  }
}

}  // namespace
}  // namespace libtidewatch
