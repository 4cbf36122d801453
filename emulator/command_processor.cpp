#include "emulator/command_processor.h"

#include <cstring>
#include <memory>
#include <vector>

#include "emulator/result_codes.h"
#include "libtidewatch/platform/log.h"

namespace hal_emulator {

using libtidewatch::MONITOR_DEBUG_LEVEL_DISABLE;
using libtidewatch::MONITOR_DEBUG_LEVEL_ERROR;
using libtidewatch::MONITOR_DEBUG_LEVEL_RAW_DATA_DUMPER;
using libtidewatch::MONITOR_SESSION_STATUS;
using libtidewatch::StrToTrapType;
using libtidewatch::TRAP_TYPE;
using libtidewatch::TRAP_TYPE_NONE;
namespace {

constexpr uint64_t kCommandVersion = 1;
// Longest name the trap thread can connect to: an abstract socket name fills sun_path after the
// leading NUL byte.
constexpr size_t kMaxDestinationLength = 107;
// The JSON reader recurses per nesting level and throws past its own limit; requests this deep
// are refused before they reach it.
constexpr int kMaxNesting = 64;

bool NestingWithin(const char* p, const char* end, int limit) {
  int depth = 0;
  bool inString = false;
  bool escaped = false;
  for (; p < end; ++p) {
    char c = *p;
    if (inString) {
      if (escaped) {
        escaped = false;
      } else if (c == '\\') {
        escaped = true;
      } else if (c == '"') {
        inString = false;
      }
    } else if (c == '"') {
      inString = true;
    } else if (c == '{' || c == '[') {
      if (++depth > limit) return false;
    } else if (c == '}' || c == ']') {
      --depth;
    }
  }
  return true;
}

bool ParseObject(const uint8_t* payload, size_t len, Json::Value* out) {
  if (payload == nullptr) return false;
  // The terminating NUL is part of the packet, not of the text.
  if (len > 0 && payload[len - 1] == '\0') --len;
  const char* begin = reinterpret_cast<const char*>(payload);
  const char* end = begin + len;
  if (!NestingWithin(begin, end, kMaxNesting)) return false;
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  std::string errors;
  return reader->parse(begin, end, out, &errors) && out->isObject();
}

// A non-negative JSON integer, read without the library's throwing conversions.
bool IsUnsigned(const Json::Value& v) {
  return v.type() == Json::uintValue || (v.type() == Json::intValue && v.asInt64() >= 0);
}

int ReadUnsigned(const Json::Value& obj, const char* key, bool required, uint64_t* out) {
  if (!obj.isMember(key)) return required ? kRetBadArgument : kRetOk;
  const Json::Value& v = obj[key];
  if (!IsUnsigned(v)) return kRetBadArgument;
  *out = v.asUInt64();
  return kRetOk;
}

int ReadString(const Json::Value& obj, const char* key, std::string* out) {
  if (!obj.isMember(key)) return kRetBadArgument;
  const Json::Value& v = obj[key];
  if (!v.isString()) return kRetBadArgument;
  *out = v.asString();
  return kRetOk;
}

// The "arg" object; commands that take arguments cannot do without it.
const Json::Value* Args(const Json::Value& request) {
  const Json::Value& arg = request["arg"];
  return arg.isObject() ? &arg : nullptr;
}

Json::Value IdArray(const std::vector<uint64_t>& ids) {
  Json::Value array(Json::arrayValue);
  for (uint64_t id : ids) array.append(Json::Value(static_cast<Json::UInt64>(id)));
  return array;
}

}  // namespace

const CommandProcessor::Command CommandProcessor::kCommands[] = {
    {"Tidewatch.Session", "create", &CommandProcessor::CreateSession},
    {"Tidewatch.Session", "close", &CommandProcessor::CloseSession},
    {"Tidewatch.Trap", "subscribe", &CommandProcessor::SubscribeTrap},
    {"Tidewatch.Trap", "unsubscribe", &CommandProcessor::UnsubscribeTrap},
    {"Tidewatch.Trap", "enable", &CommandProcessor::EnableTrap},
    {"Tidewatch.Trap", "disable", &CommandProcessor::DisableTrap},
    {"Tidewatch.Trap.Receiver", "set", &CommandProcessor::SetTrapReceiver},
    {"Tidewatch.Session", "get", &CommandProcessor::GetSession},
    {"Tidewatch.Session", "list", &CommandProcessor::ListSession},
    {"Tidewatch.DebugLevel", "set", &CommandProcessor::SetDebugLevel},
    {"Tidewatch.ICD.IPPayloadFormat", "set", &CommandProcessor::Unsupported},
    {"Tidewatch.ICD.RangeInfo", "list", &CommandProcessor::Unsupported},
};

CommandProcessor::CommandProcessor(SessionTable* sessions, const ServiceSecrets& secrets)
    : m_sessions(sessions), m_secrets(secrets) {}

Json::Value CommandProcessor::Refusal(int ret) {
  Json::Value reply(Json::objectValue);
  reply["ret"] = ret;
  return reply;
}

Json::Value CommandProcessor::Process(const uint8_t* payload, size_t len) {
  Json::Value request;
  if (!ParseObject(payload, len, &request)) return Refusal(kRetNotJsonObject);

  // Echo whatever has the right type, so that even a refused request is answered recognisably.
  // A negative version is not echoed: the tool reads the echo as unsigned, and its JSON library
  // throws on that conversion.
  Json::Value reply(Json::objectValue);
  const Json::Value& api = request["api"];
  const Json::Value& method = request["method"];
  const Json::Value& version = request["version"];
  if (api.isString()) reply["api"] = api;
  if (method.isString()) reply["method"] = method;
  if (IsUnsigned(version)) reply["version"] = version;

  int ret = kRetUnknownCommand;
  Json::Value data(Json::nullValue);
  if (!api.isString() || !method.isString() || !IsUnsigned(version)) {
    ret = kRetBadArgument;
  } else {
    for (const Command& c : kCommands) {
      if (api.asString() != c.api || method.asString() != c.method) continue;
      ret = version.asUInt64() != kCommandVersion ? kRetBadVersion
                                                  : (this->*c.handler)(request, &data);
      break;
    }
  }
  reply["ret"] = ret;
  if (ret == kRetOk && !data.isNull()) reply["data"] = data;
  return reply;
}

int CommandProcessor::ReadTarget(const Json::Value& request, uint64_t* doerId,
                                 uint64_t* sessionId) {
  const Json::Value* arg = Args(request);
  if (arg == nullptr) return kRetBadArgument;
  *doerId = 0;
  int ret = ReadUnsigned(*arg, "sessionId", true, sessionId);
  if (ret == kRetOk) ret = ReadUnsigned(*arg, "doerId", false, doerId);
  return ret;
}

int CommandProcessor::ReadSubscription(const Json::Value& request, uint64_t* doerId,
                                       uint64_t* sessionId, TRAP_TYPE* type, uint64_t* msgId) {
  int ret = ReadTarget(request, doerId, sessionId);
  if (ret != kRetOk) return ret;
  const Json::Value& arg = request["arg"];
  std::string typeName;
  ret = ReadString(arg, "type", &typeName);
  if (ret != kRetOk) return ret;
  *type = StrToTrapType(typeName.c_str());
  // A name with an embedded NUL must not pass as its prefix.
  if (*type == TRAP_TYPE_NONE || typeName.size() != strlen(typeName.c_str())) {
    return kRetBadArgument;
  }
  ret = ReadUnsigned(arg, "msgId", true, msgId);
  uint64_t async = 0;
  if (ret == kRetOk) ret = ReadUnsigned(arg, "async", false, &async);
  return ret;
}

int CommandProcessor::CreateSession(const Json::Value& request, Json::Value* data) {
  SessionLevel level = SessionLevel::kGuest;
  if (request.isMember("arg")) {
    const Json::Value* arg = Args(request);
    if (arg == nullptr) return kRetBadArgument;
    if (arg->isMember("secret")) {
      std::string secret;
      if (ReadString(*arg, "secret", &secret) != kRetOk) return kRetBadArgument;
      if (secret == m_secrets.manager) {
        level = SessionLevel::kManager;
      } else if (secret == m_secrets.root) {
        level = SessionLevel::kRoot;
      } else {
        return kRetWrongSecret;
      }
    }
  }
  uint64_t id = 0;
  int ret = m_sessions->Create(level, &id);
  if (ret != kRetOk) return ret;
  (*data)["sessionId"] = static_cast<Json::UInt64>(id);
  TW_LOGI("session %llu created at level %d", static_cast<unsigned long long>(id),
          static_cast<int>(level));
  return kRetOk;
}

int CommandProcessor::CloseSession(const Json::Value& request, Json::Value*) {
  uint64_t doerId = 0, sessionId = 0;
  int ret = ReadTarget(request, &doerId, &sessionId);
  return ret != kRetOk ? ret : m_sessions->Close(doerId, sessionId);
}

int CommandProcessor::SubscribeTrap(const Json::Value& request, Json::Value*) {
  uint64_t doerId = 0, sessionId = 0, msgId = 0;
  TRAP_TYPE type = TRAP_TYPE_NONE;
  int ret = ReadSubscription(request, &doerId, &sessionId, &type, &msgId);
  return ret != kRetOk ? ret : m_sessions->Subscribe(doerId, sessionId, type, msgId);
}

int CommandProcessor::UnsubscribeTrap(const Json::Value& request, Json::Value*) {
  uint64_t doerId = 0, sessionId = 0, msgId = 0;
  TRAP_TYPE type = TRAP_TYPE_NONE;
  int ret = ReadSubscription(request, &doerId, &sessionId, &type, &msgId);
  return ret != kRetOk ? ret : m_sessions->Unsubscribe(doerId, sessionId, type, msgId);
}

int CommandProcessor::EnableTrap(const Json::Value& request, Json::Value*) {
  uint64_t doerId = 0, sessionId = 0;
  int ret = ReadTarget(request, &doerId, &sessionId);
  return ret != kRetOk ? ret : m_sessions->SetTrapEnabled(doerId, sessionId, true);
}

int CommandProcessor::DisableTrap(const Json::Value& request, Json::Value*) {
  uint64_t doerId = 0, sessionId = 0;
  int ret = ReadTarget(request, &doerId, &sessionId);
  return ret != kRetOk ? ret : m_sessions->SetTrapEnabled(doerId, sessionId, false);
}

int CommandProcessor::SetTrapReceiver(const Json::Value& request, Json::Value*) {
  uint64_t doerId = 0, sessionId = 0;
  int ret = ReadTarget(request, &doerId, &sessionId);
  if (ret != kRetOk) return ret;
  std::string name;
  ret = ReadString(request["arg"], "server_name", &name);
  if (ret != kRetOk) return ret;
  if (name.size() > kMaxDestinationLength || name.find('\0') != std::string::npos) {
    return kRetBadArgument;
  }
  return m_sessions->SetReceiver(doerId, sessionId, name);
}

int CommandProcessor::GetSession(const Json::Value& request, Json::Value* data) {
  uint64_t doerId = 0, sessionId = 0;
  int ret = ReadTarget(request, &doerId, &sessionId);
  if (ret != kRetOk) return ret;
  MONITOR_SESSION_STATUS status;
  ret = m_sessions->Get(doerId, sessionId, &status);
  if (ret != kRetOk) return ret;
  (*data)["trapEnabled"] = status.trapEnabled;
  Json::Value traps(Json::arrayValue);
  for (const std::vector<uint64_t>& ids : status.subscribedTraps) traps.append(IdArray(ids));
  (*data)["subscribedTraps"] = traps;
  (*data)["trapReceiverHost"] = status.trapReceiverHost;
  return kRetOk;
}

int CommandProcessor::ListSession(const Json::Value& request, Json::Value* data) {
  const Json::Value* arg = Args(request);
  uint64_t doerId = 0;
  if (arg == nullptr || ReadUnsigned(*arg, "doerId", true, &doerId) != kRetOk) {
    return kRetBadArgument;
  }
  std::vector<uint64_t> ids;
  int ret = m_sessions->List(doerId, &ids);
  if (ret != kRetOk) return ret;
  (*data)["sid_list"] = IdArray(ids);
  return kRetOk;
}

int CommandProcessor::SetDebugLevel(const Json::Value& request, Json::Value*) {
  const Json::Value* arg = Args(request);
  uint64_t doerId = 0, level = 0;
  if (arg == nullptr || ReadUnsigned(*arg, "doerId", true, &doerId) != kRetOk ||
      ReadUnsigned(*arg, "level", true, &level) != kRetOk) {
    return kRetBadArgument;
  }
  bool known =
      (level >= MONITOR_DEBUG_LEVEL_RAW_DATA_DUMPER && level <= MONITOR_DEBUG_LEVEL_ERROR) ||
      level == MONITOR_DEBUG_LEVEL_DISABLE;
  if (!known) return kRetBadArgument;
  int ret = m_sessions->CheckPrivileged(doerId);
  if (ret != kRetOk) return ret;
  m_debugLevel = static_cast<int>(level);
  if (m_debugLevelHook) m_debugLevelHook(m_debugLevel);
  return kRetOk;
}

int CommandProcessor::Unsupported(const Json::Value&, Json::Value*) { return kRetUnsupported; }

}  // namespace hal_emulator
