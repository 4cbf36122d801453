// The host service handle: requests and answers as host HAL link frames on one connection.
#include "libtidewatch/platform/host/host_hal_service.h"

#include <errno.h>

#include <chrono>
#include <utility>

#include "libtidewatch/platform/hal_link.h"
#include "libtidewatch/platform/host/host_link_settings.h"
#include "libtidewatch/platform/host/host_trap_reader.h"
#include "libtidewatch/platform/log.h"

namespace libtidewatch {

HostHalService::HostHalService(HalGeneration generation, int fd)
    : m_generation(generation),
      m_socket(std::make_shared<HalLinkSocket>(fd)),
      m_deathWatch(m_socket) {}

HostHalService::~HostHalService() = default;

bool HostHalService::Usable(const char* what) const {
  if (m_callbackRegistered) {
    TW_LOGW("HAL link: %s on a trap callback connection", what);
    return false;
  }
  if (m_closed) {
    TW_LOGD("HAL link: %s on a closed connection", what);
    return false;
  }
  return true;
}

void HostHalService::Close() {
  m_closed = true;
  m_socket->Shutdown();
}

void HostHalService::TimedOut(uint8_t opcode, long timeoutMs) {
  TW_LOGE("HAL link: no answer to opcode 0x%02x within %ld ms (TIDEWATCH_HAL_CALL_TIMEOUT_MS)",
          opcode, timeoutMs);
  // A late answer would be taken for the answer to the next request: the connection is spent.
  Close();
}

bool HostHalService::Transact(uint8_t opcode, const uint8_t* payload, size_t len,
                              uint8_t answerOpcode, std::vector<uint8_t>* answer) {
  if (len > kHalLinkMaxPayload) {
    TW_LOGW("HAL link: request of %zu bytes is too long", len);
    return false;
  }
  // One deadline for the whole call, as a binder transaction is one call: a service that takes
  // the request and never answers, or answers half a frame, must not hold the caller forever.
  const long timeoutMs = HalCallTimeoutMs();
  const HalLinkDeadline deadline =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  if (!WriteHalLinkFrame(m_socket->fd(), opcode, payload, len, deadline)) {
    if (errno == ETIMEDOUT) {
      TimedOut(opcode, timeoutMs);
    } else {
      TW_LOGD("HAL link: cannot send to the service: the connection is gone");
      Close();
    }
    return false;
  }
  HalLinkFrame frame;
  switch (ReadHalLinkFrame(m_socket->fd(), &frame, deadline)) {
    case HalLinkReadResult::kFrame:
      break;
    case HalLinkReadResult::kTimeout:
      TimedOut(opcode, timeoutMs);
      return false;
    case HalLinkReadResult::kBadFrame:
      TW_LOGW("HAL link: the service sent a frame length out of range");
      Close();
      return false;
    case HalLinkReadResult::kClosed:
    case HalLinkReadResult::kError:
      TW_LOGD("HAL link: the service closed the connection before answering");
      Close();
      return false;
  }
  if (frame.opcode != answerOpcode || frame.payload.empty()) {
    TW_LOGW("HAL link: unexpected answer (opcode 0x%02x, %zu bytes) to opcode 0x%02x", frame.opcode,
            frame.payload.size(), opcode);
    Close();
    return false;
  }
  *answer = std::move(frame.payload);
  return true;
}

bool HostHalService::SendCommand(const uint8_t* request, size_t len, std::vector<uint8_t>* reply) {
  if (!Usable("command")) return false;
  std::vector<uint8_t> answer;
  if (!Transact(kHalLinkCommand, request, len, kHalLinkCommandResult, &answer)) return false;
  if (answer[0] != kHalLinkStatusOk) {
    TW_LOGD("HAL link: command failed with status %u", answer[0]);
    return false;
  }
  if (reply != nullptr) reply->assign(answer.begin() + 1, answer.end());
  return true;
}

bool HostHalService::RegisterTrapCallback(const std::string& destination,
                                          std::shared_ptr<HalCallbackTarget> target) {
  if (target == nullptr || !Usable("trap callback registration")) return false;
  std::vector<uint8_t> answer;
  if (!Transact(kHalLinkRegisterTrapCallback, reinterpret_cast<const uint8_t*>(destination.data()),
                destination.size(), kHalLinkRegisterResult, &answer)) {
    return false;
  }
  if (answer.size() != 1) {
    TW_LOGW("HAL link: registration answer of %zu bytes", answer.size());
    Close();
    return false;
  }
  if (answer[0] != kHalLinkStatusOk) {
    TW_LOGD("HAL link: trap callback registration failed with status %u", answer[0]);
    return false;
  }
  if (!HostTrapReader::Start(m_socket, std::move(target))) {
    // The service holds a callback nobody would serve; closing makes it drop the registration.
    Close();
    return false;
  }
  m_callbackRegistered = true;
  return true;
}

int HostHalService::LinkToDeath(HalDeathRecipient* recipient, void* cookie) {
  auto* host = dynamic_cast<HostHalDeathRecipient*>(recipient);
  if (host == nullptr) return -EINVAL;
  return m_deathWatch.Link(host->handler(), cookie);
}

}  // namespace libtidewatch
