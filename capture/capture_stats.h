// What a capture has seen, for its summary and its progress line: traps and bytes per message,
// and the traps the service reported dropped, by type.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "libtidewatch/trap/captured_trap.h"

namespace capture {

struct MessageCount {
  libtidewatch::TRAP_TYPE type = libtidewatch::TRAP_TYPE_NONE;
  bool hasId = false;  // OTA and EM traps whose message id could be read
  uint64_t msgId = 0;
  bool named = false;  // the layout knows the id
  std::string name;
  uint64_t traps = 0;
  uint64_t bytes = 0;  // payload bytes that arrived
};

class CaptureStats {
 public:
  void Count(const libtidewatch::CapturedTrap& trap);

  uint64_t traps() const { return m_traps; }
  uint64_t bytes() const { return m_bytes; }
  uint64_t dropped(libtidewatch::TRAP_TYPE type) const { return m_dropped[type]; }
  uint64_t droppedTotal() const;
  // By type, then id (messages without an id last within their type).
  std::vector<MessageCount> Messages() const;

 private:
  uint64_t m_traps = 0;
  uint64_t m_bytes = 0;
  uint64_t m_dropped[libtidewatch::TRAP_TYPE_NUM] = {};
  std::unordered_map<uint64_t, std::vector<MessageCount>> m_byKey;  // a few ids share a hash key
  // Bursts of one message skip the lookup. A copy of the stats starts without it, as it points
  // into the original's map.
  struct LastMessage {
    MessageCount* entry = nullptr;
    LastMessage() = default;
    LastMessage(const LastMessage&) {}
    LastMessage& operator=(const LastMessage&) {
      entry = nullptr;
      return *this;
    }
  } m_last;
};

}  // namespace capture
