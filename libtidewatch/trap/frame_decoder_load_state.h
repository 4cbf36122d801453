// What FrameDecoder stages while it loads a file: new records appended as the lines come, so that
// the tables are built in one pass at the end. Private to the decoder's own units.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory_resource>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "libtidewatch/trap/frame_decoder.h"

namespace libtidewatch {

// The new records of one table. Layout files list ids in ascending order with a record's lines
// together, so the last record is nearly always the one a line is about; an id out of order
// switches to a hash index for the rest of the load.
template <typename Record>
class StagedRecords {
 public:
  using Table = FlatTable<uint64_t, Record>;

  // The records are appended in `arena`, where the table then keeps them: the arena never takes
  // memory back, so the array stays when the stage lets it go.
  explicit StagedRecords(std::pmr::memory_resource* arena) : m_entries(arena) {}

  // The record of `id`: the table's when it was there before the load, else the staged one,
  // created value-initialised when absent (the flag says so). Valid until the next call.
  std::pair<Record*, bool> Emplace(Table& table, uint64_t id) {
    if (!table.empty()) {
      auto it = table.find(id);
      if (it != table.end()) return {&it->second, false};
    }
    if (!m_entries.empty() && m_entries.back().first == id)
      return {&m_entries.back().second, false};
    if (m_ascending) {
      if (m_entries.empty() || m_entries.back().first < id) return Append(id);
      auto it = std::lower_bound(m_entries.begin(), m_entries.end(), id,
                                 [](const auto& entry, uint64_t key) { return entry.first < key; });
      if (it != m_entries.end() && it->first == id) return {&it->second, false};
      m_ascending = false;
      m_index.reserve(m_entries.size() * 2);
      for (size_t i = 0; i < m_entries.size(); ++i) m_index.emplace(m_entries[i].first, i);
    } else {
      auto found = m_index.find(id);
      if (found != m_index.end()) return {&m_entries[found->second].second, false};
    }
    m_index.emplace(id, m_entries.size());
    return Append(id);
  }

  // Adds the staged records to `table` (whose records win) and empties the stage.
  void MergeInto(Table& table, std::pmr::memory_resource* arena) {
    if (!m_ascending) {
      std::sort(m_entries.begin(), m_entries.end(),
                [](const auto& a, const auto& b) { return a.first < b.first; });
    }
    table.Merge(m_entries.data(), m_entries.size(), m_entries.capacity(), arena);
    std::pmr::vector<typename Table::value_type>(arena).swap(m_entries);
    std::unordered_map<uint64_t, size_t>().swap(m_index);
    m_ascending = true;
  }

 private:
  std::pair<Record*, bool> Append(uint64_t id) {
    m_entries.emplace_back(id, Record());
    return {&m_entries.back().second, true};
  }

  std::pmr::vector<typename Table::value_type> m_entries;
  bool m_ascending = true;  // m_entries is sorted; m_index is unused until it is not
  std::unordered_map<uint64_t, size_t> m_index;
};

struct FrameDecoder::LoadState {
  explicit LoadState(std::pmr::memory_resource* arena)
      : traces(arena), globalIDs(arena), msgs(arena), ipTraces(arena) {}

  StagedRecords<FIELD_TRACE>& Of(const FlatTable<uint64_t, FIELD_TRACE>&) { return traces; }
  StagedRecords<FIELD_OTA>& Of(const FlatTable<uint64_t, FIELD_OTA>&) { return globalIDs; }
  StagedRecords<FIELD_EM>& Of(const FlatTable<uint64_t, FIELD_EM>&) { return msgs; }
  StagedRecords<FIELD_IPTrace>& Of(const FlatTable<uint64_t, FIELD_IPTrace>&) { return ipTraces; }

  StagedRecords<FIELD_TRACE> traces;
  StagedRecords<FIELD_OTA> globalIDs;
  StagedRecords<FIELD_EM> msgs;
  StagedRecords<FIELD_IPTrace> ipTraces;
};

}  // namespace libtidewatch
