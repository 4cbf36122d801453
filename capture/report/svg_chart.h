// One time chart as inline SVG: a time axis (UTC), a value axis with round ticks, lines with an
// optional minimum-maximum band, and markers for events. Colours come from the page's style sheet
// (classes c0..c7 for lines, m0 and m1 for markers), so that the SVG itself stays small.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace capture {

struct ChartPoint {
  int64_t timeUs = 0;
  double value = 0;  // the line goes through these
  double lo = 0;     // the band spans [lo, hi]
  double hi = 0;
  bool breakBefore = false;  // no line from the point before: a gap in the data
};

struct ChartLine {
  std::string label;  // the line's tooltip; escaped when drawn
  int colour = 0;     // 0..7
  bool band = false;
  std::vector<ChartPoint> points;  // in time order
};

struct ChartMarker {
  int64_t timeUs = 0;
  int kind = 0;       // 0 or 1: which marker style
  std::string title;  // the marker's tooltip; escaped when drawn
};

class SvgChart {
 public:
  // A chart of [startUs, endUs], drawn in a `width` x `height` box that the page scales.
  SvgChart(int64_t startUs, int64_t endUs, int width, int height);

  // The value axis' title ("raw value"); escaped when drawn.
  void SetValueLabel(std::string label) { m_valueLabel = std::move(label); }
  // Keeps 0 on the value axis (rates and counts).
  void SetFromZero(bool fromZero) { m_fromZero = fromZero; }
  void AddLine(ChartLine line) { m_lines.push_back(std::move(line)); }
  void AddMarker(ChartMarker marker) { m_markers.push_back(std::move(marker)); }

  // Appends the <svg> element; `ariaLabel` names it for screen readers (escaped).
  void Render(const std::string& ariaLabel, std::string* out) const;

  // Round tick steps: the value axis' step for `range` split in about `count` parts, and the time
  // axis' step (microseconds) for `spanUs` split likewise.
  static double ValueStep(double range, int count);
  static int64_t TimeStep(int64_t spanUs, int count);

 private:
  int64_t m_start;
  int64_t m_end;
  int m_width;
  int m_height;
  bool m_fromZero = false;
  std::string m_valueLabel;
  std::vector<ChartLine> m_lines;
  std::vector<ChartMarker> m_markers;
};

}  // namespace capture
