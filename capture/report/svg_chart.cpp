#include "capture/report/svg_chart.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>

#include "capture/report/html_text.h"

namespace capture {

namespace {

constexpr double kCharWidth = 6.6;  // of the 11 px axis font, for the left margin
constexpr int64_t kSecondUs = 1000000;
constexpr size_t kDotsBelow = 60;  // lines with fewer points show them as dots too
// Times beyond this are drawn at it, so that time arithmetic cannot overflow (about 36,000 years).
constexpr int64_t kMaxAbsTimeUs = int64_t{1} << 60;

// Appends `v` with one decimal at most ("12", "12.5"): coordinates need no more, and the page
// stays small.
void AppendCoord(double v, std::string* out) {
  long tenths = std::lround(v * 10);
  if (tenths < 0) {
    out->push_back('-');
    tenths = -tenths;
  }
  out->append(std::to_string(tenths / 10));
  if (tenths % 10 != 0) {
    out->push_back('.');
    out->push_back(static_cast<char>('0' + tenths % 10));
  }
}

void AppendPoint(char command, double x, double y, std::string* out) {
  out->push_back(command);
  AppendCoord(x, out);
  out->push_back(',');
  AppendCoord(y, out);
}

// A horizontal (H) or vertical (V) line to `to`.
void AppendLine(char command, double to, std::string* out) {
  out->push_back(command);
  AppendCoord(to, out);
}

void AppendText(double x, double y, const char* cls, const std::string& text, std::string* out) {
  out->append("<text class=\"").append(cls).append("\" x=\"");
  AppendCoord(x, out);
  out->append("\" y=\"");
  AppendCoord(y, out);
  out->append("\">");
  AppendEscaped(text, out);
  out->append("</text>");
}

std::string TimeLabel(int64_t timeUs, int64_t stepUs) {
  std::string t = UtcTimeOfDay(timeUs);                                      // "01:02:03.123456"
  if (stepUs >= 86400 * kSecondUs) return UtcDateTime(timeUs).substr(5, 5);  // "11-23"
  if (stepUs >= 60 * kSecondUs) return t.substr(0, 5);
  if (stepUs >= kSecondUs) return t.substr(0, 8);
  if (stepUs >= 1000) return t.substr(3, 9);  // "02:03.123"
  return t.substr(6);                         // "03.123456"
}

}  // namespace

SvgChart::SvgChart(int64_t startUs, int64_t endUs, int width, int height)
    : m_start(std::clamp(std::min(startUs, endUs), -kMaxAbsTimeUs, kMaxAbsTimeUs)),
      m_end(std::clamp(std::max(startUs, endUs), -kMaxAbsTimeUs, kMaxAbsTimeUs)),
      m_width(std::max(width, 200)),
      m_height(std::max(height, 100)) {}

double SvgChart::ValueStep(double range, int count) {
  if (!(range > 0) || !std::isfinite(range)) return 1;
  double raw = range / std::max(count, 1);
  double magnitude = std::pow(10.0, std::floor(std::log10(raw)));
  for (double m : {1.0, 2.0, 2.5, 5.0}) {
    if (raw <= m * magnitude) return m * magnitude;
  }
  return 10 * magnitude;
}

int64_t SvgChart::TimeStep(int64_t spanUs, int count) {
  static const int64_t kSteps[] = {1,
                                   2,
                                   5,
                                   10,
                                   20,
                                   50,
                                   100,
                                   200,
                                   500,
                                   1000,
                                   2000,
                                   5000,
                                   10000,
                                   20000,
                                   50000,
                                   100000,
                                   200000,
                                   500000,
                                   kSecondUs,
                                   2 * kSecondUs,
                                   5 * kSecondUs,
                                   10 * kSecondUs,
                                   15 * kSecondUs,
                                   30 * kSecondUs,
                                   60 * kSecondUs,
                                   120 * kSecondUs,
                                   300 * kSecondUs,
                                   600 * kSecondUs,
                                   900 * kSecondUs,
                                   1800 * kSecondUs,
                                   3600 * kSecondUs,
                                   7200 * kSecondUs,
                                   10800 * kSecondUs,
                                   21600 * kSecondUs,
                                   43200 * kSecondUs,
                                   86400 * kSecondUs,
                                   7 * 86400 * kSecondUs};
  int64_t raw = spanUs / std::max(count, 1);
  for (int64_t step : kSteps) {
    if (raw <= step) return step;
  }
  int64_t step = 7 * 86400 * kSecondUs;
  while (step < raw && step <= INT64_MAX / 10) step *= 10;
  return step;
}

void SvgChart::Render(const std::string& ariaLabel, std::string* out) const {
  // The value range: every value, and every band's ends.
  bool any = false;
  double lo = 0;
  double hi = 0;
  for (const ChartLine& line : m_lines) {
    for (const ChartPoint& p : line.points) {
      double a = line.band ? std::min(p.lo, p.value) : p.value;
      double b = line.band ? std::max(p.hi, p.value) : p.value;
      if (!any) {
        lo = a;
        hi = b;
        any = true;
      }
      lo = std::min(lo, a);
      hi = std::max(hi, b);
    }
  }
  if (m_fromZero) {
    lo = std::min(lo, 0.0);
    hi = std::max(hi, 0.0);
  }
  if (!(hi > lo)) {
    double pad = std::max(1.0, std::fabs(hi) * 0.01);
    bool keepZero = m_fromZero && lo >= 0;
    lo -= pad;
    hi += pad;
    if (keepZero) lo = 0;
  }
  double step = ValueStep(hi - lo, 4);
  double axisLo = std::floor(lo / step) * step;
  double axisHi = std::ceil(hi / step) * step;
  if (!(axisHi > axisLo)) axisHi = axisLo + step;
  int ticks = static_cast<int>(std::lround((axisHi - axisLo) / step));

  std::vector<std::string> valueLabels;
  size_t widest = 1;
  for (int i = 0; i <= ticks; ++i) {
    double v = axisLo + i * step;
    if (std::fabs(v) < step * 1e-9) v = 0;
    valueLabels.push_back(ShortNumber(v, 6));
    widest = std::max(widest, valueLabels.back().size());
  }

  const double left = 22 + widest * kCharWidth + 6;
  const double right = m_width - 14;
  const double top = 12;
  const double bottom = m_height - 32;
  const double span = static_cast<double>(m_end - m_start);
  auto xOf = [&](int64_t t) {
    if (span <= 0) return (left + right) / 2;
    double f = static_cast<double>(std::clamp(t, m_start, m_end) - m_start) / span;
    return left + f * (right - left);
  };
  auto yOf = [&](double v) { return bottom - (v - axisLo) / (axisHi - axisLo) * (bottom - top); };

  out->append("<svg class=\"chart\" viewBox=\"0 0 ");
  out->append(std::to_string(m_width)).append(" ").append(std::to_string(m_height));
  out->append("\" role=\"img\" aria-label=\"");
  AppendEscaped(ariaLabel, out);
  out->append("\">");

  // Grid and value axis.
  out->append("<g class=\"grid\">");
  for (int i = 0; i <= ticks; ++i) {
    double y = yOf(axisLo + i * step);
    AppendPoint('M', left, y, &out->append("<path d=\""));
    AppendLine('H', right, out);
    out->append("\"/>");
  }
  int64_t timeStep = TimeStep(m_end - m_start, std::max(2, static_cast<int>((right - left) / 120)));
  std::vector<int64_t> timeTicks;
  if (m_end > m_start) {
    int64_t first = m_start / timeStep * timeStep;
    if (first < m_start) first += timeStep;
    for (int64_t t = first; t <= m_end && timeTicks.size() < 40; t += timeStep) {
      timeTicks.push_back(t);
      if (t > m_end - timeStep) break;
    }
  } else {
    timeTicks.push_back(m_start);
  }
  for (int64_t t : timeTicks) {
    AppendPoint('M', xOf(t), top, &out->append("<path d=\""));
    AppendLine('V', bottom, out);
    out->append("\"/>");
  }
  out->append("</g>");
  AppendPoint('M', left, top, &out->append("<path class=\"axis\" d=\""));
  AppendLine('V', bottom, out);
  AppendLine('H', right, out);
  out->append("\"/>");

  for (int i = 0; i <= ticks; ++i) {
    AppendText(left - 6, yOf(axisLo + i * step) + 3.5, "yl", valueLabels[i], out);
  }
  for (int64_t t : timeTicks) AppendText(xOf(t), bottom + 15, "xl", TimeLabel(t, timeStep), out);
  AppendText(right, m_height - 3, "xt", "time (UTC)", out);
  out->append("<text class=\"yt\" transform=\"translate(11,");
  AppendCoord((top + bottom) / 2, out);
  out->append(") rotate(-90)\">");
  AppendEscaped(m_valueLabel, out);
  out->append("</text>");

  // Bands first, so that every line stays on top of them. A line breaks where a point says so;
  // each run has a band of its own.
  auto runEnd = [](const std::vector<ChartPoint>& points, size_t from) {
    size_t to = from + 1;
    while (to < points.size() && !points[to].breakBefore) ++to;
    return to;
  };
  for (const ChartLine& line : m_lines) {
    if (!line.band || line.points.empty()) continue;
    bool spread = false;
    for (const ChartPoint& p : line.points) spread = spread || p.hi != p.lo;
    if (!spread) continue;
    out->append("<path class=\"band c").append(std::to_string(line.colour & 7)).append("\" d=\"");
    for (size_t from = 0, to; from < line.points.size(); from = to) {
      to = runEnd(line.points, from);
      for (size_t i = from; i < to; ++i) {
        AppendPoint(i == from ? 'M' : 'L', xOf(line.points[i].timeUs), yOf(line.points[i].hi), out);
      }
      for (size_t i = to; i-- > from;) {
        AppendPoint('L', xOf(line.points[i].timeUs), yOf(line.points[i].lo), out);
      }
      out->append("Z");
    }
    out->append("\"/>");
  }
  for (const ChartLine& line : m_lines) {
    if (line.points.empty()) continue;
    std::string colour = std::to_string(line.colour & 7);
    out->append("<g class=\"c").append(colour).append("\"><title>");
    AppendEscaped(line.label, out);
    out->append("</title><path class=\"line\" d=\"");
    for (size_t i = 0; i < line.points.size(); ++i) {
      const ChartPoint& p = line.points[i];
      AppendPoint(i == 0 || p.breakBefore ? 'M' : 'L', xOf(p.timeUs), yOf(p.value), out);
    }
    out->append("\"/>");
    // Dots where points are few, and where a point stands alone between breaks.
    const bool few = line.points.size() < kDotsBelow;
    for (size_t i = 0; i < line.points.size(); ++i) {
      const bool alone = (i == 0 || line.points[i].breakBefore) &&
                         (i + 1 == line.points.size() || line.points[i + 1].breakBefore);
      if (!few && !alone) continue;
      out->append("<circle class=\"dot\" r=\"2.5\" cx=\"");
      AppendCoord(xOf(line.points[i].timeUs), out);
      out->append("\" cy=\"");
      AppendCoord(yOf(line.points[i].value), out);
      out->append("\"/>");
    }
    out->append("</g>");
  }
  for (const ChartMarker& m : m_markers) {
    double x = xOf(m.timeUs);
    out->append("<g class=\"mark m").append(std::to_string(m.kind & 1)).append("\"><title>");
    AppendEscaped(m.title, out);
    out->append("</title>");
    AppendPoint('M', x, top, &out->append("<path class=\"rule\" d=\""));
    AppendLine('V', bottom, out);
    out->append("\"/>");
    // A small shape above the plot: a triangle for the service's drops, a square for the tool's.
    if (m.kind == 0) {
      AppendPoint('M', x - 4.5, top - 8, &out->append("<path class=\"tip\" d=\""));
      AppendPoint('L', x + 4.5, top - 8, out);
      AppendPoint('L', x, top, out);
    } else {
      AppendPoint('M', x - 3.5, top - 8, &out->append("<path class=\"tip\" d=\""));
      AppendLine('H', x + 3.5, out);
      AppendLine('V', top - 1, out);
      AppendLine('H', x - 3.5, out);
    }
    out->append("Z\"/></g>");
  }
  out->append("</svg>");
}

}  // namespace capture
