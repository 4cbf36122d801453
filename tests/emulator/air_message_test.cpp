#include "emulator/air_message.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace hal_emulator {
namespace {

std::string Hex(const std::vector<uint8_t>& bytes) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  for (uint8_t b : bytes) out += {kDigits[b >> 4], kDigits[b & 15]};
  return out;
}

// A protocol analyser decodes what the emulator sends only if each message keeps its encoding:
// the choice bits and trailing fields of the RRC messages, the NAS headers. '.' stands for the
// random identities.
TEST(AirMessageTest, EachMessageKeepsItsEncoding) {
  const struct {
    const char* name;
    uint32_t occurrence;
    const char* hex;
  } cases[] = {
      {"LTE_RRC_MASTER_INFORMATION_BLOCK", 0, "680000"},
      {"LTE_RRC_MASTER_INFORMATION_BLOCK", 5, "681400"},
      {"LTE_RRC_PAGING", 3, "00"},
      {"LTE_RRC_CONNECTION_REQUEST", 1, "5..........6"},
      {"NR_RRC_SETUP_REQUEST", 1, "1..........6"},
      {"LTE_NAS_AUTHENTICATION_RESPONSE", 1, "075308................"},
      {"LTE_NAS_AUTHENTICATION_REQUEST", 1,
       "075200030405060708090a0b0c0d0e0f101112100506070809"
       "0a0b0c0d0e0f1011121314"},
      {"LTE_NAS_SERVICE_REQUEST", 33, "c7011234"},
      {"LTE_NAS_ATTACH_COMPLETE", 9,
       "0743000352"
       "00c2"},
      {"NR_NAS_REGISTRATION_ACCEPT", 9, "7e00420101"},
      {"LTE_NAS_ATTACH_ACCEPT", 2, "07420203040506070809"},
      {"NR_NAS_PDU_SESSION_ESTABLISHMENT_REQUEST", 0, "2e0101c10001020304050607"},
      {"NR_NAS_SECURITY_MODE_COMMAND", 0, "7e00000001020304050607"},
      {"LTE_RRC_SOMETHING_NEW", 0, "0001020304050607"},
  };
  for (const auto& row : cases) {
    std::vector<uint8_t> pdu;
    AppendAirMessage(row.name, row.occurrence, &pdu);
    const std::string hex = Hex(pdu);
    const std::string want = row.hex;
    bool same = hex.size() == want.size();
    for (size_t i = 0; same && i < want.size(); ++i) same = want[i] == '.' || want[i] == hex[i];
    EXPECT_TRUE(same) << row.name << ": " << hex << ", want " << want;
  }
}

}  // namespace
}  // namespace hal_emulator
