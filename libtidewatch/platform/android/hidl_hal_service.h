// A handle to the HIDL generation of the service, over libhidlbase and the interface library
// generated from interfaces/hidl.
#pragma once

#include <vendor/velora/hardware/tidewatch/1.0/ITidewatchService.h>

#include <memory>

#include "libtidewatch/platform/hal_service.h"

namespace libtidewatch {

class HidlHalService : public HalService {
 public:
  using Interface = vendor::velora::hardware::tidewatch::V1_0::ITidewatchService;

  explicit HidlHalService(android::sp<Interface> service) : m_service(std::move(service)) {}

  HalGeneration Generation() const override { return HalGeneration::kHidl; }
  bool SendCommand(const uint8_t* request, size_t len, std::vector<uint8_t>* reply) override;
  // Starts the hwbinder thread pool first, so that the service can call the callback at once.
  bool RegisterTrapCallback(const std::string& destination,
                            std::shared_ptr<HalCallbackTarget> target) override;
  int LinkToDeath(HalDeathRecipient* recipient, void* cookie) override;

 private:
  const android::sp<Interface> m_service;
};

}  // namespace libtidewatch
