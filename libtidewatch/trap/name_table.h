// A name-to-id table of a FrameDecoder, sorted by name. Names are added as a file is read and
// sorted only when the table is first read: sorting 100k names is a third of a large file's load,
// and most users of a decoder (printing names by id, decoding traps) never look a name up.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory_resource>
#include <mutex>
#include <string_view>
#include <vector>

#include "libtidewatch/trap/decoder_tables.h"

namespace libtidewatch {

// Iterates and looks up like a const std::map<std::string_view, uint64_t>. Reading is safe from
// any number of threads at once; adding is not, and must not overlap reading.
class NameTable {
 public:
  using Table = FlatTable<std::string_view, uint64_t>;
  using value_type = Table::value_type;
  using iterator = Table::const_iterator;
  using const_iterator = Table::const_iterator;

  // Sorted runs are kept in `arena`, which must outlive the table.
  explicit NameTable(std::pmr::memory_resource* arena) : m_arena(arena) {}
  NameTable(const NameTable&) = delete;
  NameTable& operator=(const NameTable&) = delete;

  // Enters `name` for `id` unless the name is there already: the first definition wins. The
  // text must outlive the table.
  void Add(std::string_view name, uint64_t id);

  const_iterator begin() const { return Sorted().begin(); }
  const_iterator end() const { return Sorted().end(); }
  size_t size() const { return Sorted().size(); }
  bool empty() const { return Sorted().empty(); }
  const_iterator find(std::string_view name) const { return Sorted().find(name); }
  size_t count(std::string_view name) const { return Sorted().count(name); }
  uint64_t at(std::string_view name) const { return Sorted().at(name); }

 private:
  struct Pending {
    std::string_view name;
    uint64_t id;
  };

  // The table with every added name in it: sorts what was added since the last read, once.
  const Table& Sorted() const;

  std::pmr::memory_resource* m_arena;
  mutable Table m_table;
  mutable std::vector<Pending> m_pending;
  mutable std::atomic<bool> m_sorted{true};
  mutable std::mutex m_sorting;
};

}  // namespace libtidewatch
