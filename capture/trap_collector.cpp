#include "capture/trap_collector.h"

#include <time.h>

#include <cstring>

namespace capture {
namespace {

constexpr size_t kRecordHeaderSize = 5;  // type (1) and length (4) before the payload

int64_t NowUs() {
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

}  // namespace

TrapCollector::TrapCollector(const libtidewatch::TrapDecoder& decoder, uint64_t limit,
                             const Wakeup& wakeup)
    : m_decoder(decoder), m_limit(limit), m_wakeup(wakeup) {}

void TrapCollector::Attach(libtidewatch::MonitorTrapReceiver* receiver) {
  receiver->userData = this;
  receiver->deliveryHandler = &TrapCollector::OnDelivery;
  receiver->drainHandler = &TrapCollector::OnDrained;
}

void TrapCollector::Detach(libtidewatch::MonitorTrapReceiver* receiver) {
  receiver->deliveryHandler = nullptr;
  receiver->drainHandler = nullptr;
}

void TrapCollector::OnDelivery(void* context, const libtidewatch::TrapDelivery& delivery) {
  static_cast<TrapCollector*>(context)->Deliver(delivery);
}

void TrapCollector::OnDrained(void* context) { static_cast<TrapCollector*>(context)->Drained(); }

void TrapCollector::Deliver(const libtidewatch::TrapDelivery& delivery) {
  std::lock_guard<std::mutex> lock(m_lock);
  if (m_done.load(std::memory_order_relaxed)) return;
  libtidewatch::CapturedTrap& trap = m_trap;
  trap.seq = m_stats.traps() + 1;
  trap.timeUs = NowUs();
  trap.length = delivery.length;
  trap.record = {delivery.record, delivery.recordSize};
  memcpy(trap.discards, delivery.discards, sizeof(trap.discards));
  const uint8_t* payload = nullptr;
  size_t payloadSize = 0;
  if (delivery.recordSize >= kRecordHeaderSize) {
    payload = delivery.record + kRecordHeaderSize;
    payloadSize = delivery.recordSize - kRecordHeaderSize;
  }
  m_decoder.Decode(delivery.type, payload, payloadSize, &trap.decoded);
  // What arrived decides these, whatever the layout made of it.
  trap.decoded.type = delivery.type;
  trap.decoded.payload = {payload, payloadSize};
  trap.toolDrops = m_file != nullptr ? m_file->Take(trap) : 0;

  m_stats.Count(trap);
  for (TrapSink* sink : m_sinks) sink->OnTrap(trap);
  m_pendingOutput = true;
  m_trapCount.store(m_stats.traps(), std::memory_order_relaxed);
  m_droppedCount.store(m_stats.droppedTotal(), std::memory_order_relaxed);
  if (m_limit != 0 && m_stats.traps() >= m_limit) {
    // The last trap goes out now: no later delivery will drain it.
    for (TrapSink* sink : m_sinks) sink->OnDrained();
    if (m_file != nullptr) m_file->Flush();
    m_pendingOutput = false;
    m_done.store(true, std::memory_order_release);
    m_wakeup.Notify();
    return;
  }
  CheckSinks();
}

void TrapCollector::Drained() {
  std::lock_guard<std::mutex> lock(m_lock);
  if (!m_pendingOutput) return;
  m_pendingOutput = false;
  for (TrapSink* sink : m_sinks) sink->OnDrained();
  if (m_file != nullptr) m_file->Flush();
  CheckSinks();
}

void TrapCollector::CheckSinks() {
  for (TrapSink* sink : m_sinks) {
    if (sink->Failed()) {
      m_done.store(true, std::memory_order_release);
      m_wakeup.Notify();
      return;
    }
  }
}

CaptureStats TrapCollector::Stats() const {
  std::lock_guard<std::mutex> lock(m_lock);
  return m_stats;
}

bool TrapCollector::FinishSinks() {
  std::lock_guard<std::mutex> lock(m_lock);
  bool ok = true;
  for (TrapSink* sink : m_sinks) ok = sink->Finish() && ok;
  if (m_file != nullptr) ok = m_file->Finish() && ok;
  return ok;
}

}  // namespace capture
