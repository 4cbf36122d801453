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
// the log and a compact dump of everything the decoder holds.
class FrameDecoderCollectorsTest : public ::testing::Test {
 protected:
  struct Line {
    Decoder::Collector collector;
    uintptr_t user;
    std::string fields;  // joined by ","; empty: no fields
  };
  struct Outcome {
    bool result;
    std::string log;   // lines "<priority letter> <text>", joined by "|"
    std::string dump;  // Dump() of the decoder afterwards
  };
  struct Case {
    Line line;
    Outcome outcome;
  };

  // The captured lines joined by "|", as the cases spell them.
  std::string Logged() const {
    std::string joined;
    for (const std::string& line : log_.Lines()) joined += (joined.empty() ? "" : "|") + line;
    return joined;
  }

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
    const Decoder::ProtocolVersion* layers[] = {
        &d.m_protocolVersions.mac, &d.m_protocolVersions.pdcp, &d.m_protocolVersions.rlc,
        &d.m_protocolVersions.nas, &d.m_protocolVersions.rrc};
    const char* names[] = {"MAC", "PDCP", "RLC", "NAS", "RRC"};
    for (int i = 0; i < 5; ++i) {
      Number(out, std::string(names[i]) + ".major", layers[i]->major);
      Number(out, std::string(names[i]) + ".minor", layers[i]->minor);
      Number(out, std::string(names[i]) + ".release", layers[i]->release);
    }
    Number(out, "precision", d.m_modemTimeInfo.timeStampPrecision);
    std::string text = out.str();
    if (!text.empty()) text.pop_back();
    return text;
  }

  // `before` runs first on the same decoder, for cases about a line meeting earlier ones.
  void Run(const std::vector<Case>& cases, const std::vector<Line>& before = {}) {
    for (const Case& c : cases) {
      SCOPED_TRACE(c.line.fields);
      Decoder decoder;
      for (const Line& b : before) ASSERT_TRUE(Call(b, decoder));
      log_.Clear();
      EXPECT_EQ(Call(c.line, decoder), c.outcome.result);
      EXPECT_EQ(Logged(), c.outcome.log);
      EXPECT_EQ(Dump(decoder), c.outcome.dump);
    }
  }
  static bool Call(const Line& line, Decoder& decoder) {
    // Collectors cut fields in place, so they get writable copies.
    std::vector<std::vector<char>> storage;
    std::stringstream in(line.fields);
    for (std::string f; std::getline(in, f, ',');) storage.emplace_back(f.begin(), f.end() + 1);
    std::vector<char*> fields;
    for (auto& f : storage) fields.push_back(f.data());
    return line.collector(fields.empty() ? nullptr : fields.data(), fields.size(), &decoder,
                          line.user);
  }

  tidewatch_test::LogCapture log_{kLogVerbose};
};

constexpr auto kOTA = &Decoder::OTAInfoCollector;
constexpr auto kGlobal = &Decoder::GlobalIDCollector;
constexpr auto kMsg = &Decoder::MsgInfoCollector;
constexpr auto kPeer = &Decoder::PeerInfoCollector;
constexpr auto kNoHeader = &Decoder::PeerInfoWithoutHeaderCollector;
constexpr auto kFilter = &Decoder::EMFilterInfoCollector;
constexpr auto kVersion = &Decoder::ProtocolVersionInfoCollector;
constexpr auto kTime = &Decoder::TimeInfoCollector;

TEST_F(FrameDecoderCollectorsTest, OffsetLines) {
  Run({
      {{kOTA, 0, "OTA_TRACE_ID_OFFSET,0,4"},
       {true, "E strtoull return 0 [0] to uint64_t.|D OTA_TRACE_ID_OFFSET offset: [0], size: [4]",
        "traceID:0+4"}},
      {{kOTA, 0, "OTA_SIM_IDX_OFFSET,5,1"},
       {true, "D OTA_SIM_IDX_OFFSET offset: [5], size: [1]", "otaSIM:5+1"}},
      {{kOTA, 0, "OTA_TRACE_ID_OFFSET,1"}, {false, "", ""}},
      {{kMsg, 0, "MSG_ID_OFFSET,8,2"},
       {true, "D MSG_ID_OFFSET offset: [8], size: [2]", "msgID:8+2"}},
      {{kMsg, 0, "SIM_IDX_OFFSET,2,1"},
       {true, "D SIM_IDX_OFFSET offset: [2], size: [1]", "msgSIM:2+1"}},
      {{kMsg, 0, "MSG_ID_OFFSET,8"}, {false, "", ""}},
      {{kPeer, 0, "MSG_PEERSIZE_OFFSET,6,2"},
       {true, "D MSG_PEERSIZE_OFFSET offset: [6], size: [2]", "peerSize:6+2"}},
      {{kMsg, 0, "SIM_IDX_OFFSET,2,1x"}, {false, "E Failed to convert [1x] to uint64_t.", ""}},
  });
}

TEST_F(FrameDecoderCollectorsTest, NumbersAndNames) {
  Run({
      {{kGlobal, 0, "A(1)"}, {true, "", "global1:A A=1"}},
      {{kGlobal, 0, "A(7)tail"}, {true, "", "global7:A A=7"}},
      {{kGlobal, 0, "A(18446744073709551614)"},
       {true, "", "global18446744073709551614:A A=18446744073709551614"}},
      {{kGlobal, 0, "A(-2)"}, {true, "", "global18446744073709551614:A A=18446744073709551614"}},
      {{kGlobal, 0, "A(18446744073709551615)"},
       {false, "E Failed to convert [18446744073709551615] to uint64_t.", ""}},
      {{kGlobal, 0, "A(123456789012345678901234)"},
       {false, "E Failed to convert [123456789012345678901234] to uint64_t.", ""}},
      {{kGlobal, 0, "FOO(1x)"}, {false, "E Failed to convert [1x] to uint64_t.", ""}},
      {{kGlobal, 0, "A(1"}, {false, "", ""}},
      {{kGlobal, 0, "A)1("}, {false, "", ""}},
      {{kGlobal, 0, "A(1),B(2)"}, {false, "", ""}},
      {{&Decoder::IPInfoTraceIDCollector, 0, "UP(3)"}, {true, "", "ip3:UP UP=3"}},
  });
}

TEST_F(FrameDecoderCollectorsTest, TraceAndMessageLines) {
  Run({
      {{kOTA, 0, "T(5),OTA_MSG_OFFSET,12,9"}, {true, "", "trace5:T@12 T=5"}},
      {{kOTA, 0, "T(5),LEN,3,2"}, {true, "", "trace5:T@0 LEN:3+2 T=5"}},
      // Three fields that are not OTA_MSG_OFFSET lack the size; the offset stays written.
      {{kOTA, 0, "T(5),LEN,3"},
       {false, "E Failed to convert [] to uint64_t.", "trace5:T@0 LEN:3+0!"}},
      {{kOTA, 0, "T(5),LEN,3,2x"},
       {false, "E Failed to convert [2x] to uint64_t.", "trace5:T@0 LEN:3+0!"}},
      {{kOTA, 0, "T5,OTA_MSG_OFFSET,1"}, {false, "", ""}},
      {{kOTA, 0, "T(5),LEN,3,2,1"}, {false, "", ""}},
      {{kMsg, 0, "FOO(12),BAR,1,2"}, {true, "", "msg12:FOO/0 BAR:1+2 FOO=12"}},
      {{kMsg, 0, "FOO(12),BAR,1"}, {false, "", ""}},
  });
  // Another name for message 12 keeps the first one but still sets the field.
  Run({{{kMsg, 0, "OTHER(12),BAR,5,6"}, {true, "", "msg12:FOO/0 BAR:5+6 FOO=12"}},
       {{kMsg, 0, "FOO(13),BAZ,5,6"},
        {true, "", "msg12:FOO/0 BAR:1+2 msg13:FOO/0 BAZ:5+6 FOO=12"}}},
      {{kMsg, 0, "FOO(12),BAR,1,2"}});
  // Fields list in the order of their first definition, not of their names.
  Run({{{kMsg, 0, "FOO(12),ABC,3,4"},
        {true, "", "trace5:T@0 ZED:1+1 msg12:FOO/0 BAR:5+6 ABC:3+4 T=5 FOO=12"}},
       {{kOTA, 0, "T(5),ABC,3,4"},
        {true, "", "trace5:T@0 ZED:1+1 ABC:3+4 msg12:FOO/0 BAR:5+6 T=5 FOO=12"}}},
      {{kMsg, 0, "FOO(12),BAR,1,2"}, {kOTA, 0, "T(5),ZED,1,1"}, {kMsg, 0, "FOO(12),BAR,5,6"}});
}

TEST_F(FrameDecoderCollectorsTest, SIMAndMappingLines) {
  constexpr auto kSIM = &Decoder::SIMInfoCollector;
  constexpr auto kMap = &Decoder::MsgEMIDMappingCollector;
  Run({
      {{kSIM, 3, "7,99"}, {true, "", "sims:4 sim3:7"}},
      {{kSIM, 2, "x"}, {false, "E Failed to convert [x] to uint64_t.", "sims:3"}},
      {{kSIM, 0, "7"}, {false, "", ""}},
      {{kMap, 0, "5,6"}, {true, "", "em5:6"}},
      {{kMap, 0, "5"}, {false, "E MsgEMIDMappingCollector failed. Field count [1] != 2", ""}},
  });
  Run({{{kMap, 0, "5,7"}, {true, "", "em5:6"}}}, {{kMap, 0, "5,6"}});
}

TEST_F(FrameDecoderCollectorsTest, PeerLines) {
  Run({
      {{kPeer, 0, ""}, {false, "E PeerInfoCollector failed. Field count [0] == 0", ""}},
      {{kPeer, 0, "MSG_PEER_HEADER_SIZE,8"},
       {true, "D MSG_PEER_HEADER_SIZE offset: size: [8]", "peerHeader:8"}},
      {{kPeer, 0, "MSG_PEER_HEADER_SIZE,8,9"}, {false, "", ""}},
      {{kPeer, 0, "X,Y"}, {true, "W PeerInfoCollector skip the line with token count = 2.", ""}},
      {{kPeer, 0, "ABC(5),PEER_OFFSET,-7"}, {true, "", "msg5:ABC/-7 ABC=5"}},
      {{kPeer, 0, "ABC(5),PEER_OFFSET,zz"}, {true, "", "msg5:ABC/0 ABC=5"}},
      {{kPeer, 0, "ABC(5),OTHER,3"}, {true, "", "msg5:ABC/0 ABC=5"}},
      {{kPeer, 0, "ABC,PEER_OFFSET,1"}, {false, "", ""}},
      {{kNoHeader, 0, ""},
       {false, "E PeerInfoWithoutHeaderCollector failed. Field count [0] == 0", ""}},
      {{kNoHeader, 0, "MSG_PEER_HEADER_SIZE,8"},
       {true, "W PeerInfoWithoutHeaderCollector skip the line with token count = 2.", ""}},
      {{kNoHeader, 0, "ABC(5),PEER_OFFSET,12"}, {true, "", "msg5:ABC/12 ABC=5"}},
  });
}

TEST_F(FrameDecoderCollectorsTest, EMFilterAndTimeLines) {
  Run({
      {{kFilter, 0, "EM_UPDATE_INFO_STATUS_SIZE,4"},
       {true, "W m_modemEMFilterInfo.emFilterFieldLength = [4]", "filterLength:4"}},
      {{kFilter, 0, "EM_UPDATE_INFO_REQ_OFFSET_1,16"},
       {true, "W m_modemEMFilterInfo.emFilterOffsetSim1 = [16]", "filter0:16"}},
      {{kFilter, 0, "EM_UPDATE_INFO_REQ_OFFSET_2,32"},
       {true, "W m_modemEMFilterInfo.emFilterOffset[1] = [32]", "filter1:32"}},
      {{kFilter, 0, "EM_UPDATE_INFO_REQ_OFFSET_3,48"},
       {true, "W m_modemEMFilterInfo.emFilterOffset[2] = [48]", "filter2:48"}},
      {{kFilter, 0, "EM_UPDATE_INFO_REQ_OFFSET_4,64"},
       {true, "W m_modemEMFilterInfo.emFilterOffset[3] = [64]", "filter3:64"}},
      {{kFilter, 0, "EM_UPDATE_INFO_REQ_ARRAY_NUM,9"},
       {true, "W m_modemEMFilterInfo.emFilterTotalEMNumber = [9]", "filterTotal:9"}},
      {{kFilter, 0, "EM_UPDATE_INFO_REQ_OFFSET_2"}, {true, "", ""}},
      {{kFilter, 0, "EM_SOMETHING,1"},
       {true, "W EMFilterInfoCollector skip the unkonown token string [EM_SOMETHING]", ""}},
      {{kFilter, 0, "EM_UPDATE_INFO_STATUS_SIZE,4k"},
       {false, "E Failed to convert [4k] to uint64_t.", ""}},
      {{kFilter, 0, ""}, {false, "E EMFilterInfoCollector failed. Field count [0] == 0", ""}},
      {{kTime, 0, "TIMESTAMP_PRECISION(1000)"},
       {true, "W TimeInfoCollector, m_modemTimeInfo.timeStampPrecision = [1000]",
        "precision:1000"}},
      {{kTime, 0, "TIMESTAMP_PRECISIONX(3)"},
       {true, "W TimeInfoCollector, m_modemTimeInfo.timeStampPrecision = [3]", "precision:3"}},
      {{kTime, 0, "TIMESTAMP_PRECISION"}, {false, "", ""}},
      {{kTime, 0, "CLOCK(1)"},
       {true, "W TimeInfoCollector skip the unkonown token string [CLOCK(1)]", ""}},
      {{kTime, 0, "TIMESTAMP_PRECISION(1),ms"},
       {true, "W TimeInfoCollector skip the unkonown precision token[1] [ms]", ""}},
      {{kTime, 0, ""}, {false, "E TimeInfoCollector failed. Field count [0] == 0", ""}},
  });
}

TEST_F(FrameDecoderCollectorsTest, ProtocolVersionLines) {
  std::vector<Case> cases;
  uint64_t value = 1;
  for (auto layer : {std::make_pair("EMAC", "MAC"), std::make_pair("EPDCP", "PDCP"),
                     std::make_pair("ERLC", "RLC"), std::make_pair("NAS", "NAS"),
                     std::make_pair("RRC", "RRC")}) {
    for (auto part : {std::make_pair("MAJOR", "major"), std::make_pair("MINOR", "minor"),
                      std::make_pair("RELEASE", "release")}) {
      std::string v = std::to_string(value++);
      std::string key = std::string(layer.first) + "_" + part.first + "_VERSION";
      std::string label = std::string(layer.second) + " " + part.second;
      cases.push_back({{kVersion, 0, key + "(" + v + ")"},
                       {true, "D " + label + " version [" + v + "]",
                        std::string(layer.second) + "." + part.second + ":" + v}});
    }
  }
  cases.push_back({{kVersion, 0, "GSM_MAJOR_VERSION(3)"}, {true, "", ""}});
  cases.push_back(
      {{kVersion, 0, "NAS_MAJOR_VERSION(x)"}, {false, "E Failed to convert [x] to uint64_t.", ""}});
  cases.push_back({{kVersion, 0, "NAS_MAJOR_VERSION"}, {false, "", ""}});
  cases.push_back({{kVersion, 0, "NAS_MAJOR_VERSION(1),x"}, {false, "", ""}});
  Run(cases);
}

}  // namespace
}  // namespace libtidewatch
