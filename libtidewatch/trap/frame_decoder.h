// What the modem's layout description file says about the messages in traps: message ids and
// names, where the trace id, message id and SIM index sit inside a message, and a few protocol
// constants. One decoder is loaded per file and cached for the life of the process.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "libtidewatch/api/monitor_types.h"

namespace libtidewatch {

// A decoder is filled by LoadFromDESC and read-only afterwards; the data members are public so
// that readers of the layout can reach every value the file defines. Cached decoders (GetInstance)
// are shared by every thread and must not be changed.
class FrameDecoder {
 public:
  struct FIELD_INFO {
    bool loaded = false;
    uint64_t offset = 0;  // byte offset inside a message
    uint64_t size = 0;    // byte width
  };
  struct FIELD_TRACE {
    uint64_t msgOffset = 0;
    std::string name;
    std::map<std::string, FIELD_INFO> fields;
  };
  struct FIELD_EM {
    std::string name;
    std::map<std::string, FIELD_INFO> fields;
    int32_t peerOffset = 0;
  };
  struct FIELD_OTA {
    std::string name;
  };
  struct FIELD_IPTrace {
    std::string name;
  };
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

  FIELD_INFO m_otaTraceID;
  FIELD_INFO m_otaSIMIdx;
  FIELD_INFO m_msgID;
  FIELD_INFO m_msgSIMIdx;
  FIELD_INFO m_peerSize;
  OptionalNumber m_peerHeaderSize;
  std::map<uint64_t, FIELD_TRACE> m_otaTraces;
  std::map<std::string, uint64_t> m_otaTraceIDsByName;
  std::map<uint64_t, FIELD_OTA> m_globalIDs;
  std::map<std::string, uint64_t> m_globalIDsByName;
  std::map<uint64_t, FIELD_EM> m_msgs;
  std::map<std::string, uint64_t> m_msgIDsByName;
  std::map<uint64_t, uint64_t> m_msgEMIDMapping;
  std::map<uint64_t, FIELD_IPTrace> m_ipTraceIDs;
  std::map<std::string, uint64_t> m_ipTraceIDsByName;
  std::vector<std::set<uint64_t>> m_simMsgSets;  // indexed by SIM number (2 to 4)
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
    std::map<std::string, uint64_t>* names;
    size_t offset;  // of the name in m_pendingText
    size_t length;
    uint64_t id;
  };
  void InsertName(std::map<std::string, uint64_t>& names, const char* name, uint64_t id);
  void MergePendingNames();

  static FIELD_EM& InsertMessage(FrameDecoder* decoder, uint64_t id, const char* name);
  template <typename Record>
  static bool CollectNamedID(char** fields, size_t count, FrameDecoder* decoder,
                             std::map<uint64_t, Record>& byID,
                             std::map<std::string, uint64_t>& byName);
  static bool CollectPeerInfo(char** fields, size_t count, FrameDecoder* decoder,
                              bool withHeaderSize, const char* collector);

  bool m_queueNames = false;
  std::vector<PendingName> m_pendingNames;
  std::string m_pendingText;  // the queued names back to back: sorting them stays in cache
};

}  // namespace libtidewatch
