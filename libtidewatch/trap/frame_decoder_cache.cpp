// FrameDecoder's process-wide cache of decoders, and the choice of the layout file from the
// system properties when no path is given.
#include <cstdio>
#include <map>
#include <mutex>
#include <shared_mutex>
#include <string>

#include "libtidewatch/api/monitor_types.h"
#include "libtidewatch/platform/log.h"
#include "libtidewatch/trap/frame_decoder.h"

namespace libtidewatch {
namespace {

constexpr char kKelpieFolder[] = "/data/vendor/kelpie/";
constexpr char kMddbFolder[] = "/vendor/etc/mddb";
constexpr char kThinModemFolder[] = "/data/vendor/kelpie";

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

}  // namespace libtidewatch
