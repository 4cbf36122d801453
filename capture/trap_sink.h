// Where captured traps go: a line printer, a capture file, a report. The collector hands every
// sink each trap in arrival order and says when no more trap data is waiting, which is when a sink
// that buffers its output writes it out.
#pragma once

#include "libtidewatch/trap/captured_trap.h"

namespace capture {

// The collector calls a sink from one delivering thread at a time, never concurrently, so a sink
// needs no lock of its own for what only these calls touch.
class TrapSink {
 public:
  virtual ~TrapSink() = default;

  // One trap. `trap` and everything it points to are valid only during the call.
  virtual void OnTrap(const libtidewatch::CapturedTrap& trap) = 0;
  // The traps that had arrived have all been handed over: the moment to flush.
  virtual void OnDrained() {}
  // The capture is over: write out what is left. False when the output failed.
  virtual bool Finish() { return !Failed(); }
  // Whether the output has failed (a full disk, a reader that went away): the capture then stops.
  virtual bool Failed() const { return false; }
};

}  // namespace capture
