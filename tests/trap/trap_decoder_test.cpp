#include "libtidewatch/trap/trap_decoder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "libtidewatch/platform/log.h"
#include "libtidewatch/trap/frame_decoder.h"
#include "tests/support/sample_traps.h"
#include "tests/support/scratch_dir.h"

namespace libtidewatch {
namespace {

using tidewatch_test::Hex;
using tidewatch_test::Render;

// OTA: trace id at 0, SIM at 1, then the trace's GLOBAL_ID, PDU_LENGTH and PDU. EM: id at 0, SIM
// at 2, fields listed out of offset order; message 8's peers follow a 2-byte header, message 9's
// start at the peer offset itself.
constexpr char kLayout[] =
    "#OTA_INFO\nOTA_TRACE_ID_OFFSET,0,1\nOTA_SIM_IDX_OFFSET,1,1\n"
    "OTA_TRACE_RRC(1),OTA_MSG_OFFSET,6\nOTA_TRACE_RRC(1),GLOBAL_ID,2,2\n"
    "OTA_TRACE_RRC(1),PDU_LENGTH,4,2\n"
    "#GLOBAL_ID\nRRC_MIB(1000)\n"
    "#MSG_INFO\nMSG_ID_OFFSET,0,2\nSIM_IDX_OFFSET,2,1\n"
    "EM_CELL(7),RSRP,5,2\nEM_CELL(7),PCI,3,2\nEM_CELL(7),WIDE,7,8\nEM_CELL(7),ZERO,3,0\n"
    "EM_CELL(7),NINE,3,9\nEM_CELL(7),FAR,18446744073709551614,2\n"
    "#PEER_INFO\nMSG_PEERSIZE_OFFSET,3,1\nMSG_PEER_HEADER_SIZE,2\nEM_NB(8),PEER_OFFSET,4\n"
    "#PEER_INFO_WITHOUT_HEADER\nEM_LIST(9),PEER_OFFSET,4\n";

// Hex digits with blanks between groups; 'h' stands for a zero byte of a peer header.
std::vector<uint8_t> Bytes(std::string hex) {
  hex.erase(std::remove(hex.begin(), hex.end(), ' '), hex.end());
  std::replace(hex.begin(), hex.end(), 'h', '0');
  std::vector<uint8_t> out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    out.push_back(static_cast<uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
  }
  return out;
}

TEST(TrapDecoderTest, DecodesByTheLayout) {
  SetLogThreshold(kLogError);  // the layout's 0 offsets are logged on purpose
  tidewatch_test::ScratchDir dir("trap_decoder_test");
  FrameDecoder layout;
  ASSERT_TRUE(dir.Write("layout", kLayout));
  ASSERT_TRUE(layout.LoadFromDESC((dir.path() + "/layout").c_str()));
  const TrapDecoder decoder(layout);
  struct Case {
    TRAP_TYPE type;
    const char* payload;
    const char* decoded;  // Render of the result, without the payload
  } cases[] = {
      {TRAP_TYPE_OTA, "01 02 e803 0300 aabbcc",
       "trace=1:OTA_TRACE_RRC sim=2 msg=1000:RRC_MIB len=3 pdu=aabbcc"},
      // A PDU longer than what arrived is cut to the payload and said so.
      {TRAP_TYPE_OTA, "01 00 e803 0500 aabbcc",
       "trace=1:OTA_TRACE_RRC sim=0 msg=1000:RRC_MIB len=5 pdu=aabbcc cut"},
      // Unknown trace: its fields cannot be found. Unknown global id: no name, the rest as usual.
      {TRAP_TYPE_OTA, "05 01 e803 0100 aa", "trace=5 sim=1 msg=- len=- pdu=-"},
      {TRAP_TYPE_OTA, "01 01 e903 0000", "trace=1:OTA_TRACE_RRC sim=1 msg=1001 len=0 pdu="},
      // A field past the end is absent, whether it is cut or missing entirely.
      {TRAP_TYPE_OTA, "01 01 e8", "trace=1:OTA_TRACE_RRC sim=1 msg=- len=- pdu=-"},
      {TRAP_TYPE_OTA, "", "trace=- sim=- msg=- len=- pdu=-"},
      // Widths 0 and 9 (ZERO, NINE) and an offset near 2^64 (FAR) are never read.
      {TRAP_TYPE_EM, "0700 01 2a00 9cff 0102030405060708",
       "msg=7:EM_CELL sim=1 RSRP=65436 PCI=42 WIDE=578437695752307201"},
      {TRAP_TYPE_EM, "0700 01 2a00 9cff 01020304050607", "msg=7:EM_CELL sim=1 RSRP=65436 PCI=42"},
      {TRAP_TYPE_EM, "6300 01 2a00", "msg=99 sim=1"},
      {TRAP_TYPE_EM, "07", "msg=- sim=-"},
      // Peer count larger than the peer bytes: both are given as they are.
      {TRAP_TYPE_EM, "0800 00 05 hhhh aabb", "msg=8:EM_NB sim=0 peers=5/aabb"},
      {TRAP_TYPE_EM, "0800 00 05 hh", "msg=8:EM_NB sim=0 peers=5/-"},
      {TRAP_TYPE_EM, "0900 00 02 aabb", "msg=9:EM_LIST sim=0 peers=2/aabb"},
      {TRAP_TYPE_EM, "0900 00", "msg=9:EM_LIST sim=0"},
      {TRAP_TYPE_VOLTE, "0700 01 2a00", "type=4"},
  };
  DecodedTrap out;  // reused, as a capture does: nothing of one trap may stay for the next
  for (const Case& c : cases) {
    std::vector<uint8_t> payload = Bytes(c.payload);
    decoder.Decode(c.type, payload.data(), payload.size(), &out);
    EXPECT_EQ(Render(out),
              std::string(c.decoded) + " payload=" + Hex(payload.data(), payload.size()))
        << c.payload;
  }
}

}  // namespace
}  // namespace libtidewatch
