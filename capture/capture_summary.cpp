#include "capture/capture_summary.h"

#include <algorithm>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "capture/text_escape.h"

namespace capture {
namespace {

std::string Printf(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Printf(const char* format, ...) {
  va_list args;
  va_start(args, format);
  va_list again;
  va_copy(again, args);
  const int size = vsnprintf(nullptr, 0, format, args);
  va_end(args);
  std::string out(size > 0 ? static_cast<size_t>(size) : 0, '\0');
  if (size > 0) vsnprintf(out.data(), out.size() + 1, format, again);
  va_end(again);
  return out;
}

// Message names may be long (and escaped text longer still): the name column is as wide as the
// longest name, so that the counts stay in columns, up to a width where a table no longer helps.
constexpr size_t kMinNameWidth = 20;
constexpr size_t kMaxNameWidth = 64;

}  // namespace

std::string FormatSummary(const CaptureStats& stats, const RunFacts& facts) {
  const double rate = facts.seconds > 0 ? static_cast<double>(stats.traps()) / facts.seconds : 0;
  std::string out = Printf("%" PRIu64 " traps, %" PRIu64 " bytes in %.3f s (%.1f traps/s)\n",
                           stats.traps(), stats.bytes(), facts.seconds, rate);
  std::vector<std::string> names;
  size_t nameWidth = kMinNameWidth;
  for (const MessageCount& m : stats.Messages()) {
    names.push_back(m.named ? EscapedText(m.name) : m.hasId ? "?" : "");
    nameWidth = std::max(nameWidth, std::min(names.back().size(), kMaxNameWidth));
  }
  size_t row = 0;
  for (const MessageCount& m : stats.Messages()) {
    const char* type = libtidewatch::ToTrapStr(m.type);
    std::string id = m.hasId ? std::to_string(m.msgId) : "-";
    const std::string& name = names[row++];
    out += Printf("  %-10s %8s  %-*s %10" PRIu64 " traps %12" PRIu64 " bytes\n",
                  type != nullptr ? type : "NONE", id.c_str(), static_cast<int>(nameWidth),
                  name.c_str(), m.traps, m.bytes);
  }
  out +=
      Printf("dropped by the service: %" PRIu64 " OTA, %" PRIu64 " EM",
             stats.dropped(libtidewatch::TRAP_TYPE_OTA), stats.dropped(libtidewatch::TRAP_TYPE_EM));
  for (size_t t = libtidewatch::TRAP_TYPE_VOLTE; t < libtidewatch::TRAP_TYPE_NUM; ++t) {
    const auto type = static_cast<libtidewatch::TRAP_TYPE>(t);
    if (stats.dropped(type) != 0) {
      out += Printf(", %" PRIu64 " %s", stats.dropped(type), libtidewatch::ToTrapStr(type));
    }
  }
  out += '\n';
  if (facts.gaps != 0) {
    out += Printf("service gaps: %" PRIu64 ", %.3f s without the service%s\n", facts.gaps,
                  facts.gapSeconds, facts.endedWithoutService ? ", until the end" : "");
  }
  if (!facts.sessionOutcome.empty()) out += facts.sessionOutcome + '\n';
  return out;
}

std::string FormatProgress(uint64_t traps, double rate, uint64_t dropped) {
  return Printf("%" PRIu64 " traps  %.0f traps/s  %" PRIu64 " dropped", traps, rate, dropped);
}

}  // namespace capture
