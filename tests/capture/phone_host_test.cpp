// The phone side: the phones adb lists (only those in state "device", and none at all, promptly,
// when adb is missing or hangs), and the line adb hands to the phone's shell, which must give the
// tool exactly the words it was given, patterns and quotes included, as a real shell splits it; and
// the relay of what comes back: a phone's stream, however adb cuts it, passes as whole blocks; what
// is not pcapng (a message instead of a capture, a note after it, a damaged block) stays text.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <chrono>
#include <string>
#include <vector>

#include "capture/adb_devices.h"
#include "capture/pcapng_relay.h"
#include "capture/phone_command.h"
#include "libtidewatch/pcapng/pcapng_writer.h"
#include "tests/support/child_process.h"
#include "tests/support/sample_traps.h"
#include "tests/support/scratch_dir.h"

namespace capture {
namespace {

TEST(AdbDevicesTest, OnlyReadyPhonesAndWithinTheDeadlineWhateverAdbDoes) {
  tidewatch_test::ScratchDir dir("adb_devices");
  const struct {
    std::string script;  // empty: no such program
    std::vector<std::string> serials;
  } cases[] = {
      {"printf 'List of devices attached\\nA1\\tdevice\\n'", {"A1"}},
      // Only phones ready for use, whatever the daemon says first and however lines end.
      {"printf '* daemon not running; starting now at tcp:5037\\n* daemon started successfully\\n"
       "List of devices attached\\nR58M12ABCDE\\tdevice\\nemulator-5554\\toffline\\n"
       "0123456789\\tunauthorized\\r\\n192.168.1.7:5555\\tdevice\\r\\n\\n'",
       {"R58M12ABCDE", "192.168.1.7:5555"}},
      {"printf 'List of devices attached\\n\\n'", {}},
      {"", {}},
      {"sleep 30", {}},
      {"printf 'List of devices attached\\nA1\\tdevice\\n'; exit 1", {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.script);
    const std::string adb = dir.path() + "/adb";
    remove(adb.c_str());
    if (!c.script.empty()) {
      ASSERT_TRUE(dir.Write("adb", "#!/bin/sh\n" + c.script + "\n"));
      ASSERT_EQ(chmod(adb.c_str(), 0755), 0);
    }
    setenv("TIDEWATCH_ADB", adb.c_str(), 1);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ListAdbDevices(500), c.serials);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1500));
  }
  unsetenv("TIDEWATCH_ADB");
}

TEST(PhoneCommandTest, TheToolGetsEveryWordAsGiven) {
  const struct {
    std::vector<std::string> args;
    bool su;
    std::string line;
    std::string words;  // after the tool's name
  } cases[] = {
      {{"--em", "EM_*"},
       false,
       "'tide_watch_capture' '-w' '-' '--em' 'EM_*'",
       "-w\n-\n--em\nEM_*\n"},
      {{"--secret", "it's $HOME; `x` *"},
       false,
       "'tide_watch_capture' '-w' '-' '--secret' 'it'\\''s $HOME; `x` *'",
       "-w\n-\n--secret\nit's $HOME; `x` *\n"},
      {{"--ota", "LTE_RRC_*"},
       true,
       "'su' '0' 'tide_watch_capture' '-w' '-' '--ota' 'LTE_RRC_*'",
       "0\ntide_watch_capture\n-w\n-\n--ota\nLTE_RRC_*\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    const std::string line = PhoneCommandLine("tide_watch_capture", c.args, c.su);
    EXPECT_EQ(line, c.line);
    // The words a shell makes of the line, one per line, with the first (the tool) left out.
    EXPECT_EQ(tidewatch_test::RunShell("f() { shift; printf '%s\\n' \"$@\"; }; f " + line),
              c.words);
  }
}

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
