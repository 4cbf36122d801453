// Which traps of a capture file -r prints: those whose type and message match an --ota or --em
// selector by what the file itself carries (a message id, a name, or a shell pattern on names), so
// that no layout is needed. Given a layout, a name or pattern also selects the ids the layout gives
// it, and a name the layout does not know is an error, as in a live capture.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "libtidewatch/api/monitor_types.h"
#include "libtidewatch/trap/frame_decoder.h"
#include "libtidewatch/trap/trap_decoder.h"

namespace capture {

class ReadFilter {
 public:
  // Adds one selector of OTA or EM messages. `layout` may be null. False with `*error` when the
  // layout selects nothing by it.
  bool Add(libtidewatch::TRAP_TYPE type, const std::string& selector,
           const libtidewatch::FrameDecoder* layout, std::string* error);

  // Every trap when no selector was added.
  bool Matches(const libtidewatch::DecodedTrap& trap) const;

 private:
  struct Rule {
    libtidewatch::TRAP_TYPE type;
    bool byId;
    uint64_t id;
    std::string pattern;  // a name, or a shell pattern on names
  };
  std::vector<Rule> m_rules;
};

}  // namespace capture
