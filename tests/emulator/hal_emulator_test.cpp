// The tidewatch_hal_emulator binary, driven over the host HAL link as the library and foreign test
// programs drive it.
#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "libtidewatch/platform/abstract_socket.h"
#include "libtidewatch/platform/hal_link.h"
#include "libtidewatch/transport/data_queue.h"
#include "libtidewatch/transport/mcp_handler.h"
#include "libtidewatch/trap/trap_packer.h"
#include "tests/support/emulator_process.h"

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
    bool connected() const { return fd_ >= 0; }
    int fd() const { return fd_; }

    bool Send(uint8_t opcode, const Bytes& payload) {
      return WriteHalLinkFrame(fd_, opcode, payload.data(), payload.size());
    }
    HalLinkReadResult Read(HalLinkFrame* frame) { return ReadHalLinkFrame(fd_, frame); }

    // One COMMAND frame out; the COMMAND_RESULT payload (status byte first), empty on failure.
    Bytes Exchange(const Bytes& request) {
      HalLinkFrame frame;
      if (!Send(kHalLinkCommand, request) || Read(&frame) != HalLinkReadResult::kFrame ||
          frame.opcode != kHalLinkCommandResult) {
        return {};
      }
      return frame.payload;
    }
    // A command as the tool sends it: JSON text, line feed and NUL in an MCP command packet.
    Bytes Call(const std::string& json) {
      std::string text = json + "\n";
      text.push_back('\0');
      MCPInfo packet;
      packet.SetData(MCP_TYPE_CMD, text.size(), reinterpret_cast<const uint8_t*>(text.data()),
                     false);
      auto queue = std::make_unique<DataQueue>();
      EXPECT_TRUE(MCPHandler::WriteToBuffer(*queue, packet, nullptr));
      return Exchange(Bytes(queue->Front(), queue->Front() + queue->size));
    }
    // The reply object of a command answered with status 0 and a reply packet.
    Json::Value Command(const std::string& json) {
      Bytes answer = Call(json);
      Json::Value reply;
      MCP_TYPE type = MCP_TYPE_NONE;
      if (answer.empty() || answer[0] != 0 || !ReplyOf(answer, &type, &reply) ||
          type != MCP_TYPE_REPLY) {
        ADD_FAILURE() << "no reply to " << json;
      }
      return reply;
    }
    uint8_t Register(const std::string& name) {
      HalLinkFrame frame;
      if (!Send(kHalLinkRegisterTrapCallback, Bytes(name.begin(), name.end())) ||
          Read(&frame) != HalLinkReadResult::kFrame || frame.opcode != kHalLinkRegisterResult ||
          frame.payload.size() != 1) {
        return 0xff;
      }
      return frame.payload[0];
    }

   private:
    int fd_;
  };

  // The packet behind an answer's status byte: its type and its JSON text, parsed.
  static bool ReplyOf(const Bytes& answer, MCP_TYPE* type, Json::Value* reply) {
    MCPInfo packet;
    if (answer.size() < 2 ||
        !MCPHandler::ProcessFromBuffer(answer.data() + 1, answer.size() - 1, packet, nullptr)) {
      return false;
    }
    *type = packet.type;
    const char* text = reinterpret_cast<const char*>(packet.data);
    return Json::Reader().parse(text, text + packet.length - 1, *reply);
  }

  // A session subscribed to OTA message 11 whose traps go to `destination`.
  static uint64_t ReceivingSession(LinkClient* client, const std::string& destination) {
    uint64_t id = client->Command(kCreate)["data"]["sessionId"].asUInt64();
    std::string sid = R"("sessionId":)" + std::to_string(id);
    EXPECT_EQ(client->Command(R"({"api":"Tidewatch.Trap","method":"subscribe","version":1,)"
                              R"("arg":{"async":0,"msgId":11,"type":"OTA",)" +
                              sid + "}}")["ret"],
              0);
    EXPECT_EQ(client->Command(R"({"api":"Tidewatch.Trap.Receiver","method":"set","version":1,)"
                              R"("arg":{"server_name":")" +
                              destination + "\"," + sid + "}}")["ret"],
              0);
    EXPECT_EQ(client->Command(R"({"api":"Tidewatch.Trap","method":"enable","version":1,"arg":{)" +
                              sid + "}}")["ret"],
              0);
    return id;
  }

  // Checks the raw trap data of one MCP trap packet and gives its OTA discard count.
  static uint32_t CheckTrap(const Bytes& wire) {
    MCPInfo packet;
    EXPECT_TRUE(MCPHandler::ProcessFromBuffer(wire.data(), wire.size(), packet, nullptr));
    EXPECT_EQ(packet.type, MCP_TYPE_TRAP);
    TrapPacker trap(packet.data, packet.length);
    EXPECT_TRUE(trap.IsInitialized());
    EXPECT_EQ(trap.GetTrapType(), TRAP_TYPE_OTA);
    EXPECT_GE(trap.GetTrapDataLength(), 8u);
    if (!trap.IsInitialized() || trap.GetTrapDataLength() < 8) return 0;
    EXPECT_EQ(trap.GetTrapData()[0], 11);
    return trap.GetDiscardInfo(TRAP_TYPE_OTA);
  }

  std::string Destination() {
    return "tw_emu_" + std::to_string(getpid()) + "_" +
           testing::UnitTest::GetInstance()->current_test_info()->name();
  }

  tidewatch_test::EmulatorProcess emulator_;
};

TEST_F(HalEmulatorTest, BothEndpointsServeOneServiceAndSigtermEndsItCleanly) {
  ASSERT_TRUE(emulator_.Start());
  LinkClient aidl(HalGeneration::kAidl), hidl(HalGeneration::kHidl);
  ASSERT_TRUE(aidl.connected());
  ASSERT_TRUE(hidl.connected());
  Json::Value created = aidl.Command(kCreate);
  EXPECT_EQ(created["ret"], 0);
  EXPECT_EQ(created["api"], "Tidewatch.Session");
  EXPECT_EQ(created["method"], "create");
  EXPECT_EQ(created["version"], 1);
  uint64_t id = created["data"]["sessionId"].asUInt64();
  Json::Value list = hidl.Command(R"({"api":"Tidewatch.Session","method":"list","version":1,)"
                                  R"("arg":{"doerId":)" +
                                  std::to_string(id) + "}}");
  EXPECT_EQ(list["ret"], 0);
  EXPECT_EQ(list["data"]["sid_list"][0].asUInt64(), id);
  EXPECT_EQ(emulator_.Stop(), 0);
}

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
    ASSERT_TRUE(client.connected());
    ASSERT_EQ(send(client.fd(), garbage.data(), garbage.size(), MSG_NOSIGNAL),
              ssize_t(garbage.size()));
    HalLinkFrame frame;
    EXPECT_NE(client.Read(&frame), HalLinkReadResult::kFrame) << garbage.size();
  }
  // A well-framed request that is no MCP command is answered, and the connection stays.
  LinkClient client;
  MCP_TYPE type;
  Json::Value reply;
  ASSERT_TRUE(ReplyOf(client.Exchange({'j', 'u', 'n', 'k'}), &type, &reply));
  EXPECT_EQ(reply["ret"], 1);  // not a command packet, and nothing to echo
  EXPECT_EQ(reply.size(), 1u);
  EXPECT_EQ(client.Command(kCreate)["ret"], 0);
}

TEST_F(HalEmulatorTest, ClientsVanishingMidCallDoNotDisturbOthers) {
  ASSERT_TRUE(emulator_.Start());
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
  LinkClient fresh;
  EXPECT_EQ(fresh.Command(kCreate)["ret"], 0);
  EXPECT_EQ(waiting.Command(kCreate)["ret"], 0);
}

// Traps reach a registered callback; refused ones are reported with the next that is taken. A
// trap then left unanswered, with a wait far beyond the test's time-out, must freeze neither the
// command loop nor shutdown.
TEST_F(HalEmulatorTest, TrapsThroughARegisteredCallback) {
  ASSERT_TRUE(emulator_.Start({"--trap-rate", "50", "--callback-timeout-ms", "600000"}));
  std::string destination = Destination();
  LinkClient callback;
  ASSERT_EQ(callback.Register(destination), 0);
  LinkClient commands;
  ReceivingSession(&commands, destination);

  std::vector<uint32_t> discards;
  HalLinkFrame frame;
  for (uint8_t answer : {0, 0, 1, 1}) {
    ASSERT_EQ(callback.Read(&frame), HalLinkReadResult::kFrame);
    ASSERT_EQ(frame.opcode, kHalLinkTrap);
    discards.push_back(CheckTrap(frame.payload));
    ASSERT_TRUE(callback.Send(kHalLinkTrapResult, {answer}));
  }
  EXPECT_EQ(discards, (std::vector<uint32_t>{0, 1, 2, 0}));

  ASSERT_EQ(callback.Read(&frame), HalLinkReadResult::kFrame);  // and never answered
  EXPECT_EQ(commands.Command(kCreate)["ret"], 0);
  EXPECT_EQ(emulator_.Stop(), 0);
}

TEST_F(HalEmulatorTest, TrapsThroughTheDestinationSocket) {
  std::string destination = Destination();
  int listener = ListenAbstract(destination, 4);  // never prefixed
  ASSERT_GE(listener, 0);
  ASSERT_TRUE(emulator_.Start({"--trap-rate", "50", "--trap-size", "40"}));
  LinkClient commands;
  ReceivingSession(&commands, destination);
  int receiver = accept(listener, nullptr, nullptr);
  ASSERT_GE(receiver, 0);
  for (int i = 0; i < 3; ++i) {
    Bytes wire(kMcpHeaderSize + 5 + 40);
    ASSERT_EQ(recv(receiver, wire.data(), wire.size(), MSG_WAITALL), ssize_t(wire.size()));
    EXPECT_EQ(CheckTrap(wire), 0u);
  }
  close(receiver);
  close(listener);
}

}  // namespace
}  // namespace libtidewatch
