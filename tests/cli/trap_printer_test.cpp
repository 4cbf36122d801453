// The receiver mode's trap printer: its line format, and that the drain handler puts the lines out.
#include "cli/trap_printer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

namespace {

using libtidewatch::TRAP_TYPE;

class TrapPrinterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    path_ = ::testing::TempDir() + "trap_printer_test." + std::to_string(getpid());
  }

  // Redirects standard output into a file until StopCapture.
  void StartCapture() {
    fflush(stdout);
    saved_ = dup(STDOUT_FILENO);
    int fd = open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(fd, STDOUT_FILENO);
    close(fd);
  }

  // Returns what reached the file, without flushing first: the drain handler must have done that.
  std::string StopCapture() {
    std::ifstream in(path_, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    fflush(stdout);
    dup2(saved_, STDOUT_FILENO);
    close(saved_);
    unlink(path_.c_str());
    return text.str();
  }

  std::string path_;
  int saved_ = -1;
};

TEST_F(TrapPrinterTest, PrintsTimeSignedTypeAndLength) {
  const unsigned char data[] = {1, 2, 3};
  StartCapture();
  MyTrapHandler(nullptr, 0, libtidewatch::TRAP_TYPE_EM, 3, data, 7);
  MyTrapHandler(reinterpret_cast<void*>(1), 4294967295u, static_cast<TRAP_TYPE>(0xFFFF),
                18446744073709551615ul, nullptr, 0);
  MyTrapHandler(nullptr, 12, libtidewatch::TRAP_TYPE_NONE, 0, nullptr, 0);
  MyTrapDrainHandler(nullptr);
  EXPECT_EQ(StopCapture(),
            "Receive frame: time = [0] type = [3] len =[3]\n"
            "Receive frame: time = [4294967295] type = [-1] len =[18446744073709551615]\n"
            "Receive frame: time = [12] type = [0] len =[0]\n");
}

}  // namespace
