// Service lookup on the host: a connection to the generation's endpoint on the host HAL link.
#include "libtidewatch/platform/hal_service.h"

#include <errno.h>

#include <chrono>
#include <cstring>
#include <thread>

#include "libtidewatch/platform/abstract_socket.h"
#include "libtidewatch/platform/hal_link.h"
#include "libtidewatch/platform/host/host_death_watch.h"
#include "libtidewatch/platform/host/host_hal_service.h"
#include "libtidewatch/platform/host/host_link_settings.h"
#include "libtidewatch/platform/log.h"

namespace libtidewatch {
namespace {

constexpr long kRetryMs = 50;

// Connects to `generation`'s endpoint, trying again every kRetryMs until `waitMs` has passed.
std::shared_ptr<HalService> Connect(HalGeneration generation, long waitMs) {
  const std::string name = HalEndpointName(generation);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(waitMs);
  for (;;) {
    int fd = ConnectAbstract(name);
    if (fd >= 0) {
      TW_LOGD("HAL link: connected to \"%s\"", name.c_str());
      return std::make_shared<HostHalService>(generation, fd);
    }
    int error = errno;
    auto now = std::chrono::steady_clock::now();
    if (now >= deadline) {
      TW_LOGD("HAL link: no service at \"%s\": %s", name.c_str(), strerror(error));
      return nullptr;
    }
    std::this_thread::sleep_for(std::min<std::chrono::steady_clock::duration>(
        deadline - now, std::chrono::milliseconds(kRetryMs)));
  }
}

}  // namespace

std::unique_ptr<HalDeathRecipient> NewHalDeathRecipient(HalDeathHandler handler) {
  return std::make_unique<HostHalDeathRecipient>(handler);
}

std::shared_ptr<HalService> GetAidlHalService() {
  return Connect(HalGeneration::kAidl, HalWaitMs());
}

std::shared_ptr<HalService> CheckAidlHalService() { return Connect(HalGeneration::kAidl, 0); }

std::shared_ptr<HalService> GetHidlHalService() { return Connect(HalGeneration::kHidl, 0); }

}  // namespace libtidewatch
