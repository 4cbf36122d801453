// What the modem's layout description file says about the messages in traps: message ids and
// names, where the trace id, message id and SIM index sit inside a message, and a few protocol
// constants. One decoder is loaded per file and cached for the life of the process.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <memory_resource>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "libtidewatch/api/monitor_types.h"
#include "libtidewatch/trap/decoder_arena.h"
#include "libtidewatch/trap/decoder_tables.h"
#include "libtidewatch/trap/name_table.h"

namespace libtidewatch {

// A decoder is filled by LoadFromDESC and read-only afterwards; the data members are public so
// that readers of the layout can reach every value the file defines. Cached decoders (GetInstance)
// are shared by every thread and must not be changed.
class FrameDecoder {
 public:
  // ---- What a loaded decoder holds. Names and tables point into the decoder's own memory, so a
  // record copied out of a decoder must not outlive it.

  struct FIELD_INFO {
    bool loaded = false;
    uint64_t offset = 0;  // byte offset inside a message
    uint64_t size = 0;    // byte width
    // Where the field was first defined among its message's (or trace's) fields, from 0. The maps
    // are ordered by name; readers that list fields as the file does sort by this.
    uint32_t order = 0;
  };
  using FieldMap = FlatTable<std::string_view, FIELD_INFO>;  // field name to where it sits
  struct FIELD_TRACE {
    uint64_t msgOffset = 0;
    LayoutName name;
    FieldMap fields;
  };
  struct FIELD_EM {
    LayoutName name;
    FieldMap fields;
    int32_t peerOffset = 0;
    // The peer offset came from PEER_INFO: the peers follow a header of MSG_PEER_HEADER_SIZE
    // bytes. From PEER_INFO_WITHOUT_HEADER they start at the offset itself.
    bool peerHeader = false;
  };
  struct FIELD_OTA {
    LayoutName name;
  };
  struct FIELD_IPTrace {
    LayoutName name;
  };
  using NameMap = NameTable;  // name to id, the first definition's; sorted on first use
  // A number the file may or may not define.
  struct OptionalNumber {
    uint64_t value = 0;
    bool set = false;
  };
  struct ProtocolVersion {
    OptionalNumber major;
    OptionalNumber minor;
    OptionalNumber release;
  };
  struct ProtocolVersions {
    ProtocolVersion mac;
    ProtocolVersion pdcp;
    ProtocolVersion rlc;
    ProtocolVersion nas;
    ProtocolVersion rrc;
  };
  struct ModemTimeInfo {
    OptionalNumber timeStampPrecision;
  };
  struct ModemEMFilterInfo {
    OptionalNumber emFilterFieldLength;
    OptionalNumber emFilterTotalEMNumber;
    OptionalNumber emFilterOffset[4];  // one per SIM
  };
  // Room for a per-decoder cache of decoded log text; nothing fills it yet.
  class LogCache {
   public:
    virtual ~LogCache() {}
  };

 private:
  // Declared before every member that allocates from it, so it outlives them. Tables and names
  // come from large blocks and are given back all at once with the decoder.
  DecoderArena m_arena;

 public:
  FIELD_INFO m_otaTraceID;
  FIELD_INFO m_otaSIMIdx;
  FIELD_INFO m_msgID;
  FIELD_INFO m_msgSIMIdx;
  FIELD_INFO m_peerSize;
  OptionalNumber m_peerHeaderSize;
  FlatTable<uint64_t, FIELD_TRACE> m_otaTraces;
  NameMap m_otaTraceIDsByName{&m_arena};
  FlatTable<uint64_t, FIELD_OTA> m_globalIDs;
  NameMap m_globalIDsByName{&m_arena};
  FlatTable<uint64_t, FIELD_EM> m_msgs;
  NameMap m_msgIDsByName{&m_arena};
  std::pmr::map<uint64_t, uint64_t> m_msgEMIDMapping{&m_arena};
  FlatTable<uint64_t, FIELD_IPTrace> m_ipTraceIDs;
  NameMap m_ipTraceIDsByName{&m_arena};
  std::pmr::vector<std::pmr::set<uint64_t>> m_simMsgSets{&m_arena};  // indexed by SIM number (2-4)
  ProtocolVersions m_protocolVersions;
  ModemTimeInfo m_modemTimeInfo;
  ModemEMFilterInfo m_modemEMFilterInfo;
  LogCache m_logCache;

  // The name of message `msgId` of type OTA (GLOBAL_ID section) or EM (MSG_INFO and PEER_INFO
  // sections), or null. The text lives as long as the decoder.
  const char* GetMsgString(TRAP_TYPE type, unsigned long msgId) const;

  // ---- Finding and loading a file.

  // The size of the buffer that SearchLayoutFile fills and GetInstance passes.
  static constexpr size_t kLayoutPathSize = 4096;

  FrameDecoder();
  virtual ~FrameDecoder();
  FrameDecoder(const FrameDecoder&) = delete;
  FrameDecoder& operator=(const FrameDecoder&) = delete;

  // The decoder of the file at `layoutDescPath`, or of the file found by the system properties
  // when it is null. Loaded once per path, on first use; a decoder whose file failed to load is
  // cached too and answers every lookup with "not found". Never null; safe from any thread.
  static FrameDecoder* GetInstance(const char* layoutDescPath);

  // Writes "dir/name" of the first entry of `dir` (null: "/data/vendor/kelpie/") whose name starts
  // with "twd_layout_desc" and whose extension is ".dat" into `buffer`. False when none is found.
  static bool SearchLayoutFile(const char* dir, char* buffer, size_t bufferSize);

  // Reads the layout description file at `path` into this decoder. On a failure the lines read
  // before it stay loaded.
  bool LoadFromDESC(const char* path);

  // Loads the file that the system properties point at: the first layout file in
  // "/data/vendor/kelpie/" on single-binary modems, otherwise in "/vendor/etc/mddb" (or
  // "/data/vendor/kelpie" on thin-modem projects). What GetInstance(nullptr) does on first use.
  bool LoadFromDefaultLocation();

  // ---- The section collectors, one per section of the file: each stores one data line.

  // `fields` are the line's trimmed, non-empty fields (the collector may write into them), `user`
  // the section's user value. False abandons the file.
  using Collector = bool (*)(char** fields, size_t count, FrameDecoder* decoder, uintptr_t user);
  // The most fields a data line is split into; the fields after the tenth are ignored.
  static constexpr size_t kMaxFields = 10;

  static bool OTAInfoCollector(char** fields, size_t count, FrameDecoder* decoder, uintptr_t user);
  static bool GlobalIDCollector(char** fields, size_t count, FrameDecoder* decoder, uintptr_t user);
  static bool MsgInfoCollector(char** fields, size_t count, FrameDecoder* decoder, uintptr_t user);
  static bool SIMInfoCollector(char** fields, size_t count, FrameDecoder* decoder, uintptr_t user);
  static bool IPInfoTraceIDCollector(char** fields, size_t count, FrameDecoder* decoder,
                                     uintptr_t user);
  static bool PeerInfoCollector(char** fields, size_t count, FrameDecoder* decoder, uintptr_t user);
  static bool PeerInfoWithoutHeaderCollector(char** fields, size_t count, FrameDecoder* decoder,
                                             uintptr_t user);
  static bool MsgEMIDMappingCollector(char** fields, size_t count, FrameDecoder* decoder,
                                      uintptr_t user);
  static bool EMFilterInfoCollector(char** fields, size_t count, FrameDecoder* decoder,
                                    uintptr_t user);
  static bool ProtocolVersionInfoCollector(char** fields, size_t count, FrameDecoder* decoder,
                                           uintptr_t user);
  static bool TimeInfoCollector(char** fields, size_t count, FrameDecoder* decoder, uintptr_t user);

 private:
  // While LoadFromDESC runs, new records are staged (appended, with an index) and put into the
  // tables in one sorted pass at the end: on large files one sorted insert per line would cost
  // more than all the rest of the reading. Outside a load a line goes straight into its table.
  // Either way the first definition of an id wins; names are sorted by their tables.
  struct LoadState;

  // The record of `id` in `table`, created (with `name`, when not null) if absent.
  template <typename Record>
  std::pair<Record*, bool> EmplaceRecord(FlatTable<uint64_t, Record>& table, uint64_t id,
                                         const char* name);
  // Enters `name` (not owned) for `id` into `names` unless present. `recordName` is the text of
  // the record the name belongs to; when the two are equal the entry points at it.
  void InsertName(NameMap& names, const char* name, const LayoutName& recordName, uint64_t id);
  // Puts what a load staged into the tables.
  void FinishLoad();

  static FIELD_EM& InsertMessage(FrameDecoder* decoder, uint64_t id, const char* name);
  template <typename Record>
  static bool CollectNamedID(char** fields, size_t count, FrameDecoder* decoder,
                             FlatTable<uint64_t, Record>& byID, NameMap& byName);
  static bool CollectPeerInfo(char** fields, size_t count, FrameDecoder* decoder,
                              bool withHeaderSize, const char* collector);

  std::unique_ptr<LoadState> m_load;  // only while a load runs
};

}  // namespace libtidewatch
