#include "libtidewatch/platform/android/aidl_hal_service.h"

#include <aidl/vendor/velora/hardware/tidewatch/BnTidewatchClientCallback.h>
#include <android/binder_auto_utils.h>
#include <android/binder_ibinder.h>

#include <cstring>
#include <string>

#include "libtidewatch/platform/android/android_death_recipient.h"
#include "libtidewatch/platform/android/binder_thread_pool.h"
#include "libtidewatch/platform/log.h"

namespace libtidewatch {
namespace {

using aidl::vendor::velora::hardware::tidewatch::BnTidewatchClientCallback;

// The NDK backend carries AIDL byte[] as signed bytes; the seam speaks unsigned ones. Only the
// type differs, so the bytes are copied (or, on the way in, read) unchanged.
std::vector<int8_t> ToAidlBytes(const uint8_t* data, size_t len) {
  std::vector<int8_t> bytes(len);
  if (len != 0) memcpy(bytes.data(), data, len);
  return bytes;
}

// The binder object the service holds as the trap callback. It keeps its target alive for as long
// as the service keeps a reference to the binder.
class AidlCallbackBinder : public BnTidewatchClientCallback {
 public:
  explicit AidlCallbackBinder(std::shared_ptr<HalCallbackTarget> target)
      : m_target(std::move(target)) {}

  ndk::ScopedAStatus MCPReceiver(const std::vector<int8_t>& mcp, bool* _aidl_return) override {
    *_aidl_return =
        m_target->OnServiceData(reinterpret_cast<const uint8_t*>(mcp.data()), mcp.size());
    return ndk::ScopedAStatus::ok();
  }

 private:
  const std::shared_ptr<HalCallbackTarget> m_target;
};

}  // namespace

const char* AidlHalService::InstanceName() {
  static const std::string name = std::string(Interface::descriptor) + "/default";
  return name.c_str();
}

std::shared_ptr<HalService> AidlHalService::FromBinder(AIBinder* binder) {
  std::shared_ptr<Interface> service = Interface::fromBinder(ndk::SpAIBinder(binder));
  if (service == nullptr) return nullptr;
  return std::make_shared<AidlHalService>(std::move(service));
}

bool AidlHalService::SendCommand(const uint8_t* request, size_t len, std::vector<uint8_t>* reply) {
  std::vector<int8_t> replyBytes;
  ndk::ScopedAStatus status = m_service->sendCommand(ToAidlBytes(request, len), &replyBytes);
  if (!status.isOk()) {
    TW_LOGD("AIDL sendCommand: %s", status.getDescription().c_str());
    return false;
  }
  if (reply != nullptr) {
    const uint8_t* begin = reinterpret_cast<const uint8_t*>(replyBytes.data());
    reply->assign(begin, begin + replyBytes.size());
  }
  return true;
}

bool AidlHalService::RegisterTrapCallback(const std::string& destination,
                                          std::shared_ptr<HalCallbackTarget> target) {
  StartBinderThreadPoolOnce();
  std::shared_ptr<AidlCallbackBinder> callback =
      ndk::SharedRefBase::make<AidlCallbackBinder>(std::move(target));
  ndk::ScopedAStatus status = m_service->registerTrapCallback(destination, callback);
  if (!status.isOk()) {
    TW_LOGD("AIDL registerTrapCallback: %s", status.getDescription().c_str());
    return false;
  }
  return true;
}

int AidlHalService::LinkToDeath(HalDeathRecipient* recipient, void* cookie) {
  auto* deviceRecipient = static_cast<AndroidDeathRecipient*>(recipient);
  return AIBinder_linkToDeath(m_service->asBinder().get(), deviceRecipient->Aidl(), cookie);
}

}  // namespace libtidewatch
