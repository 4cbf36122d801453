// The trap handler of the tool's receiver mode: one line on standard output per trap.
#pragma once

#include "libtidewatch/api/monitor_types.h"

// A `TrapHandler`: prints "Receive frame: ..." with the time, the type (as a signed 16-bit number)
// and the length, and flushes it at once, since people and scripts read the output live. Safe to
// call from several threads at once; lines never interleave. Ignores the context, the data and the
// discard count.
void MyTrapHandler(void* context, unsigned int time, libtidewatch::TRAP_TYPE type,
                   unsigned long length, const unsigned char* data, unsigned long discardCount);
