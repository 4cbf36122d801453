// The one-shot MCP reader (MCPHandler::ProcessFromBuffer on a self-contained buffer, as a HAL reply
// or callback argument arrives) on arbitrary bytes: it must return exactly the first packet that
// the byte-at-a-time model finds, with its payload copied from the right place. Each input is read
// twice, with debug logging off and on, because the reader skips garbage differently in the two.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "fuzz/fuzz_check.h"
#include "fuzz/mcp_model.h"
#include "libtidewatch/platform/log.h"
#include "libtidewatch/transport/mcp_handler.h"

using libtidewatch::MCPHandler;
using libtidewatch::MCPInfo;
using tidewatch_fuzz::McpModel;
using tidewatch_fuzz::ModelPacket;

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  tidewatch_fuzz::QuietLog(libtidewatch::kLogError);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  McpModel model(0);
  model.Feed(data, size);
  ModelPacket want;
  const bool expected = size <= libtidewatch::DataQueue::kCapacity && model.FirstPacket(&want);

  for (int threshold : {libtidewatch::kLogError, libtidewatch::kLogDebug}) {
    libtidewatch::SetLogThreshold(threshold);
    MCPInfo out;
    const bool got = MCPHandler::ProcessFromBuffer(data, size, out, nullptr);
    FUZZ_CHECK(got == expected);
    if (got) {
      FUZZ_CHECK(out.type >= 1 && out.type <= 3);
      FUZZ_CHECK(out.length >= 1 && out.length <= 131072);
      FUZZ_CHECK(out.data != nullptr && out.owned);
      FUZZ_CHECK(out.type == want.type && out.length == want.length);
      FUZZ_CHECK(want.offset + want.length <= size);
      FUZZ_CHECK(memcmp(out.data, data + want.offset, out.length) == 0);
    }
  }
  libtidewatch::SetLogThreshold(libtidewatch::kLogError);
  return 0;
}
