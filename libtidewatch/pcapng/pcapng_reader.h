// Reads a capture file back: walks its pcapng blocks, checks every length, and gives back each
// trap as a CapturedTrap whose names, fields and bytes are views into the reader's block buffer.
// Any input is safe to read; the first damage ends the walk with an error naming the block (its
// number from 1 and type) and its byte offset, after every trap before it was given back.
//
// Packets of other interfaces than ours (a file merged with other traffic) and block types it
// does not need are skipped. Sections must be little-endian, as this library writes them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "libtidewatch/pcapng/pcapng_writer.h"
#include "libtidewatch/trap/captured_trap.h"

namespace libtidewatch {

class PcapngReader {
 public:
  enum Status { kTrap, kEnd, kError };

  PcapngReader() = default;
  ~PcapngReader();
  PcapngReader(const PcapngReader&) = delete;
  PcapngReader& operator=(const PcapngReader&) = delete;

  // Reads the file at `path` ("-": standard input). False with a message when it cannot be opened.
  bool Open(const std::string& path, std::string* error);
  // Reads `size` bytes of memory, which must outlive the reader.
  void OpenBuffer(const uint8_t* data, size_t size);

  // The next trap into `*trap`; kEnd after the last one, kError (see error()) on damage. The views
  // in `*trap` stay valid until the next call or the reader's end.
  Status Next(CapturedTrap* trap);

  const std::string& error() const { return m_error; }
  // Whether the error is only that the input ends inside a block, as a file does when its writer
  // was killed: everything before it is whole.
  bool cutShort() const { return m_cutShort; }
  // Traps the capture itself lost just before the last trap given back.
  uint32_t toolDrops() const { return m_toolDrops; }
  // The writing program named by the last section header (shb_userappl), empty when none.
  const std::string& userAppl() const { return m_userAppl; }
  // The figures of the last Interface Statistics Block read; hasStats() is false before one.
  bool hasStats() const { return m_hasStats; }
  const PcapngSectionStats& stats() const { return m_stats; }

 private:
  struct Interface {
    bool ours = false;
    uint64_t unitsPerSecond = 1000000;
  };

  // Makes `n` bytes from the current block's start readable at Data(); false when fewer remain.
  bool Fill(size_t n);
  const uint8_t* Data() const;
  size_t Available() const;
  void Consume(size_t n);

  Status Fail(uint32_t type, const std::string& what);
  bool ReadSectionHeader(const uint8_t* b, uint32_t length);
  bool ReadInterface(const uint8_t* b, uint32_t length);
  bool ReadStatistics(const uint8_t* b, uint32_t length);
  // kTrap when the block held one of our traps, kEnd when it was skipped.
  Status ReadPacket(const uint8_t* b, uint32_t length, CapturedTrap* trap);
  bool ReadTrapHeader(const uint8_t* data, uint32_t size, CapturedTrap* trap);
  int64_t ToMicros(const Interface& itf, uint64_t units) const;

  // Input: memory (m_mem) or a file descriptor read through m_buf.
  int m_fd = -1;
  bool m_ownsFd = false;
  const uint8_t* m_mem = nullptr;
  size_t m_memSize = 0;
  std::vector<uint8_t> m_buf;
  size_t m_pos = 0;  // the current block's start in the memory or in m_buf
  size_t m_end = 0;  // bytes of m_buf filled
  bool m_eof = false;

  uint64_t m_offset = 0;  // the current block's byte offset in the file
  uint64_t m_block = 0;   // the current block's number, from 1
  bool m_inSection = false;
  bool m_failed = false;
  bool m_cutShort = false;
  std::vector<Interface> m_interfaces;
  std::string m_error;
  std::string m_readError;  // why the input ended early, when a read failed
  std::string m_userAppl;
  uint32_t m_toolDrops = 0;
  bool m_hasStats = false;
  PcapngSectionStats m_stats;
};

}  // namespace libtidewatch
