#include "libtidewatch/trap/trap_packer.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "libtidewatch/platform/log.h"
#include "tests/support/log_capture.h"
#include "tests/support/mcp_test_peer.h"

namespace libtidewatch {
namespace {

using tidewatch_test::Bytes;

class TrapPackerTest : public ::testing::Test {
 protected:
  static Bytes Trap(uint8_t type, const Bytes& payload, int64_t declared = -1) {
    return tidewatch_test::TrapRecord(type, payload, declared);
  }
  static Bytes Discard(const std::vector<std::pair<uint8_t, uint32_t>>& entries,
                       int64_t count = -1) {
    return tidewatch_test::DiscardRecord(entries, count);
  }
  static Bytes Cat(std::initializer_list<Bytes> parts) { return tidewatch_test::Concat(parts); }

  tidewatch_test::LogCapture log_{kLogDebug};
};

// Empty or oversized data is refused without a word; a record of the largest size is taken.
TEST_F(TrapPackerTest, SizeLimits) {
  Bytes payload(TrapPacker::kMaxRawLength - 5, 0x42);
  Bytes data = Trap(TRAP_TYPE_IP, payload);
  Bytes over = Cat({data, {0}});
  EXPECT_FALSE(TrapPacker(nullptr, 10).IsInitialized());
  EXPECT_FALSE(TrapPacker(data.data(), 0).IsInitialized());
  EXPECT_FALSE(TrapPacker(over.data(), over.size()).IsInitialized());
  EXPECT_TRUE(log_.Lines().empty());
  TrapPacker packer(data.data(), data.size());
  ASSERT_TRUE(packer.IsInitialized());
  EXPECT_EQ(packer.GetTrapType(), TRAP_TYPE_IP);
  ASSERT_EQ(packer.GetTrapDataLength(), payload.size());
  EXPECT_EQ(Bytes(packer.GetTrapData(), packer.GetTrapData() + payload.size()), payload);
  EXPECT_NE(packer.GetTrapData(), data.data() + 5);  // a private copy
  EXPECT_EQ(TrapPacker(data.data(), data.size(), TrapPacker::View()).GetTrapData(),
            data.data() + 5);
}

// How whole buffers parse: the trap kept (the last record wins), the last record as it arrived
// (header included, clipped to the bytes there), and the errors logged.
TEST_F(TrapPackerTest, WalksRecords) {
  const std::string kFailed = "E Parse rawData failed.";
  const std::vector<std::string> kBad = {"E Discard Info should be the last part in raw data.",
                                         kFailed};
  auto type = [&](int t) {
    return std::vector<std::string>{"E Invalid discard info type: [" + std::to_string(t) + "]",
                                    kFailed};
  };
  auto unknown = [](int len) {
    return std::vector<std::string>{"E Unknown trap type: [12], len: [" + std::to_string(len) +
                                    "]"};
  };
  const TRAP_TYPE kNone = TRAP_TYPE_NONE, kOta = TRAP_TYPE_OTA, kEm = TRAP_TYPE_EM;
  const TRAP_TYPE kEvent = TRAP_TYPE_ICD_EVENT, kIcd = TRAP_TYPE_ICD_RECORD;
  const size_t kFull = TrapPacker::kMaxRawLength;
  const struct {
    const char* name;
    Bytes data;
    bool initialized;
    TRAP_TYPE type;
    size_t length;
    std::vector<std::string> errors;
    std::pair<size_t, size_t> record{0, 0};  // offset and size of the last record in `data`
  } cases[] = {
      {"trap, discards", Cat({Trap(2, {1, 2, 3}), Discard({{2, 5}})}), true, kOta, 3, {}, {0, 8}},
      {"last wins", Cat({Trap(3, {1}), Trap(4, {1, 2})}), true, TRAP_TYPE_VOLTE, 2, {}, {6, 7}},
      {"unknown", Cat({Trap(5, {1}), Trap(12, {7, 7, 7, 7})}), true, kNone, 4, unknown(4), {6, 9}},
      {"after unknown", Cat({Trap(12, {7}), Trap(8, {1, 2})}), true, kEvent, 2, unknown(1), {6, 7}},
      {"discards alone, count 0", Discard({}), true, kNone, 0, {}},
      {"discards then a trap", Cat({Discard({{2, 1}}), Trap(2, {1})}), false, kNone, 0, kBad},
      {"discard entry of type 9", Discard({{2, 1}, {9, 1}}), false, kNone, 0, type(9)},
      // Records that claim more than the data holds: nothing past the data is read.
      {"payload past the end", Trap(6, {1, 2}, 1000), true, TRAP_TYPE_IP, 1000, {}, {0, 7}},
      {"header past the end", Cat({Trap(2, {1}), {7, 3, 0}}), true, kIcd, 3, {}, {6, 3}},
      {"discard entries past the end", Discard({{2, 1}}, 3), false, kNone, 0, kBad},
      {"huge discard count", Discard({{2, 1}}, 0xFFFFFFFF), false, kNone, 0, kBad},
      {"bad entry before the end", Discard({{2, 1}, {10, 1}}, 50), false, kNone, 0, type(10)},
      {"discard header past the end", Cat({Trap(2, {1}), {1, 1}}), false, kOta, 1, kBad, {0, 6}},
      // The same at the end of a full buffer, where reading on would leave the allocation.
      {"full: header", Cat({Trap(2, Bytes(kFull - 7)), {3, 1}}), true, kEm, 1, {}, {kFull - 2, 2}},
      {"full: discards",
       Cat({Trap(2, Bytes(kFull - 15)), Discard({{2, 1}}, 9)}),
       false,
       kOta,
       kFull - 15,
       kBad,
       {0, kFull - 10}},
  };
  for (const auto& c : cases) {
    for (bool view : {false, true}) {  // a view must parse exactly as a copy does
      SCOPED_TRACE(std::string(c.name) + (view ? " (view)" : " (copy)"));
      log_.Clear();
      auto packer =
          view ? std::make_unique<TrapPacker>(c.data.data(), c.data.size(), TrapPacker::View())
               : std::make_unique<TrapPacker>(c.data.data(), c.data.size());
      EXPECT_EQ(packer->IsInitialized(), c.initialized);
      EXPECT_EQ(packer->GetTrapType(), c.type);
      EXPECT_EQ(packer->GetTrapDataLength(), c.length);
      EXPECT_EQ(log_.Lines(kLogError), c.errors);
      const auto [offset, size] = c.record;
      ASSERT_EQ(packer->GetTrapRecordSize(), size);
      const uint8_t* record = packer->GetTrapRecord();
      EXPECT_EQ(record == nullptr, size == 0);
      if (size > 0) {
        EXPECT_EQ(Bytes(record, record + size),
                  Bytes(c.data.begin() + offset, c.data.begin() + offset + size));
      }
    }
  }
}

TEST_F(TrapPackerTest, DiscardCounts) {
  Bytes data = Cat({Trap(3, {1}), Discard({{3, 7}, {2, 4}, {3, 9}})});
  TrapPacker packer(data.data(), data.size());
  ASSERT_TRUE(packer.IsInitialized());
  EXPECT_EQ(packer.GetDiscardInfo(TRAP_TYPE_EM), 7u);  // the first entry for a type counts
  EXPECT_EQ(packer.GetDiscardInfo(TRAP_TYPE_OTA), 4u);
  EXPECT_EQ(packer.GetDiscardInfo(TRAP_TYPE_IP), 0u);
  EXPECT_EQ(packer.GetDiscardInfo(static_cast<TRAP_TYPE>(9)), 0u);
  Bytes none = Discard({});
  EXPECT_EQ(TrapPacker(none.data(), none.size()).GetDiscardInfo(TRAP_TYPE_OTA), 0u);
  // A record that failed the parse is not trusted, even for the entries that are there.
  Bytes notLast = Cat({Discard({{2, 4}}), Trap(2, {1})});
  log_.Clear();
  EXPECT_EQ(TrapPacker(notLast.data(), notLast.size()).GetDiscardInfo(TRAP_TYPE_OTA), 0u);
  EXPECT_EQ(log_.Lines(kLogError).back(), "E TrapPacker was not initialized.");
}

}  // namespace
}  // namespace libtidewatch
