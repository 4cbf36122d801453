// Decode rate of TrapDecoder over 64-byte traps laid out by the repository's sample layout. A
// capture decodes every trap it receives on one thread, so this rate bounds what it can keep up
// with (goal: at least 5 million EM traps per second on one core). The traps cycle over every EM
// message of the layout, or every OTA message, so that lookups and branches vary as in a real run.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <vector>

#include "libtidewatch/trap/frame_decoder.h"
#include "libtidewatch/trap/trap_decoder.h"

namespace {

using libtidewatch::FrameDecoder;

constexpr size_t kTrapSize = 64;

const FrameDecoder* Layout() {
  static FrameDecoder* layout = [] {
    auto* d = new FrameDecoder;
    if (!d->LoadFromDESC(TIDEWATCH_SOURCE_DIR "/resources/twd_layout_desc.dat")) {
      fprintf(stderr, "the sample layout did not load\n");
    }
    return d;
  }();
  return layout;
}

void Put(std::vector<uint8_t>* trap, const FrameDecoder::FIELD_INFO& at, uint64_t value) {
  for (uint64_t i = 0; i < at.size && at.offset + i < trap->size(); ++i) {
    (*trap)[at.offset + i] = static_cast<uint8_t>(value >> (8 * i));
  }
}

// One trap per message of the type, with every field filled with bytes that vary.
std::vector<std::vector<uint8_t>> Traps(libtidewatch::TRAP_TYPE type) {
  const FrameDecoder& d = *Layout();
  std::vector<std::vector<uint8_t>> traps;
  if (type == libtidewatch::TRAP_TYPE_EM) {
    for (const auto& [id, msg] : d.m_msgs) {
      std::vector<uint8_t> trap(kTrapSize);
      for (size_t i = 0; i < trap.size(); ++i) trap[i] = static_cast<uint8_t>(i * 7 + id);
      Put(&trap, d.m_msgID, id);
      Put(&trap, d.m_msgSIMIdx, id % 2);
      traps.push_back(trap);
    }
  } else {
    for (const auto& [id, ota] : d.m_globalIDs) {
      const auto& [traceId, trace] = *d.m_otaTraces.begin();
      std::vector<uint8_t> trap(kTrapSize);
      Put(&trap, d.m_otaTraceID, traceId);
      Put(&trap, d.m_otaSIMIdx, 0);
      Put(&trap, trace.fields.at("GLOBAL_ID"), id);
      Put(&trap, trace.fields.at("PDU_LENGTH"), kTrapSize - trace.msgOffset);
      traps.push_back(trap);
    }
  }
  return traps;
}

void BM_DecodeTrap(benchmark::State& state, libtidewatch::TRAP_TYPE type) {
  const libtidewatch::TrapDecoder decoder(*Layout());
  const std::vector<std::vector<uint8_t>> traps = Traps(type);
  if (traps.empty()) {
    state.SkipWithError("the sample layout has no messages of this type");
    return;
  }
  libtidewatch::DecodedTrap out;
  size_t next = 0;
  for (auto _ : state) {
    const std::vector<uint8_t>& trap = traps[next];
    next = next + 1 == traps.size() ? 0 : next + 1;
    decoder.Decode(type, trap.data(), trap.size(), &out);
    benchmark::DoNotOptimize(out.fields.data());
    benchmark::DoNotOptimize(out.msgName);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kTrapSize));
}

BENCHMARK_CAPTURE(BM_DecodeTrap, em64, libtidewatch::TRAP_TYPE_EM);
BENCHMARK_CAPTURE(BM_DecodeTrap, ota64, libtidewatch::TRAP_TYPE_OTA);

}  // namespace

BENCHMARK_MAIN();
