// The host trap callback reader thread.
#include "libtidewatch/platform/host/host_trap_reader.h"

#include <pthread.h>

#include <system_error>
#include <thread>
#include <utility>

#include "libtidewatch/platform/hal_link.h"
#include "libtidewatch/platform/log.h"

namespace libtidewatch {

bool HostTrapReader::Start(std::shared_ptr<HalLinkSocket> socket,
                           std::shared_ptr<HalCallbackTarget> target) {
  try {
    std::thread(&HostTrapReader::Run, std::move(socket), std::move(target)).detach();
  } catch (const std::system_error& e) {
    TW_LOGW("HAL link: cannot start the trap callback thread: %s", e.what());
    return false;
  }
  return true;
}

void HostTrapReader::Run(std::shared_ptr<HalLinkSocket> socket,
                         std::shared_ptr<HalCallbackTarget> target) {
  pthread_setname_np(pthread_self(), "twd_hal_cb");
  HalLinkFrame frame;
  for (;;) {
    HalLinkReadResult result = ReadHalLinkFrame(socket->fd(), &frame);
    if (result == HalLinkReadResult::kClosed) {
      TW_LOGD("HAL link: trap callback connection closed by the service");
      break;
    }
    if (result != HalLinkReadResult::kFrame) {
      TW_LOGW("HAL link: unreadable frame on the trap callback connection");
      socket->Shutdown();
      break;
    }
    if (frame.opcode != kHalLinkTrap) {
      TW_LOGW("HAL link: unexpected opcode 0x%02x on the trap callback connection", frame.opcode);
      socket->Shutdown();
      break;
    }
    uint8_t answer = target->OnServiceData(frame.payload.data(), frame.payload.size()) ? 1 : 0;
    if (!WriteHalLinkFrame(socket->fd(), kHalLinkTrapResult, &answer, 1)) {
      TW_LOGD("HAL link: cannot answer a trap: the service has gone");
      break;
    }
  }
  target->OnCallbackClosed();
}

}  // namespace libtidewatch
