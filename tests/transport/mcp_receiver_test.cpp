#include "libtidewatch/transport/mcp_receiver.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "libtidewatch/platform/log.h"
#include "libtidewatch/transport/client_callbacks.h"
#include "libtidewatch/transport/mcp_handler.h"
#include "libtidewatch/transport/socket_listener.h"
#include "tests/support/log_capture.h"
#include "tests/support/mcp_test_peer.h"

namespace libtidewatch {
namespace {

using tidewatch_test::Bytes;
using tidewatch_test::Concat;
using tidewatch_test::LogCapture;
using tidewatch_test::McpPacket;
using tidewatch_test::UniqueSocketName;
using tidewatch_test::WriteAll;

Bytes B(const std::string& s) { return Bytes(s.begin(), s.end()); }

class McpReceiverTest : public ::testing::Test {
 protected:
  // A packet as the handler saw it: "C:", "R:" or "T:" for its type, then its payload.
  using Seen = std::string;

  // Records every packet; answers with `answer` when it is set; notices overlapping calls.
  class RecordingHandler : public PayloadHandlerInterface {
   public:
    bool ProcessPayload(const MCPInfo& in, MCPInfo& out) override {
      if (m_inside.fetch_add(1) != 0) m_overlapped = true;
      std::this_thread::yield();  // widens the window in which a second caller would overlap
      {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_seen.push_back(std::string(1, "?CRT"[in.type]) + ":" +
                         std::string(reinterpret_cast<const char*>(in.data), in.length));
        m_changed.notify_all();
      }
      if (!answer.empty()) out.SetData(MCP_TYPE_REPLY, answer.size(), answer.data(), true);
      m_inside.fetch_sub(1);
      return true;
    }
    std::vector<Seen> TakeSeen() {
      std::lock_guard<std::mutex> lock(m_mutex);
      return std::exchange(m_seen, {});
    }
    bool WaitForCount(size_t n) {
      std::unique_lock<std::mutex> lock(m_mutex);
      return m_changed.wait_for(lock, std::chrono::seconds(60), [&] { return m_seen.size() >= n; });
    }
    bool Overlapped() const { return m_overlapped; }

    Bytes answer;

   private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<Seen> m_seen;
    std::atomic<int> m_inside{0};
    std::atomic<bool> m_overlapped{false};
  };

  // One end of a socket pair as an accepted connection, the other as its peer.
  struct Link {
    Link() {
      int pair[2];
      EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
      fcntl(pair[0], F_SETFL, O_NONBLOCK);
      conn = std::make_unique<SocketConnection>(pair[0], "peer");
      peer = pair[1];
    }
    ~Link() { close(peer); }
    std::unique_ptr<SocketConnection> conn;
    int peer;
  };

  void SetUp() override {
    alarm(60);  // senders blocked on a receiver that stopped reading end the test, not hang it
    for (MCP_TYPE t : {MCP_TYPE_CMD, MCP_TYPE_REPLY, MCP_TYPE_TRAP}) {
      receiver.SetPayloadHandler(t, &handler);
    }
  }

  void TearDown() override { alarm(0); }

  // Writes `bytes` from the peer and lets the receiver read them.
  bool Feed(Link& link, const Bytes& bytes) {
    EXPECT_TRUE(WriteAll(link.peer, bytes));
    return receiver.DataIn(*link.conn);
  }

  bool Callback(const Bytes& bytes) {
    return receiver.DataIn(bytes.data(), bytes.size(), *replies);
  }

  RecordingHandler handler;
  MCPReceiver receiver;
  std::unique_ptr<DataQueue> replies{new DataQueue};
};

// The first payload is itself a packet: an awaited payload must not be searched for a header.
TEST_F(McpReceiverTest, StreamCutAnywhereGivesEveryPacketOnceInOrder) {
  const Bytes inner = McpPacket(MCP_TYPE_CMD, B("inner"));
  const Bytes stream =
      Concat({McpPacket(MCP_TYPE_TRAP, inner), McpPacket(MCP_TYPE_CMD, B(std::string("2\0", 2)))});
  const std::vector<Seen> expected = {"T:" + std::string(inner.begin(), inner.end()),
                                      std::string("C:2\0", 4)};
  auto link = std::make_unique<Link>();
  for (size_t cut = 0; cut < stream.size(); ++cut) {  // cut 0: both packets in one read
    SCOPED_TRACE("cut at " + std::to_string(cut));
    Feed(*link, Bytes(stream.begin(), stream.begin() + cut));
    EXPECT_TRUE(Feed(*link, Bytes(stream.begin() + cut, stream.end())));
    EXPECT_EQ(handler.TakeSeen(), expected);
  }
  for (uint8_t byte : stream) Feed(*link, {byte});
  EXPECT_EQ(handler.TakeSeen(), expected);
  // A type nobody handles is consumed; handlers for undefined types are not taken.
  receiver.SetPayloadHandler(MCP_TYPE_CMD, nullptr);
  for (uint32_t type : {0u, 4u, 0xFFFFFFFFu}) {
    receiver.SetPayloadHandler(static_cast<MCP_TYPE>(type), &handler);
  }
  EXPECT_TRUE(
      Feed(*link, Concat({McpPacket(MCP_TYPE_CMD, B("c")), McpPacket(MCP_TYPE_REPLY, B("r")),
                          McpPacket(MCP_TYPE_TRAP, B("t"))})));
  EXPECT_EQ(handler.TakeSeen(), (std::vector<Seen>{"R:r", "T:t"}));
}

// Per-connection pending headers: a lost connection leaves nothing for one at the same address.
TEST_F(McpReceiverTest, HalfPacketBelongsToItsConnection) {
  const Bytes fromA = McpPacket(MCP_TYPE_TRAP, B("payload of a"));
  for (int round = 0; round < 3; ++round) {
    auto a = std::make_unique<Link>();
    auto b = std::make_unique<Link>();
    EXPECT_FALSE(Feed(*a, Bytes(fromA.begin(), fromA.begin() + 12)));
    EXPECT_TRUE(Feed(*b, McpPacket(MCP_TYPE_TRAP, B("from b"))));
    EXPECT_TRUE(Callback(McpPacket(MCP_TYPE_TRAP, B("from callback"))));
    EXPECT_TRUE(Feed(*a, Bytes(fromA.begin() + 12, fromA.end())));
    EXPECT_FALSE(Feed(*a, Concat({McpPacket(MCP_TYPE_TRAP, {}, 64), B("part")})));
    close(a->peer);
    a->peer = -1;
    EXPECT_FALSE(receiver.DataIn(*a->conn));
    EXPECT_FALSE(a->conn->valid);
    a.reset();
    auto fresh = std::make_unique<Link>();
    EXPECT_TRUE(Feed(*fresh, McpPacket(MCP_TYPE_TRAP, B("whole"))));
    EXPECT_EQ(handler.TakeSeen(),
              (std::vector<Seen>{"T:from b", "T:from callback", "T:payload of a", "T:whole"}));
  }
}

// A callback buffer gives its first whole packet or leaves no half one; answers go back its way.
TEST_F(McpReceiverTest, CallbackHandlesOnlyTheFirstWholePacket) {
  handler.answer = B("pong");
  const Bytes wire = McpPacket(MCP_TYPE_REPLY, B("pong"));
  const struct {
    const char* what;
    Bytes buffer;
    bool ok;
  } cases[] = {
      {"empty", {}, false},
      {"garbage", B("no header in here at all"), false},
      {"header announcing more than carried", McpPacket(MCP_TYPE_CMD, B("abcd"), 10), false},
      {"two packets",
       Concat({McpPacket(MCP_TYPE_CMD, B("1st")), McpPacket(MCP_TYPE_CMD, B("2nd"))}), true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    LogCapture log(kLogError);
    replies->Reset();
    EXPECT_EQ(Callback(c.buffer), c.ok);
    EXPECT_EQ(log.Contains("E Failed to parse MCP from buffer"), !c.ok);
    EXPECT_EQ(handler.TakeSeen(), c.ok ? (std::vector<Seen>{"C:1st"}) : std::vector<Seen>{});
    EXPECT_EQ(Bytes(replies->Front(), replies->Front() + replies->size), c.ok ? wire : Bytes{});
    Link link;
    EXPECT_TRUE(Feed(link, McpPacket(MCP_TYPE_CMD, B("next"))));
    EXPECT_EQ(handler.TakeSeen(), (std::vector<Seen>{"C:next"}));
    Bytes got(wire.size() + 1);
    got.resize(std::max<ssize_t>(0, recv(link.peer, got.data(), got.size(), MSG_DONTWAIT)));
    EXPECT_EQ(got, wire);
  }
}

// Sockets and callbacks at once: the handler is never entered twice and nothing is lost.
TEST_F(McpReceiverTest, BothRoadsAtOnceAreSerialised) {
  constexpr int kPerSender = 300;
  std::string name = UniqueSocketName();
  SocketListener listener(name.c_str());
  listener.SetHandler(&receiver);
  // One object of each generation, as the trap receiver has: they do not serialise each other.
  auto aidl =
      std::make_shared<aidl::vendor::velora::hardware::tidewatch::AIDLTidewatchClientCallback>();
  auto hidl = std::make_shared<
      vendor::velora::hardware::tidewatch::V1_0::implementation::TidewatchClientCallback>();
  aidl->SetReceiver(&receiver);
  hidl->SetReceiver(&receiver);
  // Senders 0-3 are callback threads, alternating generations; 4 and 5 are socket clients.
  std::vector<std::thread> senders;
  for (int t = 0; t < 6; ++t) {
    senders.emplace_back([&, t] {
      int fd = t < 4 ? -1 : ConnectAbstract(name);
      for (int i = 0; i < kPerSender; ++i) {
        const Bytes packet =
            McpPacket(MCP_TYPE_TRAP, B(std::to_string(t) + "." + std::to_string(i)));
        bool taken = false;
        if (t >= 4) {
          taken = WriteAll(fd, packet);
        } else if (t % 2 == 0) {
          EXPECT_TRUE(aidl->MCPReceiver(packet, &taken));
        } else {
          taken = hidl->MCPReceiver(packet);
        }
        EXPECT_TRUE(taken) << t;
      }
      if (fd >= 0) close(fd);
    });
  }
  for (std::thread& t : senders) t.join();
  ASSERT_TRUE(handler.WaitForCount(6 * kPerSender));
  listener.Stop();
  aidl->SetReceiver(nullptr);
  hidl->SetReceiver(nullptr);
  // Without a receiver a callback refuses, so that the service counts the trap as discarded.
  bool taken = true;
  EXPECT_TRUE(aidl->MCPReceiver(McpPacket(MCP_TYPE_TRAP, B("late")), &taken));
  EXPECT_FALSE(taken);
  EXPECT_FALSE(hidl->MCPReceiver(McpPacket(MCP_TYPE_TRAP, B("late"))));

  std::vector<Seen> seen = handler.TakeSeen();
  EXPECT_FALSE(handler.Overlapped());
  EXPECT_EQ(seen.size(), 6u * kPerSender);
  // Each sender's packets arrive whole and in the order sent.
  int next[6] = {};
  for (const Seen& s : seen) {
    const int t = s[2] - '0';
    ASSERT_TRUE(t >= 0 && t < 6) << s;
    EXPECT_EQ(s, "T:" + std::to_string(t) + "." + std::to_string(next[t]++));
  }
}

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
