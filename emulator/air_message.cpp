#include "emulator/air_message.h"

#include <cstddef>
#include <initializer_list>
#include <map>

namespace hal_emulator {
namespace {

// Unaligned PER writes bit fields most significant bit first, and pads the last byte with zeros.
class BitWriter {
 public:
  explicit BitWriter(std::vector<uint8_t>* out) : m_out(out) {}
  void Put(uint64_t value, unsigned bits) {
    for (unsigned i = bits; i-- > 0;) {
      if (m_used % 8 == 0) m_out->push_back(0);
      if ((value >> i) & 1) m_out->back() |= static_cast<uint8_t>(0x80 >> (m_used % 8));
      ++m_used;
    }
  }

 private:
  std::vector<uint8_t>* m_out;
  size_t m_used = 0;
};

// A random-looking 40-bit value that differs per sending, as a UE's random identity does.
uint64_t RandomValue(uint32_t occurrence) {
  uint64_t x = (occurrence + 1) * 0x9E3779B97F4A7C15ull;
  x ^= x >> 29;
  return x;
}

void Append(std::vector<uint8_t>* pdu, std::initializer_list<uint8_t> bytes) {
  pdu->insert(pdu->end(), bytes.begin(), bytes.end());
}

bool StartsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

// NAS messages whose valid encoding does not change: PLMN 001/01, IMSI 001010000000001.
const std::vector<uint8_t>* FixedMessage(std::string_view name) {
  static const std::map<std::string_view, std::vector<uint8_t>> kFixed = {
      // EPS attach with an IMSI, EEA0/EIA0 capabilities and a PDN connectivity request (IPv4).
      {"LTE_NAS_ATTACH_REQUEST", {0x07, 0x41, 0x71, 0x08, 0x09, 0x10, 0x10, 0x00, 0x00, 0x00, 0x00,
                                  0x10, 0x02, 0xE0, 0xE0, 0x00, 0x04, 0x02, 0x01, 0xD0, 0x11}},
      // Its ESM container holds "activate default EPS bearer context accept".
      {"LTE_NAS_ATTACH_COMPLETE", {0x07, 0x43, 0x00, 0x03, 0x52, 0x00, 0xC2}},
      // EPS detach by the UE, with a GUTI.
      {"LTE_NAS_DETACH_REQUEST",
       {0x07, 0x45, 0x01, 0x0B, 0xF6, 0x00, 0xF1, 0x10, 0x80, 0x01, 0x01, 0x12, 0x34, 0x56, 0x78}},
      {"LTE_NAS_TRACKING_AREA_UPDATE_ACCEPT", {0x07, 0x49, 0x00}},
      // Initial registration with a SUCI (null scheme).
      {"NR_NAS_REGISTRATION_REQUEST",
       {0x7E, 0x00, 0x41, 0x71, 0x00, 0x0D, 0x01, 0x00, 0xF1, 0x10, 0xF0, 0xFF, 0x00, 0x00, 0x00,
        0x00, 0x00, 0x00, 0x10}},
      {"NR_NAS_REGISTRATION_ACCEPT", {0x7E, 0x00, 0x42, 0x01, 0x01}},
      // UE-originating deregistration with a 5G-GUTI.
      {"NR_NAS_DEREGISTRATION_REQUEST",
       {0x7E, 0x00, 0x45, 0x01, 0x00, 0x0B, 0xF2, 0x00, 0xF1, 0x10, 0x01, 0x00, 0x41, 0x12, 0x34,
        0x56, 0x78}},
  };
  auto it = kFixed.find(name);
  return it != kFixed.end() ? &it->second : nullptr;
}

// The message type octet of the NAS messages that get a header and filler only.
uint8_t NasMessageType(std::string_view name) {
  static const std::map<std::string_view, uint8_t> kTypes = {
      {"LTE_NAS_ATTACH_ACCEPT", 0x42},
      {"LTE_NAS_TRACKING_AREA_UPDATE_REQUEST", 0x48},
      {"NR_NAS_PDU_SESSION_ESTABLISHMENT_REQUEST", 0xC1},
      {"NR_NAS_PDU_SESSION_ESTABLISHMENT_ACCEPT", 0xC2},
  };
  auto it = kTypes.find(name);
  return it != kTypes.end() ? it->second : 0x00;
}

}  // namespace

void AppendAirMessage(std::string_view name, uint32_t occurrence, std::vector<uint8_t>* pdu) {
  BitWriter bits(pdu);
  if (name == "LTE_RRC_MASTER_INFORMATION_BLOCK") {
    // BCCH-BCH: dl-Bandwidth n50, phich-Duration normal, phich-Resource one, the eight high bits
    // of the system frame number, ten zero bits. A MIB goes out every four frames, so each one
    // carries the next value.
    bits.Put(3, 3);
    bits.Put(0, 1);
    bits.Put(2, 2);
    bits.Put(occurrence & 0xFF, 8);
    bits.Put(0, 10);
  } else if (name == "LTE_RRC_PAGING") {
    // PCCH: c1, paging, with none of its four optional parts.
    bits.Put(0, 1);
    bits.Put(0, 4);
  } else if (name == "LTE_RRC_CONNECTION_REQUEST") {
    // UL-CCCH: c1, rrcConnectionRequest, r8, a random 40-bit identity, mo-Signalling, spare.
    bits.Put(0, 1);
    bits.Put(1, 1);
    bits.Put(0, 1);
    bits.Put(1, 1);
    bits.Put(RandomValue(occurrence) & 0xFFFFFFFFFFull, 40);
    bits.Put(3, 3);
    bits.Put(0, 1);
  } else if (name == "NR_RRC_SETUP_REQUEST") {
    // UL-CCCH: c1, rrcSetupRequest, a random 39-bit identity, mo-Signalling, spare.
    bits.Put(0, 1);
    bits.Put(0, 2);
    bits.Put(1, 1);
    bits.Put(RandomValue(occurrence) & 0x7FFFFFFFFFull, 39);
    bits.Put(3, 4);
    bits.Put(0, 1);
  } else if (name == "LTE_NAS_AUTHENTICATION_RESPONSE") {
    Append(pdu, {0x07, 0x53, 0x08});
    for (int i = 0; i < 8; ++i) pdu->push_back(static_cast<uint8_t>(RandomValue(occurrence) >> i));
  } else if (name == "LTE_NAS_AUTHENTICATION_REQUEST") {
    // KSI 0, RAND, then AUTN as a length and 16 bytes.
    Append(pdu, {0x07, 0x52, 0x00});
    for (int i = 0; i < 16; ++i) pdu->push_back(static_cast<uint8_t>(occurrence * 3 + i));
    pdu->push_back(0x10);
    for (int i = 0; i < 16; ++i) pdu->push_back(static_cast<uint8_t>(occurrence * 5 + i));
  } else if (name == "LTE_NAS_SERVICE_REQUEST") {
    // The short service request header: KSI and sequence number, then a short MAC.
    Append(pdu, {0xC7, static_cast<uint8_t>(occurrence & 0x1F), 0x12, 0x34});
  } else if (const std::vector<uint8_t>* fixed = FixedMessage(name)) {
    pdu->insert(pdu->end(), fixed->begin(), fixed->end());
  } else {
    // The protocol's header where the name tells it, then filler that changes per sending.
    if (StartsWith(name, "LTE_NAS_")) Append(pdu, {0x07, NasMessageType(name)});
    if (StartsWith(name, "NR_NAS_PDU_SESSION_")) {
      Append(pdu, {0x2E, 0x01, 0x01, NasMessageType(name)});
    } else if (StartsWith(name, "NR_NAS_")) {
      Append(pdu, {0x7E, 0x00, NasMessageType(name)});
    }
    for (uint8_t i = 0; i < 8; ++i) pdu->push_back(static_cast<uint8_t>(occurrence + i));
  }
}

}  // namespace hal_emulator
