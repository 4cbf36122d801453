#include "libtidewatch/pcapng/pcapng_reader.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "libtidewatch/pcapng/pcapng_file_sink.h"
#include "libtidewatch/pcapng/pcapng_format.h"
#include "libtidewatch/pcapng/pcapng_writer.h"
#include "tests/support/sample_traps.h"
#include "tests/support/scratch_dir.h"

namespace libtidewatch {
namespace {

using tidewatch_test::Hex;
using tidewatch_test::Render;

class PcapngReaderTest : public ::testing::Test {
 protected:
  // A file of `traps` traps (an OTA and an EM in turn) and the byte offset of every block in it.
  static std::string MakeFile(int traps, std::vector<size_t>* offsets) {
    PcapngWriter writer("tide_watch_capture test");
    std::string file;
    writer.BeginSection(0, &file);
    for (int i = 1; i <= traps; ++i) {
      auto s = i % 2 ? tidewatch_test::OtaSample(i, "OTA_TRACE_LTE_RRC", 1, "LTE_RRC_PAGING", 1003,
                                                 {1, 2, 3, 4, 5})
                     : tidewatch_test::EmSample(i, "EM_LTE_RRC_STATE", 2002, {{"STATE", 2}});
      writer.AppendTrap(s->trap, 0, &file);
    }
    writer.EndSection(1, 0, &file);
    for (size_t at = 0; at < file.size();
         at += pcapng::Get32(reinterpret_cast<const uint8_t*>(file.data()) + at + 4)) {
      offsets->push_back(at);
    }
    return file;
  }

  // Reads `file` from memory or through a file, and returns the seqs of the traps given back and
  // the error ("" at a clean end).
  std::pair<std::vector<uint64_t>, std::string> ReadAll(const std::string& file, bool throughFd) {
    PcapngReader reader;
    std::string error;
    if (throughFd) {
      EXPECT_TRUE(m_dir.Write("capture.pcapng", file));
      EXPECT_TRUE(reader.Open(m_dir.path() + "/capture.pcapng", &error)) << error;
    } else {
      reader.OpenBuffer(reinterpret_cast<const uint8_t*>(file.data()), file.size());
    }
    std::vector<uint64_t> seqs;
    CapturedTrap trap;
    PcapngReader::Status status;
    while ((status = reader.Next(&trap)) == PcapngReader::kTrap) seqs.push_back(trap.seq);
    EXPECT_EQ(status == PcapngReader::kError, !reader.error().empty());
    return {seqs, reader.error()};
  }

  tidewatch_test::ScratchDir m_dir{"pcapng_reader"};
};

TEST_F(PcapngReaderTest, DamageStopsAtTheBlockNamingItAfterEveryEarlierTrap) {
  std::vector<size_t> at;  // SHB, IDB, EPB 1...
  // Several read chunks' worth, so blocks straddle the reader's buffer refills.
  const std::string good = MakeFile(12000, &at);
  ASSERT_GT(good.size(), 1u << 20);
  // "block N (Enhanced Packet Block ...) at byte offset ...: " for block N, the EPB at at[N - 1].
  auto epb = [&](size_t n) {
    return "block " + std::to_string(n) + " (Enhanced Packet Block 0x00000006) at byte offset " +
           std::to_string(at[n - 1]) + ": ";
  };
  auto n = [](size_t v) { return std::to_string(v); };
  constexpr int64_t kCut = -1;  // `offset` is the size the file is cut to
  struct Case {
    const char* what;
    size_t offset;
    int64_t value;  // the 32-bit value written at `offset`, or kCut
    size_t traps;
    std::string error;
  };
  const std::vector<Case> cases = {
      {"intact", good.size(), kCut, 12000, ""},
      {"empty", 0, kCut, 0, "block 1 at byte offset 0: the file is empty"},
      {"not pcapng", 0, 0x464C457F, 0,
       "block 1 (block 0x464C457F) at byte offset 0: not a pcapng file (it does not start with a "
       "Section Header Block)"},
      {"cut inside a block", at[4] + 40, kCut, 2,
       epb(5) + "the file ends inside the block, after 40 of its " + n(at[5] - at[4]) + " bytes"},
      {"cut inside a block header", at[3] + 6, kCut, 1,
       epb(4) + "the file ends inside the block header, after 6 bytes"},
      {"trailing length differs", at[4] - 4, 12, 1,
       epb(4) + "the trailing length 12 differs from the leading length " + n(at[4] - at[3])},
      {"length not a multiple of 4", at[4] + 4, 101, 2, epb(5) + "bad block length 101"},
      {"length beyond any block", at[4] + 4, 0x7FFFFFF0, 2,
       epb(5) + "block length 2147483632 is larger than 16777216"},
      {"no trap magic", at[2] + 28, 0, 0, epb(3) + "bad trap header: no magic"},
      {"PDU outside the record", at[4] + 28 + 72, 0xFFFFFFFE, 2,
       epb(5) + "bad trap header: PDU range outside the record"},
      {"captured length past the block", at[3] + 20, 0xFFFFFFFF, 1,
       epb(4) + "captured length 4294967295 runs past the block's end"},
      {"undescribed interface", at[2] + 8, 1, 0, epb(3) + "interface 1 is not described"},
      {"option past the end", at[1] + 16, 0x01000002, 0,
       "block 2 (Interface Description Block 0x00000001) at byte offset " + n(at[1]) +
           ": an option runs past the block's end"},
      {"big-endian section", 8, 0x4D3C2B1A, 0,
       "block 1 (Section Header Block 0x0A0D0D0A) at byte offset 0: big-endian sections are not "
       "read"},
  };
  for (const Case& c : cases) {
    std::string file = good;
    if (c.value == kCut) {
      file.resize(c.offset);
    } else {
      pcapng::Put32(reinterpret_cast<uint8_t*>(&file[c.offset]), static_cast<uint32_t>(c.value));
    }
    for (bool throughFd : {false, true}) {
      SCOPED_TRACE(std::string(c.what) + (throughFd ? " (file)" : " (memory)"));
      const auto [seqs, error] = ReadAll(file, throughFd);
      std::vector<uint64_t> want;
      for (uint64_t i = 1; i <= c.traps; ++i) want.push_back(i);
      EXPECT_EQ(want, seqs);
      EXPECT_EQ(c.error, error);
    }
  }
}

// Every field a capture keeps must come back from the file as it went in.
TEST_F(PcapngReaderTest, EveryKindOfTrapReadsBackAsWritten) {
  std::vector<std::unique_ptr<tidewatch_test::SampleTrap>> samples;
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
  const auto counts = [](const auto& stats) {
    return std::make_tuple(stats.written, stats.serviceDrops, stats.toolDrops);
  };
  EXPECT_EQ(std::make_tuple(6u, 5u, 14u), counts(writer.Stats()));

  PcapngReader reader;
  reader.OpenBuffer(reinterpret_cast<const uint8_t*>(file.data()), file.size());
  CapturedTrap got;
  for (int section = 0; section < 2; ++section) {
    for (size_t i = 0; i < samples.size(); ++i) {
      ASSERT_EQ(PcapngReader::kTrap, reader.Next(&got)) << reader.error();
      const CapturedTrap& want = samples[i]->trap;
      EXPECT_EQ(std::tie(want.seq, want.timeUs, want.length),
                std::tie(got.seq, got.timeUs, got.length));
      EXPECT_EQ(Hex(want.record.data, want.record.size), Hex(got.record.data, got.record.size));
      EXPECT_TRUE(std::equal(want.discards, want.discards + TRAP_TYPE_NUM, got.discards));
      // A trap the layout did not decode reads back with its record's type.
      DecodedTrap decoded = want.decoded;
      if (decoded.type == TRAP_TYPE_NONE) decoded.type = TRAP_TYPE(want.record.data[0]);
      EXPECT_EQ(Render(decoded), Render(got.decoded)) << i;
      EXPECT_EQ(toolDrops[i], reader.toolDrops());
    }
  }
  ASSERT_EQ(PcapngReader::kEnd, reader.Next(&got)) << reader.error();
  EXPECT_EQ("tide_watch_capture 9.8", reader.userAppl());
  ASSERT_TRUE(reader.hasStats());
  EXPECT_EQ(1700000000000001, reader.stats().startUs);
  EXPECT_EQ(1700000009000000, reader.stats().endUs);
  EXPECT_EQ(std::make_tuple(6u, 5u, 14u), counts(reader.stats()));
}

// The files the writer makes, as the real tools read them: capinfos accepts them, and tshark with
// our dissector shows the traps by name, the EM values and the air message decoded by Wireshark.
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
    FILE* pipe = popen(("timeout -k 5 60 " + command + " 2>/dev/null").c_str(), "r");
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
