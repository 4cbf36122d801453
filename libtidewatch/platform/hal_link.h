// The host HAL link: the frame format spoken between the library and the service process over a
// Unix stream socket, with an incremental decoder and blocking frame I/O. It sits outside host/ so
// that the host half of the seam and the service emulator share one codec without the emulator
// reaching into the seam's internals.
//
// Every message, both ways, is one frame:
//
//   +---------+---------+---------+---------+--------+------------------------+
//   | L bits  | L bits  | L bits  | L bits  | opcode | payload (L - 1 bytes)  |
//   |  0..7   |  8..15  | 16..23  | 24..31  |        |                        |
//   +---------+---------+---------+---------+--------+------------------------+
//    length L, little-endian, 1 <= L <= kHalLinkMaxLength (it counts the opcode byte)
//
//   opcode  direction          payload                                  answered by
//   0x01    client -> service  request bytes (may be empty)             0x81
//   0x81    service -> client  status byte (0 = ok), then reply bytes   -
//   0x02    client -> service  destination name, UTF-8, no NUL          0x82
//   0x82    service -> client  status byte (0 = ok)                     -
//   0x03    service -> client  trap bytes, only after a registration    0x83
//   0x83    client -> service  1 byte: 1 when the callback returned true, else 0
//
// A peer that receives a frame it cannot accept closes the connection.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "libtidewatch/platform/hal_service.h"

namespace libtidewatch {

constexpr uint8_t kHalLinkCommand = 0x01;
constexpr uint8_t kHalLinkCommandResult = 0x81;
constexpr uint8_t kHalLinkRegisterTrapCallback = 0x02;
constexpr uint8_t kHalLinkRegisterResult = 0x82;
constexpr uint8_t kHalLinkTrap = 0x03;
constexpr uint8_t kHalLinkTrapResult = 0x83;

// Status byte of 0x81 / 0x82 meaning the call went through; any other value is a failure.
constexpr uint8_t kHalLinkStatusOk = 0;

// Size of the length field, and the largest length it may carry (opcode + payload).
constexpr size_t kHalLinkHeaderSize = 4;
constexpr uint32_t kHalLinkMaxLength = 16u * 1024u * 1024u;
// Largest payload a frame can carry.
constexpr size_t kHalLinkMaxPayload = kHalLinkMaxLength - 1;

// Endpoint names of the two service generations, before TIDEWATCH_HAL_SOCKET_PREFIX.
constexpr char kHalAidlEndpoint[] = "vendor.velora.hardware.tidewatch.ITidewatchService/default";
constexpr char kHalHidlEndpoint[] =
    "vendor.velora.hardware.tidewatch@1.0::ITidewatchService/default";

// The abstract socket name of `generation`'s service: TIDEWATCH_HAL_SOCKET_PREFIX (read at each
// call, empty when unset) followed by the endpoint name.
std::string HalEndpointName(HalGeneration generation);

struct HalLinkFrame {
  uint8_t opcode = 0;
  std::vector<uint8_t> payload;
};

// Appends the frame (opcode, payload[0..len)) to `out`. False, and `out` unchanged, when the
// payload is longer than kHalLinkMaxPayload.
bool AppendHalLinkFrame(uint8_t opcode, const uint8_t* payload, size_t len,
                        std::vector<uint8_t>* out);

// Cuts frames out of a byte stream fed in pieces of any size. Memory grows only with the bytes
// that have actually arrived, so a peer announcing a huge frame and sending nothing costs nothing.
// The decoder does not look at opcodes or payload sizes; that is the caller's business.
// Thread-compatible.
class HalLinkDecoder {
 public:
  // Takes in data[0..len). Complete frames are queued for Next(). Returns false once a length
  // field is 0 or above kHalLinkMaxLength; the decoder then stays failed and ignores further
  // input (frames completed before the bad one remain available), and the caller should close
  // the connection.
  bool Feed(const uint8_t* data, size_t len);

  // Moves the oldest complete frame into `frame`; false when none is queued.
  bool Next(HalLinkFrame* frame);

  bool failed() const { return m_failed; }
  // The rejected length field, once failed.
  uint32_t bad_length() const { return m_badLength; }
  // Bytes of the frame in progress received so far (length field included); 0 between frames.
  size_t pending() const { return m_headerFill + m_body.size(); }

 private:
  std::deque<HalLinkFrame> m_frames;
  uint8_t m_header[kHalLinkHeaderSize] = {};
  size_t m_headerFill = 0;
  uint32_t m_length = 0;        // length field of the frame in progress, once the header is whole
  std::vector<uint8_t> m_body;  // opcode and payload bytes received so far
  bool m_failed = false;
  uint32_t m_badLength = 0;
};

// When blocking frame I/O gives up. The default, the largest time point, waits as long as it takes.
using HalLinkDeadline = std::chrono::steady_clock::time_point;
constexpr HalLinkDeadline kHalLinkNoDeadline = HalLinkDeadline::max();

// Writes one whole frame to the stream socket `fd`, blocking until `deadline`; retries on EINTR and
// never raises SIGPIPE. False when the payload is too long or the write fails (the peer has gone),
// and false with errno ETIMEDOUT when the deadline passed first (part of the frame may be sent).
bool WriteHalLinkFrame(int fd, uint8_t opcode, const uint8_t* payload, size_t len,
                       HalLinkDeadline deadline = kHalLinkNoDeadline);

enum class HalLinkReadResult {
  kFrame,     // a whole frame was read
  kClosed,    // the peer closed the connection before the first byte of a frame
  kBadFrame,  // a length field of 0 or above the limit: close the connection
  kError,     // a read error, or the peer closed in the middle of a frame
  kTimeout,   // the deadline passed before the whole frame arrived: close the connection
};

// Reads exactly one frame from the stream socket `fd`, blocking until `deadline`, and nothing
// beyond it (so frames that follow stay in the socket). Retries on EINTR; the payload buffer grows
// only as bytes arrive. The deadline bounds the whole frame, so a peer that sends part of a frame
// and then nothing, or trickles bytes, is given up on in time.
HalLinkReadResult ReadHalLinkFrame(int fd, HalLinkFrame* frame,
                                   HalLinkDeadline deadline = kHalLinkNoDeadline);

}  // namespace libtidewatch
