// Carries one command packet at a time to the modem-monitor HAL service and brings back its reply
// packet. It prefers the AIDL generation of the service, falls back to HIDL, and reconnects when
// the service it holds dies.
#pragma once

#include <memory>
#include <mutex>
#include <vector>

#include "libtidewatch/platform/hal_service.h"
#include "libtidewatch/transport/data_queue.h"
#include "libtidewatch/transport/mcp_info.h"
#include "libtidewatch/transport/transmitter.h"

namespace libtidewatch {

// Thread-safe: Send calls are serialised, and a death notification may arrive on a platform thread
// at any time. Lock order: the send mutex, then the connection mutex. The object is large (it holds
// a 256 KiB queue); the command proxy keeps it as a member.
class HIDLMCPTransmitter : public Transmitter {
 public:
  static constexpr size_t kServerNameSize = 128;

  // Stores `serverName` (or "default" when null) and tries to connect before returning. The name
  // is kept for messages only; the service is always looked up under its fixed instance names.
  explicit HIDLMCPTransmitter(const char* serverName);
  ~HIDLMCPTransmitter() override;
  HIDLMCPTransmitter(const HIDLMCPTransmitter&) = delete;
  HIDLMCPTransmitter& operator=(const HIDLMCPTransmitter&) = delete;

  // Sends `request` (connecting first when no handle is held). When `reply` is not null, stores
  // there a packet allocated with new, owned by the caller, decoded from the bytes the service
  // answered with. The request and the reply share one buffer, so an empty answer leaves the
  // request there and the request itself is decoded as the reply.
  bool Send(const MCPInfo& request, MCPInfo** reply, volatile bool* stop) override;

  // Whether either service handle is held.
  bool CheckValid() override;

  // (Re)connects: AIDL through the blocking lookup first, HIDL "default" only when that fails.
  // Holds the connection mutex meanwhile, so a death notification waits for it.
  void connectTWDHIDL();

  // Reaction to the death of either service: drops both handles and reconnects, all under the
  // connection mutex, so a call in progress finishes first.
  void serviceDied();

  // Death callback of both recipients; `cookie` is the transmitter. A null cookie is ignored.
  static void deathHandler(void* cookie);

  const char* ServerName() const { return m_serverName; }

 private:
  // connectTWDHIDL for callers that hold the connection mutex already: the handles it replaces
  // are shared with the death handler, which runs on a platform thread.
  void ConnectLocked();
  // The HAL call under the connection mutex, with the reply bytes moved into m_mcpRAWData.
  bool CallService();
  void StoreReply(const std::vector<uint8_t>& replyData);

  char m_serverName[kServerNameSize];
  std::shared_ptr<HalService> m_hidlService;
  std::mutex m_connectionMutex;
  std::unique_ptr<HalDeathRecipient> m_hidlDeathRecipient;
  std::shared_ptr<HalService> m_aidlService;
  std::unique_ptr<HalDeathRecipient> m_aidlDeathRecipient;
  DataQueue m_mcpRAWData;
  std::mutex m_sendMutex;
  // Set by the destructor so that a death notification racing with it does not reconnect.
  bool m_closing = false;
};

}  // namespace libtidewatch
