// Binds a command encoder to the transmitter that reaches the HAL service's command channel, so
// that the command line creates one object per command and calls the encoder's commands on it.
#pragma once

#include "libtidewatch/transport/hidl_mcp_transmitter.h"

namespace libtidewatch {

constexpr char kCommandChannelName[] = "com.velora.tidewatch.command";

// Encoder is constructed from a Transmitter* (JsonCmdEncoder). The proxy owns its transmitter and
// destroys it with itself. Not copyable; large (the transmitter holds a 256 KiB queue), but
// meant to live on the caller's stack for one command.
template <class Encoder>
class MonitorCmdProxy : public Encoder {
 public:
  // The base is constructed before the member, so it receives the member's address while the
  // transmitter does not exist yet; the encoder only stores the address and sends nothing until
  // the constructor has returned.
  MonitorCmdProxy() : Encoder(&m_transmitter), m_transmitter(kCommandChannelName) {}
  ~MonitorCmdProxy() override = default;
  MonitorCmdProxy(const MonitorCmdProxy&) = delete;
  MonitorCmdProxy& operator=(const MonitorCmdProxy&) = delete;

 private:
  HIDLMCPTransmitter m_transmitter;
};

}  // namespace libtidewatch
