#include "libtidewatch/trap/decoder_arena.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <memory_resource>
#include <string>
#include <string_view>
#include <vector>

namespace libtidewatch {
namespace {

class DecoderArenaTest : public ::testing::Test {
 protected:
  static bool Aligned(const void* p, size_t alignment) {
    return reinterpret_cast<uintptr_t>(p) % alignment == 0;
  }
  DecoderArena arena_;
};

// Mixed sizes and alignments, across block boundaries and with requests larger than any block:
// every block is aligned, writable to its last byte and overlaps no other (ASan watches the
// writes, the final check catches overlaps).
TEST_F(DecoderArenaTest, BlocksAreAlignedWritableAndDisjoint) {
  struct Request {
    size_t bytes;
    size_t alignment;
  } requests[] = {{1, 1},     {3, 1},    {24, 8},       {40, 16},      {0, 1}, {100, 64},
                  {70000, 8}, {5, 4096}, {3 << 20, 16}, {17 << 20, 8}, {7, 2}};
  struct Given {
    unsigned char* data;
    size_t bytes;
    unsigned char fill;
  };
  std::vector<Given> given;
  for (int round = 0; round < 3; ++round) {
    for (const Request& r : requests) {
      SCOPED_TRACE(std::to_string(r.bytes) + "/" + std::to_string(r.alignment));
      auto* data = static_cast<unsigned char*>(arena_.allocate(r.bytes, r.alignment));
      ASSERT_NE(data, nullptr);
      EXPECT_TRUE(Aligned(data, r.alignment));
      auto fill = static_cast<unsigned char>(given.size());
      memset(data, fill, r.bytes);
      given.push_back({data, r.bytes, fill});
    }
  }
  for (const Given& g : given) {
    for (size_t i = 0; i < g.bytes; i += 4093) ASSERT_EQ(g.data[i], g.fill);
    if (g.bytes > 0) {
      ASSERT_EQ(g.data[g.bytes - 1], g.fill);
    }
  }
  EXPECT_GE(arena_.Reserved(), 3u * (20u << 20));
}

TEST_F(DecoderArenaTest, ContainersKeepTheArenaForTheirElements) {
  size_t before = arena_.Reserved();
  std::pmr::map<int, std::pmr::string> map(&arena_);
  for (int i = 0; i < 10000; ++i) map.emplace(i, std::string(40, static_cast<char>('a' + i % 26)));
  EXPECT_EQ(map.at(9999).get_allocator().resource(), &arena_);
  EXPECT_EQ(std::string_view(map.at(27)), std::string(40, 'b'));
  EXPECT_GT(arena_.Reserved(), before);
}

}  // namespace
}  // namespace libtidewatch
