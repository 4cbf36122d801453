#include "capture/capture_stats.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace capture {
namespace {

using libtidewatch::CapturedTrap;
using libtidewatch::TRAP_TYPE;

CapturedTrap Trap(TRAP_TYPE type, bool hasId, uint64_t id, size_t bytes, const char* name) {
  CapturedTrap t;
  t.decoded.type = type;
  t.decoded.msgId = {id, hasId};
  if (name != nullptr) t.decoded.msgName = name;
  t.decoded.payload.size = bytes;
  return t;
}

// One row per message, whatever order its traps come in, so that the summary's counts add up.
TEST(CaptureStatsTest, CountsEachMessageInOneRow) {
  CaptureStats stats;
  const CapturedTrap traps[] = {
      Trap(libtidewatch::TRAP_TYPE_EM, true, 2000, 20, "EM_LTE_SERVING_CELL_INFO"),
      Trap(libtidewatch::TRAP_TYPE_OTA, true, 1000, 17, "LTE_RRC_MASTER_INFORMATION_BLOCK"),
      Trap(libtidewatch::TRAP_TYPE_OTA, true, 1000, 17, "LTE_RRC_MASTER_INFORMATION_BLOCK"),
      Trap(libtidewatch::TRAP_TYPE_EM, true, 2000, 20, "EM_LTE_SERVING_CELL_INFO"),
      Trap(libtidewatch::TRAP_TYPE_EM, true, 9999, 16, nullptr),
      // A VoLTE trap has no message id, whatever the decoder read: it counts by type only.
      Trap(libtidewatch::TRAP_TYPE_VOLTE, true, 5, 8, nullptr),
      Trap(libtidewatch::TRAP_TYPE_EM, true, 2000, 20, "EM_LTE_SERVING_CELL_INFO"),
  };
  for (const CapturedTrap& t : traps) stats.Count(t);

  std::vector<std::string> rows;
  for (const MessageCount& m : stats.Messages()) {
    rows.push_back(std::to_string(m.type) + " " + (m.hasId ? std::to_string(m.msgId) : "-") + " " +
                   (m.named ? m.name : "?") + " " + std::to_string(m.traps) + " " +
                   std::to_string(m.bytes));
  }
  EXPECT_EQ(rows, (std::vector<std::string>{"2 1000 LTE_RRC_MASTER_INFORMATION_BLOCK 2 34",
                                            "3 2000 EM_LTE_SERVING_CELL_INFO 3 60", "3 9999 ? 1 16",
                                            "4 - ? 1 8"}));
  EXPECT_EQ(stats.traps(), 7u);
  EXPECT_EQ(stats.bytes(), 118u);
}

}  // namespace
}  // namespace capture
