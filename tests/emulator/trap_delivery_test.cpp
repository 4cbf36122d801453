#include "emulator/trap_delivery.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "libtidewatch/platform/host/abstract_socket.h"
#include "libtidewatch/platform/host/hal_link.h"
#include "libtidewatch/transport/mcp_handler.h"
#include "libtidewatch/trap/trap_packer.h"
#include "tests/support/mcp_test_peer.h"

namespace libtidewatch {
namespace {

using Bytes = std::vector<uint8_t>;

// Rounds are driven by calling Tick() directly; the thread is never started.
class TrapDeliveryTest : public testing::Test {
 protected:
  void SetUp() override {
    destination_ = tidewatch_test::UniqueSocketName("rx");
    uint64_t id = 0;
    ASSERT_EQ(sessions_.Create(SessionLevel::kGuest, &id), 0);
    ASSERT_EQ(sessions_.Subscribe(0, id, TRAP_TYPE_EM, 77), 0);
    ASSERT_EQ(sessions_.SetReceiver(0, id, destination_), 0);
    ASSERT_EQ(sessions_.SetTrapEnabled(0, id, true), 0);
  }
  void TearDown() override {
    if (listener_ >= 0) close(listener_);
    if (receiver_ >= 0) close(receiver_);
  }

  void Listen() {
    listener_ = ListenAbstract(destination_, 4);
    ASSERT_GE(listener_, 0);
  }
  // The raw trap data of the next MCP trap packet on the receiver's socket.
  Bytes ReceiveOverSocket() {
    if (receiver_ < 0) receiver_ = accept(listener_, nullptr, nullptr);
    EXPECT_GE(receiver_, 0);
    Bytes wire(kMcpHeaderSize);
    if (recv(receiver_, wire.data(), wire.size(), MSG_WAITALL) != ssize_t(kMcpHeaderSize))
      return {};
    size_t len = wire[6] | wire[7] << 8 | wire[8] << 16 | size_t(wire[9]) << 24;
    wire.resize(kMcpHeaderSize + len);
    if (recv(receiver_, wire.data() + kMcpHeaderSize, len, MSG_WAITALL) != ssize_t(len)) return {};
    return Unwrap(wire);
  }
  static Bytes Unwrap(const Bytes& wire) {
    MCPInfo packet;
    if (!MCPHandler::ProcessFromBuffer(wire.data(), wire.size(), packet, nullptr)) return {};
    EXPECT_EQ(packet.type, MCP_TYPE_TRAP);
    return Bytes(packet.data, packet.data + packet.length);
  }
  static uint64_t MsgId(const TrapPacker& packer) {
    uint64_t id = 0;
    for (int i = 7; i >= 0; --i) id = id << 8 | packer.GetTrapData()[i];
    return id;
  }

  std::string destination_;
  SessionTable sessions_{1, SessionLimits{}};
  CallbackRegistry callbacks_{4, 5000};
  TrapDelivery delivery_{&sessions_, &callbacks_, TrapSource(16), 0};
  int listener_ = -1;
  int receiver_ = -1;
};

TEST_F(TrapDeliveryTest, SocketRoadCarriesTheSubscribedMessage) {
  Listen();
  delivery_.Tick();
  Bytes raw = ReceiveOverSocket();
  TrapPacker packer(raw.data(), raw.size());
  ASSERT_TRUE(packer.IsInitialized());
  EXPECT_EQ(packer.GetTrapType(), TRAP_TYPE_EM);
  EXPECT_EQ(packer.GetTrapDataLength(), 16u);
  EXPECT_EQ(MsgId(packer), 77u);
  EXPECT_EQ(raw.size(), 5u + 16u);  // no discard info: nothing was lost
}

TEST_F(TrapDeliveryTest, TrapsLostWhileNobodyListensAreReportedOnce) {
  delivery_.Tick();
  delivery_.Tick();
  Listen();
  delivery_.Tick();
  Bytes raw = ReceiveOverSocket();
  TrapPacker packer(raw.data(), raw.size());
  ASSERT_TRUE(packer.IsInitialized());
  EXPECT_EQ(packer.GetDiscardInfo(TRAP_TYPE_EM), 2u);
  EXPECT_EQ(raw.size(), 5u + 16u + 5u + 5u);  // one discard entry

  delivery_.Tick();
  raw = ReceiveOverSocket();
  TrapPacker next(raw.data(), raw.size());
  ASSERT_TRUE(next.IsInitialized());
  EXPECT_EQ(next.GetDiscardInfo(TRAP_TYPE_EM), 0u);
}

// With a callback registered under the name, traps go there, and refusals count as losses.
TEST_F(TrapDeliveryTest, CallbackRoadIsPreferredAndRefusalsAreCounted) {
  Listen();
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
  fcntl(pair[1], F_SETFL, fcntl(pair[1], F_GETFL) | O_NONBLOCK);
  Bytes greeting{2, 0, 0, 0, kHalLinkRegisterResult, 0};
  ASSERT_EQ(callbacks_.Adopt(destination_, pair[1], greeting),
            CallbackRegistry::AdoptResult::kAdopted);
  std::vector<Bytes> traps;
  std::thread client([&] {
    HalLinkFrame frame;
    ReadHalLinkFrame(pair[0], &frame);  // the greeting
    for (uint8_t answer : {0, 0, 1}) {
      if (ReadHalLinkFrame(pair[0], &frame) != HalLinkReadResult::kFrame) return;
      traps.push_back(Unwrap(frame.payload));
      WriteHalLinkFrame(pair[0], kHalLinkTrapResult, &answer, 1);
    }
  });
  delivery_.Tick();
  delivery_.Tick();
  delivery_.Tick();
  client.join();
  close(pair[0]);
  ASSERT_EQ(traps.size(), 3u);
  TrapPacker third(traps[2].data(), traps[2].size());
  ASSERT_TRUE(third.IsInitialized());
  EXPECT_EQ(third.GetDiscardInfo(TRAP_TYPE_EM), 2u);
  // Nothing went over the socket.
  fcntl(listener_, F_SETFL, fcntl(listener_, F_GETFL) | O_NONBLOCK);
  EXPECT_LT(accept(listener_, nullptr, nullptr), 0);
}

}  // namespace
}  // namespace libtidewatch
