// Parses the raw data of one trap delivery: a private copy of the bytes, the trap it carries and
// the per-type discard counters the service may append. Parsing happens in the constructor; a
// packer that failed to parse is simply not initialised.
//
// Raw data is a run of records, packed, every number little-endian and unaligned:
//
//   +----------+-------------+--------------------------------------------+
//   | type (1) | length (4)  | payload (length bytes)                     |  trap record, type != 1
//   +----------+-------------+--------------------------------------------+
//   | 1        | count (4)   | count x { trap type (1), dropped (4) }     |  discard info, last
//   +----------+-------------+--------------------------------------------+
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "libtidewatch/api/monitor_types.h"

namespace libtidewatch {

class TrapPacker {
 public:
  static constexpr size_t kMaxRawLength = 65581;

  // Copies and parses `length` bytes of `rawData`. Null data, or a length of 0 or above
  // kMaxRawLength, leaves the packer uninitialised without a word.
  TrapPacker(const uint8_t* rawData, size_t length);
  // The same without the copy, for a reader done with the trap before its bytes change: the
  // packer and what it returns point into `rawData`, which must outlive it unchanged.
  struct View {};
  TrapPacker(const uint8_t* rawData, size_t length, View);
  virtual ~TrapPacker() = default;
  TrapPacker(const TrapPacker&) = delete;
  TrapPacker& operator=(const TrapPacker&) = delete;

  // True only when the whole data was walked without error.
  bool IsInitialized() const { return m_initialized; }
  // The last trap record's type; TRAP_TYPE_NONE when that type was unknown.
  TRAP_TYPE GetTrapType() const { return m_trapType; }
  // The last trap record's payload, inside this packer's copy (or the viewed bytes): valid while
  // the packer lives.
  const uint8_t* GetTrapData() const { return m_trapData; }
  // The last trap record's declared length. It may exceed the bytes actually present behind
  // GetTrapData() when the record was cut short; never read past the raw length.
  size_t GetTrapDataLength() const { return m_trapDataLength; }
  // The last trap record whole (type, length, payload) as far as it arrived: unlike the declared
  // length, its size never reaches past the raw data. Null and 0 when no record was walked.
  const uint8_t* GetTrapRecord() const { return m_trapRecord; }
  size_t GetTrapRecordSize() const { return m_trapRecordSize; }
  // Whether the data closed with a discard-info record (GetDiscardInfo may then be non-zero).
  bool HasDiscardInfo() const { return m_discardInfo != nullptr; }

  // How many traps of `type` the service reports as dropped; 0 when it says nothing about them.
  uint32_t GetDiscardInfo(TRAP_TYPE type) const;

 private:
  void Parse();
  // Little-endian u32 at `offset`, where the bytes past the given data read as 0.
  uint32_t ReadU32(uint64_t offset) const;
  // Walks the discard-info record at `offset`; false when the parse has failed.
  bool ParseDiscardInfo(uint64_t offset);

  bool m_initialized = false;
  std::unique_ptr<uint8_t[]> m_rawData;  // the copy; empty for a view
  const uint8_t* m_raw = nullptr;        // the bytes parsed: the copy or the viewed data
  size_t m_rawLength = 0;
  const uint8_t* m_trapData = nullptr;
  size_t m_trapDataLength = 0;
  const uint8_t* m_trapRecord = nullptr;
  size_t m_trapRecordSize = 0;
  const uint8_t* m_discardInfo = nullptr;
  TRAP_TYPE m_trapType = TRAP_TYPE_NONE;
};

}  // namespace libtidewatch
