#include "emulator/emulator_options.h"

#include <errno.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace hal_emulator {
namespace {

// A decimal number from min to max, nothing else.
bool ParseNumber(const std::string& text, uint64_t min, uint64_t max, uint64_t* out) {
  if (text.empty() || text[0] < '0' || text[0] > '9') return false;
  errno = 0;
  char* end = nullptr;
  unsigned long long v = strtoull(text.c_str(), &end, 10);
  if (errno != 0 || *end != '\0' || v < min || v > max) return false;
  *out = v;
  return true;
}

bool TakesValue(const std::string& name) {
  static const char* const kWithValue[] = {
      "manager-secret", "root-secret",         "first-session-id",
      "max-sessions",   "max-subscriptions",   "max-clients",
      "max-callbacks",  "callback-timeout-ms", "fault",
      "trap-rate",      "trap-size",           "trap-replay",
      "layout"};
  for (const char* n : kWithValue) {
    if (name == n) return true;
  }
  return false;
}

bool Apply(const std::string& name, const std::string& value, EmulatorOptions* o,
           std::string* error) {
  uint64_t n = 0;
  auto number = [&](uint64_t min, uint64_t max) {
    if (ParseNumber(value, min, max, &n)) return true;
    *error = "--" + name + " wants a number from " + std::to_string(min) + " to " +
             std::to_string(max) + ", not \"" + value + "\"";
    return false;
  };
  if (name == "manager-secret" || name == "root-secret") {
    if (value.empty()) {
      *error = "--" + name + " must not be empty";
      return false;
    }
    (name == "manager-secret" ? o->secrets.manager : o->secrets.root) = value;
  } else if (name == "first-session-id") {
    if (!number(1, UINT64_MAX - 1)) return false;
    o->firstSessionId = n;
  } else if (name == "max-sessions") {
    if (!number(1, 4096)) return false;
    o->limits.maxSessions = n;
  } else if (name == "max-subscriptions") {
    if (!number(1, 4096)) return false;
    o->limits.maxSubscriptions = n;
  } else if (name == "max-clients") {
    if (!number(1, 4096)) return false;
    o->maxClients = n;
  } else if (name == "max-callbacks") {
    if (!number(1, 4096)) return false;
    o->maxCallbacks = n;
  } else if (name == "callback-timeout-ms") {
    if (!number(1, 600000)) return false;
    o->callbackTimeoutMs = static_cast<int>(n);
  } else if (name == "fault") {
    if (!ParseReplyFault(value, &o->fault)) {
      *error = "unknown fault \"" + value + "\"; one of: " + ReplyFaultNames();
      return false;
    }
  } else if (name == "trap-rate") {
    if (!number(0, 10000)) return false;
    o->trapRate = static_cast<unsigned>(n);
    o->trapRateGiven = true;
  } else if (name == "trap-size") {
    if (!number(8, kMaxTrapSize)) return false;
    o->trapSize = n;
  } else if (name == "trap-replay") {
    if (value.empty()) {
      *error = "--trap-replay wants a file name";
      return false;
    }
    o->trapReplay = value;
  } else if (name == "layout") {
    if (value.empty()) {
      *error = "--layout wants a file name";
      return false;
    }
    o->layout = value;
  } else if (name == "aidl") {
    o->aidl = true;
  } else if (name == "hidl") {
    o->hidl = true;
  } else if (name == "verbose") {
    o->verbose = true;
  } else if (name == "help") {
    o->help = true;
  } else {
    *error = "unknown option --" + name;
    return false;
  }
  return true;
}

}  // namespace

bool ParseEmulatorOptions(int argc, const char* const* argv, EmulatorOptions* options,
                          std::string* error) {
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg.size() < 3 || arg.compare(0, 2, "--") != 0) {
      *error = "unexpected argument \"" + arg + "\"";
      return false;
    }
    size_t eq = arg.find('=');
    std::string name = arg.substr(2, eq == std::string::npos ? std::string::npos : eq - 2);
    std::string value;
    if (eq != std::string::npos) {
      if (!TakesValue(name)) {
        *error = "--" + name + " takes no value";
        return false;
      }
      value = arg.substr(eq + 1);
    } else if (TakesValue(name)) {
      if (i + 1 >= argc) {
        *error = "--" + name + " wants a value";
        return false;
      }
      value = argv[++i];
    }
    if (!Apply(name, value, options, error)) return false;
  }
  if (!options->trapReplay.empty() && !options->trapRateGiven) {
    options->trapRate = kDefaultReplayRate;
  }
  return true;
}

std::string DefaultLayoutPath() {
  static const char kName[] = "twd_layout_desc.dat";
  char exe[4096];
  ssize_t n = readlink("/proc/self/exe", exe, sizeof(exe) - 1);
  if (n > 0) {
    std::string dir(exe, static_cast<size_t>(n));
    dir.erase(dir.rfind('/') + 1);
    for (const std::string& candidate : {dir + kName, dir + "../resources/" + kName}) {
      if (access(candidate.c_str(), R_OK) == 0) return candidate;
    }
  }
  return TIDEWATCH_SAMPLE_LAYOUT;
}

std::string EmulatorUsage() {
  return "Usage: tidewatch_hal_emulator [options]\n"
         "  --aidl, --hidl              endpoints to publish (default: both)\n"
         "  --manager-secret=S          secret of manager sessions\n"
         "  --root-secret=S             secret of root sessions\n"
         "  --first-session-id=N        id of the first session (default 1)\n"
         "  --max-sessions=N            sessions at once (default 64)\n"
         "  --max-subscriptions=N       subscriptions per session (default 256)\n"
         "  --max-clients=N             connected clients at once (default 256)\n"
         "  --max-callbacks=N           registered trap callbacks (default 64)\n"
         "  --callback-timeout-ms=N     wait for a callback's answer (default 1000)\n"
         "  --fault=KIND                damage every command reply: " +
         ReplyFaultNames() +
         "\n"
         "  --verbose                   log every request and reply on standard error\n"
         "  --trap-rate=N               traps per second per receiving session (default 0;\n"
         "                              10 with --trap-replay)\n"
         "  --trap-size=BYTES           synthetic trap payload size (default 16, 8 to " +
         std::to_string(kMaxTrapSize) +
         ")\n"
         "  --trap-replay=FILE          replay the trap records of FILE instead\n"
         "  --layout=FILE               layout description file of synthetic traps (default:\n"
         "                              " +
         DefaultLayoutPath() +
         ")\n"
         "  --help                      this text\n";
}

}  // namespace hal_emulator
