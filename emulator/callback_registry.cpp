#include "emulator/callback_registry.h"

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <utility>

#include "libtidewatch/platform/log.h"

namespace hal_emulator {

using libtidewatch::AppendHalLinkFrame;
using libtidewatch::HalLinkFrame;
using libtidewatch::kHalLinkTrap;
using libtidewatch::kHalLinkTrapResult;
namespace {

// Waits are cut into slices so that a stop request is seen soon.
constexpr int kSliceMs = 50;

int64_t NowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// Polls `fd` for `events` until the deadline; true when it became ready (or errored, which the
// following call then reports).
bool WaitReady(int fd, short events, int64_t deadlineMs, const std::atomic<bool>* stop) {
  for (;;) {
    if (stop != nullptr && stop->load()) return false;
    int64_t left = deadlineMs - NowMs();
    if (left <= 0) return false;
    pollfd p{fd, events, 0};
    int n = poll(&p, 1, static_cast<int>(std::min<int64_t>(left, kSliceMs)));
    if (n > 0) return true;
    if (n < 0 && errno != EINTR) return false;
  }
}

}  // namespace

CallbackRegistry::Callback::~Callback() { close(fd); }

CallbackRegistry::CallbackRegistry(size_t maxCallbacks, int answerTimeoutMs)
    : m_maxCallbacks(maxCallbacks), m_answerTimeoutMs(answerTimeoutMs) {}

CallbackRegistry::~CallbackRegistry() { Clear(); }

CallbackRegistry::AdoptResult CallbackRegistry::Adopt(const std::string& destination, int fd,
                                                      const std::vector<uint8_t>& greeting) {
  std::lock_guard<std::mutex> lock(m_mutex);
  auto it = m_callbacks.find(destination);
  if (it == m_callbacks.end() && m_callbacks.size() >= m_maxCallbacks) return AdoptResult::kFull;
  // The client waits for this answer before it reads anything else, so its socket buffer is
  // empty and a short answer goes out in one send.
  ssize_t n = send(fd, greeting.data(), greeting.size(), MSG_NOSIGNAL);
  if (n != static_cast<ssize_t>(greeting.size())) return AdoptResult::kBroken;
  if (it != m_callbacks.end()) {
    shutdown(it->second->fd, SHUT_RDWR);
    it->second = std::make_shared<Callback>(fd);
  } else {
    m_callbacks.emplace(destination, std::make_shared<Callback>(fd));
  }
  TW_LOGI("trap callback registered for %s", destination.c_str());
  return AdoptResult::kAdopted;
}

bool CallbackRegistry::SendFrame(const Callback& cb, const std::vector<uint8_t>& frame,
                                 int64_t deadlineMs, const std::atomic<bool>* stop) {
  size_t done = 0;
  while (done < frame.size()) {
    ssize_t n = send(cb.fd, frame.data() + done, frame.size() - done, MSG_NOSIGNAL);
    if (n > 0) {
      done += static_cast<size_t>(n);
    } else if (n < 0 && errno == EINTR) {
      continue;
    } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      if (!WaitReady(cb.fd, POLLOUT, deadlineMs, stop)) return false;
    } else {
      return false;
    }
  }
  return true;
}

CallbackRegistry::Delivery CallbackRegistry::AwaitAnswer(Callback* cb, int64_t deadlineMs,
                                                         const std::atomic<bool>* stop) {
  HalLinkFrame answer;
  while (!cb->decoder.Next(&answer)) {
    if (!WaitReady(cb->fd, POLLIN, deadlineMs, stop)) return Delivery::kFailed;
    uint8_t buf[512];
    ssize_t n = recv(cb->fd, buf, sizeof(buf), 0);
    if (n < 0 && (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK)) continue;
    if (n <= 0 || !cb->decoder.Feed(buf, static_cast<size_t>(n))) return Delivery::kFailed;
  }
  // Exactly one answer of one byte, and nothing after it: the client sends nothing unasked.
  if (answer.opcode != kHalLinkTrapResult || answer.payload.size() != 1 || answer.payload[0] > 1 ||
      cb->decoder.pending() != 0) {
    return Delivery::kFailed;
  }
  HalLinkFrame extra;
  if (cb->decoder.Next(&extra)) return Delivery::kFailed;
  return answer.payload[0] == 1 ? Delivery::kDelivered : Delivery::kRefused;
}

CallbackRegistry::Delivery CallbackRegistry::Deliver(const std::string& destination,
                                                     const uint8_t* trap, size_t len,
                                                     const std::atomic<bool>* stop) {
  std::shared_ptr<Callback> cb;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_callbacks.find(destination);
    if (it == m_callbacks.end()) return Delivery::kNoCallback;
    cb = it->second;
  }
  std::vector<uint8_t> frame;
  if (!AppendHalLinkFrame(kHalLinkTrap, trap, len, &frame)) return Delivery::kFailed;
  int64_t deadline = NowMs() + m_answerTimeoutMs;
  Delivery result = SendFrame(*cb, frame, deadline, stop) ? AwaitAnswer(cb.get(), deadline, stop)
                                                          : Delivery::kFailed;
  if (result == Delivery::kFailed) {
    TW_LOGW("trap callback of %s failed; dropping it", destination.c_str());
    Remove(destination, cb);
  }
  return result;
}

void CallbackRegistry::Prune() {
  std::vector<std::pair<std::string, std::shared_ptr<Callback>>> all;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    all.assign(m_callbacks.begin(), m_callbacks.end());
  }
  for (const auto& entry : all) {
    pollfd p{entry.second->fd, POLLIN, 0};
    // Between deliveries a callback connection is silent: readable means closed or misbehaving.
    if (poll(&p, 1, 0) > 0) {
      TW_LOGI("trap callback of %s went away", entry.first.c_str());
      Remove(entry.first, entry.second);
    }
  }
}

void CallbackRegistry::Remove(const std::string& destination, const std::shared_ptr<Callback>& cb) {
  shutdown(cb->fd, SHUT_RDWR);
  std::lock_guard<std::mutex> lock(m_mutex);
  auto it = m_callbacks.find(destination);
  if (it != m_callbacks.end() && it->second == cb) m_callbacks.erase(it);
}

bool CallbackRegistry::Has(const std::string& destination) const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_callbacks.count(destination) != 0;
}

size_t CallbackRegistry::Size() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_callbacks.size();
}

void CallbackRegistry::Clear() {
  std::lock_guard<std::mutex> lock(m_mutex);
  for (auto& entry : m_callbacks) shutdown(entry.second->fd, SHUT_RDWR);
  m_callbacks.clear();
}

}  // namespace hal_emulator
