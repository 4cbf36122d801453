#include "libtidewatch/trap/frame_decoder.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "libtidewatch/platform/log.h"
#include "tests/support/log_capture.h"
#include "tests/support/scratch_dir.h"

namespace libtidewatch {
namespace {

// The four offsets every file must define.
constexpr char kMandatory[] =
    "#OTA_INFO\nOTA_TRACE_ID_OFFSET,4,4\nOTA_SIM_IDX_OFFSET,8,1\n"
    "#MSG_INFO\nMSG_ID_OFFSET,4,2\nSIM_IDX_OFFSET,6,1\n";

class FrameDecoderTest : public ::testing::Test {
 protected:
  // The device folders are chosen by system properties, read here from a host property file.
  void SetUp() override {
    ASSERT_FALSE(dir_.path().empty());
    setenv("TIDEWATCH_HOST_PROPERTIES", (dir_.path() + "/properties").c_str(), 1);
  }
  void TearDown() override { unsetenv("TIDEWATCH_HOST_PROPERTIES"); }

  std::string Write(const std::string& name, const std::string& text) {
    EXPECT_TRUE(dir_.Write(name, text)) << name;
    return dir_.path() + "/" + name;
  }
  static std::map<std::string, uint64_t> NamesOf(const FrameDecoder& decoder) {
    const auto& names = decoder.m_globalIDsByName;
    std::map<std::string, uint64_t> copy;
    for (const auto& entry : names) copy.emplace_hint(copy.end(), entry.first, entry.second);
    return copy;
  }
  bool Load(const std::string& text) {
    return decoder_.LoadFromDESC(Write("layout", text).c_str());
  }

  // Keeps the start of each message: some tests log lines of tens of kilobytes.
  tidewatch_test::LogCapture log_{kLogVerbose, 200};
  tidewatch_test::ScratchDir dir_{"frame_decoder_test"};
  FrameDecoder decoder_;
};

TEST_F(FrameDecoderTest, MissingMandatoryOffsetIsNamed) {
  struct Case {
    const char* text;
    const char* missing;
  } cases[] = {
      {"#OTA_INFO\n", "m_otaTraceID"},
      {"#OTA_INFO\nOTA_TRACE_ID_OFFSET,4,4\n", "m_otaSIMIdx"},
      {"#MSG_INFO\nMSG_ID_OFFSET,4,2\nSIM_IDX_OFFSET,6,1\n"
       "#OTA_INFO\nOTA_TRACE_ID_OFFSET,4,4\nOTA_SIM_IDX_OFFSET,8,1\n#MSG_INFO\n",
       nullptr},
      {"#OTA_INFO\nOTA_TRACE_ID_OFFSET,4,4\nOTA_SIM_IDX_OFFSET,8,1\n", "m_msgID"},
      {"#OTA_INFO\nOTA_TRACE_ID_OFFSET,4,4\nOTA_SIM_IDX_OFFSET,8,1\n#MSG_INFO\nMSG_ID_OFFSET,4,2",
       "m_msgSIMIdx"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    FrameDecoder decoder;
    log_.Clear();
    EXPECT_EQ(decoder.LoadFromDESC(Write("layout", c.text).c_str()), c.missing == nullptr);
    if (c.missing != nullptr) {
      EXPECT_EQ(log_.Lines(kLogError),
                std::vector<std::string>{std::string("E ") + c.missing + " wasn't loaded!"});
    }
  }
}

TEST_F(FrameDecoderTest, UnknownSectionsAreSkippedUntilTheNextKnownHeader) {
  ASSERT_TRUE(Load(std::string("A(1)\n") + kMandatory +
                   "#FOO\nnot a line(\n#GLOBAL_ID\nB(2)\n#global_id\nC(3)\n#GLOBAL_ID \r\nD(4)\n"
                   "# GLOBAL_ID\nE(5)\n#GLOBAL_ID\nF(6)\n"));
  std::vector<uint64_t> ids;
  for (const auto& entry : decoder_.m_globalIDs) ids.push_back(entry.first);
  EXPECT_EQ(ids, (std::vector<uint64_t>{2, 6}));
}

TEST_F(FrameDecoderTest, FieldsAreTrimmedAndEmptyOnesDropped) {
  ASSERT_TRUE(Load(
      " \t#OTA_INFO \n OTA_TRACE_ID_OFFSET , 12 ,\t4\t\n\n   \t\n,,,,\nOTA_SIM_IDX_OFFSET,,8,,1,\n"
      "#MSG_INFO\nMSG_ID_OFFSET,4,2\nSIM_IDX_OFFSET,6,1\n"
      "#MSG_EM_ID_MAPPING\n7,,9\n#GLOBAL_ID\n \t NAME ONE(3) \n"));
  EXPECT_EQ(decoder_.m_otaTraceID.offset, 12u);
  EXPECT_EQ(decoder_.m_otaSIMIdx.offset, 8u);
  EXPECT_EQ(decoder_.m_msgEMIDMapping.at(7), 9u);
  EXPECT_EQ(decoder_.m_globalIDs.at(3).name, "NAME ONE");
}

TEST_F(FrameDecoderTest, ManyNamesGiveWhatLineByLineInsertionGives) {
  // The first definition of a name or an id wins, across lines and across two files loaded into
  // one decoder. Long shared prefixes, names that prefix others, bytes above 0x7f, lines across
  // read-buffer boundaries.
  std::mt19937 random(7);
  const std::string prefixes[] = {"", "S", "SHARED_PREFIX_LONGER_THAN_SIXTEEN_",
                                  "SHARED_PREFIX_LONGER_THAN_SIXTEEN_BYTES_"};
  const char alphabet[] = {'A', 'B', '_', '\x80', '\xff'};
  std::map<uint64_t, std::string> ids;
  std::map<std::string, uint64_t> names;
  for (int file = 0; file < 2; ++file) {
    std::string text = std::string(kMandatory) + "#GLOBAL_ID\n";
    for (int line = 0; line < 3000; ++line) {
      std::string name = prefixes[random() % 4];
      for (size_t n = random() % 4; n > 0; --n) name += alphabet[random() % 5];
      uint64_t id = random() % 4000 + 1;
      text += name + "(" + std::to_string(id) + ")\n";
      ids.emplace(id, name);
      names.emplace(name, id);
    }
    // Each file adds a field to the same message, after those it has.
    text += "#MSG_INFO\nM(10),F" + std::to_string(file) + ",1,2\n";
    ASSERT_TRUE(Load(text));
    // Names are sorted when first read; the second file's then join those already sorted.
    if (file == 0) {
      EXPECT_EQ(NamesOf(decoder_), names);
    }
  }
  // The first reads may come from several threads at once.
  std::vector<std::thread> readers;
  for (int i = 0; i < 4; ++i) {
    readers.emplace_back([&] { EXPECT_EQ(decoder_.m_msgIDsByName.at("M"), 10u); });
  }
  for (std::thread& reader : readers) reader.join();
  const auto& fields = decoder_.m_msgs.at(10).fields;
  ASSERT_EQ(fields.size(), 2u);
  EXPECT_EQ(fields.at("F0").order, 0u);
  EXPECT_EQ(fields.at("F1").order, 1u);
  EXPECT_EQ(NamesOf(decoder_), names);
  ASSERT_EQ(decoder_.m_globalIDs.size(), ids.size());
  for (const auto& id : ids)
    EXPECT_EQ(decoder_.m_globalIDs.at(id.first).name, std::string_view(id.second));
}

TEST_F(FrameDecoderTest, AFailingLineKeepsWhatCameBefore) {
  EXPECT_FALSE(Load(std::string(kMandatory) + "#GLOBAL_ID\nKEPT(1)\nBROKEN(1x)\nLATER(2)\n"));
  EXPECT_EQ(log_.Lines().back(), "E Failed to collect information [BROKEN(1x)]");
  EXPECT_EQ(NamesOf(decoder_), (std::map<std::string, uint64_t>{{"KEPT", 1}}));
  EXPECT_EQ(decoder_.m_globalIDs.count(2), 0u);
}

TEST_F(FrameDecoderTest, HostileContentNeverCrashes) {
  std::string longName(40000, 'N');
  std::string nestedNames = "#GLOBAL_ID\n";
  for (int k = 1; k <= 300; ++k) nestedNames += std::string(k * 100, 'A') + "(7)\n";
  struct Case {
    const char* what;
    std::string body;
    bool result;
  } cases[] = {
      {"NUL ends the line", std::string("#GLOBAL_ID\nA(1)\0garbage\nB(2)\n", 29), true},
      {"NUL alone", std::string("\0\0\0\n#GLOBAL_ID\n\0\n", 17), true},
      {"line cut at the buffer size", "#GLOBAL_ID\n" + longName + "(5)\n", false},
      {"long line in an unknown section", "#X" + longName + "\n" + longName + "\n", true},
      {"names nested in each other", nestedNames, true},
      {"eleven fields", "#MSG_EM_ID_MAPPING\n1,2,3,4,5,6,7,8,9,10,11\n", false},
      {"SIM line of many fields", "#SIM2_INFO\n7,1,2,3,4,5,6,7,8,9,10,11,12\n", true},
      {"huge number", "#SIM2_INFO\n99999999999999999999999999999999999999\n", false},
      {"unmatched brackets", "#GLOBAL_ID\n((((\n", false},
      {"only a header mark", "#\n#GLOBAL_ID\nA(1)\n", true},
      {"no final newline", "#TIME_INFO\nTIMESTAMP_PRECISION(7)", true},
      {"carriage return stays in the last field", "#OTA_INFO\nOTA_SIM_IDX_OFFSET,8,1\r\n", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    FrameDecoder decoder;
    EXPECT_EQ(decoder.LoadFromDESC(Write("layout", kMandatory + c.body).c_str()), c.result);
  }
}

TEST_F(FrameDecoderTest, AHundredMegabyteLineIsCutNotRead) {
  std::string path = Write("huge", std::string(kMandatory) + "#SIM2_INFO\n7,");
  FILE* fp = fopen(path.c_str(), "ab");
  ASSERT_NE(fp, nullptr);
  std::string chunk(1 << 20, 'x');
  for (int i = 0; i < 100; ++i) fwrite(chunk.data(), 1, chunk.size(), fp);
  fputs("\n8\n", fp);
  fclose(fp);
  ASSERT_TRUE(decoder_.LoadFromDESC(path.c_str()));
  const auto& sim2 = decoder_.m_simMsgSets.at(2);
  EXPECT_EQ(std::set<uint64_t>(sim2.begin(), sim2.end()), (std::set<uint64_t>{7, 8}));
}

TEST_F(FrameDecoderTest, UnreadableFiles) {
  EXPECT_FALSE(decoder_.LoadFromDESC(nullptr));
  EXPECT_FALSE(decoder_.LoadFromDESC((dir_.path() + "/absent").c_str()));
  EXPECT_EQ(log_.Lines(kLogError).size(), 2u);
}

TEST_F(FrameDecoderTest, NamesComeOnlyFromGlobalIDsAndMessages) {
  ASSERT_TRUE(Load(std::string(kMandatory) +
                   "#OTA_INFO\nTRACE(5),OTA_MSG_OFFSET,1\n#GLOBAL_ID\nRRC_SETUP(7)\n"
                   "#IP_PACKET_INFO_TRACE_ID\nUPLINK(8)\n#MSG_INFO\nEM_CELL(9),PCI,1,2\n"
                   "#PEER_INFO\nEM_PEER(10),PEER_OFFSET,3\n"));
  // Neither traces nor IP trace ids name a message; an unknown type names nothing.
  struct Case {
    TRAP_TYPE type;
    unsigned long id;
    const char* name;
  } cases[] = {
      {TRAP_TYPE_OTA, 7, "RRC_SETUP"},
      {TRAP_TYPE_EM, 9, "EM_CELL"},
      {TRAP_TYPE_EM, 10, "EM_PEER"},
      {TRAP_TYPE_OTA, 5, nullptr},
      {TRAP_TYPE_OTA, 8, nullptr},
      {TRAP_TYPE_EM, 7, nullptr},
      {TRAP_TYPE_VOLTE, 9, nullptr},
      {TRAP_TYPE_NONE, 7, nullptr},
      {static_cast<TRAP_TYPE>(0xffff), 7, nullptr},
  };
  for (const Case& c : cases) {
    EXPECT_STREQ(decoder_.GetMsgString(c.type, c.id), c.name) << c.type << "/" << c.id;
  }
}

TEST_F(FrameDecoderTest, SearchLayoutFileMatchesPrefixAndExtension) {
  struct Case {
    const char* name;
    bool found;
  } cases[] = {
      {"twd_layout_desc.dat", true},      {"twd_layout_desc_v2.x.dat", true},
      {"twd_layout_desc.dat.bak", false}, {"twd_layout_desc.DAT", false},
      {"twd_layout_desc.data", false},    {"xtwd_layout_desc.dat", false},
      {"twd_layout_des.dat", false},      {"twd_layout_desc", false},
  };
  char buffer[FrameDecoder::kLayoutPathSize];
  for (const Case& c : cases) {
    std::string path = Write(c.name, "");
    buffer[0] = '\0';
    EXPECT_EQ(FrameDecoder::SearchLayoutFile(dir_.path().c_str(), buffer, sizeof(buffer)), c.found)
        << c.name;
    EXPECT_EQ(buffer, c.found ? path : "");
    unlink(path.c_str());
  }
  EXPECT_FALSE(FrameDecoder::SearchLayoutFile(dir_.path().c_str(), nullptr, 4096));
  EXPECT_FALSE(
      FrameDecoder::SearchLayoutFile((dir_.path() + "/none").c_str(), buffer, sizeof(buffer)));
}

// GetInstance: one decoder per key, shared by every caller. The cache lives as long as the process,
// so every test uses paths of its own.
TEST_F(FrameDecoderTest, OneDecoderPerKeyFailuresIncluded) {
  FrameDecoder* none = FrameDecoder::GetInstance(nullptr);
  ASSERT_NE(none, nullptr);
  EXPECT_EQ(FrameDecoder::GetInstance(nullptr), none);
  EXPECT_EQ(FrameDecoder::GetInstance("NULL"), none);  // the key of a null path

  std::string good = Write("good.dat", std::string(kMandatory) + "#GLOBAL_ID\nRRC_SETUP(7)\n");
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
  Write("late.dat", std::string(kMandatory) + "#GLOBAL_ID\nRRC_SETUP(7)\n");
  EXPECT_EQ(FrameDecoder::GetInstance(late.c_str()), failed);
  EXPECT_EQ(failed->GetMsgString(TRAP_TYPE_OTA, 7), nullptr);
  EXPECT_EQ(log_.Count("D LayoutDescPath = [" + late + "]"), 1u);
}

TEST_F(FrameDecoderTest, ConcurrentCallersShareOneLoadPerKey) {
  std::vector<std::string> keys = {dir_.path() + "/missing.dat"};
  for (int i = 0; i < 4; ++i) keys.push_back(Write("threads" + std::to_string(i), kMandatory));
  std::vector<std::vector<FrameDecoder*>> seen(8);
  std::vector<std::thread> threads;
  for (auto& mine : seen) {
    threads.emplace_back([&keys, &mine] {
      for (const std::string& key : keys) mine.push_back(FrameDecoder::GetInstance(key.c_str()));
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (const auto& mine : seen) EXPECT_EQ(mine, seen[0]);
  for (const std::string& key : keys) {
    EXPECT_EQ(log_.Count("D LayoutDescPath = [" + key + "]"), 1u) << key;
  }
}

TEST_F(FrameDecoderTest, PropertiesChooseTheFolder) {
  struct stat st;
  if (stat("/data/vendor/kelpie", &st) == 0 || stat("/vendor/etc/mddb", &st) == 0) {
    GTEST_SKIP() << "the device folders exist on this host";
  }
  const std::string kSingle = "ro.vendor.vlr_single_bin_modem_support=",
                    kThin = "ro.vendor.vlr_thin_md_twd_channel=";
  // The thin-modem folder is searched, but the failure still names the usual folder.
  struct Case {
    std::string properties;
    const char* searched;
    const char* named;
  } cases[] = {
      {"", "/vendor/etc/mddb", "/vendor/etc/mddb"},
      {kSingle + "1\n", "/data/vendor/kelpie/", "/data/vendor/kelpie/"},
      {kSingle + "10\n" + kThin + "0\n", "/vendor/etc/mddb", "/vendor/etc/mddb"},
      {kThin + "1\n", "/data/vendor/kelpie", "/vendor/etc/mddb"},
      {kThin + "1\n" + kSingle + "1\n", "/data/vendor/kelpie/", "/data/vendor/kelpie/"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.properties);
    Write("properties", c.properties);
    log_.Clear();
    FrameDecoder decoder;
    EXPECT_FALSE(decoder.LoadFromDefaultLocation());
    std::vector<std::string> want = {
        "E Failed to opendir [" + std::string(c.searched) +
            "]. err = [No such file or directory](2)",
        "E Failed to find layout file in folder [" + std::string(c.named) + "].",
        "D Layout file [] was found!",
        "E Failed to open []. errno = [2] (No such file or directory)",
        "E Failed to load layout description file: []"};
    if (std::string(c.searched) == "/data/vendor/kelpie") {
      want.insert(want.begin(), "I ThinModem project.change path to ThinModem");
    }
    EXPECT_EQ(log_.Lines(), want);
  }
}

}  // namespace
}  // namespace libtidewatch
