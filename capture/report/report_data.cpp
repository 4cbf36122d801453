#include "capture/report/report_data.h"

#include <algorithm>

namespace capture {

int64_t ReportData::StartUs() const {
  if (!hasSpan) return firstUs;
  return traps > 0 ? std::min(spanStartUs, firstUs) : spanStartUs;
}

int64_t ReportData::EndUs() const {
  if (!hasSpan) return lastUs;
  return traps > 0 ? std::max(spanEndUs, lastUs) : spanEndUs;
}

uint64_t ReportData::ServiceDrops() const {
  uint64_t sum = 0;
  for (uint64_t n : serviceDropsByType) sum += n;
  return sum;
}

uint64_t ReportData::ToolDrops() const {
  uint64_t sum = 0;
  for (uint64_t n : toolDropsByType) sum += n;
  return sum;
}

}  // namespace capture
