// Makes this process the trap destination of one monitor session: a local socket server and a trap
// callback registered with the service, both under one destination name (the session id in
// decimal followed by the server name). Every trap packet that arrives by either road is parsed
// and handed to `trapHandler`.
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "libtidewatch/api/monitor_types.h"
#include "libtidewatch/transport/client_callbacks.h"
#include "libtidewatch/transport/mcp_info.h"
#include "libtidewatch/transport/mcp_receiver.h"
#include "libtidewatch/transport/socket_listener.h"

namespace libtidewatch {

// Called once per trap packet, on the thread that delivered it (the listener's thread or a platform
// callback thread). `data` is valid only during the call; `time` is always 0. `length` is the
// trap record's own length field: a damaged record can claim more bytes than were delivered, so a
// handler that reads the data must not trust it beyond what its sender could have sent.
using TrapHandler = void (*)(void* context, unsigned int time, TRAP_TYPE type, unsigned long length,
                             const unsigned char* data, unsigned long discardCount);

// Called, on the same thread and serialised with the trap handler, when every trap that had
// arrived has been handed to the trap handler: after the traps of one read of a connection, or of
// one callback. A handler that buffers what it makes of traps flushes here, so that a burst goes
// out in large writes while a lone trap still goes out at once.
using TrapDrainHandler = void (*)(void* context);

// One trap delivery as it arrived, for a handler that keeps traps whole or must know what the
// service said was lost with each one. Every pointer is valid only during the call.
struct TrapDelivery {
  bool parsed = false;  // the raw data parsed; otherwise the type is NONE, no record
  TRAP_TYPE type = TRAP_TYPE_NONE;
  unsigned long length = 0;         // the record's own length field
  const uint8_t* record = nullptr;  // type, length and payload, as far as they arrived
  size_t recordSize = 0;
  bool hasDiscards = false;               // the delivery closed with a discard-info record
  uint32_t discards[TRAP_TYPE_NUM] = {};  // traps of each type dropped before this one
};

// Called once per trap packet like TrapHandler, with the delivery as it arrived.
using TrapDeliveryHandler = void (*)(void* context, const TrapDelivery& delivery);

// The socket road is always served; the callback is registered with the AIDL service if it runs
// now, else with the HIDL one if that runs, else with none (no retry, no death watch; an owner that
// wants the callback back calls RegisterCallback). Calls of the handlers are serialised by the
// receiver, whichever road they come by.
class MonitorTrapReceiver : public PayloadHandlerInterface {
 public:
  // A null `serverName` counts as empty.
  MonitorTrapReceiver(unsigned long sessionId, const char* serverName);
  // Detaches both callbacks (the service may keep calling them; they then refuse the data) and
  // stops the listener before the receiver goes. The registration itself is not withdrawn.
  ~MonitorTrapReceiver() override;
  MonitorTrapReceiver(const MonitorTrapReceiver&) = delete;
  MonitorTrapReceiver& operator=(const MonitorTrapReceiver&) = delete;

  // Parses one trap packet and calls the handlers; never answers (`out` stays empty).
  bool ProcessPayload(const MCPInfo& in, MCPInfo& out) override;
  // Calls the drain handler.
  void DeliveryDone() override;

  // Whether the socket road is served: false when another process holds the destination name.
  bool SocketReady() const { return m_listener.Listening(); }
  // Whether a callback is registered and the service has not let it go since (a host service
  // drops a callback that answers too late, and every callback when it dies).
  bool CallbackAlive() const;
  // Registers a fresh callback with the service running now, as the constructor does; the earlier
  // one is detached. True when the service took it. Not to be called concurrently with itself.
  bool RegisterCallback();

  // Assigned by the owner at any time, also while traps arrive: null drops packets. Atomic so
  // that the delivering threads see the assignment cleanly.
  std::atomic<TrapHandler> trapHandler{nullptr};
  std::atomic<TrapDrainHandler> drainHandler{nullptr};        // null: not called
  std::atomic<TrapDeliveryHandler> deliveryHandler{nullptr};  // called after trapHandler
  std::atomic<void*> userData{nullptr};                       // passed as every handler's context

 private:
  SocketListener m_listener;
  MCPReceiver m_mcpReceiver;
  std::shared_ptr<
      vendor::velora::hardware::tidewatch::V1_0::implementation::TidewatchClientCallback>
      m_hidlCallback;
  std::shared_ptr<aidl::vendor::velora::hardware::tidewatch::AIDLTidewatchClientCallback>
      m_aidlCallback;
  std::string m_destination;
  const ClientCallbackBase* m_registered = nullptr;  // the callback the service took, if any
};

}  // namespace libtidewatch
