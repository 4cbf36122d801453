#include "emulator/send_pending.h"

#include <errno.h>
#include <sys/socket.h>

namespace hal_emulator {

bool SendPending(int fd, std::vector<uint8_t>* pending, size_t* pos) {
  while (*pos < pending->size()) {
    ssize_t n = send(fd, pending->data() + *pos, pending->size() - *pos, MSG_NOSIGNAL);
    if (n > 0) {
      *pos += static_cast<size_t>(n);
    } else if (n < 0 && errno == EINTR) {
      continue;
    } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      return true;
    } else {
      return false;
    }
  }
  pending->clear();
  *pos = 0;
  return true;
}

}  // namespace hal_emulator
