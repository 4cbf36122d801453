#include "capture/read_filter.h"

#include <fnmatch.h>

#include "capture/message_selection.h"

namespace capture {

bool ReadFilter::Add(libtidewatch::TRAP_TYPE type, const std::string& selector,
                     const libtidewatch::FrameDecoder* layout, std::string* error) {
  uint64_t id = 0;
  if (ParseMessageId(selector, &id)) {
    m_rules.push_back({type, true, id, ""});
    return true;
  }
  if (layout != nullptr) {
    MessageSelection selection(*layout);
    if (!selection.Add(type, selector, error)) return false;
    for (const Subscription& s : selection.subscriptions()) {
      m_rules.push_back({type, true, s.msgId, ""});
    }
  }
  m_rules.push_back({type, false, 0, selector});
  return true;
}

bool ReadFilter::Matches(const libtidewatch::DecodedTrap& trap) const {
  if (m_rules.empty()) return true;
  std::string name;  // fnmatch wants a string of its own
  bool haveName = false;
  for (const Rule& rule : m_rules) {
    if (rule.type != trap.type) continue;
    if (rule.byId) {
      if (trap.msgId.present && trap.msgId.value == rule.id) return true;
      continue;
    }
    if (!trap.msgName.has_value()) continue;
    if (!haveName) {
      name.assign(trap.msgName->data(), trap.msgName->size());
      haveName = true;
    }
    if (fnmatch(rule.pattern.c_str(), name.c_str(), 0) == 0) return true;
  }
  return false;
}

}  // namespace capture
