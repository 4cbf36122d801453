// The layout description file, which ships with the modem image and is read as text from disk:
// FrameDecoder::LoadFromDESC on arbitrary file contents, into a fresh decoder each time. Whatever
// the file holds, the decoder's maps must agree with each other afterwards, a successful load must
// have every mandatory field, and name lookups must answer from the maps.
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz/fuzz_check.h"
#include "libtidewatch/api/monitor_types.h"
#include "libtidewatch/trap/frame_decoder.h"

using libtidewatch::FrameDecoder;
using libtidewatch::TRAP_TYPE_EM;
using libtidewatch::TRAP_TYPE_OTA;
using libtidewatch::TRAP_TYPE_VOLTE;

namespace {

int g_fd = -1;
std::string g_path;

// Every name maps back to an id that is defined; for messages, to the very message that was first
// given that name, and every message's name is in the name map.
void CheckMaps(const FrameDecoder& d) {
  for (const auto& [name, id] : d.m_msgIDsByName) {
    auto it = d.m_msgs.find(id);
    FUZZ_CHECK(it != d.m_msgs.end());
    FUZZ_CHECK(it->second.name == name);
  }
  for (const auto& [id, msg] : d.m_msgs) {
    // A name is cut from one field of one line.
    FUZZ_CHECK(msg.name.find_first_of(std::string(",\n\0", 3)) == std::string::npos);
    FUZZ_CHECK(d.m_msgIDsByName.count(msg.name) == 1);
    FUZZ_CHECK(d.GetMsgString(TRAP_TYPE_EM, id) == msg.name.c_str());
  }
  for (const auto& [name, id] : d.m_globalIDsByName) FUZZ_CHECK(d.m_globalIDs.count(id) == 1);
  for (const auto& [id, ota] : d.m_globalIDs) {
    FUZZ_CHECK(d.GetMsgString(TRAP_TYPE_OTA, id) == ota.name.c_str());
  }
  for (const auto& [name, id] : d.m_otaTraceIDsByName) FUZZ_CHECK(d.m_otaTraces.count(id) == 1);
  for (const auto& [name, id] : d.m_ipTraceIDsByName) FUZZ_CHECK(d.m_ipTraceIDs.count(id) == 1);
  // Per-SIM sets exist only for SIM 2 to 4.
  FUZZ_CHECK(d.m_simMsgSets.size() <= 5);
  for (size_t sim = 0; sim < d.m_simMsgSets.size() && sim < 2; ++sim) {
    FUZZ_CHECK(d.m_simMsgSets[sim].empty());
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  // An anonymous in-memory file, opened by the decoder through its /proc name: nothing touches a
  // disk, which would make each run cost milliseconds, and nothing is left behind.
  g_fd = memfd_create("layout_file_fuzzer", 0);
  if (g_fd < 0) {
    perror("layout_file_fuzzer: memfd_create");
    abort();
  }
  g_path = "/proc/self/fd/" + std::to_string(g_fd);
  tidewatch_fuzz::QuietLog(libtidewatch::kLogVerbose);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FUZZ_CHECK(ftruncate(g_fd, 0) == 0);
  FUZZ_CHECK(pwrite(g_fd, data, size, 0) == static_cast<ssize_t>(size));

  FrameDecoder decoder;
  const bool loaded = decoder.LoadFromDESC(g_path.c_str());
  if (loaded) {
    FUZZ_CHECK(decoder.m_otaTraceID.loaded && decoder.m_otaSIMIdx.loaded);
    FUZZ_CHECK(decoder.m_msgID.loaded && decoder.m_msgSIMIdx.loaded);
  }
  CheckMaps(decoder);

  // Ids the map does not hold, and types that have no names.
  uint64_t probe = 0;
  memcpy(&probe, data, size < sizeof(probe) ? size : sizeof(probe));
  const char* em = decoder.GetMsgString(TRAP_TYPE_EM, probe);
  FUZZ_CHECK(em == nullptr ? decoder.m_msgs.count(probe) == 0 : decoder.m_msgs.count(probe) == 1);
  const char* ota = decoder.GetMsgString(TRAP_TYPE_OTA, probe);
  FUZZ_CHECK(ota == nullptr ? decoder.m_globalIDs.count(probe) == 0
                            : decoder.m_globalIDs.count(probe) == 1);
  for (const auto& [id, msg] : decoder.m_msgs) {
    FUZZ_CHECK(decoder.GetMsgString(TRAP_TYPE_VOLTE, id) == nullptr);
    FUZZ_CHECK(decoder.GetMsgString(static_cast<libtidewatch::TRAP_TYPE>(0xFFFF), id) == nullptr);
    break;
  }
  return 0;
}
