// Turns what the user asked for (--ota and --em selectors: message ids, layout names, shell
// patterns on names) into the exact subscriptions, and answers which messages were selected.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "libtidewatch/api/monitor_types.h"
#include "libtidewatch/trap/frame_decoder.h"

namespace capture {

struct Subscription {
  libtidewatch::TRAP_TYPE type;
  uint64_t msgId;
};

// A selector that is a message id: decimal, or hexadecimal with 0x, fitting 64 bits.
bool ParseMessageId(const std::string& text, uint64_t* id);

class MessageSelection {
 public:
  // `layout` names the messages and must outlive the selection.
  explicit MessageSelection(const libtidewatch::FrameDecoder& layout) : m_layout(layout) {}

  // Adds what `selector` selects for OTA or EM. False, with `*error` naming the closest known
  // names, when a name or pattern selects nothing; nothing is added then.
  bool Add(libtidewatch::TRAP_TYPE type, const std::string& selector, std::string* error);

  // In the order first selected, each once.
  const std::vector<Subscription>& subscriptions() const { return m_subscriptions; }
  bool Contains(libtidewatch::TRAP_TYPE type, uint64_t msgId) const;

  // Every OTA and EM message of the layout, one line each: type, id and name.
  static std::string ListMessages(const libtidewatch::FrameDecoder& layout);

 private:
  void Select(libtidewatch::TRAP_TYPE type, uint64_t msgId);

  const libtidewatch::FrameDecoder& m_layout;
  std::vector<Subscription> m_subscriptions;
};

}  // namespace capture
