// What a capture report keeps of a capture: totals, per-name counts, per-bucket series on one time
// grid, drops and the start of the OTA timeline. All of it is owned (copied out of the traps) and
// bounded, whatever the number of traps; ReportBuilder fills it and HtmlReport draws it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "capture/report/time_grid.h"
#include "libtidewatch/api/monitor_types.h"

namespace capture {

// An optional number as a trap carries it (a SIM index, a PDU length).
struct OptionalNumber {
  uint64_t value = 0;
  bool present = false;
};

// The values of one EM field that fell into one grid bucket.
struct FieldBucket {
  uint64_t min = 0;
  uint64_t max = 0;
  uint64_t last = 0;
  uint32_t count = 0;
};

// One EM field of one message on one SIM, over time.
struct FieldSeries {
  size_t message = 0;  // index into ReportData::emMessages
  std::string field;
  OptionalNumber sim;
  uint64_t count = 0;
  uint64_t min = 0;
  uint64_t max = 0;
  uint64_t last = 0;
  std::vector<FieldBucket> buckets;  // grid.capacity() of them
};

// An EM message that carried numeric fields, and its series in the order they first appeared.
struct EmMessage {
  std::string name;
  std::vector<size_t> series;  // indexes into ReportData::series
};

// Traps of one message name (or of one trap type, for the types without names).
struct NameStats {
  libtidewatch::TRAP_TYPE type = libtidewatch::TRAP_TYPE_NONE;
  std::string label;
  uint64_t count = 0;
  uint64_t bytes = 0;
};

// One report of lost traps: by the service (carried by a delivery) or by this tool.
struct DropEvent {
  int64_t timeUs = 0;
  bool byTool = false;
  uint64_t counts[libtidewatch::TRAP_TYPE_NUM] = {};
};

struct OtaEntry {
  int64_t timeUs = 0;
  uint64_t seq = 0;
  OptionalNumber sim;
  std::string message;
  std::string trace;
  OptionalNumber pduLength;
};

// Per grid bucket: traps of each type, and traps reported lost by the service and by the tool.
struct TypeBucket {
  uint64_t traps[libtidewatch::TRAP_TYPE_NUM] = {};
  uint64_t serviceDrops = 0;
  uint64_t toolDrops = 0;
};

struct ReportData {
  // Where the capture came from ("live capture", a file's path), for the page's heading.
  std::string source;
  // Reading stopped early here (a damaged file): a description of where and why; empty otherwise.
  std::string stoppedAt;

  uint64_t traps = 0;
  uint64_t bytes = 0;
  int64_t firstUs = 0;  // earliest and latest trap time, meaningful when traps > 0
  int64_t lastUs = 0;
  // The run's own start and end when known (a live run starts before its first trap).
  bool hasSpan = false;
  int64_t spanStartUs = 0;
  int64_t spanEndUs = 0;

  std::vector<NameStats> names;  // in order of first appearance
  NameStats otherNames;          // names beyond the kept number, summed

  TimeGrid grid;
  std::vector<TypeBucket> typeBuckets;  // grid.capacity() of them
  uint64_t trapsByType[libtidewatch::TRAP_TYPE_NUM] = {};

  std::vector<EmMessage> emMessages;
  std::vector<FieldSeries> series;
  uint64_t unchartedValues = 0;  // field values of series beyond the kept number

  std::vector<DropEvent> drops;  // the first ones, in arrival order
  uint64_t unlistedDropEvents = 0;
  uint64_t serviceDropsByType[libtidewatch::TRAP_TYPE_NUM] = {};
  uint64_t toolDropsByType[libtidewatch::TRAP_TYPE_NUM] = {};

  std::vector<OtaEntry> ota;  // the first ones, in arrival order
  uint64_t otaNotListed = 0;

  explicit ReportData(size_t gridCapacity, int64_t gridWidthUs) : grid(gridCapacity, gridWidthUs) {}

  // The time axis of the report: the run's span when known, else first to last trap, widened to
  // hold every trap either way.
  int64_t StartUs() const;
  int64_t EndUs() const;
  uint64_t ServiceDrops() const;
  uint64_t ToolDrops() const;
};

}  // namespace capture
