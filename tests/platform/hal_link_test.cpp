#include "libtidewatch/platform/hal_link.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <vector>

// The largest allocation while tracking: a huge announced frame must not be reserved up front.
static std::atomic<bool> g_trackAllocations{false};
static std::atomic<size_t> g_largestAllocation{0};

void* operator new(size_t size) {
  if (g_trackAllocations.load(std::memory_order_relaxed)) {
    size_t seen = g_largestAllocation.load(std::memory_order_relaxed);
    while (size > seen && !g_largestAllocation.compare_exchange_weak(seen, size)) {
    }
  }
  void* p = malloc(size == 0 ? 1 : size);
  if (p == nullptr) throw std::bad_alloc();
  return p;
}
// Not inlined, so that the compiler does not pair a new expression with free() and object to it.
__attribute__((noinline)) void operator delete(void* p) noexcept { free(p); }
__attribute__((noinline)) void operator delete(void* p, size_t) noexcept { free(p); }

namespace libtidewatch {
namespace {

// The 16 MiB frame announcement: the fuzzer cannot see how much the readers allocate.
TEST(HalLinkTest, DeclaredLengthAloneAllocatesNothing) {
  alarm(20);  // the blocking reader has no deadline: a fault ends the test, never hangs it
  std::vector<uint8_t> start(4);
  for (int i = 0; i < 4; ++i) start[i] = static_cast<uint8_t>(kHalLinkMaxLength >> (8 * i));
  start.push_back(kHalLinkTrap);
  start.resize(start.size() + 1000, 0x11);

  HalLinkDecoder decoder;
  g_largestAllocation = 0;
  g_trackAllocations = true;
  bool fed = decoder.Feed(start.data(), start.size());
  g_trackAllocations = false;
  EXPECT_TRUE(fed);
  EXPECT_EQ(start.size(), decoder.pending());
  EXPECT_LT(g_largestAllocation.load(), 64u * 1024u);

  // The blocking reader: the writer announces the limit, sends a little, then goes away.
  int fds[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
  ASSERT_EQ(static_cast<ssize_t>(start.size()), write(fds[1], start.data(), start.size()));
  close(fds[1]);
  HalLinkFrame frame;
  g_largestAllocation = 0;
  g_trackAllocations = true;
  HalLinkReadResult result = ReadHalLinkFrame(fds[0], &frame);
  g_trackAllocations = false;
  EXPECT_EQ(HalLinkReadResult::kError, result);
  EXPECT_LT(g_largestAllocation.load(), 64u * 1024u);
  close(fds[0]);
  alarm(0);
}

// A write to a peer that went away fails: a SIGPIPE here would end the test program.
TEST(HalLinkTest, WriteToAClosedPeerFails) {
  alarm(20);  // nor may it wait for the peer forever
  int fds[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
  close(fds[0]);
  uint8_t byte = 1;
  EXPECT_FALSE(WriteHalLinkFrame(fds[1], kHalLinkTrapResult, &byte, 1));
  close(fds[1]);
  alarm(0);
}

}  // namespace
}  // namespace libtidewatch
