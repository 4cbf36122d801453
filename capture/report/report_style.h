// The report page's style sheet: a light and a dark palette (following the reader's system), the
// colours of chart lines (c0..c7, chosen to stay apart for colour-blind readers) and markers
// (m0: dropped by the service, m1: dropped by this tool).
#pragma once

namespace capture {

extern const char kReportStyle[];

}  // namespace capture
