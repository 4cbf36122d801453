// The capture report as one HTML page: everything inline (style sheet, SVG charts), no script, and
// a content security policy that forbids fetching anything, so that it opens the same anywhere,
// offline. Every text that comes from a capture is escaped.
#pragma once

#include <string>

#include "capture/report/report_data.h"

namespace capture {

class HtmlReport {
 public:
  // `data` must outlive the report.
  explicit HtmlReport(const ReportData& data) : m_data(data) {}

  std::string Render() const;
  // Writes the page to `path`; false with `*error` set ("cannot write OUT.html: No space left on
  // device") when it could not.
  bool WriteFile(const std::string& path, std::string* error) const;

 private:
  void RenderHeader(std::string* out) const;
  void RenderSummary(std::string* out) const;
  void RenderDrops(std::string* out) const;
  void RenderRates(std::string* out) const;
  void RenderEmCharts(std::string* out) const;
  void RenderOta(std::string* out) const;

  const ReportData& m_data;
};

}  // namespace capture
