// The fixture of the trap receiver's tests: a recorder of every handler call, receivers wired to
// it, and clients that connect to a receiver's own socket and stay open until the test ends.
#pragma once

#include <gtest/gtest.h>

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
                       unsigned long length, const unsigned char* data, unsigned long discardCount);
    // The drain handler: notes how many calls had arrived when it ran.
    static void Drained(void* context);
    // Waits (with a generous guard) until `n` calls have arrived.
    bool WaitForCount(size_t n);
    // Waits up to a few seconds until the drain handler has run after call `n`; gives the number
    // of calls at each drain so far.
    std::vector<size_t> WaitForDrainAfter(size_t n);
    std::vector<Call> Calls();

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
