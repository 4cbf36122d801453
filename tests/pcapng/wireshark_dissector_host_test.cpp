// The files the writer makes, as the real tools read them: capinfos accepts them, and tshark with
// our dissector shows the traps by name, the EM values and the air message decoded by Wireshark.
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>

#include <memory>
#include <string>
#include <vector>

#include "libtidewatch/pcapng/pcapng_file_sink.h"
#include "libtidewatch/pcapng/pcapng_writer.h"
#include "tests/support/sample_traps.h"
#include "tests/support/scratch_dir.h"

namespace libtidewatch {
namespace {

class WiresharkDissectorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (system("command -v tshark >/dev/null 2>&1 && command -v capinfos >/dev/null 2>&1") != 0) {
      GTEST_SKIP() << "tshark or capinfos is not installed";
    }
    ASSERT_FALSE(m_dir.path().empty());
    m_file = m_dir.path() + "/traps.pcapng";
  }

  // Standard output of `command` (standard error dropped); each run is cut off after 60 s.
  static std::string Run(const std::string& command) {
    std::string out;
    FILE* pipe = popen(("timeout 60 " + command + " 2>/dev/null").c_str(), "r");
    if (pipe == nullptr) return "<popen failed>";
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, pipe)) > 0) out.append(buf, n);
    pclose(pipe);
    return out;
  }

  void WriteFile(const std::vector<std::unique_ptr<tidewatch_test::SampleTrap>>& traps) {
    PcapngWriter writer("tide_watch_capture test");
    std::string bytes;
    writer.BeginSection(1700000000000000, &bytes);
    for (const auto& s : traps) writer.AppendTrap(s->trap, 0, &bytes);
    writer.EndSection(1700000001000000, 0, &bytes);
    PcapngFileSink sink;
    std::string error;
    ASSERT_TRUE(sink.Open(m_file, &error)) << error;
    ASSERT_TRUE(sink.Write(bytes, &error)) << error;
    ASSERT_TRUE(sink.Close(&error)) << error;
  }

  tidewatch_test::ScratchDir m_dir{"wireshark_dissector"};
  std::string m_file;
};

TEST_F(WiresharkDissectorTest, ToolsReadTheTrapsByNameWithTheAirMessageDecoded) {
  std::vector<std::unique_ptr<tidewatch_test::SampleTrap>> traps;
  for (uint8_t sfn : {40, 41}) {
    traps.push_back(tidewatch_test::OtaSample(traps.size() + 1, "OTA_TRACE_LTE_RRC", 1,
                                              "LTE_RRC_MASTER_INFORMATION_BLOCK", 1000,
                                              tidewatch_test::LteMib(sfn)));
  }
  traps.push_back(tidewatch_test::EmSample(3, "EM_LTE_SERVING_CELL_INFO", 2000,
                                           {{"EARFCN", 1300}, {"PCI", 77}, {"RSRP", 180}}));
  // An EPS NAS attach request header: plain NAS message, EMM, message type 0x41.
  traps.push_back(tidewatch_test::OtaSample(4, "OTA_TRACE_LTE_NAS", 2, "LTE_NAS_ATTACH_REQUEST",
                                            1019, {0x07, 0x41, 0x71}));
  traps[2]->trap.discards[TRAP_TYPE_OTA] = 3;
  WriteFile(traps);

  const std::string info = Run("capinfos -c -M " + m_file);
  EXPECT_NE(std::string::npos, info.find("Number of packets:   4\n")) << info;

  const std::string fields = Run(
      "tshark -X lua_script:" TIDEWATCH_SOURCE_DIR "/tools/wireshark/tidewatch.lua -r " + m_file +
      " -T fields -E separator='|' -e frame.packet_id -e tidewatch.type -e tidewatch.msg_id"
      " -e tidewatch.msg_name -e tidewatch.sim -e tidewatch.trace_name -e tidewatch.em"
      " -e tidewatch.discards.OTA -e lte-rrc.systemFrameNumber -e nas_eps.nas_msg_emm_type");
  EXPECT_EQ(
      "1|2|1000|LTE_RRC_MASTER_INFORMATION_BLOCK|1|OTA_TRACE_LTE_RRC|||28|\n"
      "2|2|1000|LTE_RRC_MASTER_INFORMATION_BLOCK|1|OTA_TRACE_LTE_RRC|||29|\n"
      "3|3|2000|EM_LTE_SERVING_CELL_INFO|0||EARFCN=1300,PCI=77,RSRP=180|3||\n"
      "4|2|1019|LTE_NAS_ATTACH_REQUEST|1|OTA_TRACE_LTE_NAS||||0x41\n",
      fields);

  // A display filter on an EM value by its name.
  const std::string filtered =
      Run("tshark -X lua_script:" TIDEWATCH_SOURCE_DIR "/tools/wireshark/tidewatch.lua -r " +
          m_file + " -Y 'tidewatch.em == \"RSRP=180\"' -T fields -e frame.number");
  EXPECT_EQ("3\n", filtered);
}

}  // namespace
}  // namespace libtidewatch
