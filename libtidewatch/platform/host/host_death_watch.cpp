// The host death watcher: a thread polling a HAL link socket for the service's hang-up.
#include "libtidewatch/platform/host/host_death_watch.h"

#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "libtidewatch/platform/log.h"

namespace libtidewatch {

// What the watch and its thread share; it lives until both have let go of it.
struct HostDeathWatch::State {
  explicit State(std::shared_ptr<HalLinkSocket> s) : socket(std::move(s)) {}
  ~State() {
    if (wakeFd >= 0) close(wakeFd);
  }

  const std::shared_ptr<HalLinkSocket> socket;
  int wakeFd = -1;  // an eventfd the owner signals to stop the thread without a death

  std::mutex mutex;
  std::condition_variable idle;  // signalled when `firing` turns false
  std::vector<std::pair<HalDeathHandler, void*>> links;
  bool armed = true;  // false once the owner has destroyed the watch
  bool dead = false;  // the death has been reported (or is being reported)
  bool firing = false;
  std::thread::id firingThread;
};

HostDeathWatch::HostDeathWatch(std::shared_ptr<HalLinkSocket> socket)
    : m_state(std::make_shared<State>(std::move(socket))) {}

HostDeathWatch::~HostDeathWatch() {
  const std::thread::id self = std::this_thread::get_id();
  bool inOwnHandler;
  {
    std::unique_lock<std::mutex> lock(m_state->mutex);
    m_state->armed = false;
    inOwnHandler = m_state->firing && m_state->firingThread == self;
    // A handler running elsewhere may still use its cookie; wait for it to return.
    m_state->idle.wait(lock, [&] { return !m_state->firing || inOwnHandler; });
  }
  if (!m_thread.joinable()) return;
  if (inOwnHandler) {
    // Destroyed from one of our own handlers: the thread cannot join itself. It holds its own
    // reference to the state and leaves as soon as the handler returns.
    m_thread.detach();
    return;
  }
  uint64_t one = 1;
  ssize_t n;
  do {
    n = write(m_state->wakeFd, &one, sizeof(one));
  } while (n < 0 && errno == EINTR);
  m_thread.join();
}

int HostDeathWatch::Link(HalDeathHandler handler, void* cookie) {
  if (handler == nullptr) return -EINVAL;
  // The thread is started under the lock, so that a handler which destroys this watch at once
  // (the connection may be dead already) sees m_thread assigned.
  std::lock_guard<std::mutex> lock(m_state->mutex);
  if (m_state->dead) return -EPIPE;
  if (!m_thread.joinable()) {
    std::string failure;
    if (m_state->wakeFd < 0) m_state->wakeFd = eventfd(0, EFD_CLOEXEC);
    if (m_state->wakeFd < 0) {
      failure = strerror(errno);
    } else {
      try {
        m_thread = std::thread(&HostDeathWatch::Watch, m_state);
      } catch (const std::system_error& e) {
        failure = e.what();
      }
    }
    if (!m_thread.joinable()) {
      TW_LOGW("HAL link: cannot watch the service for death: %s", failure.c_str());
      return -EAGAIN;
    }
  }
  m_state->links.emplace_back(handler, cookie);
  return 0;
}

void HostDeathWatch::Watch(std::shared_ptr<State> state) {
  pthread_setname_np(pthread_self(), "twd_hal_death");
  pollfd fds[2] = {};
  fds[0].fd = state->socket->fd();
  fds[0].events = POLLRDHUP;  // POLLHUP and POLLERR are always reported
  fds[1].fd = state->wakeFd;
  fds[1].events = POLLIN;
  for (;;) {
    int n = poll(fds, 2, -1);
    if (n < 0) {
      if (errno == EINTR) continue;
      TW_LOGW("HAL link: death watch poll failed: %s", strerror(errno));
      return;
    }
    if (fds[1].revents != 0) return;
    if ((fds[0].revents & (POLLRDHUP | POLLHUP | POLLERR | POLLNVAL)) != 0) break;
  }
  TW_LOGD("HAL link: service connection closed");
  Fire(state.get());
}

void HostDeathWatch::Fire(State* state) {
  std::unique_lock<std::mutex> lock(state->mutex);
  if (!state->armed) return;
  state->dead = true;
  state->firing = true;
  state->firingThread = std::this_thread::get_id();
  // No link is added once `dead` is set, so indexes stay valid while the lock is released. A
  // handler that destroys the handle disarms the rest: their cookies may already be gone.
  for (size_t i = 0; i < state->links.size() && state->armed; ++i) {
    std::pair<HalDeathHandler, void*> link = state->links[i];
    lock.unlock();
    link.first(link.second);
    lock.lock();
  }
  state->firing = false;
  state->idle.notify_all();
}

}  // namespace libtidewatch
