// Wakes the capture's main thread from a signal handler or a delivering thread: a non-blocking
// pipe whose read end the main thread waits on with a time-out.
#pragma once

namespace capture {

class Wakeup {
 public:
  Wakeup();
  ~Wakeup();
  Wakeup(const Wakeup&) = delete;
  Wakeup& operator=(const Wakeup&) = delete;

  bool ok() const { return m_fds[0] >= 0; }
  // Async-signal-safe; never blocks (a full pipe already holds a wake-up).
  void Notify() const;
  // Waits until notified or `timeoutMs` passed, and takes every pending wake-up; true when woken.
  bool Wait(int timeoutMs) const;

 private:
  int m_fds[2] = {-1, -1};
};

}  // namespace capture
