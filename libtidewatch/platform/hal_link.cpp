// The host HAL link frame codec and blocking frame I/O.
#include "libtidewatch/platform/hal_link.h"

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace libtidewatch {
namespace {

uint32_t LoadLength(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
         static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

// The length field (which counts the opcode) and the opcode of a frame with `len` payload bytes.
void StoreHead(uint8_t opcode, size_t len, uint8_t* head) {
  uint32_t length = static_cast<uint32_t>(len + 1);
  for (size_t i = 0; i < kHalLinkHeaderSize; ++i) head[i] = static_cast<uint8_t>(length >> (8 * i));
  head[kHalLinkHeaderSize] = opcode;
}

constexpr size_t kSmallPayload = 4096;

bool LengthAcceptable(uint32_t length) { return length >= 1 && length <= kHalLinkMaxLength; }

// Grows `body` to hold `extra` more bytes without ever reserving beyond `limit` (the frame's own
// length), so that doubling growth cannot overshoot what the frame needs.
void AppendBounded(std::vector<uint8_t>* body, const uint8_t* data, size_t extra, size_t limit) {
  size_t want = body->size() + extra;
  if (want > body->capacity()) {
    body->reserve(std::min(limit, std::max(want, body->capacity() * 2)));
  }
  body->insert(body->end(), data, data + extra);
}

// Waits until `fd` is ready for `events` or `deadline` passes; false with errno ETIMEDOUT then.
// Readiness includes a hang-up or an error, which the next send or recv reports.
bool WaitReady(int fd, short events, HalLinkDeadline deadline) {
  for (;;) {
    auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      errno = ETIMEDOUT;
      return false;
    }
    int timeoutMs = deadline == kHalLinkNoDeadline
                        ? -1
                        : static_cast<int>(std::min<int64_t>(left.count(), INT32_MAX));
    pollfd p{fd, events, 0};
    int n = poll(&p, 1, timeoutMs);
    if (n > 0) return true;
    if (n < 0 && errno != EINTR) return false;
  }
}

// With a deadline the socket is used without blocking, so that no single call can outlast it.
int IoFlags(HalLinkDeadline deadline) { return deadline == kHalLinkNoDeadline ? 0 : MSG_DONTWAIT; }

// Sends all of data[0..len); false on any error but EINTR, or when the deadline passed.
bool SendAll(int fd, const uint8_t* data, size_t len, HalLinkDeadline deadline) {
  while (len > 0) {
    ssize_t n = send(fd, data, len, MSG_NOSIGNAL | IoFlags(deadline));
    if (n < 0) {
      if (errno == EINTR) continue;
      if ((errno == EAGAIN || errno == EWOULDBLOCK) && WaitReady(fd, POLLOUT, deadline)) continue;
      return false;
    }
    data += n;
    len -= static_cast<size_t>(n);
  }
  return true;
}

// Reads up to `len` bytes, retrying on EINTR: the count read, 0 at end of stream, -1 on error or
// when the deadline passed (errno ETIMEDOUT).
ssize_t RecvSome(int fd, uint8_t* data, size_t len, HalLinkDeadline deadline) {
  for (;;) {
    ssize_t n = recv(fd, data, len, IoFlags(deadline));
    if (n >= 0) return n;
    if (errno == EINTR) continue;
    if ((errno == EAGAIN || errno == EWOULDBLOCK) && WaitReady(fd, POLLIN, deadline)) continue;
    return -1;
  }
}

// Reads exactly `len` bytes: `len` when done, fewer when the stream ended, -1 on error.
ssize_t RecvAll(int fd, uint8_t* data, size_t len, HalLinkDeadline deadline) {
  size_t done = 0;
  while (done < len) {
    ssize_t n = RecvSome(fd, data + done, len - done, deadline);
    if (n < 0) return -1;
    if (n == 0) break;
    done += static_cast<size_t>(n);
  }
  return static_cast<ssize_t>(done);
}

// What a failed read means: the deadline passing, or a broken stream.
HalLinkReadResult ReadFailure() {
  return errno == ETIMEDOUT ? HalLinkReadResult::kTimeout : HalLinkReadResult::kError;
}

}  // namespace

std::string HalEndpointName(HalGeneration generation) {
  const char* prefix = getenv("TIDEWATCH_HAL_SOCKET_PREFIX");
  std::string name = prefix != nullptr ? prefix : "";
  name += generation == HalGeneration::kAidl ? kHalAidlEndpoint : kHalHidlEndpoint;
  return name;
}

bool AppendHalLinkFrame(uint8_t opcode, const uint8_t* payload, size_t len,
                        std::vector<uint8_t>* out) {
  if (len > kHalLinkMaxPayload) return false;
  uint8_t head[kHalLinkHeaderSize + 1];
  StoreHead(opcode, len, head);
  out->insert(out->end(), head, head + sizeof(head));
  if (len > 0) out->insert(out->end(), payload, payload + len);
  return true;
}

bool HalLinkDecoder::Feed(const uint8_t* data, size_t len) {
  while (len > 0 && !m_failed) {
    if (m_headerFill < kHalLinkHeaderSize) {
      size_t n = std::min(len, kHalLinkHeaderSize - m_headerFill);
      memcpy(m_header + m_headerFill, data, n);
      m_headerFill += n;
      data += n;
      len -= n;
      if (m_headerFill < kHalLinkHeaderSize) break;
      m_length = LoadLength(m_header);
      if (!LengthAcceptable(m_length)) {
        m_failed = true;
        m_badLength = m_length;
        break;
      }
      m_body.clear();
    }
    size_t n = std::min(len, static_cast<size_t>(m_length) - m_body.size());
    AppendBounded(&m_body, data, n, m_length);
    data += n;
    len -= n;
    if (m_body.size() == m_length) {
      HalLinkFrame frame;
      frame.opcode = m_body[0];
      frame.payload.assign(m_body.begin() + 1, m_body.end());
      m_frames.push_back(std::move(frame));
      m_body.clear();
      m_body.shrink_to_fit();
      m_headerFill = 0;
      m_length = 0;
    }
  }
  return !m_failed;
}

bool HalLinkDecoder::Next(HalLinkFrame* frame) {
  if (m_frames.empty()) return false;
  *frame = std::move(m_frames.front());
  m_frames.pop_front();
  return true;
}

bool WriteHalLinkFrame(int fd, uint8_t opcode, const uint8_t* payload, size_t len,
                       HalLinkDeadline deadline) {
  if (len > kHalLinkMaxPayload) return false;
  // A small frame goes out in one send; a large payload is sent from the caller's buffer as is.
  if (len <= kSmallPayload) {
    std::vector<uint8_t> frame;
    frame.reserve(kHalLinkHeaderSize + 1 + len);
    AppendHalLinkFrame(opcode, payload, len, &frame);
    return SendAll(fd, frame.data(), frame.size(), deadline);
  }
  uint8_t head[kHalLinkHeaderSize + 1];
  StoreHead(opcode, len, head);
  return SendAll(fd, head, sizeof(head), deadline) && SendAll(fd, payload, len, deadline);
}

HalLinkReadResult ReadHalLinkFrame(int fd, HalLinkFrame* frame, HalLinkDeadline deadline) {
  uint8_t header[kHalLinkHeaderSize];
  ssize_t n = RecvAll(fd, header, sizeof(header), deadline);
  if (n < 0) return ReadFailure();
  if (n == 0) return HalLinkReadResult::kClosed;
  if (n != static_cast<ssize_t>(sizeof(header))) return HalLinkReadResult::kError;
  uint32_t length = LoadLength(header);
  if (!LengthAcceptable(length)) return HalLinkReadResult::kBadFrame;

  uint8_t opcode;
  n = RecvAll(fd, &opcode, 1, deadline);
  if (n < 0) return ReadFailure();
  if (n != 1) return HalLinkReadResult::kError;
  frame->opcode = opcode;
  frame->payload.clear();
  size_t remaining = length - 1;
  // Read in bounded chunks so that memory follows the bytes that arrive, not the length claimed.
  uint8_t chunk[16 * 1024];
  while (remaining > 0) {
    ssize_t got = RecvSome(fd, chunk, std::min(remaining, sizeof(chunk)), deadline);
    if (got < 0) return ReadFailure();
    if (got == 0) return HalLinkReadResult::kError;
    AppendBounded(&frame->payload, chunk, static_cast<size_t>(got), length - 1);
    remaining -= static_cast<size_t>(got);
  }
  return HalLinkReadResult::kFrame;
}

}  // namespace libtidewatch
