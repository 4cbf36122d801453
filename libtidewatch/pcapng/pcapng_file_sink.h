// Where encoded pcapng bytes go: a file (created or truncated) or standard output. Writes are
// whole buffers, retried until every byte is out, so that a file only ever ends inside a block
// when the process dies during a write.
#pragma once

#include <cstdint>
#include <string>

namespace libtidewatch {

class PcapngFileSink {
 public:
  PcapngFileSink() = default;
  ~PcapngFileSink();
  PcapngFileSink(const PcapngFileSink&) = delete;
  PcapngFileSink& operator=(const PcapngFileSink&) = delete;

  // Opens `path` for writing ("-": standard output, which Close leaves open). False with a
  // message naming the path when it cannot be created.
  bool Open(const std::string& path, std::string* error);

  // Writes all of `bytes`; false with a message on a write error (a full disk, a closed pipe).
  bool Write(const std::string& bytes, std::string* error);

  // Closes the file; false when the close reported an error (data that never reached the disk).
  bool Close(std::string* error);

  bool IsOpen() const { return m_fd >= 0; }
  const std::string& path() const { return m_path; }
  // Bytes written since Open, for ring files that start anew at a size.
  uint64_t BytesWritten() const { return m_written; }

 private:
  int m_fd = -1;
  bool m_ownsFd = false;
  std::string m_path;
  uint64_t m_written = 0;
};

}  // namespace libtidewatch
