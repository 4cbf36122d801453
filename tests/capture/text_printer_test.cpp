#include "capture/text_printer.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <string>

namespace capture {
namespace {

using libtidewatch::CapturedTrap;

class TextPrinterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC", 1);
    tzset();
  }

  // An EM trap of message 2000 on SIM 1, received at 20:24:01.000042 UTC.
  static CapturedTrap EmTrap() {
    CapturedTrap trap;
    trap.timeUs = 1795379041000042;
    trap.length = 20;
    trap.decoded.type = libtidewatch::TRAP_TYPE_EM;
    trap.decoded.sim = {1, true};
    trap.decoded.msgId = {2000, true};
    trap.decoded.msgName = "EM_LTE_SERVING_CELL_INFO";
    trap.decoded.fields = {{"EARFCN", 1300}, {"PCI", 42}};
    return trap;
  }

  TextPrinter printer_{-1, false};
};

TEST_F(TextPrinterTest, OneLinePerTrap) {
  CapturedTrap em = EmTrap();
  CapturedTrap unknown = EmTrap();
  unknown.decoded.msgId = {2999, true};
  unknown.decoded.msgName.reset();
  unknown.decoded.fields.clear();
  unknown.decoded.sim = {};
  CapturedTrap ota;
  ota.timeUs = em.timeUs + 999999;
  ota.length = 16;
  ota.decoded.type = libtidewatch::TRAP_TYPE_OTA;
  ota.decoded.sim = {0, true};
  ota.decoded.msgId = {1003, true};
  ota.decoded.msgName = "LTE_RRC_PAGING";
  ota.decoded.traceId = {1, true};
  ota.decoded.traceName = "OTA_TRACE_LTE_RRC";
  ota.decoded.pduLength = {2, true};
  CapturedTrap volte;
  volte.timeUs = em.timeUs;
  volte.length = 7;
  volte.decoded.type = libtidewatch::TRAP_TYPE_VOLTE;
  volte.discards[libtidewatch::TRAP_TYPE_EM] = 4;
  volte.discards[libtidewatch::TRAP_TYPE_IP] = 1;
  CapturedTrap hostile = EmTrap();
  hostile.decoded.msgName = "EM\x1b]0;owned\x07";
  hostile.decoded.fields = {
      {"\xc2\x9b"
       "2J",
       1}};

  const struct {
    const CapturedTrap& trap;
    std::string text;
  } cases[] = {
      {em, "20:24:01.000042 SIM1 EM EM_LTE_SERVING_CELL_INFO(2000) len=20 EARFCN=1300 PCI=42\n"},
      {unknown, "20:24:01.000042 SIM? EM ?(2999) len=20\n"},
      {ota,
       "20:24:02.000041 SIM0 OTA LTE_RRC_PAGING(1003) len=16 trace=OTA_TRACE_LTE_RRC(1) "
       "pdu_length=2\n"},
      {volte, "dropped by the service: 0 OTA, 4 EM, 1 IP\n20:24:01.000042 VoLTE len=7\n"},
      {hostile, "20:24:01.000042 SIM1 EM EM\\x1b]0;owned\\x07(2000) len=20 \\xc2\\x9b2J=1\n"},
  };
  for (const auto& c : cases) {
    std::string out;
    printer_.AppendTrap(&out, c.trap);
    EXPECT_EQ(out, c.text);
  }
  // Quiet: only what the service dropped.
  TextPrinter quiet(-1, true);
  std::string out;
  quiet.AppendTrap(&out, em);
  quiet.AppendTrap(&out, volte);
  EXPECT_EQ(out, "dropped by the service: 0 OTA, 4 EM, 1 IP\n");
}

}  // namespace
}  // namespace capture
