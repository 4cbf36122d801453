// The capture tool as Wireshark's real tshark runs it from its extcap folder, installed by
// scripts/install-extcap.sh: the interface list, live captures on the local interface and on a
// phone behind a stand-in adb, and a bad name, each leaving no session on the emulated service.
// Wireshark ignores WIRESHARK_EXTCAP_DIR for root, so as root tshark runs as the user nobody.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <sstream>
#include <string>

#include "tests/support/child_process.h"
#include "tests/support/ctrl_process.h"
#include "tests/support/emulator_process.h"
#include "tests/support/scratch_dir.h"

namespace {

using tidewatch_test::RunCtrl;

// Plays adb on the host: one phone in state "device" (and one offline, which is no interface);
// exec-out runs its one shell line here, with standard error on the same stream as on a phone.
constexpr char kStandInAdb[] =
    "#!/bin/sh\n"
    "case \"$1\" in devices) printf 'List of devices attached\\nSTANDIN1\\tdevice\\n"
    "OFF2\\toffline\\n\\n'; exit 0;; esac\n"
    "[ \"$1\" = -s ] && shift 2\n"
    "[ \"$1\" = exec-out ] || exit 1\n"
    "shift\n"
    "exec sh -c \"$*\" 2>&1\n";

struct RunResult {
  int status;
  std::string out;  // standard output and standard error
};

class ExtcapTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (system("command -v tshark >/dev/null 2>&1") != 0) GTEST_SKIP() << "no tshark";
    // tshark runs the tool without an emulator: a tool built for another machine cannot serve.
    if (Run(TIDEWATCH_BIN_DIR "/tide_watch_capture --extcap-dlts --extcap-interface tidewatch")
            .status == 126) {
      GTEST_SKIP() << "the capture tool is built for another machine";
    }
    const std::string& dir = dir_.path();
    ASSERT_FALSE(dir.empty());
    ASSERT_TRUE(dir_.CopyIn(TIDEWATCH_SOURCE_DIR "/resources/twd_layout_desc.dat", "layout.dat"));
    ASSERT_TRUE(dir_.Write("adb", kStandInAdb));
    ASSERT_EQ(mkdir((dir + "/out").c_str(), 0777), 0);
    ASSERT_EQ(mkdir((dir + "/ctrl").c_str(), 0755), 0);
    // The user tshark runs as enters the folder, reads the layout and runs the stand-in adb.
    for (const char* name : {"", "/layout.dat", "/adb", "/out"}) {
      ASSERT_EQ(chmod((dir + name).c_str(), name == std::string("/out") ? 0777 : 0755), 0);
    }
    const RunResult installed =
        Run("HOME=" + dir +
            " TIDEWATCH_CAPTURE_BIN=" TIDEWATCH_BIN_DIR "/tide_watch_capture " TIDEWATCH_SOURCE_DIR
            "/scripts/install-extcap.sh " +
            dir + "/extcap");
    ASSERT_EQ(installed.status, 0) << installed.out;
    ASSERT_TRUE(emulator_.Start({"--trap-rate=200"}));
    ASSERT_EQ(RunCtrl(dir + "/ctrl", {"--create-session", "level=2"}).out, "1\n");
  }

  // Runs a shell command line, killed after 40 s with all it started.
  static RunResult Run(const std::string& command) {
    RunResult result{-1, ""};
    result.out =
        tidewatch_test::RunShell("timeout -s KILL 40 sh -c '" + command + "' 2>&1", &result.status);
    return result;
  }

  // tshark with the installed extcap folder, the stand-in adb and the emulator's socket prefix,
  // as an unprivileged user where this runs as root.
  RunResult Tshark(const std::string& args) {
    const std::string& dir = dir_.path();
    const std::string user = geteuid() == 0 ? "runuser -u nobody -- " : "";
    return Run(user + "env HOME=" + dir + " WIRESHARK_EXTCAP_DIR=" + dir +
               "/extcap TIDEWATCH_ADB=" + dir +
               "/adb TIDEWATCH_HAL_SOCKET_PREFIX=" + emulator_.prefix() + " tshark " + args);
  }

  // The options of interface `iface` (tidewatch or tidewatch-STANDIN1) as preferences, which
  // Wireshark names after the interface in lower case, with _ for other characters.
  std::string Options(const std::string& iface, const std::string& em) {
    const bool phone = iface != "tidewatch";
    const std::string pref = phone ? " -o extcap.tidewatch_standin1." : " -o extcap.tidewatch.";
    return " -i " + iface + pref + "em:" + em + pref + "layout:" + dir_.path() + "/layout.dat" +
           (phone ? pref + "phonetool:" + dir_.path() + "/extcap/tide_watch_capture" : "");
  }

  // The sessions the service holds, as the root session lists them, once only the root session
  // is left or 5 s have passed: a phone's tool ends after its adb, when it finds its output gone.
  std::string Sessions() {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    std::string sessions;
    do {
      sessions = RunCtrl(dir_.path() + "/ctrl", {"--list-session", "doerId=1"}).out;
    } while (sessions != "1\n" && std::chrono::steady_clock::now() < deadline &&
             usleep(50 * 1000) == 0);
    return sessions;
  }

  tidewatch_test::ScratchDir dir_{"extcap_test"};
  tidewatch_test::EmulatorProcess emulator_;
};

TEST_F(ExtcapTest, LiveCaptureHoldsTheTrapsByNameAndLeavesNoSession) {
  for (const std::string iface : {"tidewatch", "tidewatch-STANDIN1"}) {
    SCOPED_TRACE(iface);
    const std::string file = dir_.path() + "/out/" + iface + ".pcapng";
    // The quotes keep the pattern from the shell, as a user types it.
    const RunResult live = Tshark(Options(iface, "\"EM_LTE_*\"") + " -a duration:4 -w " + file);
    EXPECT_EQ(live.status, 0) << live.out;
    EXPECT_EQ(live.out.find("rror"), std::string::npos) << live.out;
    // The installed dissector names every trap.
    const RunResult names = Tshark("-r " + file + " -T fields -e tidewatch.msg_name");
    std::istringstream lines(names.out);
    long count = 0, named = 0;
    for (std::string line; std::getline(lines, line); ++count)
      named += line.rfind("EM_LTE_", 0) == 0;
    EXPECT_GE(count, 50) << live.out;
    EXPECT_EQ(named, count) << names.out.substr(0, 400);
    EXPECT_EQ(Sessions(), "1\n");
  }
}

TEST_F(ExtcapTest, ListsPhonesRefusesBadNamesAndEndsQuietlyWithItsReader) {
  const RunResult listed = Tshark("-D");
  EXPECT_NE(listed.out.find(". tidewatch (Modem traps)\n"), std::string::npos) << listed.out;
  EXPECT_NE(listed.out.find(". tidewatch-STANDIN1 (Modem traps on phone STANDIN1)\n"),
            std::string::npos)
      << listed.out;
  EXPECT_EQ(listed.out.find("OFF2"), std::string::npos) << listed.out;
  for (const std::string iface : {"tidewatch", "tidewatch-STANDIN1"}) {
    SCOPED_TRACE(iface);
    // A bad name stops tshark at once with the tool's message.
    const auto start = std::chrono::steady_clock::now();
    const RunResult bad = Tshark(Options(iface, "EM_LTE_SERVNG_CELL_INFO") + " -a duration:20");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    EXPECT_NE(bad.status, 0);
    EXPECT_NE(bad.out.find("tide_watch_capture: unknown EM message name "
                           "'EM_LTE_SERVNG_CELL_INFO'; did you mean EM_LTE_SERVING_CELL_INFO"),
              std::string::npos)
        << bad.out;
    EXPECT_EQ(Sessions(), "1\n");
    // The fifo's reader takes a few blocks and goes: the capture (on a phone: the relay, adb and
    // the phone's tool) stops, with nothing on standard error, and closes its session.
    const RunResult cut =
        Run("TIDEWATCH_ADB=" + dir_.path() +
            "/adb " TIDEWATCH_BIN_DIR "/tide_watch_capture --capture --extcap-interface " + iface +
            " --fifo /dev/stdout --em 2000 --phone-tool " TIDEWATCH_BIN_DIR
            "/tide_watch_capture --layout " +
            dir_.path() + "/layout.dat | head -c 3000 | wc -c");
    EXPECT_EQ(cut.out, "3000\n");
    EXPECT_EQ(Sessions(), "1\n");
  }
}

}  // namespace
