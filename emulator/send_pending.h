// Writing what is queued for a non-blocking socket without ever waiting on it: both the service's
// answers to its clients and the traps for a receiver go out this way.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace hal_emulator {

// Sends `pending` from `*pos` on the non-blocking socket `fd` until all of it has gone (then both
// are reset) or the socket is full (then `*pos` tells how far it got). False when the peer has
// gone or the send failed; SIGPIPE is never raised.
bool SendPending(int fd, std::vector<uint8_t>* pending, size_t* pos);

}  // namespace hal_emulator
