// The read-only tables and names a FrameDecoder keeps: sorted arrays and NUL-terminated texts in
// the decoder's arena. Plain views, so a table of 100k records costs one array, its lookups a
// binary search, and the decoder's end a handful of unmaps instead of a walk over every node.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory_resource>
#include <stdexcept>
#include <string_view>
#include <type_traits>
#include <utility>

namespace libtidewatch {

// A name from the layout file: a view of text the decoder owns, followed by a NUL.
class LayoutName : public std::string_view {
 public:
  LayoutName() : std::string_view("", 0) {}
  // `text[size]` must be a NUL.
  LayoutName(const char* text, size_t size) : std::string_view(text, size) {}
  const char* c_str() const { return data(); }
};

// Copies `text` and a NUL into `arena`.
inline LayoutName CopyName(std::string_view text, std::pmr::memory_resource* arena) {
  char* copy = static_cast<char*>(arena->allocate(text.size() + 1, 1));
  memcpy(copy, text.data(), text.size());
  copy[text.size()] = '\0';
  return LayoutName(copy, text.size());
}

// Entries ordered by key, each key once, in an array that lives in an arena. Iterates and looks up
// like a std::map; the decoder fills it (Emplace, Merge) only while it loads.
template <typename K, typename V>
class FlatTable {
  static_assert(std::is_trivially_copyable<K>::value && std::is_trivially_copyable<V>::value,
                "entries are moved by memcpy and never destroyed");

 public:
  using key_type = K;
  using mapped_type = V;
  using value_type = std::pair<K, V>;
  using iterator = value_type*;
  using const_iterator = const value_type*;

  iterator begin() { return m_data; }
  iterator end() { return m_data + m_size; }
  const_iterator begin() const { return m_data; }
  const_iterator end() const { return m_data + m_size; }
  size_t size() const { return m_size; }
  bool empty() const { return m_size == 0; }

  const_iterator lower_bound(const K& key) const {
    size_t low = 0;
    size_t high = m_size;
    while (low < high) {
      const size_t middle = low + (high - low) / 2;
      if (m_data[middle].first < key) {
        low = middle + 1;
      } else {
        high = middle;
      }
    }
    return m_data + low;
  }
  iterator lower_bound(const K& key) {
    return const_cast<iterator>(static_cast<const FlatTable*>(this)->lower_bound(key));
  }
  const_iterator find(const K& key) const {
    const_iterator it = lower_bound(key);
    return it != end() && it->first == key ? it : end();
  }
  iterator find(const K& key) {
    iterator it = lower_bound(key);
    return it != end() && it->first == key ? it : end();
  }
  size_t count(const K& key) const { return find(key) != end() ? 1 : 0; }
  // As std::map::at: only for keys known to be there.
  const V& at(const K& key) const {
    const_iterator it = find(key);
    if (it == end()) throw std::out_of_range("FlatTable::at");
    return it->second;
  }

  // The entry of `key`, inserted value-initialised at its place when absent (the array grows in
  // `arena`); the flag tells whether it was inserted. Pointers into the table last until the next
  // insertion.
  std::pair<V*, bool> Emplace(const K& key, std::pmr::memory_resource* arena) {
    iterator it = lower_bound(key);
    if (it != end() && it->first == key) return {&it->second, false};
    const size_t at = static_cast<size_t>(it - m_data);
    if (m_size == m_capacity) Grow(m_capacity == 0 ? 2 : 2 * m_capacity, arena);
    memmove(static_cast<void*>(m_data + at + 1), m_data + at, (m_size - at) * sizeof(value_type));
    m_data[at].first = key;
    m_data[at].second = V();
    ++m_size;
    return {&m_data[at].second, true};
  }

  // Adds `count` entries, sorted by key and unique, in one pass; on a key already present the
  // entry in the table stays. An empty table takes `add` itself when it was allocated, with room
  // for `capacity` entries, from `arena`.
  void Merge(value_type* add, size_t count, size_t capacity, std::pmr::memory_resource* arena) {
    if (count == 0) return;
    if (m_size == 0) {
      m_data = add;
      m_size = count;
      m_capacity = capacity;
      return;
    }
    auto* merged = static_cast<value_type*>(
        arena->allocate((m_size + count) * sizeof(value_type), alignof(value_type)));
    size_t n = 0;
    size_t i = 0;
    size_t j = 0;
    while (i < m_size || j < count) {
      if (j == count || (i < m_size && !(add[j].first < m_data[i].first))) {
        if (j < count && !(m_data[i].first < add[j].first)) ++j;  // the same key: ours stays
        memcpy(static_cast<void*>(merged + n++), m_data + i++, sizeof(value_type));
      } else {
        memcpy(static_cast<void*>(merged + n++), add + j++, sizeof(value_type));
      }
    }
    m_data = merged;
    m_size = n;
    m_capacity = m_size + count;
  }

 private:
  void Grow(size_t capacity, std::pmr::memory_resource* arena) {
    auto* grown = static_cast<value_type*>(
        arena->allocate(capacity * sizeof(value_type), alignof(value_type)));
    if (m_size > 0) memcpy(static_cast<void*>(grown), m_data, m_size * sizeof(value_type));
    m_data = grown;  // the old array stays in the arena until the decoder goes
    m_capacity = capacity;
  }

  value_type* m_data = nullptr;
  size_t m_size = 0;
  size_t m_capacity = 0;
};

}  // namespace libtidewatch
