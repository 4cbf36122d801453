#include "emulator/trap_records.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace libtidewatch {
namespace {

using Bytes = std::vector<uint8_t>;

class TrapRecordsTest : public testing::Test {};

TEST_F(TrapRecordsTest, DiscardRecordListsOnlyNonZeroCountsInTypeOrder) {
  DiscardCounter counter;
  Bytes out;
  counter.AppendRecord(&out);
  EXPECT_TRUE(out.empty());
  counter.Count(TRAP_TYPE_IP);
  counter.Count(TRAP_TYPE_OTA);
  counter.Count(TRAP_TYPE_IP);
  counter.Count(9);  // cannot be reported
  counter.AppendRecord(&out);
  EXPECT_EQ(out, (Bytes{1, 2, 0, 0, 0, 2, 1, 0, 0, 0, 6, 2, 0, 0, 0}));
  counter.Reset();
  EXPECT_TRUE(counter.Empty());
}

TEST_F(TrapRecordsTest, ReplayDataSplitsIntoWholeRecords) {
  struct Case {
    Bytes data;
    size_t records;  // or, when npos, the data is refused
  } cases[] = {
      {{}, 0},
      {{2, 1, 0, 0, 0, 9, 3, 0, 0, 0, 0}, 2},
      {{2, 1, 0, 0, 0}, std::string::npos},                          // payload missing
      {{2, 0, 0, 0}, std::string::npos},                             // header cut short
      {{2, 0xff, 0xff, 0xff, 0xff}, std::string::npos},              // length runs past the end
      {{2, 8, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8}, std::string::npos},  // larger than allowed
  };
  for (const Case& c : cases) {
    std::vector<ReplayRecord> records;
    std::string error;
    bool ok = ParseTrapRecords(c.data.data(), c.data.size(), 12, &records, &error);
    if (c.records == std::string::npos) {
      EXPECT_FALSE(ok) << c.data.size();
      EXPECT_FALSE(error.empty());
    } else {
      ASSERT_TRUE(ok) << error;
      EXPECT_EQ(records.size(), c.records);
    }
  }
  std::vector<ReplayRecord> records;
  std::string error;
  Bytes two{2, 1, 0, 0, 0, 9, 3, 0, 0, 0, 0};
  ASSERT_TRUE(ParseTrapRecords(two.data(), two.size(), 12, &records, &error));
  EXPECT_EQ(records[1].type, 3);
  EXPECT_EQ(records[1].bytes, (Bytes{3, 0, 0, 0, 0}));
  EXPECT_FALSE(LoadTrapReplay("/nonexistent/replay.bin", 12, &records, &error));
}

}  // namespace
}  // namespace libtidewatch
