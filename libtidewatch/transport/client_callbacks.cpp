#include "libtidewatch/transport/client_callbacks.h"

#include "libtidewatch/platform/log.h"

namespace libtidewatch {

void ClientCallbackBase::SetReceiver(BufferDataInInterface* r) {
  std::lock_guard<std::mutex> lock(m_lock);
  receiver = r;
}

bool ClientCallbackBase::Forward(const uint8_t* data, size_t len) {
  // Held across the call so that SetReceiver cannot pull the receiver away mid-call.
  std::lock_guard<std::mutex> lock(m_lock);
  if (receiver == nullptr) return false;
  receiver->DataIn(data, len, replyQueue);  // the answer to a push is the boolean alone
  return true;
}

}  // namespace libtidewatch

namespace {

std::vector<uint8_t> ToVector(const uint8_t* data, size_t len) {
  if (data == nullptr || len == 0) return {};
  return std::vector<uint8_t>(data, data + len);
}

}  // namespace

namespace aidl::vendor::velora::hardware::tidewatch {

bool AIDLTidewatchClientCallback::MCPReceiver(const std::vector<uint8_t>& mcp, bool* _aidl_return) {
  TW_LOGD("AIDLTidewatchClientCallback MCPReceiver in");
  const bool taken = Forward(mcp.data(), mcp.size());
  if (_aidl_return != nullptr) *_aidl_return = taken;
  if (taken) {
    TW_LOGD("MCPReceiver out");
  } else {
    TW_LOGD("AIDLTidewatchClientCallback MCPReceiver out");
  }
  return true;
}

bool AIDLTidewatchClientCallback::OnServiceData(const uint8_t* data, size_t len) {
  bool result = false;
  MCPReceiver(ToVector(data, len), &result);
  return result;
}

}  // namespace aidl::vendor::velora::hardware::tidewatch

namespace vendor::velora::hardware::tidewatch::V1_0::implementation {

bool TidewatchClientCallback::MCPReceiver(const std::vector<uint8_t>& mcp) {
  TW_LOGD("MCPReceiver in");
  if (Forward(mcp.data(), mcp.size())) {
    TW_LOGD("MCPReceiver out");
    return true;
  }
  TW_LOGD("MCPReceiver out wo CB");
  return false;
}

bool TidewatchClientCallback::OnServiceData(const uint8_t* data, size_t len) {
  return MCPReceiver(ToVector(data, len));
}

}  // namespace vendor::velora::hardware::tidewatch::V1_0::implementation
