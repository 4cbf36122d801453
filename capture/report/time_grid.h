// A time axis cut into a bounded number of equal buckets that grows with the capture: when a time
// falls outside it, the buckets widen (by powers of two) and shift, so that any capture, however
// long, is summed up in at most `capacity` buckets. Every per-bucket series of a report shares one
// grid, so that all charts line up.
#pragma once

#include <cstddef>
#include <cstdint>

namespace capture {

// How the buckets of a grid moved: the old bucket i is now bucket (i + shift) >> halvings. Series
// apply it to their own arrays (RemapBuckets), merging the buckets that fall together.
struct GridRemap {
  int64_t shift = 0;
  int halvings = 0;
};

class TimeGrid {
 public:
  // `capacity` buckets at most (at least 2), each `initialWidthUs` wide until the grid grows.
  TimeGrid(size_t capacity, int64_t initialWidthUs);

  // The bucket that holds `timeUs`, growing the grid first when it does not fit; `*remap` then
  // says how the old buckets moved (identity otherwise). The first time placed starts the grid.
  size_t Place(int64_t timeUs, GridRemap* remap);

  bool empty() const { return !m_started; }
  size_t capacity() const { return m_capacity; }
  int64_t widthUs() const { return m_width; }
  // Start time of bucket `index`.
  int64_t BucketStartUs(size_t index) const {
    return m_origin + static_cast<int64_t>(index) * m_width;
  }
  // One past the highest bucket used so far (0 when empty).
  size_t used() const { return m_started ? static_cast<size_t>(m_hi) + 1 : 0; }

  // Times are clamped into this range before placing, so that bucket arithmetic cannot overflow
  // whatever a damaged capture says (about 73,000 years either side of 1970).
  static constexpr int64_t kMaxAbsTimeUs = int64_t{1} << 61;

 private:
  size_t m_capacity;
  int64_t m_width;
  int64_t m_origin = 0;
  int64_t m_lo = 0;  // lowest and highest bucket used
  int64_t m_hi = 0;
  bool m_started = false;
};

// Moves the buckets of `buckets` (a vector of capacity-many buckets of the grid) as `remap` says,
// merging with `merge(into, from)` and leaving default buckets where nothing moved in.
template <class Vec, class Merge>
void RemapBuckets(const GridRemap& remap, Vec* buckets, Merge merge) {
  if (remap.shift == 0 && remap.halvings == 0) return;
  using Bucket = typename Vec::value_type;
  Vec moved(buckets->size(), Bucket{});
  for (size_t i = 0; i < buckets->size(); ++i) {
    int64_t to = (static_cast<int64_t>(i) + remap.shift) >> remap.halvings;
    if (to >= 0 && static_cast<size_t>(to) < moved.size()) merge(&moved[to], (*buckets)[i]);
  }
  buckets->swap(moved);
}

}  // namespace capture
