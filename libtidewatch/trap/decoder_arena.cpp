#include "libtidewatch/trap/decoder_arena.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdint>
#include <new>

namespace libtidewatch {
namespace {

// The first block suits the small files of most modems; each next one doubles, up to the last
// size, so a file of 100k messages needs about a dozen blocks and wastes at most one half-block.
constexpr size_t kFirstBlockSize = 64 * 1024;
constexpr size_t kMaxBlockSize = 16 * 1024 * 1024;
// Blocks this large ask for huge pages: a large decoder otherwise spends a fifth of its load in
// page faults, and its tree walks in TLB misses. The kernel may decline; that only costs speed.
constexpr size_t kHugePage = 2 * 1024 * 1024;

}  // namespace

DecoderArena::~DecoderArena() {
  while (m_last != nullptr) {
    Block* block = m_last;
    m_last = block->previous;
    munmap(block, block->size);
  }
}

void* DecoderArena::do_allocate(size_t bytes, size_t alignment) {
  for (int attempt = 0; attempt < 2; ++attempt) {
    uintptr_t next = reinterpret_cast<uintptr_t>(m_next);
    uintptr_t aligned = (next + alignment - 1) & ~(static_cast<uintptr_t>(alignment) - 1);
    if (m_next != nullptr && aligned >= next &&
        bytes <= static_cast<size_t>(reinterpret_cast<uintptr_t>(m_end) - aligned)) {
      m_next = reinterpret_cast<char*>(aligned + bytes);
      return reinterpret_cast<void*>(aligned);
    }
    // A fresh block is aligned to a page, so `alignment` more bytes always suffice.
    if (bytes > SIZE_MAX / 2 || !Grow(bytes + alignment)) break;
  }
  // Allocators of the standard containers report failure this way; the library has no handler,
  // so an exhausted machine ends the process as it would with the global allocator.
  throw std::bad_alloc();
}

bool DecoderArena::Grow(size_t bytes) {
  m_nextBlockSize =
      m_nextBlockSize == 0 ? kFirstBlockSize : std::min(m_nextBlockSize * 2, kMaxBlockSize);
  size_t size = std::max(m_nextBlockSize, bytes + sizeof(Block));
  bool huge = size >= kHugePage;
  if (huge) size = (size + kHugePage - 1) & ~(kHugePage - 1);
  // A huge page needs an aligned range: map one page more and trim the ends.
  size_t mapped = huge ? size + kHugePage : size;
  void* memory = mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) return false;
  char* start = static_cast<char*>(memory);
  if (huge) {
    uintptr_t raw = reinterpret_cast<uintptr_t>(start);
    char* aligned = reinterpret_cast<char*>((raw + kHugePage - 1) & ~(kHugePage - 1));
    if (aligned > start) munmap(start, static_cast<size_t>(aligned - start));
    char* tail = aligned + size;
    size_t tailSize = static_cast<size_t>(start + mapped - tail);
    if (tailSize > 0) munmap(tail, tailSize);
    start = aligned;
    madvise(start, size, MADV_HUGEPAGE);
  }
  Block* block = reinterpret_cast<Block*>(start);
  block->previous = m_last;
  block->size = size;
  m_last = block;
  m_next = start + sizeof(Block);
  m_end = start + size;
  m_reserved += size;
  return true;
}

}  // namespace libtidewatch
