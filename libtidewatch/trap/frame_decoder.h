// What the modem's layout description file says about the messages in traps: message ids and
// names, where the trace id, message id and SIM index sit inside a message, and a few protocol
// constants. One decoder is loaded per file and cached for the life of the process.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory_resource>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "libtidewatch/api/monitor_types.h"
#include "libtidewatch/trap/decoder_arena.h"

namespace libtidewatch {

// A decoder is filled by LoadFromDESC and read-only afterwards; the data members are public so
// that readers of the layout can reach every value the file defines. Cached decoders (GetInstance)
// are shared by every thread and must not be changed.
class FrameDecoder {
 public:
  // Everything a decoder holds is allocated from its arena (see m_arena), so the records that own
  // strings or maps take the arena's allocator; a map of records hands it on by itself.
  using allocator_type = std::pmr::polymorphic_allocator<char>;

  struct FIELD_INFO {
    bool loaded = false;
    uint64_t offset = 0;  // byte offset inside a message
    uint64_t size = 0;    // byte width
    // Where the field was first defined among its message's (or trace's) fields, from 0. The maps
    // are ordered by name; readers that list fields as the file does sort by this.
    uint32_t order = 0;
  };
  // Field name to where the field sits. The keys (and those of NameMap) point into the decoder's
  // arena, so a copy of a map or record taken out of a decoder must not outlive the decoder.
  using FieldMap = std::pmr::map<std::string_view, FIELD_INFO>;
  struct FIELD_TRACE {
    using allocator_type = FrameDecoder::allocator_type;
    explicit FIELD_TRACE(const allocator_type& alloc = {}) : name(alloc), fields(alloc) {}
    FIELD_TRACE(const FIELD_TRACE& other, const allocator_type& alloc = {})
        : msgOffset(other.msgOffset), name(other.name, alloc), fields(other.fields, alloc) {}
    uint64_t msgOffset = 0;
    std::pmr::string name;
    FieldMap fields;
  };
  struct FIELD_EM {
    using allocator_type = FrameDecoder::allocator_type;
    explicit FIELD_EM(const allocator_type& alloc = {}) : name(alloc), fields(alloc) {}
    FIELD_EM(const FIELD_EM& other, const allocator_type& alloc = {})
        : name(other.name, alloc),
          fields(other.fields, alloc),
          peerOffset(other.peerOffset),
          peerHeader(other.peerHeader) {}
    std::pmr::string name;
    FieldMap fields;
    int32_t peerOffset = 0;
    // The peer offset came from PEER_INFO: the peers follow a header of MSG_PEER_HEADER_SIZE
    // bytes. From PEER_INFO_WITHOUT_HEADER they start at the offset itself.
    bool peerHeader = false;
  };
  struct FIELD_OTA {
    using allocator_type = FrameDecoder::allocator_type;
    explicit FIELD_OTA(const allocator_type& alloc = {}) : name(alloc) {}
    FIELD_OTA(const FIELD_OTA& other, const allocator_type& alloc = {}) : name(other.name, alloc) {}
    std::pmr::string name;
  };
  struct FIELD_IPTrace {
    using allocator_type = FrameDecoder::allocator_type;
    explicit FIELD_IPTrace(const allocator_type& alloc = {}) : name(alloc) {}
    FIELD_IPTrace(const FIELD_IPTrace& other, const allocator_type& alloc = {})
        : name(other.name, alloc) {}
    std::pmr::string name;
  };
  // Name to id. The keys point at text the decoder owns: a record's own name where it is the same
  // text, otherwise a copy in the arena, so a name is stored once.
  using NameMap = std::pmr::map<std::string_view, uint64_t>;
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

  // Stores one data line of a section: `fields` are the line's trimmed, non-empty fields (the
  // collector may write into them), `user` the section's user value. False abandons the file.
  using Collector = bool (*)(char** fields, size_t count, FrameDecoder* decoder, uintptr_t user);

  // The most fields a data line is split into; the fields after the tenth are ignored.
  static constexpr size_t kMaxFields = 10;
  // The size of the buffer that SearchLayoutFile fills and GetInstance passes.
  static constexpr size_t kLayoutPathSize = 4096;

  FrameDecoder() = default;
  virtual ~FrameDecoder() = default;
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

  // The name of message `msgId` of type OTA (GLOBAL_ID section) or EM (MSG_INFO and PEER_INFO
  // sections), or null. The text lives as long as the decoder.
  const char* GetMsgString(TRAP_TYPE type, unsigned long msgId) const;

  // The section collectors, one per section of the file.
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
  // Declared before every container that allocates from it, so it outlives them. Nodes and
  // strings come from large blocks and are given back all at once with the decoder: on files of
  // 100k messages a million separate heap blocks cost more than the reading itself.
  DecoderArena m_arena;

 public:
  FIELD_INFO m_otaTraceID;
  FIELD_INFO m_otaSIMIdx;
  FIELD_INFO m_msgID;
  FIELD_INFO m_msgSIMIdx;
  FIELD_INFO m_peerSize;
  OptionalNumber m_peerHeaderSize;
  std::pmr::map<uint64_t, FIELD_TRACE> m_otaTraces{&m_arena};
  NameMap m_otaTraceIDsByName{&m_arena};
  std::pmr::map<uint64_t, FIELD_OTA> m_globalIDs{&m_arena};
  NameMap m_globalIDsByName{&m_arena};
  std::pmr::map<uint64_t, FIELD_EM> m_msgs{&m_arena};
  NameMap m_msgIDsByName{&m_arena};
  std::pmr::map<uint64_t, uint64_t> m_msgEMIDMapping{&m_arena};
  std::pmr::map<uint64_t, FIELD_IPTrace> m_ipTraceIDs{&m_arena};
  NameMap m_ipTraceIDsByName{&m_arena};
  std::pmr::vector<std::pmr::set<uint64_t>> m_simMsgSets{&m_arena};  // indexed by SIM number (2-4)
  ProtocolVersions m_protocolVersions;
  ModemTimeInfo m_modemTimeInfo;
  ModemEMFilterInfo m_modemEMFilterInfo;
  LogCache m_logCache;

 private:
  // While LoadFromDESC runs, names bound for the name maps are queued and merged in one sorted
  // pass at the end of the file: on large files one tree insert per name costs more than all the
  // rest of the reading. Outside a load a name goes straight into its map. Either way the first
  // definition of a name wins.
  struct PendingName {
    NameMap* names;
    std::string_view name;  // owned by the decoder already
    uint64_t id;
  };
  // Inserts `name` (not owned) into `names` if absent. `recordName` is the text of the record the
  // name belongs to; when the two are equal the key points at it instead of a copy.
  void InsertName(NameMap& names, const char* name, std::string_view recordName, uint64_t id);
  void MergePendingNames();

  static FIELD_EM& InsertMessage(FrameDecoder* decoder, uint64_t id, const char* name);
  template <typename Record>
  static bool CollectNamedID(char** fields, size_t count, FrameDecoder* decoder,
                             std::pmr::map<uint64_t, Record>& byID, NameMap& byName);
  static bool CollectPeerInfo(char** fields, size_t count, FrameDecoder* decoder,
                              bool withHeaderSize, const char* collector);

  bool m_queueNames = false;
  std::vector<PendingName> m_pendingNames;
};

}  // namespace libtidewatch
