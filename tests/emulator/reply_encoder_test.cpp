#include "emulator/reply_encoder.h"

#include <gtest/gtest.h>

#include <string>

#include "emulator/result_codes.h"
#include "libtidewatch/transport/mcp_handler.h"
#include "libtidewatch/transport/mcp_info.h"

namespace libtidewatch {
namespace {

class ReplyEncoderTest : public testing::Test {
 protected:
  static Json::Value Reply() {
    Json::Value reply;
    reply["api"] = "S";
    reply["method"] = "c";
    reply["version"] = 1;
    reply["ret"] = 0;
    reply["data"]["id"] = 5;
    return reply;
  }

  // What a client finds in the answer: the packet type and its text without the NUL; false when
  // the bytes hold no packet or the payload is not NUL-terminated text.
  static bool Unpack(const CommandAnswer& answer, MCP_TYPE* type, std::string* text) {
    MCPInfo packet;
    if (!MCPHandler::ProcessFromBuffer(answer.reply.data(), answer.reply.size(), packet, nullptr) ||
        packet.length == 0 || packet.data[packet.length - 1] != '\0') {
      return false;
    }
    *type = packet.type;
    text->assign(reinterpret_cast<const char*>(packet.data), packet.length - 1);
    return true;
  }
};

TEST_F(ReplyEncoderTest, CleanReplyIsCompactJsonInAReplyPacket) {
  ReplyEncoder encoder(ReplyFault::kNone);
  std::string sent;
  CommandAnswer answer = encoder.Encode(Reply(), &sent);
  EXPECT_EQ(answer.status, 0);
  MCP_TYPE type;
  std::string text;
  ASSERT_TRUE(Unpack(answer, &type, &text));
  EXPECT_EQ(type, MCP_TYPE_REPLY);
  EXPECT_EQ(text, R"({"api":"S","data":{"id":5},"method":"c","ret":0,)"
                  R"("version":1})");
  EXPECT_EQ(sent, text);
}

TEST_F(ReplyEncoderTest, FaultsDamageEveryAnswer) {
  struct Case {
    const char* name;
    uint8_t status;
    bool packet;          // the bytes hold an MCP packet
    MCP_TYPE type;        // ... of this type
    const char* payload;  // ... whose text is this
  } cases[] = {
      {"empty-reply", 0, false, MCP_TYPE_NONE, nullptr},
      {"transaction-fail", 1, false, MCP_TYPE_NONE, nullptr},
      {"not-mcp", 0, false, MCP_TYPE_NONE, nullptr},
      {"trap-type-reply", 0, true, MCP_TYPE_TRAP,
       R"({"api":"S","data":{"id":5},"method":"c","ret":0,"version":1})"},
      {"bad-json", 0, true, MCP_TYPE_REPLY,
       R"({"api":"S","data":{"id":5},"method":"c","ret":0,"version":1)"},
      {"not-object", 0, true, MCP_TYPE_REPLY,
       R"([{"api":"S","data":{"id":5},"method":"c","ret":0,"version":1}])"},
      {"wrong-api", 0, true, MCP_TYPE_REPLY,
       R"({"api":"Tidewatch.Unexpected","data":{"id":5},"method":"c","ret":0,"version":1})"},
      {"wrong-method", 0, true, MCP_TYPE_REPLY,
       R"({"api":"S","data":{"id":5},"method":"unexpected","ret":0,"version":1})"},
      {"wrong-version", 0, true, MCP_TYPE_REPLY,
       R"({"api":"S","data":{"id":5},"method":"c","ret":0,"version":2})"},
      {"missing-ret", 0, true, MCP_TYPE_REPLY,
       R"({"api":"S","data":{"id":5},"method":"c","version":1})"},
      {"ret-out-of-range", 0, true, MCP_TYPE_REPLY,
       R"({"api":"S","data":{"id":5},"method":"c","ret":16,"version":1})"},
      {"no-data", 0, true, MCP_TYPE_REPLY, R"({"api":"S","method":"c","ret":0,"version":1})"},
  };
  for (const Case& c : cases) {
    ReplyFault fault;
    ASSERT_TRUE(ParseReplyFault(c.name, &fault)) << c.name;
    ReplyEncoder encoder(fault);
    CommandAnswer answer = encoder.Encode(Reply(), nullptr);
    EXPECT_EQ(answer.status, c.status) << c.name;
    MCP_TYPE type = MCP_TYPE_NONE;
    std::string text;
    ASSERT_EQ(Unpack(answer, &type, &text), c.packet) << c.name;
    if (!c.packet) continue;
    EXPECT_EQ(type, c.type) << c.name;
    EXPECT_EQ(text, c.payload) << c.name;
  }
  ReplyFault fault;
  EXPECT_FALSE(ParseReplyFault("Empty-Reply", &fault));
}

TEST_F(ReplyEncoderTest, ReplyTooLongForAPacketBecomesAnInternalError) {
  Json::Value reply = Reply();
  reply["data"]["id"] = std::string(kMcpMaxPayload, 'x');
  ReplyEncoder encoder(ReplyFault::kNone);
  MCP_TYPE type;
  std::string text;
  ASSERT_TRUE(Unpack(encoder.Encode(reply, nullptr), &type, &text));
  EXPECT_EQ(text, R"({"api":"S","method":"c","ret":15,"version":1})");
}

}  // namespace
}  // namespace libtidewatch
