// What the capture tool writes. The two printed forms of a trap, text and JSON lines, side by side
// for the same traps: what each shows of a decoded trap, of one the layout does not know or that is
// too short to decode, of the service's drops, and of hostile names, which are escaped and never
// reach a terminal raw; the counts behind the summary; and ring file names, where the number and
// start time go before the extension of the last path component, whatever dots the path holds.
#include <gtest/gtest.h>
#include <json/json.h>
#include <stdlib.h>
#include <time.h>

#include <string>
#include <vector>

#include "capture/capture_stats.h"
#include "capture/json_printer.h"
#include "capture/ring_files.h"
#include "capture/text_escape.h"
#include "capture/text_printer.h"

namespace capture {
namespace {

using libtidewatch::CapturedTrap;

// Received at 2026-11-22T20:24:01.000042Z, as the first trap of the run.
CapturedTrap Trap(libtidewatch::TRAP_TYPE type, uint64_t length) {
  CapturedTrap trap;
  trap.seq = 1;
  trap.timeUs = 1795379041000042;
  trap.length = length;
  trap.decoded.type = type;
  return trap;
}

TEST(TrapPrintersTest, OneLinePerTrapInEachForm) {
  setenv("TZ", "UTC", 1);
  tzset();
  static const uint8_t kBytes[] = {0x00, 0x1f, 0xab, 0xff};
  const std::string head = R"({"seq":1,"time":"2026-11-22T20:24:01.000042Z",)";

  CapturedTrap em = Trap(libtidewatch::TRAP_TYPE_EM, 20);
  em.decoded.sim = {1, true};
  em.decoded.msgId = {2000, true};
  em.decoded.msgName = "EM_LTE_SERVING_CELL_INFO";
  em.decoded.fields = {{"EARFCN", 1300}, {"PCI", 42}};
  CapturedTrap peers = Trap(libtidewatch::TRAP_TYPE_EM, 40);
  peers.seq = 7;
  peers.decoded.msgId = {2001, true};  // unknown to the layout, no SIM read
  peers.decoded.peerCount = {2, true};
  peers.decoded.peers = {kBytes, 4};
  peers.decoded.peersPresent = true;
  CapturedTrap ota = Trap(libtidewatch::TRAP_TYPE_OTA, 18);
  ota.timeUs += 999999;
  ota.decoded.sim = {0, true};
  ota.decoded.traceId = {1, true};
  ota.decoded.traceName = "OTA_TRACE_LTE_RRC";
  ota.decoded.msgId = {1003, true};
  ota.decoded.msgName = "LTE_RRC_PAGING";
  ota.decoded.pduLength = {4, true};
  ota.decoded.pdu = {kBytes, 4};
  ota.decoded.pduPresent = true;
  CapturedTrap bare = Trap(libtidewatch::TRAP_TYPE_OTA, 2);  // too short to hold anything
  CapturedTrap ip = Trap(libtidewatch::TRAP_TYPE_IP, 4);
  ip.decoded.payload = {kBytes, 4};
  ip.discards[libtidewatch::TRAP_TYPE_OTA] = 3;
  ip.discards[libtidewatch::TRAP_TYPE_EM] = 5;
  CapturedTrap volte = Trap(libtidewatch::TRAP_TYPE_VOLTE, 7);
  volte.discards[libtidewatch::TRAP_TYPE_EM] = 4;
  volte.discards[libtidewatch::TRAP_TYPE_IP] = 1;
  CapturedTrap unparsed = Trap(libtidewatch::TRAP_TYPE_NONE, 0);
  CapturedTrap hostile = em;
  hostile.decoded.msgName = "EM\"\\\x1b]0;x\x07\xff";
  hostile.decoded.fields = {
      {"\xc2\x9b"
       "2J",
       1}};

  const struct {
    const CapturedTrap& trap;
    std::string text;
    std::string json;
  } cases[] = {
      {em, "20:24:01.000042 SIM1 EM EM_LTE_SERVING_CELL_INFO(2000) len=20 EARFCN=1300 PCI=42\n",
       head + R"("type":"EM","length":20,"sim":1,"msg_id":2000,)"
              R"("msg":"EM_LTE_SERVING_CELL_INFO","fields":{"EARFCN":1300,"PCI":42}})"},
      {peers, "20:24:01.000042 SIM? EM ?(2001) len=40\n",
       R"({"seq":7,"time":"2026-11-22T20:24:01.000042Z","type":"EM","length":40,)"
       R"("msg_id":2001,"msg":null,"fields":{},"peer_count":2,"peers":"001fabff"})"},
      {ota,
       "20:24:02.000041 SIM0 OTA LTE_RRC_PAGING(1003) len=18 trace=OTA_TRACE_LTE_RRC(1) "
       "pdu_length=4\n",
       R"({"seq":1,"time":"2026-11-22T20:24:02.000041Z","type":"OTA","length":18,"trace_id":1,)"
       R"("trace":"OTA_TRACE_LTE_RRC","sim":0,"msg_id":1003,"msg":"LTE_RRC_PAGING","pdu_length":4,)"
       R"("pdu":"001fabff"})"},
      {bare, "20:24:01.000042 SIM? OTA ?(?) len=2 trace=?(?)\n",
       head + R"("type":"OTA","length":2})"},
      {ip, "dropped by the service: 3 OTA, 5 EM\n20:24:01.000042 IP len=4\n",
       head + R"("type":"IP","length":4,"payload":"001fabff","discards":{"OTA":3,"EM":5}})"},
      {volte, "dropped by the service: 0 OTA, 4 EM, 1 IP\n20:24:01.000042 VoLTE len=7\n",
       head + R"("type":"VoLTE","length":7,"payload":"","discards":{"EM":4,"IP":1}})"},
      {unparsed, "20:24:01.000042 NONE len=0\n",
       head + R"("type":"NONE","length":0,"payload":""})"},
      {hostile, "20:24:01.000042 SIM1 EM EM\"\\\\x1b]0;x\\x07\\xff(2000) len=20 \\xc2\\x9b2J=1\n",
       head + R"("type":"EM","length":20,"sim":1,"msg_id":2000,)"
              R"("msg":"EM\"\\\u001b]0;x\u0007\u00ff","fields":{"\u00c2\u009b2J":1}})"},
  };
  TextPrinter text(-1, false);
  JsonPrinter json(-1);
  for (const auto& c : cases) {
    std::string out;
    text.AppendTrap(&out, c.trap);
    EXPECT_EQ(out, c.text);
    out.clear();
    json.AppendTrap(&out, c.trap);
    EXPECT_EQ(out, c.json + "\n");
    Json::Value parsed;
    EXPECT_TRUE(Json::Reader().parse(out, parsed, false)) << out;
  }
  // Quiet text: only what the service dropped.
  TextPrinter quiet(-1, true);
  std::string out;
  quiet.AppendTrap(&out, em);
  quiet.AppendTrap(&out, volte);
  EXPECT_EQ(out, "dropped by the service: 0 OTA, 4 EM, 1 IP\n");
}

TEST(TextEscapeTest, OnlyWhatCouldDriveATerminalIsEscaped) {
  const struct {
    std::string in;
    std::string text;
    std::string json;
  } cases[] = {
      {"LTE_RRC_PAGING", "LTE_RRC_PAGING", R"("LTE_RRC_PAGING")"},
      {"", "", R"("")"},
      {"a\tb\nc\x7f", "a\\x09b\\x0ac\\x7f", R"("a\u0009b\u000ac\u007f")"},
      {"\x1b[31mred", "\\x1b[31mred", R"("\u001b[31mred")"},
      // UTF-8 text stays; C1 controls (U+0080 to U+009F) and bytes that are no UTF-8 do not.
      {"Zelle \xc3\xa9\xe2\x82\xac", "Zelle \xc3\xa9\xe2\x82\xac",
       "\"Zelle \xc3\xa9\xe2\x82\xac\""},
      {"\xc2\x9b"
       "0m",
       "\\xc2\\x9b0m", R"("\u00c2\u009b0m")"},
      {"\xff\xe2\x82", "\\xff\\xe2\\x82", R"("\u00ff\u00e2\u0082")"},
      {"\xed\xa0\x80", "\\xed\\xa0\\x80", R"("\u00ed\u00a0\u0080")"},  // a surrogate
      {"say \"hi\" \\", "say \"hi\" \\", R"("say \"hi\" \\")"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(EscapedText(c.in), c.text);
    std::string json;
    AppendJsonString(&json, c.in);
    EXPECT_EQ(json, c.json);
  }
}

using libtidewatch::TRAP_TYPE;

CapturedTrap Counted(TRAP_TYPE type, bool hasId, uint64_t id, size_t bytes, const char* name) {
  CapturedTrap t;
  t.decoded.type = type;
  t.decoded.msgId = {id, hasId};
  if (name != nullptr) t.decoded.msgName = name;
  t.decoded.payload.size = bytes;
  return t;
}

// One row per message, whatever order its traps come in, so that the summary's counts add up.
TEST(CaptureStatsTest, CountsEachMessageInOneRow) {
  CaptureStats stats;
  const CapturedTrap traps[] = {
      Counted(libtidewatch::TRAP_TYPE_EM, true, 2000, 20, "EM_LTE_SERVING_CELL_INFO"),
      Counted(libtidewatch::TRAP_TYPE_OTA, true, 1000, 17, "LTE_RRC_MASTER_INFORMATION_BLOCK"),
      Counted(libtidewatch::TRAP_TYPE_OTA, true, 1000, 17, "LTE_RRC_MASTER_INFORMATION_BLOCK"),
      Counted(libtidewatch::TRAP_TYPE_EM, true, 2000, 20, "EM_LTE_SERVING_CELL_INFO"),
      Counted(libtidewatch::TRAP_TYPE_EM, true, 9999, 16, nullptr),
      // A VoLTE trap has no message id, whatever the decoder read: it counts by type only.
      Counted(libtidewatch::TRAP_TYPE_VOLTE, true, 5, 8, nullptr),
      Counted(libtidewatch::TRAP_TYPE_EM, true, 2000, 20, "EM_LTE_SERVING_CELL_INFO"),
  };
  for (const CapturedTrap& t : traps) stats.Count(t);

  std::vector<std::string> rows;
  for (const MessageCount& m : stats.Messages()) {
    rows.push_back(std::to_string(m.type) + " " + (m.hasId ? std::to_string(m.msgId) : "-") + " " +
                   (m.named ? m.name : "?") + " " + std::to_string(m.traps) + " " +
                   std::to_string(m.bytes));
  }
  EXPECT_EQ(rows, (std::vector<std::string>{"2 1000 LTE_RRC_MASTER_INFORMATION_BLOCK 2 34",
                                            "3 2000 EM_LTE_SERVING_CELL_INFO 3 60", "3 9999 ? 1 16",
                                            "4 - ? 1 8"}));
  EXPECT_EQ(stats.traps(), 7u);
  EXPECT_EQ(stats.bytes(), 118u);
}

TEST(RingFilesTest, NumberAndTimeGoBeforeTheExtension) {
  setenv("TZ", "UTC", 1);
  tzset();
  const time_t started = 1795398300;  // 2026-11-23 01:45:00 UTC
  const struct {
    const char* path;
    uint64_t number;
    const char* name;
  } cases[] = {
      {"traps.pcapng", 1, "traps_00001_20261123014500.pcapng"},
      {"traps", 12, "traps_00012_20261123014500"},
      {"runs.v2/traps", 3, "runs.v2/traps_00003_20261123014500"},
      {"/tmp/a.b.pcapng", 4, "/tmp/a.b_00004_20261123014500.pcapng"},
      {"logs/.hidden", 5, "logs/.hidden_00005_20261123014500"},
      {"cap.", 123456, "cap_123456_20261123014500."},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(RingFiles::RingName(c.path, c.number, started), c.name) << c.path;
  }
}

}  // namespace
}  // namespace capture
