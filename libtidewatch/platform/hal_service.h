// The modem-monitor HAL service as the library sees it on any platform: looking up either service
// generation, its command method, trap-callback registration, and death notification. The device
// implementation (android/) sits on the binder NDK and the HIDL runtime; the host one (host/) on
// the host HAL link, with the service played by a separate process.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace libtidewatch {

enum class HalGeneration { kAidl, kHidl };

// The receiving end of a trap callback registered with the service. The platform calls it on a
// thread of its own (a binder or HIDL thread on a device, a link reader thread on a host), possibly
// while other threads of the process run; its answer is the callback's boolean result.
class HalCallbackTarget {
 public:
  virtual ~HalCallbackTarget() = default;
  virtual bool OnServiceData(const uint8_t* data, size_t len) = 0;
  // Called once, on the platform's thread, when the service will call this target no more
  // through the registration it came by: on a host when the callback connection closes (a service
  // drops a callback that answers too late, or dies). A device never calls it.
  virtual void OnCallbackClosed() {}
};

// Called once per linked handle when the service behind it dies, on a platform thread that is
// never the thread that made the call in progress.
using HalDeathHandler = void (*)(void* cookie);

// A death recipient: made once by its owner, linkable to any number of service handles, and
// outliving every handle it is linked to (deaths are not unlinked).
class HalDeathRecipient {
 public:
  virtual ~HalDeathRecipient() = default;
};
std::unique_ptr<HalDeathRecipient> NewHalDeathRecipient(HalDeathHandler handler);

// One handle to the service. Thread-compatible: callers serialise their own calls on a handle.
class HalService {
 public:
  virtual ~HalService() = default;

  virtual HalGeneration Generation() const = 0;

  // The service's command method: request bytes in, reply bytes out (the reply may be empty).
  // False when the transaction itself failed, as a binder error status does on a device.
  virtual bool SendCommand(const uint8_t* request, size_t len, std::vector<uint8_t>* reply) = 0;

  // Registers `target` as the trap callback of `destination`. The platform keeps `target` alive
  // for as long as the service may call it, which can be longer than this handle.
  virtual bool RegisterTrapCallback(const std::string& destination,
                                    std::shared_ptr<HalCallbackTarget> target) = 0;

  // Runs `recipient`'s handler with `cookie` once when the service behind this handle dies.
  // Returns 0 when linked, non-zero otherwise.
  virtual int LinkToDeath(HalDeathRecipient* recipient, void* cookie) = 0;
};

// The AIDL instance, waiting for it to come up (AServiceManager_getService on a device).
std::shared_ptr<HalService> GetAidlHalService();
// The AIDL instance if it is running now (AServiceManager_checkService on a device).
std::shared_ptr<HalService> CheckAidlHalService();
// The HIDL instance "default", without waiting (getService("default", false) on a device).
std::shared_ptr<HalService> GetHidlHalService();

}  // namespace libtidewatch
