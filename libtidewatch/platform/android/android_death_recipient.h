// The death recipient of the device platform: one handler, linkable to AIDL binders through the
// NDK death recipient and to HIDL services through a HIDL death recipient.
#pragma once

#include <android/binder_auto_utils.h>
#include <android/binder_ibinder.h>
#include <hidl/HidlSupport.h>

#include "libtidewatch/platform/hal_service.h"

namespace libtidewatch {

class AndroidDeathRecipient : public HalDeathRecipient {
 public:
  explicit AndroidDeathRecipient(HalDeathHandler handler);
  // Deleting the NDK recipient unlinks it from every binder, and the HIDL runtime holds its
  // recipient weakly, so no handler runs once this object is gone.
  ~AndroidDeathRecipient() override = default;

  // For AIBinder_linkToDeath: calls the handler with the cookie given there.
  AIBinder_DeathRecipient* Aidl() const { return m_aidl.get(); }
  // For IBase::linkToDeath: calls the handler with the cookie given there, as a pointer.
  const android::sp<android::hardware::hidl_death_recipient>& Hidl() const { return m_hidl; }

 private:
  ndk::ScopedAIBinder_DeathRecipient m_aidl;
  android::sp<android::hardware::hidl_death_recipient> m_hidl;
};

}  // namespace libtidewatch
