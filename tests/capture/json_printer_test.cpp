#include "capture/json_printer.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <string>

namespace capture {
namespace {

using libtidewatch::CapturedTrap;

class JsonPrinterTest : public ::testing::Test {
 protected:
  // Received at 2026-11-22T20:24:01.000042Z, as the first trap of the run.
  static CapturedTrap Trap(libtidewatch::TRAP_TYPE type, uint64_t length) {
    CapturedTrap trap;
    trap.seq = 1;
    trap.timeUs = 1795379041000042;
    trap.length = length;
    trap.decoded.type = type;
    return trap;
  }

  JsonPrinter printer_{-1};
};

TEST_F(JsonPrinterTest, OneObjectPerTrap) {
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
  CapturedTrap unparsed = Trap(libtidewatch::TRAP_TYPE_NONE, 0);
  CapturedTrap hostile = em;
  hostile.decoded.msgName = "EM\"\\\x1b[2J\xff";
  hostile.decoded.fields = {{"\x07", 1}};

  const struct {
    const CapturedTrap& trap;
    std::string json;
  } cases[] = {
      {em, head + R"("type":"EM","length":20,"sim":1,"msg_id":2000,)"
                  R"("msg":"EM_LTE_SERVING_CELL_INFO","fields":{"EARFCN":1300,"PCI":42}})"},
      {peers, R"({"seq":7,"time":"2026-11-22T20:24:01.000042Z","type":"EM","length":40,)"
              R"("msg_id":2001,"msg":null,"fields":{},"peer_count":2,"peers":"001fabff"})"},
      {ota, head + R"("type":"OTA","length":18,"trace_id":1,"trace":"OTA_TRACE_LTE_RRC","sim":0,)"
                   R"("msg_id":1003,"msg":"LTE_RRC_PAGING","pdu_length":4,"pdu":"001fabff"})"},
      {bare, head + R"("type":"OTA","length":2})"},
      {ip, head + R"("type":"IP","length":4,"payload":"001fabff","discards":{"OTA":3,"EM":5}})"},
      {unparsed, head + R"("type":"NONE","length":0,"payload":""})"},
      {hostile, head + R"("type":"EM","length":20,"sim":1,"msg_id":2000,)"
                       R"("msg":"EM\"\\\u001b[2J\u00ff","fields":{"\u0007":1}})"},
  };
  for (const auto& c : cases) {
    std::string out;
    printer_.AppendTrap(&out, c.trap);
    EXPECT_EQ(out, c.json + "\n");
    Json::Value parsed;
    EXPECT_TRUE(Json::Reader().parse(out, parsed, false)) << out;
  }
}

}  // namespace
}  // namespace capture
