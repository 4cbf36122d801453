// The bodies of the tool's commands: each reads its words, fills the defaults (some from the
// current-session file), calls one operation of the command proxy and prints the outcome. Each
// returns the status the process exits with.
#pragma once

#include "libtidewatch/api/json_cmd_encoder.h"
#include "libtidewatch/api/monitor_cmd_proxy.h"
#include "libtidewatch/trap/frame_decoder.h"

namespace cli {

using CmdProxy = libtidewatch::MonitorCmdProxy<libtidewatch::JsonCmdEncoder>;

// The words that follow the command option.
struct Words {
  int count;
  char* const* items;
};

int CreateSessionCommand(CmdProxy& proxy, const Words& words);
int CloseSessionCommand(CmdProxy& proxy, const Words& words);
int SubscribeTrapCommand(CmdProxy& proxy, const Words& words);
int UnsubscribeTrapCommand(CmdProxy& proxy, const Words& words);
int EnableTrapCommand(CmdProxy& proxy, const Words& words);
int DisableTrapCommand(CmdProxy& proxy, const Words& words);
int SetTrapReceiverCommand(CmdProxy& proxy, const Words& words);
// `decoder` names the subscribed messages in the report.
int GetSessionCommand(CmdProxy& proxy, const libtidewatch::FrameDecoder& decoder,
                      const Words& words);
int ListSessionCommand(CmdProxy& proxy, const Words& words);
int SetDebugLevelCommand(CmdProxy& proxy, const Words& words);

// Becomes the trap receiver of a session and prints every trap; returns only on an argument error.
int RunTrapReceiverCommand(const Words& words);

}  // namespace cli
