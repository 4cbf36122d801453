#include "cli/trap_printer.h"

#include <cstdint>
#include <cstdio>

void MyTrapHandler(void* /*context*/, unsigned int time, libtidewatch::TRAP_TYPE type,
                   unsigned long length, const unsigned char* /*data*/,
                   unsigned long /*discardCount*/) {
  // The stream lock is recursive: it keeps the line and its flush together when the listener
  // thread and a callback thread deliver at the same moment.
  flockfile(stdout);
  printf("Receive frame: time = [%u] type = [%d] len =[%zu]\n", time,
         static_cast<int>(static_cast<int16_t>(type)), static_cast<size_t>(length));
  fflush(stdout);
  funlockfile(stdout);
}
