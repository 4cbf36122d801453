// A borrowed DataQueue for one-shot decoding of a self-contained buffer (a HAL callback's
// argument): the queue is 256 KiB, too much for the stack of a platform callback thread, and a
// fresh heap queue per trap is too slow at trap rates, so each thread keeps one for its lifetime.
#pragma once

#include <memory>

#include "libtidewatch/transport/data_queue.h"

namespace libtidewatch {

// Hands out the calling thread's queue, emptied, for the life of this object. A nested use on the
// same thread (a log sink that decodes packets) gets a queue of its own. get() is null only when
// memory ran out.
class ScratchQueue {
 public:
  ScratchQueue();
  ~ScratchQueue();
  ScratchQueue(const ScratchQueue&) = delete;
  ScratchQueue& operator=(const ScratchQueue&) = delete;

  DataQueue* get() { return m_queue; }

 private:
  std::unique_ptr<DataQueue> m_own;  // only for a nested use
  DataQueue* m_queue = nullptr;
};

}  // namespace libtidewatch
