#include "emulator/pcapng_replay.h"

#include "libtidewatch/pcapng/pcapng_reader.h"
#include "libtidewatch/platform/log.h"

namespace hal_emulator {

bool IsPcapng(const uint8_t* data, size_t len) {
  return len >= 4 && data[0] == 0x0A && data[1] == 0x0D && data[2] == 0x0D && data[3] == 0x0A;
}

bool ParsePcapngReplay(const uint8_t* data, size_t len, size_t maxRecord,
                       std::vector<ReplayRecord>* records, std::string* error) {
  libtidewatch::PcapngReader reader;
  reader.OpenBuffer(data, len);
  libtidewatch::CapturedTrap trap;
  libtidewatch::PcapngReader::Status status;
  while ((status = reader.Next(&trap)) == libtidewatch::PcapngReader::kTrap) {
    if (trap.record.size < kTrapRecordHeaderSize) continue;  // nothing of it but a partial header
    if (trap.record.size > maxRecord) {
      *error = "trap " + std::to_string(trap.seq) + " is larger than " + std::to_string(maxRecord) +
               " bytes";
      return false;
    }
    ReplayRecord record;
    record.type = trap.record.data[0];
    record.bytes.assign(trap.record.data, trap.record.data + trap.record.size);
    const size_t present = trap.record.size - kTrapRecordHeaderSize;
    for (size_t i = 0; i < 4; ++i) record.bytes[1 + i] = static_cast<uint8_t>(present >> (8 * i));
    records->push_back(std::move(record));
  }
  if (status == libtidewatch::PcapngReader::kError) {
    if (!reader.cutShort()) {
      *error = reader.error();
      return false;
    }
    TW_LOGW("replaying the %zu traps before the end: %s", records->size(), reader.error().c_str());
  }
  return true;
}

}  // namespace hal_emulator
