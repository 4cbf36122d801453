// The search for the layout file in the folders that the system properties choose, with the
// properties read from the host property file.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "libtidewatch/platform/log.h"
#include "libtidewatch/trap/frame_decoder.h"
#include "tests/support/log_capture.h"
#include "tests/support/scratch_dir.h"

namespace libtidewatch {
namespace {

class FrameDecoderCacheHostTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(dir_.path().empty());
    setenv("TIDEWATCH_HOST_PROPERTIES", (dir_.path() + "/properties").c_str(), 1);
  }
  void TearDown() override { unsetenv("TIDEWATCH_HOST_PROPERTIES"); }

  void Write(const std::string& name, const std::string& text) {
    EXPECT_TRUE(dir_.Write(name, text)) << name;
  }

  tidewatch_test::LogCapture log_{kLogVerbose};
  tidewatch_test::ScratchDir dir_{"frame_decoder_cache_host_test"};
};

TEST_F(FrameDecoderCacheHostTest, PropertiesChooseTheFolder) {
  struct stat st;
  if (stat("/data/vendor/kelpie", &st) == 0 || stat("/vendor/etc/mddb", &st) == 0) {
    GTEST_SKIP() << "the device folders exist on this host";
  }
  auto opendir = [&](const char* folder) {
    return "E Failed to opendir [" + std::string(folder) +
           "]. err = [No such file or directory](2)";
  };
  const std::vector<std::string> tail = {
      "D Layout file [] was found!", "E Failed to open []. errno = [2] (No such file or directory)",
      "E Failed to load layout description file: []"};
  struct Case {
    const char* properties;
    std::vector<std::string> log;
  } cases[] = {
      {"",
       {opendir("/vendor/etc/mddb"), "E Failed to find layout file in folder [/vendor/etc/mddb]."}},
      {"ro.vendor.vlr_single_bin_modem_support=1\n",
       {opendir("/data/vendor/kelpie/"),
        "E Failed to find layout file in folder [/data/vendor/kelpie/]."}},
      {"ro.vendor.vlr_single_bin_modem_support=10\nro.vendor.vlr_thin_md_twd_channel=0\n",
       {opendir("/vendor/etc/mddb"), "E Failed to find layout file in folder [/vendor/etc/mddb]."}},
      // The thin-modem folder is searched, but the failure still names the usual folder.
      {"ro.vendor.vlr_thin_md_twd_channel=1\n",
       {"I ThinModem project.change path to ThinModem", opendir("/data/vendor/kelpie"),
        "E Failed to find layout file in folder [/vendor/etc/mddb]."}},
      {"ro.vendor.vlr_thin_md_twd_channel=1\nro.vendor.vlr_single_bin_modem_support=1\n",
       {opendir("/data/vendor/kelpie/"),
        "E Failed to find layout file in folder [/data/vendor/kelpie/]."}},
  };
  for (Case& c : cases) {
    SCOPED_TRACE(c.properties);
    Write("properties", c.properties);
    log_.Clear();
    FrameDecoder decoder;
    EXPECT_FALSE(decoder.LoadFromDefaultLocation());
    c.log.insert(c.log.end(), tail.begin(), tail.end());
    EXPECT_EQ(log_.Lines(), c.log);
  }
}

}  // namespace
}  // namespace libtidewatch
