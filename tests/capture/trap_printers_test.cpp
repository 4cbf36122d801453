// The two printed forms of a trap, text and JSON lines, side by side for the same traps: what each
// shows of a decoded trap, of one the layout does not know or that is too short to decode, of the
// service's drops, and of hostile names, which are escaped and never reach a terminal raw.
#include <gtest/gtest.h>
#include <json/json.h>
#include <stdlib.h>
#include <time.h>

#include <string>

#include "capture/json_printer.h"
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

}  // namespace
}  // namespace capture
