// Death notification for one host service handle: the death recipient of the host platform, and
// the watcher that runs the handlers linked to a handle once its connection ends.
#pragma once

#include <memory>
#include <thread>

#include "libtidewatch/platform/hal_service.h"
#include "libtidewatch/platform/host/hal_link_socket.h"

namespace libtidewatch {

class HostHalDeathRecipient : public HalDeathRecipient {
 public:
  explicit HostHalDeathRecipient(HalDeathHandler handler) : m_handler(handler) {}
  HalDeathHandler handler() const { return m_handler; }

 private:
  const HalDeathHandler m_handler;
};

// Watches one connection for its end and then runs every linked handler once, on a thread of its
// own ("twd_hal_death", started by the first Link). The watcher polls for the peer's hang-up only,
// never for input, so it does not compete with the owner reading replies from the same socket.
//
// Destroying the watch disarms it: no handler starts afterwards, and a handler running on another
// thread is waited for, so the cookies may be freed as soon as the destructor returns. A handler
// may destroy the watch's owner (and with it the watch) from the watcher thread itself: the thread
// is then left to finish alone, touching nothing but the state it shares. A handler that blocks on
// something the destroying thread holds would deadlock; handlers must not wait on their handle's
// owner.
class HostDeathWatch {
 public:
  explicit HostDeathWatch(std::shared_ptr<HalLinkSocket> socket);
  ~HostDeathWatch();
  HostDeathWatch(const HostDeathWatch&) = delete;
  HostDeathWatch& operator=(const HostDeathWatch&) = delete;

  // Links `handler` with `cookie`. 0 when linked; non-zero when the connection has already been
  // reported dead, `handler` is null, or the watcher thread cannot be started.
  int Link(HalDeathHandler handler, void* cookie);

 private:
  struct State;
  static void Watch(std::shared_ptr<State> state);
  static void Fire(State* state);

  std::shared_ptr<State> m_state;
  std::thread m_thread;
};

}  // namespace libtidewatch
