#include "capture/closest_names.h"

#include <algorithm>
#include <cctype>
#include <utility>

namespace capture {
namespace {

char Upper(char c) { return static_cast<char>(toupper(static_cast<unsigned char>(c))); }

// Levenshtein distance, case-insensitive, giving up (returning `bound` + 1) once it exceeds
// `bound`.
size_t Distance(std::string_view a, std::string_view b, size_t bound, std::vector<size_t>& row) {
  const size_t diff = a.size() > b.size() ? a.size() - b.size() : b.size() - a.size();
  if (diff > bound) return bound + 1;
  row.resize(b.size() + 1);
  for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i;
    size_t best = row[0];
    for (size_t j = 1; j <= b.size(); ++j) {
      const size_t above = row[j];
      const size_t cost = Upper(a[i - 1]) == Upper(b[j - 1]) ? 0 : 1;
      row[j] = std::min({above + 1, row[j - 1] + 1, diagonal + cost});
      diagonal = above;
      best = std::min(best, row[j]);
    }
    if (best > bound) return bound + 1;
  }
  return row[b.size()];
}

bool ContainsIgnoringCase(std::string_view haystack, std::string_view needle) {
  if (needle.empty() || needle.size() > haystack.size()) return false;
  return std::search(haystack.begin(), haystack.end(), needle.begin(), needle.end(),
                     [](char x, char y) { return Upper(x) == Upper(y); }) != haystack.end();
}

}  // namespace

std::vector<std::string> ClosestNames(std::string_view wanted,
                                      const std::vector<std::string_view>& known, size_t limit) {
  // A third of the name may be wrong, but at least two letters (a swap) and at most eight.
  const size_t bound = std::min<size_t>(8, std::max<size_t>(2, wanted.size() / 3));
  std::vector<std::pair<size_t, std::string_view>> near;
  std::vector<size_t> row;
  for (std::string_view name : known) {
    size_t d = Distance(wanted, name, bound, row);
    // A name that holds the wanted text whole is as good as a near miss: "PAGING" finds
    // "LTE_RRC_PAGING".
    if (d > bound && wanted.size() >= 4 && ContainsIgnoringCase(name, wanted)) d = bound;
    if (d <= bound) near.emplace_back(d, name);
  }
  std::stable_sort(near.begin(), near.end(),
                   [](const auto& x, const auto& y) { return x.first < y.first; });
  std::vector<std::string> names;
  for (size_t i = 0; i < near.size() && names.size() < limit; ++i) {
    names.emplace_back(near[i].second);
  }
  return names;
}

}  // namespace capture
