// FrameDecoder's search of a folder for the layout description file.
#include <dirent.h>
#include <errno.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "libtidewatch/platform/log.h"
#include "libtidewatch/trap/frame_decoder.h"

namespace libtidewatch {
namespace {

constexpr char kKelpieFolder[] = "/data/vendor/kelpie/";

}  // namespace

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

}  // namespace libtidewatch
