// Service lookup on a device: the service manager for the AIDL generation, the HIDL service
// manager for the HIDL one.
#include "libtidewatch/platform/hal_service.h"

#include <android/binder_manager.h>

#include "libtidewatch/platform/android/aidl_hal_service.h"
#include "libtidewatch/platform/android/hidl_hal_service.h"
#include "libtidewatch/platform/log.h"

namespace libtidewatch {

std::shared_ptr<HalService> GetAidlHalService() {
  // The blocking lookup waits a few seconds for a service that is still starting, which is what a
  // one-shot command wants. Its replacements either wait without end (waitForService) or not at
  // all (checkService), so the deprecated call is kept on purpose.
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wdeprecated-declarations"
  AIBinder* binder = AServiceManager_getService(AidlHalService::InstanceName());
#pragma clang diagnostic pop
  return AidlHalService::FromBinder(binder);
}

std::shared_ptr<HalService> CheckAidlHalService() {
  return AidlHalService::FromBinder(AServiceManager_checkService(AidlHalService::InstanceName()));
}

std::shared_ptr<HalService> GetHidlHalService() {
  android::sp<HidlHalService::Interface> service =
      HidlHalService::Interface::getService("default", false /* getStub */);
  if (service == nullptr) return nullptr;
  return std::make_shared<HidlHalService>(std::move(service));
}

}  // namespace libtidewatch
