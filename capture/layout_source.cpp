#include "capture/layout_source.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "libtidewatch/platform/log.h"

namespace capture {
namespace {

constexpr char kWorkingDirLayout[] = "resources/twd_layout_desc.dat";

// The library says why a file does not load in its error log; while a layout loads, the last
// message is kept for the user's error instead of being written on its own.
std::string g_lastLoadError;

void KeepLoadError(int priority, const char* /*tag*/, const char* text) {
  if (priority < libtidewatch::kLogError) return;
  g_lastLoadError = text;
  while (!g_lastLoadError.empty() && g_lastLoadError.back() == '\n') g_lastLoadError.pop_back();
}

bool IsRegularFile(const char* path) {
  struct stat st;
  return stat(path, &st) == 0 && S_ISREG(st.st_mode);
}

bool LoadFile(const std::string& path, LoadedLayout* layout, std::string* error) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) {
    *error = "layout file " + path + " does not load: " + strerror(errno);
    return false;
  }
  if (!S_ISREG(st.st_mode)) {
    *error = "layout file " + path + " does not load: not a regular file";
    return false;
  }
  auto decoder = std::make_unique<libtidewatch::FrameDecoder>();
  g_lastLoadError.clear();
  libtidewatch::SetLogSink(KeepLoadError);
  const bool loaded = decoder->LoadFromDESC(path.c_str());
  libtidewatch::SetLogSink(nullptr);
  if (!loaded) {
    *error = "layout file " + path + " does not load: " +
             (g_lastLoadError.empty() ? std::string("unreadable") : g_lastLoadError);
    return false;
  }
  layout->decoder = std::move(decoder);
  layout->path = path;
  return true;
}

}  // namespace

bool LoadLayout(const std::string& explicitPath, const char* samplePath, LoadedLayout* layout,
                std::string* error) {
  if (!explicitPath.empty()) return LoadFile(explicitPath, layout, error);

  // The system's own file, as the service's tool finds it; on a host there is none, and the
  // search's complaints are not the user's concern.
  libtidewatch::SetLogSink(KeepLoadError);
  auto system = std::make_unique<libtidewatch::FrameDecoder>();
  const bool systemLoaded = system->LoadFromDefaultLocation();
  libtidewatch::SetLogSink(nullptr);
  if (systemLoaded) {
    layout->decoder = std::move(system);
    layout->path = "(the layout the system properties choose)";
    return true;
  }
  if (IsRegularFile(kWorkingDirLayout)) return LoadFile(kWorkingDirLayout, layout, error);
  if (samplePath != nullptr && IsRegularFile(samplePath))
    return LoadFile(samplePath, layout, error);
  layout->decoder = std::make_unique<libtidewatch::FrameDecoder>();
  layout->path.clear();
  return true;
}

}  // namespace capture
