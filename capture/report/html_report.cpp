#include "capture/report/html_report.h"

#include <errno.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <memory>

#include "capture/report/html_text.h"
#include "capture/report/report_style.h"
#include "capture/report/svg_chart.h"

namespace capture {

using libtidewatch::TRAP_TYPE;
using libtidewatch::TRAP_TYPE_NUM;

namespace {

// Chart boxes; the page scales them to its width.
constexpr int kRateWidth = 1240;
constexpr int kRateHeight = 300;
constexpr int kFieldWidth = 620;
constexpr int kFieldHeight = 230;

const char* TypeName(size_t type) {
  const char* name = libtidewatch::ToTrapStr(static_cast<TRAP_TYPE>(type));
  return name != nullptr ? name : "NONE";
}

// Line colours per trap type, stable from report to report.
int TypeColour(size_t type) {
  static const int kColours[TRAP_TYPE_NUM] = {6, 6, 0, 2, 1, 3, 4, 5, 7};
  return kColours[type];
}

// "12 OTA, 3 EM".
std::string CountsByType(const uint64_t (&counts)[TRAP_TYPE_NUM]) {
  std::string text;
  for (size_t t = 0; t < TRAP_TYPE_NUM; ++t) {
    if (counts[t] == 0) continue;
    if (!text.empty()) text += ", ";
    // A capture file counts its own losses without their types.
    text +=
        GroupedNumber(counts[t]) +
        (t == libtidewatch::TRAP_TYPE_NONE ? " of unknown type" : " " + std::string(TypeName(t)));
  }
  return text;
}

std::string SimText(const OptionalNumber& sim) {
  return sim.present ? "SIM " + std::to_string(sim.value) : "no SIM";
}

std::string Percent(double part, double whole) {
  char buf[16];
  snprintf(buf, sizeof(buf), "%.1f%%", whole > 0 ? part * 100 / whole : 0.0);
  return buf;
}

// "+12.345 s" from the report's start.
std::string Offset(int64_t us) {
  char buf[32];
  snprintf(buf, sizeof(buf), "+%.3f s", us / 1e6);
  return buf;
}

void Card(const char* key, const std::string& value, const std::string& detail, bool bad,
          std::string* out) {
  out->append("<div class=\"card\"><div class=\"k\">").append(key).append("</div><div class=\"v");
  out->append(bad ? " bad" : "").append("\">");
  AppendEscaped(value, out);
  out->append("</div><div class=\"d\">");
  AppendEscaped(detail, out);
  out->append("</div></div>");
}

void Cell(const char* cls, const std::string& text, std::string* out) {
  out->append(cls[0] != '\0' ? std::string("<td class=\"") + cls + "\">" : "<td>");
  AppendEscaped(text, out);
  out->append("</td>");
}

void LegendItem(const std::string& swatchClass, const std::string& text, std::string* out) {
  out->append("<span><i class=\"sw ").append(swatchClass).append("\"></i>");
  AppendEscaped(text, out);
  out->append("</span>");
}

}  // namespace

std::string HtmlReport::Render() const {
  std::string out;
  out.reserve(1 << 20);
  out.append(
      "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
      // Nothing may be fetched: the page is whole as it is.
      "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; "
      "style-src 'unsafe-inline'\">\n"
      "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n<title>");
  out.append("Capture report");
  if (!m_data.source.empty()) {
    out.append(" \xE2\x80\x94 ");
    AppendEscaped(m_data.source, &out);
  }
  out.append("</title>\n<style>")
      .append(kReportStyle)
      .append("</style>\n</head>\n<body>\n<main>\n");
  RenderHeader(&out);
  RenderSummary(&out);
  RenderDrops(&out);
  RenderRates(&out);
  RenderEmCharts(&out);
  RenderOta(&out);
  out.append(
      "<footer>Made by tide_watch_capture. Times are when the host received each trap, in UTC. "
      "Charts show each time slice's last value as a line and its minimum to maximum as a band, "
      "so that short spikes stay visible.</footer>\n</main>\n</body>\n</html>\n");
  return out;
}

void HtmlReport::RenderHeader(std::string* out) const {
  out->append("<header><h1>Capture report</h1><p class=\"sub\">");
  AppendEscaped(m_data.source.empty() ? std::string("capture") : m_data.source, out);
  if (m_data.traps > 0 || m_data.hasSpan) {
    out->append(" \xC2\xB7 ");
    AppendEscaped(
        UtcDateTime(m_data.StartUs()) + " \xE2\x80\x93 " + UtcDateTime(m_data.EndUs()).substr(11),
        out);
  }
  out->append("</p></header>\n");
  if (!m_data.stoppedAt.empty()) {
    out->append(
        "<div class=\"alert\" id=\"damaged\"><strong>The capture is damaged.</strong> "
        "Reading stopped at ");
    AppendEscaped(m_data.stoppedAt, out);
    out->append(m_data.stoppedAt.back() == '.' ? " " : ". ");
    out->append("This report shows the ").append(GroupedNumber(m_data.traps));
    out->append(" traps read before that point.</div>\n");
  }
}

void HtmlReport::RenderSummary(std::string* out) const {
  const ReportData& d = m_data;
  int64_t duration = d.EndUs() - d.StartUs();
  bool known = d.traps > 0 || d.hasSpan;
  out->append("<section id=\"summary\"><h2>Summary</h2><div class=\"cards\">");
  // Times to the millisecond on the card; the heading and the tables give the microseconds.
  Card("Start", known ? UtcTimeOfDay(d.StartUs()).substr(0, 12) : "-",
       known ? UtcDateTime(d.StartUs()).substr(0, 10) + " UTC" : "", false, out);
  Card("End", known ? UtcTimeOfDay(d.EndUs()).substr(0, 12) : "-",
       known ? UtcDateTime(d.EndUs()).substr(0, 10) + " UTC" : "", false, out);
  Card("Duration", known ? Duration(duration) : "-", "", false, out);
  std::string rate = duration > 0 ? ShortNumber(d.traps / (duration / 1e6)) + " traps/s" : "";
  Card("Traps", GroupedNumber(d.traps), rate, false, out);
  Card("Bytes", GroupedNumber(d.bytes),
       d.traps > 0 ? ShortNumber(static_cast<double>(d.bytes) / d.traps) + " per trap" : "", false,
       out);
  uint64_t service = d.ServiceDrops();
  uint64_t tool = d.ToolDrops();
  Card("Dropped by the service", GroupedNumber(service),
       service > 0 ? CountsByType(d.serviceDropsByType) : "none reported", service > 0, out);
  Card("Dropped by this tool", GroupedNumber(tool),
       tool > 0 ? CountsByType(d.toolDropsByType) : "none", tool > 0, out);
  out->append("</div>\n");

  // Per message name, most frequent first.
  std::vector<const NameStats*> rows;
  for (const NameStats& n : d.names) rows.push_back(&n);
  if (d.otherNames.count > 0) rows.push_back(&d.otherNames);
  std::stable_sort(rows.begin(), rows.end(),
                   [](const NameStats* a, const NameStats* b) { return a->count > b->count; });
  uint64_t top = rows.empty() ? 0 : rows.front()->count;
  out->append("<h3>Traps by message</h3>");
  if (rows.empty()) {
    out->append("<p class=\"note\">No traps were captured.</p>\n");
  } else {
    out->append(
        "<div class=\"tablewrap short\"><table id=\"messages\"><thead><tr><th>Message</th>"
        "<th>Type</th><th class=\"n\">Traps</th><th class=\"n\">Share</th>"
        "<th class=\"n\">Rate</th><th class=\"n\">Bytes</th></tr></thead><tbody>");
    for (const NameStats* n : rows) {
      out->append("<tr>");
      Cell("name", n->label, out);
      Cell("", n == &d.otherNames ? "-" : TypeName(n->type), out);
      Cell("n", GroupedNumber(n->count), out);
      char width[16];
      snprintf(width, sizeof(width), "%.0f", top > 0 ? 70.0 * n->count / top : 0.0);
      out->append("<td class=\"n\"><span class=\"share\">")
          .append(Percent(static_cast<double>(n->count), static_cast<double>(d.traps)))
          .append("<span class=\"barbox\"><i class=\"bar\" style=\"width:")
          .append(width)
          .append("px\"></i></span></span></td>");
      Cell("n", duration > 0 ? ShortNumber(n->count / (duration / 1e6)) + " /s" : "-", out);
      Cell("n", GroupedNumber(n->bytes), out);
      out->append("</tr>");
    }
    out->append("</tbody></table></div>\n");
  }
}

void HtmlReport::RenderDrops(std::string* out) const {
  const ReportData& d = m_data;
  out->append("<h3>Drops</h3>");
  if (d.drops.empty()) {
    out->append(
        "<p class=\"note\" id=\"nodrops\">No traps were reported lost, by the service or "
        "by this tool.</p></section>\n");
    return;
  }
  out->append(
      "<div class=\"tablewrap short\"><table id=\"drops\"><thead><tr><th>Time (UTC)</th>"
      "<th class=\"n\">Since start</th><th>Dropped by</th><th class=\"n\">Traps</th>"
      "<th>Of type</th></tr></thead><tbody>");
  for (const DropEvent& e : d.drops) {
    uint64_t sum = 0;
    for (uint64_t n : e.counts) sum += n;
    out->append("<tr>");
    Cell("t", UtcTimeOfDay(e.timeUs), out);
    Cell("n", Offset(e.timeUs - d.StartUs()), out);
    Cell("", e.byTool ? "this tool" : "the service", out);
    Cell("n", GroupedNumber(sum), out);
    Cell("", CountsByType(e.counts), out);
    out->append("</tr>");
  }
  if (d.unlistedDropEvents > 0) {
    out->append("<tr><td class=\"more\" colspan=\"5\">and ");
    out->append(GroupedNumber(d.unlistedDropEvents));
    out->append(" more reports of drops (counted in the totals above)</td></tr>");
  }
  out->append("</tbody></table></div></section>\n");
}

void HtmlReport::RenderRates(std::string* out) const {
  const ReportData& d = m_data;
  out->append("<section id=\"rates\"><h2>Traps per second</h2>");
  if (d.grid.empty()) {
    out->append("<p class=\"note\">No traps to chart.</p></section>\n");
    return;
  }
  const int64_t start = d.StartUs();
  const int64_t end = d.EndUs();
  const int64_t width = d.grid.widthUs();
  SvgChart chart(start, end, kRateWidth, kRateHeight);
  chart.SetValueLabel("traps per second");
  chart.SetFromZero(true);
  // Rates over slices of at least a second (a twentieth of a short capture), and at most about
  // 150 of them, so that traps that come in bursts draw no comb.
  const int64_t span = end - start;
  const int64_t target = span < 20'000'000 ? span / 20 : std::max<int64_t>(1'000'000, span / 150);
  size_t per = 1;
  while (static_cast<int64_t>(per) * width < target && per < d.grid.capacity()) per *= 2;
  const int64_t slice = static_cast<int64_t>(per) * width;
  out->append("<div class=\"legend\">");
  for (size_t t = 0; t < TRAP_TYPE_NUM; ++t) {
    if (d.trapsByType[t] == 0) continue;
    ChartLine line;
    line.label = std::string(TypeName(t)) + " traps per second";
    line.colour = TypeColour(t);
    for (size_t first = 0; first < d.grid.used(); first += per) {
      int64_t from = d.grid.BucketStartUs(first);
      // A slice cut by the capture's start or end holds fewer traps: divide by the time it
      // covers, and leave out a sliver too short to give a rate.
      int64_t covered = std::min(from + slice, end) - std::max(from, start);
      if (covered < slice / 4) {
        if (end - start >= slice / 4) continue;
        covered = slice;  // the whole capture is a sliver
      }
      uint64_t traps = 0;
      for (size_t b = first; b < std::min(first + per, d.grid.used()); ++b) {
        traps += d.typeBuckets[b].traps[t];
      }
      double rate = traps / (covered / 1e6);
      line.points.push_back({from + slice / 2, rate, rate, rate});
    }
    LegendItem("c" + std::to_string(line.colour), TypeName(t), out);
    chart.AddLine(std::move(line));
  }
  bool service = false;
  bool tool = false;
  for (size_t b = 0; b < d.grid.used(); ++b) {
    const TypeBucket& tb = d.typeBuckets[b];
    int64_t at = d.grid.BucketStartUs(b) + width / 2;
    if (tb.serviceDrops > 0) {
      service = true;
      chart.AddMarker({at, 0,
                       GroupedNumber(tb.serviceDrops) + " traps dropped by the service near " +
                           UtcTimeOfDay(at)});
    }
    if (tb.toolDrops > 0) {
      tool = true;
      chart.AddMarker(
          {at, 1,
           GroupedNumber(tb.toolDrops) + " traps dropped by this tool near " + UtcTimeOfDay(at)});
    }
  }
  if (service) LegendItem("mk m0", "dropped by the service", out);
  if (tool) LegendItem("mk m1", "dropped by this tool", out);
  out->append("</div><div class=\"card\">");
  chart.Render("Traps per second by trap type", out);
  out->append("</div><p class=\"note\">Averaged over time slices of ")
      .append(Duration(slice))
      .append(".</p></section>\n");
}

void HtmlReport::RenderEmCharts(std::string* out) const {
  const ReportData& d = m_data;
  out->append("<section id=\"em\"><h2>EM values</h2>");
  if (d.series.empty()) {
    out->append(
        "<p class=\"note\">No EM message with numeric fields was captured.</p>"
        "</section>\n");
    return;
  }
  out->append(
      "<p class=\"note\">Raw values, as the modem sends them: the layout gives no units. "
      "Each chart is one field of one message; a line per SIM.</p><div class=\"charts\">");
  const int64_t start = d.StartUs();
  const int64_t end = d.EndUs();
  const int64_t width = d.grid.widthUs();
  for (const EmMessage& message : d.emMessages) {
    // One chart per field name, with the field's series on every SIM.
    std::vector<std::string> fields;
    for (size_t index : message.series) {
      const std::string& field = d.series[index].field;
      if (std::find(fields.begin(), fields.end(), field) == fields.end()) fields.push_back(field);
    }
    for (const std::string& field : fields) {
      std::string title = message.name + " \xE2\x80\x94 " + field;
      SvgChart chart(start, end, kFieldWidth, kFieldHeight);
      chart.SetValueLabel("raw value");
      std::string legend;
      std::string stats;
      size_t points = 0;
      // A line per SIM, in SIM order, each SIM in the same colour on every chart.
      std::vector<const FieldSeries*> sims;
      for (size_t index : message.series) {
        if (d.series[index].field == field) sims.push_back(&d.series[index]);
      }
      std::sort(sims.begin(), sims.end(), [](const FieldSeries* a, const FieldSeries* b) {
        return std::make_pair(a->sim.present, a->sim.value) <
               std::make_pair(b->sim.present, b->sim.value);
      });
      for (const FieldSeries* sim : sims) {
        const FieldSeries& s = *sim;
        ChartLine line;
        line.label = title + " (" + SimText(s.sim) + ")";
        line.colour = s.sim.present ? static_cast<int>(s.sim.value % 6) : 6;
        line.band = true;
        std::vector<size_t> used;
        for (size_t b = 0; b < d.grid.used(); ++b) {
          if (s.buckets[b].count != 0) used.push_back(b);
        }
        // The line breaks across a gap much longer than the series' usual spacing (a SIM that
        // fell silent), instead of drawing a slope that no value ever took.
        std::vector<size_t> gaps;
        for (size_t i = 1; i < used.size(); ++i) gaps.push_back(used[i] - used[i - 1]);
        size_t usual = 1;
        if (!gaps.empty()) {
          std::nth_element(gaps.begin(), gaps.begin() + gaps.size() / 2, gaps.end());
          usual = gaps[gaps.size() / 2];
        }
        const size_t longGap = std::max<size_t>(3, 4 * usual);
        for (size_t i = 0; i < used.size(); ++i) {
          const FieldBucket& fb = s.buckets[used[i]];
          ChartPoint p;
          p.timeUs = std::clamp(d.grid.BucketStartUs(used[i]) + width / 2, start, end);
          p.value = static_cast<double>(fb.last);
          p.lo = static_cast<double>(fb.min);
          p.hi = static_cast<double>(fb.max);
          p.breakBefore = i > 0 && used[i] - used[i - 1] > longGap;
          line.points.push_back(p);
        }
        points += line.points.size();
        LegendItem("c" + std::to_string(line.colour), SimText(s.sim), &legend);
        stats += "<div>" + Escaped(SimText(s.sim)) + " \xC2\xB7 last " + ShortNumber(s.last) +
                 " \xC2\xB7 " + ShortNumber(s.min) + " to " + ShortNumber(s.max) + " \xC2\xB7 " +
                 GroupedNumber(s.count) + " values</div>";
        chart.AddLine(std::move(line));
      }
      out->append("<figure class=\"card em-chart\" data-message=\"");
      AppendEscaped(message.name, out);
      out->append("\" data-field=\"");
      AppendEscaped(field, out);
      out->append("\" data-points=\"").append(std::to_string(points)).append("\"><figcaption><h3>");
      AppendEscaped(title, out);
      out->append("</h3><div class=\"legend\">").append(legend).append("</div></figcaption>");
      chart.Render(title, out);
      out->append("<div class=\"stats\">").append(stats).append("</div></figure>");
    }
  }
  out->append("</div>");
  if (d.unchartedValues > 0) {
    out->append("<p class=\"note\">").append(GroupedNumber(d.unchartedValues));
    out->append(" field values are not charted: the report draws at most ");
    out->append(std::to_string(d.series.size())).append(" series.</p>");
  }
  out->append("</section>\n");
}

void HtmlReport::RenderOta(std::string* out) const {
  const ReportData& d = m_data;
  out->append("<section id=\"ota\"><h2>OTA timeline</h2>");
  if (d.ota.empty()) {
    out->append("<p class=\"note\">No OTA messages were captured.</p></section>\n");
    return;
  }
  out->append(
      "<div class=\"tablewrap tall\"><table id=\"ota-table\"><thead><tr>"
      "<th class=\"n\">Trap</th><th>Time (UTC)</th><th class=\"n\">Since start</th>"
      "<th>SIM</th><th>Message</th><th>Trace</th><th class=\"n\">PDU length</th>"
      "</tr></thead><tbody>");
  for (const OtaEntry& e : d.ota) {
    out->append("<tr>");
    Cell("n", std::to_string(e.seq), out);
    Cell("t", UtcTimeOfDay(e.timeUs), out);
    Cell("n", Offset(e.timeUs - d.StartUs()), out);
    Cell("", e.sim.present ? std::to_string(e.sim.value) : "-", out);
    Cell("name", e.message.empty() ? "-" : e.message, out);
    Cell("", e.trace.empty() ? "-" : e.trace, out);
    Cell("n", e.pduLength.present ? GroupedNumber(e.pduLength.value) : "-", out);
    out->append("</tr>");
  }
  if (d.otaNotListed > 0) {
    out->append("<tr><td class=\"more\" colspan=\"7\" id=\"ota-more\">and ");
    out->append(GroupedNumber(d.otaNotListed));
    out->append(" more OTA messages, not listed</td></tr>");
  }
  out->append("</tbody></table></div></section>\n");
}

bool HtmlReport::WriteFile(const std::string& path, std::string* error) const {
  std::string page = Render();
  std::unique_ptr<FILE, int (*)(FILE*)> file(fopen(path.c_str(), "wb"), fclose);
  if (!file) {
    *error = "cannot write " + path + ": " + strerror(errno);
    return false;
  }
  if (fwrite(page.data(), 1, page.size(), file.get()) != page.size() || fflush(file.get()) != 0) {
    *error = "cannot write " + path + ": " + strerror(errno);
    return false;
  }
  if (fclose(file.release()) != 0) {
    *error = "cannot write " + path + ": " + strerror(errno);
    return false;
  }
  return true;
}

}  // namespace capture
