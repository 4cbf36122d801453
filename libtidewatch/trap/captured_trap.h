// One trap as a capture keeps it: its number in the run, when the host received it, the trap record
// as it arrived, what the service said was lost with it, and its decoded view. Live captures fill
// it from a delivery; capture files give it back when read, so that both print the same way.
#pragma once

#include <cstdint>

#include "libtidewatch/api/monitor_types.h"
#include "libtidewatch/trap/trap_decoder.h"

namespace libtidewatch {

struct CapturedTrap {
  uint64_t seq = 0;     // 1 for the first trap of a run
  int64_t timeUs = 0;   // host receive time, microseconds since the Unix epoch (UTC)
  uint64_t length = 0;  // the trap record's own length field (may exceed the bytes that arrived)
  // The trap record as it arrived: type (1), length (4), payload; never longer than what arrived.
  TrapBytes record;
  // Traps of each type that the service reported dropped with this delivery (0 where it said none).
  uint32_t discards[TRAP_TYPE_NUM] = {};
  // Traps the capture itself lost just before this one, when its file could not keep up: they
  // never reached the file. Reported like the service's discards.
  uint32_t toolDrops = 0;
  // Names point into the layout decoder (live) or into the reader's buffer (read back); byte
  // ranges into `record`.
  DecodedTrap decoded;

  bool HasDiscards() const {
    for (uint32_t count : discards) {
      if (count != 0) return true;
    }
    return false;
  }
};

}  // namespace libtidewatch
