#include "emulator/pcapng_replay.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "libtidewatch/pcapng/pcapng_writer.h"
#include "tests/support/sample_traps.h"
#include "tests/support/scratch_dir.h"

namespace hal_emulator {
namespace {

using Bytes = std::vector<uint8_t>;

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
