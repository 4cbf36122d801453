// Passes on a pcapng byte stream that comes from a phone, whole blocks at a time. `adb exec-out`
// carries the phone tool's standard error on the same stream as its standard output, so what is
// not a well-formed block (a message instead of a capture, a note after it) is kept apart as text
// for the user, and Wireshark only ever gets complete blocks.
#pragma once

#include <cstddef>
#include <string>

namespace capture {

class PcapngRelay {
 public:
  // Takes `size` more bytes of the stream; appends every block they complete to `*blocks`.
  void Feed(const char* data, size_t size, std::string* blocks);

  // The stream has ended: bytes of a block it never completed, or too few to tell, become text.
  void End();

  // Whether a block has been passed on.
  bool started() const { return m_started; }
  // The stream stopped being pcapng (or never was): what followed, at most kMaxText bytes.
  bool inText() const { return m_inText; }
  const std::string& text() const { return m_text; }

  static constexpr size_t kMaxText = 4000;

 private:
  void ToText();

  std::string m_pending;  // the start of a block not yet complete
  bool m_started = false;
  bool m_inText = false;
  std::string m_text;
};

}  // namespace capture
