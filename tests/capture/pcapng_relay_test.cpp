// PcapngRelay: a phone's stream, however adb cuts it, passes as whole blocks; what is not pcapng
// (a message instead of a capture, a note after it, a damaged block) is kept apart as text.
#include "capture/pcapng_relay.h"

#include <gtest/gtest.h>

#include <string>

#include "libtidewatch/pcapng/pcapng_writer.h"
#include "tests/support/sample_traps.h"

namespace capture {
namespace {

class PcapngRelayTest : public ::testing::Test {
 protected:
  void SetUp() override {
    libtidewatch::PcapngWriter writer("test");
    writer.BeginSection(1700000000000000, &stream_);
    head_ = stream_.size();
    for (uint64_t seq : {1, 2}) {
      writer.AppendTrap(tidewatch_test::EmSample(seq, "EM_X", 2000, {{"PCI", seq}})->trap, 0,
                        &stream_);
    }
    writer.EndSection(1700000001000000, 0, &stream_);
  }

  // Feeds `input` in pieces of `piece` bytes, then its end; the blocks passed on.
  static std::string Relay(PcapngRelay* relay, const std::string& input, size_t piece) {
    std::string blocks;
    for (size_t at = 0; at < input.size(); at += piece) {
      relay->Feed(input.data() + at, std::min(piece, input.size() - at), &blocks);
    }
    relay->End();
    return blocks;
  }

  // The length of the block at `at`, from its closing length when `at` is its end.
  size_t LengthAt(size_t at) const {
    return static_cast<uint8_t>(stream_[at]) | static_cast<uint8_t>(stream_[at + 1]) << 8;
  }

  std::string stream_;
  size_t head_ = 0;  // bytes of the section header and interface blocks
};

TEST_F(PcapngRelayTest, PassesWholeBlocksWhereverTheStreamIsCut) {
  for (size_t piece : {size_t{1}, size_t{3}, size_t{64}, stream_.size()}) {
    SCOPED_TRACE(piece);
    PcapngRelay relay;
    std::string blocks;
    relay.Feed(stream_.data(), head_ - 1, &blocks);
    EXPECT_EQ(blocks, stream_.substr(0, LengthAt(4))) << "only the whole section header";
    PcapngRelay fresh;
    EXPECT_EQ(Relay(&fresh, stream_, piece), stream_);
    EXPECT_TRUE(fresh.started());
    EXPECT_FALSE(fresh.inText());
  }
}

TEST_F(PcapngRelayTest, KeepsWhatIsNotPcapngAsText) {
  std::string damaged = stream_;
  damaged[damaged.size() - 4] ^= 1;  // the statistics block's closing length
  const size_t last = stream_.size() - LengthAt(stream_.size() - 4);
  const struct {
    std::string input;
    std::string blocks;
    std::string text;
  } cases[] = {
      {"tide_watch_capture: unknown EM message name 'X'\n", "",
       "tide_watch_capture: unknown EM message name 'X'\n"},
      {"no\n", "", "no\n"},
      {stream_ + "the service has gone\n", stream_, "the service has gone\n"},
      {damaged, stream_.substr(0, last), damaged.substr(last)},
      {std::string(5000, 'x'), "", std::string(PcapngRelay::kMaxText, 'x')},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text.substr(0, 40));
    PcapngRelay relay;
    EXPECT_EQ(Relay(&relay, c.input, 7), c.blocks);
    EXPECT_TRUE(relay.inText());
    EXPECT_EQ(relay.text(), c.text);
  }
}

}  // namespace
}  // namespace capture
