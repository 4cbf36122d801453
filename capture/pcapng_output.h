// A capture's pcapng output (-w), which never holds up the receiver: each trap is encoded on the
// delivering thread into a bounded buffer that a writer thread of its own hands to the file. When
// the file falls behind (a slow disk, a pipe nobody reads) and the buffer is full, traps are lost
// by the capture instead: they are counted, carried by the next trap written (its epb_dropcount)
// and by the statistics block that closes each file. Ring files (-C, -W) start a new section in a
// new file once the current one reaches its size, so every file is a whole pcapng on its own.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "capture/ring_files.h"
#include "capture/wakeup.h"
#include "libtidewatch/pcapng/pcapng_writer.h"
#include "libtidewatch/trap/captured_trap.h"

namespace capture {

class PcapngOutput {
 public:
  struct Config {
    std::string path;               // "-": standard output
    uint64_t ringBytes = 0;         // start a new file at this size; 0: one file
    uint64_t ringFiles = 0;         // keep at most this many ring files; 0: all
    std::string userAppl;           // the writing program, named in each section header
    size_t bufferBytes = 16u << 20;  // encoded bytes waiting for the file, at most
  };

  // `wakeup` (not owned, may be null) is notified when the output fails, so that the capture ends.
  PcapngOutput(Config config, const Wakeup* wakeup);
  // Finishes the output if Finish was not called.
  ~PcapngOutput();
  PcapngOutput(const PcapngOutput&) = delete;
  PcapngOutput& operator=(const PcapngOutput&) = delete;

  // Opens the first file, queues its headers and starts the writer thread. False with `*error`
  // when the file cannot be created.
  bool Start(std::string* error);

  // Takes `trap` into the file, or counts it lost when the buffer is full. Returns the traps lost
  // just before it that it carries; 0 also when it was lost itself. One thread at a time.
  uint32_t Take(const libtidewatch::CapturedTrap& trap);
  // No more traps are waiting: the encoded ones go to the file now.
  void Flush();
  // Closes the last section with its statistics, writes everything out and stops the writer.
  // False when the output failed, except when its reader went away (that ends a capture normally).
  // Call it from the thread that calls Take, once no Take is running.
  bool Finish();

  // Whether the output can take no more (its reader has gone, a write failed); any thread.
  bool Failed() const { return m_failed.load(std::memory_order_acquire); }
  bool ReaderGone() const { return m_readerGone.load(std::memory_order_acquire); }
  // Why it failed; empty when its reader went away. Read after Finish.
  const std::string& error() const { return m_error; }
  // Encoded bytes not yet in the file; any thread.
  uint64_t unwritten() const { return m_unwritten.load(std::memory_order_relaxed); }
  // Traps lost by the capture so far; any thread.
  uint64_t lost() const { return m_lost.load(std::memory_order_relaxed); }

 private:
  void BeginSection(int64_t timeUs);
  void EndSection(int64_t timeUs);
  void HandOff();
  void WriterLoop();
  // Writes m_writing, starting the next file at each of m_writingCuts; false when it failed.
  bool WriteOut();
  void Fail(OutputFile::Result result, const std::string& error);

  const Config m_config;
  const Wakeup* const m_wakeup;

  // Encoding side: the thread that calls Take.
  libtidewatch::PcapngWriter m_writer;
  std::string m_encoding;
  std::vector<size_t> m_cuts;  // offsets in m_encoding where a file ends
  bool m_sectionOpen = false;
  uint64_t m_sectionBytes = 0;
  uint64_t m_pendingLost = 0;  // lost since the last trap taken
  bool m_started = false;
  bool m_finished = false;

  // Handed over to the writer thread.
  std::mutex m_lock;
  std::condition_variable m_ready;
  std::string m_queue;
  std::vector<size_t> m_queueCuts;
  std::atomic<bool> m_stopping{false};
  std::atomic<uint64_t> m_unwritten{0};  // encoded bytes not yet written, wherever they wait

  // Writer thread.
  std::thread m_thread;
  RingFiles m_files;
  std::string m_writing;
  std::vector<size_t> m_writingCuts;
  bool m_needFile = false;  // a file ended: the next bytes go to a new one

  std::atomic<bool> m_failed{false};
  std::atomic<bool> m_readerGone{false};
  std::atomic<uint64_t> m_lost{0};
  std::string m_error;  // set by the writer thread before m_failed
};

}  // namespace capture
