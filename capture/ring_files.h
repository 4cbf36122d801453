// The files one capture writes: a single file (or standard output), or a ring of files of which a
// new one starts on request while the oldest are deleted beyond a count. A ring file is named after
// the path given, with its number from 1 and the local time it was started put before the
// extension: -w traps.pcapng gives traps_00001_20261123014500.pcapng, traps_00002_... and so on.
#pragma once

#include <time.h>

#include <cstdint>
#include <deque>
#include <string>

#include "capture/output_file.h"

namespace capture {

class RingFiles {
 public:
  // `ring` false: `path` itself (or standard output for "-"). `maxFiles` 0: keep every file.
  RingFiles(std::string path, bool ring, uint64_t maxFiles);

  // Closes the current file, if any, and opens the next one; in a ring, deletes the oldest files
  // beyond the count. False with `*error` when a file could not be closed or created.
  bool OpenNext(std::string* error);
  // Closes the current file.
  bool Close(std::string* error) { return m_file.Close(error); }

  OutputFile& file() { return m_file; }

  // The name of file `number` of a ring on `path`, started at `started`.
  static std::string RingName(const std::string& path, uint64_t number, time_t started);

 private:
  const std::string m_path;
  const bool m_ring;
  const uint64_t m_maxFiles;
  uint64_t m_number = 0;
  std::deque<std::string> m_kept;  // ring files on disk, oldest first
  OutputFile m_file;
};

}  // namespace capture
