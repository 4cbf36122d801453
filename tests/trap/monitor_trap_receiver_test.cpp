#include "libtidewatch/trap/monitor_trap_receiver.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <iterator>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "libtidewatch/platform/log.h"
#include "tests/support/log_capture.h"
#include "tests/support/mcp_test_peer.h"
#include "tests/support/monitor_trap_receiver_fixture.h"

namespace libtidewatch {
namespace {

using tidewatch_test::Bytes;
using tidewatch_test::Concat;
using tidewatch_test::DiscardRecord;
using tidewatch_test::LogCapture;
using tidewatch_test::McpPacket;
using tidewatch_test::TrapRecord;
using tidewatch_test::WriteAll;

Bytes B(const std::string& s) { return Bytes(s.begin(), s.end()); }

class MonitorTrapReceiverTest : public tidewatch_test::MonitorTrapReceiverFixture {};

TEST_F(MonitorTrapReceiverTest, TrapsOverTheSocketReachTheHandler) {
  const struct {
    const char* what;
    Bytes raw;
    TRAP_TYPE type;
    bool dataNull;
    std::string data;
    unsigned long discardCount;
    unsigned long length = ~0ul;  // the data's size unless given
  } cases[] = {
      {"EM trap", TrapRecord(TRAP_TYPE_EM, B("em-data")), TRAP_TYPE_EM, false, "em-data", 0},
      // Only the OTA and EM discard counts are reported.
      {"OTA trap with discards",
       Concat({TrapRecord(TRAP_TYPE_OTA, B("ota")),
               DiscardRecord({{TRAP_TYPE_OTA, 3}, {TRAP_TYPE_EM, 4}, {TRAP_TYPE_IP, 9}})}),
       TRAP_TYPE_OTA, false, "ota", 7},
      {"last record wins",
       Concat({TrapRecord(TRAP_TYPE_OTA, B("a")), TrapRecord(TRAP_TYPE_VOLTE, B("volte"))}),
       TRAP_TYPE_VOLTE, false, "volte", 0},
      {"unknown record type", TrapRecord(12, B("x")), TRAP_TYPE_NONE, false, "x", 0},
      // A length field running past the data is reported as it stands.
      {"record cut short", TrapRecord(TRAP_TYPE_EM, B("abc"), 1000), TRAP_TYPE_EM, false, "abc", 0,
       1000},
      {"cut inside the record header", Concat({TrapRecord(TRAP_TYPE_OTA, B("a")), Bytes{3, 9}}),
       TRAP_TYPE_EM, false, "", 0, 9},
      {"discard record not last",
       Concat({DiscardRecord({{TRAP_TYPE_OTA, 1}}), TrapRecord(TRAP_TYPE_OTA, B("late"))}),
       TRAP_TYPE_NONE, true, "", 0},
      {"too long to parse", TrapRecord(TRAP_TYPE_OTA, Bytes(70000, 'o')), TRAP_TYPE_NONE, true, "",
       0},
  };
  auto receiver = NewReceiver(5, m_serverName.c_str());
  int fd = Connect("5" + m_serverName);
  ASSERT_GE(fd, 0);
  Bytes all;
  for (const auto& c : cases) all = Concat({all, McpPacket(MCP_TYPE_TRAP, c.raw)});
  ASSERT_TRUE(WriteAll(fd, all));
  ASSERT_TRUE(recorder.WaitForCount(std::size(cases)));

  std::vector<Call> calls = recorder.Calls();
  ASSERT_EQ(calls.size(), std::size(cases));
  for (size_t i = 0; i < calls.size(); ++i) {
    const auto& c = cases[i];
    const Call& got = calls[i];
    EXPECT_EQ(std::tie(got.context, got.time, got.type, got.dataNull, got.discardCount),
              std::make_tuple(&recorder, 0u, c.type, c.dataNull, c.discardCount))
        << c.what;
    EXPECT_EQ(got.data.substr(0, c.data.size()), c.data) << c.what;
    EXPECT_EQ(got.length, c.length == ~0ul ? c.data.size() : c.length) << c.what;
  }
  // The drain handler runs after the last trap, and only ever after new traps; a lone trap that
  // follows gets a drain of its own.
  ASSERT_EQ(recorder.WaitForDrainAfter(calls.size()).back(), calls.size());
  ASSERT_TRUE(WriteAll(fd, McpPacket(MCP_TYPE_TRAP, TrapRecord(TRAP_TYPE_EM, B("lone")))));
  std::vector<size_t> drains = recorder.WaitForDrainAfter(calls.size() + 1);
  for (size_t i = 1; i < drains.size(); ++i) EXPECT_GT(drains[i], drains[i - 1]);
  EXPECT_GT(drains.front(), 0u);
  EXPECT_EQ(drains.back(), calls.size() + 1);
}

// A payload of 0 bytes still reaches the handler; without a handler nothing does, and nothing is
// answered.
TEST_F(MonitorTrapReceiverTest, PayloadsWithoutHandlerOrBytes) {
  auto receiver = NewReceiver(6, m_serverName.c_str());
  MCPInfo in;
  MCPInfo out;
  EXPECT_TRUE(receiver->ProcessPayload(in, out));
  const Bytes raw = TrapRecord(TRAP_TYPE_OTA, B("dropped"));
  in.SetData(MCP_TYPE_TRAP, raw.size(), raw.data(), false);
  receiver->trapHandler = nullptr;
  EXPECT_TRUE(receiver->ProcessPayload(in, out));
  EXPECT_EQ(out.length, 0u);
  std::vector<Call> calls = recorder.Calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(std::tie(calls[0].time, calls[0].type, calls[0].length, calls[0].dataNull,
                     calls[0].discardCount),
            std::make_tuple(0u, TRAP_TYPE_NONE, 0ul, true, 0ul));
}
// Peers that send rubbish, stall or vanish: the receiver keeps serving, and every whole packet
// sent after the rubbish arrives, exactly once.
TEST_F(MonitorTrapReceiverTest, HostilePeersDoNotStopTheService) {
  const std::string name = "9" + m_serverName;
  auto receiver = NewReceiver(9, m_serverName.c_str());
  const Bytes magic = McpPacket(MCP_TYPE_TRAP, {}, 0);  // a header claiming an empty payload
  const Bytes bigHeader = McpPacket(MCP_TYPE_TRAP, {}, 131072);
  Bytes noise;
  for (int i = 0; i < 5000; ++i) noise.push_back(static_cast<uint8_t>((i * 7919) % 251 + 1) & 0x7F);

  // Rubbish followed, on the same connection, by a good packet, which must still be found.
  const struct {
    const char* what;
    Bytes rubbish;
  } garbage[] = {
      {"noise", noise},
      {"magic with a bad type", Concat({Bytes(magic.begin(), magic.begin() + 4), B("zz")})},
      {"length 0", magic},
      {"length 131073", McpPacket(MCP_TYPE_TRAP, {}, 131073)},
      {"a partial magic", Bytes(magic.begin(), magic.begin() + 3)},
  };
  size_t expected = 0;
  int fd = Connect(name);
  ASSERT_GE(fd, 0);
  for (const auto& g : garbage) {
    SCOPED_TRACE(g.what);
    ASSERT_TRUE(WriteAll(
        fd, Concat({g.rubbish, McpPacket(MCP_TYPE_TRAP, TrapRecord(TRAP_TYPE_EM, B(g.what)))})));
    ASSERT_TRUE(recorder.WaitForCount(++expected));
    EXPECT_EQ(recorder.Calls().back().data, g.what);
  }

  // A packet written one byte at a time.
  const Bytes slow = McpPacket(MCP_TYPE_TRAP, TrapRecord(TRAP_TYPE_OTA, B("byte by byte")));
  for (uint8_t byte : slow) ASSERT_TRUE(WriteAll(fd, &byte, 1));
  ASSERT_TRUE(recorder.WaitForCount(++expected));
  EXPECT_EQ(recorder.Calls().back().data, "byte by byte");

  // A header announcing the largest payload, which never comes, on a connection kept open.
  int stalled = Connect(name);
  ASSERT_TRUE(WriteAll(stalled, bigHeader));
  ExpectTrapArrives(name, "after a stalled header", ++expected);

  // A client that connects and never sends.
  ASSERT_GE(Connect(name), 0);
  ExpectTrapArrives(name, "after a silent client", ++expected);

  // A client that closes in the middle of a packet.
  int quitter = ConnectAbstract(name);
  ASSERT_GE(quitter, 0);
  const Bytes half = McpPacket(MCP_TYPE_TRAP, TrapRecord(TRAP_TYPE_EM, B("never whole")));
  ASSERT_TRUE(WriteAll(quitter, half.data(), half.size() / 2));
  close(quitter);
  ExpectTrapArrives(name, "after a quitter", ++expected);

  for (int i = 0; i < 10000; ++i) {
    int brief = ConnectAbstract(name);
    ASSERT_GE(brief, 0) << "cycle " << i;
    close(brief);
  }
  ExpectTrapArrives(name, "after 10000 cycles", ++expected);

  EXPECT_EQ(recorder.Calls().size(), expected);
}

// More connections at once than `select` can watch: those beyond its limit are refused, and the
// service carries on once they are gone.
TEST_F(MonitorTrapReceiverTest, ConnectionsBeyondTheSelectLimitAreRefused) {
  constexpr int kClients = 1100;
  rlimit saved;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
  // Both ends live in this process, and every accepted end needs a descriptor of its own.
  const rlim_t needed = 2 * kClients + 64;
  if (saved.rlim_max != RLIM_INFINITY && saved.rlim_max < needed) {
    GTEST_SKIP() << "the hard limit of open files (" << saved.rlim_max << ") is below " << needed;
  }
  rlimit raised = saved;
  raised.rlim_cur = saved.rlim_max;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &raised), 0);

  LogCapture log(kLogError);
  const std::string name = "11" + m_serverName;
  auto receiver = NewReceiver(11, m_serverName.c_str());
  std::vector<int> clients;
  for (int i = 0; i < kClients; ++i) {
    int fd = ConnectAbstract(name);
    ASSERT_GE(fd, 0) << "client " << i;
    clients.push_back(fd);
  }
  EXPECT_TRUE(log.WaitForText("does not fit in the select set"));
  for (int fd : clients) close(fd);
  ExpectTrapArrives(name, "fresh", 1);

  receiver.reset();
  setrlimit(RLIMIT_NOFILE, &saved);
}

}  // namespace
}  // namespace libtidewatch
