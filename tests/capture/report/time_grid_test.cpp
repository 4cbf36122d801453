// The growing time grid: whatever order and spread of times it is fed, it stays within its
// capacity, and buckets moved by its remaps hold exactly the times the final grid puts there.
#include "capture/report/time_grid.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

namespace {

using capture::GridRemap;
using capture::TimeGrid;

constexpr size_t kCapacity = 16;

struct Case {
  const char* name;
  std::vector<int64_t> times;
};

std::vector<Case> Cases() {
  std::vector<int64_t> rising;
  for (int64_t i = 0; i < 1000; ++i) rising.push_back(1'700'000'000'000'000 + i * 3'700);
  std::vector<int64_t> shuffled = rising;
  std::shuffle(shuffled.begin(), shuffled.end(), std::mt19937(7));
  // Then times a damaged capture may hold: far apart, negative, at the ends of the type.
  return {{"rising", rising},
          {"falling", {rising.rbegin(), rising.rend()}},
          {"shuffled", shuffled},
          {"one_time", {42}},
          {"same_time", {5, 5, 5, 5}},
          {"extremes", {1'700'000'000'000'000, 0, INT64_MAX, -5, INT64_MIN, 12}}};
}

class TimeGridTest : public ::testing::TestWithParam<Case> {};

TEST_P(TimeGridTest, RemappedCountsMatchTheFinalGrid) {
  const std::vector<int64_t>& times = GetParam().times;
  TimeGrid grid(kCapacity, 1000);
  std::vector<uint64_t> counts(kCapacity);
  auto add = [](uint64_t* into, uint64_t from) { *into += from; };
  for (int64_t t : times) {
    GridRemap remap;
    size_t bucket = grid.Place(t, &remap);
    RemapBuckets(remap, &counts, add);
    ASSERT_LT(bucket, kCapacity) << t;
    ++counts[bucket];
    ASSERT_LE(grid.used(), kCapacity);
  }

  // Every time lies in the bucket that holds it now, and no time was lost or counted twice.
  std::vector<uint64_t> expected(kCapacity);
  for (int64_t t : times) {
    int64_t clamped = std::clamp(t, -TimeGrid::kMaxAbsTimeUs, TimeGrid::kMaxAbsTimeUs);
    size_t found = kCapacity;
    for (size_t b = 0; b < kCapacity; ++b) {
      int64_t start = grid.BucketStartUs(b);
      if (clamped >= start && clamped - start < grid.widthUs()) found = b;
    }
    ASSERT_LT(found, kCapacity) << "time " << t << " is outside the grid";
    ++expected[found];
  }
  EXPECT_EQ(counts, expected);
}

INSTANTIATE_TEST_SUITE_P(Times, TimeGridTest, ::testing::ValuesIn(Cases()),
                         [](const ::testing::TestParamInfo<Case>& info) {
                           return info.param.name;
                         });

}  // namespace
