// The trap callbacks clients have registered over the host HAL link, by destination name, and the
// delivery of one trap to one of them: a TRAP frame out, its TRAP_RESULT awaited with a time-out.
// The command loop adopts connections; the trap thread delivers and prunes. A callback that breaks
// the protocol, vanishes or does not answer in time is dropped and its connection shut down.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "libtidewatch/platform/hal_link.h"

namespace hal_emulator {

class CallbackRegistry {
 public:
  enum class AdoptResult { kAdopted, kFull, kBroken };
  enum class Delivery { kNoCallback, kDelivered, kRefused, kFailed };

  CallbackRegistry(size_t maxCallbacks, int answerTimeoutMs);
  ~CallbackRegistry();
  CallbackRegistry(const CallbackRegistry&) = delete;
  CallbackRegistry& operator=(const CallbackRegistry&) = delete;

  // Makes the non-blocking connection `fd` the callback of `destination`, replacing (and shutting
  // down) an earlier one. `greeting`, the registration's answer, is sent first, so that no trap
  // can overtake it. On kAdopted the registry owns `fd`; on kFull the caller keeps it and nothing
  // was sent; on kBroken (the greeting could not be sent whole) the caller keeps it and should
  // close it.
  AdoptResult Adopt(const std::string& destination, int fd, const std::vector<uint8_t>& greeting);

  // Sends `trap` to the callback of `destination` and waits for its answer. `stop` (may be null)
  // cuts the wait short. Called by one thread at a time.
  Delivery Deliver(const std::string& destination, const uint8_t* trap, size_t len,
                   const std::atomic<bool>* stop);

  // Drops callbacks whose client has closed or sent something unasked. Same thread as Deliver.
  void Prune();

  bool Has(const std::string& destination) const;
  size_t Size() const;
  // Shuts every callback connection down and forgets them all.
  void Clear();

 private:
  struct Callback {
    explicit Callback(int fd) : fd(fd) {}
    ~Callback();
    const int fd;
    libtidewatch::HalLinkDecoder decoder;
  };

  bool SendFrame(const Callback& cb, const std::vector<uint8_t>& frame, int64_t deadlineMs,
                 const std::atomic<bool>* stop);
  Delivery AwaitAnswer(Callback* cb, int64_t deadlineMs, const std::atomic<bool>* stop);
  void Remove(const std::string& destination, const std::shared_ptr<Callback>& cb);

  const size_t m_maxCallbacks;
  const int m_answerTimeoutMs;
  mutable std::mutex m_mutex;
  std::map<std::string, std::shared_ptr<Callback>> m_callbacks;
};

}  // namespace hal_emulator
