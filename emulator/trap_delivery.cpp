#include "emulator/trap_delivery.h"

#include <chrono>
#include <set>
#include <system_error>
#include <utility>

#include "libtidewatch/platform/log.h"
#include "libtidewatch/transport/mcp_handler.h"
#include "libtidewatch/transport/mcp_info.h"

namespace hal_emulator {

using libtidewatch::DataQueue;
using libtidewatch::kMcpMaxPayload;
using libtidewatch::MCP_TYPE_TRAP;
using libtidewatch::MCPHandler;
using libtidewatch::MCPInfo;
namespace {

// How often callbacks are checked for clients that went away while no traps flow.
constexpr std::chrono::milliseconds kIdlePeriod(200);

}  // namespace

TrapDelivery::TrapDelivery(SessionTable* sessions, CallbackRegistry* callbacks, TrapSource source,
                           unsigned ratePerSecond)
    : m_sessions(sessions),
      m_callbacks(callbacks),
      m_source(std::move(source)),
      m_rate(ratePerSecond),
      m_queue(new DataQueue) {}

TrapDelivery::~TrapDelivery() { Stop(); }

bool TrapDelivery::Start() {
  m_stop = false;
  // The only exception this program can meet: thread creation failing for want of resources.
  try {
    m_thread = std::thread(&TrapDelivery::Run, this);
  } catch (const std::system_error& e) {
    TW_LOGE("cannot start the trap thread: %s", e.what());
    return false;
  }
  return true;
}

void TrapDelivery::Stop() {
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_stop = true;
  }
  m_wake.notify_all();
  if (m_thread.joinable()) m_thread.join();
}

void TrapDelivery::Run() {
  using Clock = std::chrono::steady_clock;
  const Clock::duration period =
      m_rate > 0 ? Clock::duration(std::chrono::seconds(1)) / m_rate : Clock::duration(kIdlePeriod);
  Clock::time_point next = Clock::now() + period;
  std::unique_lock<std::mutex> lock(m_mutex);
  while (!m_stop) {
    if (m_wake.wait_until(lock, next, [this] { return m_stop.load(); })) break;
    lock.unlock();
    m_callbacks->Prune();
    if (m_rate > 0) Tick();
    lock.lock();
    Clock::time_point now = Clock::now();
    next += period;
    // After a slow round (a receiver that timed out) carry on from now rather than bursting.
    if (next < now) next = now + period;
  }
}

void TrapDelivery::Tick() {
  std::vector<DeliveringSession> receiving = m_sessions->Delivering();
  for (const DeliveringSession& session : receiving) {
    if (m_stop) break;
    std::vector<uint8_t> raw;
    uint8_t type = 0;
    if (!m_source.Next(session, &raw, &type)) continue;
    DiscardCounter& discards = m_discards[session.destination];
    discards.AppendRecord(&raw);
    if (DeliverTo(session.destination, raw)) {
      discards.Reset();
    } else {
      discards.Count(type);
    }
  }
  ForgetUnused(receiving);
}

bool TrapDelivery::DeliverTo(const std::string& destination, const std::vector<uint8_t>& raw) {
  if (raw.empty() || raw.size() > kMcpMaxPayload) return false;
  MCPInfo packet;
  packet.SetData(MCP_TYPE_TRAP, raw.size(), raw.data(), false);
  m_queue->Reset();
  if (!MCPHandler::WriteToBuffer(*m_queue, packet, nullptr) || m_queue->size == 0) return false;

  switch (m_callbacks->Deliver(destination, m_queue->Front(), m_queue->size, &m_stop)) {
    case CallbackRegistry::Delivery::kDelivered:
      return true;
    case CallbackRegistry::Delivery::kRefused:
    case CallbackRegistry::Delivery::kFailed:
      return false;
    case CallbackRegistry::Delivery::kNoCallback:
      break;
  }
  std::unique_ptr<SocketDestination>& socket = m_sockets[destination];
  if (!socket) socket.reset(new SocketDestination(destination));
  return socket->Deliver(m_queue->Front(), m_queue->size);
}

void TrapDelivery::ForgetUnused(const std::vector<DeliveringSession>& receiving) {
  std::set<std::string> used;
  for (const DeliveringSession& s : receiving) used.insert(s.destination);
  for (auto it = m_sockets.begin(); it != m_sockets.end();) {
    it = used.count(it->first) != 0 ? std::next(it) : m_sockets.erase(it);
  }
  for (auto it = m_discards.begin(); it != m_discards.end();) {
    it = used.count(it->first) != 0 ? std::next(it) : m_discards.erase(it);
  }
  m_source.Retain(receiving);
}

}  // namespace hal_emulator
