#include "emulator/session_table.h"

#include <algorithm>

#include "emulator/result_codes.h"

namespace hal_emulator {

using libtidewatch::MONITOR_SESSION_STATUS;
using libtidewatch::TRAP_TYPE;
using libtidewatch::TRAP_TYPE_ICD_EVENT;
using libtidewatch::TRAP_TYPE_NUM;
using libtidewatch::TRAP_TYPE_OTA;
namespace {

bool Subscribable(TRAP_TYPE type) { return type >= TRAP_TYPE_OTA && type <= TRAP_TYPE_ICD_EVENT; }

}  // namespace

SessionTable::SessionTable(uint64_t firstId, const SessionLimits& limits)
    : m_limits(limits), m_nextId(firstId == 0 ? 1 : firstId) {}

int SessionTable::Create(SessionLevel level, uint64_t* id) {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (m_sessions.size() >= m_limits.maxSessions || m_idsExhausted) return kRetSessionLimit;
  uint64_t newId = m_nextId++;
  // Ids are never reused, so once the counter wraps the service is out of ids for good.
  if (m_nextId == 0) m_idsExhausted = true;
  m_sessions[newId].level = level;
  *id = newId;
  return kRetOk;
}

bool SessionTable::MayActOn(SessionLevel doer, uint64_t doerId, SessionLevel target,
                            uint64_t targetId) {
  if (doerId == targetId) return true;
  switch (doer) {
    case SessionLevel::kRoot:
      return true;
    case SessionLevel::kManager:
      return target == SessionLevel::kGuest;
    case SessionLevel::kGuest:
      break;
  }
  return false;
}

int SessionTable::Resolve(uint64_t doerId, uint64_t sessionId, Session** target) {
  auto t = m_sessions.find(sessionId);
  if (t == m_sessions.end()) return kRetNoSuchSession;
  if (doerId == 0 || doerId == sessionId) {
    *target = &t->second;
    return kRetOk;
  }
  auto d = m_sessions.find(doerId);
  if (d == m_sessions.end()) return kRetNoSuchSession;
  if (!MayActOn(d->second.level, doerId, t->second.level, sessionId)) return kRetPermissionDenied;
  *target = &t->second;
  return kRetOk;
}

int SessionTable::Close(uint64_t doerId, uint64_t sessionId) {
  std::lock_guard<std::mutex> lock(m_mutex);
  Session* target = nullptr;
  int ret = Resolve(doerId, sessionId, &target);
  if (ret == kRetOk) m_sessions.erase(sessionId);
  return ret;
}

int SessionTable::ChangeSubscriptions(uint64_t doerId, uint64_t sessionId, TRAP_TYPE type,
                                      const SubscriptionChange& change) {
  if (!Subscribable(type)) return kRetBadArgument;
  std::lock_guard<std::mutex> lock(m_mutex);
  Session* s = nullptr;
  int ret = Resolve(doerId, sessionId, &s);
  if (ret != kRetOk) return ret;
  return change(*s, s->subscribed[type]);
}

int SessionTable::Subscribe(uint64_t doerId, uint64_t sessionId, TRAP_TYPE type, uint64_t msgId) {
  return ChangeSubscriptions(doerId, sessionId, type, [&](Session& s, std::vector<uint64_t>& ids) {
    // Subscribing twice is not an error, and must not use up the session's allowance.
    if (std::find(ids.begin(), ids.end(), msgId) != ids.end()) return kRetOk;
    if (s.subscriptionCount >= m_limits.maxSubscriptions) return kRetSubscriptionLimit;
    ids.push_back(msgId);
    ++s.subscriptionCount;
    return kRetOk;
  });
}

int SessionTable::Unsubscribe(uint64_t doerId, uint64_t sessionId, TRAP_TYPE type, uint64_t msgId) {
  return ChangeSubscriptions(doerId, sessionId, type, [&](Session& s, std::vector<uint64_t>& ids) {
    auto it = std::find(ids.begin(), ids.end(), msgId);
    if (it == ids.end()) return kRetNotSubscribed;
    ids.erase(it);
    --s.subscriptionCount;
    return kRetOk;
  });
}

int SessionTable::SetTrapEnabled(uint64_t doerId, uint64_t sessionId, bool enabled) {
  std::lock_guard<std::mutex> lock(m_mutex);
  Session* s = nullptr;
  int ret = Resolve(doerId, sessionId, &s);
  if (ret == kRetOk) s->trapEnabled = enabled;
  return ret;
}

int SessionTable::SetReceiver(uint64_t doerId, uint64_t sessionId, const std::string& destination) {
  std::lock_guard<std::mutex> lock(m_mutex);
  Session* s = nullptr;
  int ret = Resolve(doerId, sessionId, &s);
  if (ret == kRetOk) s->destination = destination;
  return ret;
}

int SessionTable::Get(uint64_t doerId, uint64_t sessionId, MONITOR_SESSION_STATUS* status) {
  std::lock_guard<std::mutex> lock(m_mutex);
  Session* s = nullptr;
  int ret = Resolve(doerId, sessionId, &s);
  if (ret != kRetOk) return ret;
  status->trapEnabled = s->trapEnabled;
  for (size_t t = 0; t < TRAP_TYPE_NUM; ++t) status->subscribedTraps[t] = s->subscribed[t];
  status->trapReceiverHost = s->destination;
  return kRetOk;
}

int SessionTable::List(uint64_t doerId, std::vector<uint64_t>* ids) {
  std::lock_guard<std::mutex> lock(m_mutex);
  auto d = m_sessions.find(doerId);
  if (d == m_sessions.end()) return kRetNoSuchSession;
  ids->clear();
  for (const auto& entry : m_sessions) {
    if (MayActOn(d->second.level, doerId, entry.second.level, entry.first)) {
      ids->push_back(entry.first);
    }
  }
  return kRetOk;
}

int SessionTable::CheckPrivileged(uint64_t doerId) {
  std::lock_guard<std::mutex> lock(m_mutex);
  auto d = m_sessions.find(doerId);
  if (d == m_sessions.end()) return kRetNoSuchSession;
  return d->second.level == SessionLevel::kGuest ? kRetPermissionDenied : kRetOk;
}

std::vector<DeliveringSession> SessionTable::Delivering() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  std::vector<DeliveringSession> out;
  for (const auto& entry : m_sessions) {
    const Session& s = entry.second;
    if (!s.trapEnabled || s.destination.empty() || s.subscriptionCount == 0) continue;
    DeliveringSession d;
    d.id = entry.first;
    d.destination = s.destination;
    for (size_t t = 0; t < TRAP_TYPE_NUM; ++t) {
      for (uint64_t msgId : s.subscribed[t]) {
        d.subscriptions.emplace_back(static_cast<TRAP_TYPE>(t), msgId);
      }
    }
    out.push_back(std::move(d));
  }
  return out;
}

size_t SessionTable::Size() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_sessions.size();
}

}  // namespace hal_emulator
