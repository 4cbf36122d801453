#include "libtidewatch/platform/hal_link.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <string>
#include <thread>
#include <vector>

// The largest single allocation made while tracking is on: a peer that announces a huge frame
// must not make the reader reserve it before the bytes arrive.
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

using Bytes = std::vector<uint8_t>;

class HalLinkTest : public testing::Test {
 protected:
  void SetUp() override {
    // Reads here block without a deadline, as the callback reader's do: a fault that leaves one
    // waiting ends the test by SIGALRM instead of hanging it.
    alarm(20);
    Reopen();
  }
  void TearDown() override {
    alarm(0);
    for (int fd : m_fds) close(fd);
  }
  void Reopen() {
    for (int fd : m_fds) close(fd);
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, m_fds));
  }

  static Bytes Header(uint32_t length) {
    return {static_cast<uint8_t>(length), static_cast<uint8_t>(length >> 8),
            static_cast<uint8_t>(length >> 16), static_cast<uint8_t>(length >> 24)};
  }
  void Send(const Bytes& bytes) {
    ASSERT_EQ(static_cast<ssize_t>(bytes.size()), write(m_fds[1], bytes.data(), bytes.size()));
  }
  void ClosePeer() {
    close(m_fds[1]);
    m_fds[1] = -1;
  }

  // A reader's end (m_fds[0]) and a writer's end (m_fds[1]) of one connection.
  int m_fds[2] = {-1, -1};
};

TEST_F(HalLinkTest, EncodesLengthOpcodeAndPayload) {
  Bytes bigFrame = {0x2D, 0x01, 0x00, 0x00, 0x03};
  bigFrame.resize(bigFrame.size() + 300, 0xAB);
  const struct {
    uint8_t opcode;
    Bytes payload;
    Bytes expected;
  } cases[] = {
      {kHalLinkCommand, {}, {0x01, 0x00, 0x00, 0x00, 0x01}},
      {kHalLinkCommandResult, {0x00, 'o', 'k'}, {0x04, 0x00, 0x00, 0x00, 0x81, 0x00, 'o', 'k'}},
      {kHalLinkTrap, Bytes(300, 0xAB), bigFrame},
  };
  for (const auto& c : cases) {
    Bytes out;
    EXPECT_TRUE(AppendHalLinkFrame(c.opcode, c.payload.data(), c.payload.size(), &out));
    EXPECT_EQ(c.expected, out) << "opcode " << int(c.opcode);
  }
  Bytes out = {0x55};
  uint8_t dummy = 0;
  EXPECT_FALSE(AppendHalLinkFrame(kHalLinkCommand, &dummy, kHalLinkMaxPayload + 1, &out));
  EXPECT_EQ(Bytes({0x55}), out);
}

// The decoder is held against a plain parse by the link fuzzer, and serves every emulator and
// end-to-end suite; here, only what a fuzzer cannot see: how much it allocates.
TEST_F(HalLinkTest, DeclaredLengthAloneAllocatesNothing) {
  Bytes start = Header(kHalLinkMaxLength);
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
  Send(start);
  ClosePeer();
  HalLinkFrame frame;
  g_largestAllocation = 0;
  g_trackAllocations = true;
  HalLinkReadResult result = ReadHalLinkFrame(m_fds[0], &frame);
  g_trackAllocations = false;
  EXPECT_EQ(HalLinkReadResult::kError, result);
  EXPECT_LT(g_largestAllocation.load(), 64u * 1024u);
}

// The blocking reader takes one frame per call, whatever its size, and tells a clean end from a
// broken stream.
TEST_F(HalLinkTest, ReaderTakesFramesUntilTheStreamEnds) {
  using R = HalLinkReadResult;
  Bytes frames;
  AppendHalLinkFrame(kHalLinkCommandResult, nullptr, 0, &frames);
  const Bytes big(100000, 0x77);
  AppendHalLinkFrame(kHalLinkTrap, big.data(), big.size(), &frames);
  const struct {
    const char* name;
    Bytes bytes;  // written by the peer, which then closes
    std::vector<R> results;
  } cases[] = {
      {"two frames", frames, {R::kFrame, R::kFrame, R::kClosed}},
      {"zero length", Header(0), {R::kBadFrame}},
      {"over the limit", Header(kHalLinkMaxLength + 1), {R::kBadFrame}},
      {"cut in the length", {0x05, 0x00}, {R::kError}},
      {"cut before the opcode", Header(3), {R::kError}},
      {"cut in the payload", {0x03, 0x00, 0x00, 0x00, 0x81, 0x00}, {R::kError}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Reopen();
    // A frame larger than the socket buffer would block the writer, so it runs beside us.
    std::thread writer([&] {
      Send(c.bytes);
      ClosePeer();
    });
    std::vector<R> results;
    std::vector<Bytes> payloads;
    for (HalLinkFrame frame; results.empty() || results.back() == R::kFrame;) {
      results.push_back(ReadHalLinkFrame(m_fds[0], &frame));
      if (results.back() == R::kFrame) payloads.push_back(frame.payload);
    }
    writer.join();
    EXPECT_EQ(results, c.results);
    EXPECT_TRUE(payloads.empty() || payloads == std::vector<Bytes>({{}, big}));
  }

  // The other way round: a SIGPIPE here would end the test program.
  Reopen();
  close(m_fds[0]);
  m_fds[0] = -1;
  uint8_t byte = 1;
  EXPECT_FALSE(WriteHalLinkFrame(m_fds[1], kHalLinkTrapResult, &byte, 1));
}

}  // namespace
}  // namespace libtidewatch
