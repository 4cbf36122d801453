// Makes this process the trap destination of one monitor session: a local socket server and a trap
// callback registered with the service, both under one destination name (the session id in
// decimal followed by the server name). Every trap packet that arrives by either road is parsed
// and handed to `trapHandler`.
#pragma once

#include "libtidewatch/api/monitor_types.h"
#include "libtidewatch/transport/mcp_info.h"
#include "libtidewatch/transport/mcp_receiver.h"

namespace libtidewatch {

// Called once per trap packet, on the thread that delivered it (the listener's thread or a platform
// callback thread). `data` is valid only during the call; `time` is always 0.
using TrapHandler = void (*)(void* context, unsigned int time, TRAP_TYPE type, unsigned long length,
                             const unsigned char* data, unsigned long discardCount);

class MonitorTrapReceiver;  // defined by the trap-road work; this header fixes its public shape:
//   MonitorTrapReceiver(unsigned long sessionId, const char* serverName);
//   virtual ~MonitorTrapReceiver();
//   bool ProcessPayload(const MCPInfo& in, MCPInfo& out) override;
//   TrapHandler trapHandler;  // public, null at construction: packets are dropped until set
//   void* userData;           // public, passed as the handler's context

}  // namespace libtidewatch
