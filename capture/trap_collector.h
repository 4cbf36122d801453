// Turns the trap deliveries of the receiver into captured traps: numbers them, stamps them with
// the host's receive time, decodes them by the layout, counts them, and hands each to every sink.
// It also tells the main thread when the capture should end: the trap limit was reached, or a
// sink's output failed.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <vector>

#include "capture/capture_stats.h"
#include "capture/pcapng_output.h"
#include "capture/trap_sink.h"
#include "capture/wakeup.h"
#include "libtidewatch/trap/captured_trap.h"
#include "libtidewatch/trap/monitor_trap_receiver.h"
#include "libtidewatch/trap/trap_decoder.h"

namespace capture {

class TrapCollector {
 public:
  // `decoder` and `wakeup` are not owned and must outlive the collector. `limit` 0: no limit.
  TrapCollector(const libtidewatch::TrapDecoder& decoder, uint64_t limit, const Wakeup& wakeup);

  // Not owned; added before the first trap arrives.
  void AddSink(TrapSink* sink) { m_sinks.push_back(sink); }
  // The capture file (not owned), set before the first trap arrives. Each trap goes there before
  // the sinks, so that they can show what the file lost just before it (CapturedTrap::toolDrops).
  void SetFile(PcapngOutput* file) { m_file = file; }

  // Makes `receiver` deliver here. Detach it (or destroy it) before the collector goes.
  void Attach(libtidewatch::MonitorTrapReceiver* receiver);
  static void Detach(libtidewatch::MonitorTrapReceiver* receiver);

  // The receiver's handlers; `context` is the collector.
  static void OnDelivery(void* context, const libtidewatch::TrapDelivery& delivery);
  static void OnDrained(void* context);

  // Whether the capture should end: the limit was reached, or a sink or the file failed.
  bool Done() const {
    return m_done.load(std::memory_order_acquire) || (m_file != nullptr && m_file->Failed());
  }
  // For the progress line, without taking the lock.
  uint64_t traps() const { return m_trapCount.load(std::memory_order_relaxed); }
  uint64_t dropped() const { return m_droppedCount.load(std::memory_order_relaxed); }
  // A copy, taken under the lock.
  CaptureStats Stats() const;
  // Ends every sink and the file; false when one of them failed.
  bool FinishSinks();

 private:
  void Deliver(const libtidewatch::TrapDelivery& delivery);
  void Drained();
  void CheckSinks();

  const libtidewatch::TrapDecoder& m_decoder;
  const uint64_t m_limit;
  const Wakeup& m_wakeup;
  std::vector<TrapSink*> m_sinks;
  PcapngOutput* m_file = nullptr;

  mutable std::mutex m_lock;          // deliveries come by the listener thread and callback threads
  libtidewatch::CapturedTrap m_trap;  // reused, so that decoding allocates nothing per trap
  CaptureStats m_stats;
  bool m_pendingOutput = false;
  std::atomic<bool> m_done{false};
  std::atomic<uint64_t> m_trapCount{0};
  std::atomic<uint64_t> m_droppedCount{0};
};

}  // namespace capture
