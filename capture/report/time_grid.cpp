#include "capture/report/time_grid.h"

#include <algorithm>

namespace capture {

namespace {

int64_t FloorDiv(int64_t a, int64_t b) {
  int64_t q = a / b;
  return (a % b != 0 && a < 0) ? q - 1 : q;
}

}  // namespace

TimeGrid::TimeGrid(size_t capacity, int64_t initialWidthUs)
    : m_capacity(std::max<size_t>(capacity, 2)), m_width(std::max<int64_t>(initialWidthUs, 1)) {}

size_t TimeGrid::Place(int64_t timeUs, GridRemap* remap) {
  *remap = GridRemap{};
  int64_t t = std::clamp(timeUs, -kMaxAbsTimeUs, kMaxAbsTimeUs);
  if (!m_started) {
    m_started = true;
    m_origin = t;
    m_lo = m_hi = 0;
    return 0;
  }
  const int64_t cap = static_cast<int64_t>(m_capacity);
  int64_t idx = FloorDiv(t - m_origin, m_width);
  if (idx >= 0 && idx < cap) {
    m_lo = std::min(m_lo, idx);
    m_hi = std::max(m_hi, idx);
    return static_cast<size_t>(idx);
  }
  int64_t lo = std::min(m_lo, idx);
  int64_t hi = std::max(m_hi, idx);
  int h = 0;
  int64_t shift = 0;
  if (lo >= 0) {
    // Later than the grid: widen in place, so that the origin stays where the capture began.
    while ((hi >> h) >= cap) ++h;
  } else {
    // Earlier than the grid (a clock stepped back): widen as needed, then move the used buckets
    // to the middle of the room, so that a run of ever earlier times does not shift at every one.
    while (((hi - lo) >> h) + 2 > cap) ++h;
    int64_t room = cap - (((hi - lo) >> h) + 2);
    shift = ((room / 2) << h) - lo;
  }
  remap->shift = shift;
  remap->halvings = h;
  m_origin -= shift * m_width;
  m_width <<= h;
  m_lo = (lo + shift) >> h;
  m_hi = (hi + shift) >> h;
  return static_cast<size_t>((idx + shift) >> h);
}

}  // namespace capture
