// The section collectors of FrameDecoder: each takes one data line of its section, already split
// into trimmed, non-empty fields, and stores what it says. A false return abandons the file.
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <utility>

#include "libtidewatch/platform/log.h"
#include "libtidewatch/trap/frame_decoder.h"
#include "libtidewatch/trap/frame_decoder_load_state.h"

namespace libtidewatch {
namespace {

using FIELD_INFO = FrameDecoder::FIELD_INFO;
using FIELD_EM = FrameDecoder::FIELD_EM;
using OptionalNumber = FrameDecoder::OptionalNumber;

// A decimal number filling the whole field. A leading minus sign wraps, as strtoull does; the
// overflow result is refused because it cannot be told apart from a real overflow.
bool ToUInt64(const char* text, uint64_t* value) {
  // strtoull is slow for the plain digit strings that nearly every field holds; up to 19 digits
  // cannot overflow and give the same value. Anything else goes through strtoull.
  uint64_t digits = 0;
  size_t i = 0;
  for (; i < 19 && text[i] >= '0' && text[i] <= '9'; ++i) {
    digits = digits * 10 + static_cast<uint64_t>(text[i] - '0');
  }
  if (i > 0 && text[i] == '\0') {
    if (digits == 0) TW_LOGE("strtoull return 0 [%s] to uint64_t.", text);
    *value = digits;
    return true;
  }
  char* end = nullptr;
  unsigned long long number = strtoull(text, &end, 10);
  if (*end != '\0' || number == ULLONG_MAX) {
    TW_LOGE("Failed to convert [%s] to uint64_t.", text);
    return false;
  }
  // Zero is legal (offset 0) but is also what an empty number reads as; worth a line in the log.
  if (number == 0) TW_LOGE("strtoull return 0 [%s] to uint64_t.", text);
  *value = number;
  return true;
}

// Splits a NAME(ID) field in place: `name` is the text before the first "(", the ID is the text up
// to the next ")", anything after it is ignored. False without a message when a bracket is missing.
bool SplitNameAndID(char* field, const char** name, uint64_t* id) {
  char* open = strchr(field, '(');
  if (open == nullptr) return false;
  char* close = strchr(open + 1, ')');
  if (close == nullptr) return false;
  *open = '\0';
  *close = '\0';
  *name = field;
  return ToUInt64(open + 1, id);
}

// KEY,offset,size lines, which all sections describe the same way.
bool CollectFieldInfo(char** fields, size_t count, FIELD_INFO* info) {
  uint64_t offset = 0;
  uint64_t size = 0;
  if (count != 3 || !ToUInt64(fields[1], &offset) || !ToUInt64(fields[2], &size)) return false;
  info->offset = offset;
  info->size = size;
  info->loaded = true;
  TW_LOGD("%s offset: [%zu], size: [%zu]", fields[0], static_cast<size_t>(offset),
          static_cast<size_t>(size));
  return true;
}

// Sets FIELD's offset, then its size, in a message's or a trace's field map, whose keys and array
// live in `arena`. A missing size (null) fails like one that does not convert; the offset stays
// written either way.
bool CollectMemberField(FrameDecoder::FieldMap& members, std::pmr::memory_resource* arena,
                        const char* field, const char* offsetText, const char* sizeText) {
  uint64_t offset = 0;
  if (!ToUInt64(offsetText, &offset)) return false;
  std::string_view name(field);
  auto it = members.find(name);
  FIELD_INFO* info = it != members.end() ? &it->second : nullptr;
  if (info == nullptr) {
    // The key must outlive the line: copy it where the map itself lives.
    const uint32_t order = static_cast<uint32_t>(members.size());
    info = members.Emplace(CopyName(name, arena), arena).first;
    info->order = order;
  }
  info->offset = offset;
  uint64_t size = 0;
  if (sizeText == nullptr) {
    TW_LOGE("Failed to convert [%s] to uint64_t.", "");
    return false;
  }
  if (!ToUInt64(sizeText, &size)) return false;
  info->size = size;
  info->loaded = true;
  return true;
}

}  // namespace

template <typename Record>
std::pair<Record*, bool> FrameDecoder::EmplaceRecord(FlatTable<uint64_t, Record>& table,
                                                     uint64_t id, const char* name) {
  auto inserted = m_load ? m_load->Of(table).Emplace(table, id) : table.Emplace(id, &m_arena);
  if (inserted.second && name != nullptr) inserted.first->name = CopyName(name, &m_arena);
  return inserted;
}

void FrameDecoder::InsertName(NameMap& names, const char* name, const LayoutName& recordName,
                              uint64_t id) {
  std::string_view text(name);
  // Another name for a known id (or a name only the name map keeps) needs a copy of its own.
  names.Add(text == recordName ? std::string_view(recordName) : CopyName(text, &m_arena), id);
}

// The first definition of a message wins; only a new message enters the name map.
FrameDecoder::FIELD_EM& FrameDecoder::InsertMessage(FrameDecoder* decoder, uint64_t id,
                                                    const char* name) {
  auto inserted = decoder->EmplaceRecord(decoder->m_msgs, id, name);
  if (inserted.second) {
    decoder->InsertName(decoder->m_msgIDsByName, name, inserted.first->name, id);
  }
  return *inserted.first;
}

// One NAME(ID) line into an ID map and its name map, both insert-if-absent.
template <typename Record>
bool FrameDecoder::CollectNamedID(char** fields, size_t count, FrameDecoder* decoder,
                                  FlatTable<uint64_t, Record>& byID, NameMap& byName) {
  const char* name = nullptr;
  uint64_t id = 0;
  if (fields == nullptr || count != 1 || !SplitNameAndID(fields[0], &name, &id)) return false;
  auto inserted = decoder->EmplaceRecord(byID, id, name);
  decoder->InsertName(byName, name, inserted.first->name, id);
  return true;
}

bool FrameDecoder::CollectPeerInfo(char** fields, size_t count, FrameDecoder* decoder,
                                   bool withHeaderSize, const char* collector) {
  if (fields == nullptr || count == 0 || decoder == nullptr) {
    TW_LOGE("%s failed. Field count [%zu] == 0", collector, count);
    return false;
  }
  if (strcmp(fields[0], "MSG_PEERSIZE_OFFSET") == 0) {
    return CollectFieldInfo(fields, count, &decoder->m_peerSize);
  }
  if (withHeaderSize && strcmp(fields[0], "MSG_PEER_HEADER_SIZE") == 0) {
    uint64_t size = 0;
    if (count != 2 || !ToUInt64(fields[1], &size)) return false;
    decoder->m_peerHeaderSize = {size, true};
    TW_LOGD("MSG_PEER_HEADER_SIZE offset: size: [%zu]", static_cast<size_t>(size));
    return true;
  }
  if (count != 3) {
    TW_LOGW("%s skip the line with token count = %zu.", collector, count);
    return true;
  }
  const char* name = nullptr;
  uint64_t id = 0;
  if (!SplitNameAndID(fields[0], &name, &id)) return false;
  FIELD_EM& message = InsertMessage(decoder, id, name);
  if (strcmp(fields[1], "PEER_OFFSET") == 0) {
    // Deliberately unchecked: an unreadable offset reads as 0, as it always has.
    message.peerOffset = static_cast<int32_t>(strtol(fields[2], nullptr, 10));
    message.peerHeader = withHeaderSize;
  }
  return true;
}

bool FrameDecoder::OTAInfoCollector(char** fields, size_t count, FrameDecoder* decoder,
                                    uintptr_t /*user*/) {
  if (fields == nullptr || count == 0 || decoder == nullptr) return false;
  if (strcmp(fields[0], "OTA_TRACE_ID_OFFSET") == 0) {
    return CollectFieldInfo(fields, count, &decoder->m_otaTraceID);
  }
  if (strcmp(fields[0], "OTA_SIM_IDX_OFFSET") == 0) {
    return CollectFieldInfo(fields, count, &decoder->m_otaSIMIdx);
  }
  if (count != 3 && count != 4) return false;
  const char* name = nullptr;
  uint64_t traceID = 0;
  if (!SplitNameAndID(fields[0], &name, &traceID)) return false;
  FIELD_TRACE& trace = *decoder->EmplaceRecord(decoder->m_otaTraces, traceID, name).first;
  if (strcmp(fields[1], "OTA_MSG_OFFSET") == 0) {
    uint64_t offset = 0;
    if (!ToUInt64(fields[2], &offset)) return false;
    trace.msgOffset = offset;
  } else if (!CollectMemberField(trace.fields, &decoder->m_arena, fields[1], fields[2],
                                 count == 4 ? fields[3] : nullptr)) {
    return false;
  }
  decoder->InsertName(decoder->m_otaTraceIDsByName, name, trace.name, traceID);
  return true;
}

bool FrameDecoder::GlobalIDCollector(char** fields, size_t count, FrameDecoder* decoder,
                                     uintptr_t /*user*/) {
  if (decoder == nullptr) return false;
  return CollectNamedID(fields, count, decoder, decoder->m_globalIDs, decoder->m_globalIDsByName);
}

bool FrameDecoder::MsgInfoCollector(char** fields, size_t count, FrameDecoder* decoder,
                                    uintptr_t /*user*/) {
  if (fields == nullptr || count == 0 || decoder == nullptr) return false;
  if (strcmp(fields[0], "MSG_ID_OFFSET") == 0) {
    return CollectFieldInfo(fields, count, &decoder->m_msgID);
  }
  if (strcmp(fields[0], "SIM_IDX_OFFSET") == 0) {
    return CollectFieldInfo(fields, count, &decoder->m_msgSIMIdx);
  }
  const char* name = nullptr;
  uint64_t id = 0;
  if (count != 4 || !SplitNameAndID(fields[0], &name, &id)) return false;
  FIELD_EM& message = InsertMessage(decoder, id, name);
  return CollectMemberField(message.fields, &decoder->m_arena, fields[1], fields[2], fields[3]);
}

bool FrameDecoder::SIMInfoCollector(char** fields, size_t count, FrameDecoder* decoder,
                                    uintptr_t user) {
  if (fields == nullptr || count == 0 || decoder == nullptr || user == 0) return false;
  if (decoder->m_simMsgSets.size() < user + 1) decoder->m_simMsgSets.resize(user + 1);
  uint64_t id = 0;
  if (!ToUInt64(fields[0], &id)) return false;
  decoder->m_simMsgSets[user].insert(id);
  return true;
}

bool FrameDecoder::IPInfoTraceIDCollector(char** fields, size_t count, FrameDecoder* decoder,
                                          uintptr_t /*user*/) {
  if (decoder == nullptr) return false;
  return CollectNamedID(fields, count, decoder, decoder->m_ipTraceIDs, decoder->m_ipTraceIDsByName);
}

bool FrameDecoder::PeerInfoCollector(char** fields, size_t count, FrameDecoder* decoder,
                                     uintptr_t /*user*/) {
  return CollectPeerInfo(fields, count, decoder, true, "PeerInfoCollector");
}

bool FrameDecoder::PeerInfoWithoutHeaderCollector(char** fields, size_t count,
                                                  FrameDecoder* decoder, uintptr_t /*user*/) {
  return CollectPeerInfo(fields, count, decoder, false, "PeerInfoWithoutHeaderCollector");
}

bool FrameDecoder::MsgEMIDMappingCollector(char** fields, size_t count, FrameDecoder* decoder,
                                           uintptr_t /*user*/) {
  if (fields == nullptr || count != 2 || decoder == nullptr) {
    TW_LOGE("MsgEMIDMappingCollector failed. Field count [%zu] != 2", count);
    return false;
  }
  uint64_t key = 0;
  uint64_t value = 0;
  if (!ToUInt64(fields[0], &key) || !ToUInt64(fields[1], &value)) return false;
  decoder->m_msgEMIDMapping.emplace(key, value);
  return true;
}

bool FrameDecoder::EMFilterInfoCollector(char** fields, size_t count, FrameDecoder* decoder,
                                         uintptr_t /*user*/) {
  if (fields == nullptr || count == 0 || decoder == nullptr) {
    TW_LOGE("EMFilterInfoCollector failed. Field count [%zu] == 0", count);
    return false;
  }
  ModemEMFilterInfo& info = decoder->m_modemEMFilterInfo;
  const struct {
    const char* key;
    OptionalNumber* slot;
    const char* label;
  } kKeys[] = {
      {"EM_UPDATE_INFO_STATUS_SIZE", &info.emFilterFieldLength,
       "m_modemEMFilterInfo.emFilterFieldLength"},
      {"EM_UPDATE_INFO_REQ_OFFSET_1", &info.emFilterOffset[0],
       "m_modemEMFilterInfo.emFilterOffsetSim1"},
      {"EM_UPDATE_INFO_REQ_OFFSET_2", &info.emFilterOffset[1],
       "m_modemEMFilterInfo.emFilterOffset[1]"},
      {"EM_UPDATE_INFO_REQ_OFFSET_3", &info.emFilterOffset[2],
       "m_modemEMFilterInfo.emFilterOffset[2]"},
      {"EM_UPDATE_INFO_REQ_OFFSET_4", &info.emFilterOffset[3],
       "m_modemEMFilterInfo.emFilterOffset[3]"},
      {"EM_UPDATE_INFO_REQ_ARRAY_NUM", &info.emFilterTotalEMNumber,
       "m_modemEMFilterInfo.emFilterTotalEMNumber"},
  };
  for (const auto& key : kKeys) {
    if (strcmp(fields[0], key.key) != 0) continue;
    if (count != 2) return true;  // a known key without exactly one value is ignored
    uint64_t value = 0;
    if (!ToUInt64(fields[1], &value)) return false;
    *key.slot = {value, true};
    TW_LOGW("%s = [%lu]", key.label, static_cast<unsigned long>(value));
    return true;
  }
  TW_LOGW("EMFilterInfoCollector skip the unkonown token string [%s]", fields[0]);
  return true;
}

bool FrameDecoder::ProtocolVersionInfoCollector(char** fields, size_t count, FrameDecoder* decoder,
                                                uintptr_t /*user*/) {
  const char* key = nullptr;
  uint64_t value = 0;
  if (fields == nullptr || count != 1 || decoder == nullptr ||
      !SplitNameAndID(fields[0], &key, &value)) {
    return false;
  }
  ProtocolVersions& v = decoder->m_protocolVersions;
  const struct {
    const char* key;
    OptionalNumber* slot;
    const char* label;
  } kKeys[] = {
      {"EMAC_MAJOR_VERSION", &v.mac.major, "MAC major"},
      {"EMAC_MINOR_VERSION", &v.mac.minor, "MAC minor"},
      {"EMAC_RELEASE_VERSION", &v.mac.release, "MAC release"},
      {"EPDCP_MAJOR_VERSION", &v.pdcp.major, "PDCP major"},
      {"EPDCP_MINOR_VERSION", &v.pdcp.minor, "PDCP minor"},
      {"EPDCP_RELEASE_VERSION", &v.pdcp.release, "PDCP release"},
      {"ERLC_MAJOR_VERSION", &v.rlc.major, "RLC major"},
      {"ERLC_MINOR_VERSION", &v.rlc.minor, "RLC minor"},
      {"ERLC_RELEASE_VERSION", &v.rlc.release, "RLC release"},
      {"NAS_MAJOR_VERSION", &v.nas.major, "NAS major"},
      {"NAS_MINOR_VERSION", &v.nas.minor, "NAS minor"},
      {"NAS_RELEASE_VERSION", &v.nas.release, "NAS release"},
      {"RRC_MAJOR_VERSION", &v.rrc.major, "RRC major"},
      {"RRC_MINOR_VERSION", &v.rrc.minor, "RRC minor"},
      {"RRC_RELEASE_VERSION", &v.rrc.release, "RRC release"},
  };
  for (const auto& row : kKeys) {
    if (strcmp(key, row.key) != 0) continue;
    *row.slot = {value, true};
    TW_LOGD("%s version [%ld]", row.label, static_cast<long>(value));
    break;
  }
  return true;  // unknown keys belong to newer modems and are ignored
}

bool FrameDecoder::TimeInfoCollector(char** fields, size_t count, FrameDecoder* decoder,
                                     uintptr_t /*user*/) {
  if (fields == nullptr || count == 0 || decoder == nullptr) {
    TW_LOGE("TimeInfoCollector failed. Field count [%zu] == 0", count);
    return false;
  }
  static constexpr char kKey[] = "TIMESTAMP_PRECISION";
  if (strncmp(fields[0], kKey, sizeof(kKey) - 1) != 0) {
    TW_LOGW("TimeInfoCollector skip the unkonown token string [%s]", fields[0]);
    return true;
  }
  if (count > 1) {
    TW_LOGW("TimeInfoCollector skip the unkonown precision token[1] [%s]", fields[1]);
    return true;
  }
  const char* name = nullptr;
  uint64_t precision = 0;
  if (!SplitNameAndID(fields[0], &name, &precision)) return false;
  decoder->m_modemTimeInfo.timeStampPrecision = {precision, true};
  TW_LOGW("TimeInfoCollector, m_modemTimeInfo.timeStampPrecision = [%lu]",
          static_cast<unsigned long>(precision));
  return true;
}

}  // namespace libtidewatch
