#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "libtidewatch/platform/log.h"
#include "libtidewatch/trap/frame_decoder.h"
#include "tests/support/log_capture.h"

namespace libtidewatch {
namespace {

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
    std::vector<const Decoder::FieldMap::value_type*> sorted;
    for (const auto& f : fields) sorted.push_back(&f);
    std::sort(sorted.begin(), sorted.end(),
              [](const auto* a, const auto* b) { return a->second.order < b->second.order; });
    for (const auto* f : sorted) Info(out, f->first, f->second);
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
    for (std::string part : {"major", "minor", "release"}) {
      std::string v = std::to_string(value++);
      std::string upper = part;
      for (char& ch : upper) ch = static_cast<char>(toupper(ch));
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

}  // namespace
}  // namespace libtidewatch
