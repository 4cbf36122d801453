// The emulated service's monitor sessions: their levels, subscriptions, trap switch and receiver,
// and the rules that decide which session (the doer) may act on which. Every operation answers
// with an EmulatorRet. Thread-safe: the command loop changes the table while the trap thread takes
// snapshots of the sessions that receive traps.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "libtidewatch/api/monitor_types.h"

namespace hal_emulator {

enum class SessionLevel { kGuest = 0, kManager = 1, kRoot = 2 };

struct SessionLimits {
  size_t maxSessions = 64;
  size_t maxSubscriptions = 256;  // per session, over all trap types
};

// One session that should be receiving traps, as the trap thread sees it.
struct DeliveringSession {
  uint64_t id = 0;
  std::string destination;
  // Every subscription, by trap type value and then in the order they were made.
  std::vector<std::pair<libtidewatch::TRAP_TYPE, uint64_t>> subscriptions;
};

class SessionTable {
 public:
  // Ids are handed out from `firstId` upwards (0 is taken as 1) and never reused.
  SessionTable(uint64_t firstId, const SessionLimits& limits);

  int Create(SessionLevel level, uint64_t* id);

  // The commands that address one session. A `doerId` of 0 means the session acts on itself.
  int Close(uint64_t doerId, uint64_t sessionId);
  int Subscribe(uint64_t doerId, uint64_t sessionId, libtidewatch::TRAP_TYPE type, uint64_t msgId);
  int Unsubscribe(uint64_t doerId, uint64_t sessionId, libtidewatch::TRAP_TYPE type,
                  uint64_t msgId);
  int SetTrapEnabled(uint64_t doerId, uint64_t sessionId, bool enabled);
  int SetReceiver(uint64_t doerId, uint64_t sessionId, const std::string& destination);
  int Get(uint64_t doerId, uint64_t sessionId, libtidewatch::MONITOR_SESSION_STATUS* status);

  // The ids the doer may act on, ascending. The doer must exist.
  int List(uint64_t doerId, std::vector<uint64_t>* ids);
  // Whether the doer exists and is a manager or root, as changing service settings requires.
  int CheckPrivileged(uint64_t doerId);

  // Sessions with trap delivery on, a receiver named and at least one subscription.
  std::vector<DeliveringSession> Delivering() const;
  size_t Size() const;

 private:
  struct Session {
    SessionLevel level = SessionLevel::kGuest;
    bool trapEnabled = false;
    std::string destination;
    std::vector<uint64_t> subscribed[libtidewatch::TRAP_TYPE_NUM];
    size_t subscriptionCount = 0;
  };

  static bool MayActOn(SessionLevel doer, uint64_t doerId, SessionLevel target, uint64_t targetId);
  // Finds the target and checks the doer rules; on success `*target` points into m_sessions.
  int Resolve(uint64_t doerId, uint64_t sessionId, Session** target);
  // Checks the type and the doer rules, then runs `change` on the target's ids of that type with
  // the table locked; its answer is the command's.
  using SubscriptionChange = std::function<int(Session&, std::vector<uint64_t>&)>;
  int ChangeSubscriptions(uint64_t doerId, uint64_t sessionId, libtidewatch::TRAP_TYPE type,
                          const SubscriptionChange& change);

  mutable std::mutex m_mutex;
  SessionLimits m_limits;
  uint64_t m_nextId;
  bool m_idsExhausted = false;
  std::map<uint64_t, Session> m_sessions;
};

}  // namespace hal_emulator
