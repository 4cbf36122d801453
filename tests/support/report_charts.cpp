#include "tests/support/report_charts.h"

#include <cstdlib>

namespace tidewatch_test {

namespace {

// The value of `name="..."` within [from, to) of `html`; empty when absent.
std::string Attribute(const std::string& html, size_t from, size_t to, const std::string& name) {
  size_t at = html.find(" " + name + "=\"", from);
  if (at == std::string::npos || at >= to) return "";
  at += name.size() + 3;
  size_t end = html.find('"', at);
  return end == std::string::npos || end > to ? "" : html.substr(at, end - at);
}

}  // namespace

std::vector<ReportChart> FindReportCharts(const std::string& html) {
  static const std::string kOpen = "<figure class=\"card em-chart\"";
  std::vector<ReportChart> charts;
  for (size_t at = html.find(kOpen); at != std::string::npos; at = html.find(kOpen, at + 1)) {
    size_t end = html.find("</figure>", at);
    if (end == std::string::npos) end = html.size();
    size_t tagEnd = html.find('>', at);
    ReportChart chart;
    chart.message = Attribute(html, at, tagEnd, "data-message");
    chart.field = Attribute(html, at, tagEnd, "data-field");
    chart.points = strtoul(Attribute(html, at, tagEnd, "data-points").c_str(), nullptr, 10);
    size_t line = html.find("<path class=\"line\" d=\"M", at);
    chart.drawn = line != std::string::npos && line < end;
    charts.push_back(chart);
  }
  return charts;
}

}  // namespace tidewatch_test
