#include "capture/capture_session.h"

#include <unistd.h>

#include "libtidewatch/platform/abstract_socket.h"

namespace capture {
namespace {

using libtidewatch::MONITOR_RESULT_SEND_FAILED;

constexpr int32_t kNoSuchSession = 6;
constexpr int32_t kSecretRefused = 8;

// Whether a process already listens on abstract socket `name`. Checked before the receiver is
// made, because making it also registers the callback under that name, which would take the
// other process's callback away from it.
bool NameTaken(const std::string& name) {
  const int fd = libtidewatch::ConnectAbstract(name);
  if (fd < 0) return false;
  close(fd);
  return true;
}

std::string SubscriptionText(const Subscription& s) {
  return std::string(libtidewatch::ToTrapStr(s.type)) + " message " + std::to_string(s.msgId);
}

}  // namespace

std::string ResultText(int32_t result) {
  static const char* const kTexts[] = {
      "success",
      "the request was not a command packet",
      "the request was not JSON",
      "an argument was refused",
      "no such command",
      "the command version is not supported",
      "no such session",
      "not allowed for this session",
      "the secret was refused",
      "the service could not be reached",
      "the service's reply could not be read",
      "the service holds as many sessions as it may",
      "the session holds as many subscriptions as it may",
      "not subscribed",
      "not supported by this service",
      "the reply was too long",
  };
  const std::string number = "result " + std::to_string(result);
  if (result < 0 || static_cast<size_t>(result) >= sizeof(kTexts) / sizeof(kTexts[0])) {
    return number;
  }
  return std::string(kTexts[result]) + " (" + number + ")";
}

CaptureSession::CaptureSession(CmdProxy* proxy, TrapCollector* collector, SessionPlan plan)
    : m_proxy(proxy), m_collector(collector), m_plan(std::move(plan)) {}

CaptureSession::~CaptureSession() { Close(); }

std::string CaptureSession::destination() const {
  return std::to_string(m_sessionId) + m_plan.receiverName;
}

CaptureSession::OpenResult CaptureSession::Fail(std::string* error, const std::string& text,
                                                OpenResult result) {
  *error = text;
  Close();
  return result;
}

CaptureSession::OpenResult CaptureSession::Open(std::string* error) {
  if (m_plan.existingSession != 0 && !m_adopted) {
    m_adopted = true;
    m_sessionId = m_plan.existingSession;
    m_owned = false;
    libtidewatch::MONITOR_SESSION_STATUS status;
    const int32_t r = m_proxy->GetSession(0, m_sessionId, status);
    if (r == MONITOR_RESULT_SEND_FAILED) {
      m_sessionId = 0;
      return Fail(error, "cannot reach the modem-monitor service: " + ResultText(r),
                  OpenResult::kNoService);
    }
    if (r != 0) {
      const uint64_t id = m_sessionId;
      m_sessionId = 0;
      return Fail(error, "cannot use session " + std::to_string(id) + ": " + ResultText(r),
                  OpenResult::kFailed);
    }
  } else {
    uint64_t id = 0;
    const int32_t r =
        m_proxy->CreateSession(m_plan.hasSecret ? m_plan.secret.c_str() : nullptr, &id);
    if (r == MONITOR_RESULT_SEND_FAILED) {
      return Fail(error,
                  "cannot reach the modem-monitor service: it is not running or does not answer",
                  OpenResult::kNoService);
    }
    if (r == kSecretRefused) {
      return Fail(error, "the service refused the secret given with --secret", OpenResult::kFailed);
    }
    if (r != 0) {
      return Fail(error, "cannot create a session: " + ResultText(r), OpenResult::kFailed);
    }
    m_sessionId = id;
    m_owned = true;
  }

  for (const Subscription& s : m_plan.subscriptions) {
    const int32_t r = m_proxy->SubscribeTrap(0, m_sessionId, s.type, s.msgId, false);
    if (r != 0) {
      return Fail(error, "cannot subscribe " + SubscriptionText(s) + ": " + ResultText(r),
                  r == MONITOR_RESULT_SEND_FAILED ? OpenResult::kNoService : OpenResult::kFailed);
    }
  }

  const std::string name = destination();
  if (NameTaken(name)) {
    return Fail(error,
                "the receiver name " + name +
                    " is taken: another process listens on it (choose another with "
                    "--receiver-name)",
                OpenResult::kFailed);
  }
  m_receiver =
      std::make_unique<libtidewatch::MonitorTrapReceiver>(m_sessionId, m_plan.receiverName.c_str());
  if (!m_receiver->SocketReady()) {
    return Fail(error, "the receiver name " + name + " is taken: its socket cannot be bound",
                OpenResult::kFailed);
  }
  m_collector->Attach(m_receiver.get());

  int32_t r = m_proxy->SetTrapReceiver(0, m_sessionId, m_plan.receiverName.c_str());
  if (r != 0) {
    return Fail(error, "cannot name the trap receiver " + name + ": " + ResultText(r),
                r == MONITOR_RESULT_SEND_FAILED ? OpenResult::kNoService : OpenResult::kFailed);
  }
  r = m_proxy->EnableTrap(0, m_sessionId);
  if (r != 0) {
    return Fail(error, "cannot enable traps: " + ResultText(r),
                r == MONITOR_RESULT_SEND_FAILED ? OpenResult::kNoService : OpenResult::kFailed);
  }
  return OpenResult::kOk;
}

CaptureSession::Health CaptureSession::Check() {
  if (m_sessionId == 0) return Health::kGone;
  libtidewatch::MONITOR_SESSION_STATUS status;
  const int32_t r = m_proxy->GetSession(0, m_sessionId, status);
  return r == MONITOR_RESULT_SEND_FAILED || r == kNoSuchSession ? Health::kGone : Health::kAlive;
}

void CaptureSession::KeepCallback() {
  if (m_receiver != nullptr && !m_receiver->CallbackAlive()) m_receiver->RegisterCallback();
}

void CaptureSession::StopReceiver() {
  if (m_receiver == nullptr) return;
  TrapCollector::Detach(m_receiver.get());
  m_receiver.reset();
}

void CaptureSession::Abandon() {
  StopReceiver();
  m_sessionId = 0;
  m_owned = false;
}

std::string CaptureSession::Close() {
  if (m_sessionId == 0) {
    StopReceiver();
    return "";
  }
  const std::string id = std::to_string(m_sessionId);
  std::string outcome;
  if (m_owned) {
    // Disabled first, so that the service stops sending while the receiver still takes traps.
    m_proxy->DisableTrap(0, m_sessionId);
    StopReceiver();
    const int32_t r = m_proxy->CloseSession(0, m_sessionId);
    outcome = r == 0 ? "session " + id + " closed"
                     : "session " + id + " could not be closed: " + ResultText(r);
  } else {
    StopReceiver();
    outcome = "session " + id + " left open (given with --session)";
  }
  m_sessionId = 0;
  m_owned = false;
  return outcome;
}

}  // namespace capture
