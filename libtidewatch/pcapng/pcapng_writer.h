// Serialises a capture as pcapng blocks into a byte buffer the caller owns: a section header for
// each file, one packet block per trap, and interface statistics at the close. It does no I/O, so
// that a writer thread can encode into a bounded buffer and hand whole blocks to a file.
//
// Not thread-safe: one thread encodes. Block layouts are in pcapng_format.h.
#pragma once

#include <cstdint>
#include <string>

#include "libtidewatch/trap/captured_trap.h"

namespace libtidewatch {

// What one section (one file of a ring) has seen, as its Interface Statistics Block reports it.
struct PcapngSectionStats {
  int64_t startUs = 0;        // when the section began
  int64_t endUs = 0;          // when it was closed
  uint64_t written = 0;       // traps written (isb_usrdeliv)
  uint64_t serviceDrops = 0;  // traps the service reported discarded (isb_ifdrop)
  uint64_t toolDrops = 0;     // traps the capture lost itself (isb_osdrop)
  uint64_t Received() const { return written + toolDrops; }  // isb_ifrecv
};

class PcapngWriter {
 public:
  // `userAppl` names the writing program in each section header ("tide_watch_capture 1.2");
  // `interfaceName` names the single interface (if_name); empty leaves it out.
  explicit PcapngWriter(std::string userAppl, std::string interfaceName = "tidewatch");

  // Appends a Section Header and an Interface Description Block: the start of a file, also of
  // every new file of a ring. Resets the section's statistics, starting them at `startUs`.
  void BeginSection(int64_t startUs, std::string* out);

  // Appends one Enhanced Packet Block for `trap`. `toolDrops` counts traps the capture lost just
  // before this one (a full queue, a slow disk); it is added to the block's drop count.
  void AppendTrap(const CapturedTrap& trap, uint32_t toolDrops, std::string* out);

  // Appends the Interface Statistics Block that closes the section, ending it at `endUs`;
  // `pendingToolDrops` are losses not yet reported with any trap.
  void EndSection(int64_t endUs, uint64_t pendingToolDrops, std::string* out);

  const PcapngSectionStats& Stats() const { return m_stats; }

  // The bytes AppendTrap adds for `trap`, so that a caller can check its room first.
  static size_t EncodedSize(const CapturedTrap& trap);

 private:
  std::string m_userAppl;
  std::string m_interfaceName;
  PcapngSectionStats m_stats;
};

}  // namespace libtidewatch
