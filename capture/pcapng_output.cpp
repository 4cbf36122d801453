#include "capture/pcapng_output.h"

#include <time.h>

#include <algorithm>
#include <chrono>
#include <limits>
#include <utility>

namespace capture {
namespace {

// Encoded bytes go to the writer thread in pieces of about this size, or sooner when no more
// traps are waiting: few hand-overs in a burst, no delay when traps come one by one.
constexpr size_t kHandOffBytes = 256 << 10;
// How long a stopping capture waits for a reader that takes nothing before it gives up.
constexpr int kGiveUpMs = 2000;
// How often an idle writer looks whether its reader has gone.
constexpr auto kIdleCheck = std::chrono::milliseconds(250);

int64_t NowUs() {
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

}  // namespace

PcapngOutput::PcapngOutput(Config config, const Wakeup* wakeup)
    : m_config(std::move(config)),
      m_wakeup(wakeup),
      m_writer(m_config.userAppl),
      m_files(m_config.path, m_config.ringBytes != 0, m_config.ringFiles) {}

PcapngOutput::~PcapngOutput() {
  if (m_started) Finish();
}

bool PcapngOutput::Start(std::string* error) {
  if (!m_files.OpenNext(error)) return false;
  // The headers go out at once, so that a live reader of a pipe can show the capture starting.
  BeginSection(NowUs());
  HandOff();
  m_started = true;
  m_thread = std::thread(&PcapngOutput::WriterLoop, this);
  return true;
}

void PcapngOutput::BeginSection(int64_t timeUs) {
  const size_t before = m_encoding.size();
  m_writer.BeginSection(timeUs, &m_encoding);
  m_sectionBytes = m_encoding.size() - before;
  m_unwritten.fetch_add(m_sectionBytes, std::memory_order_relaxed);
  m_sectionOpen = true;
}

void PcapngOutput::EndSection(int64_t timeUs) {
  const size_t before = m_encoding.size();
  // Losses that no later trap of this file will carry are counted by its statistics.
  m_writer.EndSection(timeUs, m_pendingLost, &m_encoding);
  m_pendingLost = 0;
  m_unwritten.fetch_add(m_encoding.size() - before, std::memory_order_relaxed);
  m_cuts.push_back(m_encoding.size());
  m_sectionOpen = false;
}

uint32_t PcapngOutput::Take(const libtidewatch::CapturedTrap& trap) {
  if (!m_started || m_finished || Failed()) return 0;
  const size_t size = libtidewatch::PcapngWriter::EncodedSize(trap);
  if (m_unwritten.load(std::memory_order_relaxed) + size > m_config.bufferBytes) {
    ++m_pendingLost;
    m_lost.fetch_add(1, std::memory_order_relaxed);
    return 0;
  }
  if (!m_sectionOpen) BeginSection(trap.timeUs);
  const uint32_t carried = static_cast<uint32_t>(
      std::min<uint64_t>(m_pendingLost, std::numeric_limits<uint32_t>::max()));
  const size_t before = m_encoding.size();
  m_writer.AppendTrap(trap, carried, &m_encoding);
  m_pendingLost -= carried;
  const size_t added = m_encoding.size() - before;
  m_sectionBytes += added;
  m_unwritten.fetch_add(added, std::memory_order_relaxed);
  if (m_config.ringBytes != 0 && m_sectionBytes >= m_config.ringBytes) EndSection(trap.timeUs);
  if (m_encoding.size() >= kHandOffBytes) HandOff();
  return carried;
}

void PcapngOutput::Flush() {
  if (m_started && !m_finished) HandOff();
}

void PcapngOutput::HandOff() {
  if (m_encoding.empty() && m_cuts.empty()) return;
  {
    std::lock_guard<std::mutex> lock(m_lock);
    if (m_queue.empty() && m_queueCuts.empty()) {
      // The usual case, a writer that keeps up: the buffers change hands without a copy.
      m_queue.swap(m_encoding);
      m_queueCuts.swap(m_cuts);
    } else {
      const size_t base = m_queue.size();
      m_queue += m_encoding;
      for (size_t cut : m_cuts) m_queueCuts.push_back(base + cut);
      m_encoding.clear();
      m_cuts.clear();
    }
  }
  m_ready.notify_one();
}

bool PcapngOutput::Finish() {
  if (!m_started || m_finished) return !Failed() || ReaderGone();
  if (!Failed()) {
    if (m_sectionOpen) EndSection(NowUs());
    HandOff();
  }
  m_finished = true;
  {
    std::lock_guard<std::mutex> lock(m_lock);
    m_stopping.store(true, std::memory_order_release);
  }
  m_ready.notify_one();
  m_thread.join();
  std::string error;
  if (!m_files.Close(&error) && !Failed()) Fail(OutputFile::kFailed, error);
  return !Failed() || ReaderGone();
}

void PcapngOutput::Fail(OutputFile::Result result, const std::string& error) {
  if (result != OutputFile::kReaderGone) m_error = error;
  m_readerGone.store(result == OutputFile::kReaderGone, std::memory_order_release);
  m_failed.store(true, std::memory_order_release);
  if (m_wakeup != nullptr) m_wakeup->Notify();
}

void PcapngOutput::WriterLoop() {
  for (;;) {
    {
      std::unique_lock<std::mutex> lock(m_lock);
      m_ready.wait_for(lock, kIdleCheck, [this] {
        return !m_queue.empty() || !m_queueCuts.empty() || m_stopping.load();
      });
      if (m_queue.empty() && m_queueCuts.empty()) {
        if (m_stopping.load()) return;
        lock.unlock();
        // Nothing to write tells nothing of the reader: ask the pipe, so that a capture into a
        // reader that has gone ends even while no trap comes.
        if (m_files.file().ReaderGone()) {
          Fail(OutputFile::kReaderGone, "");
          return;
        }
        continue;
      }
      m_writing.swap(m_queue);
      m_writingCuts.swap(m_queueCuts);
    }
    const bool ok = WriteOut();
    m_writing.clear();
    m_writingCuts.clear();
    // A backlog's large buffer is let go once written: the buffers that change hands stay the
    // size of a normal hand-over, so resident memory follows the backlog back down.
    if (m_writing.capacity() > 2 * kHandOffBytes) std::string().swap(m_writing);
    if (!ok) return;
  }
}

bool PcapngOutput::WriteOut() {
  size_t at = 0;
  for (size_t i = 0; i <= m_writingCuts.size(); ++i) {
    const size_t end = i < m_writingCuts.size() ? m_writingCuts[i] : m_writing.size();
    if (end > at) {
      std::string error;
      if (m_needFile) {
        if (!m_files.OpenNext(&error)) {
          Fail(OutputFile::kFailed, error);
          return false;
        }
        m_needFile = false;
      }
      const OutputFile::Result result =
          m_files.file().Write(m_writing.data() + at, end - at, m_stopping, kGiveUpMs, &error);
      if (result != OutputFile::kOk) {
        Fail(result, error);
        return false;
      }
      m_unwritten.fetch_sub(end - at, std::memory_order_relaxed);
      at = end;
    }
    if (i < m_writingCuts.size()) m_needFile = true;
  }
  return true;
}

}  // namespace capture
