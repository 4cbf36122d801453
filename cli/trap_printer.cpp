#include "cli/trap_printer.h"

#include <cstdint>
#include <cstdio>

void MyTrapHandler(void* /*context*/, unsigned int time, libtidewatch::TRAP_TYPE type,
                   unsigned long length, const unsigned char* /*data*/,
                   unsigned long /*discardCount*/) {
  // One printf is one locked stream operation, so lines of the listener thread and a callback
  // thread never interleave.
  printf("Receive frame: time = [%u] type = [%d] len =[%zu]\n", time,
         static_cast<int>(static_cast<int16_t>(type)), static_cast<size_t>(length));
}

void MyTrapDrainHandler(void* /*context*/) { fflush(stdout); }
