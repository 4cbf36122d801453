// One file a capture writes, or its standard output: whole writes that a stalled reader cannot
// hold forever. On a pipe or a socket the writes do not block; they wait for room in short polls,
// so that a reader that goes away is seen at once and a stop can give up on one that stalls.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

namespace capture {

class OutputFile {
 public:
  enum Result { kOk, kReaderGone, kFailed, kGaveUp };

  OutputFile() = default;
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  // Creates or truncates `path` ("-": standard output, left open at the close). False with a
  // message naming the path when it cannot be created.
  bool Open(const std::string& path, std::string* error);

  // Writes all `size` bytes. When the reader of a pipe has no room, it waits; once `*stopping` is
  // set and no byte went out for `giveUpMs`, it gives up (kGaveUp). kReaderGone when the reader of
  // a pipe or socket has closed it; kFailed with `*error` for any other failure (a full disk).
  Result Write(const char* data, size_t size, const std::atomic<bool>& stopping, int giveUpMs,
               std::string* error);

  // For a pipe or a socket: whether its reader has gone, found without writing.
  bool ReaderGone() const;

  // Closes the file; false with `*error` when the close reported a failure.
  bool Close(std::string* error);

  const std::string& name() const { return m_name; }

 private:
  int m_fd = -1;
  bool m_ownsFd = false;
  bool m_stream = false;  // a pipe or a socket: non-blocking writes while it is open
  int m_savedFlags = -1;  // the descriptor's flags before, restored at the close
  std::string m_name;     // for messages: the path, or "standard output"
};

}  // namespace capture
