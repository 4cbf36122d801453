#include "libtidewatch/api/json_cmd_encoder.h"

#include <json/json.h>

#include <algorithm>
#include <exception>
#include <memory>
#include <string>
#include <utility>

#include "libtidewatch/api/api_info.h"
#include "libtidewatch/api/json_reply_checker.h"
#include "libtidewatch/platform/log.h"
#include "libtidewatch/transport/mcp_info.h"

namespace libtidewatch {
namespace {

using Kind = JsonReplyChecker::Kind;

// The protocol is defined by the compact writer's exact output (sorted members, one trailing line
// feed) and by the lenient reader; their replacements in newer library versions format and parse
// differently, so the older classes are used on purpose.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
std::string WriteCompact(const Json::Value& value) {
  Json::FastWriter writer;
  return writer.write(value);
}

bool ParseJson(const char* begin, const char* end, Json::Value& root) {
  Json::Reader reader;
  // Nested deeper than its limit, the reader throws instead of failing: a reply it cannot parse.
  try {
    return reader.parse(begin, end, root, /*collectComments=*/true);
  } catch (const std::exception&) {
    return false;
  }
}
#pragma GCC diagnostic pop

// Commands that address one session leave out a doer id of 0.
void SetSessionArgs(Json::Value& request, uint64_t doerId, uint64_t sessionId) {
  Json::Value& arg = request["arg"];
  arg["sessionId"] = Json::UInt64(sessionId);
  if (doerId != 0) arg["doerId"] = Json::UInt64(doerId);
}

// The unsigned numbers of `list`, in order; false (with the type message naming `key`) when one
// of them is not a number, so that the caller can reject the reply before writing any output.
bool ReadIdList(const Json::Value& list, const char* key, std::vector<uint64_t>& ids) {
  for (const Json::Value& element : list) {
    if (!JsonReplyChecker::IsNumber(element)) {
      TW_LOGE("Type of [%s] is not correct in JSON reply:", key);
      return false;
    }
    ids.push_back(JsonReplyChecker::ToUInt64(element));
  }
  return true;
}

}  // namespace

JsonCmdEncoder::JsonCmdEncoder(Transmitter* transmitter) : transmitter(transmitter) {
  TW_LOGD("JsonCmdEncoder Constructor done!");
}

bool JsonCmdEncoder::Execute(MONITOR_CMD_CODE code, Json::Value& request, Json::Value& reply,
                             int32_t* result) {
  ApiInfo info(code);
  request["api"] = info.api;
  request["method"] = info.method;
  request["version"] = Json::UInt64(info.version);

  // The text outlives the packet, which only borrows it; the NUL travels with it.
  const std::string text = WriteCompact(request);
  if (text.size() + 1 > kMcpMaxPayload) {
    TW_LOGE("Request of [%zu] bytes does not fit in one packet.", text.size() + 1);
    *result = MONITOR_RESULT_BAD_ARGUMENT;
    return false;
  }
  MCPInfo packet;
  packet.SetData(MCP_TYPE_CMD, text.size() + 1, reinterpret_cast<const uint8_t*>(text.c_str()),
                 false);

  MCPInfo* received = nullptr;
  const bool sent = transmitter != nullptr && transmitter->Send(packet, &received, nullptr);
  std::unique_ptr<MCPInfo> reply_packet(received);
  if (!sent) {
    TW_LOGE("Send command failed.");
    *result = MONITOR_RESULT_SEND_FAILED;
    return false;
  }
  if (reply_packet == nullptr) {
    TW_LOGE("No reply received.");
    *result = MONITOR_RESULT_SEND_FAILED;
    return false;
  }
  if (reply_packet->type != MCP_TYPE_REPLY) {
    TW_LOGE("Reply type not in Json. [%d]", static_cast<int>(reply_packet->type));
    *result = MONITOR_RESULT_BAD_REPLY;
    return false;
  }

  // The payload ends with the text's NUL, which is not part of the JSON.
  const char* begin = reinterpret_cast<const char*>(reply_packet->data);
  const bool parsed = begin != nullptr && reply_packet->length > 0 &&
                      ParseJson(begin, begin + reply_packet->length - 1, reply);
  reply_packet.reset();
  if (!parsed) {
    TW_LOGE("Cannot parse reply in Json.");
    *result = MONITOR_RESULT_BAD_REPLY;
    return false;
  }
  TW_LOGD("Receive reply [%s]", WriteCompact(reply).c_str());

  *result = MONITOR_RESULT_BAD_REPLY;
  if (!reply.isObject()) {
    TW_LOGE("Reply is not Json object");
    return false;
  }
  const Json::Value& checked = reply;
  if (!JsonReplyChecker::CheckMember(checked, "api", Kind::kString)) return false;
  if (checked["api"].asString() != info.api) {
    TW_LOGE("Reply API [%s] != Command API [%s]", checked["api"].asCString(), info.api.c_str());
    return false;
  }
  if (!JsonReplyChecker::CheckMember(checked, "method", Kind::kString)) return false;
  if (checked["method"].asString() != info.method) {
    TW_LOGE("Reply Method [%s] != Command Method [%s]", checked["method"].asCString(),
            info.method.c_str());
    return false;
  }
  if (!JsonReplyChecker::CheckMember(checked, "version", Kind::kNumber)) return false;
  // Only the low 32 bits of the version take part.
  const uint32_t version = static_cast<uint32_t>(JsonReplyChecker::ToUInt64(checked["version"]));
  if (version != info.version) {
    TW_LOGE("Reply Version [%u] != Command Version [%u]", version, info.version);
    return false;
  }
  if (!JsonReplyChecker::CheckMember(checked, "ret", Kind::kNumber)) return false;
  const int32_t ret =
      static_cast<int32_t>(static_cast<uint32_t>(JsonReplyChecker::ToInt64(checked["ret"])));
  if (ret < 0 || ret > 15) {
    TW_LOGE("ret is invalid. [%d]", ret);
    return false;
  }
  *result = ret;
  return true;
}

int32_t JsonCmdEncoder::SendCommand(MONITOR_CMD_CODE code, Json::Value& request) {
  Json::Value reply;
  int32_t result = 0;
  Execute(code, request, reply, &result);
  return result;
}

int32_t JsonCmdEncoder::SendSessionCommand(MONITOR_CMD_CODE code, uint64_t doerId,
                                           uint64_t sessionId) {
  Json::Value request(Json::objectValue);
  SetSessionArgs(request, doerId, sessionId);
  return SendCommand(code, request);
}

int32_t JsonCmdEncoder::SendTrapCommand(MONITOR_CMD_CODE code, uint64_t doerId, uint64_t sessionId,
                                        TRAP_TYPE type, uint64_t msgId, bool async) {
  Json::Value request(Json::objectValue);
  SetSessionArgs(request, doerId, sessionId);
  const char* type_name = ToTrapStr(type);
  if (type_name == nullptr) {
    TW_LOGE("Undefined type [%d]", static_cast<int>(type));
    return MONITOR_RESULT_BAD_ARGUMENT;
  }
  Json::Value& arg = request["arg"];
  arg["type"] = type_name;
  arg["msgId"] = Json::UInt64(msgId);
  // A number, not a JSON boolean: that is what the service reads.
  arg["async"] = Json::UInt64(async ? 1 : 0);
  return SendCommand(code, request);
}

bool JsonCmdEncoder::CreateSessionReply(const char* secret, int32_t* result, uint64_t* sessionId) {
  Json::Value request(Json::objectValue);
  if (secret != nullptr) request["arg"]["secret"] = secret;
  Json::Value reply;
  if (!Execute(MONITOR_CMD_CREATE_SESSION, request, reply, result)) return false;
  if (*result != 0) return true;
  if (!JsonReplyChecker::CheckMember(reply, "data", Kind::kObject) ||
      !JsonReplyChecker::CheckMember(reply["data"], "sessionId", Kind::kNumber)) {
    *result = MONITOR_RESULT_BAD_REPLY;
    return false;
  }
  *sessionId = JsonReplyChecker::ToUInt64(reply["data"]["sessionId"]);
  return true;
}

uint64_t JsonCmdEncoder::CreateSession(const char* secret) {
  int32_t result = 0;
  uint64_t sessionId = 0;
  if (!CreateSessionReply(secret, &result, &sessionId)) return static_cast<uint64_t>(result);
  // A refusal reads as session id 0, which is how the caller recognises a failure.
  return result == 0 ? sessionId : 0;
}

int32_t JsonCmdEncoder::CreateSession(const char* secret, uint64_t* sessionId) {
  int32_t result = 0;
  uint64_t id = 0;
  CreateSessionReply(secret, &result, &id);
  if (result == 0) *sessionId = id;
  return result;
}

int32_t JsonCmdEncoder::CloseSession(uint64_t doerId, uint64_t sessionId) {
  return SendSessionCommand(MONITOR_CMD_CLOSE_SESSION, doerId, sessionId);
}

int32_t JsonCmdEncoder::SubscribeTrap(uint64_t doerId, uint64_t sessionId, TRAP_TYPE type,
                                      uint64_t msgId, bool async) {
  return SendTrapCommand(MONITOR_CMD_SUBSCRIBE_TRAP, doerId, sessionId, type, msgId, async);
}

int32_t JsonCmdEncoder::UnsubscribeTrap(uint64_t doerId, uint64_t sessionId, TRAP_TYPE type,
                                        uint64_t msgId, bool async) {
  return SendTrapCommand(MONITOR_CMD_UNSUBSCRIBE_TRAP, doerId, sessionId, type, msgId, async);
}

int32_t JsonCmdEncoder::EnableTrap(uint64_t doerId, uint64_t sessionId) {
  return SendSessionCommand(MONITOR_CMD_ENABLE_TRAP, doerId, sessionId);
}

int32_t JsonCmdEncoder::DisableTrap(uint64_t doerId, uint64_t sessionId) {
  return SendSessionCommand(MONITOR_CMD_DISABLE_TRAP, doerId, sessionId);
}

int32_t JsonCmdEncoder::SetTrapReceiver(uint64_t doerId, uint64_t sessionId,
                                        const char* szServerName) {
  if (szServerName == nullptr) {
    TW_LOGE("szServerName should not be NULL");
    return MONITOR_RESULT_BAD_ARGUMENT;
  }
  Json::Value request(Json::objectValue);
  SetSessionArgs(request, doerId, sessionId);
  request["arg"]["server_name"] = std::to_string(sessionId) + szServerName;
  return SendCommand(MONITOR_CMD_SET_TRAP_RECEIVER, request);
}

int32_t JsonCmdEncoder::GetSession(uint64_t doerId, uint64_t sessionId,
                                   MONITOR_SESSION_STATUS& status) {
  Json::Value request(Json::objectValue);
  SetSessionArgs(request, doerId, sessionId);
  Json::Value reply;
  int32_t result = 0;
  if (!Execute(MONITOR_CMD_GET_SESSION, request, reply, &result) || result != 0) return result;

  if (!JsonReplyChecker::CheckMember(reply, "data", Kind::kObject)) return MONITOR_RESULT_BAD_REPLY;
  const Json::Value& data = reply["data"];
  if (!JsonReplyChecker::CheckMember(data, "trapEnabled", Kind::kBool) ||
      !JsonReplyChecker::CheckMember(data, "subscribedTraps", Kind::kArray) ||
      !JsonReplyChecker::CheckMember(data, "trapReceiverHost", Kind::kString)) {
    return MONITOR_RESULT_BAD_REPLY;
  }

  // Everything is read before `status` is touched, so a rejected (or throwing) read leaves it as
  // it was. Element t belongs to trap type t; lists beyond the last type have nowhere to go.
  std::vector<uint64_t> subscribed[TRAP_TYPE_NUM];
  const Json::Value& traps = data["subscribedTraps"];
  const Json::ArrayIndex types =
      std::min<Json::ArrayIndex>(traps.size(), static_cast<Json::ArrayIndex>(TRAP_TYPE_NUM));
  for (Json::ArrayIndex t = 0; t < types; ++t) {
    if (!traps[t].isArray()) continue;
    if (!ReadIdList(traps[t], "subscribedTraps", subscribed[t])) return MONITOR_RESULT_BAD_REPLY;
  }

  status.trapEnabled = data["trapEnabled"].asBool();
  for (size_t t = 0; t < TRAP_TYPE_NUM; ++t) {
    status.subscribedTraps[t].insert(status.subscribedTraps[t].end(), subscribed[t].begin(),
                                     subscribed[t].end());
  }
  status.trapReceiverHost = data["trapReceiverHost"].asString();
  return 0;
}

int32_t JsonCmdEncoder::ListSession(uint64_t doerId, std::vector<uint64_t>& sessionIds) {
  Json::Value request(Json::objectValue);
  request["arg"]["doerId"] = Json::UInt64(doerId);
  Json::Value reply;
  int32_t result = 0;
  if (!Execute(MONITOR_CMD_LIST_SESSION, request, reply, &result) || result != 0) return result;

  if (!JsonReplyChecker::CheckMember(reply, "data", Kind::kObject)) return MONITOR_RESULT_BAD_REPLY;
  const Json::Value& data = reply["data"];
  if (!JsonReplyChecker::CheckMember(data, "sid_list", Kind::kArray)) {
    return MONITOR_RESULT_BAD_REPLY;
  }
  std::vector<uint64_t> ids;
  if (!ReadIdList(data["sid_list"], "sid_list", ids)) return MONITOR_RESULT_BAD_REPLY;
  sessionIds = std::move(ids);
  return 0;
}

int32_t JsonCmdEncoder::SetDebugLevel(uint64_t doerId, MONITOR_DEBUG_LEVEL level) {
  Json::Value request(Json::objectValue);
  Json::Value& arg = request["arg"];
  arg["doerId"] = Json::UInt64(doerId);
  arg["level"] = Json::UInt64(static_cast<uint64_t>(static_cast<int64_t>(level)));
  return SendCommand(MONITOR_CMD_SET_DEBUG_LEVEL, request);
}

}  // namespace libtidewatch
