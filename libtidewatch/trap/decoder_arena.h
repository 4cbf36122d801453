// The memory a FrameDecoder keeps its maps and names in: one growing run of large blocks, handed
// out front to back and returned to the system all at once when the decoder goes.
#pragma once

#include <cstddef>
#include <memory_resource>

namespace libtidewatch {

// A bump allocator for data that lives exactly as long as its owner. Deallocation is a no-op;
// the destructor unmaps every block. Not thread-safe: it is only used while its decoder loads.
class DecoderArena : public std::pmr::memory_resource {
 public:
  DecoderArena() = default;
  ~DecoderArena() override;
  DecoderArena(const DecoderArena&) = delete;
  DecoderArena& operator=(const DecoderArena&) = delete;

  // Bytes taken from the system so far, for tests and benchmarks.
  size_t Reserved() const { return m_reserved; }

 private:
  struct Block {
    Block* previous;
    size_t size;  // of the whole mapping, this header included
  };

  void* do_allocate(size_t bytes, size_t alignment) override;
  void do_deallocate(void*, size_t, size_t) override {}
  bool do_is_equal(const std::pmr::memory_resource& other) const noexcept override {
    return this == &other;
  }
  // Maps a block of at least `bytes` usable bytes; false when the system refuses.
  bool Grow(size_t bytes);

  Block* m_last = nullptr;
  char* m_next = nullptr;  // free space of the last block
  char* m_end = nullptr;
  size_t m_nextBlockSize = 0;
  size_t m_reserved = 0;
};

}  // namespace libtidewatch
