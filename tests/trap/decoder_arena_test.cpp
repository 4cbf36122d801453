#include "libtidewatch/trap/decoder_arena.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace libtidewatch {
namespace {

// Mixed sizes and alignments, across block boundaries and with requests larger than any block:
// every block is aligned, writable to its last byte and overlaps no other (ASan watches the
// writes, the final check catches overlaps).
TEST(DecoderArenaTest, BlocksAreAlignedWritableAndDisjoint) {
  DecoderArena arena;
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
      auto* data = static_cast<unsigned char*>(arena.allocate(r.bytes, r.alignment));
      ASSERT_NE(data, nullptr);
      EXPECT_EQ(reinterpret_cast<uintptr_t>(data) % r.alignment, 0u);
      auto fill = static_cast<unsigned char>(given.size());
      memset(data, fill, r.bytes);
      given.push_back({data, r.bytes, fill});
    }
  }
  for (const Given& g : given) {
    for (size_t i = 0; i < g.bytes; i += 4093) ASSERT_EQ(g.data[i], g.fill);
    ASSERT_TRUE(g.bytes == 0 || g.data[g.bytes - 1] == g.fill);
  }
  EXPECT_GE(arena.Reserved(), 3u * (20u << 20));
}

}  // namespace
}  // namespace libtidewatch
