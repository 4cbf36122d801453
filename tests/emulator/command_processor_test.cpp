#include "emulator/command_processor.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "emulator/reply_encoder.h"
#include "emulator/result_codes.h"

namespace hal_emulator {
namespace {

class CommandProcessorTest : public testing::Test {
 protected:
  // Sends `text` as the tool does: with its line feed and terminating NUL.
  Json::Value Run(const std::string& text) {
    std::string payload = text + "\n";
    payload.push_back('\0');
    return processor_.Process(reinterpret_cast<const uint8_t*>(payload.data()), payload.size());
  }

  uint64_t Create(const std::string& arg = "") {
    Json::Value reply = Run(R"({"api":"Tidewatch.Session","method":"create","version":1)" +
                            (arg.empty() ? "" : ",\"arg\":" + arg) + "}");
    EXPECT_EQ(reply["ret"].asInt(), kRetOk) << WriteCompactJson(reply);
    return reply["data"]["sessionId"].asUInt64();
  }
  int Ret(const std::string& api, const std::string& method, const std::string& arg) {
    return Run(R"({"api":")" + api + R"(","method":")" + method + R"(","version":1,"arg":)" + arg +
               "}")["ret"]
        .asInt();
  }

  SessionTable sessions_{1, SessionLimits{}};
  CommandProcessor processor_{&sessions_, ServiceSecrets{}};
};

TEST_F(CommandProcessorTest, SecretsChooseTheLevel) {
  uint64_t guest = Create();
  uint64_t manager = Create(R"({"secret":"TidewatchManagerAccess"})");
  uint64_t root = Create(R"({"secret":"TidewatchRootAccess"})");
  Json::Value wrong = Run(R"({"api":"Tidewatch.Session","arg":{"secret":"tidewatchrootaccess"},)"
                          R"("method":"create","version":1})");
  EXPECT_EQ(wrong["ret"].asInt(), kRetWrongSecret);
  EXPECT_FALSE(wrong.isMember("data"));
  EXPECT_EQ(sessions_.Size(), 3u);

  std::string close = R"({"doerId":)" + std::to_string(manager) + R"(,"sessionId":)";
  EXPECT_EQ(Ret("Tidewatch.Session", "close", close + std::to_string(root) + "}"),
            kRetPermissionDenied);
  EXPECT_EQ(Ret("Tidewatch.Session", "close", close + std::to_string(guest) + "}"), kRetOk);
}

TEST_F(CommandProcessorTest, DebugLevelNeedsAPrivilegedDoerAndAKnownLevel) {
  std::vector<int> applied;
  processor_.SetDebugLevelHook([&](int level) { applied.push_back(level); });
  uint64_t guest = Create();
  uint64_t manager = Create(R"({"secret":"TidewatchManagerAccess"})");
  auto set = [&](uint64_t doer, int level) {
    return Ret(
        "Tidewatch.DebugLevel", "set",
        R"({"doerId":)" + std::to_string(doer) + R"(,"level":)" + std::to_string(level) + "}");
  };
  EXPECT_EQ(set(guest, 3), kRetPermissionDenied);
  EXPECT_EQ(set(manager, 7), kRetBadArgument);
  EXPECT_EQ(set(manager, 0), kRetBadArgument);
  EXPECT_EQ(set(0, 3), kRetNoSuchSession);
  EXPECT_EQ(set(manager, 10), kRetOk);
  EXPECT_EQ(set(manager, 1), kRetOk);
  EXPECT_EQ(applied, (std::vector<int>{10, 1}));
  EXPECT_EQ(processor_.DebugLevel(), 1);
}

// Every malformed request is answered, with a "ret" from 1 to 15 and as much echoed as can be.
TEST_F(CommandProcessorTest, BadRequestsAreRefused) {
  Create();
  struct Case {
    const char* text;
    int ret;
    const char* echo;  // the reply without "ret"
  } cases[] = {
      {"", kRetNotJsonObject, "{}"},
      {"not json", kRetNotJsonObject, "{}"},
      {"[1,2]", kRetNotJsonObject, "{}"},
      {"{\"api\":\"Tidewatch.Session\"} trailing", kRetNotJsonObject, "{}"},
      {"{\"a\":1,\"a\":2}", kRetNotJsonObject, "{}"},
      {"{}", kRetBadArgument, "{}"},
      {R"({"api":7,"method":"list","version":1,"arg":{"doerId":1}})", kRetBadArgument,
       R"({"method":"list","version":1})"},
      {R"({"api":"Tidewatch.Session","method":"list","arg":{"doerId":1}})", kRetBadArgument,
       R"({"api":"Tidewatch.Session","method":"list"})"},
      {R"({"api":"Tidewatch.Session","method":"list","version":-1,"arg":{"doerId":1}})",
       kRetBadArgument, R"({"api":"Tidewatch.Session","method":"list"})"},
      {R"({"api":"Tidewatch.Session","method":"list","version":"1","arg":{"doerId":1}})",
       kRetBadArgument, R"({"api":"Tidewatch.Session","method":"list"})"},
      {R"({"api":"Tidewatch.Session","method":"list","version":2,"arg":{"doerId":1}})",
       kRetBadVersion, R"({"api":"Tidewatch.Session","method":"list","version":2})"},
      {R"({"api":"Tidewatch.Session","method":"destroy","version":1})", kRetUnknownCommand,
       R"({"api":"Tidewatch.Session","method":"destroy","version":1})"},
      {R"({"api":"Tidewatch.Nothing","method":"list","version":1})", kRetUnknownCommand,
       R"({"api":"Tidewatch.Nothing","method":"list","version":1})"},
      {R"({"api":"Tidewatch.ICD.RangeInfo","method":"list","version":1})", kRetUnsupported,
       R"({"api":"Tidewatch.ICD.RangeInfo","method":"list","version":1})"},
  };
  for (const Case& c : cases) {
    Json::Value reply = Run(c.text);
    ASSERT_TRUE(reply.isObject()) << c.text;
    EXPECT_EQ(reply["ret"].asInt(), c.ret) << c.text;
    reply.removeMember("ret");
    EXPECT_EQ(WriteCompactJson(reply), c.echo) << c.text;
  }
}

TEST_F(CommandProcessorTest, BadArgumentsAreRefused) {
  Create();
  struct Case {
    const char* api;
    const char* method;
    const char* arg;
  } cases[] = {
      {"Tidewatch.Session", "close", "5"},
      {"Tidewatch.Session", "close", "{}"},
      {"Tidewatch.Session", "close", R"({"sessionId":"1"})"},
      {"Tidewatch.Session", "close", R"({"sessionId":-1})"},
      {"Tidewatch.Session", "close", R"({"sessionId":1.5})"},
      {"Tidewatch.Session", "close", R"({"sessionId":true})"},
      {"Tidewatch.Session", "close", R"({"sessionId":1,"doerId":null})"},
      {"Tidewatch.Session", "get", R"({"sessionId":1e30})"},
      {"Tidewatch.Session", "list", "{}"},
      {"Tidewatch.Session", "create", R"({"secret":17})"},
      {"Tidewatch.Session", "create", "[]"},
      {"Tidewatch.Trap", "subscribe", R"({"sessionId":1,"msgId":1})"},
      {"Tidewatch.Trap", "subscribe", R"({"sessionId":1,"type":"em","msgId":1})"},
      {"Tidewatch.Trap", "subscribe", R"({"sessionId":1,"type":"EM\u0000x","msgId":1})"},
      {"Tidewatch.Trap", "subscribe", R"({"sessionId":1,"type":"EM"})"},
      {"Tidewatch.Trap", "subscribe", R"({"sessionId":1,"type":"EM","msgId":1,"async":"no"})"},
      {"Tidewatch.Trap.Receiver", "set", R"({"sessionId":1})"},
      {"Tidewatch.Trap.Receiver", "set", R"({"sessionId":1,"server_name":["x"]})"},
      {"Tidewatch.Trap.Receiver", "set", R"({"sessionId":1,"server_name":"a\u0000b"})"},
      {"Tidewatch.DebugLevel", "set", R"({"doerId":1})"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(Ret(c.api, c.method, c.arg), kRetBadArgument) << c.method << " " << c.arg;
  }
  // A socket name has room for 107 bytes.
  for (size_t length : {108, 107}) {
    const std::string arg = R"({"sessionId":1,"server_name":")" + std::string(length, 'n') + "\"}";
    EXPECT_EQ(Ret("Tidewatch.Trap.Receiver", "set", arg), length > 107 ? kRetBadArgument : kRetOk);
  }
}

TEST_F(CommandProcessorTest, DeepNestingIsRefusedNotThrown) {
  std::string deep = R"({"api":"Tidewatch.Session","method":"create","version":1,"arg":)" +
                     std::string(5000, '[') + std::string(5000, ']') + "}";
  EXPECT_EQ(Run(deep)["ret"].asInt(), kRetNotJsonObject);
  // Brackets inside strings are text, not nesting.
  std::string quoted = R"({"api":"Tidewatch.Session","method":"create","version":1,"arg":)"
                       R"({"secret":")" +
                       std::string(200, '[') + "\"}}";
  EXPECT_EQ(Run(quoted)["ret"].asInt(), kRetWrongSecret);
}

}  // namespace
}  // namespace hal_emulator
