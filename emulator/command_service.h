// The service's command method: the bytes of one MCP command packet in, a status byte and the bytes
// of an MCP reply packet out. Unwraps the packet, lets the processor carry the command out, and
// encodes the reply, logging both to standard error when asked to. Not thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>

#include "emulator/command_processor.h"
#include "emulator/reply_encoder.h"

namespace hal_emulator {

class CommandService {
 public:
  // `processor` must outlive the service.
  CommandService(CommandProcessor* processor, ReplyFault fault, bool verbose);

  CommandAnswer Handle(const uint8_t* request, size_t len);

 private:
  CommandProcessor* m_processor;
  ReplyEncoder m_encoder;
  bool m_verbose;
};

}  // namespace hal_emulator
