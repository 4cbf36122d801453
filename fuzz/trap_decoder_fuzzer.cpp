// A trap's payload read through a layout, both from outside: the layout file ships with the modem
// image, the payload comes from whoever writes to the receiver's socket. The input is the layout
// text, a NUL byte, then the payload; TrapDecoder decodes the payload as an OTA, an EM and a VoLTE
// trap. Every value it reports is held against the layout decoder's own maps and a plain read of
// the payload, and every byte range must lie inside the payload (which sits in a heap block of
// exactly its size, so that ASan sees a read past its end).
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "fuzz/fuzz_check.h"
#include "libtidewatch/api/monitor_types.h"
#include "libtidewatch/trap/frame_decoder.h"
#include "libtidewatch/trap/trap_decoder.h"

using libtidewatch::DecodedTrap;
using libtidewatch::FrameDecoder;
using libtidewatch::TrapBytes;
using libtidewatch::TrapDecoder;
using libtidewatch::TrapNumber;

namespace {

int g_fd = -1;
std::string g_path;

// The number a field of `info` holds in the payload, read byte by byte; absent where the decoder
// must not read it.
TrapNumber Expect(const FrameDecoder::FIELD_INFO& info, const std::vector<uint8_t>& p) {
  TrapNumber n;
  if (!info.loaded || info.size == 0 || info.size > 8 || info.offset > p.size() ||
      info.size > p.size() - info.offset) {
    return n;
  }
  for (uint64_t i = 0; i < info.size; ++i) n.value |= uint64_t{p[info.offset + i]} << (8 * i);
  n.present = true;
  return n;
}

bool Same(const TrapNumber& a, const TrapNumber& b) {
  return a.present == b.present && (!a.present || a.value == b.value);
}

bool Inside(const TrapBytes& bytes, const std::vector<uint8_t>& p) {
  if (bytes.size == 0) return true;
  return bytes.data >= p.data() && bytes.data + bytes.size <= p.data() + p.size();
}

const char* NameOr(const std::optional<std::string_view>& name) {
  return name ? name->data() : nullptr;
}

void CheckOta(const FrameDecoder& layout, const DecodedTrap& d, const std::vector<uint8_t>& p) {
  FUZZ_CHECK(Same(d.traceId, Expect(layout.m_otaTraceID, p)));
  FUZZ_CHECK(Same(d.sim, Expect(layout.m_otaSIMIdx, p)));
  FUZZ_CHECK(d.fields.empty() && !d.peersPresent && !d.peerCount.present);
  auto trace =
      d.traceId.present ? layout.m_otaTraces.find(d.traceId.value) : layout.m_otaTraces.end();
  if (trace == layout.m_otaTraces.end()) {
    FUZZ_CHECK(!d.traceName && !d.msgId.present && !d.pduLength.present && !d.pduPresent);
    return;
  }
  FUZZ_CHECK(d.traceName && *d.traceName == trace->second.name);
  auto field = [&](const char* name) {
    auto it = trace->second.fields.find(name);
    if (it == trace->second.fields.end()) return TrapNumber();
    FrameDecoder::FIELD_INFO info = it->second;
    info.loaded = true;
    return Expect(info, p);
  };
  FUZZ_CHECK(Same(d.msgId, field("GLOBAL_ID")));
  if (d.msgId.present) {
    FUZZ_CHECK(NameOr(d.msgName) ==
               layout.GetMsgString(libtidewatch::TRAP_TYPE_OTA, d.msgId.value));
  }
  FUZZ_CHECK(Same(d.pduLength, field("PDU_LENGTH")));
  FUZZ_CHECK(Inside(d.pdu, p));
  if (d.pduPresent) {
    FUZZ_CHECK(d.pdu.data == p.data() + trace->second.msgOffset);
    FUZZ_CHECK(d.pdu.size <= d.pduLength.value);
    FUZZ_CHECK(d.pduTruncated == (d.pdu.size < d.pduLength.value));
  }
}

void CheckEm(const FrameDecoder& layout, const DecodedTrap& d, const std::vector<uint8_t>& p) {
  FUZZ_CHECK(Same(d.msgId, Expect(layout.m_msgID, p)));
  FUZZ_CHECK(Same(d.sim, Expect(layout.m_msgSIMIdx, p)));
  FUZZ_CHECK(!d.traceName && !d.traceId.present && !d.pduPresent);
  auto msg = d.msgId.present ? layout.m_msgs.find(d.msgId.value) : layout.m_msgs.end();
  if (msg == layout.m_msgs.end()) {
    FUZZ_CHECK(!d.msgName && d.fields.empty() && !d.peersPresent);
    return;
  }
  FUZZ_CHECK(NameOr(d.msgName) == msg->second.name.c_str());
  // Exactly the fields that can be read, each once, with its bytes' value,
  size_t readable = 0;
  for (const auto& [name, info] : msg->second.fields) {
    FrameDecoder::FIELD_INFO placed = info;
    placed.loaded = true;
    readable += Expect(placed, p).present ? 1 : 0;
  }
  FUZZ_CHECK(d.fields.size() == readable);
  int64_t lastOrder = -1;  // and in the file's order
  for (const auto& f : d.fields) {
    auto it = msg->second.fields.find(f.name);
    FUZZ_CHECK(it != msg->second.fields.end());
    FUZZ_CHECK(static_cast<int64_t>(it->second.order) > lastOrder);
    lastOrder = it->second.order;
    FrameDecoder::FIELD_INFO placed = it->second;
    placed.loaded = true;
    TrapNumber expected = Expect(placed, p);
    FUZZ_CHECK(expected.present && expected.value == f.value);
  }
  if (msg->second.peerOffset <= 0) {
    FUZZ_CHECK(!d.peersPresent && !d.peerCount.present);
    return;
  }
  FUZZ_CHECK(Same(d.peerCount, Expect(layout.m_peerSize, p)));
  FUZZ_CHECK(Inside(d.peers, p));
  if (d.peersPresent) FUZZ_CHECK(d.peers.data + d.peers.size == p.data() + p.size());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  // The layout is read from an anonymous in-memory file: no disk, nothing left behind.
  g_fd = memfd_create("trap_decoder_fuzzer", 0);
  if (g_fd < 0) {
    perror("trap_decoder_fuzzer: memfd_create");
    abort();
  }
  g_path = "/proc/self/fd/" + std::to_string(g_fd);
  tidewatch_fuzz::QuietLog(libtidewatch::kLogVerbose);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const uint8_t* nul = static_cast<const uint8_t*>(memchr(data, 0, size));
  const size_t layoutSize = nul != nullptr ? static_cast<size_t>(nul - data) : size;
  // Loading dominates a run: keep the decoder while the layout text stays the same, as it mostly
  // does while the fuzzer works on the payload.
  static std::string lastText;
  static std::unique_ptr<FrameDecoder> layout;
  static std::unique_ptr<TrapDecoder> decoder;
  std::string text(reinterpret_cast<const char*>(data), layoutSize);
  if (!layout || text != lastText) {
    FUZZ_CHECK(ftruncate(g_fd, 0) == 0);
    FUZZ_CHECK(pwrite(g_fd, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()));
    decoder.reset();
    layout = std::make_unique<FrameDecoder>();
    layout->LoadFromDESC(g_path.c_str());  // a failed load still leaves a usable, partial layout
    decoder = std::make_unique<TrapDecoder>(*layout);
    lastText = std::move(text);
  }

  std::vector<uint8_t> payload;
  if (nul != nullptr) payload.assign(nul + 1, data + size);
  payload.shrink_to_fit();
  DecodedTrap out;
  decoder->Decode(libtidewatch::TRAP_TYPE_OTA, payload.data(), payload.size(), &out);
  FUZZ_CHECK(out.payload.size == payload.size());
  CheckOta(*layout, out, payload);
  decoder->Decode(libtidewatch::TRAP_TYPE_EM, payload.data(), payload.size(), &out);
  CheckEm(*layout, out, payload);
  decoder->Decode(libtidewatch::TRAP_TYPE_VOLTE, payload.data(), payload.size(), &out);
  FUZZ_CHECK(!out.msgId.present && !out.sim.present && out.fields.empty() && !out.pduPresent);
  return 0;
}
