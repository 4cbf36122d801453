// The capture report of a capture file that anyone may hand over (-r FILE --report): every trap the
// reader gives back goes into a ReportBuilder, and the page is rendered. Whatever the names, fields
// and times, the page must stay valid UTF-8, hold no markup that came from the file, and end whole.
#include <cstddef>
#include <cstdint>
#include <string>

#include "capture/report/html_report.h"
#include "capture/report/report_builder.h"
#include "fuzz/fuzz_check.h"
#include "libtidewatch/pcapng/pcapng_reader.h"

namespace {

bool ValidUtf8(const std::string& s) {
  size_t i = 0;
  while (i < s.size()) {
    const unsigned char c = static_cast<unsigned char>(s[i]);
    size_t n = c < 0x80 ? 1 : (c >> 5) == 0x6 ? 2 : (c >> 4) == 0xE ? 3 : (c >> 3) == 0x1E ? 4 : 0;
    if (n == 0 || i + n > s.size()) return false;
    for (size_t k = 1; k < n; ++k) {
      if ((static_cast<unsigned char>(s[i + k]) & 0xC0) != 0x80) return false;
    }
    i += n;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  tidewatch_fuzz::QuietLog(libtidewatch::kLogVerbose);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  libtidewatch::PcapngReader reader;
  reader.OpenBuffer(data, size);
  capture::ReportBuilder builder;
  builder.SetSource("fuzz <input>");
  libtidewatch::CapturedTrap trap;
  libtidewatch::PcapngReader::Status status;
  while ((status = reader.Next(&trap)) == libtidewatch::PcapngReader::kTrap) {
    // Every other trap's drops alone, as for traps a filter leaves out.
    if (trap.seq % 2 == 0) {
      builder.AddDrops(trap);
    } else {
      builder.Add(trap);
    }
  }
  if (status == libtidewatch::PcapngReader::kError) builder.SetStoppedAt(reader.error());
  if (status == libtidewatch::PcapngReader::kEnd && reader.hasStats()) {
    builder.SetSpan(reader.stats().startUs, reader.stats().endUs);
  }
  const std::string page = capture::HtmlReport(builder.data()).Render();
  FUZZ_CHECK(ValidUtf8(page));
  FUZZ_CHECK(page.find("<script") == std::string::npos);
  FUZZ_CHECK(page.find("<img") == std::string::npos);
  FUZZ_CHECK(page.size() > 7 && page.compare(page.size() - 8, 8, "</html>\n") == 0);
  FUZZ_CHECK(page.size() < (8u << 20));
  return 0;
}
