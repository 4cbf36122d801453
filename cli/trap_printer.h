// The trap handler of the tool's receiver mode: one line on standard output per trap.
#pragma once

#include "libtidewatch/api/monitor_types.h"

// A `TrapHandler`: prints "Receive frame: ..." with the time, the type (as a signed 16-bit number)
// and the length into standard output's buffer. Safe to call from several threads at once; lines
// never interleave. Ignores the context, the data and the discard count.
void MyTrapHandler(void* context, unsigned int time, libtidewatch::TRAP_TYPE type,
                   unsigned long length, const unsigned char* data, unsigned long discardCount);

// The matching `TrapDrainHandler`: flushes standard output once no more traps are waiting, since
// people and scripts read the lines live, while a burst of traps still leaves in large writes.
void MyTrapDrainHandler(void* context);
