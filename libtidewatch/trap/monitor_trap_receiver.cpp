#include "libtidewatch/trap/monitor_trap_receiver.h"

#include <string>

#include "libtidewatch/platform/hal_service.h"
#include "libtidewatch/platform/log.h"
#include "libtidewatch/trap/trap_packer.h"

namespace libtidewatch {
namespace {

using AidlCallback = aidl::vendor::velora::hardware::tidewatch::AIDLTidewatchClientCallback;
using HidlCallback =
    vendor::velora::hardware::tidewatch::V1_0::implementation::TidewatchClientCallback;

// The session id in decimal directly followed by the server name: "5" and "trapd" give "5trapd".
std::string DestinationName(unsigned long sessionId, const char* serverName) {
  return std::to_string(sessionId) + (serverName != nullptr ? serverName : "");
}

}  // namespace

MonitorTrapReceiver::MonitorTrapReceiver(unsigned long sessionId, const char* serverName)
    : m_listener(DestinationName(sessionId, serverName).c_str()) {
  TW_LOGD("MonitorTrapReceiver Constructor");
  m_mcpReceiver.SetPayloadHandler(MCP_TYPE_TRAP, this);
  m_listener.SetHandler(&m_mcpReceiver);

  m_aidlCallback = std::make_shared<AidlCallback>();
  m_aidlCallback->SetReceiver(&m_mcpReceiver);
  m_hidlCallback = std::make_shared<HidlCallback>();
  m_hidlCallback->SetReceiver(&m_mcpReceiver);

  // The non-blocking lookup: a receiver must come up at once when no service runs.
  if (std::shared_ptr<HalService> aidl = CheckAidlHalService()) {
    TW_LOGD("MonitorTrapReceiver AIDL service connect: true");
    aidl->RegisterTrapCallback(DestinationName(sessionId, serverName), m_aidlCallback);
  } else if (std::shared_ptr<HalService> hidl = GetHidlHalService()) {
    TW_LOGD("MonitorTrapReceiver HIDL service connect: true");
    hidl->RegisterTrapCallback(DestinationName(sessionId, serverName), m_hidlCallback);
    TW_LOGD("MonitorTrapReceiver HIDL service registerTrapCallback done");
  } else {
    TW_LOGD("MonitorTrapReceiver HIDL service connect: false");
  }
  TW_LOGD("MonitorTrapReceiver Constructor done! Server name is %lu%s", sessionId, serverName);
}

MonitorTrapReceiver::~MonitorTrapReceiver() {
  // The service may hold the callbacks longer than this object: detached, they refuse the data
  // instead of reaching the receiver destroyed below.
  m_hidlCallback->SetReceiver(nullptr);
  m_hidlCallback.reset();
  m_aidlCallback->SetReceiver(nullptr);
  m_aidlCallback.reset();
  TW_LOGD("MonitorTrapReceiver destructor done!");
  // The receiver is destroyed before the listener; the listener's thread must be gone by then.
  m_listener.Stop();
}

bool MonitorTrapReceiver::ProcessPayload(const MCPInfo& in, MCPInfo& /*out*/) {
  TrapPacker packer(in.data, in.length);
  const TrapHandler handler = trapHandler.load(std::memory_order_acquire);
  if (handler == nullptr) return true;

  // Only the two message-carrying types count as discarded traps.
  const unsigned long discardCount =
      static_cast<unsigned long>(packer.GetDiscardInfo(TRAP_TYPE_OTA)) +
      packer.GetDiscardInfo(TRAP_TYPE_EM);
  TRAP_TYPE type = TRAP_TYPE_NONE;
  size_t length = 0;
  const uint8_t* data = nullptr;
  if (packer.IsInitialized()) {
    type = packer.GetTrapType();
    data = packer.GetTrapData();
    length = packer.GetTrapDataLength();
  }
  handler(userData.load(std::memory_order_acquire), 0, type, length, data, discardCount);
  return true;
}

void MonitorTrapReceiver::DeliveryDone() {
  const TrapDrainHandler handler = drainHandler.load(std::memory_order_acquire);
  if (handler != nullptr) handler(userData.load(std::memory_order_acquire));
}

}  // namespace libtidewatch
