// The air message inside a synthetic OTA trap. Messages whose encoding is short and fixed get a
// valid one, so that a protocol analyser decodes them (the LTE master information block among
// them, with a system frame number that advances); the others get a plausible header and filler.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

namespace hal_emulator {

// Appends the PDU of the OTA message named `name` (its GLOBAL_ID name) as sent for the
// `occurrence`-th time.
void AppendAirMessage(std::string_view name, uint32_t occurrence, std::vector<uint8_t>* pdu);

}  // namespace hal_emulator
