// The reading end of a trap callback registered over the host HAL link: a detached thread that
// owns the callback connection and hands every TRAP frame to the callback target.
#pragma once

#include <memory>

#include "libtidewatch/platform/hal_service.h"
#include "libtidewatch/platform/host/hal_link_socket.h"

namespace libtidewatch {

class HostTrapReader {
 public:
  // Starts a thread ("twd_hal_cb") that reads TRAP frames from `socket`, calls
  // `target->OnServiceData` with each payload and answers with TRAP_RESULT (1 when it returned
  // true, else 0). The thread keeps `socket` and `target` alive on its own, independently of any
  // service handle, and ends when the service closes the connection or breaks the protocol (the
  // connection is then shut down), telling `target` OnCallbackClosed last. False when the thread
  // cannot be started.
  static bool Start(std::shared_ptr<HalLinkSocket> socket,
                    std::shared_ptr<HalCallbackTarget> target);

 private:
  static void Run(std::shared_ptr<HalLinkSocket> socket, std::shared_ptr<HalCallbackTarget> target);
};

}  // namespace libtidewatch
