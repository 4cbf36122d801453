#include "emulator/trap_records.h"

#include <cstdio>
#include <limits>

#include "emulator/pcapng_replay.h"

namespace hal_emulator {

using libtidewatch::TRAP_TYPE_DISCARD_INFO;
using libtidewatch::TRAP_TYPE_NUM;
namespace {

constexpr size_t kMaxReplayFile = 64u * 1024u * 1024u;

void AppendLe32(uint32_t v, std::vector<uint8_t>* out) {
  for (int i = 0; i < 4; ++i) out->push_back(static_cast<uint8_t>(v >> (8 * i)));
}

uint32_t LoadLe32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
         static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

}  // namespace

void AppendTrapRecord(uint8_t type, const uint8_t* payload, size_t len, std::vector<uint8_t>* out) {
  out->push_back(type);
  AppendLe32(static_cast<uint32_t>(len), out);
  if (len > 0) out->insert(out->end(), payload, payload + len);
}

std::vector<uint8_t> SyntheticTrapPayload(uint64_t msgId, uint32_t sequence, size_t size) {
  if (size < 8) size = 8;
  std::vector<uint8_t> payload(size);
  for (size_t i = 0; i < 8; ++i) payload[i] = static_cast<uint8_t>(msgId >> (8 * i));
  for (size_t i = 8; i < size; ++i) {
    // The sequence number lets a reader see gaps; the pattern after it varies per trap.
    payload[i] = i < 12 ? static_cast<uint8_t>(sequence >> (8 * (i - 8)))
                        : static_cast<uint8_t>(i + sequence);
  }
  return payload;
}

void DiscardCounter::Count(uint8_t type) {
  if (type >= TRAP_TYPE_NUM) return;
  if (m_counts[type] < std::numeric_limits<uint32_t>::max()) ++m_counts[type];
}

bool DiscardCounter::Empty() const {
  for (uint32_t c : m_counts) {
    if (c != 0) return false;
  }
  return true;
}

void DiscardCounter::AppendRecord(std::vector<uint8_t>* out) const {
  uint32_t entries = 0;
  for (uint32_t c : m_counts) entries += c != 0 ? 1 : 0;
  if (entries == 0) return;
  out->push_back(TRAP_TYPE_DISCARD_INFO);
  AppendLe32(entries, out);
  for (size_t t = 0; t < TRAP_TYPE_NUM; ++t) {
    if (m_counts[t] == 0) continue;
    out->push_back(static_cast<uint8_t>(t));
    AppendLe32(m_counts[t], out);
  }
}

bool ParseTrapRecords(const uint8_t* data, size_t len, size_t maxRecord,
                      std::vector<ReplayRecord>* records, std::string* error) {
  records->clear();
  size_t pos = 0;
  while (pos < len) {
    if (len - pos < kTrapRecordHeaderSize) {
      *error = "record header cut short at offset " + std::to_string(pos);
      return false;
    }
    uint64_t size = kTrapRecordHeaderSize + static_cast<uint64_t>(LoadLe32(data + pos + 1));
    if (size > len - pos) {
      *error = "record at offset " + std::to_string(pos) + " runs past the end of the data";
      return false;
    }
    if (size > maxRecord) {
      *error = "record at offset " + std::to_string(pos) + " is larger than " +
               std::to_string(maxRecord) + " bytes";
      return false;
    }
    ReplayRecord record;
    record.type = data[pos];
    record.bytes.assign(data + pos, data + pos + size);
    records->push_back(std::move(record));
    pos += size;
  }
  return true;
}

bool LoadTrapReplay(const std::string& path, size_t maxRecord, std::vector<ReplayRecord>* records,
                    std::string* error) {
  FILE* fp = fopen(path.c_str(), "rb");
  if (fp == nullptr) {
    *error = "cannot open " + path;
    return false;
  }
  std::vector<uint8_t> data;
  uint8_t chunk[64 * 1024];
  size_t n;
  while ((n = fread(chunk, 1, sizeof(chunk), fp)) > 0 && data.size() <= kMaxReplayFile) {
    data.insert(data.end(), chunk, chunk + n);
  }
  bool readError = ferror(fp) != 0;
  fclose(fp);
  if (readError) {
    *error = "cannot read " + path;
    return false;
  }
  if (data.size() > kMaxReplayFile) {
    *error = path + " is larger than 64 MiB";
    return false;
  }
  // A capture of the capture tool, or a plain sequence of records.
  const bool parsed = IsPcapng(data.data(), data.size())
                          ? ParsePcapngReplay(data.data(), data.size(), maxRecord, records, error)
                          : ParseTrapRecords(data.data(), data.size(), maxRecord, records, error);
  if (!parsed) {
    *error = path + ": " + *error;
    return false;
  }
  return true;
}

}  // namespace hal_emulator
