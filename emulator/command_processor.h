// Carries out one JSON command of the monitor protocol against the session table and builds the
// JSON reply: api, method and version echoed (as far as the request lets them be), "ret", and
// "data" for the commands that give output. Any input gets an answer; a malformed request gets a
// non-zero "ret". Not thread-safe: one command loop calls it.
#pragma once

#include <json/json.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "emulator/session_table.h"

namespace hal_emulator {

struct ServiceSecrets {
  std::string manager = "TidewatchManagerAccess";
  std::string root = "TidewatchRootAccess";
};

class CommandProcessor {
 public:
  // Told about every accepted debug level, so that the program can apply it.
  using DebugLevelHook = std::function<void(int level)>;

  // `sessions` must outlive the processor.
  CommandProcessor(SessionTable* sessions, const ServiceSecrets& secrets);

  // Answers one request payload: JSON text, normally followed by a NUL (which is not required).
  Json::Value Process(const uint8_t* payload, size_t len);

  // The reply to a request that carried nothing that could be echoed.
  static Json::Value Refusal(int ret);

  void SetDebugLevelHook(DebugLevelHook hook) { m_debugLevelHook = std::move(hook); }
  int DebugLevel() const { return m_debugLevel; }

 private:
  using Handler = int (CommandProcessor::*)(const Json::Value& request, Json::Value* data);
  struct Command {
    const char* api;
    const char* method;
    Handler handler;
  };
  static const Command kCommands[];

  int CreateSession(const Json::Value& request, Json::Value* data);
  int CloseSession(const Json::Value& request, Json::Value* data);
  int SubscribeTrap(const Json::Value& request, Json::Value* data);
  int UnsubscribeTrap(const Json::Value& request, Json::Value* data);
  int EnableTrap(const Json::Value& request, Json::Value* data);
  int DisableTrap(const Json::Value& request, Json::Value* data);
  int SetTrapReceiver(const Json::Value& request, Json::Value* data);
  int GetSession(const Json::Value& request, Json::Value* data);
  int ListSession(const Json::Value& request, Json::Value* data);
  int SetDebugLevel(const Json::Value& request, Json::Value* data);
  int Unsupported(const Json::Value& request, Json::Value* data);

  // Shared argument reading of the commands that address one session and may name a doer.
  int ReadTarget(const Json::Value& request, uint64_t* doerId, uint64_t* sessionId);
  int ReadSubscription(const Json::Value& request, uint64_t* doerId, uint64_t* sessionId,
                       libtidewatch::TRAP_TYPE* type, uint64_t* msgId);

  SessionTable* m_sessions;
  ServiceSecrets m_secrets;
  int m_debugLevel = libtidewatch::MONITOR_DEBUG_LEVEL_ERROR;
  DebugLevelHook m_debugLevelHook;
};

}  // namespace hal_emulator
