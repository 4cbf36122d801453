#include "libtidewatch/transport/data_queue.h"

#include <cstring>

namespace libtidewatch {

void DataQueue::IncSize(size_t n) {
  size_t space = SpaceSize();
  size += n < space ? n : space;
}

bool DataQueue::Push(const uint8_t* p, size_t n) {
  if (p == nullptr) return false;
  if (n == 0) return true;
  if (n > kCapacity - size) return false;
  if (n > kCapacity - size - start) Compact();
  memcpy(bytes + start + size, p, n);
  size += n;
  return true;
}

void DataQueue::Pop(size_t n) {
  if (n >= size) {
    Reset();
    return;
  }
  size_t oldEnd = start + size;
  start += n;
  size -= n;
  if (start != 0 && (n == 0 || oldEnd > kCompactMark)) Compact();
}

void DataQueue::Compact() {
  if (start == 0) return;
  memmove(bytes, bytes + start, size);
  start = 0;
}

}  // namespace libtidewatch
