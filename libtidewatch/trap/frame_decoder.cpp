// FrameDecoder's reading of a layout description file: each data line goes to the collector of its
// section (frame_decoder_collectors.cpp), and what a load staged is put into the tables at its end.
#include "libtidewatch/trap/frame_decoder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "libtidewatch/platform/log.h"
#include "libtidewatch/trap/frame_decoder_load_state.h"
#include "libtidewatch/trap/layout_line_reader.h"

namespace libtidewatch {
namespace {

// A data line is cut to this size (with its NUL) before it is split.
constexpr size_t kLineCopySize = 32678;

struct Section {
  const char* name;
  FrameDecoder::Collector collector;
  uintptr_t user;
};

const Section kSections[] = {
    {"OTA_INFO", FrameDecoder::OTAInfoCollector, 0},
    {"GLOBAL_ID", FrameDecoder::GlobalIDCollector, 0},
    {"MSG_INFO", FrameDecoder::MsgInfoCollector, 0},
    {"SIM2_INFO", FrameDecoder::SIMInfoCollector, 2},
    {"SIM3_INFO", FrameDecoder::SIMInfoCollector, 3},
    {"SIM4_INFO", FrameDecoder::SIMInfoCollector, 4},
    {"IP_PACKET_INFO_TRACE_ID", FrameDecoder::IPInfoTraceIDCollector, 0},
    {"PEER_INFO", FrameDecoder::PeerInfoCollector, 0},
    {"PEER_INFO_WITHOUT_HEADER", FrameDecoder::PeerInfoWithoutHeaderCollector, 0},
    {"MSG_EM_ID_MAPPING", FrameDecoder::MsgEMIDMappingCollector, 0},
    {"EM_FILTER_INFO", FrameDecoder::EMFilterInfoCollector, 0},
    {"3GPP_VERSION_INFO", FrameDecoder::ProtocolVersionInfoCollector, 0},
    {"TIME_INFO", FrameDecoder::TimeInfoCollector, 0},
};

const Section* FindSection(const char* name) {
  for (const Section& section : kSections) {
    if (strcmp(name, section.name) == 0) return &section;
  }
  return nullptr;
}

}  // namespace

FrameDecoder::FrameDecoder() = default;
FrameDecoder::~FrameDecoder() = default;

void FrameDecoder::FinishLoad() {
  m_load->traces.MergeInto(m_otaTraces, &m_arena);
  m_load->globalIDs.MergeInto(m_globalIDs, &m_arena);
  m_load->msgs.MergeInto(m_msgs, &m_arena);
  m_load->ipTraces.MergeInto(m_ipTraceIDs, &m_arena);
  m_load.reset();
}

bool FrameDecoder::LoadFromDESC(const char* path) {
  if (path == nullptr) {
    TW_LOGE("Bad parameter for LoadFromDESC. szPath is NULL.");
    return false;
  }
  // Non-blocking, so that opening a FIFO does not wait for a writer: only a regular file is read,
  // as a device (/dev/zero) or a pipe could feed the reader without end or block it for ever.
  int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) {
    int err = errno;
    TW_LOGE("Failed to open [%s]. errno = [%d] (%s)", path, err, strerror(err));
    return false;
  }
  struct stat info;
  if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    TW_LOGE("Failed to open [%s]: not a regular file", path);
    close(fd);
    return false;
  }

  // Data lines are split in a copy so that a failure can still log the line as it was read.
  std::unique_ptr<char[]> copy(new char[kLineCopySize]);
  LayoutLineReader reader(fd);
  char* line = nullptr;
  size_t got = 0;
  const Section* section = nullptr;
  bool ok = true;
  m_load.reset(new LoadState(&m_arena));
  while (reader.Next(&line, &got)) {
    // A NUL inside a line ends it, as for every C-string reader of the file.
    size_t length = strnlen(line, got);
    char* text = LayoutLineReader::Trim(line, length);
    if (length == 0) continue;
    if (text[0] == '#') {
      section = FindSection(text + 1);
      if (section == nullptr) TW_LOGD("Will not parse section [%s]", text);
      continue;
    }
    if (section == nullptr) continue;

    size_t copyLength = std::min(length, kLineCopySize - 1);
    memcpy(copy.get(), text, copyLength);
    copy[copyLength] = '\0';
    char* fields[kMaxFields];
    size_t count = LayoutLineReader::SplitFields(copy.get(), copyLength, fields, kMaxFields);
    if (count == 0) continue;
    if (!section->collector(fields, count, this, section->user)) {
      TW_LOGE("Failed to collect information [%s]", text);
      ok = false;
      break;
    }
  }

  FinishLoad();

  if (ok) {
    static const struct {
      const FIELD_INFO FrameDecoder::*member;
      const char* name;
    } kMandatory[] = {{&FrameDecoder::m_otaTraceID, "m_otaTraceID"},
                      {&FrameDecoder::m_otaSIMIdx, "m_otaSIMIdx"},
                      {&FrameDecoder::m_msgID, "m_msgID"},
                      {&FrameDecoder::m_msgSIMIdx, "m_msgSIMIdx"}};
    for (const auto& mandatory : kMandatory) {
      if (!(this->*mandatory.member).loaded) {
        TW_LOGE("%s wasn't loaded!", mandatory.name);
        ok = false;
        break;
      }
    }
  }
  if (ok) {
    TW_LOGD("Load Layout DESC [%s] successfully.", path);
    for (size_t sim = 2; sim < m_simMsgSets.size(); ++sim) {
      TW_LOGD("SIM%zu => %zu\n", sim, m_simMsgSets[sim].size());
    }
  }

  if (close(fd) != 0) TW_LOGE("LoadFromDESC Failed to close file fp, errno=%d", errno);
  return ok;
}

}  // namespace libtidewatch
