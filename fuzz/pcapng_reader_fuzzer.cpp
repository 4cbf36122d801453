// Capture files, which users pass around and open with -r: PcapngReader on arbitrary bytes. Every
// view in a trap given back must lie inside the input, an error must name a block, and a trap read
// back must survive writing and reading again unchanged (the writer and the reader agree on every
// field the file can hold).
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "fuzz/fuzz_check.h"
#include "libtidewatch/pcapng/pcapng_reader.h"
#include "libtidewatch/pcapng/pcapng_writer.h"

using libtidewatch::CapturedTrap;
using libtidewatch::PcapngReader;
using libtidewatch::PcapngWriter;
using libtidewatch::TrapBytes;

namespace {

const uint8_t* g_begin = nullptr;
const uint8_t* g_end = nullptr;

volatile uint8_t g_sink;

void CheckInside(const void* p, size_t n) {
  if (n == 0) return;
  const auto* b = static_cast<const uint8_t*>(p);
  FUZZ_CHECK(b >= g_begin && b <= g_end && n <= static_cast<size_t>(g_end - b));
  uint8_t x = 0;
  for (size_t i = 0; i < n; ++i) x ^= b[i];  // touch every byte, for ASan
  g_sink = x;
}

bool SameBytes(const TrapBytes& a, const TrapBytes& b) {
  return a.size == b.size && (a.size == 0 || memcmp(a.data, b.data, a.size) == 0);
}

bool SameName(const std::optional<std::string_view>& a, const std::optional<std::string_view>& b) {
  return a.has_value() == b.has_value() && (!a || *a == *b);
}

void CheckRewrite(const CapturedTrap& t, uint32_t toolDrops) {
  PcapngWriter writer("fuzz");
  std::string file;
  writer.BeginSection(0, &file);
  writer.AppendTrap(t, toolDrops, &file);
  writer.EndSection(0, 0, &file);
  PcapngReader again;
  again.OpenBuffer(reinterpret_cast<const uint8_t*>(file.data()), file.size());
  CapturedTrap u;
  FUZZ_CHECK(again.Next(&u) == PcapngReader::kTrap);
  FUZZ_CHECK(u.seq == t.seq && u.timeUs == t.timeUs && u.length == t.length);
  FUZZ_CHECK(again.toolDrops() == toolDrops);
  FUZZ_CHECK(SameBytes(u.record, t.record));
  FUZZ_CHECK(memcmp(u.discards, t.discards, sizeof t.discards) == 0);
  const auto& a = t.decoded;
  const auto& b = u.decoded;
  FUZZ_CHECK(a.type == 0 || a.type == b.type);
  FUZZ_CHECK(SameName(a.msgName, b.msgName) && SameName(a.traceName, b.traceName));
  FUZZ_CHECK(a.sim.present == b.sim.present && a.sim.value == b.sim.value);
  FUZZ_CHECK(a.msgId.present == b.msgId.present && a.msgId.value == b.msgId.value);
  FUZZ_CHECK(a.pduPresent == b.pduPresent && a.pduTruncated == b.pduTruncated);
  FUZZ_CHECK(SameBytes(a.pdu, b.pdu) && SameBytes(a.peers, b.peers));
  FUZZ_CHECK(a.fields.size() == b.fields.size());
  for (size_t i = 0; i < a.fields.size(); ++i) {
    FUZZ_CHECK(a.fields[i].name == b.fields[i].name && a.fields[i].value == b.fields[i].value);
  }
  FUZZ_CHECK(again.Next(&u) == PcapngReader::kEnd);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  tidewatch_fuzz::QuietLog(libtidewatch::kLogVerbose);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  g_begin = data;
  g_end = data + size;
  PcapngReader reader;
  reader.OpenBuffer(data, size);
  CapturedTrap trap;
  PcapngReader::Status status;
  while ((status = reader.Next(&trap)) == PcapngReader::kTrap) {
    CheckInside(trap.record.data, trap.record.size);
    CheckInside(trap.decoded.payload.data, trap.decoded.payload.size);
    CheckInside(trap.decoded.pdu.data, trap.decoded.pdu.size);
    CheckInside(trap.decoded.peers.data, trap.decoded.peers.size);
    if (trap.decoded.msgName)
      CheckInside(trap.decoded.msgName->data(), trap.decoded.msgName->size());
    if (trap.decoded.traceName) {
      CheckInside(trap.decoded.traceName->data(), trap.decoded.traceName->size());
    }
    for (const auto& f : trap.decoded.fields) CheckInside(f.name.data(), f.name.size());
    CheckRewrite(trap, reader.toolDrops());
  }
  FUZZ_CHECK((status == PcapngReader::kError) == (reader.error().rfind("block ", 0) == 0));
  // A failed reader stays failed.
  if (status == PcapngReader::kError) FUZZ_CHECK(reader.Next(&trap) == PcapngReader::kError);
  return 0;
}
