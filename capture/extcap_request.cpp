#include "capture/extcap_request.h"

#include <cstring>

namespace capture {
namespace {

bool StartsWith(const char* text, const char* prefix) {
  return strncmp(text, prefix, strlen(prefix)) == 0;
}

// Takes the value of `name` from "--name=value" or "--name value"; false when `arg` is not it.
bool TakeValue(int argc, char** argv, int* i, const char* name, std::string* value) {
  const char* arg = argv[*i];
  const size_t len = strlen(name);
  if (strncmp(arg, name, len) != 0) return false;
  if (arg[len] == '=') {
    *value = arg + len + 1;
    return true;
  }
  if (arg[len] != '\0') return false;
  *value = *i + 1 < argc ? argv[++*i] : "";
  return true;
}

}  // namespace

bool IsExtcapCall(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    if (StartsWith(argv[i], "--extcap-") || strcmp(argv[i], "--capture") == 0) return true;
  }
  return false;
}

bool ParseExtcapRequest(int argc, char** argv, ExtcapRequest* request, std::string* error) {
  bool interfaces = false, dlts = false, config = false, capture = false;
  std::string ignored;
  for (int i = 1; i < argc; ++i) {
    const char* arg = argv[i];
    if (strcmp(arg, "--extcap-interfaces") == 0) {
      interfaces = true;
    } else if (strcmp(arg, "--extcap-dlts") == 0) {
      dlts = true;
    } else if (strcmp(arg, "--extcap-config") == 0) {
      config = true;
    } else if (strcmp(arg, "--capture") == 0) {
      capture = true;
    } else if (strcmp(arg, "--su") == 0) {
      request->su = true;
    } else if (TakeValue(argc, argv, &i, "--extcap-interface", &request->interface) ||
               TakeValue(argc, argv, &i, "--fifo", &request->fifo) ||
               TakeValue(argc, argv, &i, "--phone-tool", &request->phoneTool)) {
    } else if (StartsWith(arg, "--extcap-version")) {
      // The caller's version, given with --extcap-interfaces: nothing here depends on it.
    } else if (TakeValue(argc, argv, &i, "--extcap-capture-filter", &ignored) ||
               TakeValue(argc, argv, &i, "--extcap-control-in", &ignored) ||
               TakeValue(argc, argv, &i, "--extcap-control-out", &ignored) ||
               TakeValue(argc, argv, &i, "--extcap-reload-option", &ignored)) {
      // No capture filter, toolbar controls or reloadable values are offered.
    } else {
      request->toolArgs.push_back(arg);
    }
  }
  using Action = ExtcapRequest::Action;
  if (interfaces) {
    request->action = Action::kInterfaces;
    return true;
  }
  request->action = capture ? Action::kCapture : config ? Action::kConfig : Action::kDlts;
  if (!capture && !config && !dlts) {
    *error =
        "no extcap action: give --extcap-interfaces, --extcap-dlts, --extcap-config "
        "or --capture";
    return false;
  }
  if (request->interface.empty()) {
    *error = "--extcap-interface names no interface";
    return false;
  }
  if (capture && request->fifo.empty()) {
    *error = "--capture wants --fifo PATH";
    return false;
  }
  return true;
}

}  // namespace capture
