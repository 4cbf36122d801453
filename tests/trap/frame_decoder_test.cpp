// The layout file decoder (its line collectors and process-wide cache), the trap decoder that
// reads traps by a layout, and the arena its results live in.
#include "libtidewatch/trap/frame_decoder.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "libtidewatch/platform/log.h"
#include "libtidewatch/trap/decoder_arena.h"
#include "libtidewatch/trap/trap_decoder.h"
#include "tests/support/log_capture.h"
#include "tests/support/sample_traps.h"
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

TEST_F(FrameDecoderTest, HostileOrMissingContentNeverCrashes) {
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
  EXPECT_FALSE(decoder_.LoadFromDESC(nullptr));
  EXPECT_FALSE(decoder_.LoadFromDESC((dir_.path() + "/absent").c_str()));
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
      {TRAP_TYPE_OTA, 7, "RRC_SETUP"}, {TRAP_TYPE_EM, 9, "EM_CELL"},
      {TRAP_TYPE_EM, 10, "EM_PEER"},   {TRAP_TYPE_OTA, 5, nullptr},
      {TRAP_TYPE_OTA, 8, nullptr},     {TRAP_TYPE_EM, 7, nullptr},
      {TRAP_TYPE_VOLTE, 9, nullptr},   {static_cast<TRAP_TYPE>(0xffff), 7, nullptr},
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
  EXPECT_STREQ(loaded->GetMsgString(TRAP_TYPE_OTA, 7), "RRC_SETUP");

  // A failed load is cached: the file appearing later does not make the same key load it.
  std::string late = dir_.path() + "/late.dat";
  FrameDecoder* failed = FrameDecoder::GetInstance(late.c_str());
  ASSERT_NE(failed, nullptr);
  Write("late.dat", std::string(kMandatory) + "#GLOBAL_ID\nRRC_SETUP(7)\n");
  EXPECT_EQ(FrameDecoder::GetInstance(late.c_str()), failed);
  EXPECT_EQ(failed->GetMsgString(TRAP_TYPE_OTA, 7), nullptr);
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

#ifndef __ANDROID__  // host only: the properties come from the host property file
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
#endif

using Decoder = FrameDecoder;

// Each case hands one line's fields to a collector on a fresh decoder and compares the result,
// the errors logged and a compact dump of everything the decoder holds, so that a line that
// writes a member it should not shows up too.
class FrameDecoderCollectorsTest : public ::testing::Test {
 protected:
  struct Case {
    Decoder::Collector collector;
    std::string fields;  // joined by ","; empty: no fields
    bool result = true;
    std::string dump{};   // Dump() of the decoder afterwards
    std::string error{};  // the error lines logged, joined by "|"
    uintptr_t user = 0;
  };

  static void Info(std::ostream& out, std::string_view name, const Decoder::FIELD_INFO& info) {
    if (info.loaded || info.offset != 0 || info.size != 0) {
      out << name << ":" << info.offset << "+" << info.size << (info.loaded ? " " : "! ");
    }
  }
  static void Number(std::ostream& out, const std::string& name, const Decoder::OptionalNumber& n) {
    if (n.set) out << name << ":" << n.value << " ";
  }
  // A message's or trace's fields in the order the file first defined them.
  static void Fields(std::ostream& out, const Decoder::FieldMap& fields) {
    for (size_t order = 0; order < fields.size(); ++order) {
      for (const auto& f : fields) {
        if (f.second.order == order) Info(out, f.first, f.second);
      }
    }
  }
  static std::string Dump(const Decoder& d) {
    std::ostringstream out;
    Info(out, "traceID", d.m_otaTraceID);
    Info(out, "otaSIM", d.m_otaSIMIdx);
    Info(out, "msgID", d.m_msgID);
    Info(out, "msgSIM", d.m_msgSIMIdx);
    Info(out, "peerSize", d.m_peerSize);
    Number(out, "peerHeader", d.m_peerHeaderSize);
    for (const auto& t : d.m_otaTraces) {
      out << "trace" << t.first << ":" << t.second.name << "@" << t.second.msgOffset << " ";
      Fields(out, t.second.fields);
    }
    for (const auto& g : d.m_globalIDs) out << "global" << g.first << ":" << g.second.name << " ";
    for (const auto& m : d.m_msgs) {
      out << "msg" << m.first << ":" << m.second.name << "/" << m.second.peerOffset << " ";
      Fields(out, m.second.fields);
    }
    for (const auto& i : d.m_ipTraceIDs) out << "ip" << i.first << ":" << i.second.name << " ";
    for (const auto* names :
         {&d.m_otaTraceIDsByName, &d.m_globalIDsByName, &d.m_msgIDsByName, &d.m_ipTraceIDsByName}) {
      for (const auto& n : *names) out << n.first << "=" << n.second << " ";
    }
    for (const auto& e : d.m_msgEMIDMapping) out << "em" << e.first << ":" << e.second << " ";
    if (!d.m_simMsgSets.empty()) out << "sims:" << d.m_simMsgSets.size() << " ";
    for (size_t s = 0; s < d.m_simMsgSets.size(); ++s) {
      for (uint64_t id : d.m_simMsgSets[s]) out << "sim" << s << ":" << id << " ";
    }
    const auto& filter = d.m_modemEMFilterInfo;
    Number(out, "filterLength", filter.emFilterFieldLength);
    Number(out, "filterTotal", filter.emFilterTotalEMNumber);
    for (int i = 0; i < 4; ++i) Number(out, "filter" + std::to_string(i), filter.emFilterOffset[i]);
    const auto& v = d.m_protocolVersions;
    for (auto [layer, version] : {std::pair{"MAC", &v.mac},
                                  {"PDCP", &v.pdcp},
                                  {"RLC", &v.rlc},
                                  {"NAS", &v.nas},
                                  {"RRC", &v.rrc}}) {
      Number(out, layer + std::string(".major"), version->major);
      Number(out, layer + std::string(".minor"), version->minor);
      Number(out, layer + std::string(".release"), version->release);
    }
    Number(out, "precision", d.m_modemTimeInfo.timeStampPrecision);
    std::string text = out.str();
    if (!text.empty()) text.pop_back();
    return text;
  }

  // `before` runs first on the same decoder, for cases about a line meeting earlier ones.
  void Run(const std::vector<Case>& cases, const std::vector<Case>& before = {}) {
    for (const Case& c : cases) {
      SCOPED_TRACE(c.fields);
      Decoder decoder;
      for (const Case& b : before) ASSERT_TRUE(Call(b, decoder));
      log_.Clear();
      EXPECT_EQ(Call(c, decoder), c.result);
      std::string errors;
      for (const std::string& e : log_.Lines()) errors += (errors.empty() ? "" : "|") + e.substr(2);
      EXPECT_EQ(errors, c.error);
      EXPECT_EQ(Dump(decoder), c.dump);
    }
  }
  static bool Call(const Case& line, Decoder& decoder) {
    // Collectors cut fields in place, so they get writable copies.
    std::vector<std::vector<char>> storage;
    std::stringstream in(line.fields);
    for (std::string f; std::getline(in, f, ',');) storage.emplace_back(f.begin(), f.end() + 1);
    std::vector<char*> fields;
    for (auto& f : storage) fields.push_back(f.data());
    return line.collector(fields.empty() ? nullptr : fields.data(), fields.size(), &decoder,
                          line.user);
  }

  tidewatch_test::LogCapture log_{kLogError};
};

constexpr auto kOTA = &Decoder::OTAInfoCollector;
constexpr auto kGlobal = &Decoder::GlobalIDCollector;
constexpr auto kMsg = &Decoder::MsgInfoCollector;
constexpr auto kPeer = &Decoder::PeerInfoCollector;
constexpr auto kNoHeader = &Decoder::PeerInfoWithoutHeaderCollector;
constexpr auto kFilter = &Decoder::EMFilterInfoCollector;
constexpr auto kTime = &Decoder::TimeInfoCollector;
// The error of a number field that does not convert.
std::string Bad(const std::string& text) { return "Failed to convert [" + text + "] to uint64_t."; }
std::string Empty(const std::string& collector) {
  return collector + " failed. Field count [0] == 0";
}

TEST_F(FrameDecoderCollectorsTest, OffsetLines) {
  Run({
      {kOTA, "OTA_TRACE_ID_OFFSET,0,4", true, "traceID:0+4", "strtoull return 0 [0] to uint64_t."},
      {kOTA, "OTA_SIM_IDX_OFFSET,5,1", true, "otaSIM:5+1"},
      {kOTA, "OTA_TRACE_ID_OFFSET,1", false, ""},
      {kMsg, "MSG_ID_OFFSET,8,2", true, "msgID:8+2"},
      {kMsg, "SIM_IDX_OFFSET,2,1", true, "msgSIM:2+1"},
      {kMsg, "MSG_ID_OFFSET,8", false, ""},
      {kPeer, "MSG_PEERSIZE_OFFSET,6,2", true, "peerSize:6+2"},
      {kMsg, "SIM_IDX_OFFSET,2,1x", false, "", Bad("1x")},
  });
}

TEST_F(FrameDecoderCollectorsTest, NumbersAndNames) {
  const std::string kMax = "18446744073709551614";
  Run({
      {kGlobal, "A(1)", true, "global1:A A=1"},
      {kGlobal, "A(7)tail", true, "global7:A A=7"},
      {kGlobal, "A(" + kMax + ")", true, "global" + kMax + ":A A=" + kMax},
      {kGlobal, "A(-2)", true, "global" + kMax + ":A A=" + kMax},
      {kGlobal, "A(18446744073709551615)", false, "", Bad("18446744073709551615")},
      {kGlobal, "A(123456789012345678901234)", false, "", Bad("123456789012345678901234")},
      {kGlobal, "FOO(1x)", false, "", Bad("1x")},
      {kGlobal, "A(1", false, ""},
      {kGlobal, "A)1(", false, ""},
      {kGlobal, "A(1),B(2)", false, ""},
      {&Decoder::IPInfoTraceIDCollector, "UP(3)", true, "ip3:UP UP=3"},
  });
}

TEST_F(FrameDecoderCollectorsTest, TraceAndMessageLines) {
  Run({
      {kOTA, "T(5),OTA_MSG_OFFSET,12,9", true, "trace5:T@12 T=5"},
      {kOTA, "T(5),LEN,3,2", true, "trace5:T@0 LEN:3+2 T=5"},
      // Three fields that are not OTA_MSG_OFFSET lack the size; the offset stays written.
      {kOTA, "T(5),LEN,3", false, "trace5:T@0 LEN:3+0!", Bad("")},
      {kOTA, "T(5),LEN,3,2x", false, "trace5:T@0 LEN:3+0!", Bad("2x")},
      {kOTA, "T5,OTA_MSG_OFFSET,1", false, ""},
      {kOTA, "T(5),LEN,3,2,1", false, ""},
      {kMsg, "FOO(12),BAR,1,2", true, "msg12:FOO/0 BAR:1+2 FOO=12"},
      {kMsg, "FOO(12),BAR,1", false, ""},
  });
  // Another name for message 12 keeps the first one but still sets the field.
  Run({{kMsg, "OTHER(12),BAR,5,6", true, "msg12:FOO/0 BAR:5+6 FOO=12"},
       {kMsg, "FOO(13),BAZ,5,6", true, "msg12:FOO/0 BAR:1+2 msg13:FOO/0 BAZ:5+6 FOO=12"}},
      {{kMsg, "FOO(12),BAR,1,2"}});
  // Fields list in the order of their first definition, not of their names.
  const std::string kMsg12 = "msg12:FOO/0 BAR:5+6";
  Run({{kMsg, "FOO(12),ABC,3,4", true, "trace5:T@0 ZED:1+1 " + kMsg12 + " ABC:3+4 T=5 FOO=12"},
       {kOTA, "T(5),ABC,3,4", true, "trace5:T@0 ZED:1+1 ABC:3+4 " + kMsg12 + " T=5 FOO=12"}},
      {{kMsg, "FOO(12),BAR,1,2"}, {kOTA, "T(5),ZED,1,1"}, {kMsg, "FOO(12),BAR,5,6"}});
}

TEST_F(FrameDecoderCollectorsTest, SIMAndMappingLines) {
  constexpr auto kSIM = &Decoder::SIMInfoCollector;
  constexpr auto kMap = &Decoder::MsgEMIDMappingCollector;
  Run({
      {kSIM, "7,99", true, "sims:4 sim3:7", "", 3},
      {kSIM, "x", false, "sims:3", Bad("x"), 2},
      {kSIM, "7", false, ""},
      {kMap, "5,6", true, "em5:6"},
      {kMap, "5", false, "", "MsgEMIDMappingCollector failed. Field count [1] != 2"},
  });
  Run({{kMap, "5,7", true, "em5:6"}}, {{kMap, "5,6"}});
}

TEST_F(FrameDecoderCollectorsTest, PeerLines) {
  Run({
      {kPeer, "", false, "", Empty("PeerInfoCollector")},
      {kPeer, "MSG_PEER_HEADER_SIZE,8", true, "peerHeader:8"},
      {kPeer, "MSG_PEER_HEADER_SIZE,8,9", false, ""},
      {kPeer, "X,Y"},
      {kPeer, "ABC(5),PEER_OFFSET,-7", true, "msg5:ABC/-7 ABC=5"},
      {kPeer, "ABC(5),PEER_OFFSET,zz", true, "msg5:ABC/0 ABC=5"},
      {kPeer, "ABC(5),OTHER,3", true, "msg5:ABC/0 ABC=5"},
      {kPeer, "ABC,PEER_OFFSET,1", false, ""},
      {kNoHeader, "", false, "", Empty("PeerInfoWithoutHeaderCollector")},
      {kNoHeader, "MSG_PEER_HEADER_SIZE,8"},
      {kNoHeader, "ABC(5),PEER_OFFSET,12", true, "msg5:ABC/12 ABC=5"},
  });
}

TEST_F(FrameDecoderCollectorsTest, EMFilterAndTimeLines) {
  Run({
      {kFilter, "EM_UPDATE_INFO_STATUS_SIZE,4", true, "filterLength:4"},
      {kFilter, "EM_UPDATE_INFO_REQ_OFFSET_1,16", true, "filter0:16"},
      {kFilter, "EM_UPDATE_INFO_REQ_OFFSET_2,32", true, "filter1:32"},
      {kFilter, "EM_UPDATE_INFO_REQ_OFFSET_3,48", true, "filter2:48"},
      {kFilter, "EM_UPDATE_INFO_REQ_OFFSET_4,64", true, "filter3:64"},
      {kFilter, "EM_UPDATE_INFO_REQ_ARRAY_NUM,9", true, "filterTotal:9"},
      {kFilter, "EM_UPDATE_INFO_REQ_OFFSET_2"},
      {kFilter, "EM_SOMETHING,1"},
      {kFilter, "EM_UPDATE_INFO_STATUS_SIZE,4k", false, "", Bad("4k")},
      {kFilter, "", false, "", Empty("EMFilterInfoCollector")},
      {kTime, "TIMESTAMP_PRECISION(1000)", true, "precision:1000"},
      {kTime, "TIMESTAMP_PRECISIONX(3)", true, "precision:3"},
      {kTime, "TIMESTAMP_PRECISION", false, ""},
      {kTime, "CLOCK(1)"},
      {kTime, "TIMESTAMP_PRECISION(1),ms"},
      {kTime, "", false, "", Empty("TimeInfoCollector")},
  });
}

// Every layer and part lands in its own member.
TEST_F(FrameDecoderCollectorsTest, ProtocolVersionLines) {
  constexpr auto kVersion = &Decoder::ProtocolVersionInfoCollector;
  std::vector<Case> cases;
  uint64_t value = 1;
  const std::pair<const char*, const char*> layers[] = {
      {"EMAC", "MAC"}, {"EPDCP", "PDCP"}, {"ERLC", "RLC"}, {"NAS", "NAS"}, {"RRC", "RRC"}};
  for (auto [key, layer] : layers) {
    for (auto [part, upper] :
         {std::pair{"major", "MAJOR"}, {"minor", "MINOR"}, {"release", "RELEASE"}}) {
      std::string v = std::to_string(value++);
      std::string line = std::string(key) + "_" + upper + "_VERSION(" + v + ")";
      cases.push_back({kVersion, line, true, std::string(layer) + "." + part + ":" + v});
    }
  }
  cases.push_back({kVersion, "GSM_MAJOR_VERSION(3)"});
  cases.push_back({kVersion, "NAS_MAJOR_VERSION(x)", false, "", Bad("x")});
  cases.push_back({kVersion, "NAS_MAJOR_VERSION", false, ""});
  cases.push_back({kVersion, "NAS_MAJOR_VERSION(1),x", false, ""});
  Run(cases);
}

using tidewatch_test::Hex;
using tidewatch_test::Render;

// OTA: trace id at 0, SIM at 1, then the trace's GLOBAL_ID, PDU_LENGTH and PDU. EM: id at 0, SIM
// at 2, fields listed out of offset order; message 8's peers follow a 2-byte header, message 9's
// start at the peer offset itself.
constexpr char kLayout[] =
    "#OTA_INFO\nOTA_TRACE_ID_OFFSET,0,1\nOTA_SIM_IDX_OFFSET,1,1\n"
    "OTA_TRACE_RRC(1),OTA_MSG_OFFSET,6\nOTA_TRACE_RRC(1),GLOBAL_ID,2,2\n"
    "OTA_TRACE_RRC(1),PDU_LENGTH,4,2\n"
    "#GLOBAL_ID\nRRC_MIB(1000)\n"
    "#MSG_INFO\nMSG_ID_OFFSET,0,2\nSIM_IDX_OFFSET,2,1\n"
    "EM_CELL(7),RSRP,5,2\nEM_CELL(7),PCI,3,2\nEM_CELL(7),WIDE,7,8\nEM_CELL(7),ZERO,3,0\n"
    "EM_CELL(7),NINE,3,9\nEM_CELL(7),FAR,18446744073709551614,2\n"
    "#PEER_INFO\nMSG_PEERSIZE_OFFSET,3,1\nMSG_PEER_HEADER_SIZE,2\nEM_NB(8),PEER_OFFSET,4\n"
    "#PEER_INFO_WITHOUT_HEADER\nEM_LIST(9),PEER_OFFSET,4\n";

// Hex digits with blanks between groups; 'h' stands for a zero byte of a peer header.
std::vector<uint8_t> Bytes(std::string hex) {
  hex.erase(std::remove(hex.begin(), hex.end(), ' '), hex.end());
  std::replace(hex.begin(), hex.end(), 'h', '0');
  std::vector<uint8_t> out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    out.push_back(static_cast<uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
  }
  return out;
}

TEST(TrapDecoderTest, DecodesByTheLayout) {
  SetLogThreshold(kLogError);  // the layout's 0 offsets are logged on purpose
  tidewatch_test::ScratchDir dir("trap_decoder_test");
  FrameDecoder layout;
  ASSERT_TRUE(dir.Write("layout", kLayout));
  ASSERT_TRUE(layout.LoadFromDESC((dir.path() + "/layout").c_str()));
  const TrapDecoder decoder(layout);
  struct Case {
    TRAP_TYPE type;
    const char* payload;
    const char* decoded;  // Render of the result, without the payload
  } cases[] = {
      {TRAP_TYPE_OTA, "01 02 e803 0300 aabbcc",
       "trace=1:OTA_TRACE_RRC sim=2 msg=1000:RRC_MIB len=3 pdu=aabbcc"},
      // A PDU longer than what arrived is cut to the payload and said so.
      {TRAP_TYPE_OTA, "01 00 e803 0500 aabbcc",
       "trace=1:OTA_TRACE_RRC sim=0 msg=1000:RRC_MIB len=5 pdu=aabbcc cut"},
      // Unknown trace: its fields cannot be found. Unknown global id: no name, the rest as usual.
      {TRAP_TYPE_OTA, "05 01 e803 0100 aa", "trace=5 sim=1 msg=- len=- pdu=-"},
      {TRAP_TYPE_OTA, "01 01 e903 0000", "trace=1:OTA_TRACE_RRC sim=1 msg=1001 len=0 pdu="},
      // A field past the end is absent, whether it is cut or missing entirely.
      {TRAP_TYPE_OTA, "01 01 e8", "trace=1:OTA_TRACE_RRC sim=1 msg=- len=- pdu=-"},
      {TRAP_TYPE_OTA, "", "trace=- sim=- msg=- len=- pdu=-"},
      // Widths 0 and 9 (ZERO, NINE) and an offset near 2^64 (FAR) are never read.
      {TRAP_TYPE_EM, "0700 01 2a00 9cff 0102030405060708",
       "msg=7:EM_CELL sim=1 RSRP=65436 PCI=42 WIDE=578437695752307201"},
      {TRAP_TYPE_EM, "0700 01 2a00 9cff 01020304050607", "msg=7:EM_CELL sim=1 RSRP=65436 PCI=42"},
      {TRAP_TYPE_EM, "6300 01 2a00", "msg=99 sim=1"},
      {TRAP_TYPE_EM, "07", "msg=- sim=-"},
      // Peer count larger than the peer bytes: both are given as they are.
      {TRAP_TYPE_EM, "0800 00 05 hhhh aabb", "msg=8:EM_NB sim=0 peers=5/aabb"},
      {TRAP_TYPE_EM, "0800 00 05 hh", "msg=8:EM_NB sim=0 peers=5/-"},
      {TRAP_TYPE_EM, "0900 00 02 aabb", "msg=9:EM_LIST sim=0 peers=2/aabb"},
      {TRAP_TYPE_EM, "0900 00", "msg=9:EM_LIST sim=0"},
      {TRAP_TYPE_VOLTE, "0700 01 2a00", "type=4"},
  };
  DecodedTrap out;  // reused, as a capture does: nothing of one trap may stay for the next
  for (const Case& c : cases) {
    std::vector<uint8_t> payload = Bytes(c.payload);
    decoder.Decode(c.type, payload.data(), payload.size(), &out);
    EXPECT_EQ(Render(out),
              std::string(c.decoded) + " payload=" + Hex(payload.data(), payload.size()))
        << c.payload;
  }
}

// Mixed sizes and alignments, across block boundaries and with requests larger than any block:
// every block is aligned, writable to its last byte (ASan watches) and overlaps no other.
TEST(DecoderArenaTest, BlocksAreAlignedWritableAndDisjoint) {
  DecoderArena arena;
  // Bytes and alignment.
  const std::pair<size_t, size_t> requests[] = {{1, 1},        {3, 1},        {24, 8},    {40, 16},
                                                {0, 1},        {100, 64},     {70000, 8}, {5, 4096},
                                                {3 << 20, 16}, {17 << 20, 8}, {7, 2}};
  std::map<uintptr_t, size_t> given;  // start and size of every block
  for (int round = 0; round < 3; ++round) {
    for (auto [bytes, alignment] : requests) {
      auto* data = static_cast<unsigned char*>(arena.allocate(bytes, alignment));
      ASSERT_NE(data, nullptr);
      EXPECT_EQ(reinterpret_cast<uintptr_t>(data) % alignment, 0u) << bytes;
      memset(data, 0x5a, bytes);
      EXPECT_TRUE(bytes == 0 || given.emplace(reinterpret_cast<uintptr_t>(data), bytes).second);
    }
  }
  for (auto it = given.begin(); std::next(it) != given.end(); ++it) {
    EXPECT_LE(it->first + it->second, std::next(it)->first);
  }
  EXPECT_GE(arena.Reserved(), 3u * (20u << 20));
}

}  // namespace
}  // namespace libtidewatch
