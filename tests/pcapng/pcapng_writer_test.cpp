#include "libtidewatch/pcapng/pcapng_writer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "libtidewatch/pcapng/pcapng_reader.h"
#include "tests/support/sample_traps.h"

namespace libtidewatch {
namespace {

using tidewatch_test::Hex;
using tidewatch_test::Render;
using tidewatch_test::SampleTrap;

class PcapngWriterTest : public ::testing::Test {
 protected:
  // Every field a capture keeps must come back from the file as it went in.
  static void ExpectSame(const CapturedTrap& want, const CapturedTrap& got) {
    SCOPED_TRACE("seq " + std::to_string(want.seq));
    EXPECT_EQ(std::tie(want.seq, want.timeUs, want.length),
              std::tie(got.seq, got.timeUs, got.length));
    EXPECT_EQ(Hex(want.record.data, want.record.size), Hex(got.record.data, got.record.size));
    EXPECT_TRUE(std::equal(want.discards, want.discards + TRAP_TYPE_NUM, got.discards));
    // A trap the layout did not decode reads back with its record's type.
    DecodedTrap decoded = want.decoded;
    if (decoded.type == TRAP_TYPE_NONE) decoded.type = TRAP_TYPE(want.record.data[0]);
    EXPECT_EQ(Render(decoded), Render(got.decoded));
  }
};

TEST_F(PcapngWriterTest, EveryKindOfTrapReadsBackAsWritten) {
  std::vector<std::unique_ptr<SampleTrap>> samples;
  samples.push_back(tidewatch_test::OtaSample(1, "OTA_TRACE_LTE_RRC", 1,
                                              "LTE_RRC_MASTER_INFORMATION_BLOCK", 1000,
                                              tidewatch_test::LteMib(17)));
  samples.push_back(tidewatch_test::EmSample(2, "EM_LTE_SERVING_CELL_INFO", 2000,
                                             {{"EARFCN", 1300}, {"RSRP", 0xFFFFFFFFFFFFFF9Cull}}));
  samples.push_back(
      tidewatch_test::EmSample(3, "EM_LTE_NEIGHBOUR_CELL_INFO", 2001, {{"CELL_COUNT", 3}}, 12));
  // A short trap: its length field promises more PDU than arrived.
  samples.push_back(tidewatch_test::OtaSample(4, "OTA_TRACE_LTE_NAS", 2, "LTE_NAS_ATTACH_REQUEST",
                                              1019, std::vector<uint8_t>(40, 0x17), 25));
  samples.push_back(tidewatch_test::RawSample(5, TRAP_TYPE_VOLTE, {1, 2, 3}));
  samples.push_back(tidewatch_test::RawSample(6, TRAP_TYPE_IP, {}));
  samples[1]->trap.discards[TRAP_TYPE_OTA] = 4;
  samples[1]->trap.discards[TRAP_TYPE_EM] = 1;
  const uint32_t toolDrops[] = {0, 0, 7, 0, 0, 2};

  PcapngWriter writer("tide_watch_capture 9.8");
  std::string file;
  // Two sections, as a ring's files would be if concatenated: the reader walks both.
  for (int section = 0; section < 2; ++section) {
    writer.BeginSection(1700000000000000 + section, &file);
    for (size_t i = 0; i < samples.size(); ++i) {
      const size_t before = file.size();
      writer.AppendTrap(samples[i]->trap, toolDrops[i], &file);
      EXPECT_EQ(PcapngWriter::EncodedSize(samples[i]->trap), file.size() - before);
      EXPECT_EQ(0u, file.size() % 4);
    }
    writer.EndSection(1700000009000000, 5, &file);
  }
  EXPECT_EQ(6u, writer.Stats().written);
  EXPECT_EQ(5u, writer.Stats().serviceDrops);
  EXPECT_EQ(14u, writer.Stats().toolDrops);

  PcapngReader reader;
  reader.OpenBuffer(reinterpret_cast<const uint8_t*>(file.data()), file.size());
  CapturedTrap got;
  for (int section = 0; section < 2; ++section) {
    for (size_t i = 0; i < samples.size(); ++i) {
      ASSERT_EQ(PcapngReader::kTrap, reader.Next(&got)) << reader.error();
      ExpectSame(samples[i]->trap, got);
      EXPECT_EQ(toolDrops[i], reader.toolDrops());
    }
  }
  ASSERT_EQ(PcapngReader::kEnd, reader.Next(&got)) << reader.error();
  EXPECT_EQ("tide_watch_capture 9.8", reader.userAppl());
  ASSERT_TRUE(reader.hasStats());
  EXPECT_EQ(1700000000000001, reader.stats().startUs);
  EXPECT_EQ(1700000009000000, reader.stats().endUs);
  EXPECT_EQ(6u, reader.stats().written);
  EXPECT_EQ(5u, reader.stats().serviceDrops);
  EXPECT_EQ(14u, reader.stats().toolDrops);
}

}  // namespace
}  // namespace libtidewatch
