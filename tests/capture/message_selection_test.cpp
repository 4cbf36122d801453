#include "capture/message_selection.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace capture {
namespace {

using libtidewatch::TRAP_TYPE_EM;
using libtidewatch::TRAP_TYPE_OTA;

// The sample layout, loaded once for all the cases.
const libtidewatch::FrameDecoder& Layout() {
  static libtidewatch::FrameDecoder layout;
  static const bool loaded =
      layout.LoadFromDESC(TIDEWATCH_SOURCE_DIR "/resources/twd_layout_desc.dat");
  EXPECT_TRUE(loaded);
  return layout;
}

TEST(MessageSelectionTest, SelectorsBecomeIdsOnceEach) {
  const struct {
    std::vector<std::pair<libtidewatch::TRAP_TYPE, std::string>> selectors;
    std::vector<std::pair<libtidewatch::TRAP_TYPE, uint64_t>> ids;
  } cases[] = {
      {{{TRAP_TYPE_EM, "EM_LTE_SERVING_CELL_INFO"}}, {{TRAP_TYPE_EM, 2000}}},
      // Ids need no layout entry; hexadecimal is accepted; a repeat is subscribed once.
      {{{TRAP_TYPE_EM, "0x7d0"}, {TRAP_TYPE_EM, "2000"}, {TRAP_TYPE_EM, "77777"}},
       {{TRAP_TYPE_EM, 2000}, {TRAP_TYPE_EM, 77777}}},
      // A pattern selects in id order; the same id under another type is another subscription.
      {{{TRAP_TYPE_OTA, "NR_RRC_SETUP*"}, {TRAP_TYPE_EM, "1028"}},
       {{TRAP_TYPE_OTA, 1028}, {TRAP_TYPE_OTA, 1029}, {TRAP_TYPE_OTA, 1030}, {TRAP_TYPE_EM, 1028}}},
      {{{TRAP_TYPE_EM, "EM_?R_SERVING_CELL_INFO"}}, {{TRAP_TYPE_EM, 2010}}},
  };
  for (const auto& c : cases) {
    MessageSelection selection(Layout());
    std::string error;
    for (const auto& s : c.selectors)
      ASSERT_TRUE(selection.Add(s.first, s.second, &error)) << error;
    std::vector<std::pair<libtidewatch::TRAP_TYPE, uint64_t>> got;
    for (const Subscription& s : selection.subscriptions()) got.emplace_back(s.type, s.msgId);
    EXPECT_EQ(got, c.ids) << c.selectors[0].second;
  }
}

TEST(MessageSelectionTest, NamesThatSelectNothingSayWhatIsClose) {
  const struct {
    libtidewatch::TRAP_TYPE type;
    std::string selector;
    std::string error;
  } cases[] = {
      {TRAP_TYPE_OTA, "LTE_RRC_PAGNG",
       "unknown OTA message name 'LTE_RRC_PAGNG'; did you mean LTE_RRC_PAGING?"},
      {TRAP_TYPE_OTA, "paging", "unknown OTA message name 'paging'; did you mean LTE_RRC_PAGING?"},
      // OTA names are not EM names.
      {TRAP_TYPE_EM, "LTE_RRC_PAGING", "unknown EM message name 'LTE_RRC_PAGING'"},
      {TRAP_TYPE_EM, "XX_*", "no EM message name matches 'XX_*'"},
      // What the user typed is echoed with its control characters escaped.
      {TRAP_TYPE_EM, "EM\x1b]0;x\x07", "unknown EM message name 'EM\\x1b]0;x\\x07'"},
  };
  for (const auto& c : cases) {
    MessageSelection selection(Layout());
    std::string error;
    EXPECT_FALSE(selection.Add(c.type, c.selector, &error));
    EXPECT_EQ(error, c.error);
    EXPECT_TRUE(selection.subscriptions().empty());
  }
}

TEST(MessageSelectionTest, ListsEveryMessage) {
  const std::string list = MessageSelection::ListMessages(Layout());
  EXPECT_EQ(list.substr(0, list.find('\n', list.find('\n') + 1) + 1),
            "OTA     1000  LTE_RRC_MASTER_INFORMATION_BLOCK\n"
            "OTA     1001  LTE_RRC_SYSTEM_INFORMATION_BLOCK_1\n");
  EXPECT_NE(list.find("\nEM      2000  EM_LTE_SERVING_CELL_INFO\n"), std::string::npos);
  EXPECT_EQ(static_cast<size_t>(std::count(list.begin(), list.end(), '\n')),
            Layout().m_globalIDs.size() + Layout().m_msgs.size());
}

}  // namespace
}  // namespace capture
