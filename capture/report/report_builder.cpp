#include "capture/report/report_builder.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <memory>

namespace capture {

using libtidewatch::CapturedTrap;
using libtidewatch::DecodedTrap;
using libtidewatch::TRAP_TYPE;
using libtidewatch::TRAP_TYPE_NUM;

namespace {

std::string_view Cut(std::string_view text) { return text.substr(0, ReportBuilder::kMaxTextBytes); }

OptionalNumber ToOptional(const libtidewatch::TrapNumber& n) { return {n.value, n.present}; }

// A name for `number` where the layout gave none: "#2000", or "" when there is no number either.
std::string Unnamed(const libtidewatch::TrapNumber& number) {
  return number.present ? "#" + std::to_string(number.value) : std::string();
}

// The label a trap is counted under: its message name, else its type and id ("EM #2000"), else
// its type alone. Appended to `out`.
void AppendLabel(TRAP_TYPE type, const DecodedTrap& decoded, std::string* out) {
  const char* typeName = libtidewatch::ToTrapStr(type);
  if (typeName == nullptr) typeName = "NONE";
  bool named = type == libtidewatch::TRAP_TYPE_OTA || type == libtidewatch::TRAP_TYPE_EM;
  if (named && decoded.msgName) {
    out->append(Cut(*decoded.msgName));
    return;
  }
  out->append(typeName);
  if (named) {
    std::string id = Unnamed(decoded.msgId);
    out->append(id.empty() ? " (no id)" : " " + id);
  }
}

// Times as the report keeps them: within the grid's range, so that no difference of two overflows,
// whatever a damaged capture says.
int64_t Clamped(int64_t timeUs) {
  return std::clamp(timeUs, -TimeGrid::kMaxAbsTimeUs, TimeGrid::kMaxAbsTimeUs);
}

void MergeField(FieldBucket* into, const FieldBucket& from) {
  if (from.count == 0) return;
  if (into->count == 0) {
    *into = from;
    return;
  }
  into->min = std::min(into->min, from.min);
  into->max = std::max(into->max, from.max);
  into->last = from.last;  // buckets are merged in time order
  into->count += from.count;
}

void MergeTypes(TypeBucket* into, const TypeBucket& from) {
  for (size_t t = 0; t < TRAP_TYPE_NUM; ++t) into->traps[t] += from.traps[t];
  into->serviceDrops += from.serviceDrops;
  into->toolDrops += from.toolDrops;
}

}  // namespace

ReportBuilder::ReportBuilder() : m_data(kGridBuckets, kInitialBucketUs) {
  m_data.typeBuckets.resize(m_data.grid.capacity());
  m_data.otherNames.label = "(other names)";
}

size_t ReportBuilder::PlaceInGrid(int64_t timeUs) {
  GridRemap remap;
  size_t bucket = m_data.grid.Place(timeUs, &remap);
  if (remap.shift != 0 || remap.halvings != 0) {
    RemapBuckets(remap, &m_data.typeBuckets, MergeTypes);
    for (FieldSeries& s : m_data.series) RemapBuckets(remap, &s.buckets, MergeField);
  }
  return bucket;
}

void ReportBuilder::Add(const CapturedTrap& trap) {
  const DecodedTrap& decoded = trap.decoded;
  TRAP_TYPE type = decoded.type < TRAP_TYPE_NUM ? decoded.type : libtidewatch::TRAP_TYPE_NONE;
  const int64_t timeUs = Clamped(trap.timeUs);
  size_t bucket = PlaceInGrid(timeUs);

  if (m_data.traps == 0) {
    m_data.firstUs = m_data.lastUs = timeUs;
  } else {
    m_data.firstUs = std::min(m_data.firstUs, timeUs);
    m_data.lastUs = std::max(m_data.lastUs, timeUs);
  }
  ++m_data.traps;
  m_data.bytes += decoded.payload.size;  // payload bytes, as the capture's summary counts them
  ++m_data.trapsByType[type];
  ++m_data.typeBuckets[bucket].traps[type];

  // Names are counted per trap type: the key is the type's digit, then the label.
  m_scratch.assign(1, static_cast<char>('0' + type));
  AppendLabel(type, decoded, &m_scratch);
  size_t nameIndex = NameIndex(type, m_scratch);
  NameStats& stats = nameIndex < m_data.names.size() ? m_data.names[nameIndex] : m_data.otherNames;
  ++stats.count;
  stats.bytes += decoded.payload.size;

  if (type == libtidewatch::TRAP_TYPE_EM && !decoded.fields.empty()) {
    if (nameIndex < m_data.names.size()) {
      AddFields(trap, bucket, nameIndex);
    } else {
      m_data.unchartedValues += decoded.fields.size();
    }
  }

  if (type == libtidewatch::TRAP_TYPE_OTA) {
    if (m_data.ota.size() < kMaxOta) {
      OtaEntry entry;
      entry.timeUs = timeUs;
      entry.seq = trap.seq;
      entry.sim = ToOptional(decoded.sim);
      entry.message = decoded.msgName ? std::string(Cut(*decoded.msgName)) : Unnamed(decoded.msgId);
      entry.trace =
          decoded.traceName ? std::string(Cut(*decoded.traceName)) : Unnamed(decoded.traceId);
      entry.pduLength = ToOptional(decoded.pduLength);
      m_data.ota.push_back(std::move(entry));
    } else {
      ++m_data.otaNotListed;
    }
  }

  RecordDrops(trap, bucket);
}

void ReportBuilder::AddDrops(const CapturedTrap& trap) {
  if (trap.HasDiscards() || trap.toolDrops != 0)
    RecordDrops(trap, PlaceInGrid(Clamped(trap.timeUs)));
}

void ReportBuilder::RecordDrops(const CapturedTrap& trap, size_t bucket) {
  if (trap.HasDiscards()) {
    DropEvent event;
    event.timeUs = Clamped(trap.timeUs);
    uint64_t sum = 0;
    for (size_t t = 0; t < TRAP_TYPE_NUM; ++t) {
      event.counts[t] = trap.discards[t];
      m_data.serviceDropsByType[t] += trap.discards[t];
      sum += trap.discards[t];
    }
    m_data.typeBuckets[bucket].serviceDrops += sum;
    AddDropEvent(event);
  }
  if (trap.toolDrops != 0) {
    // The capture's own losses carry no type: they never reached the decoder's view.
    DropEvent event;
    event.timeUs = Clamped(trap.timeUs);
    event.byTool = true;
    event.counts[libtidewatch::TRAP_TYPE_NONE] = trap.toolDrops;
    m_data.toolDropsByType[libtidewatch::TRAP_TYPE_NONE] += trap.toolDrops;
    m_data.typeBuckets[bucket].toolDrops += trap.toolDrops;
    AddDropEvent(event);
  }
}

void ReportBuilder::AddToolDrop(int64_t timeUs, TRAP_TYPE type, uint64_t count) {
  if (count == 0) return;
  if (type >= TRAP_TYPE_NUM) type = libtidewatch::TRAP_TYPE_NONE;
  timeUs = Clamped(timeUs);
  size_t bucket = PlaceInGrid(timeUs);
  m_data.typeBuckets[bucket].toolDrops += count;
  m_data.toolDropsByType[type] += count;
  DropEvent event;
  event.timeUs = timeUs;
  event.byTool = true;
  event.counts[type] = count;
  AddDropEvent(event);
}

void ReportBuilder::AddDropEvent(const DropEvent& event) {
  if (m_data.drops.size() < kMaxDropEvents) {
    m_data.drops.push_back(event);
  } else {
    ++m_data.unlistedDropEvents;
  }
}

void ReportBuilder::SetSource(std::string_view source) { m_data.source = std::string(source); }

void ReportBuilder::SetSpan(int64_t startUs, int64_t endUs) {
  m_data.hasSpan = true;
  m_data.spanStartUs = Clamped(std::min(startUs, endUs));
  m_data.spanEndUs = Clamped(std::max(startUs, endUs));
}

void ReportBuilder::SetStoppedAt(std::string_view where) {
  m_data.stoppedAt = std::string(where.substr(0, 1000));
}

size_t ReportBuilder::NameIndex(TRAP_TYPE type, std::string_view key) {
  auto it = m_nameIndex.find(key);
  if (it != m_nameIndex.end()) return it->second;
  if (m_data.names.size() >= kMaxNames) return SIZE_MAX;
  m_keys.push_back(std::make_unique<std::string>(key));
  m_nameIndex.emplace(*m_keys.back(), m_data.names.size());
  NameStats stats;
  stats.type = type;
  stats.label = std::string(key.substr(1));
  m_data.names.push_back(std::move(stats));
  return m_data.names.size() - 1;
}

void ReportBuilder::AddFields(const CapturedTrap& trap, size_t bucket, size_t nameIndex) {
  auto it = m_emIndex.find(nameIndex);
  if (it == m_emIndex.end()) {
    it = m_emIndex.emplace(nameIndex, m_data.emMessages.size()).first;
    m_data.emMessages.push_back(EmMessage{m_data.names[nameIndex].label, {}});
  }
  size_t messageIndex = it->second;
  const std::vector<libtidewatch::DecodedField>& fields = trap.decoded.fields;
  for (size_t i = 0; i < fields.size(); ++i) {
    FieldSeries* s = SeriesFor(&m_data.emMessages[messageIndex], messageIndex, fields[i].name,
                               trap.decoded.sim, i);
    if (s == nullptr) {
      ++m_data.unchartedValues;
      continue;
    }
    uint64_t v = fields[i].value;
    MergeField(&s->buckets[bucket], FieldBucket{v, v, v, 1});
    if (s->count == 0) {
      s->min = s->max = v;
    } else {
      s->min = std::min(s->min, v);
      s->max = std::max(s->max, v);
    }
    s->last = v;
    ++s->count;
  }
}

FieldSeries* ReportBuilder::SeriesFor(EmMessage* message, size_t messageIndex,
                                      std::string_view field, const libtidewatch::TrapNumber& sim,
                                      size_t hint) {
  field = Cut(field);
  auto matches = [&](size_t seriesIndex) {
    const FieldSeries& s = m_data.series[seriesIndex];
    return s.field == field && s.sim.present == sim.present &&
           (!sim.present || s.sim.value == sim.value);
  };
  // Fields come in the layout's order, so with one SIM the i-th field is usually the i-th series.
  if (hint < message->series.size() && matches(message->series[hint])) {
    return &m_data.series[message->series[hint]];
  }
  for (size_t index : message->series) {
    if (matches(index)) return &m_data.series[index];
  }
  if (m_data.series.size() >= kMaxSeries) return nullptr;
  FieldSeries s;
  s.message = messageIndex;
  s.field = std::string(field);
  s.sim = ToOptional(sim);
  s.buckets.resize(m_data.grid.capacity());
  message->series.push_back(m_data.series.size());
  m_data.series.push_back(std::move(s));
  return &m_data.series.back();
}

}  // namespace capture
