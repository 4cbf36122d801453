#include <getopt.h>

#include <cstdio>

#include "cli/commands.h"
#include "cli/tide_watch_ctrl.h"

namespace {

// The command selector: the option table stores the chosen command here instead of returning it.
int g_commandSelector = 0;

enum Command {
  kCreateSession = 1,
  kCloseSession = 2,
  kSubscribeTrap = 3,
  kUnsubscribeTrap = 4,
  kEnableTrap = 5,
  kDisableTrap = 6,
  kSetTrapReceiver = 7,
  kGetSession = 8,
  kListSession = 9,
  kSetDebugLevel = 11,
  kRunTrapReceiver = 15,
  kHelp = 16,
};

const struct option kOptions[] = {
    {"create-session", no_argument, &g_commandSelector, kCreateSession},
    {"close-session", no_argument, &g_commandSelector, kCloseSession},
    {"subscribe-trap", no_argument, &g_commandSelector, kSubscribeTrap},
    {"unsubscribe-trap", no_argument, &g_commandSelector, kUnsubscribeTrap},
    {"enable-trap", no_argument, &g_commandSelector, kEnableTrap},
    {"disable-trap", no_argument, &g_commandSelector, kDisableTrap},
    {"set-trap-receiver", no_argument, &g_commandSelector, kSetTrapReceiver},
    {"run-trap-receiver", no_argument, &g_commandSelector, kRunTrapReceiver},
    {"get-session", no_argument, &g_commandSelector, kGetSession},
    {"list-session", no_argument, &g_commandSelector, kListSession},
    {"set-debug-level", no_argument, &g_commandSelector, kSetDebugLevel},
    {"help", no_argument, &g_commandSelector, kHelp},
    {nullptr, 0, nullptr, 0},
};

constexpr char kLayoutDescPath[] = "resources/twd_layout_desc.dat";

using cli::CmdProxy;
using CommandBody = int (*)(CmdProxy&, const cli::Words&);

// The commands that talk to the service, except get-session, which also needs the layout decoder.
CommandBody ProxyCommand(int selector) {
  switch (selector) {
    case kCreateSession:
      return cli::CreateSessionCommand;
    case kCloseSession:
      return cli::CloseSessionCommand;
    case kSubscribeTrap:
      return cli::SubscribeTrapCommand;
    case kUnsubscribeTrap:
      return cli::UnsubscribeTrapCommand;
    case kEnableTrap:
      return cli::EnableTrapCommand;
    case kDisableTrap:
      return cli::DisableTrapCommand;
    case kSetTrapReceiver:
      return cli::SetTrapReceiverCommand;
    case kListSession:
      return cli::ListSessionCommand;
    case kSetDebugLevel:
      return cli::SetDebugLevelCommand;
    default:
      return nullptr;
  }
}

}  // namespace

int DoMain(int argc, char** argv) {
  // 0 makes glibc's parser start over completely, so that one process may run many commands.
  optind = 0;
  g_commandSelector = 0;
  // Only one option is read; whatever follows it, options included, is taken as words.
  if (getopt_long_only(argc, argv, "", kOptions, nullptr) == -1) {
    long_help();
    return -1;
  }
  const cli::Words words = {argc - optind, argv + optind};

  if (g_commandSelector == kRunTrapReceiver) return cli::RunTrapReceiverCommand(words);
  if (g_commandSelector == kGetSession) {
    const libtidewatch::FrameDecoder* decoder =
        libtidewatch::FrameDecoder::GetInstance(kLayoutDescPath);
    CmdProxy proxy;
    return cli::GetSessionCommand(proxy, *decoder, words);
  }
  CommandBody body = ProxyCommand(g_commandSelector);
  if (body == nullptr) {
    // Also reached for --help and after the parser refused an option (it printed why).
    printf("unknown parameters");
    long_help();
    return -1;
  }
  CmdProxy proxy;
  return body(proxy, words);
}
