// FrameDecoder's cache, the search for the layout file and the reading of the file into fields;
// what each section's fields mean is in frame_decoder_collectors.cpp.
#include "libtidewatch/trap/frame_decoder.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <vector>

#include "libtidewatch/platform/log.h"

namespace libtidewatch {
namespace {

// A data line is cut to this size (with its NUL) before it is split.
constexpr size_t kLineCopySize = 32678;
constexpr char kKelpieFolder[] = "/data/vendor/kelpie/";
constexpr char kMddbFolder[] = "/vendor/etc/mddb";
constexpr char kThinModemFolder[] = "/data/vendor/kelpie";

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

// Only these three: a carriage return is deliberately kept and ends up in the last field.
inline bool IsTrimmed(char c) { return c == ' ' || c == '\t' || c == '\n'; }

// Trims the `length` characters at `text` in place; returns the start and updates `length`.
char* Trim(char* text, size_t& length) {
  while (length > 0 && IsTrimmed(text[length - 1])) --length;
  text[length] = '\0';
  size_t lead = 0;
  while (lead < length && IsTrimmed(text[lead])) ++lead;
  length -= lead;
  return text + lead;
}

// Splits `line` (`length` characters) at every comma into trimmed, non-empty fields. Fields past
// the array's end are ignored: no collector reads that far, and a line is not worth failing for it.
size_t SplitFields(char* line, size_t length, char** fields) {
  size_t count = 0;
  char* end = line + length;
  char* piece = line;
  while (count < FrameDecoder::kMaxFields) {
    char* comma = static_cast<char*>(memchr(piece, ',', static_cast<size_t>(end - piece)));
    char* pieceEnd = comma != nullptr ? comma : end;
    size_t pieceLength = static_cast<size_t>(pieceEnd - piece);
    char* field = Trim(piece, pieceLength);
    if (pieceLength > 0) fields[count++] = field;
    if (comma == nullptr) break;
    piece = comma + 1;
  }
  return count;
}

// Reads a file line by line through one buffer that grows to hold the longest line, so a line is
// never cut while it is read. Cheaper per line than stdio, which matters on files of 100k lines.
class LineReader {
 public:
  explicit LineReader(int fd) : fd_(fd), buffer_(kInitialSize) {}

  // The next line without its line feed, NUL-terminated in place and writable until the next
  // call. False at the end of the file; a read error ends the file too.
  bool Next(char** line, size_t* length) {
    for (;;) {
      char* begin = buffer_.data() + begin_;
      // Resume where the last search stopped, so a long line is scanned once.
      char* newline = static_cast<char*>(memchr(buffer_.data() + scanned_, '\n', end_ - scanned_));
      if (newline != nullptr) {
        *newline = '\0';
        *line = begin;
        *length = static_cast<size_t>(newline - begin);
        begin_ += *length + 1;
        scanned_ = begin_;
        return true;
      }
      scanned_ = end_;
      if (eof_) {
        if (begin_ == end_) return false;
        buffer_[end_] = '\0';  // Fill keeps a byte free for this
        *line = begin;
        *length = end_ - begin_;
        begin_ = scanned_ = end_;
        return true;
      }
      Fill();
    }
  }

 private:
  static constexpr size_t kInitialSize = 64 * 1024;

  void Fill() {
    if (begin_ > 0) {
      memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
      end_ -= begin_;
      scanned_ -= begin_;
      begin_ = 0;
    }
    if (end_ + 1 >= buffer_.size()) buffer_.resize(buffer_.size() * 2);
    ssize_t n;
    do {
      n = read(fd_, buffer_.data() + end_, buffer_.size() - 1 - end_);
    } while (n < 0 && errno == EINTR);
    if (n <= 0) {
      eof_ = true;
    } else {
      end_ += static_cast<size_t>(n);
    }
  }

  int fd_;
  std::vector<char> buffer_;
  size_t begin_ = 0;    // start of the next line
  size_t scanned_ = 0;  // searched for a line feed up to here
  size_t end_ = 0;      // end of the bytes read
  bool eof_ = false;
};

// The process-wide cache. Never destroyed: decoders handed out must outlive every thread that may
// still use them while the process exits.
struct DecoderCache {
  std::shared_mutex mutex;
  std::map<std::string, FrameDecoder*, std::less<>> decoders;
};

DecoderCache& Cache() {
  static DecoderCache* cache = new DecoderCache;
  return *cache;
}

}  // namespace

FrameDecoder* FrameDecoder::GetInstance(const char* layoutDescPath) {
  const char* key = layoutDescPath != nullptr ? layoutDescPath : "NULL";
  DecoderCache& cache = Cache();
  {
    // Readers share the lock, so lookups of loaded decoders never wait for each other; they only
    // wait while a first load of some file is running.
    std::shared_lock<std::shared_mutex> lock(cache.mutex);
    auto it = cache.decoders.find(key);
    if (it != cache.decoders.end()) return it->second;
  }
  std::unique_lock<std::shared_mutex> lock(cache.mutex);
  auto it = cache.decoders.find(key);
  if (it != cache.decoders.end()) return it->second;

  // Loading under the lock makes two threads asking for the same file load it once.
  FrameDecoder* decoder = new FrameDecoder;
  TW_LOGD("LayoutDescPath = [%s]", key);
  if (layoutDescPath != nullptr) {
    if (!decoder->LoadFromDESC(layoutDescPath)) {
      TW_LOGE("Failed to load layout description file: [%s]", layoutDescPath);
    }
  } else {
    decoder->LoadFromDefaultLocation();
  }
  // A failed load is cached as well: a later call with the same key never retries.
  cache.decoders.emplace(key, decoder);
  return decoder;
}

bool FrameDecoder::LoadFromDefaultLocation() {
  char path[kLayoutPathSize] = {};
  if (checkSysPropEq("ro.vendor.vlr_single_bin_modem_support", "1", "0")) {
    if (!SearchLayoutFile(kKelpieFolder, path, sizeof(path))) {
      TW_LOGE("Failed to find layout file in folder [%s].", kKelpieFolder);
    }
  } else {
    char folder[128];
    snprintf(folder, sizeof(folder), "%s", kMddbFolder);
    if (checkSysPropEq("ro.vendor.vlr_thin_md_twd_channel", "1", "0")) {
      TW_LOGI("ThinModem project.change path to ThinModem");
      snprintf(folder, sizeof(folder), "%.127s", kThinModemFolder);
    }
    if (!SearchLayoutFile(folder, path, sizeof(path))) {
      // The text names the usual folder whichever one was searched; it is kept fixed on purpose.
      TW_LOGE("Failed to find layout file in folder [%s].", kMddbFolder);
    }
  }
  // Logged even when nothing was found; the empty path then fails to open, which says so.
  TW_LOGD("Layout file [%s] was found!", path);
  if (!LoadFromDESC(path)) {
    TW_LOGE("Failed to load layout description file: [%s]", path);
    return false;
  }
  return true;
}

bool FrameDecoder::SearchLayoutFile(const char* dir, char* buffer, size_t bufferSize) {
  if (buffer == nullptr) {
    TW_LOGE("Bad parameters. buffer = [%p], bufferSize = [%zu]", static_cast<void*>(buffer),
            bufferSize);
    return false;
  }
  const char* folder = dir != nullptr ? dir : kKelpieFolder;
  DIR* d = opendir(folder);
  if (d == nullptr) {
    int err = errno;
    TW_LOGE("Failed to opendir [%s]. err = [%s](%d)", folder, strerror(err), err);
    return false;
  }
  static constexpr char kPrefix[] = "twd_layout_desc";
  bool found = false;
  while (struct dirent* entry = readdir(d)) {
    const char* name = entry->d_name;
    if (strncmp(name, kPrefix, sizeof(kPrefix) - 1) != 0) continue;
    const char* extension = strrchr(name, '.');
    if (extension == nullptr || strcmp(extension, ".dat") != 0) continue;
    size_t bound = std::min(bufferSize, kLayoutPathSize);
    int written = snprintf(buffer, bound, "%s/%s", folder, name);
    if (written < 0 || static_cast<size_t>(written) >= bound) {
      TW_LOGE("snprintf  szSearchDir err=%d", written);
    }
    found = true;
    break;
  }
  closedir(d);
  return found;
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
  LineReader reader(fd);
  char* line = nullptr;
  size_t got = 0;
  const Section* section = nullptr;
  bool ok = true;
  m_queueNames = true;
  while (reader.Next(&line, &got)) {
    // A NUL inside a line ends it, as for every C-string reader of the file.
    size_t length = strnlen(line, got);
    char* text = Trim(line, length);
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
    size_t count = SplitFields(copy.get(), copyLength, fields);
    if (count == 0) continue;
    if (!section->collector(fields, count, this, section->user)) {
      TW_LOGE("Failed to collect information [%s]", text);
      ok = false;
      break;
    }
  }

  m_queueNames = false;
  MergePendingNames();

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
