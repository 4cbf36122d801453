#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <string>
#include <thread>
#include <vector>

#include "libtidewatch/platform/log.h"
#include "libtidewatch/trap/frame_decoder.h"
#include "tests/support/log_capture.h"
#include "tests/support/scratch_dir.h"

namespace libtidewatch {
namespace {

// GetInstance: one decoder per key, shared by every caller. The cache lives as long as the process,
// so every test uses paths of its own. The device folders are chosen by system properties, read
// here from a host property file.
class FrameDecoderCacheTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(dir_.path().empty());
    setenv("TIDEWATCH_HOST_PROPERTIES", (dir_.path() + "/properties").c_str(), 1);
  }
  void TearDown() override { unsetenv("TIDEWATCH_HOST_PROPERTIES"); }

  std::string Write(const std::string& name, const std::string& text) {
    EXPECT_TRUE(dir_.Write(name, text)) << name;
    return dir_.path() + "/" + name;
  }
  std::string WriteLayout(const std::string& name, const std::string& globalIDs) {
    return Write(name,
                 "#OTA_INFO\nOTA_TRACE_ID_OFFSET,4,4\nOTA_SIM_IDX_OFFSET,8,1\n"
                 "#MSG_INFO\nMSG_ID_OFFSET,4,2\nSIM_IDX_OFFSET,6,1\n#GLOBAL_ID\n" +
                     globalIDs);
  }

  tidewatch_test::LogCapture log_{kLogVerbose};
  tidewatch_test::ScratchDir dir_{"frame_decoder_cache_test"};
};

TEST_F(FrameDecoderCacheTest, OneDecoderPerKeyFailuresIncluded) {
  FrameDecoder* none = FrameDecoder::GetInstance(nullptr);
  ASSERT_NE(none, nullptr);
  EXPECT_EQ(FrameDecoder::GetInstance(nullptr), none);
  EXPECT_EQ(FrameDecoder::GetInstance("NULL"), none);  // the key of a null path

  std::string good = WriteLayout("good.dat", "RRC_SETUP(7)\n");
  FrameDecoder* loaded = FrameDecoder::GetInstance(good.c_str());
  EXPECT_NE(loaded, none);
  EXPECT_EQ(FrameDecoder::GetInstance(good.c_str()), loaded);
  EXPECT_STREQ(loaded->GetMsgString(TRAP_TYPE_OTA, 7), "RRC_SETUP");
  EXPECT_EQ(log_.Count("D LayoutDescPath = [" + good + "]"), 1u);

  // A failed load is cached: the file appearing later does not make the same key load it.
  std::string late = dir_.path() + "/late.dat";
  FrameDecoder* failed = FrameDecoder::GetInstance(late.c_str());
  ASSERT_NE(failed, nullptr);
  EXPECT_EQ(log_.Count("E Failed to load layout description file: [" + late + "]"), 1u);
  WriteLayout("late.dat", "RRC_SETUP(7)\n");
  EXPECT_EQ(FrameDecoder::GetInstance(late.c_str()), failed);
  EXPECT_EQ(failed->GetMsgString(TRAP_TYPE_OTA, 7), nullptr);
  EXPECT_EQ(log_.Count("D LayoutDescPath = [" + late + "]"), 1u);
}

TEST_F(FrameDecoderCacheTest, ConcurrentCallersShareOneLoadPerKey) {
  std::vector<std::string> keys;
  for (int i = 0; i < 4; ++i) {
    keys.push_back(WriteLayout("threads" + std::to_string(i) + ".dat",
                               "NAME" + std::to_string(i) + "(" + std::to_string(i) + ")\n"));
  }
  keys.push_back(dir_.path() + "/missing.dat");
  constexpr int kThreads = 8;
  std::vector<std::vector<FrameDecoder*>> seen(kThreads, std::vector<FrameDecoder*>(keys.size()));
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      // Each thread walks the keys from a different start, several times.
      for (size_t n = 0; n < 3 * keys.size(); ++n) {
        size_t k = (t + n) % keys.size();
        FrameDecoder* decoder = FrameDecoder::GetInstance(keys[k].c_str());
        if (seen[t][k] == nullptr) seen[t][k] = decoder;
        EXPECT_EQ(seen[t][k], decoder);
        if (k < 4) {
          EXPECT_NE(decoder->GetMsgString(TRAP_TYPE_OTA, k), nullptr);
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (size_t k = 0; k < keys.size(); ++k) {
    for (int t = 1; t < kThreads; ++t) EXPECT_EQ(seen[t][k], seen[0][k]) << keys[k];
    EXPECT_EQ(log_.Count("D LayoutDescPath = [" + keys[k] + "]"), 1u) << keys[k];
  }
}

TEST_F(FrameDecoderCacheTest, PropertiesChooseTheFolder) {
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
