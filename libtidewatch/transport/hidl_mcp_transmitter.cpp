#include "libtidewatch/transport/hidl_mcp_transmitter.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "libtidewatch/platform/log.h"
#include "libtidewatch/transport/mcp_handler.h"

namespace libtidewatch {

HIDLMCPTransmitter::HIDLMCPTransmitter(const char* serverName)
    : m_hidlDeathRecipient(NewHalDeathRecipient(&HIDLMCPTransmitter::deathHandler)),
      m_aidlDeathRecipient(NewHalDeathRecipient(&HIDLMCPTransmitter::deathHandler)) {
  memset(m_serverName, 0, sizeof(m_serverName));
  if (serverName != nullptr) {
    if (snprintf(m_serverName, sizeof(m_serverName), "%s", serverName) < 0) {
      TW_LOGE("m_serverName snprintf,erno=%d.", errno);
    }
  } else if (snprintf(m_serverName, sizeof(m_serverName), "%s", "default") < 0) {
    TW_LOGE("default snprintf,erno=%d.", errno);
  }
  // A death notification may already arrive while this connects.
  connectTWDHIDL();
}

HIDLMCPTransmitter::~HIDLMCPTransmitter() {
  std::shared_ptr<HalService> aidl;
  std::shared_ptr<HalService> hidl;
  {
    std::lock_guard<std::mutex> lock(m_connectionMutex);
    m_closing = true;
    aidl = std::move(m_aidlService);
    hidl = std::move(m_hidlService);
  }
  // Released outside the lock: closing a handle may wait for a death handler of ours that is
  // already running, and that handler takes the lock (then returns, seeing m_closing). The death
  // recipients, destroyed with the members, outlive both handles.
  aidl.reset();
  hidl.reset();
}

void HIDLMCPTransmitter::connectTWDHIDL() {
  std::lock_guard<std::mutex> lock(m_connectionMutex);
  ConnectLocked();
}

void HIDLMCPTransmitter::ConnectLocked() {
  m_aidlService = GetAidlHalService();
  if (m_aidlService != nullptr) {
    if (m_aidlService->LinkToDeath(m_aidlDeathRecipient.get(), this) != 0) {
      // Still usable; only the reconnection on death is lost.
      TW_LOGE("TWD HAL link binder death fail");
    }
    TW_LOGD("HIDLMCPTransmitter AIDL service connect: true");
    return;
  }
  m_hidlService = GetHidlHalService();
  if (m_hidlService != nullptr) {
    m_hidlService->LinkToDeath(m_hidlDeathRecipient.get(), this);
    TW_LOGD("HIDLMCPTransmitter HIDL service connect: true");
  } else {
    TW_LOGE("HIDLMCPTransmitter HIDL service connect: false");
  }
}

bool HIDLMCPTransmitter::CallService() {
  std::lock_guard<std::mutex> lock(m_connectionMutex);
  std::vector<uint8_t> replyData;
  if (m_aidlService != nullptr) {
    TW_LOGD("HIDLMCPTransmitter Send CMD MCP to client via AIDL connection");
    const bool ok = m_aidlService->SendCommand(m_mcpRAWData.Front(), m_mcpRAWData.size, &replyData);
    StoreReply(replyData);
    if (!ok) TW_LOGE("Send CMD MCP to TWD AIDL service error.");
    return ok;
  }
  if (m_hidlService != nullptr) {
    // The HIDL vector's size is 32-bit; the queue can never get near that, but a wrapped size
    // must not reach the service.
    if (m_mcpRAWData.size > UINT32_MAX) {
      TW_LOGE("external vector size exceeds 2^32 elements.");
      return false;
    }
    const bool ok = m_hidlService->SendCommand(m_mcpRAWData.Front(), m_mcpRAWData.size, &replyData);
    // The HIDL reply callback only runs when the call went through.
    if (ok) {
      StoreReply(replyData);
    } else {
      TW_LOGE("Send CMD MCP to TWD HIDL service error.");
    }
    return ok;
  }
  TW_LOGE("Cannot send CMD MCP to TWD HAL, because HAL connection is NULL.");
  return false;
}

void HIDLMCPTransmitter::StoreReply(const std::vector<uint8_t>& replyData) {
  // An empty reply leaves the request in the queue; Send then decodes the request as the reply,
  // which the encoder rejects by its type.
  if (replyData.empty()) return;
  TW_LOGD("Connect: Initializing replyData");
  m_mcpRAWData.Reset();
  if (!m_mcpRAWData.Push(replyData.data(), replyData.size())) {
    TW_LOGE("m_mcpRAWData.Push return false");
  }
}

bool HIDLMCPTransmitter::Send(const MCPInfo& request, MCPInfo** reply, volatile bool* stop) {
  {
    std::lock_guard<std::mutex> lock(m_connectionMutex);
    if (m_aidlService == nullptr && m_hidlService == nullptr) ConnectLocked();
  }

  std::lock_guard<std::mutex> send_lock(m_sendMutex);
  m_mcpRAWData.Reset();
  TW_LOGD("Send CMD MCP to TWD HIDL service");
  // A request that cannot be queued skips the call and counts as sent; one that is dropped as
  // malformed leaves the queue empty, and the empty request still goes out.
  if (MCPHandler::WriteToBuffer(m_mcpRAWData, request, stop) && !CallService()) return false;
  TW_LOGD("Send CMD MCP to TWD HIDL service done");
  if (reply == nullptr) return true;

  TW_LOGD("Process CMD reply MCP from TWD HIDL service");
  MCPInfo* info = new MCPInfo();
  if (!MCPHandler::ProcessFromBuffer(m_mcpRAWData.Front(), m_mcpRAWData.size, *info, stop)) {
    TW_LOGE("Failed to parse MCP from buffer");
    delete info;
    return false;
  }
  *reply = info;
  TW_LOGD("Process CMD reply MCP from TWD HIDL service done");
  return true;
}

bool HIDLMCPTransmitter::CheckValid() {
  std::lock_guard<std::mutex> lock(m_connectionMutex);
  return m_aidlService != nullptr || m_hidlService != nullptr;
}

void HIDLMCPTransmitter::serviceDied() {
  TW_LOGE("HIDLMCPTransmitter :: serviceDied");
  std::lock_guard<std::mutex> lock(m_connectionMutex);
  if (m_closing) return;
  // This may destroy the very handle whose platform thread is running this notification; the
  // platform lets a handle be released from its own death notification.
  m_hidlService.reset();
  m_aidlService.reset();
  ConnectLocked();
}

void HIDLMCPTransmitter::deathHandler(void* cookie) {
  if (cookie == nullptr) return;
  static_cast<HIDLMCPTransmitter*>(cookie)->serviceDied();
}

}  // namespace libtidewatch
