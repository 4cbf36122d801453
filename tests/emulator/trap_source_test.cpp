#include "emulator/trap_source.h"

#include <gtest/gtest.h>

#include <vector>

namespace libtidewatch {
namespace {

using Bytes = std::vector<uint8_t>;

class TrapSourceTest : public testing::Test {
 protected:
  static DeliveringSession Session(uint64_t id) {
    DeliveringSession s;
    s.id = id;
    s.destination = "rx";
    s.subscriptions = {{TRAP_TYPE_OTA, 10}, {TRAP_TYPE_EM, 20}};
    return s;
  }
  // Type byte and the low byte of the message id of the session's next trap; {0, 0} when none.
  static std::pair<uint8_t, uint8_t> Next(TrapSource* source, const DeliveringSession& s) {
    Bytes out;
    uint8_t type = 0;
    if (!source->Next(s, &out, &type)) return {0, 0};
    EXPECT_EQ(out[0], type);
    return {type, out.size() > 5 ? out[5] : 0};
  }
};

TEST_F(TrapSourceTest, SyntheticTrapsCycleOverSubscriptionsPerSession) {
  TrapSource source(8);
  DeliveringSession a = Session(1), b = Session(2);
  using P = std::pair<uint8_t, uint8_t>;
  EXPECT_EQ(Next(&source, a), P(TRAP_TYPE_OTA, 10));
  EXPECT_EQ(Next(&source, a), P(TRAP_TYPE_EM, 20));
  EXPECT_EQ(Next(&source, b), P(TRAP_TYPE_OTA, 10));  // its own position
  EXPECT_EQ(Next(&source, a), P(TRAP_TYPE_OTA, 10));
  source.Retain({b});  // a stopped receiving: it starts over next time
  EXPECT_EQ(Next(&source, a), P(TRAP_TYPE_OTA, 10));
  EXPECT_EQ(Next(&source, b), P(TRAP_TYPE_EM, 20));
}

TEST_F(TrapSourceTest, ReplayGoesOnceThroughTheRecords) {
  std::vector<ReplayRecord> records(2);
  records[0] = {7, {7, 1, 0, 0, 0, 0x11}};
  records[1] = {12, {12, 1, 0, 0, 0, 0x22}};
  TrapSource source(records);
  DeliveringSession a = Session(1);
  using P = std::pair<uint8_t, uint8_t>;
  EXPECT_EQ(Next(&source, a), P(7, 0x11));
  EXPECT_EQ(Next(&source, a), P(12, 0x22));
  EXPECT_EQ(Next(&source, a), P(0, 0));
  EXPECT_EQ(Next(&source, Session(2)), P(7, 0x11));
}

}  // namespace
}  // namespace libtidewatch
