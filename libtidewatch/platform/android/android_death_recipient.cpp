#include "libtidewatch/platform/android/android_death_recipient.h"

#include <android/hidl/base/1.0/IBase.h>

#include <cstdint>

namespace libtidewatch {
namespace {

class HidlDeathForwarder : public android::hardware::hidl_death_recipient {
 public:
  explicit HidlDeathForwarder(HalDeathHandler handler) : m_handler(handler) {}

  void serviceDied(uint64_t cookie,
                   const android::wp<android::hidl::base::V1_0::IBase>& /*who*/) override {
    m_handler(reinterpret_cast<void*>(static_cast<uintptr_t>(cookie)));
  }

 private:
  const HalDeathHandler m_handler;
};

}  // namespace

// The NDK callback has the handler's own signature, and AIBinder_linkToDeath passes the cookie
// through unchanged, so the handler is the NDK recipient's callback as it is.
AndroidDeathRecipient::AndroidDeathRecipient(HalDeathHandler handler)
    : m_aidl(AIBinder_DeathRecipient_new(handler)), m_hidl(new HidlDeathForwarder(handler)) {}

std::unique_ptr<HalDeathRecipient> NewHalDeathRecipient(HalDeathHandler handler) {
  return std::make_unique<AndroidDeathRecipient>(handler);
}

}  // namespace libtidewatch
