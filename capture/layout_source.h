// Finds and loads the layout description file that names the captured messages: the one given on
// the command line, else the one the system properties choose (a device's modem image), else
// resources/twd_layout_desc.dat in the working directory, else the repository's sample.
#pragma once

#include <memory>
#include <string>

#include "libtidewatch/trap/frame_decoder.h"

namespace capture {

struct LoadedLayout {
  std::unique_ptr<libtidewatch::FrameDecoder> decoder;  // never null after a successful load
  std::string path;  // where it came from; empty when no file was found (every name unknown)
};

// `explicitPath` empty means search. `samplePath` (may be null) is the last place to look. False
// with `*error` set when a file that was given or found does not load; finding no file at all is
// not an error (the layout is then empty). Library log lines are taken while a file loads (their
// last error becomes `*error`); the log sink is left unset afterwards.
bool LoadLayout(const std::string& explicitPath, const char* samplePath, LoadedLayout* layout,
                std::string* error);

}  // namespace capture
