#include "libtidewatch/transport/scratch_queue.h"

#include <new>

namespace libtidewatch {
namespace {

thread_local std::unique_ptr<DataQueue> t_queue;
thread_local bool t_busy = false;

}  // namespace

ScratchQueue::ScratchQueue() {
  if (!t_busy) {
    if (!t_queue) t_queue.reset(new (std::nothrow) DataQueue);
    m_queue = t_queue.get();
    t_busy = m_queue != nullptr;
  } else {
    m_own.reset(new (std::nothrow) DataQueue);
    m_queue = m_own.get();
  }
  if (m_queue != nullptr) m_queue->Reset();
}

ScratchQueue::~ScratchQueue() {
  if (m_queue != nullptr && !m_own) t_busy = false;
}

}  // namespace libtidewatch
