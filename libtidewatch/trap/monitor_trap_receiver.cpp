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
    : m_listener(DestinationName(sessionId, serverName).c_str()),
      m_destination(DestinationName(sessionId, serverName)) {
  TW_LOGD("MonitorTrapReceiver Constructor");
  m_mcpReceiver.SetPayloadHandler(MCP_TYPE_TRAP, this);
  m_listener.SetHandler(&m_mcpReceiver);
  RegisterCallback();
  TW_LOGD("MonitorTrapReceiver Constructor done! Server name is %lu%s", sessionId, serverName);
}

bool MonitorTrapReceiver::RegisterCallback() {
  // Fresh objects each time: a callback the service has let go stays closed, and the service may
  // still hold it.
  if (m_aidlCallback != nullptr) m_aidlCallback->SetReceiver(nullptr);
  if (m_hidlCallback != nullptr) m_hidlCallback->SetReceiver(nullptr);
  m_registered = nullptr;
  m_aidlCallback = std::make_shared<AidlCallback>();
  m_aidlCallback->SetReceiver(&m_mcpReceiver);
  m_hidlCallback = std::make_shared<HidlCallback>();
  m_hidlCallback->SetReceiver(&m_mcpReceiver);

  // The non-blocking lookup: a receiver must come up at once when no service runs.
  if (std::shared_ptr<HalService> aidl = CheckAidlHalService()) {
    TW_LOGD("MonitorTrapReceiver AIDL service connect: true");
    if (aidl->RegisterTrapCallback(m_destination, m_aidlCallback)) {
      m_registered = m_aidlCallback.get();
    }
  } else if (std::shared_ptr<HalService> hidl = GetHidlHalService()) {
    TW_LOGD("MonitorTrapReceiver HIDL service connect: true");
    if (hidl->RegisterTrapCallback(m_destination, m_hidlCallback)) {
      m_registered = m_hidlCallback.get();
    }
    TW_LOGD("MonitorTrapReceiver HIDL service registerTrapCallback done");
  } else {
    TW_LOGD("MonitorTrapReceiver HIDL service connect: false");
  }
  return m_registered != nullptr;
}

bool MonitorTrapReceiver::CallbackAlive() const {
  return m_registered != nullptr && !m_registered->Closed();
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
  const TrapHandler handler = trapHandler.load(std::memory_order_acquire);
  const TrapDeliveryHandler deliver = deliveryHandler.load(std::memory_order_acquire);
  if (handler == nullptr && deliver == nullptr) return true;
  void* context = userData.load(std::memory_order_acquire);
  // Every handler's data is only valid during its call, so the packet's own bytes serve.
  TrapPacker packer(in.data, in.length, TrapPacker::View());

  if (handler != nullptr) {
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
    handler(context, 0, type, length, data, discardCount);
  }
  if (deliver != nullptr) {
    TrapDelivery delivery;
    if (packer.IsInitialized()) {
      delivery.parsed = true;
      delivery.type = packer.GetTrapType();
      delivery.length = packer.GetTrapDataLength();
      delivery.record = packer.GetTrapRecord();
      delivery.recordSize = packer.GetTrapRecordSize();
      delivery.hasDiscards = packer.HasDiscardInfo();
      if (delivery.hasDiscards) {
        for (size_t t = 0; t < TRAP_TYPE_NUM; ++t) {
          delivery.discards[t] = packer.GetDiscardInfo(static_cast<TRAP_TYPE>(t));
        }
      }
    }
    deliver(context, delivery);
  }
  return true;
}

void MonitorTrapReceiver::DeliveryDone() {
  const TrapDrainHandler handler = drainHandler.load(std::memory_order_acquire);
  if (handler != nullptr) handler(userData.load(std::memory_order_acquire));
}

}  // namespace libtidewatch
