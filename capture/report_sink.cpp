#include "capture/report_sink.h"

#include <errno.h>
#include <time.h>

#include <cstdio>
#include <cstring>

#include "capture/report/html_report.h"

namespace capture {

namespace {

int64_t WallClockUs() {
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

}  // namespace

ReportSink::ReportSink(std::string path, std::string source, bool live)
    : m_path(std::move(path)), m_live(live), m_startUs(WallClockUs()) {
  m_builder.SetSource(source);
}

bool ReportSink::CanWrite(const std::string& path, std::string* error) {
  FILE* file = fopen(path.c_str(), "wb");
  if (file == nullptr) {
    *error = "cannot write " + path + ": " + strerror(errno);
    return false;
  }
  fclose(file);
  return true;
}

void ReportSink::OnFileStats(const libtidewatch::PcapngSectionStats& stats) {
  m_builder.SetSpan(stats.startUs, stats.endUs);
  const uint64_t counted = m_builder.data().ToolDrops();
  if (stats.toolDrops > counted) {
    m_builder.AddToolDrop(stats.endUs, libtidewatch::TRAP_TYPE_NONE, stats.toolDrops - counted);
  }
}

bool ReportSink::Finish() {
  if (m_live) m_builder.SetSpan(m_startUs, WallClockUs());
  std::string error;
  if (!HtmlReport(m_builder.data()).WriteFile(m_path, &error)) {
    fprintf(stderr, "tide_watch_capture: %s\n", error.c_str());
    m_failed = true;
  }
  return !m_failed;
}

}  // namespace capture
