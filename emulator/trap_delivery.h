// The trap thread: at the trap rate it gives every receiving session its next trap, as an MCP trap
// packet, through the callback registered under the session's destination name or else over the
// destination's own socket. Traps that cannot be delivered are counted per destination and
// reported in a discard-info record with the next trap that goes there.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "emulator/callback_registry.h"
#include "emulator/session_table.h"
#include "emulator/socket_destination.h"
#include "emulator/trap_records.h"
#include "emulator/trap_source.h"
#include "libtidewatch/transport/data_queue.h"

namespace hal_emulator {

class TrapDelivery {
 public:
  // `sessions` and `callbacks` must outlive this object. A `ratePerSecond` of 0 sends nothing.
  TrapDelivery(SessionTable* sessions, CallbackRegistry* callbacks, TrapSource source,
               unsigned ratePerSecond);
  ~TrapDelivery();
  TrapDelivery(const TrapDelivery&) = delete;
  TrapDelivery& operator=(const TrapDelivery&) = delete;

  // Starts the thread; false when it cannot be started.
  bool Start();
  // Ends the thread, cutting a delivery in progress short, and joins it.
  void Stop();

  // One round: a trap for every receiving session. The thread calls it; tests may call it
  // directly instead of starting the thread.
  void Tick();

 private:
  void Run();
  // Delivers one raw trap data buffer to `destination`; true when the receiver took it.
  bool DeliverTo(const std::string& destination, const std::vector<uint8_t>& raw);
  void ForgetUnused(const std::vector<DeliveringSession>& receiving);

  SessionTable* m_sessions;
  CallbackRegistry* m_callbacks;
  TrapSource m_source;
  unsigned m_rate;
  std::map<std::string, std::unique_ptr<SocketDestination>> m_sockets;
  std::map<std::string, DiscardCounter> m_discards;
  std::unique_ptr<libtidewatch::DataQueue> m_queue;

  std::atomic<bool> m_stop{false};
  std::mutex m_mutex;
  std::condition_variable m_wake;
  std::thread m_thread;
};

}  // namespace hal_emulator
