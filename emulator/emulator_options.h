// The emulator's command line: which endpoints to publish, the service's secrets and limits, fault
// injection, and the trap sources. Every option is written --name=value or --name value.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "emulator/command_processor.h"
#include "emulator/reply_encoder.h"
#include "emulator/session_table.h"
#include "emulator/trap_records.h"
#include "libtidewatch/transport/mcp_info.h"

namespace hal_emulator {

// The largest synthetic trap payload: with its record header and a full discard-info record the
// raw trap data still fits the 65,581 bytes a receiver parses.
constexpr size_t kMaxTrapSize = 65581 - kTrapRecordHeaderSize - kMaxDiscardRecordSize;
// The largest replayed record: with a full discard-info record it still fits one MCP packet.
constexpr size_t kMaxReplayRecord = libtidewatch::kMcpMaxPayload - kMaxDiscardRecordSize;
// Replay needs a pace; this one applies when none is given.
constexpr unsigned kDefaultReplayRate = 10;

struct EmulatorOptions {
  bool aidl = false;  // both false after parsing means both endpoints
  bool hidl = false;
  ServiceSecrets secrets;
  uint64_t firstSessionId = 1;
  SessionLimits limits;
  size_t maxClients = 256;
  size_t maxCallbacks = 64;
  int callbackTimeoutMs = 1000;
  ReplyFault fault = ReplyFault::kNone;
  bool verbose = false;
  unsigned trapRate = 0;
  bool trapRateGiven = false;
  size_t trapSize = 16;
  std::string trapReplay;
  std::string layout;  // empty: DefaultLayoutPath()
  bool help = false;
};

// Parses argv[1..argc); false with a one-line reason in `error` on any bad option or value.
bool ParseEmulatorOptions(int argc, const char* const* argv, EmulatorOptions* options,
                          std::string* error);

// The layout file that synthetic traps follow when --layout is not given: the repository's sample,
// found beside the binary (bin/twd_layout_desc.dat or ../resources/ from it), else where the build
// put the source tree, wherever the emulator is started from.
std::string DefaultLayoutPath();

// The usage text, one option per line.
std::string EmulatorUsage();

}  // namespace hal_emulator
