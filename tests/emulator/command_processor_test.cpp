// The emulator's service state: commands, the session table behind them, and replayed captures.
#include "emulator/command_processor.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "emulator/pcapng_replay.h"
#include "emulator/reply_encoder.h"
#include "emulator/result_codes.h"
#include "libtidewatch/pcapng/pcapng_writer.h"
#include "tests/support/sample_traps.h"
#include "tests/support/scratch_dir.h"

namespace hal_emulator {
namespace {

using Bytes = std::vector<uint8_t>;
using libtidewatch::MONITOR_SESSION_STATUS;
using libtidewatch::TRAP_TYPE;

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

TEST_F(CommandProcessorTest, SecretsChooseTheLevelAndTheRights) {
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

  // The debug level needs a privileged doer and a known level.
  guest = Create();
  std::vector<int> applied;
  processor_.SetDebugLevelHook([&](int level) { applied.push_back(level); });
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

class SessionTableTest : public testing::Test {
 protected:
  uint64_t Make(SessionLevel level) {
    uint64_t id = 0;
    EXPECT_EQ(table_.Create(level, &id), kRetOk);
    return id;
  }

  SessionLimits limits_{/*maxSessions=*/8, /*maxSubscriptions=*/3};
  SessionTable table_{100, limits_};
};

TEST_F(SessionTableTest, IdsIncreaseAreNeverReusedAndRunOut) {
  uint64_t a = Make(SessionLevel::kGuest);
  uint64_t b = Make(SessionLevel::kGuest);
  EXPECT_EQ(a, 100u);
  EXPECT_EQ(b, 101u);
  ASSERT_EQ(table_.Close(0, b), kRetOk);
  EXPECT_EQ(Make(SessionLevel::kGuest), 102u);

  SessionTable last(UINT64_MAX, limits_);  // runs out instead of wrapping to 0
  uint64_t id = 0;
  ASSERT_EQ(last.Create(SessionLevel::kGuest, &id), kRetOk);
  EXPECT_EQ(id, UINT64_MAX);
  EXPECT_EQ(last.Create(SessionLevel::kGuest, &id), kRetSessionLimit);
  // At the session limit creation is refused until one closes.
  while (table_.Size() < limits_.maxSessions) Make(SessionLevel::kGuest);
  EXPECT_EQ(table_.Create(SessionLevel::kGuest, &id), kRetSessionLimit);
  ASSERT_EQ(table_.Close(0, 100), kRetOk);
  EXPECT_EQ(table_.Create(SessionLevel::kGuest, &id), kRetOk);
}

TEST_F(SessionTableTest, DoerRules) {
  uint64_t guest = Make(SessionLevel::kGuest);
  uint64_t guest2 = Make(SessionLevel::kGuest);
  uint64_t manager = Make(SessionLevel::kManager);
  uint64_t manager2 = Make(SessionLevel::kManager);
  uint64_t root = Make(SessionLevel::kRoot);
  uint64_t root2 = Make(SessionLevel::kRoot);
  struct Case {
    uint64_t doer, target;
    int ret;
  } cases[] = {
      {0, guest, kRetOk},
      {guest, guest, kRetOk},
      {guest, guest2, kRetPermissionDenied},
      {guest, manager, kRetPermissionDenied},
      {manager, guest, kRetOk},
      {manager, manager, kRetOk},
      {manager, manager2, kRetPermissionDenied},
      {manager, root, kRetPermissionDenied},
      {root, guest, kRetOk},
      {root, manager, kRetOk},
      {root, root2, kRetOk},
      {0, 999, kRetNoSuchSession},
      {999, guest, kRetNoSuchSession},
  };
  MONITOR_SESSION_STATUS status;
  for (const Case& c : cases) {
    EXPECT_EQ(table_.SetTrapEnabled(c.doer, c.target, true), c.ret)
        << "doer " << c.doer << " target " << c.target;
    EXPECT_EQ(table_.Get(c.doer, c.target, &status), c.ret);
  }
  // A refused doer changed nothing.
  ASSERT_EQ(table_.Get(0, root2, &status), kRetOk);
  EXPECT_TRUE(status.trapEnabled);  // only root touched it
  ASSERT_EQ(table_.Get(0, manager2, &status), kRetOk);
  EXPECT_FALSE(status.trapEnabled);
  // A list shows what the doer may act on.
  std::vector<uint64_t> ids{42};
  ASSERT_EQ(table_.List(guest, &ids), kRetOk);
  EXPECT_EQ(ids, (std::vector<uint64_t>{guest}));
  ASSERT_EQ(table_.List(manager, &ids), kRetOk);
  EXPECT_EQ(ids, (std::vector<uint64_t>{guest, guest2, manager}));
  ASSERT_EQ(table_.List(root, &ids), kRetOk);
  EXPECT_EQ(ids.size(), 6u);
  EXPECT_EQ(table_.List(0, &ids), kRetNoSuchSession);
}

TEST_F(SessionTableTest, SubscriptionsAreCountedOnceAndLimited) {
  uint64_t s = Make(SessionLevel::kGuest);
  EXPECT_EQ(table_.Subscribe(0, s, libtidewatch::TRAP_TYPE_EM, 7), kRetOk);
  EXPECT_EQ(table_.Subscribe(0, s, libtidewatch::TRAP_TYPE_EM, 7),
            kRetOk);  // again: no second slot used
  EXPECT_EQ(table_.Subscribe(0, s, libtidewatch::TRAP_TYPE_OTA, 7), kRetOk);
  EXPECT_EQ(table_.Subscribe(0, s, libtidewatch::TRAP_TYPE_EM, 5), kRetOk);
  EXPECT_EQ(table_.Subscribe(0, s, libtidewatch::TRAP_TYPE_IP, 1), kRetSubscriptionLimit);
  EXPECT_EQ(table_.Unsubscribe(0, s, libtidewatch::TRAP_TYPE_IP, 1), kRetNotSubscribed);
  EXPECT_EQ(table_.Unsubscribe(0, s, libtidewatch::TRAP_TYPE_EM, 7), kRetOk);
  EXPECT_EQ(table_.Subscribe(0, s, libtidewatch::TRAP_TYPE_IP, 1), kRetOk);
  EXPECT_EQ(table_.Subscribe(0, s, libtidewatch::TRAP_TYPE_DISCARD_INFO, 1), kRetBadArgument);

  MONITOR_SESSION_STATUS status;
  ASSERT_EQ(table_.Get(0, s, &status), kRetOk);
  EXPECT_EQ(status.subscribedTraps[libtidewatch::TRAP_TYPE_EM], (std::vector<uint64_t>{5}));
  EXPECT_EQ(status.subscribedTraps[libtidewatch::TRAP_TYPE_OTA], (std::vector<uint64_t>{7}));
  EXPECT_EQ(status.subscribedTraps[libtidewatch::TRAP_TYPE_IP], (std::vector<uint64_t>{1}));
}

TEST_F(SessionTableTest, OnlyCompleteSessionsReceiveTraps) {
  uint64_t full = Make(SessionLevel::kGuest);
  uint64_t noReceiver = Make(SessionLevel::kGuest);
  uint64_t disabled = Make(SessionLevel::kGuest);
  uint64_t noSubscription = Make(SessionLevel::kGuest);
  for (uint64_t s : {full, noReceiver, disabled, noSubscription}) {
    if (s != noSubscription) {
      table_.Subscribe(0, s, libtidewatch::TRAP_TYPE_VOLTE, 9);
      table_.Subscribe(0, s, libtidewatch::TRAP_TYPE_OTA, 3);
    }
    if (s != noReceiver) table_.SetReceiver(0, s, std::to_string(s) + "rx");
    if (s != disabled) table_.SetTrapEnabled(0, s, true);
  }
  std::vector<DeliveringSession> receiving = table_.Delivering();
  ASSERT_EQ(receiving.size(), 1u);
  EXPECT_EQ(receiving[0].id, full);
  EXPECT_EQ(receiving[0].destination, std::to_string(full) + "rx");
  using Sub = std::pair<TRAP_TYPE, uint64_t>;
  EXPECT_EQ(receiving[0].subscriptions, (std::vector<Sub>{{libtidewatch::TRAP_TYPE_OTA, 3},
                                                          {libtidewatch::TRAP_TYPE_VOLTE, 9}}));
  ASSERT_EQ(table_.Close(0, full), kRetOk);
  EXPECT_TRUE(table_.Delivering().empty());
}

class PcapngReplayTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_samples.push_back(tidewatch_test::OtaSample(1, "OTA_TRACE_LTE_RRC", 1,
                                                  "LTE_RRC_MASTER_INFORMATION_BLOCK", 1000,
                                                  tidewatch_test::LteMib(9)));
    m_samples.push_back(tidewatch_test::EmSample(2, "EM_LTE_RRC_STATE", 2002, {{"STATE", 1}}));
    // Arrived short: 6 of its PDU's 10 bytes are missing.
    m_samples.push_back(tidewatch_test::OtaSample(
        3, "OTA_TRACE_NR_NAS", 4, "NR_NAS_REGISTRATION_REQUEST", 1035, Bytes(10, 7), 6));
    libtidewatch::PcapngWriter writer("tide_watch_capture test");
    writer.BeginSection(0, &m_file);
    for (const auto& s : m_samples) {
      m_ends.push_back(m_file.size());
      writer.AppendTrap(s->trap, 0, &m_file);
    }
    writer.EndSection(0, 0, &m_file);
  }

  std::vector<std::unique_ptr<tidewatch_test::SampleTrap>> m_samples;
  std::vector<size_t> m_ends;  // where each trap's block starts
  std::string m_file;
};

TEST_F(PcapngReplayTest, ReplaysTheCapturedRecordsInOrder) {
  // The short record keeps its bytes; its length says what it holds, so the next record stays
  // framed.
  Bytes shortRecord = m_samples[2]->record;
  shortRecord[1] = static_cast<uint8_t>(shortRecord.size() - 5);
  const std::vector<Bytes> all = {m_samples[0]->record, m_samples[1]->record, shortRecord};
  std::string damaged = m_file;
  damaged[m_ends[1] + 28] ^= 0xFF;  // the second trap's header magic
  struct Case {
    const char* what;
    std::string file;
    size_t maxRecord;
    std::vector<Bytes> records;
    std::string error;
  };
  const std::vector<Case> cases = {
      {"whole file", m_file, 1000, all, ""},
      {"cut inside the last trap", m_file.substr(0, m_ends[2] + 30), 1000, {all[0], all[1]}, ""},
      {"record too large", m_file, 20, {}, "trap 2 is larger than 20 bytes"},
      {"damaged",
       damaged,
       1000,
       {},
       "block 4 (Enhanced Packet Block 0x00000006) at byte offset " + std::to_string(m_ends[1]) +
           ": bad trap header: no magic"},
  };
  tidewatch_test::ScratchDir dir("pcapng_replay");
  const std::string path = dir.path() + "/capture.pcapng";
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ASSERT_TRUE(dir.Write("capture.pcapng", c.file));
    std::vector<ReplayRecord> records;
    std::string error;
    ASSERT_EQ(c.error.empty(), LoadTrapReplay(path, c.maxRecord, &records, &error)) << error;
    EXPECT_EQ(c.error.empty() ? "" : path + ": " + c.error, error);
    if (!c.error.empty()) continue;
    ASSERT_EQ(c.records.size(), records.size());
    for (size_t i = 0; i < records.size(); ++i) {
      EXPECT_EQ(c.records[i], records[i].bytes) << i;
      EXPECT_EQ(c.records[i][0], records[i].type) << i;
    }
  }
}

}  // namespace
}  // namespace hal_emulator
