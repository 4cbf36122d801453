// The client side of the command protocol with the HAL service: each of ten commands becomes one
// JSON request in an MCP command packet, sent through a Transmitter, and the JSON reply is checked
// against the command before its result and data are handed back.
#pragma once

#include <cstdint>
#include <vector>

#include "libtidewatch/api/monitor_types.h"
#include "libtidewatch/transport/transmitter.h"

namespace Json {
class Value;
}

namespace libtidewatch {

// Result codes share one number space with the service's "ret" (0 to 15, 0 is success); these are
// the encoder's own.
constexpr int32_t MONITOR_RESULT_BAD_ARGUMENT = 3;  // an argument has no JSON form; nothing sent
constexpr int32_t MONITOR_RESULT_SEND_FAILED = 9;   // no transmitter, Send failed, or no reply
constexpr int32_t MONITOR_RESULT_BAD_REPLY = 10;    // the reply does not answer the command

// Holds no state between commands; one encoder is not to be used by two threads at once. A doer
// id or session id of 0 means "not given" and is left out of the request where noted.
class JsonCmdEncoder {
 public:
  // `transmitter` is not owned and may be null (every command then fails with SEND_FAILED). Only
  // the address is stored, so the transmitter may still be under construction.
  explicit JsonCmdEncoder(Transmitter* transmitter);
  virtual ~JsonCmdEncoder() = default;
  JsonCmdEncoder(const JsonCmdEncoder&) = delete;
  JsonCmdEncoder& operator=(const JsonCmdEncoder&) = delete;

  // Creates a session; `secret` (may be null for a guest session) is sent verbatim. Returns the
  // new session id, 0 when the service refused, MONITOR_RESULT_SEND_FAILED or
  // MONITOR_RESULT_BAD_REPLY otherwise: the caller treats only 0 as a failure.
  uint64_t CreateSession(const char* secret);
  // The same command for callers that must tell a failure from an id: returns 0 with the new id
  // in `*sessionId`, or the failure (the service's "ret", or SEND_FAILED or BAD_REPLY) with
  // `*sessionId` left as it was.
  int32_t CreateSession(const char* secret, uint64_t* sessionId);
  int32_t CloseSession(uint64_t doerId, uint64_t sessionId);
  // BAD_ARGUMENT for a type without a name (anything but 2 to 8). `async` is sent as 1 or 0.
  int32_t SubscribeTrap(uint64_t doerId, uint64_t sessionId, TRAP_TYPE type, uint64_t msgId,
                        bool async);
  int32_t UnsubscribeTrap(uint64_t doerId, uint64_t sessionId, TRAP_TYPE type, uint64_t msgId,
                          bool async);
  int32_t EnableTrap(uint64_t doerId, uint64_t sessionId);
  int32_t DisableTrap(uint64_t doerId, uint64_t sessionId);
  // The receiver is named by the session id in decimal followed by `szServerName` (BAD_ARGUMENT
  // when null).
  int32_t SetTrapReceiver(uint64_t doerId, uint64_t sessionId, const char* szServerName);
  // On success appends the subscribed message ids to `status` (its vectors are not cleared) and
  // sets the other fields; on any failure `status` is left untouched.
  int32_t GetSession(uint64_t doerId, uint64_t sessionId, MONITOR_SESSION_STATUS& status);
  // On success replaces `sessionIds` with the service's list. doerId is always sent.
  int32_t ListSession(uint64_t doerId, std::vector<uint64_t>& sessionIds);
  // doerId is always sent.
  int32_t SetDebugLevel(uint64_t doerId, MONITOR_DEBUG_LEVEL level);

  // A reply member read as an unsigned number may throw std::runtime_error when it is negative
  // ("Negative integer can not be converted to UInt64"); it is not caught here.

 protected:
  Transmitter* transmitter;

 private:
  // Sends `request` for `code` and checks the reply's api, method, version and ret. True when the
  // service answered with a valid "ret", which is then in `*result` and the parsed reply in
  // `reply`; false with the encoder's own code in `*result`. The two must be told apart because
  // the service's codes and the encoder's overlap.
  bool Execute(MONITOR_CMD_CODE code, Json::Value& request, Json::Value& reply, int32_t* result);
  // Execute for the commands without output: the result either way.
  int32_t SendCommand(MONITOR_CMD_CODE code, Json::Value& request);
  int32_t SendSessionCommand(MONITOR_CMD_CODE code, uint64_t doerId, uint64_t sessionId);
  int32_t SendTrapCommand(MONITOR_CMD_CODE code, uint64_t doerId, uint64_t sessionId,
                          TRAP_TYPE type, uint64_t msgId, bool async);
  // Both CreateSession calls: false when the encoder failed (its code in `*result`), true when the
  // service answered (its "ret" in `*result`, and the id in `*sessionId` on success).
  bool CreateSessionReply(const char* secret, int32_t* result, uint64_t* sessionId);
};

}  // namespace libtidewatch
