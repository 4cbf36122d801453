// The capture's monitor session on the service, from start to end: creates it (or adopts one
// given by id), subscribes the selection, starts the trap receiver on both roads under a name of
// its own, names it as the session's receiver and only then enables traps, so that the first trap
// finds the receiver ready. At the end it disables traps and closes the session it created.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "capture/message_selection.h"
#include "capture/trap_collector.h"
#include "libtidewatch/api/json_cmd_encoder.h"
#include "libtidewatch/api/monitor_cmd_proxy.h"
#include "libtidewatch/trap/monitor_trap_receiver.h"

namespace capture {

using CmdProxy = libtidewatch::MonitorCmdProxy<libtidewatch::JsonCmdEncoder>;

struct SessionPlan {
  bool hasSecret = false;
  std::string secret;
  uint64_t existingSession = 0;  // 0: create one
  std::vector<Subscription> subscriptions;
  std::string receiverName;  // the server name; the destination is the session id followed by it
};

class CaptureSession {
 public:
  enum class OpenResult { kOk, kNoService, kFailed };
  enum class Health { kAlive, kGone };

  // `proxy` and `collector` are not owned and outlive the session.
  CaptureSession(CmdProxy* proxy, TrapCollector* collector, SessionPlan plan);
  // Leaves the service as Close would have, if it was not called.
  ~CaptureSession();
  CaptureSession(const CaptureSession&) = delete;
  CaptureSession& operator=(const CaptureSession&) = delete;

  // Sets the session up. On failure `*error` says why in words a user can act on, and whatever
  // was set up is undone. An existing session given by id is adopted only on the first Open;
  // later ones (after the service restarted) create a session of their own.
  OpenResult Open(std::string* error);

  // Asks the service about the session over the command link: gone when the link fails or the
  // service no longer knows the session (it restarted in between).
  Health Check();
  // Registers the trap callback again when the service has dropped it (it does so to a callback
  // that answers late) while the session lives on; the socket road is served meanwhile.
  void KeepCallback();
  bool CallbackAlive() const { return m_receiver != nullptr && m_receiver->CallbackAlive(); }

  // After the service died: stops the receiver and forgets the session, which died with it.
  void Abandon();
  // Disables traps, stops the receiver and closes the session if it created it. Says what became
  // of the session, for the summary ("session 7 closed").
  std::string Close();

  uint64_t sessionId() const { return m_sessionId; }
  std::string destination() const;

 private:
  OpenResult Fail(std::string* error, const std::string& text, OpenResult result);
  void StopReceiver();

  CmdProxy* m_proxy;
  TrapCollector* m_collector;
  SessionPlan m_plan;
  bool m_adopted = false;    // the plan's existing session was taken once
  uint64_t m_sessionId = 0;  // 0: none
  bool m_owned = false;      // created here, so closed here
  std::unique_ptr<libtidewatch::MonitorTrapReceiver> m_receiver;
};

// What a service result code means, for error messages.
std::string ResultText(int32_t result);

}  // namespace capture
