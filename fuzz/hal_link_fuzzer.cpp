// Both ends of the host HAL link on bytes a peer may send. HalLinkDecoder is fed the input in
// pieces and must produce exactly the frames a plain parse of the whole stream gives, fail exactly
// where that parse meets a bad length, and count the bytes of the frame in progress. Then the
// emulated service answers every command frame (opcode 0x01: the raw request bytes; 0x11, which
// the link does not use, stands for a JSON request the fuzzer wraps into an MCP command packet)
// against one fresh session table per input: each answer must be one MCP reply packet whose JSON
// object carries a "ret" of 0 to 15 and reads back with the tool's own JSON reader.
//
// Input: four piece sizes, then the stream.
#include <json/json.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "emulator/command_processor.h"
#include "emulator/command_service.h"
#include "emulator/reply_encoder.h"
#include "emulator/session_table.h"
#include "fuzz/fuzz_check.h"
#include "libtidewatch/platform/hal_link.h"
#include "libtidewatch/transport/data_queue.h"
#include "libtidewatch/transport/mcp_handler.h"
#include "libtidewatch/transport/mcp_info.h"

namespace libtidewatch {
namespace {

using hal_emulator::CommandAnswer;
using hal_emulator::CommandProcessor;
using hal_emulator::CommandService;
using hal_emulator::ReplyFault;
using hal_emulator::ServiceSecrets;
using hal_emulator::SessionLimits;
using hal_emulator::SessionTable;

constexpr uint8_t kWrappedJson = 0x11;
constexpr size_t kMaxCommands = 64;

struct Parsed {
  std::vector<HalLinkFrame> frames;
  std::vector<size_t> ends;  // stream offset just past each frame
  bool failed = false;
  size_t failAt = 0;  // the decoder fails once this many bytes have arrived
  uint32_t badLength = 0;
};

Parsed ParseWhole(const uint8_t* p, size_t n) {
  Parsed r;
  size_t pos = 0;
  while (n - pos >= 4) {
    const uint32_t length = static_cast<uint32_t>(p[pos]) | static_cast<uint32_t>(p[pos + 1]) << 8 |
                            static_cast<uint32_t>(p[pos + 2]) << 16 |
                            static_cast<uint32_t>(p[pos + 3]) << 24;
    if (length == 0 || length > 16u * 1024 * 1024) {
      r.failed = true;
      r.failAt = pos + 4;
      r.badLength = length;
      break;
    }
    if (n - pos - 4 < length) break;
    HalLinkFrame frame;
    frame.opcode = p[pos + 4];
    frame.payload.assign(p + pos + 5, p + pos + 4 + length);
    r.frames.push_back(std::move(frame));
    pos += 4 + length;
    r.ends.push_back(pos);
  }
  return r;
}

void CheckDecoder(const uint8_t* sizes, const uint8_t* stream, size_t n, const Parsed& want) {
  HalLinkDecoder decoder;
  std::vector<HalLinkFrame> got;
  size_t fed = 0;
  for (size_t k = 0; fed < n; ++k) {
    size_t piece = sizes[k % 4] == 0xFF ? n : 1 + sizes[k % 4];
    if (piece > n - fed) piece = n - fed;
    const bool ok = decoder.Feed(stream + fed, piece);
    fed += piece;
    const bool shouldFail = want.failed && fed >= want.failAt;
    FUZZ_CHECK(ok == !shouldFail);
    FUZZ_CHECK(decoder.failed() == shouldFail);
    HalLinkFrame frame;
    while (decoder.Next(&frame)) got.push_back(std::move(frame));
    size_t complete = 0;
    while (complete < want.ends.size() && want.ends[complete] <= fed) ++complete;
    FUZZ_CHECK(got.size() == complete);
    if (shouldFail) {
      FUZZ_CHECK(decoder.bad_length() == want.badLength);
    } else {
      FUZZ_CHECK(decoder.pending() == fed - (complete == 0 ? 0 : want.ends[complete - 1]));
    }
  }
  for (size_t i = 0; i < got.size(); ++i) {
    FUZZ_CHECK(got[i].opcode == want.frames[i].opcode);
    FUZZ_CHECK(got[i].payload == want.frames[i].payload);
  }
}

std::vector<uint8_t> WrapAsCommand(const std::vector<uint8_t>& json) {
  std::vector<uint8_t> payload = json;
  payload.push_back('\0');
  MCPInfo packet;
  packet.SetData(MCP_TYPE_CMD, payload.size(), payload.data(), false);
  static DataQueue* queue = new DataQueue;
  queue->Reset();
  MCPHandler::WriteToBuffer(*queue, packet, nullptr);
  return std::vector<uint8_t>(queue->Front(), queue->Front() + queue->size);
}

void CheckAnswer(const CommandAnswer& answer) {
  FUZZ_CHECK(answer.status == 0);
  MCPInfo reply;
  FUZZ_CHECK(
      MCPHandler::ProcessFromBuffer(answer.reply.data(), answer.reply.size(), reply, nullptr));
  FUZZ_CHECK(reply.type == MCP_TYPE_REPLY);
  FUZZ_CHECK(answer.reply.size() == 10 + reply.length);
  FUZZ_CHECK(reply.data[reply.length - 1] == '\0');
  const char* text = reinterpret_cast<const char*>(reply.data);

  Json::Value value;
  // The reader the tool checks replies with.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
  Json::Reader reader;
  const bool parsed = reader.parse(text, text + reply.length - 1, value, true);
#pragma GCC diagnostic pop
  FUZZ_CHECK(parsed);
  FUZZ_CHECK(value.isObject());
  const Json::Value& ret = value["ret"];
  FUZZ_CHECK(ret.isInt() && ret.asInt() >= 0 && ret.asInt() <= 15);
}

void ServeCommands(const std::vector<HalLinkFrame>& frames) {
  SessionTable sessions(1, SessionLimits());
  CommandProcessor processor(&sessions, ServiceSecrets());
  CommandService service(&processor, ReplyFault::kNone, false);
  size_t served = 0;
  for (const HalLinkFrame& frame : frames) {
    if (served == kMaxCommands) break;
    if (frame.opcode == kHalLinkCommand) {
      CheckAnswer(service.Handle(frame.payload.data(), frame.payload.size()));
      ++served;
    } else if (frame.opcode == kWrappedJson) {
      const std::vector<uint8_t> request = WrapAsCommand(frame.payload);
      CheckAnswer(service.Handle(request.data(), request.size()));
      ++served;
    }
  }
}

}  // namespace
}  // namespace libtidewatch

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  tidewatch_fuzz::QuietLog(libtidewatch::kLogVerbose);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 4) return 0;
  const uint8_t* stream = data + 4;
  const size_t n = size - 4;
  const libtidewatch::Parsed want = libtidewatch::ParseWhole(stream, n);
  libtidewatch::CheckDecoder(data, stream, n, want);
  libtidewatch::ServeCommands(want.frames);
  return 0;
}
