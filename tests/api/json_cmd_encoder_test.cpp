#include "libtidewatch/api/json_cmd_encoder.h"

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "libtidewatch/platform/log.h"
#include "tests/support/log_capture.h"

namespace libtidewatch {
namespace {

class JsonCmdEncoderTest : public ::testing::Test {
 protected:
  // Records every request packet and answers with the scripted reply.
  class FakeTransmitter : public Transmitter {
   public:
    bool Send(const MCPInfo& request, MCPInfo** reply, volatile bool* stop) override {
      EXPECT_EQ(stop, nullptr);
      EXPECT_EQ(request.type, MCP_TYPE_CMD);
      requests.emplace_back(reinterpret_cast<const char*>(request.data), request.length);
      if (!sendOk || !hasReply) return sendOk;
      MCPInfo* info = new MCPInfo();
      info->SetData(MCP_TYPE_REPLY, replyPayload.size(),
                    reinterpret_cast<const uint8_t*>(replyPayload.data()), true);
      *reply = info;
      return true;
    }
    bool CheckValid() override { return true; }

    std::vector<std::string> requests;
    bool sendOk = true;
    bool hasReply = true;
    std::string replyPayload;
  };

  // Scripts a reply packet carrying `json` and its NUL.
  void ReplyWith(const std::string& json) { fake.replyPayload = json + '\0'; }
  // A reply to `method` of "Tidewatch.Session" with "ret" 0 and `data`.
  void SessionReply(const std::string& method, const std::string& data) {
    ReplyWith(R"({"api":"Tidewatch.Session","method":")" + method +
              R"(","version":1,"ret":0,"data":)" + data + "}");
  }

  tidewatch_test::LogCapture log_{kLogError};
  FakeTransmitter fake;
  JsonCmdEncoder encoder{&fake};
};

TEST_F(JsonCmdEncoderTest, RequestBytes) {
  const struct {
    std::function<void(JsonCmdEncoder&)> call;
    std::string json;
  } cases[] = {
      {[](JsonCmdEncoder& e) { e.CreateSession(nullptr); },
       R"({"api":"Tidewatch.Session","method":"create","version":1})"},
      {[](JsonCmdEncoder& e) { e.CreateSession("MgrSecret"); },
       R"({"api":"Tidewatch.Session","arg":{"secret":"MgrSecret"},"method":"create","version":1})"},
      {[](JsonCmdEncoder& e) { e.UnsubscribeTrap(0, UINT64_MAX, TRAP_TYPE_ICD_EVENT, 0, true); },
       R"({"api":"Tidewatch.Trap","arg":{"async":1,"msgId":0,"sessionId":18446744073709551615,)"
       R"("type":"ICD_EVENT"},"method":"unsubscribe","version":1})"},
      {[](JsonCmdEncoder& e) { e.SetTrapReceiver(0, 12, "srv"); },
       R"({"api":"Tidewatch.Trap.Receiver","arg":{"server_name":"12srv","sessionId":12},)"
       R"("method":"set","version":1})"},
      {[](JsonCmdEncoder& e) { e.SetDebugLevel(0, MONITOR_DEBUG_LEVEL_DISABLE); },
       R"({"api":"Tidewatch.DebugLevel","arg":{"doerId":0,"level":10},"method":"set","version":1})"},
  };
  for (const auto& c : cases) {
    fake.requests.clear();
    c.call(encoder);
    ASSERT_EQ(fake.requests.size(), 1u) << c.json;
    EXPECT_EQ(fake.requests[0], c.json + "\n" + '\0');
  }
}

// An argument without JSON form sends nothing; a failed send or a missing reply is a send failure.
TEST_F(JsonCmdEncoderTest, NothingSentOrNothingBack) {
  JsonCmdEncoder unbound(nullptr);
  EXPECT_EQ(encoder.SubscribeTrap(0, 1, TRAP_TYPE_DISCARD_INFO, 1, false),
            MONITOR_RESULT_BAD_ARGUMENT);
  EXPECT_EQ(encoder.UnsubscribeTrap(0, 1, static_cast<TRAP_TYPE>(9), 1, false),
            MONITOR_RESULT_BAD_ARGUMENT);
  EXPECT_EQ(encoder.SetTrapReceiver(0, 1, nullptr), MONITOR_RESULT_BAD_ARGUMENT);
  EXPECT_TRUE(fake.requests.empty());
  EXPECT_EQ(unbound.CreateSession(nullptr), uint64_t{MONITOR_RESULT_SEND_FAILED});
  fake.sendOk = false;
  EXPECT_EQ(encoder.EnableTrap(0, 1), MONITOR_RESULT_SEND_FAILED);
  fake.sendOk = true;
  fake.hasReply = false;
  EXPECT_EQ(encoder.DisableTrap(0, 1), MONITOR_RESULT_SEND_FAILED);
  EXPECT_EQ(log_.Lines(),
            (std::vector<std::string>{"E Undefined type [1]", "E Undefined type [9]",
                                      "E szServerName should not be NULL", "E Send command failed.",
                                      "E Send command failed.", "E No reply received."}));
}

// Every command shares these checks; CloseSession stands for them. The end-to-end suite has
// the replies of the wrong type, API or version, with a bad "ret" or not JSON at all.
TEST_F(JsonCmdEncoderTest, ReplyChecks) {
  const std::string head = R"({"api":"Tidewatch.Session","method":"close",)";
  const struct {
    std::string json;
    int32_t result;
    std::string log;  // the error expected, or empty
  } cases[] = {
      {head + R"("version":1,"ret":0})", 0, ""},
      // Nested past the JSON reader's depth limit, which makes the reader throw.
      {std::string(1001, '['), 10, "Cannot parse reply in Json."},
      {"[1,2]", 10, "Reply is not Json object"},
      {R"({"api":"Tidewatch.Session","method":"open","version":1,"ret":0})", 10,
       "Reply Method [open] != Command Method [close]"},
      {head + R"("version":"1","ret":0})", 10, "Type of [version] is not correct in JSON reply:"},
      {head + R"("version":4294967297,"ret":0})", 0, ""},
      {head + R"("version":1,"ret":null})", 10, "Type of [ret] is not correct in JSON reply:"},
      {head + R"("version":1,"ret":false})", 0, ""},
      {head + R"("version":1,"ret":15.7})", 15, ""},
  };
  for (const auto& c : cases) {
    log_.Clear();
    ReplyWith(c.json);
    EXPECT_EQ(encoder.CloseSession(0, 1), c.result) << c.json;
    EXPECT_EQ(log_.Lines(),
              c.log.empty() ? std::vector<std::string>{} : std::vector<std::string>{"E " + c.log})
        << c.json;
  }
  // Without its closing NUL a reply loses its last character to it, and does not parse.
  fake.replyPayload = head + R"("version":1,"ret":0})";
  EXPECT_EQ(encoder.CloseSession(0, 1), MONITOR_RESULT_BAD_REPLY);
}

TEST_F(JsonCmdEncoderTest, CreateSessionMixesIdsAndCodesUnlessAskedApart) {
  const std::string head = R"({"api":"Tidewatch.Session","method":"create","version":1,)";
  constexpr uint64_t kUntouched = 777;
  const struct {
    std::string json;
    uint64_t mixed;  // what the one-value call returns
    int32_t code;    // what the two-value call returns
    uint64_t id;     // and leaves in its id
  } cases[] = {
      {head + R"("ret":0,"data":{"sessionId":42}})", 42, 0, 42},
      {head + R"("ret":0,"data":{"sessionId":true}})", 1, 0, 1},
      {head + R"("ret":5,"data":{"sessionId":42}})", 0, 5, kUntouched},
      {head + R"("ret":0,"data":{"sessionId":10}})", 10, 0, 10},  // an id equal to a code
      {head + R"("ret":0})", 10, 10, kUntouched},
      {head + R"("ret":16,"data":{"sessionId":42}})", 10, 10, kUntouched},
      {"[1,2]", 10, 10, kUntouched},  // no object: nothing is looked up in it
  };
  for (const auto& c : cases) {
    ReplyWith(c.json);
    EXPECT_EQ(encoder.CreateSession(nullptr), c.mixed) << c.json;
    uint64_t id = kUntouched;
    EXPECT_EQ(encoder.CreateSession(nullptr, &id), c.code) << c.json;
    EXPECT_EQ(id, c.id) << c.json;
  }
  fake.sendOk = false;
  uint64_t id = kUntouched;
  EXPECT_EQ(encoder.CreateSession(nullptr, &id), MONITOR_RESULT_SEND_FAILED);
  EXPECT_EQ(id, kUntouched);
}

// Lists beyond the last trap type have nowhere to go and are ignored; listed ids replace the old.
TEST_F(JsonCmdEncoderTest, SuccessfulReadsFillTheOutputs) {
  SessionReply("get", R"({"trapEnabled":true,"subscribedTraps":[[],5,[],[17,18],[],[],[],[],[8],)"
                      R"([9],["x"]],"trapReceiverHost":"7srv"})");
  MONITOR_SESSION_STATUS status;
  status.subscribedTraps[TRAP_TYPE_EM] = {1};
  ASSERT_EQ(encoder.GetSession(0, 7, status), 0);
  EXPECT_TRUE(status.trapEnabled);
  EXPECT_EQ(status.trapReceiverHost, "7srv");
  std::vector<uint64_t> expected[TRAP_TYPE_NUM];
  expected[TRAP_TYPE_EM] = {1, 17, 18};
  expected[TRAP_TYPE_ICD_EVENT] = {8};
  for (size_t t = 0; t < TRAP_TYPE_NUM; ++t) EXPECT_EQ(status.subscribedTraps[t], expected[t]) << t;
  std::vector<uint64_t> ids{9, 9};
  SessionReply("list", R"({"sid_list":[3,1,2]})");
  ASSERT_EQ(encoder.ListSession(0, ids), 0);
  EXPECT_EQ(ids, (std::vector<uint64_t>{3, 1, 2}));
}

// Everything is read before anything is written, so a failure leaves the outputs as they were.
TEST_F(JsonCmdEncoderTest, FailedGetAndListLeaveTheirOutputsUntouched) {
  const struct {
    const char* method;
    std::string data;
    std::string log;
  } cases[] = {
      {"get", R"({"trapEnabled":1,"subscribedTraps":[[1]],"trapReceiverHost":"h"})",
       "Type of [trapEnabled] is not correct in JSON reply:"},
      {"get", R"({"trapEnabled":true,"subscribedTraps":[[1,"2"]],"trapReceiverHost":"h"})",
       "Type of [subscribedTraps] is not correct in JSON reply:"},
      {"get", "null", "Type of [data] is not correct in JSON reply:"},
      {"list", R"({"sids":[1]})", "Key: [sid_list] is not found in JSON reply:"},
      {"list", R"({"sid_list":[1,null]})", "Type of [sid_list] is not correct in JSON reply:"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.data);
    log_.Clear();
    SessionReply(c.method, c.data);
    MONITOR_SESSION_STATUS status;
    status.trapReceiverHost = "before";
    std::vector<uint64_t> ids{9};
    EXPECT_EQ(c.method[0] == 'g' ? encoder.GetSession(0, 7, status) : encoder.ListSession(0, ids),
              MONITOR_RESULT_BAD_REPLY);
    EXPECT_EQ(log_.Lines(), std::vector<std::string>{"E " + c.log});
    EXPECT_FALSE(status.trapEnabled);
    EXPECT_EQ(status.trapReceiverHost, "before");
    EXPECT_TRUE(status.subscribedTraps[0].empty());
    EXPECT_EQ(ids, std::vector<uint64_t>{9});
  }
  // A refusal by the service is passed through, and nothing is read.
  ReplyWith(R"({"api":"Tidewatch.Session","method":"list","version":1,"ret":7})");
  std::vector<uint64_t> ids{9};
  EXPECT_EQ(encoder.ListSession(0, ids), 7);
  EXPECT_EQ(ids, std::vector<uint64_t>{9});
}

// Bad unsigned numbers throw for main's handler; everything is read first, so outputs keep.
TEST_F(JsonCmdEncoderTest, NegativeUnsignedThrows) {
  const auto thrown = [](const std::function<void()>& call) -> std::string {
    try {
      call();
    } catch (const std::exception& e) {
      return e.what();
    }
    return "nothing thrown";
  };
  SessionReply("create", R"({"sessionId":1e30})");
  EXPECT_EQ(thrown([&] { encoder.CreateSession(nullptr); }), "Real out of UInt64 range");
  MONITOR_SESSION_STATUS status;
  SessionReply("get",
               R"({"trapEnabled":true,"subscribedTraps":[[4],[-1]],"trapReceiverHost":"h"})");
  EXPECT_EQ(thrown([&] { encoder.GetSession(0, 1, status); }),
            "Negative integer can not be converted to UInt64");
  EXPECT_TRUE(status.subscribedTraps[0].empty());
  EXPECT_FALSE(status.trapEnabled);
}

}  // namespace
}  // namespace libtidewatch
