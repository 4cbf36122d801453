#include "cli/arguments.h"

#include <strings.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "cli/tide_watch_ctrl.h"

namespace cli {
namespace {

struct KeyName {
  ArgKey key;
  const char* prefix;  // compared case-insensitively, '=' included, so DOERID=5 is accepted
};

constexpr KeyName kKeyNames[] = {
    {kKeyDoerId, "doerId="}, {kKeySessionId, "sessionId="}, {kKeyType, "type="},
    {kKeyMsgId, "msgId="},   {kKeyLevel, "level="},         {kKeyServerName, "servername="},
};

// The key a word names among the accepted ones, with its value; 0 when it names none of them.
unsigned MatchWord(const char* word, unsigned accepted, const char** value) {
  for (const KeyName& k : kKeyNames) {
    if ((accepted & k.key) == 0) continue;
    size_t len = strlen(k.prefix);
    if (strncasecmp(word, k.prefix, len) == 0) {
      *value = word + len;
      return k.key;
    }
  }
  return 0;
}

bool IsDebugLevel(int level) { return (level >= 1 && level <= 6) || level == 10; }

bool Refuse(const char* word, int* status) {
  printf("invalid option: %s", word);
  long_help();
  *status = -1;
  return false;
}

}  // namespace

bool ConvertUnsigned(const char* text, unsigned long* value) {
  char* end = nullptr;
  unsigned long long result = strtoull(text, &end, 10);
  bool whole = *end == '\0';
  if (result == 0) {
    printf("strtoull return 0 [%s] to uint64_t.", text);
  } else if (result == ULLONG_MAX) {
    // Overflow saturates here, so the largest value itself cannot be told apart from it.
    whole = false;
  }
  if (!whole) {
    printf("Failed to convert [%s] to uint64_t.", text);
    return false;
  }
  *value = result;
  return true;
}

bool ParseWords(int count, char* const* words, const WordRules& rules, CommandArgs* args,
                int* status) {
  for (int i = 0; i < count; ++i) {
    const char* word = words[i];
    const char* value = nullptr;
    bool converted = true;
    switch (MatchWord(word, rules.keys, &value)) {
      case kKeyDoerId:
        converted = ConvertUnsigned(value, &args->doerId);
        break;
      case kKeySessionId:
        converted = ConvertUnsigned(value, &args->sessionId);
        break;
      case kKeyMsgId:
        converted = ConvertUnsigned(value, &args->msgId);
        break;
      case kKeyType:
        args->type = libtidewatch::StrToTrapType(value);
        break;
      case kKeyLevel:
        args->level = atoi(value);
        if (rules.debugLevelWords && !IsDebugLevel(args->level)) return Refuse(word, status);
        break;
      case kKeyServerName:
        if (snprintf(args->serverName, sizeof(args->serverName), "%s", value) < 0) {
          printf("%s", rules.serverNameError);
        }
        break;
      default:
        return Refuse(word, status);
    }
    if (!converted) {
      // Deliberately not an error status: the run ends without reaching the service.
      *status = 0;
      return false;
    }
  }
  return true;
}

}  // namespace cli
