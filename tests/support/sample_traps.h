// Captured traps built by hand, as a live capture holds them (record bytes plus a decoded view
// into them), for the capture file tests. Each sample owns the bytes and names its view points at.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "libtidewatch/trap/captured_trap.h"
#include "libtidewatch/trap/trap_decoder.h"

namespace tidewatch_test {

struct SampleTrap {
  std::vector<uint8_t> record;
  std::string traceName;
  std::string msgName;
  std::vector<std::string> fieldNames;
  libtidewatch::CapturedTrap trap;  // views into the members above
};

// An OTA trap of trace `traceId` carrying `pdu` at payload offset 12 (as the sample layout places
// it); `cut` bytes of the PDU are missing from the record, as when a trap arrived short.
std::unique_ptr<SampleTrap> OtaSample(uint64_t seq, const std::string& traceName, uint64_t traceId,
                                      const std::string& msgName, uint64_t msgId,
                                      const std::vector<uint8_t>& pdu, size_t cut = 0);

// An EM trap with these named fields and `peers` peer bytes after them.
std::unique_ptr<SampleTrap> EmSample(uint64_t seq, const std::string& msgName, uint64_t msgId,
                                     const std::vector<std::pair<std::string, uint64_t>>& fields,
                                     size_t peers = 0);

// A trap of a type the layout does not decode: only its record and type.
std::unique_ptr<SampleTrap> RawSample(uint64_t seq, libtidewatch::TRAP_TYPE type,
                                      const std::vector<uint8_t>& payload);

// Hex digits of `n` bytes at `p`.
std::string Hex(const uint8_t* p, size_t n);

// One line with every member of a decoded trap that its type fills; "-" is an absent number.
std::string Render(const libtidewatch::DecodedTrap& d);

// A valid 3-byte LTE master information block whose system frame number's 8 high bits are `sfn`.
std::vector<uint8_t> LteMib(uint8_t sfn);

}  // namespace tidewatch_test
