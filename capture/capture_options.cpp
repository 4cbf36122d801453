#include "capture/capture_options.h"

#include <CLI/CLI.hpp>
#include <cstdio>

namespace capture {
namespace {

constexpr char kDescription[] =
    "tide_watch_capture: subscribes modem traps by message name, prints each one as it arrives,\n"
    "and leaves no session behind on the modem-monitor service when it stops.";

constexpr char kExamples[] =
    "Examples:\n"
    "  tide_watch_capture --em 'EM_LTE_SERVING_*' --ota 'LTE_RRC_*'\n"
    "  tide_watch_capture --em 2000,2001 --format json -c 100 > traps.jsonl\n"
    "  tide_watch_capture --ota LTE_RRC_PAGING --duration 60 -q\n"
    "  tide_watch_capture --list-messages --layout twd_layout_desc.dat\n"
    "  tide_watch_capture --em 'EM_*' -w traps.pcapng -q\n"
    "  tide_watch_capture --ota 'LTE_RRC_*' -w - | wireshark -k -i -\n"
    "  tide_watch_capture --em 'EM_*' -w ring.pcapng -C 10 -W 5   (ring_00001_<time>.pcapng...)\n"
    "  tide_watch_capture -r traps.pcapng --em 'EM_LTE_*' --format json\n"
    "\n"
    "Exit status: 0 after a normal stop, 1 for a failure at run time, 2 for a usage error.";

}  // namespace

int ParseCaptureOptions(int argc, char** argv, CaptureOptions* options) {
  CLI::App app(kDescription, "tide_watch_capture");
  app.footer(kExamples);
  app.get_formatter()->column_width(34);

  app.add_option("--ota", options->ota,
                 "OTA messages to subscribe: an id, a layout name or a shell pattern on names; "
                 "repeatable, comma lists allowed (e.g. --ota 'LTE_RRC_*,1028')")
      ->delimiter(',')
      ->type_name("SEL");
  app.add_option("--em", options->em,
                 "EM messages to subscribe, as for --ota (e.g. --em EM_LTE_SERVING_CELL_INFO)")
      ->delimiter(',')
      ->type_name("SEL");
  app.add_option("--layout", options->layoutPath,
                 "layout description file that names the messages (e.g. --layout "
                 "resources/twd_layout_desc.dat); default: the one the system properties choose")
      ->type_name("FILE");
  app.add_flag("--list-messages", options->listMessages,
               "print every OTA and EM message of the layout (type, id, name) and exit");
  app.add_option("--secret", options->secret,
                 "secret for a manager or root session (e.g. --secret \"$TW_SECRET\")")
      ->type_name("S");
  app.add_option("--session", options->sessionId,
                 "use existing session N instead of creating one, and leave it open "
                 "(e.g. --session 7)")
      ->option_text("N")
      ->check(CLI::Range(uint64_t{1}, UINT64_MAX));
  app.add_option("--receiver-name", options->receiverName,
                 "name of this capture's trap receiver (default: unique to the run; e.g. "
                 "--receiver-name lab1)")
      ->type_name("NAME");
  app.add_option("-c,--count", options->count, "stop after N traps (e.g. -c 100)")
      ->option_text("N")
      ->check(CLI::Range(uint64_t{1}, UINT64_MAX));
  app.add_option("--duration", options->durationSec, "stop after SEC seconds (e.g. --duration 30)")
      ->option_text("SEC")
      ->check(CLI::Range(0.001, 1e9));
  std::string format = "text";
  app.add_option(
         "--format", format,
         "per-trap lines as text (default) or one JSON object per line (e.g. --format json)")
      ->option_text("text|json")
      ->check(CLI::IsMember({"text", "json"}));
  app.add_flag("-q,--quiet", options->quiet, "no per-trap lines; the summary still comes");
  app.add_option("--report", options->reportPath,
                 "at the end, write an HTML report of the capture: charts of every EM field, "
                 "traps per second, drops, the OTA timeline (e.g. --report capture.html)")
      ->option_text("FILE");
  app.add_flag("-v,--verbose", options->verbose,
               "also show the library's log lines (its errors on the link and the layout)");
  app.add_flag_callback(
      "--no-reconnect", [options] { options->reconnect = false; },
      "end with status 1 when the service dies, instead of waiting for it to come back");

  app.add_option("-w,--write", options->writePath,
                 "also write the traps to a pcapng capture file; '-' writes it to standard "
                 "output, which then gets no per-trap lines (e.g. -w traps.pcapng)")
      ->type_name("FILE");
  app.add_option("-C,--file-size", options->ringMegabytes,
                 "with -w FILE: start a new file when the current one reaches MB megabytes "
                 "(10^6 bytes); files are named FILE_00001_YYYYmmddHHMMSS.ext, FILE_00002_... "
                 "(e.g. -C 10)")
      ->option_text("MB")
      ->check(CLI::Range(0.001, 1e6));
  app.add_option("-W,--file-count", options->ringFiles,
                 "with -C: keep at most N files, deleting the oldest (e.g. -W 5)")
      ->option_text("N")
      ->check(CLI::Range(uint64_t{1}, uint64_t{1000000}));
  app.add_option("-r,--read", options->readPath,
                 "print the traps of a capture file written with -w, as the capture printed "
                 "them; --ota and --em filter them by the names in the file (e.g. -r "
                 "traps.pcapng)")
      ->type_name("FILE");

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    // CLI11 reports by throwing; the help and the usage errors end here as exit statuses.
    const int code = app.exit(e);
    return code == 0 ? kExitOk : kExitUsage;
  }
  options->hasSecret = app.count("--secret") > 0;
  options->format = format == "json" ? OutputFormat::kJson : OutputFormat::kText;
  const char* conflict = nullptr;
  if (options->ringMegabytes > 0 && (options->writePath.empty() || options->writePath == "-")) {
    conflict = "-C wants -w FILE: standard output cannot start new files";
  } else if (options->ringFiles != 0 && options->ringMegabytes <= 0) {
    conflict = "-W wants -C: only ring files are counted";
  } else if (!options->readPath.empty() && !options->writePath.empty()) {
    conflict = "-r reads a capture file; it cannot be combined with -w";
  } else if (!options->readPath.empty() && options->sessionId != 0) {
    conflict = "-r reads a capture file; it cannot be combined with --session";
  }
  if (conflict != nullptr) {
    fprintf(stderr, "tide_watch_capture: %s\nRun with --help for more information.\n", conflict);
    return kExitUsage;
  }
  if (!options->listMessages && options->ota.empty() && options->em.empty() &&
      options->sessionId == 0 && options->readPath.empty()) {
    fprintf(stderr,
            "tide_watch_capture: nothing to capture: give --ota or --em (or --session N)\n"
            "Run with --help for more information.\n");
    return kExitUsage;
  }
  return -1;
}

std::vector<std::pair<libtidewatch::TRAP_TYPE, std::string>> Selectors(
    const CaptureOptions& options) {
  std::vector<std::pair<libtidewatch::TRAP_TYPE, std::string>> selectors;
  for (const std::string& s : options.ota) selectors.emplace_back(libtidewatch::TRAP_TYPE_OTA, s);
  for (const std::string& s : options.em) selectors.emplace_back(libtidewatch::TRAP_TYPE_EM, s);
  return selectors;
}

}  // namespace capture
