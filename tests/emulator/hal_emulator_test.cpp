// The tidewatch_hal_emulator binary, driven over the host HAL link as the library and foreign test
// programs drive it, and the air messages its traps carry.
#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "emulator/air_message.h"
#include "libtidewatch/platform/abstract_socket.h"
#include "libtidewatch/platform/hal_link.h"
#include "libtidewatch/transport/mcp_handler.h"
#include "libtidewatch/trap/frame_decoder.h"
#include "libtidewatch/trap/trap_decoder.h"
#include "libtidewatch/trap/trap_packer.h"
#include "tests/support/emulator_process.h"
#include "tests/support/mcp_test_peer.h"
#include "tests/support/sample_traps.h"

namespace libtidewatch {
namespace {

using Bytes = std::vector<uint8_t>;

constexpr char kCreate[] = R"({"api":"Tidewatch.Session","method":"create","version":1})";

class HalEmulatorTest : public testing::Test {
 protected:
  // One client connection to an endpoint of the running emulator.
  class LinkClient {
   public:
    explicit LinkClient(HalGeneration generation = HalGeneration::kAidl)
        : fd_(ConnectAbstract(HalEndpointName(generation))) {}
    ~LinkClient() {
      if (fd_ >= 0) close(fd_);
    }
    int fd() const { return fd_; }

    bool Send(uint8_t opcode, const Bytes& payload) {
      return WriteHalLinkFrame(fd_, opcode, payload.data(), payload.size());
    }
    // Gives up after a few seconds, so that a silent emulator fails the test.
    HalLinkReadResult Read(HalLinkFrame* frame) {
      return ReadHalLinkFrame(fd_, frame,
                              std::chrono::steady_clock::now() + std::chrono::seconds(5));
    }
    // One frame out; the payload of the `answer` frame that comes back, empty on failure.
    Bytes Ask(uint8_t opcode, const Bytes& payload, uint8_t answer) {
      HalLinkFrame frame;
      if (!Send(opcode, payload) || Read(&frame) != HalLinkReadResult::kFrame ||
          frame.opcode != answer) {
        return {};
      }
      return frame.payload;
    }
    // A command as the tool sends it: JSON text, line feed and NUL in an MCP command packet. The
    // answer is the COMMAND_RESULT payload, status byte first.
    Bytes Call(const std::string& json) {
      const std::string text = json + "\n";
      Bytes payload(text.begin(), text.end() + 1);
      return Ask(kHalLinkCommand, tidewatch_test::McpPacket(MCP_TYPE_CMD, payload),
                 kHalLinkCommandResult);
    }
    // The reply object of a command answered with status 0 and a reply packet.
    Json::Value Command(const std::string& json) {
      Json::Value reply = ReplyOf(Call(json));
      if (reply.isNull()) ADD_FAILURE() << "no reply to " << json;
      return reply;
    }
    uint8_t Register(const std::string& name) {
      Bytes answer = Ask(kHalLinkRegisterTrapCallback, Bytes(name.begin(), name.end()),
                         kHalLinkRegisterResult);
      return answer.size() == 1 ? answer[0] : 0xff;
    }

   private:
    int fd_;
  };

  // The reply packet behind an answer's status byte 0, parsed; null for any other answer.
  static Json::Value ReplyOf(const Bytes& answer) {
    MCPInfo packet;
    Json::Value reply;
    if (answer.size() < 2 || answer[0] != 0 ||
        !MCPHandler::ProcessFromBuffer(answer.data() + 1, answer.size() - 1, packet, nullptr) ||
        packet.type != MCP_TYPE_REPLY) {
      return reply;
    }
    const char* text = reinterpret_cast<const char*>(packet.data);
    Json::Reader().parse(text, text + packet.length - 1, reply);
    return reply;
  }

  // A session subscribed to `subscriptions` (type, message id) whose traps go to `destination`.
  static void ReceivingSession(LinkClient* client, const std::string& destination,
                               const std::vector<std::pair<std::string, int>>& subscriptions) {
    const std::string sid =
        R"("sessionId":)" +
        std::to_string(client->Command(kCreate)["data"]["sessionId"].asUInt64());
    auto call = [&](const std::string& api, const std::string& arg) {
      EXPECT_EQ(client->Command(R"({"api":"Tidewatch.)" + api + R"(,"version":1,"arg":{)" + arg +
                                sid + "}}")["ret"],
                0)
          << api;
    };
    for (const auto& [type, msgId] : subscriptions) {
      call(R"(Trap","method":"subscribe")",
           R"("async":0,"msgId":)" + std::to_string(msgId) + R"(,"type":")" + type + "\",");
    }
    call(R"(Trap.Receiver","method":"set")", R"("server_name":")" + destination + "\",");
    call(R"(Trap","method":"enable")", "");
  }

  // Checks the raw trap data of one MCP trap packet and gives its OTA discard count.
  static uint32_t CheckTrap(const Bytes& wire) {
    MCPInfo packet;
    EXPECT_TRUE(MCPHandler::ProcessFromBuffer(wire.data(), wire.size(), packet, nullptr));
    EXPECT_EQ(packet.type, MCP_TYPE_TRAP);
    TrapPacker trap(packet.data, packet.length);
    EXPECT_EQ(trap.GetTrapType(), TRAP_TYPE_OTA);
    if (trap.GetTrapDataLength() < 8) return ~0u;
    // An id the layout does not know sits where the sample layout puts the trace id.
    EXPECT_EQ(trap.GetTrapData()[4], 11);
    return trap.GetDiscardInfo(TRAP_TYPE_OTA);
  }

  tidewatch_test::EmulatorProcess emulator_;
};

TEST_F(HalEmulatorTest, GarbageClosesOnlyThatConnection) {
  ASSERT_TRUE(emulator_.Start());
  const Bytes kGarbage[] = {
      {0, 0, 0, 0},        // length 0
      {1, 0, 0, 1, 0x01},  // length above the limit
      {1, 0, 0, 0, 0x7f},  // unknown opcode
      {2, 0, 0, 0, kHalLinkCommandResult, 0},
      {2, 0, 0, 0, kHalLinkTrapResult, 1},  // an answer nobody asked for
  };
  for (const Bytes& garbage : kGarbage) {
    LinkClient client;
    ASSERT_EQ(send(client.fd(), garbage.data(), garbage.size(), MSG_NOSIGNAL),
              ssize_t(garbage.size()));
    HalLinkFrame frame;
    EXPECT_NE(client.Read(&frame), HalLinkReadResult::kFrame) << garbage.size();
  }
  // A well-framed request that is no MCP command is answered, and the connection stays.
  LinkClient client;
  Json::Value reply =
      ReplyOf(client.Ask(kHalLinkCommand, {'j', 'u', 'n', 'k'}, kHalLinkCommandResult));
  EXPECT_EQ(reply["ret"], 1);  // not a command packet, and nothing to echo
  EXPECT_EQ(reply.size(), 1u);
  // Both endpoints serve one service: a session made on one is listed on the other.
  const std::string id = std::to_string(client.Command(kCreate)["data"]["sessionId"].asUInt64());
  LinkClient hidl(HalGeneration::kHidl);
  Json::Value list = hidl.Command(R"({"api":"Tidewatch.Session","method":"list","version":1,)"
                                  R"("arg":{"doerId":)" +
                                  id + "}}");
  EXPECT_EQ(list["data"]["sid_list"][0].asString(), id);
}

TEST_F(HalEmulatorTest, ClientsVanishingMidCallDoNotDisturbOthers) {
  ASSERT_TRUE(emulator_.Start({"--max-clients", "4"}));
  LinkClient waiting;  // connected throughout, with a call made at the end
  {
    LinkClient halfFrame;
    Bytes part = {200, 0, 0, 0, kHalLinkCommand, 1, 2, 3};
    send(halfFrame.fd(), part.data(), part.size(), MSG_NOSIGNAL);
  }
  {
    LinkClient unread;
    ASSERT_TRUE(unread.Send(kHalLinkCommand, Bytes(100000, 'x')));
  }
  {
    LinkClient registered;
    EXPECT_EQ(registered.Register("gone_before_any_trap"), 0);
  }
  // Hung-up clients give their places back: with room for four, clients that come and go one
  // after another are all served (a place may take a moment to be seen free).
  for (int round = 0; round < 6; ++round) {
    bool served = false;
    for (int i = 0; i < 100 && !served; ++i) {
      LinkClient fresh;
      Bytes answer = fresh.Call(kCreate);
      served = !answer.empty() && answer[0] == 0;
      if (!served) usleep(20 * 1000);
    }
    EXPECT_TRUE(served) << round;
  }
  EXPECT_EQ(waiting.Command(kCreate)["ret"], 0);
}

// Traps reach a registered callback; refused ones are reported with the next that is taken. A
// trap then left unanswered, with a wait far beyond the test's time-out, must freeze neither the
// command loop nor shutdown.
TEST_F(HalEmulatorTest, TrapsThroughARegisteredCallback) {
  ASSERT_TRUE(emulator_.Start(
      {"--trap-rate", "50", "--callback-timeout-ms", "600000", "--max-callbacks", "1"}));
  const std::string destination = tidewatch_test::UniqueSocketName();
  // A second registration of a name replaces the first, even at the limit; a new name is refused.
  LinkClient replaced, callback, refused;
  ASSERT_EQ(replaced.Register(destination), 0);
  ASSERT_EQ(callback.Register(destination), 0);
  EXPECT_NE(refused.Register(destination + "_more"), 0);
  EXPECT_EQ(refused.Command(kCreate)["ret"], 0);  // still a command connection
  HalLinkFrame closed;
  EXPECT_EQ(replaced.Read(&closed), HalLinkReadResult::kClosed);
  LinkClient commands;
  ReceivingSession(&commands, destination, {{"OTA", 11}});

  std::vector<uint32_t> discards;
  HalLinkFrame frame;
  for (uint8_t answer : {0, 0, 1, 1}) {
    ASSERT_EQ(callback.Read(&frame), HalLinkReadResult::kFrame);
    ASSERT_EQ(frame.opcode, kHalLinkTrap);
    discards.push_back(CheckTrap(frame.payload));
    // An answer that takes a while is still waited for, within the callback time-out.
    if (discards.size() == 1) usleep(300 * 1000);
    ASSERT_TRUE(callback.Send(kHalLinkTrapResult, {answer}));
  }
  EXPECT_EQ(discards, (std::vector<uint32_t>{0, 1, 2, 0}));

  ASSERT_EQ(callback.Read(&frame), HalLinkReadResult::kFrame);  // and never answered
  EXPECT_EQ(commands.Command(kCreate)["ret"], 0);
  EXPECT_EQ(emulator_.Stop(), 0);
}

// Synthetic traps follow the sample layout, which the emulator finds by itself: decoded with it,
// they give back the subscribed messages in turn, with a sequence number (bytes 0 to 3, which the
// sample leaves free) that has no gap, every field of a known message, its peers, and a master
// information block whose system frame number advances.
TEST_F(HalEmulatorTest, SyntheticTrapsFollowTheLayout) {
  const std::string destination = tidewatch_test::UniqueSocketName();
  int listener = ListenAbstract(destination, 4);
  ASSERT_GE(listener, 0);
  timeval deadline{5, 0};
  ASSERT_EQ(setsockopt(listener, SOL_SOCKET, SO_RCVTIMEO, &deadline, sizeof(deadline)), 0);
  ASSERT_TRUE(emulator_.Start({"--trap-rate", "200"}));
  LinkClient commands;
  ReceivingSession(&commands, destination,
                   {{"EM", 2000}, {"EM", 2001}, {"EM", 9999}, {"OTA", 1000}, {"OTA", 1003}});
  int receiver = accept(listener, nullptr, nullptr);
  ASSERT_GE(receiver, 0);
  ASSERT_EQ(setsockopt(receiver, SOL_SOCKET, SO_RCVTIMEO, &deadline, sizeof(deadline)), 0);

  FrameDecoder layout;
  ASSERT_TRUE(layout.LoadFromDESC(TIDEWATCH_SOURCE_DIR "/resources/twd_layout_desc.dat"));
  const TrapDecoder decoder(layout);
  // OTA before EM (by type value), then in subscription order.
  const char* const expected[] = {
      "LTE_RRC_MASTER_INFORMATION_BLOCK OTA_TRACE_LTE_RRC pdu=3",
      "LTE_RRC_PAGING OTA_TRACE_LTE_RRC pdu=1",
      "EM_LTE_SERVING_CELL_INFO EARFCN PCI RSRP RSRQ SINR",
      "EM_LTE_NEIGHBOUR_CELL_INFO CELL_COUNT CELL_LIST peers",
      "9999",
  };
  std::vector<uint8_t> mibFrames;
  for (uint32_t seq = 0; seq < 15; ++seq) {
    Bytes header(kMcpHeaderSize);
    ASSERT_EQ(recv(receiver, header.data(), header.size(), MSG_WAITALL), ssize_t(header.size()));
    uint32_t length = 0;
    memcpy(&length, header.data() + 6, 4);
    ASSERT_LE(length, kMcpMaxPayload);
    Bytes wire = header;
    wire.resize(header.size() + length);
    ASSERT_EQ(recv(receiver, wire.data() + header.size(), length, MSG_WAITALL), ssize_t(length));
    MCPInfo packet;
    ASSERT_TRUE(MCPHandler::ProcessFromBuffer(wire.data(), wire.size(), packet, nullptr));
    TrapPacker trap(packet.data, packet.length);
    ASSERT_TRUE(trap.IsInitialized());
    DecodedTrap d;
    decoder.Decode(trap.GetTrapType(), trap.GetTrapData(), trap.GetTrapDataLength(), &d);
    ASSERT_GE(d.payload.size, 16u);  // the default --trap-size, or more where the layout needs it
    uint32_t sequence = 0;
    memcpy(&sequence, d.payload.data, 4);
    EXPECT_EQ(sequence, seq);

    std::string seen = d.msgName ? std::string(*d.msgName) : std::to_string(d.msgId.value);
    if (d.traceName) seen += " " + std::string(*d.traceName);
    if (d.pduPresent && !d.pduTruncated && d.pduLength.value == d.pdu.size) {
      seen += " pdu=" + std::to_string(d.pdu.size);
    }
    for (const DecodedField& f : d.fields) seen += " " + std::string(f.name);
    if (d.peersPresent && d.peerCount.present && !d.fields.empty() &&
        d.fields[0].value == d.peerCount.value && d.peers.size >= 4 * d.peerCount.value) {
      seen += " peers";
    }
    EXPECT_EQ(seen, expected[seq % 5]) << seq;
    EXPECT_EQ(d.sim.value, 0u);
    if (seq % 5 == 0 && d.pdu.size == 3) mibFrames.push_back(d.pdu.data[1]);
  }
  // The eight high bits of the frame number straddle the PDU's first two bytes: 5 traps apart,
  // the second byte moves by 5 << 2.
  ASSERT_EQ(mibFrames.size(), 3u);
  EXPECT_EQ(uint8_t(mibFrames[1] - mibFrames[0]), 20);
  EXPECT_EQ(uint8_t(mibFrames[2] - mibFrames[1]), 20);
  close(receiver);
  close(listener);
}

// A protocol analyser decodes what the emulator sends only if each message keeps its encoding:
// the choice bits and trailing fields of the RRC messages, the NAS headers. '.' stands for the
// random identities.
TEST(AirMessageTest, EachMessageKeepsItsEncoding) {
  const struct {
    const char* name;
    uint32_t occurrence;
    const char* hex;
  } cases[] = {
      {"LTE_RRC_MASTER_INFORMATION_BLOCK", 0, "680000"},
      {"LTE_RRC_MASTER_INFORMATION_BLOCK", 5, "681400"},
      {"LTE_RRC_PAGING", 3, "00"},
      {"LTE_RRC_CONNECTION_REQUEST", 1, "5..........6"},
      {"NR_RRC_SETUP_REQUEST", 1, "1..........6"},
      {"LTE_NAS_AUTHENTICATION_RESPONSE", 1, "075308................"},
      {"LTE_NAS_AUTHENTICATION_REQUEST", 1,
       "075200030405060708090a0b0c0d0e0f101112100506070809"
       "0a0b0c0d0e0f1011121314"},
      {"LTE_NAS_SERVICE_REQUEST", 33, "c7011234"},
      {"LTE_NAS_ATTACH_COMPLETE", 9,
       "0743000352"
       "00c2"},
      {"NR_NAS_REGISTRATION_ACCEPT", 9, "7e00420101"},
      {"LTE_NAS_ATTACH_ACCEPT", 2, "07420203040506070809"},
      {"NR_NAS_PDU_SESSION_ESTABLISHMENT_REQUEST", 0, "2e0101c10001020304050607"},
      {"NR_NAS_SECURITY_MODE_COMMAND", 0, "7e00000001020304050607"},
      {"LTE_RRC_SOMETHING_NEW", 0, "0001020304050607"},
  };
  for (const auto& row : cases) {
    std::vector<uint8_t> pdu;
    hal_emulator::AppendAirMessage(row.name, row.occurrence, &pdu);
    const std::string hex = tidewatch_test::Hex(pdu.data(), pdu.size());
    const std::string want = row.hex;
    bool same = hex.size() == want.size();
    for (size_t i = 0; same && i < want.size(); ++i) same = want[i] == '.' || want[i] == hex[i];
    EXPECT_TRUE(same) << row.name << ": " << hex << ", want " << want;
  }
}

}  // namespace
}  // namespace libtidewatch
