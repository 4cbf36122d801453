// Reads a layout description file line by line and cuts a data line into its fields: the part
// of the file format that does not depend on sections.
#pragma once

#include <cstddef>
#include <vector>

namespace libtidewatch {

// Reads through one buffer that grows to hold the longest line, so a line is never cut while it is
// read. Cheaper per line than stdio, which matters on files of 100k lines. Does not own `fd`.
class LayoutLineReader {
 public:
  explicit LayoutLineReader(int fd);

  // The next line without its line feed, NUL-terminated in place and writable until the next
  // call. False at the end of the file; a read error ends the file too.
  bool Next(char** line, size_t* length);

  // Trims spaces, tabs and line feeds from both ends of the `length` characters at `text`, in
  // place; returns the start and updates `length`. A carriage return is deliberately kept.
  static char* Trim(char* text, size_t& length);
  // Splits `line` (`length` characters) at every comma into trimmed, non-empty fields, at most
  // `maxFields` of them: the fields past that are ignored. Returns the count.
  static size_t SplitFields(char* line, size_t length, char** fields, size_t maxFields);

 private:
  static constexpr size_t kInitialSize = 64 * 1024;

  void Fill();

  int fd_;
  std::vector<char> buffer_;
  size_t begin_ = 0;    // start of the next line
  size_t scanned_ = 0;  // searched for a line feed up to here
  size_t end_ = 0;      // end of the bytes read
  bool eof_ = false;
};

}  // namespace libtidewatch
