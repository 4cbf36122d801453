#include "libtidewatch/trap/trap_packer.h"

#include <algorithm>
#include <cstring>

#include "libtidewatch/platform/log.h"

namespace libtidewatch {
namespace {

constexpr uint8_t kDiscardInfoRecord = TRAP_TYPE_DISCARD_INFO;
constexpr uint8_t kLastKnownType = TRAP_TYPE_ICD_EVENT;
constexpr uint64_t kRecordHeaderSize = 5;
constexpr uint64_t kDiscardEntrySize = 5;

}  // namespace

// The sender's length and count fields are not trusted to stay inside the data. Every byte past
// the data given reads as 0, which decides the cases the fields leave open without ever touching
// bytes that were not given (the buffer is deliberately not cleared):
// - a trap record that runs past the end (header or payload) ends the walk, and the packer is
//   initialised with the declared length; a payload whose header is cut short points at the end of
//   the data instead of beyond it;
// - discard entries past the end have type 0, so a record whose entries run past the end fails as
//   one that is not the last part, the bytes it does hold having been checked as usual.
TrapPacker::TrapPacker(const uint8_t* rawData, size_t length) {
  if (rawData == nullptr || length == 0 || length > kMaxRawLength) return;
  // Not value-initialised: clearing 64 KiB per trap costs more than the parse at high trap rates.
  m_rawData.reset(new uint8_t[kMaxRawLength]);
  memcpy(m_rawData.get(), rawData, length);
  m_raw = m_rawData.get();
  m_rawLength = length;
  TW_LOGD("TrapPacker::Parse");
  Parse();
}

TrapPacker::TrapPacker(const uint8_t* rawData, size_t length, View) {
  if (rawData == nullptr || length == 0 || length > kMaxRawLength) return;
  m_raw = rawData;
  m_rawLength = length;
  TW_LOGD("TrapPacker::Parse");
  Parse();
}

uint32_t TrapPacker::ReadU32(uint64_t offset) const {
  uint32_t value = 0;
  for (uint64_t i = 0; i < 4 && offset + i < m_rawLength; ++i) {
    value |= static_cast<uint32_t>(m_raw[offset + i]) << (8 * i);
  }
  return value;
}

void TrapPacker::Parse() {
  const uint8_t* raw = m_raw;
  uint64_t offset = 0;
  while (offset < m_rawLength) {
    const uint8_t recordType = raw[offset];
    if (recordType == kDiscardInfoRecord) {
      if (!ParseDiscardInfo(offset)) {
        TW_LOGE("Parse rawData failed.");
        return;
      }
      break;  // it ended exactly at the end of the data
    }
    const uint32_t length = ReadU32(offset + 1);
    if (recordType <= kLastKnownType) {
      m_trapType = static_cast<TRAP_TYPE>(recordType);
      TW_LOGD("Trap parsed: type: [%d], len: [%u]", recordType, length);
    } else {
      // Skipped rather than rejected: a newer service may send types this side does not know.
      m_trapType = TRAP_TYPE_NONE;
      TW_LOGE("Unknown trap type: [%d], len: [%u]", recordType, length);
    }
    const uint64_t payload = offset + kRecordHeaderSize;
    m_trapRecord = raw + offset;
    m_trapRecordSize =
        static_cast<size_t>(std::min<uint64_t>(payload + length, m_rawLength) - offset);
    m_trapData = raw + (payload < m_rawLength ? payload : m_rawLength);
    m_trapDataLength = length;
    offset = payload + length;
    TW_LOGD("Parse trap data done! len = [%zu]", m_trapDataLength);
  }
  TW_LOGD("TrapPacker::Parse done!");
  m_initialized = true;
}

bool TrapPacker::ParseDiscardInfo(uint64_t offset) {
  const uint8_t* raw = m_raw;
  m_discardInfo = raw + offset;
  const uint32_t count = ReadU32(offset + 1);
  const uint64_t entries = offset + kRecordHeaderSize;
  // Entries past the end of the data read as type 0 and are valid: only the given ones are checked.
  for (uint64_t i = 0; i < count; ++i) {
    const uint64_t entry = entries + i * kDiscardEntrySize;
    if (entry >= m_rawLength) break;
    if (raw[entry] >= TRAP_TYPE_NUM) {
      TW_LOGE("Invalid discard info type: [%d]", raw[entry]);
      return false;
    }
  }
  TW_LOGD("Parse discard info done! count = [%u]", count);
  if (entries + count * kDiscardEntrySize != m_rawLength) {
    TW_LOGE("Discard Info should be the last part in raw data.");
    return false;
  }
  return true;
}

uint32_t TrapPacker::GetDiscardInfo(TRAP_TYPE type) const {
  const uint64_t offset = m_discardInfo == nullptr ? 0 : m_discardInfo - m_raw;
  const uint32_t count = m_discardInfo == nullptr ? 0 : ReadU32(offset + 1);
  if (static_cast<uint16_t>(type) > kLastKnownType || count == 0) {
    TW_LOGD("No discard count.");
    return 0;
  }
  if (!m_initialized) {
    TW_LOGE("TrapPacker was not initialized.");
    return 0;
  }
  TW_LOGD("Total discard count = [%u]", count);
  // Initialised means the record ended exactly at the end of the data: every entry is present.
  const uint8_t* entry = m_discardInfo + kRecordHeaderSize;
  for (uint32_t i = 0; i < count; ++i, entry += kDiscardEntrySize) {
    if (entry[0] == type) return ReadU32(static_cast<uint64_t>(entry - m_raw) + 1);
  }
  return 0;
}

}  // namespace libtidewatch
