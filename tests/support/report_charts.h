// Finds the EM field charts of a capture report page (its own text, or the DOM a browser dumps of
// it), so that tests can check there is one with data per field.
#pragma once

#include <string>
#include <vector>

namespace tidewatch_test {

struct ReportChart {
  std::string message;  // as the page has them, escaped
  std::string field;
  unsigned long points = 0;
  bool drawn = false;  // holds a line with at least one point
};

std::vector<ReportChart> FindReportCharts(const std::string& html);

}  // namespace tidewatch_test
