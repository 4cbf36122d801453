// The capture file format in one place: the pcapng block and option codes this library writes and
// reads, and the trap header that travels in front of every trap record, so that a file can be
// read (and shown by name) with no layout file. docs/capture-format.md explains the choices.
//
// A file is one or more sections, each a whole pcapng on its own (ring files start new ones):
//
//   SHB  Section Header Block    little-endian, shb_userappl "tide_watch_capture <version>"
//   IDB  Interface Description   link type kLinkType, snaplen 0, if_tsresol 6 (microseconds)
//   EPB  Enhanced Packet Block   one per trap: host receive time, data = trap header + record,
//                                epb_dropcount = discards of the delivery, epb_packetid = seq
//   ...
//   ISB  Interface Statistics    at close: received/dropped totals, start and end times
//
// The EPB data (all numbers little-endian; offsets from the start of the trap header):
//
//   +0  u32 magic "TWTR"          +4  u8 version (1)     +5  u8 trap type   +6 u16 flags
//   +8  u32 header length (bytes up to the record, a multiple of 4)
//   +12 u32 record bytes present after the header
//   +16 u64 seq                   +24 u64 the record's own length field (may exceed what arrived)
//   +32 u64 sim                   +40 u64 msg id          +48 u64 trace id   +56 u64 pdu length
//   +64 u64 peer count            +72 u32 pdu offset      +76 u32 pdu bytes
//   +80 u32 peer offset           +84 u32 peer bytes      (offsets: from the record's first byte)
//   +88 u32 discards[9]           per trap type, as the service reported them with the delivery
//   +124 u32 tool drops           traps the capture itself lost just before this one
//   +128 variable part:
//        u16 trace name length, bytes;  u16 msg name length, bytes;
//        u16 field count, then per field: u16 name length, bytes, u64 value
//        zero padding up to the header length
//   then the trap record: type (1), length (4), payload
#pragma once

#include <cstddef>
#include <cstdint>

namespace libtidewatch {
namespace pcapng {

// Block types.
constexpr uint32_t kSectionHeaderBlock = 0x0A0D0D0A;
constexpr uint32_t kInterfaceDescriptionBlock = 0x00000001;
constexpr uint32_t kSimplePacketBlock = 0x00000003;
constexpr uint32_t kInterfaceStatisticsBlock = 0x00000005;
constexpr uint32_t kEnhancedPacketBlock = 0x00000006;
constexpr uint32_t kByteOrderMagic = 0x1A2B3C4D;

// One of the user link types (LINKTYPE_USER0..15 = 147..162), which no public protocol claims, so
// a dissector may register on it without any preference. The last one is the least likely to
// collide with a user's own private mapping.
constexpr uint16_t kLinkType = 162;

// Option codes.
constexpr uint16_t kOptEndOfOpt = 0;
constexpr uint16_t kOptComment = 1;
constexpr uint16_t kShbHardware = 2;
constexpr uint16_t kShbOs = 3;
constexpr uint16_t kShbUserAppl = 4;
constexpr uint16_t kIfName = 2;
constexpr uint16_t kIfTsresol = 9;
constexpr uint16_t kEpbDropCount = 4;
constexpr uint16_t kEpbPacketId = 5;
constexpr uint16_t kIsbStartTime = 2;
constexpr uint16_t kIsbEndTime = 3;
constexpr uint16_t kIsbIfRecv = 4;
constexpr uint16_t kIsbIfDrop = 5;
constexpr uint16_t kIsbOsDrop = 7;
constexpr uint16_t kIsbUsrDeliv = 8;

// The trap header.
constexpr uint32_t kTrapMagic = 0x52545754;  // "TWTR" as bytes
constexpr uint8_t kTrapVersion = 1;
constexpr size_t kTrapFixedSize = 128;
constexpr size_t kTrapRecordHead = 5;  // type (1) + length (4) before a record's payload
constexpr size_t kDiscardSlots = 9;

// Which optional values of the trap header are present.
enum TrapFlags : uint16_t {
  kHasSim = 1 << 0,
  kHasMsgId = 1 << 1,
  kHasMsgName = 1 << 2,
  kHasTraceId = 1 << 3,
  kHasTraceName = 1 << 4,
  kHasPduLength = 1 << 5,
  kHasPdu = 1 << 6,
  kPduTruncated = 1 << 7,
  kHasPeerCount = 1 << 8,
  kHasPeers = 1 << 9,
};

// Larger blocks are refused by the reader: a trap record is at most a few tens of KiB.
constexpr uint32_t kMaxBlockLength = 16u << 20;

// Little-endian stores and loads, independent of the host's byte order.
inline uint8_t* Put16(uint8_t* p, uint16_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
  return p + 2;
}
inline uint8_t* Put32(uint8_t* p, uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
  return p + 4;
}
inline uint8_t* Put64(uint8_t* p, uint64_t v) {
  for (int i = 0; i < 8; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
  return p + 8;
}
inline uint16_t Get16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }
inline uint32_t Get32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
         static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}
inline uint64_t Get64(const uint8_t* p) {
  return static_cast<uint64_t>(Get32(p)) | static_cast<uint64_t>(Get32(p + 4)) << 32;
}
constexpr size_t Pad4(size_t n) { return (n + 3) & ~static_cast<size_t>(3); }

}  // namespace pcapng
}  // namespace libtidewatch
