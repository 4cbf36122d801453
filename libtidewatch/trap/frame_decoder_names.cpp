// FrameDecoder's name maps (name to id), filled in bulk at the end of a load. Inserting tens of
// thousands of random names into a tree one by one is dominated by cache misses; sorting them
// first lets every insert land at the end of the tree.
#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

#include "libtidewatch/trap/frame_decoder.h"

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

void FrameDecoder::InsertName(NameMap& names, const char* name, std::string_view recordName,
                              uint64_t id) {
  std::string_view text(name);
  if (text == recordName) {
    text = recordName;
  } else {
    // Another name for a known id (or a name only the name map keeps): it needs a copy of its own.
    char* copy = static_cast<char*>(m_arena.allocate(text.size() + 1, 1));
    memcpy(copy, text.data(), text.size());
    copy[text.size()] = '\0';
    text = std::string_view(copy, text.size());
  }
  if (m_queueNames) {
    m_pendingNames.push_back({&names, text, id});
  } else {
    names.emplace(text, id);
  }
}

void FrameDecoder::MergePendingNames() {
  // A load fills at most four name maps; sort the names of each on its own.
  std::vector<NameMap*> maps;
  for (const PendingName& pending : m_pendingNames) {
    if (std::find(maps.begin(), maps.end(), pending.names) == maps.end()) {
      maps.push_back(pending.names);
    }
  }
  std::vector<NameRef> sorted;
  std::vector<NameRef> scratch;
  for (NameMap* map : maps) {
    sorted.clear();
    for (size_t i = 0; i < m_pendingNames.size(); ++i) {
      const PendingName& pending = m_pendingNames[i];
      if (pending.names == map) {
        sorted.push_back({pending.name.data(), pending.name.size(), i});
      }
    }
    scratch.resize(sorted.size());
    SortNames(sorted.data(), scratch.data(), sorted.size(), 0, 0);
    auto last = map->end();
    for (const NameRef& ref : sorted) {
      // Later definitions of a name sort right after the first one and are dropped.
      std::string_view name(ref.text, ref.length);
      if (last != map->end() && last->first == name) continue;
      // In sorted order the end is the right hint, unless the map held names before this load;
      // then emplace_hint finds the place itself and keeps an existing name.
      last = map->emplace_hint(map->end(), name, m_pendingNames[ref.queued].id);
    }
  }
  std::vector<PendingName>().swap(m_pendingNames);
}

}  // namespace libtidewatch
