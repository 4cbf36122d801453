// Turns a JSON reply into the answer of a command call: a status byte and the bytes of an MCP reply
// packet holding the compact JSON text and its NUL. A fault kind, chosen on the command line,
// damages every answer in one way, so that tests can watch clients cope with a broken service.
#pragma once

#include <json/json.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "libtidewatch/transport/data_queue.h"

namespace hal_emulator {

enum class ReplyFault {
  kNone,
  kEmptyReply,       // status 0, no reply bytes
  kTransactionFail,  // a non-zero status byte, as a failed binder transaction
  kNotMcp,           // reply bytes that hold no MCP packet
  kTrapTypeReply,    // a well-formed packet of MCP type TRAP
  kBadJson,          // the payload is cut short and no longer parses
  kNotObject,        // the payload is a JSON array around the reply
  kWrongApi,         // "api" differs from the request's
  kWrongMethod,      // "method" differs from the request's
  kWrongVersion,     // "version" differs from the request's
  kMissingRet,       // no "ret"
  kRetOutOfRange,    // "ret" is 16
  kNoData,           // no "data", even where the command gives output
};

// The kind named `name` ("empty-reply", "ret-out-of-range", ...); false for an unknown name.
bool ParseReplyFault(const std::string& name, ReplyFault* fault);
// Every fault name, separated by ", ", for usage text.
std::string ReplyFaultNames();

struct CommandAnswer {
  uint8_t status = 0;
  std::vector<uint8_t> reply;
};

class ReplyEncoder {
 public:
  explicit ReplyEncoder(ReplyFault fault);

  // Encodes `reply` as the fault dictates; `text` (may be null) receives the JSON text sent. A
  // reply too long for one packet becomes a refusal with "ret" 15. Not thread-safe.
  CommandAnswer Encode(Json::Value reply, std::string* text);

 private:
  ReplyFault m_fault;
  std::unique_ptr<libtidewatch::DataQueue> m_queue;  // 256 KiB: kept on the heap, and only once
};

// Writes `value` compactly (no white space, no line feed).
std::string WriteCompactJson(const Json::Value& value);

}  // namespace hal_emulator
