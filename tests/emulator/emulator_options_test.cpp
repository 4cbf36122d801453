#include "emulator/emulator_options.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace libtidewatch {
namespace {

class EmulatorOptionsTest : public testing::Test {
 protected:
  bool Parse(std::vector<const char*> args) {
    args.insert(args.begin(), "tidewatch_hal_emulator");
    options_ = EmulatorOptions();
    error_.clear();
    return ParseEmulatorOptions(static_cast<int>(args.size()), args.data(), &options_, &error_);
  }
  EmulatorOptions options_;
  std::string error_;
};

TEST_F(EmulatorOptionsTest, ValuesInBothSpellings) {
  ASSERT_TRUE(Parse({"--aidl", "--trap-rate", "5", "--fault=bad-json", "--manager-secret", "M",
                     "--first-session-id=900"}))
      << error_;
  EXPECT_TRUE(options_.aidl && !options_.hidl);
  EXPECT_EQ(options_.trapRate, 5u);
  EXPECT_EQ(options_.fault, ReplyFault::kBadJson);
  EXPECT_EQ(options_.secrets.manager, "M");
  EXPECT_EQ(options_.secrets.root, "TidewatchRootAccess");
  EXPECT_EQ(options_.firstSessionId, 900u);
}

TEST_F(EmulatorOptionsTest, ReplayGetsAPaceOfItsOwnUnlessOneIsGiven) {
  ASSERT_TRUE(Parse({"--trap-replay=traps.bin"}));
  EXPECT_EQ(options_.trapRate, kDefaultReplayRate);
  ASSERT_TRUE(Parse({"--trap-rate=0", "--trap-replay", "traps.bin"}));
  EXPECT_EQ(options_.trapRate, 0u);
}

TEST_F(EmulatorOptionsTest, BadOptionsAreRefusedWithAReason) {
  const std::vector<std::vector<const char*>> cases = {
      {"--trap-rate"},
      {"--trap-rate=fast"},
      {"--trap-rate=-1"},
      {"--trap-size=7"},
      {"--trap-size=65527"},
      {"--max-sessions=0"},
      {"--first-session-id=0"},
      {"--fault=slow"},
      {"--verbose=yes"},
      {"--root-secret="},
      {"--bogus"},
      {"aidl"},
      {"--trap-rate=1x"},
      {"--max-clients=99999"},
  };
  for (const auto& args : cases) {
    EXPECT_FALSE(Parse(args)) << args[0];
    EXPECT_FALSE(error_.empty()) << args[0];
  }
  EXPECT_TRUE(Parse({"--trap-size=65526"}));
}

}  // namespace
}  // namespace libtidewatch
