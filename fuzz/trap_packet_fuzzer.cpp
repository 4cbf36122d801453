// Raw trap data, as any process on the device may send it to a trap receiver's socket: TrapPacker
// on arbitrary bytes, and MonitorTrapReceiver::ProcessPayload on trap packets made from them. Both
// are held against a plain walk of the records. The handler is told the last record's own length
// field, which a damaged record can make larger than what arrived; what did arrive must be there
// behind the data pointer, byte for byte (compared with the input, which also reads all of it),
// with the right type and discard count.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "fuzz/fuzz_check.h"
#include "libtidewatch/api/monitor_types.h"
#include "libtidewatch/transport/mcp_info.h"
#include "libtidewatch/trap/monitor_trap_receiver.h"
#include "libtidewatch/trap/trap_packer.h"

using libtidewatch::MCPInfo;
using libtidewatch::MonitorTrapReceiver;
using libtidewatch::TRAP_TYPE;
using libtidewatch::TrapPacker;

namespace {

// What a walk of the records says about one buffer. Fields that run past the end of the data read
// their missing bytes as 0.
struct Walk {
  bool initialized = false;
  bool hasTrap = false;
  uint8_t type = 0;          // TRAP_TYPE of the last trap record, 0 when unknown
  uint32_t declared = 0;     // its length field
  size_t payloadOffset = 0;  // where its payload starts
  size_t present = 0;        // how many payload bytes the buffer holds
  bool hasDiscard = false;
  size_t discardOffset = 0;
  uint32_t discardCount = 0;
};

uint32_t Le32(const uint8_t* p, size_t len, uint64_t at) {
  uint32_t v = 0;
  for (uint64_t i = 0; i < 4; ++i) {
    if (at + i < len) v |= static_cast<uint32_t>(p[at + i]) << (8 * i);
  }
  return v;
}

Walk WalkRecords(const uint8_t* p, size_t len) {
  Walk w;
  if (len == 0 || len > 65581) return w;
  uint64_t at = 0;
  while (at < len) {
    if (p[at] == 1) {
      w.hasDiscard = true;
      w.discardOffset = at;
      w.discardCount = Le32(p, len, at + 1);
      // It must end the data exactly; then all its entries are present and can be checked.
      if (at + 5 + 5 * static_cast<uint64_t>(w.discardCount) != len) return w;
      for (uint64_t e = at + 5; e < len; e += 5) {
        if (p[e] >= 9) return w;
      }
      break;
    }
    w.hasTrap = true;
    w.type = p[at] <= 8 ? p[at] : 0;
    w.declared = Le32(p, len, at + 1);
    w.payloadOffset = at + 5 < len ? at + 5 : len;
    w.present = len - w.payloadOffset;
    if (w.present > w.declared) w.present = w.declared;
    at += 5 + static_cast<uint64_t>(w.declared);
  }
  w.initialized = true;
  return w;
}

// The count of the first discard entry for `type`, as the service reports it.
uint32_t DiscardOf(const Walk& w, const uint8_t* p, size_t len, unsigned type) {
  if (!w.initialized || !w.hasDiscard || type > 8) return 0;
  for (uint64_t e = w.discardOffset + 5; e < len; e += 5) {
    if (p[e] == type) return Le32(p, len, e + 1);
  }
  return 0;
}

struct Expected {
  const uint8_t* raw;
  Walk walk;
  unsigned long discard;
  int calls;
};
Expected* g_expected = nullptr;

void CheckingHandler(void* context, unsigned int time, TRAP_TYPE type, unsigned long length,
                     const unsigned char* data, unsigned long discardCount) {
  Expected* e = g_expected;
  FUZZ_CHECK(e != nullptr && context == e);
  ++e->calls;
  FUZZ_CHECK(time == 0);
  FUZZ_CHECK(discardCount == e->discard);
  if (!e->walk.initialized || !e->walk.hasTrap) {
    FUZZ_CHECK(type == 0 && length == 0 && data == nullptr);
    return;
  }
  FUZZ_CHECK(type == e->walk.type);
  FUZZ_CHECK(length == e->walk.declared);
  FUZZ_CHECK(data != nullptr);
  FUZZ_CHECK(memcmp(data, e->raw + e->walk.payloadOffset, e->walk.present) == 0);
}

MonitorTrapReceiver* Receiver() {
  // Heavy (a listening socket, its thread, a service lookup): one for the whole run, under a name
  // no other process uses.
  static MonitorTrapReceiver* receiver = [] {
    std::string name = ".trap_packet_fuzzer." + std::to_string(getpid());
    auto* r = new MonitorTrapReceiver(static_cast<unsigned long>(getpid()), name.c_str());
    r->trapHandler = CheckingHandler;
    return r;
  }();
  return receiver;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  // Nothing listens under this prefix, so the receiver finds no service and asks only once.
  setenv("TIDEWATCH_HAL_SOCKET_PREFIX", "trap-packet-fuzzer-no-service-", 0);
  setenv("TIDEWATCH_HAL_WAIT_MS", "0", 0);
  tidewatch_fuzz::QuietLog(libtidewatch::kLogVerbose);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const Walk walk = WalkRecords(data, size);

  {
    TrapPacker packer(data, size);
    FUZZ_CHECK(packer.IsInitialized() == walk.initialized);
    if (walk.initialized && walk.hasTrap) {
      FUZZ_CHECK(packer.GetTrapType() == walk.type);
      FUZZ_CHECK(packer.GetTrapDataLength() == walk.declared);
      FUZZ_CHECK(packer.GetTrapData() != nullptr);
      FUZZ_CHECK(memcmp(packer.GetTrapData(), data + walk.payloadOffset, walk.present) == 0);
    } else if (walk.initialized) {
      FUZZ_CHECK(packer.GetTrapData() == nullptr && packer.GetTrapDataLength() == 0);
    }
    for (unsigned t : {0u, 1u, 2u, 3u, 4u, 8u, 9u, 0xFFFFu}) {
      FUZZ_CHECK(packer.GetDiscardInfo(static_cast<TRAP_TYPE>(t)) ==
                 DiscardOf(walk, data, size, t));
    }
  }

  Expected expected{
      data, walk,
      static_cast<unsigned long>(DiscardOf(walk, data, size, 2)) + DiscardOf(walk, data, size, 3),
      0};
  MonitorTrapReceiver* receiver = Receiver();
  g_expected = &expected;
  receiver->userData = &expected;
  MCPInfo in;
  // Borrowed, not copied: ASan then sees any read beyond the input itself.
  in.SetData(libtidewatch::MCP_TYPE_TRAP, size, size != 0 ? data : nullptr, false);
  MCPInfo out;
  FUZZ_CHECK(receiver->ProcessPayload(in, out));
  FUZZ_CHECK(expected.calls == 1);
  FUZZ_CHECK(out.length == 0);
  g_expected = nullptr;
  return 0;
}
