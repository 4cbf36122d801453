#include "libtidewatch/trap/layout_line_reader.h"

#include <errno.h>
#include <unistd.h>

#include <cstring>

namespace libtidewatch {
namespace {

// Only these three: a carriage return is deliberately kept and ends up in the last field.
inline bool IsTrimmed(char c) { return c == ' ' || c == '\t' || c == '\n'; }

}  // namespace

LayoutLineReader::LayoutLineReader(int fd) : fd_(fd), buffer_(kInitialSize) {}

char* LayoutLineReader::Trim(char* text, size_t& length) {
  while (length > 0 && IsTrimmed(text[length - 1])) --length;
  text[length] = '\0';
  size_t lead = 0;
  while (lead < length && IsTrimmed(text[lead])) ++lead;
  length -= lead;
  return text + lead;
}

size_t LayoutLineReader::SplitFields(char* line, size_t length, char** fields, size_t maxFields) {
  size_t count = 0;
  char* end = line + length;
  char* piece = line;
  while (count < maxFields) {
    char* comma = static_cast<char*>(memchr(piece, ',', static_cast<size_t>(end - piece)));
    char* pieceEnd = comma != nullptr ? comma : end;
    size_t pieceLength = static_cast<size_t>(pieceEnd - piece);
    char* field = Trim(piece, pieceLength);
    if (pieceLength > 0) fields[count++] = field;
    if (comma == nullptr) break;
    piece = comma + 1;
  }
  return count;
}

bool LayoutLineReader::Next(char** line, size_t* length) {
  for (;;) {
    char* begin = buffer_.data() + begin_;
    // Resume where the last search stopped, so a long line is scanned once.
    char* newline = static_cast<char*>(memchr(buffer_.data() + scanned_, '\n', end_ - scanned_));
    if (newline != nullptr) {
      *newline = '\0';
      *line = begin;
      *length = static_cast<size_t>(newline - begin);
      begin_ += *length + 1;
      scanned_ = begin_;
      return true;
    }
    scanned_ = end_;
    if (eof_) {
      if (begin_ == end_) return false;
      buffer_[end_] = '\0';  // Fill keeps a byte free for this
      *line = begin;
      *length = end_ - begin_;
      begin_ = scanned_ = end_;
      return true;
    }
    Fill();
  }
}

void LayoutLineReader::Fill() {
  if (begin_ > 0) {
    memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
    end_ -= begin_;
    scanned_ -= begin_;
    begin_ = 0;
  }
  if (end_ + 1 >= buffer_.size()) buffer_.resize(buffer_.size() * 2);
  ssize_t n;
  do {
    n = read(fd_, buffer_.data() + end_, buffer_.size() - 1 - end_);
  } while (n < 0 && errno == EINTR);
  if (n <= 0) {
    eof_ = true;
  } else {
    end_ += static_cast<size_t>(n);
  }
}

}  // namespace libtidewatch
