// A handle to the AIDL generation of the service, over libbinder_ndk and the NDK stubs generated
// from interfaces/aidl.
#pragma once

#include <aidl/vendor/velora/hardware/tidewatch/ITidewatchService.h>

#include <memory>

#include "libtidewatch/platform/hal_service.h"

namespace libtidewatch {

class AidlHalService : public HalService {
 public:
  using Interface = aidl::vendor::velora::hardware::tidewatch::ITidewatchService;

  // The instance the service is published under: its interface descriptor followed by "/default".
  static const char* InstanceName();
  // Wraps a binder from the service manager (owning one strong reference, may be null); null when
  // there is no binder or it is not this interface.
  static std::shared_ptr<HalService> FromBinder(AIBinder* binder);

  explicit AidlHalService(std::shared_ptr<Interface> service) : m_service(std::move(service)) {}

  HalGeneration Generation() const override { return HalGeneration::kAidl; }
  bool SendCommand(const uint8_t* request, size_t len, std::vector<uint8_t>* reply) override;
  // Starts the binder thread pool first, so that the service can call the callback at once.
  bool RegisterTrapCallback(const std::string& destination,
                            std::shared_ptr<HalCallbackTarget> target) override;
  int LinkToDeath(HalDeathRecipient* recipient, void* cookie) override;

 private:
  const std::shared_ptr<Interface> m_service;
};

}  // namespace libtidewatch
