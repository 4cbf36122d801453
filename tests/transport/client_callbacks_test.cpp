#include "libtidewatch/transport/client_callbacks.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <vector>

namespace libtidewatch {
namespace {

using Bytes = std::vector<uint8_t>;

// Remembers what it was given and puts one byte into the reply queue per call.
class FakeReceiver : public BufferDataInInterface {
 public:
  bool DataIn(const uint8_t* data, size_t len, DataQueue& replyQueue) override {
    received.emplace_back(data, data + len);
    const uint8_t mark = 0x5A;
    replyQueue.Push(&mark, 1);
    return false;  // the callbacks do not look at it
  }
  std::vector<Bytes> received;
};

// Both generations' callbacks: what the service is told (taken or refused) decides whether it
// counts the trap as discarded, so a callback without a receiver must refuse.
TEST(ClientCallbacksTest, ReceiverGetsTheExactBytesElseTheyAreRefused) {
  using AidlCallback = aidl::vendor::velora::hardware::tidewatch::AIDLTidewatchClientCallback;
  using HidlCallback =
      vendor::velora::hardware::tidewatch::V1_0::implementation::TidewatchClientCallback;
  auto aidl = std::make_shared<AidlCallback>();
  auto hidl = std::make_shared<HidlCallback>();
  const struct {
    const char* name;
    std::shared_ptr<ClientCallbackBase> object;
    std::function<bool(const Bytes&)> call;  // the generation's own method: taken or not
  } subjects[] = {
      {"AIDL", aidl,
       [aidl](const Bytes& mcp) {
         bool taken = true;
         EXPECT_TRUE(aidl->MCPReceiver(mcp, &taken));  // the status is OK either way
         return taken;
       }},
      {"HIDL", hidl, [hidl](const Bytes& mcp) { return hidl->MCPReceiver(mcp); }},
  };
  for (const auto& s : subjects) {
    SCOPED_TRACE(s.name);
    EXPECT_FALSE(s.call({1, 2, 3}));
    EXPECT_FALSE(s.object->OnServiceData(nullptr, 0));
    FakeReceiver receiver;
    s.object->SetReceiver(&receiver);
    EXPECT_TRUE(s.call({0xAE, 0x00, 0xFF}));
    const uint8_t pushed[] = {9, 8};
    EXPECT_TRUE(s.object->OnServiceData(pushed, sizeof(pushed)));
    EXPECT_TRUE(s.object->OnServiceData(nullptr, 0));
    EXPECT_EQ(receiver.received, (std::vector<Bytes>{{0xAE, 0x00, 0xFF}, {9, 8}, {}}));
    EXPECT_EQ(s.object->replyQueue.size, 3u);
    s.object->SetReceiver(nullptr);
    EXPECT_FALSE(s.object->OnServiceData(pushed, sizeof(pushed)));
    EXPECT_EQ(receiver.received.size(), 3u);
  }
}

}  // namespace
}  // namespace libtidewatch
