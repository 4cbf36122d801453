// The "ret" values the emulated service answers with. They share the number space 0 to 15 that the
// tool passes through to its user, so 9 and 10 (the tool's own send-failed and bad-reply codes) are
// left unused to keep the two sources apart. emulator/README.md documents them for users.
#pragma once

namespace hal_emulator {

enum EmulatorRet : int {
  kRetOk = 0,
  kRetNotCommandPacket = 1,    // not an MCP packet, or an MCP packet of a type other than command
  kRetNotJsonObject = 2,       // the payload is not JSON text, or its value is not an object
  kRetBadArgument = 3,         // a member is missing, has the wrong JSON type or an unusable value
  kRetUnknownCommand = 4,      // no command by that api and method
  kRetBadVersion = 5,          // the command exists, but not in that version
  kRetNoSuchSession = 6,       // the target session or the doer session does not exist
  kRetPermissionDenied = 7,    // the doer may not act on the target, or its level is too low
  kRetWrongSecret = 8,         // a secret was given that opens no level
  kRetSessionLimit = 11,       // no room for another session
  kRetSubscriptionLimit = 12,  // the session holds as many subscriptions as it may
  kRetNotSubscribed = 13,      // unsubscribing a message id that is not subscribed
  kRetUnsupported = 14,        // a known command that this service does not carry out
  kRetInternal = 15,           // the reply could not be built
};

}  // namespace hal_emulator
