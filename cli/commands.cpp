#include "cli/commands.h"

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <vector>

#include "cli/arguments.h"
#include "cli/credentials.h"
#include "cli/session_file.h"
#include "cli/tide_watch_ctrl.h"
#include "cli/trap_printer.h"
#include "libtidewatch/trap/monitor_trap_receiver.h"

namespace cli {
namespace {

using libtidewatch::TRAP_TYPE;

constexpr char kServerNameError[] = "szServerName snprintf:error";
constexpr char kReceiverServerNameError[] = "szServerName2 snprintf:error";

// Fills an id that is still 0 from the current-session file. A successful read wins even when the
// file holds 0; a failed one prints why the id is needed, after the file's own message.
bool DefaultFromSessionFile(unsigned long* id, const char* name) {
  if (*id != 0 || GetCurSession(*id)) return true;
  printf("Argument <%s> should be specified and cannot be zero", name);
  return false;
}

void PrintSessionResp(int resp, const CommandArgs& args) {
  printf("resp = [%d], doerId = [%lu], sessionId = [%lu]\n", resp, args.doerId, args.sessionId);
}

void PrintDoerResp(int resp, const CommandArgs& args) {
  printf("resp = [%d], doerId = [%lu]\n", resp, args.doerId);
}

// The words and defaults of the commands that address one session by doerId and sessionId.
bool ReadSessionTarget(const Words& words, CommandArgs* args, int* status) {
  const WordRules rules = {kKeyDoerId | kKeySessionId, false, kServerNameError};
  if (!ParseWords(words.count, words.items, rules, args, status)) return false;
  if (!DefaultFromSessionFile(&args->sessionId, "sessionId")) {
    *status = -1;
    return false;
  }
  return true;
}

using TrapCall = int32_t (libtidewatch::JsonCmdEncoder::*)(uint64_t, uint64_t, TRAP_TYPE, uint64_t,
                                                           bool);

int TrapSubscription(CmdProxy& proxy, const Words& words, TrapCall call) {
  CommandArgs args;
  const WordRules rules = {kKeyDoerId | kKeySessionId | kKeyType | kKeyMsgId, false,
                           kServerNameError};
  int status = 0;
  if (!ParseWords(words.count, words.items, rules, &args, &status)) return status;
  // The type is checked before anything else so that a forgotten type is reported first.
  if (words.count == 0 || static_cast<uint16_t>(args.type) == libtidewatch::TRAP_TYPE_NONE) {
    printf("Argument <type> should be one of \"OTA\", \"EM\" and \"VoLTE\".");
    return -1;
  }
  if (!DefaultFromSessionFile(&args.sessionId, "sessionId")) return -1;
  if (args.msgId == 0) {
    printf("Argument <msgId> should be specified and cannot be zero");
    return -1;
  }
  int resp = (proxy.*call)(args.doerId, args.sessionId, args.type, args.msgId, false);
  printf("resp = [%d], doerId = [%lu], sessionId = [%lu], type = [%d], msgId = [%lu]\n", resp,
         args.doerId, args.sessionId, static_cast<int>(static_cast<int16_t>(args.type)),
         args.msgId);
  return resp;
}

using SessionCall = int32_t (libtidewatch::JsonCmdEncoder::*)(uint64_t, uint64_t);

int SessionAction(CmdProxy& proxy, const Words& words, SessionCall call) {
  CommandArgs args;
  int status = 0;
  if (!ReadSessionTarget(words, &args, &status)) return status;
  int resp = (proxy.*call)(args.doerId, args.sessionId);
  PrintSessionResp(resp, args);
  return resp;
}

void PrintSubscribed(const libtidewatch::FrameDecoder& decoder,
                     const libtidewatch::MONITOR_SESSION_STATUS& status, TRAP_TYPE type,
                     const char* title) {
  const std::vector<uint64_t>& ids = status.subscribedTraps[type];
  if (ids.empty()) return;
  puts(title);
  for (uint64_t id : ids) {
    // An unknown name stays a null pointer: the C library prints its own marker for it.
    printf("\t%s (%lu)\n", decoder.GetMsgString(type, id), static_cast<unsigned long>(id));
  }
}

}  // namespace

int CreateSessionCommand(CmdProxy& proxy, const Words& words) {
  CommandArgs args;
  const WordRules rules = {kKeyLevel, false, kServerNameError};
  int status = 0;
  if (!ParseWords(words.count, words.items, rules, &args, &status)) return status;
  // Compared unsigned, so every negative level is refused with the rest.
  if (static_cast<unsigned>(args.level) >= 3) {
    printf("Value of [level] is invalid: [%d]", args.level);
    long_help();
    return -1;
  }
  const char* secret = nullptr;
  if (args.level == 1) secret = kManagerSecret;
  if (args.level == 2) secret = kRootSecret;
  // The proxy returns small failure codes in place of an id; they are kept and shown like one.
  unsigned long sessionId = proxy.CreateSession(secret);
  SetCurSession(sessionId);
  if (sessionId == 0) return -1;
  printf("%lu\n", sessionId);
  return 0;
}

int CloseSessionCommand(CmdProxy& proxy, const Words& words) {
  return SessionAction(proxy, words, &libtidewatch::JsonCmdEncoder::CloseSession);
}

int SubscribeTrapCommand(CmdProxy& proxy, const Words& words) {
  return TrapSubscription(proxy, words, &libtidewatch::JsonCmdEncoder::SubscribeTrap);
}

int UnsubscribeTrapCommand(CmdProxy& proxy, const Words& words) {
  return TrapSubscription(proxy, words, &libtidewatch::JsonCmdEncoder::UnsubscribeTrap);
}

int EnableTrapCommand(CmdProxy& proxy, const Words& words) {
  return SessionAction(proxy, words, &libtidewatch::JsonCmdEncoder::EnableTrap);
}

int DisableTrapCommand(CmdProxy& proxy, const Words& words) {
  return SessionAction(proxy, words, &libtidewatch::JsonCmdEncoder::DisableTrap);
}

int SetTrapReceiverCommand(CmdProxy& proxy, const Words& words) {
  CommandArgs args;
  const WordRules rules = {kKeyDoerId | kKeySessionId | kKeyServerName, false, kServerNameError};
  int status = 0;
  if (!ParseWords(words.count, words.items, rules, &args, &status)) return status;
  if (!DefaultFromSessionFile(&args.sessionId, "sessionId")) return -1;
  int resp = proxy.SetTrapReceiver(args.doerId, args.sessionId, args.serverName);
  printf("resp = [%d], doerId = [%lu], sessionId = [%lu], servername = [%s]\n", resp, args.doerId,
         args.sessionId, args.serverName);
  return resp;
}

int GetSessionCommand(CmdProxy& proxy, const libtidewatch::FrameDecoder& decoder,
                      const Words& words) {
  CommandArgs args;
  int status = 0;
  if (!ReadSessionTarget(words, &args, &status)) return status;
  libtidewatch::MONITOR_SESSION_STATUS session;
  int resp = proxy.GetSession(args.doerId, args.sessionId, session);
  if (resp != 0) {
    PrintSessionResp(resp, args);
    return resp;
  }
  printf("  Session ID: [%lu]\n", args.sessionId);
  printf("Trap Enabled: [%s]\n", session.trapEnabled ? "true" : "false");
  PrintSubscribed(decoder, session, libtidewatch::TRAP_TYPE_OTA, "Subscribed OTA Messages:");
  PrintSubscribed(decoder, session, libtidewatch::TRAP_TYPE_EM, "Subscribed EM Messages:");
  PrintSubscribed(decoder, session, libtidewatch::TRAP_TYPE_VOLTE, "Subscribed VoLTE Messages:");
  if (!session.subscribedTraps[libtidewatch::TRAP_TYPE_PSTIME].empty()) {
    puts("Subscribed PSTIME.");
  }
  if (!session.trapReceiverHost.empty()) {
    printf("Trap Destination: [%s]\n", session.trapReceiverHost.c_str());
  }
  return 0;
}

int ListSessionCommand(CmdProxy& proxy, const Words& words) {
  CommandArgs args;
  const WordRules rules = {kKeyDoerId, false, kServerNameError};
  int status = 0;
  if (!ParseWords(words.count, words.items, rules, &args, &status)) return status;
  if (!DefaultFromSessionFile(&args.doerId, "doerId")) return -1;
  std::vector<uint64_t> sessionIds;
  int resp = proxy.ListSession(args.doerId, sessionIds);
  if (resp != 0) {
    PrintDoerResp(resp, args);
    return resp;
  }
  for (uint64_t id : sessionIds) printf("%lu\n", static_cast<unsigned long>(id));
  return 0;
}

int SetDebugLevelCommand(CmdProxy& proxy, const Words& words) {
  CommandArgs args;
  args.level = libtidewatch::MONITOR_DEBUG_LEVEL_ERROR;
  const WordRules rules = {kKeyDoerId | kKeyLevel, true, kServerNameError};
  int status = 0;
  if (!ParseWords(words.count, words.items, rules, &args, &status)) return status;
  if (!DefaultFromSessionFile(&args.doerId, "doerId")) return -1;
  int resp =
      proxy.SetDebugLevel(args.doerId, static_cast<libtidewatch::MONITOR_DEBUG_LEVEL>(args.level));
  if (resp != 0) PrintDoerResp(resp, args);
  return resp;
}

int RunTrapReceiverCommand(const Words& words) {
  CommandArgs args;
  const WordRules rules = {kKeySessionId | kKeyServerName, false, kReceiverServerNameError};
  int status = 0;
  if (!ParseWords(words.count, words.items, rules, &args, &status)) return status;
  if (!DefaultFromSessionFile(&args.sessionId, "sessionId")) return -1;

  // Lives until the process is killed: the service and the socket keep delivering to it.
  auto* receiver = new libtidewatch::MonitorTrapReceiver(args.sessionId, args.serverName);
  printf("MonitorTrapReceiver [%lu%s] was created.\n", args.sessionId, args.serverName);
  fflush(stdout);
  receiver->userData = nullptr;
  // The drain handler first: a trap printed before it is set would wait for the next one.
  receiver->drainHandler = MyTrapDrainHandler;
  receiver->trapHandler = MyTrapHandler;
  // Traps are handled on the listener and callback threads; this one only keeps the process up.
  for (;;) sleep(100000);
}

}  // namespace cli
