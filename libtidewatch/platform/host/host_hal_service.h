// A service handle of the host platform: one host HAL link connection to one service endpoint,
// used for commands until it registers a trap callback and is handed to the trap reader.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "libtidewatch/platform/hal_service.h"
#include "libtidewatch/platform/host/hal_link_socket.h"
#include "libtidewatch/platform/host/host_death_watch.h"

namespace libtidewatch {

class HostHalService : public HalService {
 public:
  // Takes ownership of `fd`, a connected stream socket to the service.
  HostHalService(HalGeneration generation, int fd);
  // Closes the connection unless a trap reader still holds it; never fires a death notification.
  ~HostHalService() override;

  HalGeneration Generation() const override { return m_generation; }
  // Sends COMMAND and waits for COMMAND_RESULT. `reply` is replaced only on success. A reply frame
  // that cannot be accepted, or none before the call's deadline, closes the connection, which
  // makes every later call fail.
  bool SendCommand(const uint8_t* request, size_t len, std::vector<uint8_t>* reply) override;
  // Sends REGISTER_TRAP_CALLBACK and waits for REGISTER_RESULT. On success the connection belongs
  // to a trap reader that outlives this handle, and this handle sends nothing more.
  bool RegisterTrapCallback(const std::string& destination,
                            std::shared_ptr<HalCallbackTarget> target) override;
  int LinkToDeath(HalDeathRecipient* recipient, void* cookie) override;

 private:
  // Whether a request may be sent: not closed, not handed to a trap reader.
  bool Usable(const char* what) const;
  // Sends one request frame and reads its answer, closing the connection on anything but a frame
  // with opcode `answerOpcode` that carries at least the status byte. The whole call must end
  // within TIDEWATCH_HAL_CALL_TIMEOUT_MS; past it, the call fails as a failed transaction does.
  bool Transact(uint8_t opcode, const uint8_t* payload, size_t len, uint8_t answerOpcode,
                std::vector<uint8_t>* answer);
  // Logs the passed deadline and closes the connection.
  void TimedOut(uint8_t opcode, long timeoutMs);
  void Close();

  const HalGeneration m_generation;
  std::shared_ptr<HalLinkSocket> m_socket;
  HostDeathWatch m_deathWatch;  // after m_socket: stopped before the handle lets go of the socket
  bool m_closed = false;
  bool m_callbackRegistered = false;
};

}  // namespace libtidewatch
