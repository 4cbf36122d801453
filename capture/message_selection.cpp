#include "capture/message_selection.h"

#include <fnmatch.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>

#include "capture/closest_names.h"
#include "capture/text_escape.h"

namespace capture {
namespace {

using libtidewatch::FrameDecoder;
using libtidewatch::TRAP_TYPE;

constexpr size_t kSuggestions = 3;

// The layout's names of one type: OTA messages are its global ids, EM messages its messages.
const FrameDecoder::NameMap& NamesOf(const FrameDecoder& layout, TRAP_TYPE type) {
  return type == libtidewatch::TRAP_TYPE_OTA ? layout.m_globalIDsByName : layout.m_msgIDsByName;
}

bool IsPattern(const std::string& text) { return text.find_first_of("*?[") != std::string::npos; }

}  // namespace

void MessageSelection::Select(TRAP_TYPE type, uint64_t msgId) {
  if (Contains(type, msgId)) return;
  m_subscriptions.push_back({type, msgId});
}

bool MessageSelection::Contains(TRAP_TYPE type, uint64_t msgId) const {
  for (const Subscription& s : m_subscriptions) {
    if (s.type == type && s.msgId == msgId) return true;
  }
  return false;
}

bool MessageSelection::Add(TRAP_TYPE type, const std::string& selector, std::string* error) {
  const char* typeName = libtidewatch::ToTrapStr(type);
  uint64_t id = 0;
  if (ParseMessageId(selector, &id)) {
    Select(type, id);
    return true;
  }
  const FrameDecoder::NameMap& names = NamesOf(m_layout, type);
  if (IsPattern(selector)) {
    std::vector<uint64_t> ids;
    for (const auto& entry : names) {
      // The map keys are not NUL-terminated; fnmatch needs a string of its own.
      const std::string name(entry.first);
      if (fnmatch(selector.c_str(), name.c_str(), 0) == 0) ids.push_back(entry.second);
    }
    if (ids.empty()) {
      *error =
          std::string("no ") + typeName + " message name matches '" + EscapedText(selector) + "'";
      return false;
    }
    // In id order, as --list-messages shows them.
    std::sort(ids.begin(), ids.end());
    for (uint64_t matched : ids) Select(type, matched);
    return true;
  }
  auto found = names.find(selector);
  if (found != names.end()) {
    Select(type, found->second);
    return true;
  }
  std::vector<std::string_view> known;
  known.reserve(names.size());
  for (const auto& entry : names) known.push_back(entry.first);
  *error = std::string("unknown ") + typeName + " message name '" + EscapedText(selector) + "'";
  const std::vector<std::string> closest = ClosestNames(selector, known, kSuggestions);
  if (!closest.empty()) {
    *error += "; did you mean ";
    for (size_t i = 0; i < closest.size(); ++i) {
      if (i > 0) *error += i + 1 == closest.size() ? " or " : ", ";
      *error += EscapedText(closest[i]);
    }
    *error += "?";
  } else if (names.empty()) {
    *error += " (the layout names no " + std::string(typeName) + " message)";
  }
  return false;
}

std::string MessageSelection::ListMessages(const FrameDecoder& layout) {
  std::string out;
  char head[48];
  for (const auto& entry : layout.m_globalIDs) {
    snprintf(head, sizeof(head), "OTA %8" PRIu64 "  ", entry.first);
    out += head;
    AppendEscapedText(&out, entry.second.name);
    out += '\n';
  }
  for (const auto& entry : layout.m_msgs) {
    snprintf(head, sizeof(head), "EM  %8" PRIu64 "  ", entry.first);
    out += head;
    AppendEscapedText(&out, entry.second.name);
    out += '\n';
  }
  return out;
}

bool ParseMessageId(const std::string& text, uint64_t* id) {
  if (text.empty() || !isdigit(static_cast<unsigned char>(text[0]))) return false;
  errno = 0;
  char* end = nullptr;
  const unsigned long long value = strtoull(text.c_str(), &end, 0);
  if (errno != 0 || *end != '\0') return false;
  *id = value;
  return true;
}

}  // namespace capture
