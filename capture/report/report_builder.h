// Sums up a capture for its report, one trap at a time, in memory that does not grow with the
// number of traps: counts per message name, per-bucket series of every EM field (minimum, maximum
// and last value, so that a spike survives any downsampling), drops with their times, and the
// first OTA messages for the timeline.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "capture/report/report_data.h"
#include "libtidewatch/trap/captured_trap.h"

namespace capture {

class ReportBuilder {
 public:
  // Bounds; what goes past them is counted, never kept.
  static constexpr size_t kGridBuckets = 720;
  static constexpr int64_t kInitialBucketUs = 1000;
  static constexpr size_t kMaxNames = 2000;
  static constexpr size_t kMaxSeries = 128;
  static constexpr size_t kMaxDropEvents = 1000;
  static constexpr size_t kMaxOta = 1000;
  static constexpr size_t kMaxTextBytes = 160;  // longest name kept; longer ones are cut

  ReportBuilder();
  ReportBuilder(const ReportBuilder&) = delete;
  ReportBuilder& operator=(const ReportBuilder&) = delete;

  // Takes in one trap. Copies what it keeps: the trap's views may die when this returns.
  void Add(const libtidewatch::CapturedTrap& trap);
  // Only the drops that `trap` carries (the service's discards, the capture's own losses): for a
  // trap that is left out of the report, so that its drops are not.
  void AddDrops(const libtidewatch::CapturedTrap& trap);
  // `count` traps of `type` (TRAP_TYPE_NONE: unknown) that this tool lost at `timeUs`.
  void AddToolDrop(int64_t timeUs, libtidewatch::TRAP_TYPE type, uint64_t count);

  void SetSource(std::string_view source);
  // The run's start and end, when they are known apart from its traps' times.
  void SetSpan(int64_t startUs, int64_t endUs);
  // Reading stopped early: `where` says where and why ("block 12 (EPB 0x00000006) at byte offset
  // 4096: ..."), shown after "Reading stopped at".
  void SetStoppedAt(std::string_view where);

  const ReportData& data() const { return m_data; }

 private:
  size_t PlaceInGrid(int64_t timeUs);
  // The index in m_data.names of the name under `key`, added when there is room; SIZE_MAX when
  // the name is one too many.
  size_t NameIndex(libtidewatch::TRAP_TYPE type, std::string_view key);
  void AddFields(const libtidewatch::CapturedTrap& trap, size_t bucket, size_t nameIndex);
  FieldSeries* SeriesFor(EmMessage* message, size_t messageIndex, std::string_view field,
                         const libtidewatch::TrapNumber& sim, size_t hint);
  void RecordDrops(const libtidewatch::CapturedTrap& trap, size_t bucket);
  void AddDropEvent(const DropEvent& event);

  ReportData m_data;
  // Name (prefixed by its trap type) to index in m_data.names; the keys view m_keys' strings.
  std::unordered_map<std::string_view, size_t> m_nameIndex;
  std::vector<std::unique_ptr<std::string>> m_keys;
  // Index in m_data.names to index in m_data.emMessages, for EM names with fields.
  std::unordered_map<size_t, size_t> m_emIndex;
  std::string m_scratch;  // builds lookup keys without allocating per trap
};

}  // namespace capture
