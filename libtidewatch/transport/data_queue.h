// A fixed-capacity byte queue held inside its owner, in which MCP packets are assembled before
// sending and collected while receiving. It never allocates.
#pragma once

#include <cstddef>
#include <cstdint>

namespace libtidewatch {

class DataQueue {
 public:
  static constexpr size_t kCapacity = 0x40000;  // 262144
  // Data that ends beyond this point is moved to the front when bytes are popped.
  static constexpr size_t kCompactMark = 0x20000;

  DataQueue() = default;
  virtual ~DataQueue() = default;

  // Room behind the held bytes; the consumed prefix is not counted.
  size_t SpaceSize() const { return kCapacity - (size + start); }
  // Where a reader may place new bytes directly, before calling IncSize.
  uint8_t* SpaceStart() { return bytes + start + size; }
  // Counts n bytes placed at SpaceStart(), never past the end of the array.
  void IncSize(size_t n);
  // Appends n bytes; false (and nothing written) when p is null or they do not fit.
  bool Push(const uint8_t* p, size_t n);
  // Drops n bytes from the front. Compacts when the data reached the second half, or on Pop(0).
  void Pop(size_t n);

  const uint8_t* Front() const { return bytes + start; }
  void Reset() { size = 0; start = 0; }

  size_t size = 0;   // bytes held
  size_t start = 0;  // index of the first held byte
  uint8_t bytes[kCapacity];

 private:
  void Compact();
};

}  // namespace libtidewatch
