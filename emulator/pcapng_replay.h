// Replay files written by the capture tool: the trap records of a pcapng capture, sent again in
// the order they were captured, so that a capture made on a device can be played to a host.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "emulator/trap_records.h"

namespace hal_emulator {

// Whether `data` starts as a pcapng file does: with a Section Header Block.
bool IsPcapng(const uint8_t* data, size_t len);

// The trap records of the capture in `data`, in order. A record that arrived short is sent with
// the length it has, so that the records after it stay framed. A file cut short inside its last
// block (its writer was killed) gives the records before the cut. False, with the reader's error,
// on any other damage, or when a record is larger than `maxRecord` bytes.
bool ParsePcapngReplay(const uint8_t* data, size_t len, size_t maxRecord,
                       std::vector<ReplayRecord>* records, std::string* error);

}  // namespace hal_emulator
