#include "libtidewatch/pcapng/pcapng_reader.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <utility>

#include "libtidewatch/pcapng/pcapng_format.h"

namespace libtidewatch {

namespace {

using namespace pcapng;  // NOLINT: the format's constants are this file's vocabulary

constexpr size_t kReadChunk = 256 * 1024;

const char* BlockName(uint32_t type) {
  switch (type) {
    case kSectionHeaderBlock:
      return "Section Header Block";
    case kInterfaceDescriptionBlock:
      return "Interface Description Block";
    case kSimplePacketBlock:
      return "Simple Packet Block";
    case kInterfaceStatisticsBlock:
      return "Interface Statistics Block";
    case kEnhancedPacketBlock:
      return "Enhanced Packet Block";
    default:
      return "block";
  }
}

// Walks the options of a block body: code, length, value padded to 4. False when one runs past
// the end; stops at opt_endofopt or the end.
template <class Visit>
bool WalkOptions(const uint8_t* p, size_t size, Visit visit) {
  size_t at = 0;
  while (size - at >= 4) {
    const uint16_t code = Get16(p + at);
    const uint16_t length = Get16(p + at + 2);
    if (code == kOptEndOfOpt) return true;
    if (Pad4(length) > size - at - 4) return false;
    visit(code, p + at + 4, length);
    at += 4 + Pad4(length);
  }
  return at == size;
}

uint64_t Time64(const uint8_t* p) { return static_cast<uint64_t>(Get32(p)) << 32 | Get32(p + 4); }

}  // namespace

PcapngReader::~PcapngReader() {
  if (m_ownsFd) close(m_fd);
}

bool PcapngReader::Open(const std::string& path, std::string* error) {
  if (path == "-") {
    m_fd = STDIN_FILENO;
    return true;
  }
  m_fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (m_fd < 0) {
    *error = "cannot open " + path + ": " + strerror(errno);
    return false;
  }
  m_ownsFd = true;
  return true;
}

void PcapngReader::OpenBuffer(const uint8_t* data, size_t size) {
  m_mem = data;
  m_memSize = data != nullptr ? size : 0;
}

const uint8_t* PcapngReader::Data() const {
  return m_fd >= 0 ? m_buf.data() + m_pos : m_mem + m_pos;
}

size_t PcapngReader::Available() const { return m_fd >= 0 ? m_end - m_pos : m_memSize - m_pos; }

void PcapngReader::Consume(size_t n) {
  m_pos += n;
  m_offset += n;
}

bool PcapngReader::Fill(size_t n) {
  if (Available() >= n) return true;
  if (m_fd < 0 || m_eof) return false;
  if (m_pos != 0) {
    memmove(m_buf.data(), m_buf.data() + m_pos, m_end - m_pos);
    m_end -= m_pos;
    m_pos = 0;
  }
  if (m_buf.size() < n || m_buf.size() < kReadChunk) m_buf.resize(std::max(n, kReadChunk));
  while (m_end < n) {
    const ssize_t got = read(m_fd, m_buf.data() + m_end, m_buf.size() - m_end);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) {
      if (got < 0) m_readError = std::string("read error: ") + strerror(errno);
      m_eof = true;
      return false;
    }
    m_end += static_cast<size_t>(got);
  }
  return true;
}

PcapngReader::Status PcapngReader::Fail(uint32_t type, const std::string& what) {
  m_failed = true;
  char where[160];
  // Type 0 is reserved: it stands for "no block type could be read".
  if (type == 0) {
    snprintf(where, sizeof where,
             "block %llu at byte offset %llu: ", static_cast<unsigned long long>(m_block),
             static_cast<unsigned long long>(m_offset));
  } else {
    snprintf(where, sizeof where, "block %llu (%s 0x%08X) at byte offset %llu: ",
             static_cast<unsigned long long>(m_block), BlockName(type), type,
             static_cast<unsigned long long>(m_offset));
  }
  m_error = where + what;
  if (!m_readError.empty() && what != m_readError) m_error += " (" + m_readError + ")";
  return kError;
}

PcapngReader::Status PcapngReader::Next(CapturedTrap* trap) {
  if (m_failed) return kError;
  while (true) {
    if (!Fill(1)) {
      if (!m_readError.empty()) {
        ++m_block;
        return Fail(0, m_readError);
      }
      if (m_block == 0) {
        ++m_block;
        return Fail(0, "the file is empty");
      }
      return kEnd;
    }
    ++m_block;
    if (!Fill(8)) {
      m_cutShort = m_readError.empty();
      return Fail(
          Available() >= 4 ? Get32(Data()) : 0,
          "the file ends inside the block header, after " + std::to_string(Available()) + " bytes");
    }
    const uint32_t type = Get32(Data());
    const uint32_t length = Get32(Data() + 4);
    if (type == kSectionHeaderBlock) {
      if (Fill(12) && Get32(Data() + 8) != kByteOrderMagic) {
        return Fail(type, Get32(Data() + 8) == 0x4D3C2B1A ? "big-endian sections are not read"
                                                          : "bad byte-order magic");
      }
    } else if (!m_inSection) {
      return Fail(type, "not a pcapng file (it does not start with a Section Header Block)");
    }
    if (length < 12 || length % 4 != 0) {
      return Fail(type, "bad block length " + std::to_string(length));
    }
    if (length > kMaxBlockLength) {
      return Fail(type, "block length " + std::to_string(length) + " is larger than " +
                            std::to_string(kMaxBlockLength));
    }
    if (!Fill(length)) {
      m_cutShort = m_readError.empty();
      return Fail(type, "the file ends inside the block, after " + std::to_string(Available()) +
                            " of its " + std::to_string(length) + " bytes");
    }
    const uint8_t* b = Data();
    if (Get32(b + length - 4) != length) {
      return Fail(type, "the trailing length " + std::to_string(Get32(b + length - 4)) +
                            " differs from the leading length " + std::to_string(length));
    }
    Status status = kEnd;
    bool ok = true;
    switch (type) {
      case kSectionHeaderBlock:
        ok = ReadSectionHeader(b, length);
        break;
      case kInterfaceDescriptionBlock:
        ok = ReadInterface(b, length);
        break;
      case kInterfaceStatisticsBlock:
        ok = ReadStatistics(b, length);
        break;
      case kEnhancedPacketBlock:
        status = ReadPacket(b, length, trap);
        ok = status != kError;
        break;
      default:
        break;  // blocks a trap reader does not need
    }
    if (!ok) return kError;
    Consume(length);
    if (status == kTrap) return kTrap;
  }
}

bool PcapngReader::ReadSectionHeader(const uint8_t* b, uint32_t length) {
  if (length < 28) return Fail(kSectionHeaderBlock, "too short"), false;
  if (Get16(b + 12) != 1) {
    return Fail(kSectionHeaderBlock,
                "major version " + std::to_string(Get16(b + 12)) + " is not 1"),
           false;
  }
  m_inSection = true;
  m_interfaces.clear();
  m_userAppl.clear();
  std::string appl;
  const bool ok = WalkOptions(b + 24, length - 28, [&](uint16_t code, const uint8_t* v, size_t n) {
    if (code == kShbUserAppl) appl.assign(reinterpret_cast<const char*>(v), n);
  });
  if (!ok) return Fail(kSectionHeaderBlock, "an option runs past the block's end"), false;
  m_userAppl = appl;
  return true;
}

bool PcapngReader::ReadInterface(const uint8_t* b, uint32_t length) {
  if (length < 20) return Fail(kInterfaceDescriptionBlock, "too short"), false;
  Interface itf;
  itf.ours = Get16(b + 8) == kLinkType;
  bool resolutionOk = true;
  const bool ok = WalkOptions(b + 16, length - 20, [&](uint16_t code, const uint8_t* v, size_t n) {
    if (code != kIfTsresol || n < 1) return;
    // Powers of ten up to nanoseconds-and-more; binary fractions are not written by anyone we read.
    if (v[0] > 18) {
      resolutionOk = false;
      return;
    }
    itf.unitsPerSecond = 1;
    for (int i = 0; i < v[0]; ++i) itf.unitsPerSecond *= 10;
  });
  if (!ok) return Fail(kInterfaceDescriptionBlock, "an option runs past the block's end"), false;
  if (!resolutionOk) return Fail(kInterfaceDescriptionBlock, "unsupported if_tsresol"), false;
  m_interfaces.push_back(itf);
  return true;
}

int64_t PcapngReader::ToMicros(const Interface& itf, uint64_t units) const {
  const uint64_t perSecond = itf.unitsPerSecond;
  uint64_t us;
  if (perSecond >= 1000000) {
    us = units / (perSecond / 1000000);
  } else {
    const uint64_t factor = 1000000 / perSecond;
    us = units > UINT64_MAX / factor ? UINT64_MAX : units * factor;
  }
  return us > static_cast<uint64_t>(INT64_MAX) ? INT64_MAX : static_cast<int64_t>(us);
}

bool PcapngReader::ReadStatistics(const uint8_t* b, uint32_t length) {
  if (length < 24) return Fail(kInterfaceStatisticsBlock, "too short"), false;
  const uint32_t id = Get32(b + 8);
  if (id >= m_interfaces.size()) {
    return Fail(kInterfaceStatisticsBlock, "interface " + std::to_string(id) + " is not described"),
           false;
  }
  const Interface& itf = m_interfaces[id];
  if (!itf.ours) return true;
  PcapngSectionStats stats;
  stats.endUs = ToMicros(itf, Time64(b + 12));
  const bool ok = WalkOptions(b + 20, length - 24, [&](uint16_t code, const uint8_t* v, size_t n) {
    if (n != 8) return;
    switch (code) {
      case kIsbStartTime:
        stats.startUs = ToMicros(itf, Time64(v));
        break;
      case kIsbEndTime:
        stats.endUs = ToMicros(itf, Time64(v));
        break;
      case kIsbIfDrop:
        stats.serviceDrops = Get64(v);
        break;
      case kIsbOsDrop:
        stats.toolDrops = Get64(v);
        break;
      case kIsbUsrDeliv:
        stats.written = Get64(v);
        break;
      default:
        break;
    }
  });
  if (!ok) return Fail(kInterfaceStatisticsBlock, "an option runs past the block's end"), false;
  m_stats = stats;
  m_hasStats = true;
  return true;
}

PcapngReader::Status PcapngReader::ReadPacket(const uint8_t* b, uint32_t length,
                                              CapturedTrap* trap) {
  if (length < 32) return Fail(kEnhancedPacketBlock, "too short");
  const uint32_t id = Get32(b + 8);
  if (id >= m_interfaces.size()) {
    return Fail(kEnhancedPacketBlock, "interface " + std::to_string(id) + " is not described");
  }
  const uint32_t captured = Get32(b + 20);
  if (captured > length - 32 || Pad4(captured) > length - 32) {
    return Fail(kEnhancedPacketBlock,
                "captured length " + std::to_string(captured) + " runs past the block's end");
  }
  if (!WalkOptions(b + 28 + Pad4(captured), length - 32 - Pad4(captured),
                   [](uint16_t, const uint8_t*, size_t) {})) {
    return Fail(kEnhancedPacketBlock, "an option runs past the block's end");
  }
  const Interface& itf = m_interfaces[id];
  if (!itf.ours) return kEnd;
  // A fresh value, but the field vector keeps its room: reading allocates nothing per trap.
  std::vector<DecodedField> fields = std::move(trap->decoded.fields);
  fields.clear();
  *trap = CapturedTrap();
  trap->decoded.fields = std::move(fields);
  if (!ReadTrapHeader(b + 28, captured, trap)) return kError;
  trap->timeUs = ToMicros(itf, Time64(b + 12));
  return kTrap;
}

}  // namespace libtidewatch
