#include "libtidewatch/pcapng/pcapng_reader.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "libtidewatch/pcapng/pcapng_format.h"
#include "libtidewatch/pcapng/pcapng_writer.h"
#include "tests/support/sample_traps.h"
#include "tests/support/scratch_dir.h"

namespace libtidewatch {
namespace {

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
    for (size_t at = 0; offsets != nullptr && at < file.size();
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
  std::vector<size_t> at;  // SHB, IDB, EPB 1..3, ISB
  const std::string good = MakeFile(3, &at);
  ASSERT_EQ(6u, at.size());
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
      {"intact", good.size(), kCut, 3, ""},
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

TEST_F(PcapngReaderTest, LargeFileThroughADescriptorGivesEveryTrapInOrder) {
  // Several read chunks' worth, so blocks straddle the reader's buffer refills.
  const std::string file = MakeFile(12000, nullptr);
  ASSERT_GT(file.size(), 1u << 20);
  const auto [seqs, error] = ReadAll(file, true);
  EXPECT_EQ("", error);
  ASSERT_EQ(12000u, seqs.size());
  for (size_t i = 0; i < seqs.size(); ++i) ASSERT_EQ(i + 1, seqs[i]);
}

}  // namespace
}  // namespace libtidewatch
