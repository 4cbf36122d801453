// The trap callback objects that this process registers with the HAL service, one per service
// generation. Each forwards the packet bytes the service pushes to its receiver (the trap
// receiver's MCPReceiver). They are platform-neutral: the platform calls OnServiceData on a thread
// of its own, and on a device wraps them in the binder or HIDL objects the service holds.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

#include "libtidewatch/platform/hal_service.h"
#include "libtidewatch/transport/data_queue.h"
#include "libtidewatch/transport/mcp_receiver.h"

namespace libtidewatch {

// What both callback classes share: the receiver pointer and the reply queue, with the lock that
// lets the owner detach the receiver while the platform may still call in.
class ClientCallbackBase : public HalCallbackTarget {
 public:
  // Sets the receiver (null detaches it). Once this returns, no call into the previous receiver is
  // in progress or will start, so the previous receiver may then be destroyed.
  void SetReceiver(BufferDataInInterface* r);

  // Collects the receiver's answer packets; nothing sends them back to the service and nothing
  // empties it (trap handling never answers). Guarded by the callback's lock.
  DataQueue replyQueue;
  // Not owned. Assign it directly only before the object is registered; use SetReceiver after.
  BufferDataInInterface* receiver = nullptr;

  // Whether the platform said that the service will call this object no more.
  bool Closed() const { return m_closed.load(std::memory_order_acquire); }
  void OnCallbackClosed() override { m_closed.store(true, std::memory_order_release); }

 protected:
  // Hands the bytes to the receiver; false, without a call, when none is set.
  bool Forward(const uint8_t* data, size_t len);

 private:
  std::mutex m_lock;
  std::atomic<bool> m_closed{false};
};

}  // namespace libtidewatch

namespace aidl::vendor::velora::hardware::tidewatch {

class AIDLTidewatchClientCallback : public libtidewatch::ClientCallbackBase {
 public:
  // The AIDL method. Always the OK status (true); `*_aidl_return` tells whether a receiver took the
  // bytes.
  bool MCPReceiver(const std::vector<uint8_t>& mcp, bool* _aidl_return);

  bool OnServiceData(const uint8_t* data, size_t len) override;
};

}  // namespace aidl::vendor::velora::hardware::tidewatch

namespace vendor::velora::hardware::tidewatch::V1_0::implementation {

class TidewatchClientCallback : public libtidewatch::ClientCallbackBase {
 public:
  // The HIDL method: whether a receiver took the bytes.
  bool MCPReceiver(const std::vector<uint8_t>& mcp);

  bool OnServiceData(const uint8_t* data, size_t len) override;
};

}  // namespace vendor::velora::hardware::tidewatch::V1_0::implementation
