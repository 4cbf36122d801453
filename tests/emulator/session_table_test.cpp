#include "emulator/session_table.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "emulator/result_codes.h"

namespace hal_emulator {

using libtidewatch::MONITOR_SESSION_STATUS;
using libtidewatch::TRAP_TYPE;
using libtidewatch::TRAP_TYPE_DISCARD_INFO;
using libtidewatch::TRAP_TYPE_EM;
using libtidewatch::TRAP_TYPE_IP;
using libtidewatch::TRAP_TYPE_OTA;
using libtidewatch::TRAP_TYPE_VOLTE;
namespace {

class SessionTableTest : public testing::Test {
 protected:
  uint64_t Make(SessionLevel level) {
    uint64_t id = 0;
    EXPECT_EQ(table_.Create(level, &id), kRetOk);
    return id;
  }

  SessionLimits limits_{/*maxSessions=*/8, /*maxSubscriptions=*/3};
  SessionTable table_{100, limits_};
};

TEST_F(SessionTableTest, IdsIncreaseAreNeverReusedAndRunOut) {
  uint64_t a = Make(SessionLevel::kGuest);
  uint64_t b = Make(SessionLevel::kGuest);
  EXPECT_EQ(a, 100u);
  EXPECT_EQ(b, 101u);
  ASSERT_EQ(table_.Close(0, b), kRetOk);
  EXPECT_EQ(Make(SessionLevel::kGuest), 102u);

  SessionTable last(UINT64_MAX, limits_);  // runs out instead of wrapping to 0
  uint64_t id = 0;
  ASSERT_EQ(last.Create(SessionLevel::kGuest, &id), kRetOk);
  EXPECT_EQ(id, UINT64_MAX);
  EXPECT_EQ(last.Create(SessionLevel::kGuest, &id), kRetSessionLimit);
  // At the session limit creation is refused until one closes.
  while (table_.Size() < limits_.maxSessions) Make(SessionLevel::kGuest);
  EXPECT_EQ(table_.Create(SessionLevel::kGuest, &id), kRetSessionLimit);
  ASSERT_EQ(table_.Close(0, 100), kRetOk);
  EXPECT_EQ(table_.Create(SessionLevel::kGuest, &id), kRetOk);
}

TEST_F(SessionTableTest, DoerRules) {
  uint64_t guest = Make(SessionLevel::kGuest);
  uint64_t guest2 = Make(SessionLevel::kGuest);
  uint64_t manager = Make(SessionLevel::kManager);
  uint64_t manager2 = Make(SessionLevel::kManager);
  uint64_t root = Make(SessionLevel::kRoot);
  uint64_t root2 = Make(SessionLevel::kRoot);
  struct Case {
    uint64_t doer, target;
    int ret;
  } cases[] = {
      {0, guest, kRetOk},
      {guest, guest, kRetOk},
      {guest, guest2, kRetPermissionDenied},
      {guest, manager, kRetPermissionDenied},
      {manager, guest, kRetOk},
      {manager, manager, kRetOk},
      {manager, manager2, kRetPermissionDenied},
      {manager, root, kRetPermissionDenied},
      {root, guest, kRetOk},
      {root, manager, kRetOk},
      {root, root2, kRetOk},
      {0, 999, kRetNoSuchSession},
      {999, guest, kRetNoSuchSession},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(table_.SetTrapEnabled(c.doer, c.target, true), c.ret)
        << "doer " << c.doer << " target " << c.target;
    MONITOR_SESSION_STATUS status;
    EXPECT_EQ(table_.Get(c.doer, c.target, &status), c.ret);
  }
  // A refused doer changed nothing.
  MONITOR_SESSION_STATUS status;
  ASSERT_EQ(table_.Get(0, root2, &status), kRetOk);
  EXPECT_TRUE(status.trapEnabled);  // only root touched it
  ASSERT_EQ(table_.Get(0, manager2, &status), kRetOk);
  EXPECT_FALSE(status.trapEnabled);
}

TEST_F(SessionTableTest, ListShowsWhatTheDoerMayActOn) {
  uint64_t guest = Make(SessionLevel::kGuest);
  uint64_t guest2 = Make(SessionLevel::kGuest);
  uint64_t manager = Make(SessionLevel::kManager);
  uint64_t root = Make(SessionLevel::kRoot);
  std::vector<uint64_t> ids{42};
  ASSERT_EQ(table_.List(guest, &ids), kRetOk);
  EXPECT_EQ(ids, (std::vector<uint64_t>{guest}));
  ASSERT_EQ(table_.List(manager, &ids), kRetOk);
  EXPECT_EQ(ids, (std::vector<uint64_t>{guest, guest2, manager}));
  ASSERT_EQ(table_.List(root, &ids), kRetOk);
  EXPECT_EQ(ids, (std::vector<uint64_t>{guest, guest2, manager, root}));
  EXPECT_EQ(table_.List(0, &ids), kRetNoSuchSession);
  EXPECT_EQ(table_.CheckPrivileged(guest), kRetPermissionDenied);
  EXPECT_EQ(table_.CheckPrivileged(manager), kRetOk);
  EXPECT_EQ(table_.CheckPrivileged(0), kRetNoSuchSession);
}

TEST_F(SessionTableTest, SubscriptionsAreCountedOnceAndLimited) {
  uint64_t s = Make(SessionLevel::kGuest);
  EXPECT_EQ(table_.Subscribe(0, s, TRAP_TYPE_EM, 7), kRetOk);
  EXPECT_EQ(table_.Subscribe(0, s, TRAP_TYPE_EM, 7), kRetOk);  // again: no second slot used
  EXPECT_EQ(table_.Subscribe(0, s, TRAP_TYPE_OTA, 7), kRetOk);
  EXPECT_EQ(table_.Subscribe(0, s, TRAP_TYPE_EM, 5), kRetOk);
  EXPECT_EQ(table_.Subscribe(0, s, TRAP_TYPE_IP, 1), kRetSubscriptionLimit);
  EXPECT_EQ(table_.Unsubscribe(0, s, TRAP_TYPE_IP, 1), kRetNotSubscribed);
  EXPECT_EQ(table_.Unsubscribe(0, s, TRAP_TYPE_EM, 7), kRetOk);
  EXPECT_EQ(table_.Subscribe(0, s, TRAP_TYPE_IP, 1), kRetOk);
  EXPECT_EQ(table_.Subscribe(0, s, TRAP_TYPE_DISCARD_INFO, 1), kRetBadArgument);

  MONITOR_SESSION_STATUS status;
  ASSERT_EQ(table_.Get(0, s, &status), kRetOk);
  EXPECT_EQ(status.subscribedTraps[TRAP_TYPE_EM], (std::vector<uint64_t>{5}));
  EXPECT_EQ(status.subscribedTraps[TRAP_TYPE_OTA], (std::vector<uint64_t>{7}));
  EXPECT_EQ(status.subscribedTraps[TRAP_TYPE_IP], (std::vector<uint64_t>{1}));
}

TEST_F(SessionTableTest, OnlyCompleteSessionsReceiveTraps) {
  uint64_t full = Make(SessionLevel::kGuest);
  uint64_t noReceiver = Make(SessionLevel::kGuest);
  uint64_t disabled = Make(SessionLevel::kGuest);
  uint64_t noSubscription = Make(SessionLevel::kGuest);
  for (uint64_t s : {full, noReceiver, disabled, noSubscription}) {
    if (s != noSubscription) {
      table_.Subscribe(0, s, TRAP_TYPE_VOLTE, 9);
      table_.Subscribe(0, s, TRAP_TYPE_OTA, 3);
    }
    if (s != noReceiver) table_.SetReceiver(0, s, std::to_string(s) + "rx");
    if (s != disabled) table_.SetTrapEnabled(0, s, true);
  }
  std::vector<DeliveringSession> receiving = table_.Delivering();
  ASSERT_EQ(receiving.size(), 1u);
  EXPECT_EQ(receiving[0].id, full);
  EXPECT_EQ(receiving[0].destination, std::to_string(full) + "rx");
  using Sub = std::pair<TRAP_TYPE, uint64_t>;
  EXPECT_EQ(receiving[0].subscriptions,
            (std::vector<Sub>{{TRAP_TYPE_OTA, 3}, {TRAP_TYPE_VOLTE, 9}}));
  ASSERT_EQ(table_.Close(0, full), kRetOk);
  EXPECT_TRUE(table_.Delivering().empty());
}

}  // namespace
}  // namespace hal_emulator
