#include "emulator/command_service.h"

#include <cstdio>
#include <string>

#include "emulator/result_codes.h"
#include "libtidewatch/transport/mcp_handler.h"
#include "libtidewatch/transport/mcp_info.h"

namespace hal_emulator {

using libtidewatch::MCP_TYPE_CMD;
using libtidewatch::MCPHandler;
using libtidewatch::MCPInfo;
namespace {

// Request bytes as one printable line: other bytes show as '.', except the terminating NUL and the
// line feed the tool's JSON writer ends its text with, which are left out.
std::string Printable(const uint8_t* data, size_t len) {
  if (len > 0 && data[len - 1] == '\0') --len;
  if (len > 0 && data[len - 1] == '\n') --len;
  std::string text;
  text.reserve(len);
  for (size_t i = 0; i < len; ++i) text += (data[i] >= 0x20 && data[i] < 0x7f) ? data[i] : '.';
  return text;
}

}  // namespace

CommandService::CommandService(CommandProcessor* processor, ReplyFault fault, bool verbose)
    : m_processor(processor), m_encoder(fault), m_verbose(verbose) {}

CommandAnswer CommandService::Handle(const uint8_t* request, size_t len) {
  MCPInfo packet;
  Json::Value reply;
  bool isCommand = len > 0 && MCPHandler::ProcessFromBuffer(request, len, packet, nullptr) &&
                   packet.type == MCP_TYPE_CMD && packet.data != nullptr;
  if (isCommand) {
    if (m_verbose) {
      fprintf(stderr, "tidewatch_hal_emulator: request %s\n",
              Printable(packet.data, packet.length).c_str());
    }
    reply = m_processor->Process(packet.data, packet.length);
  } else {
    if (m_verbose) {
      fprintf(stderr, "tidewatch_hal_emulator: request of %zu bytes is no command packet\n", len);
    }
    reply = CommandProcessor::Refusal(kRetNotCommandPacket);
  }
  std::string text;
  CommandAnswer answer = m_encoder.Encode(reply, &text);
  if (m_verbose) {
    fprintf(stderr, "tidewatch_hal_emulator: reply status %u, %zu bytes: %s\n", answer.status,
            answer.reply.size(), text.c_str());
  }
  return answer;
}

}  // namespace hal_emulator
