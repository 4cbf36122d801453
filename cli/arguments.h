// The key=value words that follow the command option: which keys a command accepts, how each
// value is converted, and the messages for words that are refused or values that do not convert.
#pragma once

#include <cstddef>

#include "libtidewatch/api/monitor_types.h"

namespace cli {

// The keys a command may accept, as a bit set.
enum ArgKey : unsigned {
  kKeyDoerId = 1u << 0,
  kKeySessionId = 1u << 1,
  kKeyType = 1u << 2,
  kKeyMsgId = 1u << 3,
  kKeyLevel = 1u << 4,
  kKeyServerName = 1u << 5,
};

constexpr size_t kServerNameSize = 128;

// Every variable a word can set. 0 marks an id as not given, so an explicit 0 reads as absent.
struct CommandArgs {
  unsigned long doerId = 0;
  unsigned long sessionId = 0;
  unsigned long msgId = 0;
  libtidewatch::TRAP_TYPE type = libtidewatch::TRAP_TYPE_NONE;
  int level = 0;  // the command sets its own default before parsing
  char serverName[kServerNameSize] = {};
};

// What one command allows.
struct WordRules {
  unsigned keys;                // ArgKey bits
  bool debugLevelWords;         // each level word must name a service debug level (1 to 6 or 10)
  const char* serverNameError;  // printed when the server name cannot be copied
};

// Parses `count` words into `args`, the last word of a key winning. Returns true when the command
// may go on; otherwise the reason was printed and `*status` holds the status to return: -1 for a
// refused word (after the usage text), 0 for a value that does not convert.
bool ParseWords(int count, char* const* words, const WordRules& rules, CommandArgs* args,
                int* status);

// The unsigned decimal conversion of an id value. Prints a notice when the value reads as 0 and a
// message when it fails (trailing text, overflow or the largest 64-bit value).
bool ConvertUnsigned(const char* text, unsigned long* value);

}  // namespace cli
