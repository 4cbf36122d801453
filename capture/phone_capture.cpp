#include "capture/phone_capture.h"

#include <poll.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "capture/adb_process.h"
#include "capture/pcapng_relay.h"
#include "capture/phone_command.h"
#include "capture/stop_signals.h"
#include "capture/wakeup.h"

namespace capture {
namespace {

constexpr int kTickMs = 250;   // stop checks while nothing arrives
constexpr int kReapMs = 3000;  // how long adb may take to exit once its output ended
constexpr size_t kMaxAdbErr = 4000;

enum class WriteResult { kOk, kReaderGone, kFailed };

WriteResult WriteAll(int fd, const std::string& bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
    if (n > 0) {
      done += static_cast<size_t>(n);
    } else if (n < 0 && errno == EPIPE) {
      return WriteResult::kReaderGone;
    } else if (n < 0 && errno != EINTR) {
      return WriteResult::kFailed;
    }
  }
  return WriteResult::kOk;
}

std::string Trimmed(std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' ')) {
    text.pop_back();
  }
  return text;
}

// Reads what is there from `fd` into `*out` (at most `limit` bytes kept); false at its end.
bool ReadInto(int fd, std::string* out, size_t limit) {
  char buf[65536];
  ssize_t n;
  do {
    n = read(fd, buf, sizeof(buf));
  } while (n < 0 && errno == EINTR);
  if (n <= 0) return false;
  if (out->size() < limit) out->append(buf, std::min(static_cast<size_t>(n), limit - out->size()));
  return true;
}

}  // namespace

int RunPhoneCapture(const PhoneCaptureSetup& setup, int fifoFd) {
  Wakeup wakeup;
  InstallStopSignals(&wakeup);
  AdbProcess adb;
  std::string error;
  const std::string line = PhoneCommandLine(setup.tool, setup.toolArgs, setup.su);
  if (!adb.Start({"-s", setup.serial, "exec-out", line}, &error)) {
    fprintf(stderr, "tide_watch_capture: %s\n", error.c_str());
    return 1;
  }

  PcapngRelay relay;
  std::string adbErr;
  while (adb.outFd() >= 0 || adb.errFd() >= 0) {
    if (StopRequested()) {
      adb.Stop(kReapMs);
      return 0;
    }
    // The fifo's write end reports an error once Wireshark has closed the read end.
    pollfd fds[3] = {{adb.outFd(), POLLIN, 0}, {adb.errFd(), POLLIN, 0}, {fifoFd, 0, 0}};
    if (poll(fds, 3, kTickMs) < 0) continue;  // a signal: checked above
    if ((fds[2].revents & (POLLERR | POLLHUP)) != 0) {
      adb.Stop(kReapMs);
      return 0;
    }
    if ((fds[0].revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
      std::string bytes;
      std::string blocks;
      if (ReadInto(adb.outFd(), &bytes, SIZE_MAX)) {
        relay.Feed(bytes.data(), bytes.size(), &blocks);
      } else {
        adb.CloseOut();
        relay.End();
      }
      const WriteResult written = WriteAll(fifoFd, blocks);
      if (written == WriteResult::kReaderGone) {
        adb.Stop(kReapMs);
        return 0;
      }
      if (written == WriteResult::kFailed) {
        fprintf(stderr, "tide_watch_capture: cannot write the capture: %s\n", strerror(errno));
        adb.Stop(kReapMs);
        return 1;
      }
    }
    if ((fds[1].revents & (POLLIN | POLLHUP | POLLERR)) != 0 &&
        !ReadInto(adb.errFd(), &adbErr, kMaxAdbErr)) {
      adb.CloseErr();
    }
  }

  // adb ended by itself: the phone's tool stopped, failed, or was never reached.
  int status = -1;
  for (int waited = 0; waited < kReapMs && !adb.Reap(&status); waited += 10) {
    const timespec step = {0, 10 * 1000 * 1000};
    nanosleep(&step, nullptr);
  }
  adb.Stop(0);
  if (StopRequested()) return 0;
  std::string message = Trimmed(relay.text());
  const std::string adbSaid = Trimmed(adbErr);
  if (!adbSaid.empty()) message += (message.empty() ? "" : "\n") + adbSaid;
  if (message.empty() && status == 0 && relay.started()) return 0;
  if (message.empty()) {
    message = status == 127 ? "tide_watch_capture: cannot run adb ('" + AdbProcess::Program() +
                                  "'): install it or name it in TIDEWATCH_ADB"
                            : "tide_watch_capture: adb ended with status " +
                                  std::to_string(status) + " before the phone sent a capture";
  }
  fprintf(stderr, "%s\n", message.c_str());
  return 1;
}

}  // namespace capture
