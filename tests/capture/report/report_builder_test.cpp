// The report builder: what it counts and keeps per trap, that it copies names out of traps whose
// buffers die, that spikes survive the downsampling of long captures, and that it stays bounded.
#include "capture/report/report_builder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <vector>

namespace {

using capture::ReportBuilder;
using capture::ReportData;
using libtidewatch::CapturedTrap;
using libtidewatch::TRAP_TYPE;
using libtidewatch::TRAP_TYPE_EM;
using libtidewatch::TRAP_TYPE_OTA;

constexpr int64_t kT0 = 1'795'000'000'000'000;

class ReportBuilderTest : public ::testing::Test {
 protected:
  // Feeds one trap whose names live in a buffer that is overwritten right after Add, as a
  // reader's buffer is.
  void Add(TRAP_TYPE type, int64_t timeUs, const std::string& name,
           const std::vector<std::pair<std::string, uint64_t>>& fields = {}, uint64_t sim = 0) {
    std::string buffer = name;
    std::vector<std::string> fieldNames;
    for (const auto& f : fields) fieldNames.push_back(f.first);
    CapturedTrap trap;
    trap.seq = ++seq_;
    trap.timeUs = timeUs;
    trap.decoded.payload = {record_, 20};
    trap.decoded.type = type;
    trap.decoded.sim = {sim, true};
    if (!name.empty()) trap.decoded.msgName = std::string_view(buffer);
    trap.decoded.msgId = {2001, true};
    if (type == TRAP_TYPE_OTA) trap.decoded.pduLength = {7, true};
    for (size_t i = 0; i < fields.size(); ++i) {
      trap.decoded.fields.push_back({fieldNames[i], fields[i].second});
    }
    builder_.Add(trap);
    std::fill(buffer.begin(), buffer.end(), '#');
    for (std::string& f : fieldNames) std::fill(f.begin(), f.end(), '#');
  }

  const ReportData& data() const { return builder_.data(); }

  ReportBuilder builder_;
  uint64_t seq_ = 0;
  uint8_t record_[20] = {};
};

TEST_F(ReportBuilderTest, CountsPerNameAndKeepsCopies) {
  Add(TRAP_TYPE_EM, kT0, "EM_LTE_SERVING_CELL_INFO", {{"RSRP", 100}});
  Add(TRAP_TYPE_OTA, kT0 + 10, "LTE_RRC_PAGING");
  Add(TRAP_TYPE_EM, kT0 + 20, "EM_LTE_SERVING_CELL_INFO", {{"RSRP", 90}});
  Add(TRAP_TYPE_EM, kT0 + 30, "");  // no name: counted by type and id
  Add(libtidewatch::TRAP_TYPE_VOLTE, kT0 - 40, "");

  EXPECT_EQ(std::make_tuple(data().traps, data().bytes, data().StartUs(), data().EndUs()),
            std::make_tuple(uint64_t{5}, uint64_t{100}, kT0 - 40, kT0 + 30));
  std::vector<std::pair<std::string, uint64_t>> names;
  for (const auto& n : data().names) names.emplace_back(n.label, n.count);
  EXPECT_EQ(
      names,
      (std::vector<std::pair<std::string, uint64_t>>{
          {"EM_LTE_SERVING_CELL_INFO", 2}, {"LTE_RRC_PAGING", 1}, {"EM #2001", 1}, {"VoLTE", 1}}));
  ASSERT_EQ(data().series.size(), 1u);
  const capture::FieldSeries& rsrp = data().series[0];
  EXPECT_EQ(data().emMessages[rsrp.message].name, "EM_LTE_SERVING_CELL_INFO");
  EXPECT_EQ(rsrp.field, "RSRP");
  EXPECT_EQ(std::make_tuple(rsrp.count, rsrp.min, rsrp.max, rsrp.last),
            std::make_tuple(uint64_t{2}, uint64_t{90}, uint64_t{100}, uint64_t{90}));
  ASSERT_EQ(data().ota.size(), 1u);
  EXPECT_EQ(
      std::make_tuple(data().ota[0].message, data().ota[0].seq, data().ota[0].pduLength.value),
      std::make_tuple(std::string("LTE_RRC_PAGING"), uint64_t{2}, uint64_t{7}));
}

TEST_F(ReportBuilderTest, SpikesSurviveDownsampling) {
  // Two SIMs over 200 s, one value a millisecond: thousands of values per bucket in the end.
  const int kTraps = 200'000;
  for (int i = 0; i < kTraps; ++i) {
    uint64_t v = i == 123'457 ? 900 : i == 54'320 ? 3 : 100;
    Add(TRAP_TYPE_EM, kT0 + i * 1000, "EM_LTE_SERVING_CELL_INFO", {{"RSRP", v}}, i % 2);
  }
  ASSERT_EQ(data().series.size(), 2u);
  EXPECT_LE(data().grid.used(), ReportBuilder::kGridBuckets);
  EXPECT_GE(data().grid.used(), ReportBuilder::kGridBuckets / 2);
  uint64_t values = 0, spikes = 0, dips = 0;
  for (const capture::FieldSeries& s : data().series) {
    for (const capture::FieldBucket& b : s.buckets) {
      values += b.count;
      spikes += b.count > 0 && b.max == 900;
      dips += b.count > 0 && b.min == 3;
    }
  }
  EXPECT_EQ(std::make_tuple(values, spikes, dips),
            std::make_tuple(static_cast<uint64_t>(kTraps), uint64_t{1}, uint64_t{1}));
  EXPECT_EQ(data().series[1].max, 900u);  // odd traps are on SIM 1, even ones on SIM 0
  EXPECT_EQ(data().series[0].min, 3u);
}

TEST_F(ReportBuilderTest, DropsByTheServiceAndByTheToolKeepTheirTimes) {
  CapturedTrap trap;
  trap.timeUs = kT0 + 5'000'000;
  trap.decoded.type = TRAP_TYPE_EM;
  trap.discards[TRAP_TYPE_OTA] = 3;
  trap.discards[TRAP_TYPE_EM] = 4;
  trap.toolDrops = 5;
  builder_.Add(trap);
  CapturedTrap skipped;  // left out of the report, but not its drops
  skipped.timeUs = kT0 + 7'000'000;
  skipped.discards[TRAP_TYPE_EM] = 1;
  builder_.AddDrops(skipped);
  builder_.AddToolDrop(kT0 + 9'000'000, TRAP_TYPE_OTA, 11);
  builder_.AddToolDrop(kT0, static_cast<TRAP_TYPE>(77), 2);  // an unknown type counts as NONE

  // Each event: its time, whether the tool dropped it, and how many it counts.
  std::vector<std::tuple<int64_t, bool, uint64_t>> seen;
  for (const capture::DropEvent& e : data().drops) {
    uint64_t total = 0;
    for (uint64_t n : e.counts) total += n;
    seen.emplace_back(e.timeUs - kT0, e.byTool, total);
  }
  EXPECT_EQ(seen, (decltype(seen){{5'000'000, false, 7},
                                  {5'000'000, true, 5},
                                  {7'000'000, false, 1},
                                  {9'000'000, true, 11},
                                  {0, true, 2}}));
  EXPECT_EQ(data().drops[3].counts[TRAP_TYPE_OTA], 11u);
  EXPECT_EQ(data().toolDropsByType[libtidewatch::TRAP_TYPE_NONE], 7u);
  EXPECT_EQ(data().traps, 1u);
  uint64_t service = 0, tool = 0;
  for (const capture::TypeBucket& b : data().typeBuckets) {
    service += b.serviceDrops;
    tool += b.toolDrops;
  }
  EXPECT_EQ(std::make_tuple(service, tool, data().ServiceDrops(), data().ToolDrops()),
            std::make_tuple(uint64_t{8}, uint64_t{18}, uint64_t{8}, uint64_t{18}));
}

TEST_F(ReportBuilderTest, KeepsBoundedListsAndCountsTheRest) {
  for (size_t i = 0; i < ReportBuilder::kMaxOta + 3; ++i) {
    Add(TRAP_TYPE_OTA, kT0 + static_cast<int64_t>(i), "LTE_RRC_PAGING");
  }
  for (size_t i = 0; i < ReportBuilder::kMaxNames + 5; ++i) {
    Add(TRAP_TYPE_EM, kT0, "EM_" + std::to_string(i));
  }
  std::vector<std::pair<std::string, uint64_t>> fields;
  for (size_t i = 0; i < ReportBuilder::kMaxSeries + 4; ++i) {
    fields.emplace_back("F" + std::to_string(i), i);
  }
  Add(TRAP_TYPE_EM, kT0, "EM_0", fields);
  Add(TRAP_TYPE_EM, kT0, std::string(1000, 'N'));  // beyond the kept names: "other"
  for (size_t i = 0; i < ReportBuilder::kMaxDropEvents + 2; ++i) {
    builder_.AddToolDrop(kT0, TRAP_TYPE_EM, 1);
  }

  // Kept and left out: OTA traps, names (EM_1999 to EM_2004, and the long name), series, drops.
  EXPECT_EQ(
      std::vector<size_t>({data().ota.size(), data().otaNotListed, data().names.size(),
                           data().otherNames.count, data().series.size(), data().unchartedValues,
                           data().drops.size(), data().unlistedDropEvents, data().ToolDrops()}),
      std::vector<size_t>({ReportBuilder::kMaxOta, 3, ReportBuilder::kMaxNames, 7,
                           ReportBuilder::kMaxSeries, 4, ReportBuilder::kMaxDropEvents, 2,
                           ReportBuilder::kMaxDropEvents + 2}));
  for (const capture::NameStats& n : data().names) {
    EXPECT_LE(n.label.size(), ReportBuilder::kMaxTextBytes);
  }
}

}  // namespace
