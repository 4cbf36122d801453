// A capture played back: the tool captures the emulator into pcapng, a second emulator replays
// that file, and the tool captures again. The second file must hold the same trap records, in the
// same order, as the first.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "libtidewatch/pcapng/pcapng_reader.h"
#include "tests/support/capture_service_fixture.h"
#include "tests/support/ctrl_process.h"
#include "tests/support/emulator_process.h"
#include "tests/support/scratch_dir.h"

namespace {

using tidewatch_test::CtrlProcess;

class CaptureReplayTest : public tidewatch_test::CaptureServiceFixture {
 protected:
  // Captures `count` traps of the running emulator into `file`; the tool's exit status.
  int Capture(const std::string& file, int count) {
    CtrlProcess capture(CtrlProcess::CaptureBinaryPath(), CaptureErrPath());
    if (!capture.Start(dir_.path(),
                       {"--ota", "LTE_RRC_*,NR_NAS_*", "--em", "EM_LTE_*", "-c",
                        std::to_string(count), "--duration", "20", "-q", "-w", file})) {
      return -1;
    }
    capture.ReadAll();
    return capture.Wait();
  }

  // The trap records of a capture file, in order; an error fails the test.
  std::vector<std::string> Records(const std::string& file) {
    std::vector<std::string> records;
    libtidewatch::PcapngReader reader;
    std::string error;
    EXPECT_TRUE(reader.Open(dir_.path() + "/" + file, &error)) << error;
    libtidewatch::CapturedTrap trap;
    while (reader.Next(&trap) == libtidewatch::PcapngReader::kTrap) {
      records.emplace_back(reinterpret_cast<const char*>(trap.record.data), trap.record.size);
    }
    EXPECT_EQ("", reader.error());
    return records;
  }
};

TEST_F(CaptureReplayTest, CaptureReplayCaptureGivesTheSameRecordsInOrder) {
  constexpr int kTraps = 30;
  {
    tidewatch_test::EmulatorProcess emulator;
    ASSERT_TRUE(emulator.Start({"--trap-rate=400", "--trap-size=40"}));
    ASSERT_EQ(0, Capture("first.pcapng", kTraps)) << dir_.Read("capture.err");
  }
  const std::vector<std::string> first = Records("first.pcapng");
  ASSERT_EQ(static_cast<size_t>(kTraps), first.size());

  tidewatch_test::EmulatorProcess replay;
  ASSERT_TRUE(replay.Start({"--trap-replay=" + dir_.path() + "/first.pcapng", "--trap-rate=400"}));
  ASSERT_EQ(0, Capture("second.pcapng", kTraps)) << dir_.Read("capture.err");
  EXPECT_EQ(first, Records("second.pcapng"));
}

}  // namespace
