// Output bytes kept in memory and written to a file descriptor in large pieces: when the buffer
// grows past a threshold, and whenever the owner flushes (when no more traps are waiting), so that
// a reader of a pipe sees each trap at once while a burst costs few system calls.
#pragma once

#include <string>

namespace capture {

class OutputBuffer {
 public:
  // `fd` is not owned.
  explicit OutputBuffer(int fd);
  ~OutputBuffer() = default;
  OutputBuffer(const OutputBuffer&) = delete;
  OutputBuffer& operator=(const OutputBuffer&) = delete;

  // Text is appended here; call Wrote() after each piece so that a large backlog goes out early.
  std::string* text() { return &m_text; }
  void Wrote() {
    if (m_text.size() >= kHighWater) Flush();
  }
  // Writes everything out; false once a write has failed (the rest is dropped from then on),
  // except when the reader has gone away: that ends the output normally, as for `| head`.
  bool Flush();
  // Whether no more can be written, for either reason.
  bool failed() const { return m_failed; }

 private:
  static constexpr size_t kHighWater = 64 * 1024;

  int m_fd;
  std::string m_text;
  bool m_failed = false;
  bool m_readerGone = false;
};

}  // namespace capture
