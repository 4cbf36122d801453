#include "libtidewatch/trap/name_table.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace libtidewatch {
namespace {

struct NameRef {
  const char* text;
  size_t length;
  size_t queued;  // position in the queue: among equal names the first queued wins
};

// Below this many names a bucket is sorted by comparison; so is a bucket this many splits deep,
// which bounds the recursion (and its stack) whatever the names look like.
constexpr size_t kSmallBucket = 32;
constexpr size_t kMaxSplits = 16;

// The order of std::string (bytes as unsigned, then length), ties broken by queue position.
bool LessFrom(const NameRef& a, const NameRef& b, size_t depth) {
  size_t common = std::min(a.length, b.length);
  if (common > depth) {
    int order = memcmp(a.text + depth, b.text + depth, common - depth);
    if (order != 0) return order < 0;
  }
  if (a.length != b.length) return a.length < b.length;
  return a.queued < b.queued;
}

// 0 when the name ends before `depth`, so that a prefix sorts before its extensions.
inline size_t Bucket(const NameRef& name, size_t depth) {
  return depth < name.length ? static_cast<unsigned char>(name.text[depth]) + 1u : 0u;
}

// Most-significant-byte radix sort, stable, so equal names keep their queue order. Comparison
// sorts of names that share long prefixes spend their time in mispredicted branches.
void SortNames(NameRef* names, NameRef* scratch, size_t count, size_t depth, size_t splits) {
  for (;;) {
    if (count < kSmallBucket || splits >= kMaxSplits) {
      std::sort(names, names + count,
                [depth](const NameRef& a, const NameRef& b) { return LessFrom(a, b, depth); });
      return;
    }
    size_t start[258] = {};
    for (size_t i = 0; i < count; ++i) ++start[Bucket(names[i], depth) + 1];
    // A byte that all names share (a common prefix) needs no reordering.
    size_t shared = Bucket(names[0], depth);
    if (shared != 0 && start[shared + 1] == count) {
      ++depth;
      continue;
    }
    for (size_t b = 1; b < 258; ++b) start[b] += start[b - 1];
    size_t next[257];
    std::copy(start, start + 257, next);
    for (size_t i = 0; i < count; ++i) scratch[next[Bucket(names[i], depth)]++] = names[i];
    std::copy(scratch, scratch + count, names);
    // Bucket 0 holds names that ended here: all equal, already in queue order.
    for (size_t b = 1; b < 257; ++b) {
      size_t size = start[b + 1] - start[b];
      if (size > 1) SortNames(names + start[b], scratch, size, depth + 1, splits + 1);
    }
    return;
  }
}

}  // namespace

void NameTable::Add(std::string_view name, uint64_t id) {
  m_pending.push_back({name, id});
  m_sorted.store(false, std::memory_order_relaxed);
}

const NameTable::Table& NameTable::Sorted() const {
  if (m_sorted.load(std::memory_order_acquire)) return m_table;
  std::lock_guard<std::mutex> lock(m_sorting);
  if (m_sorted.load(std::memory_order_relaxed)) return m_table;
  std::vector<NameRef> sorted;
  sorted.reserve(m_pending.size());
  for (size_t i = 0; i < m_pending.size(); ++i) {
    sorted.push_back({m_pending[i].name.data(), m_pending[i].name.size(), i});
  }
  std::vector<NameRef> scratch(sorted.size());
  SortNames(sorted.data(), scratch.data(), sorted.size(), 0, 0);
  // Built in the arena, where an empty table keeps it as it is: the arena never takes memory
  // back, so the array stays when the vector goes.
  std::pmr::vector<value_type> unique(m_arena);
  unique.reserve(sorted.size());
  for (const NameRef& ref : sorted) {
    // Later definitions of a name sort right after the first one and are dropped.
    std::string_view name(ref.text, ref.length);
    if (!unique.empty() && unique.back().first == name) continue;
    unique.emplace_back(name, m_pending[ref.queued].id);
  }
  // Names already in the table came first, so they win over the new ones.
  m_table.Merge(unique.data(), unique.size(), unique.capacity(), m_arena);
  std::vector<Pending>().swap(m_pending);
  m_sorted.store(true, std::memory_order_release);
  return m_table;
}

}  // namespace libtidewatch
