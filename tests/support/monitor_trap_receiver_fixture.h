// The fixture of the trap receiver's tests: a recorder of every handler call, receivers wired to
// it, and clients that connect to a receiver's own socket and stay open until the test ends.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "libtidewatch/api/monitor_types.h"
#include "libtidewatch/trap/monitor_trap_receiver.h"

namespace tidewatch_test {

class MonitorTrapReceiverFixture : public ::testing::Test {
 protected:
  struct Call {
    void* context;
    unsigned int time;
    libtidewatch::TRAP_TYPE type;
    unsigned long length;
    bool dataNull;
    std::string data;  // the first bytes at `data` (at most kCopied)
    unsigned long discardCount;
  };

  // Enough for every payload the tests send; the handler is told a record's own length field,
  // which can exceed the bytes delivered, so the recorder never copies more than this.
  static constexpr unsigned long kCopied = 64;

  // The handler's context: collects every call, from whichever thread delivers it.
  class Recorder {
   public:
    static void Handle(void* context, unsigned int time, libtidewatch::TRAP_TYPE type,
                       unsigned long length, const unsigned char* data,
                       unsigned long discardCount) {
      auto* self = static_cast<Recorder*>(context);
      std::string copy;
      if (data != nullptr) {
        copy.assign(reinterpret_cast<const char*>(data), std::min<unsigned long>(length, kCopied));
      }
      std::lock_guard<std::mutex> lock(self->m_mutex);
      self->m_calls.push_back({context, time, type, length, data == nullptr, copy, discardCount});
      self->m_changed.notify_all();
    }
    // The drain handler: notes how many calls had arrived when it ran.
    static void Drained(void* context) {
      auto* self = static_cast<Recorder*>(context);
      std::lock_guard<std::mutex> lock(self->m_mutex);
      self->m_drains.push_back(self->m_calls.size());
      self->m_changed.notify_all();
    }
    // Waits (with a generous guard) until `n` calls have arrived.
    bool WaitForCount(size_t n) {
      std::unique_lock<std::mutex> lock(m_mutex);
      return m_changed.wait_for(lock, std::chrono::seconds(60),
                                [&] { return m_calls.size() >= n; });
    }
    // Waits up to a few seconds until the drain handler has run after call `n`; gives the number
    // of calls at each drain so far.
    std::vector<size_t> WaitForDrainAfter(size_t n) {
      std::unique_lock<std::mutex> lock(m_mutex);
      m_changed.wait_for(lock, std::chrono::seconds(5),
                         [&] { return !m_drains.empty() && m_drains.back() >= n; });
      return m_drains;
    }
    std::vector<Call> Calls() {
      std::lock_guard<std::mutex> lock(m_mutex);
      return m_calls;
    }

   private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<Call> m_calls;
    std::vector<size_t> m_drains;  // the number of calls at each drain
  };

  void SetUp() override;
  void TearDown() override;

  // A receiver for `sessionId` whose handlers report to `recorder`.
  std::unique_ptr<libtidewatch::MonitorTrapReceiver> NewReceiver(unsigned long sessionId,
                                                                 const char* serverName);
  // A client connection kept open until the test ends; -1 when nobody listens at `name`.
  int Connect(const std::string& name);
  // Sends one EM trap carrying `text` from a fresh client and waits for the handler to see it as
  // call `n`.
  void ExpectTrapArrives(const std::string& name, const std::string& text, size_t n);

  Recorder recorder;
  std::string m_serverName;  // unique to the test, so receivers of parallel runs never meet
  std::vector<int> m_fds;
};

}  // namespace tidewatch_test
