// The stream MCP reader (MCPHandler::ProcessFromBuffer over a connection's read queue) on bytes
// arriving in pieces, held against a byte-at-a-time model: every call must give the same packet
// (or none), and leave the same pending header and the same queue start, size and bytes.
//
// Input: flags (bit 0: debug logging on, which makes the reader pop garbage one byte at a time
// instead of in runs; bits 1-7: the body is repeated that many extra times, so that short inputs
// can fill the queue past its compaction mark), the queue's start offset (2 bytes, times 2), four
// piece sizes, then the body.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "fuzz/fuzz_check.h"
#include "fuzz/mcp_model.h"
#include "libtidewatch/platform/log.h"
#include "libtidewatch/transport/mcp_handler.h"
#include "libtidewatch/transport/socket_connection.h"

using libtidewatch::DataQueue;
using libtidewatch::MCP_TYPE_NONE;
using libtidewatch::MCPHandler;
using libtidewatch::MCPInfo;
using libtidewatch::SocketConnection;
using tidewatch_fuzz::McpModel;
using tidewatch_fuzz::ModelPacket;

namespace {

constexpr size_t kPrefixSize = 7;
// With debug logging every garbage byte is one log line and one Pop(1); keep those runs short.
constexpr size_t kMaxDebugStream = 16 * 1024;
constexpr size_t kMaxStream = 2 * DataQueue::kCapacity;

// The reader's state must match the model's after every call.
void CheckState(SocketConnection& conn, const MCPInfo& io, const McpModel& model) {
  const DataQueue& q = conn.ReadQueue();
  FUZZ_CHECK(q.size == model.Held());
  FUZZ_CHECK(q.start == model.Shape().start);
  FUZZ_CHECK(q.start + q.size <= DataQueue::kCapacity);
  FUZZ_CHECK(memcmp(q.Front(), model.Stream().data() + model.Position(), q.size) == 0);
  FUZZ_CHECK(io.length == model.PendingLength());
  if (io.length != 0) {
    FUZZ_CHECK(io.type == model.PendingType());
    FUZZ_CHECK(io.data == nullptr);
    // A pending payload always fits behind the queue's start: the reader can never stall on a
    // full queue with a packet half in it.
    FUZZ_CHECK(q.start + io.length <= DataQueue::kCapacity);
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  tidewatch_fuzz::QuietLog(libtidewatch::kLogError);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < kPrefixSize) return 0;
  const bool debug = (data[0] & 1) != 0;
  const size_t copies = 1 + (data[0] >> 1);
  // Every start a queue can be left at: pops leave it at or below the compaction mark.
  const size_t start = static_cast<size_t>(data[1] | data[2] << 8) * 2;
  const uint8_t* pieces = data + 3;
  const uint8_t* body = data + kPrefixSize;
  const size_t bodySize = size - kPrefixSize;
  if (bodySize == 0) return 0;

  std::vector<uint8_t> stream;
  const size_t limit = debug ? kMaxDebugStream : kMaxStream;
  for (size_t i = 0; i < copies && stream.size() + bodySize <= limit; ++i) {
    stream.insert(stream.end(), body, body + bodySize);
  }
  if (stream.empty()) stream.assign(body, body + (bodySize < limit ? bodySize : limit));

  // One connection for the whole run: it embeds a 256 KiB queue. No descriptor behind it.
  static SocketConnection* conn = new SocketConnection(-1, "mcp_stream_fuzzer");
  DataQueue& q = conn->ReadQueue();
  q.Reset();
  q.start = start;
  McpModel model(start);
  MCPInfo io;

  libtidewatch::SetLogThreshold(debug ? libtidewatch::kLogDebug : libtidewatch::kLogError);
  // Larger streams come in larger pieces, so that a run costs about the same however long.
  const size_t scale = 1 + stream.size() / 4096;
  size_t fed = 0;
  for (size_t k = 0; fed < stream.size(); ++k) {
    size_t piece = pieces[k % 4] == 0xFF ? stream.size() : 1 + pieces[k % 4] * scale;
    if (piece > stream.size() - fed) piece = stream.size() - fed;
    FUZZ_CHECK(q.SpaceSize() > 0);
    if (piece > q.SpaceSize()) piece = q.SpaceSize();
    memcpy(q.SpaceStart(), stream.data() + fed, piece);
    q.IncSize(piece);
    model.Feed(stream.data() + fed, piece);
    fed += piece;

    for (;;) {
      ModelPacket want;
      const bool expected = model.NextFromStream(&want);
      const bool got = MCPHandler::ProcessFromBuffer(*conn, io, nullptr);
      FUZZ_CHECK(got == expected);
      if (!got) break;
      FUZZ_CHECK(io.type >= 1 && io.type <= 3);
      FUZZ_CHECK(io.length >= 1 && io.length <= 131072);
      FUZZ_CHECK(io.data != nullptr && io.owned);
      FUZZ_CHECK(io.type == want.type && io.length == want.length);
      FUZZ_CHECK(memcmp(io.data, stream.data() + want.offset, io.length) == 0);
      io.SetData(MCP_TYPE_NONE, 0, nullptr, false);  // consumed, as the receiver does
      CheckState(*conn, io, model);
    }
    CheckState(*conn, io, model);
  }
  libtidewatch::SetLogThreshold(libtidewatch::kLogError);
  return 0;
}
