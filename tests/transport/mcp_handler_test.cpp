#include "libtidewatch/transport/mcp_handler.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "libtidewatch/platform/log.h"
#include "tests/support/log_capture.h"
#include "tests/support/mcp_test_peer.h"

namespace libtidewatch {
namespace {

using tidewatch_test::Bytes;
using tidewatch_test::Concat;

class MCPHandlerTest : public ::testing::Test {
 protected:
  static Bytes Header(uint16_t typeMagic, uint32_t length) {
    Bytes b = {0xAE, 0xCD, 0xE8, 0xF4, uint8_t(typeMagic), uint8_t(typeMagic >> 8)};
    for (int i = 0; i < 4; ++i) b.push_back(uint8_t(length >> (8 * i)));
    return b;
  }
  static Bytes Packet(uint16_t typeMagic, const std::string& payload) {
    Bytes b = Header(typeMagic, uint32_t(payload.size()));
    b.insert(b.end(), payload.begin(), payload.end());
    return b;
  }
  static Bytes Held(const DataQueue& q) { return Bytes(q.Front(), q.Front() + q.size); }

  tidewatch_test::LogCapture log_{kLogError};
  std::unique_ptr<DataQueue> q{new DataQueue};  // too big for a test's stack frame
};

// A malformed packet is dropped with one error line, writes nothing and counts as written.
TEST_F(MCPHandlerTest, WritesLittleEndianWireFormOrDropsMalformedPackets) {
  static const Bytes big(kMcpMaxPayload + 1, 'x');
  const size_t kOver = kMcpMaxPayload + 1, kWrap = size_t{1} << 32;
  const struct {
    uint32_t type;
    size_t length;  // set directly: SetData would clamp it
    const uint8_t* data;
    Bytes wire;
    const char* error;
  } cases[] = {
      {MCP_TYPE_CMD, 2, big.data(), Packet(0x5775, "xx"), nullptr},
      {MCP_TYPE_REPLY, 2, big.data(), Packet(0x5875, "xx"), nullptr},
      {MCP_TYPE_TRAP, 2, big.data(), Packet(0xCAAC, "xx"), nullptr},
      {MCP_TYPE_TRAP, kWrap + 1, big.data(), Packet(0xCAAC, "x"), nullptr},  // cut to 32 bits
      {MCP_TYPE_CMD, 3, nullptr, {}, "Do not need to cmd. data = [(nil)], len = [3]"},
      {MCP_TYPE_NONE, 3, big.data(), {}, "Undefined type! type = [0]. DROP."},
      {4, 3, big.data(), {}, "Undefined type! type = [4]. DROP."},
      {MCP_TYPE_CMD, kOver, big.data(), {}, "Payload length is invalid! len = [131073]. DROP."},
      {MCP_TYPE_CMD, kWrap, big.data(), {}, "Payload length is invalid! len = [0]. DROP."},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.error ? c.error : "valid");
    log_.Clear();
    q->Reset();
    MCPInfo in;
    in.type = MCP_TYPE(c.type);
    in.length = c.length;
    in.data = c.data;
    EXPECT_TRUE(MCPHandler::WriteToBuffer(*q, in, nullptr));
    EXPECT_EQ(Held(*q), c.wire);
    EXPECT_EQ(log_.Lines(), c.error ? std::vector<std::string>{std::string("E ") + c.error}
                                    : std::vector<std::string>{});
  }
}

TEST_F(MCPHandlerTest, QueueOverflowFailsAtThePieceThatDoesNotFit) {
  const struct {
    size_t room, roomLeft;  // the pieces that fitted stay queued
    const char* error;
  } cases[] = {{3, 3, "MCPHandler::WriteToConnection (HEADER_MAGIC) failed!"},
               {5, 1, "MCPHandler::WriteToConnection (TYPE_Magic) failed!"},
               {9, 3, "MCPHandler::WriteToConnection (Len) failed!"},
               {11, 1, "MCPHandler::WriteToConnection (Data) failed!"}};
  const uint8_t payload[] = {1, 2};
  MCPInfo in;
  in.SetData(MCP_TYPE_CMD, sizeof(payload), payload, false);
  for (const auto& c : cases) {
    log_.Clear();
    q->Reset();
    q->size = DataQueue::kCapacity - c.room;
    EXPECT_FALSE(MCPHandler::WriteToBuffer(*q, in, nullptr)) << c.error;
    EXPECT_EQ(log_.Lines(), std::vector<std::string>{std::string("E ") + c.error});
    EXPECT_EQ(q->SpaceSize(), c.roomLeft) << c.error;
  }
}

TEST_F(MCPHandlerTest, SearchHeaderResynchronises) {
  const Bytes magic = {0xAE, 0xCD, 0xE8, 0xF4};
  const struct {
    const char* name;
    Bytes input;
    MCP_TYPE type;  // MCP_TYPE_NONE: no header found
    size_t length, left;
  } cases[] = {
      {"garbage first", Concat({{1, 0xAE, 0xCD, 0xE8}, Packet(0x5775, "abc")}), MCP_TYPE_CMD, 3, 3},
      {"header behind a bad type magic", Concat({magic, Packet(0xCAAC, "t")}), MCP_TYPE_TRAP, 1, 1},
      {"length 0", Concat({Header(0x5875, 0), {1, 2, 3}}), MCP_TYPE_NONE, 0, 7},
      {"length 131073", Concat({Header(0x5875, 131073), {1, 2, 3}}), MCP_TYPE_NONE, 0, 7},
      {"length 131072", Header(0x5875, 131072), MCP_TYPE_REPLY, 131072, 0},
      {"nine bytes of a header", Concat({magic, {0x75, 0x57, 1, 0, 0}}), MCP_TYPE_NONE, 0, 9},
      {"magic-like bytes only", Bytes(40, 0xAE), MCP_TYPE_NONE, 0, 9},
  };
  for (const auto& c : cases) {
    // The fast and the byte-by-byte path (the stream fuzzer compares them at every offset).
    for (int threshold : {kLogError, kLogDebug}) {
      SetLogThreshold(threshold);
      q->Reset();
      ASSERT_TRUE(q->Push(c.input.data(), c.input.size()));
      MCPInfo out;
      EXPECT_EQ(MCPHandler::SearchHeader(out, *q), c.type != MCP_TYPE_NONE) << c.name;
      EXPECT_EQ(out.type, c.type) << c.name;
      EXPECT_EQ(out.length, c.length) << c.name;
      EXPECT_EQ(out.data, nullptr) << c.name;
      EXPECT_EQ(Held(*q), Bytes(c.input.end() - c.left, c.input.end())) << c.name;
    }
  }
}

// The callback road's reader (pinned through the receiver) never searches an oversized buffer.
TEST_F(MCPHandlerTest, OneShotReaderRefusesBuffersItCannotHold) {
  const Bytes tooBig = Concat({Header(0x5775, 5), Bytes(DataQueue::kCapacity, 0)});
  MCPInfo none;
  EXPECT_FALSE(MCPHandler::ProcessFromBuffer(tooBig.data(), tooBig.size(), none, nullptr));
  EXPECT_EQ(log_.Lines(), std::vector<std::string>{"E ProcessFromBuffer dataQ.Push false"});
  // SetData clamps even a borrowed length.
  none.SetData(MCP_TYPE_TRAP, tooBig.size(), tooBig.data(), false);
  EXPECT_EQ(none.length, kMcpMaxPayload);
  EXPECT_EQ(none.data, tooBig.data());
}

}  // namespace
}  // namespace libtidewatch
