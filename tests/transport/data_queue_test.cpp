#include "libtidewatch/transport/data_queue.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace libtidewatch {
namespace {

class DataQueueTest : public ::testing::Test {
 protected:
  // Places `n` bytes 0, 1, 2, ... (mod 251) at index `start`.
  void Fill(size_t start, size_t n) {
    q->start = start;
    q->size = n;
    for (size_t i = 0; i < n; ++i) q->bytes[start + i] = static_cast<uint8_t>(i % 251);
  }
  // Whether the first `n` held bytes are the filled sequence with its first `dropped` bytes gone.
  bool HoldsTail(size_t dropped, size_t n) const {
    for (size_t i = 0; i < n; ++i) {
      if (q->Front()[i] != static_cast<uint8_t>((dropped + i) % 251)) return false;
    }
    return true;
  }

  std::unique_ptr<DataQueue> q{new DataQueue};  // too big for a test's stack frame
};

// A push that does not fit, or has no bytes, changes nothing; one that fits only after moving the
// data to the front moves it first.
TEST_F(DataQueueTest, PushAndIncSizeFillUpToCapacity) {
  std::vector<uint8_t> data(DataQueue::kCapacity + 1, 0xEE);
  ASSERT_TRUE(q->Push(data.data(), DataQueue::kCapacity));
  EXPECT_FALSE(q->Push(data.data(), 1));
  EXPECT_TRUE(q->Push(data.data(), 0));  // nothing always fits
  EXPECT_EQ(q->size, DataQueue::kCapacity);
  q->Reset();
  EXPECT_FALSE(q->Push(data.data(), data.size()));
  EXPECT_FALSE(q->Push(nullptr, 1));
  EXPECT_EQ(q->size, 0u);

  Fill(DataQueue::kCapacity - 144, 100);  // 44 bytes of tail room
  ASSERT_TRUE(q->Push(data.data(), 100));
  EXPECT_EQ(q->start, 0u);
  EXPECT_EQ(q->size, 200u);
  EXPECT_TRUE(HoldsTail(0, 100));
  EXPECT_EQ(std::vector<uint8_t>(q->bytes + 100, q->bytes + 200), std::vector<uint8_t>(100, 0xEE));
  // A reader that filled the free space in place counts it in, up to the end of the array.
  Fill(1000, 100);
  EXPECT_EQ(q->SpaceStart(), q->bytes + 1100);
  q->IncSize(DataQueue::kCapacity);
  EXPECT_EQ(q->size, DataQueue::kCapacity - 1000);
}

TEST_F(DataQueueTest, PopCompactsOnlyPastTheMarkOrOnPopZero) {
  struct Case {
    const char* name;
    size_t start, size, pop;
    size_t wantStart, wantSize;
  } cases[] = {
      {"data ends at the mark", 131000, 72, 10, 131010, 62},
      {"data ends past the mark", 131000, 73, 10, 0, 63},
      {"full queue", 0, DataQueue::kCapacity, 1, 0, DataQueue::kCapacity - 1},
      {"pop zero compacts", 500, 20, 0, 0, 20},
      {"pop all rewinds", 200000, 30, 30, 0, 0},
      {"pop more than held", 700, 30, 31, 0, 0},
  };
  for (const Case& c : cases) {
    Fill(c.start, c.size);
    q->Pop(c.pop);
    EXPECT_EQ(q->start, c.wantStart) << c.name;
    EXPECT_EQ(q->size, c.wantSize) << c.name;
    EXPECT_TRUE(HoldsTail(c.pop, q->size)) << c.name;
  }
}

}  // namespace
}  // namespace libtidewatch
