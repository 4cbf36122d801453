#include "libtidewatch/platform/android/hidl_hal_service.h"

#include <hidl/HidlSupport.h>
#include <hidl/Status.h>
#include <vendor/velora/hardware/tidewatch/1.0/ITidewatchClientCallback.h>

#include <cstdint>

#include "libtidewatch/platform/android/android_death_recipient.h"
#include "libtidewatch/platform/android/binder_thread_pool.h"
#include "libtidewatch/platform/log.h"

namespace libtidewatch {
namespace {

using android::hardware::hidl_string;
using android::hardware::hidl_vec;
using android::hardware::Return;
using vendor::velora::hardware::tidewatch::V1_0::ITidewatchClientCallback;

// The HIDL object the service holds as the trap callback. It keeps its target alive for as long as
// the service keeps a reference to it.
class HidlCallbackAdapter : public ITidewatchClientCallback {
 public:
  explicit HidlCallbackAdapter(std::shared_ptr<HalCallbackTarget> target)
      : m_target(std::move(target)) {}

  Return<bool> MCPReceiver(const hidl_vec<uint8_t>& mcp) override {
    return m_target->OnServiceData(mcp.data(), mcp.size());
  }

 private:
  const std::shared_ptr<HalCallbackTarget> m_target;
};

}  // namespace

bool HidlHalService::SendCommand(const uint8_t* request, size_t len, std::vector<uint8_t>* reply) {
  // The request is only read during the call, so the vector borrows the caller's bytes. Above
  // 2^32 - 1 bytes the runtime aborts; the caller's packets are far smaller.
  hidl_vec<uint8_t> requestVec;
  requestVec.setToExternal(const_cast<uint8_t*>(request), len);
  Return<void> status =
      m_service->sendCommand(requestVec, [reply](const hidl_vec<uint8_t>& replyVec) {
        if (reply != nullptr) reply->assign(replyVec.data(), replyVec.data() + replyVec.size());
      });
  // A Return must be checked before it is destroyed, or the runtime aborts on a failed one.
  if (!status.isOk()) {
    TW_LOGD("HIDL sendCommand: %s", status.description().c_str());
    return false;
  }
  return true;
}

bool HidlHalService::RegisterTrapCallback(const std::string& destination,
                                          std::shared_ptr<HalCallbackTarget> target) {
  StartHwBinderThreadPoolOnce();
  android::sp<ITidewatchClientCallback> callback = new HidlCallbackAdapter(std::move(target));
  Return<void> status = m_service->registerTrapCallback(hidl_string(destination), callback);
  if (!status.isOk()) {
    TW_LOGD("HIDL registerTrapCallback: %s", status.description().c_str());
    return false;
  }
  return true;
}

int HidlHalService::LinkToDeath(HalDeathRecipient* recipient, void* cookie) {
  auto* deviceRecipient = static_cast<AndroidDeathRecipient*>(recipient);
  Return<bool> linked =
      m_service->linkToDeath(deviceRecipient->Hidl(), reinterpret_cast<uintptr_t>(cookie));
  return linked.withDefault(false) ? 0 : -1;
}

}  // namespace libtidewatch
