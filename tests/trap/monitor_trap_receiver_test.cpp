// The trap receiver and the parser of the trap records it delivers.
#include "libtidewatch/trap/monitor_trap_receiver.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "libtidewatch/api/json_cmd_encoder.h"
#include "libtidewatch/api/monitor_cmd_proxy.h"
#include "libtidewatch/platform/log.h"
#include "libtidewatch/trap/trap_packer.h"
#ifndef __ANDROID__
#include "tests/support/emulator_process.h"
#endif
#include "tests/support/log_capture.h"
#include "tests/support/mcp_test_peer.h"

namespace libtidewatch {
namespace {

using tidewatch_test::Bytes;
using tidewatch_test::Concat;
using tidewatch_test::DiscardRecord;
using tidewatch_test::LogCapture;
using tidewatch_test::McpPacket;
using tidewatch_test::TrapRecord;
using tidewatch_test::WriteAll;

Bytes B(const std::string& s) { return Bytes(s.begin(), s.end()); }

struct Call {
  void* context;
  unsigned int time;
  TRAP_TYPE type;
  unsigned long length;
  bool dataNull;
  std::string data;  // the first bytes at `data` (at most kCopied)
  unsigned long discardCount;
};

// The handler is told a record's own length field, which can exceed the bytes delivered, so the
// recorder never copies more than this.
constexpr unsigned long kCopied = 64;

// The handlers' context: collects every call, from whichever thread delivers it.
class Recorder {
 public:
  static void Handle(void* context, unsigned int time, TRAP_TYPE type, unsigned long length,
                     const unsigned char* data, unsigned long discardCount) {
    auto* self = static_cast<Recorder*>(context);
    std::string copy;
    if (data != nullptr) {
      copy.assign(reinterpret_cast<const char*>(data), std::min(length, kCopied));
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
  bool WaitForCount(size_t n) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::seconds(60), [&] { return m_calls.size() >= n; });
  }
  // Waits up to a few seconds for a drain after call `n`; the number of calls at each drain.
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
  std::vector<size_t> m_drains;
};

class MonitorTrapReceiverTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // No service may be found by accident on a host: look it up under a prefix nobody publishes.
    setenv("TIDEWATCH_HAL_SOCKET_PREFIX", tidewatch_test::UniqueSocketName(".nohal.").c_str(), 1);
  }
  void TearDown() override {
    for (int fd : m_fds) close(fd);
    unsetenv("TIDEWATCH_HAL_SOCKET_PREFIX");
    unsetenv("TIDEWATCH_HAL_WAIT_MS");
  }

  std::unique_ptr<MonitorTrapReceiver> NewReceiver(unsigned long sessionId, const char* name,
                                                   Recorder* to = nullptr) {
    auto receiver = std::make_unique<MonitorTrapReceiver>(sessionId, name);
    receiver->userData = to != nullptr ? to : &recorder;
    receiver->drainHandler = &Recorder::Drained;
    receiver->trapHandler = &Recorder::Handle;
    return receiver;
  }
  // A client connection kept open until the test ends; -1 when nobody listens at `name`.
  int Connect(const std::string& name) {
    int fd = ConnectAbstract(name);
    if (fd >= 0) m_fds.push_back(fd);
    return fd;
  }
  // Sends one EM trap carrying `text` from a fresh client; the handler must see it as call `n`.
  void ExpectTrapArrives(const std::string& name, const std::string& text, size_t n) {
    ASSERT_GE(Connect(name), 0);
    ASSERT_TRUE(
        WriteAll(m_fds.back(), McpPacket(MCP_TYPE_TRAP, TrapRecord(TRAP_TYPE_EM, B(text)))));
    ASSERT_TRUE(recorder.WaitForCount(n)) << "no trap " << text;
    EXPECT_EQ(recorder.Calls()[n - 1].data, text);
  }

  Recorder recorder;
  // Unique to the test, so receivers of parallel runs never meet.
  const std::string m_serverName = tidewatch_test::UniqueSocketName();
  std::vector<int> m_fds;
};

TEST_F(MonitorTrapReceiverTest, TrapsOverTheSocketReachTheHandler) {
  const struct {
    const char* what;
    Bytes raw;
    TRAP_TYPE type;
    bool dataNull;
    std::string data;
    unsigned long discardCount;
    unsigned long length = ~0ul;  // the data's size unless given
  } cases[] = {
      {"EM trap", TrapRecord(TRAP_TYPE_EM, B("em-data")), TRAP_TYPE_EM, false, "em-data", 0},
      // Only the OTA and EM discard counts are reported.
      {"OTA trap with discards",
       Concat({TrapRecord(TRAP_TYPE_OTA, B("ota")),
               DiscardRecord({{TRAP_TYPE_OTA, 3}, {TRAP_TYPE_EM, 4}, {TRAP_TYPE_IP, 9}})}),
       TRAP_TYPE_OTA, false, "ota", 7},
      // A record that failed the parse is not trusted for its discard counts.
      {"discard record not last",
       Concat({DiscardRecord({{TRAP_TYPE_OTA, 1}}), TrapRecord(TRAP_TYPE_OTA, B("late"))}),
       TRAP_TYPE_NONE, true, "", 0},
      // A length field running past the data is reported as it stands.
      {"record cut short", TrapRecord(TRAP_TYPE_EM, B("abc"), 1000), TRAP_TYPE_EM, false, "abc", 0,
       1000},
      {"too long to parse", TrapRecord(TRAP_TYPE_OTA, Bytes(70000, 'o')), TRAP_TYPE_NONE, true, "",
       0},
  };
  auto receiver = NewReceiver(5, m_serverName.c_str());
  int fd = Connect("5" + m_serverName);
  ASSERT_GE(fd, 0);
  Bytes all;
  for (const auto& c : cases) all = Concat({all, McpPacket(MCP_TYPE_TRAP, c.raw)});
  ASSERT_TRUE(WriteAll(fd, all));
  ASSERT_TRUE(recorder.WaitForCount(std::size(cases)));

  std::vector<Call> calls = recorder.Calls();
  ASSERT_EQ(calls.size(), std::size(cases));
  for (size_t i = 0; i < calls.size(); ++i) {
    const auto& c = cases[i];
    const Call& got = calls[i];
    EXPECT_EQ(std::tie(got.context, got.time, got.type, got.dataNull, got.discardCount),
              std::make_tuple(&recorder, 0u, c.type, c.dataNull, c.discardCount))
        << c.what;
    EXPECT_EQ(got.data.substr(0, c.data.size()), c.data) << c.what;
    EXPECT_EQ(got.length, c.length == ~0ul ? c.data.size() : c.length) << c.what;
  }
  // The drain handler runs after the last trap, and only ever after new traps; a lone trap that
  // follows gets a drain of its own.
  ASSERT_EQ(recorder.WaitForDrainAfter(calls.size()).back(), calls.size());
  ASSERT_TRUE(WriteAll(fd, McpPacket(MCP_TYPE_TRAP, TrapRecord(TRAP_TYPE_EM, B("lone")))));
  std::vector<size_t> drains = recorder.WaitForDrainAfter(calls.size() + 1);
  for (size_t i = 1; i < drains.size(); ++i) EXPECT_GT(drains[i], drains[i - 1]);
  EXPECT_GT(drains.front(), 0u);
  EXPECT_EQ(drains.back(), calls.size() + 1);
}

// A payload of 0 bytes still reaches the handler; without a handler nothing does, and nothing is
// answered.
TEST_F(MonitorTrapReceiverTest, PayloadsWithoutHandlerOrBytes) {
  auto receiver = NewReceiver(6, m_serverName.c_str());
  MCPInfo in;
  MCPInfo out;
  EXPECT_TRUE(receiver->ProcessPayload(in, out));
  const Bytes raw = TrapRecord(TRAP_TYPE_OTA, B("dropped"));
  in.SetData(MCP_TYPE_TRAP, raw.size(), raw.data(), false);
  receiver->trapHandler = nullptr;
  EXPECT_TRUE(receiver->ProcessPayload(in, out));
  EXPECT_EQ(out.length, 0u);
  ASSERT_EQ(recorder.Calls().size(), 1u);
  const Call call = recorder.Calls()[0];
  EXPECT_EQ(std::tie(call.time, call.type, call.length, call.dataNull, call.discardCount),
            std::make_tuple(0u, TRAP_TYPE_NONE, 0ul, true, 0ul));
}
// Peers that send rubbish, stall or vanish: the receiver keeps serving, and every whole packet
// sent after the rubbish arrives, exactly once.
TEST_F(MonitorTrapReceiverTest, HostilePeersDoNotStopTheService) {
  const std::string name = "9" + m_serverName;
  auto receiver = NewReceiver(9, m_serverName.c_str());
  const Bytes magic = McpPacket(MCP_TYPE_TRAP, {}, 0);  // a header claiming an empty payload
  const Bytes bigHeader = McpPacket(MCP_TYPE_TRAP, {}, 131072);
  Bytes noise;
  for (int i = 0; i < 5000; ++i) noise.push_back(static_cast<uint8_t>((i * 7919) % 251 + 1) & 0x7F);

  // Rubbish followed, on the same connection, by a good packet, which must still be found (the
  // handler's own table has every kind of rubbish; these are the ones a stream meets first).
  const struct {
    const char* what;
    Bytes rubbish;
  } garbage[] = {
      {"noise", noise},
      {"magic with a bad type", Concat({Bytes(magic.begin(), magic.begin() + 4), B("zz")})},
      {"length 131073", McpPacket(MCP_TYPE_TRAP, {}, 131073)},
  };
  size_t expected = 0;
  int fd = Connect(name);
  ASSERT_GE(fd, 0);
  for (const auto& g : garbage) {
    SCOPED_TRACE(g.what);
    ASSERT_TRUE(WriteAll(
        fd, Concat({g.rubbish, McpPacket(MCP_TYPE_TRAP, TrapRecord(TRAP_TYPE_EM, B(g.what)))})));
    ASSERT_TRUE(recorder.WaitForCount(++expected));
    EXPECT_EQ(recorder.Calls().back().data, g.what);
  }

  // A packet written one byte at a time.
  const Bytes slow = McpPacket(MCP_TYPE_TRAP, TrapRecord(TRAP_TYPE_OTA, B("byte by byte")));
  for (uint8_t byte : slow) ASSERT_TRUE(WriteAll(fd, &byte, 1));
  ASSERT_TRUE(recorder.WaitForCount(++expected));
  EXPECT_EQ(recorder.Calls().back().data, "byte by byte");

  // A header announcing the largest payload, which never comes, on a connection kept open.
  int stalled = Connect(name);
  ASSERT_TRUE(WriteAll(stalled, bigHeader));
  ExpectTrapArrives(name, "after a stalled header", ++expected);

  // A client that connects and never sends.
  ASSERT_GE(Connect(name), 0);
  ExpectTrapArrives(name, "after a silent client", ++expected);

  // A client that closes in the middle of a packet.
  int quitter = ConnectAbstract(name);
  ASSERT_GE(quitter, 0);
  const Bytes half = McpPacket(MCP_TYPE_TRAP, TrapRecord(TRAP_TYPE_EM, B("never whole")));
  ASSERT_TRUE(WriteAll(quitter, half.data(), half.size() / 2));
  close(quitter);
  ExpectTrapArrives(name, "after a quitter", ++expected);

  for (int i = 0; i < 10000; ++i) {
    int brief = ConnectAbstract(name);
    ASSERT_GE(brief, 0) << "cycle " << i;
    close(brief);
  }
  ExpectTrapArrives(name, "after 10000 cycles", ++expected);

  EXPECT_EQ(recorder.Calls().size(), expected);
}

// More connections at once than `select` can watch: those beyond its limit are refused, and the
// service carries on once they are gone.
TEST_F(MonitorTrapReceiverTest, ConnectionsBeyondTheSelectLimitAreRefused) {
  constexpr int kClients = 1100;
  rlimit saved;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
  // Both ends live in this process, and every accepted end needs a descriptor of its own.
  const rlim_t needed = 2 * kClients + 64;
  if (saved.rlim_max != RLIM_INFINITY && saved.rlim_max < needed) {
    GTEST_SKIP() << "the hard limit of open files (" << saved.rlim_max << ") is below " << needed;
  }
  rlimit raised = saved;
  raised.rlim_cur = saved.rlim_max;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &raised), 0);

  LogCapture log(kLogError);
  const std::string name = "11" + m_serverName;
  auto receiver = NewReceiver(11, m_serverName.c_str());
  std::vector<int> clients;
  for (int i = 0; i < kClients; ++i) {
    int fd = ConnectAbstract(name);
    ASSERT_GE(fd, 0) << "client " << i;
    clients.push_back(fd);
  }
  EXPECT_TRUE(log.WaitForText("does not fit in the select set"));
  for (int fd : clients) close(fd);
  ExpectTrapArrives(name, "fresh", 1);

  receiver.reset();
  setrlimit(RLIMIT_NOFILE, &saved);
}

// Session 7 without a server name: the destination is "7". The name is shared by every process on
// the machine, so a run that finds it taken cannot check anything.
TEST_F(MonitorTrapReceiverTest, NullServerNameUsesTheSessionNumberAlone) {
  LogCapture log(kLogDebug);
  auto receiver = NewReceiver(7, nullptr);
  if (log.Contains("E Fail to setup domain socket.")) {
    GTEST_SKIP() << "the abstract socket name \"7\" is taken by another process";
  }
  ExpectTrapArrives("7", "seven", 1);
}

#ifndef __ANDROID__  // host only: the service is the emulator
// Traps pushed by the service emulator through the registered callback, for each generation it may
// publish. The receiver is destroyed while traps keep coming: the detached callbacks then refuse
// them.
TEST_F(MonitorTrapReceiverTest, TrapsArriveThroughTheServiceCallback) {
  const struct {
    const char* publish;
    const char* connectLine;
    const char* callbackLine;
    const char* refusedLine;
  } cases[] = {
      {"--aidl", "D MonitorTrapReceiver AIDL service connect: true",
       "D AIDLTidewatchClientCallback MCPReceiver in",
       "D AIDLTidewatchClientCallback MCPReceiver out"},
      {"--hidl", "D MonitorTrapReceiver HIDL service connect: true", "D MCPReceiver in",
       "D MCPReceiver out wo CB"},
  };
  // The command channel need not wait for an AIDL service that is not published.
  setenv("TIDEWATCH_HAL_WAIT_MS", "0", 1);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.publish);
    tidewatch_test::EmulatorProcess emulator;
    // Ids above the encoder's error codes keep a failure from passing for an id.
    ASSERT_TRUE(
        emulator.Start({c.publish, "--first-session-id=100", "--trap-rate=200", "--trap-size=24"}));
    MonitorCmdProxy<JsonCmdEncoder> proxy;
    const uint64_t session = proxy.CreateSession(nullptr);
    ASSERT_GT(session, static_cast<uint64_t>(MONITOR_RESULT_BAD_REPLY));

    LogCapture log(kLogDebug);
    Recorder viaService;
    auto receiver = NewReceiver(session, m_serverName.c_str(), &viaService);
    EXPECT_TRUE(log.Contains(c.connectLine));
    ASSERT_EQ(proxy.SubscribeTrap(0, session, TRAP_TYPE_OTA, 1234, false), 0);
    ASSERT_EQ(proxy.SetTrapReceiver(0, session, m_serverName.c_str()), 0);
    ASSERT_EQ(proxy.EnableTrap(0, session), 0);

    ASSERT_TRUE(viaService.WaitForCount(3));
    EXPECT_TRUE(log.Contains(c.callbackLine));
    for (const Call& call : viaService.Calls()) {
      EXPECT_EQ(std::tie(call.time, call.type, call.length, call.dataNull),
                std::make_tuple(0u, TRAP_TYPE_OTA, 24ul, false));
    }
    receiver.reset();
    EXPECT_TRUE(log.WaitForText(c.refusedLine));
    EXPECT_EQ(emulator.Stop(), 0);
  }
}
#endif

class TrapPackerTest : public ::testing::Test {
 protected:
  static Bytes Trap(uint8_t type, const Bytes& payload, int64_t declared = -1) {
    return TrapRecord(type, payload, declared);
  }
  static Bytes Discard(const std::vector<std::pair<uint8_t, uint32_t>>& entries,
                       int64_t count = -1) {
    return DiscardRecord(entries, count);
  }
  static Bytes Cat(std::initializer_list<Bytes> parts) { return Concat(parts); }

  tidewatch_test::LogCapture log_{kLogDebug};
};

// Empty or oversized data is refused without a word; a record of the largest size is taken.
TEST_F(TrapPackerTest, SizeLimits) {
  Bytes data = Trap(TRAP_TYPE_IP, Bytes(TrapPacker::kMaxRawLength - 5, 0x42));
  Bytes over = Cat({data, {0}});
  EXPECT_FALSE(TrapPacker(nullptr, 10).IsInitialized());
  EXPECT_FALSE(TrapPacker(data.data(), 0).IsInitialized());
  EXPECT_FALSE(TrapPacker(over.data(), over.size()).IsInitialized());
  EXPECT_TRUE(log_.Lines().empty());
  TrapPacker packer(data.data(), data.size());
  ASSERT_TRUE(packer.IsInitialized());
  EXPECT_NE(packer.GetTrapData(), data.data() + 5);  // a private copy
  EXPECT_EQ(Bytes(packer.GetTrapData(), packer.GetTrapData() + data.size() - 5),
            Bytes(data.begin() + 5, data.end()));
  EXPECT_EQ(TrapPacker(data.data(), data.size(), TrapPacker::View()).GetTrapData(),
            data.data() + 5);
}

// How whole buffers parse: the trap kept (the last record wins), the last record as it arrived
// (header included, clipped to the bytes there), and the errors logged.
TEST_F(TrapPackerTest, WalksRecords) {
  const std::string kFailed = "E Parse rawData failed.";
  const std::vector<std::string> kBad = {"E Discard Info should be the last part in raw data.",
                                         kFailed};
  auto type = [&](int t) {
    return std::vector<std::string>{"E Invalid discard info type: [" + std::to_string(t) + "]",
                                    kFailed};
  };
  auto unknown = [](int len) {
    return std::vector<std::string>{"E Unknown trap type: [12], len: [" + std::to_string(len) +
                                    "]"};
  };
  const TRAP_TYPE kNone = TRAP_TYPE_NONE, kOta = TRAP_TYPE_OTA, kEm = TRAP_TYPE_EM;
  const TRAP_TYPE kEvent = TRAP_TYPE_ICD_EVENT, kIcd = TRAP_TYPE_ICD_RECORD;
  const size_t kFull = TrapPacker::kMaxRawLength;
  const struct {
    const char* name;
    Bytes data;
    bool initialized;
    TRAP_TYPE type;
    size_t length;
    std::vector<std::string> errors;
    std::pair<size_t, size_t> record{0, 0};  // offset and size of the last record in `data`
  } cases[] = {
      {"trap, discards", Cat({Trap(2, {1, 2, 3}), Discard({{2, 5}})}), true, kOta, 3, {}, {0, 8}},
      {"last wins", Cat({Trap(3, {1}), Trap(4, {1, 2})}), true, TRAP_TYPE_VOLTE, 2, {}, {6, 7}},
      {"unknown", Cat({Trap(5, {1}), Trap(12, {7, 7, 7, 7})}), true, kNone, 4, unknown(4), {6, 9}},
      {"after unknown", Cat({Trap(12, {7}), Trap(8, {1, 2})}), true, kEvent, 2, unknown(1), {6, 7}},
      {"discards alone, count 0", Discard({}), true, kNone, 0, {}},
      {"discards then a trap", Cat({Discard({{2, 1}}), Trap(2, {1})}), false, kNone, 0, kBad},
      {"discard entry of type 9", Discard({{2, 1}, {9, 1}}), false, kNone, 0, type(9)},
      // Records that claim more than the data holds: nothing past the data is read.
      {"payload past the end", Trap(6, {1, 2}, 1000), true, TRAP_TYPE_IP, 1000, {}, {0, 7}},
      {"header past the end", Cat({Trap(2, {1}), {7, 3, 0}}), true, kIcd, 3, {}, {6, 3}},
      {"discard entries past the end", Discard({{2, 1}}, 3), false, kNone, 0, kBad},
      {"huge discard count", Discard({{2, 1}}, 0xFFFFFFFF), false, kNone, 0, kBad},
      {"bad entry before the end", Discard({{2, 1}, {10, 1}}, 50), false, kNone, 0, type(10)},
      {"discard header past the end", Cat({Trap(2, {1}), {1, 1}}), false, kOta, 1, kBad, {0, 6}},
      // The same at the end of a full buffer, where reading on would leave the allocation.
      {"full: header", Cat({Trap(2, Bytes(kFull - 7)), {3, 1}}), true, kEm, 1, {}, {kFull - 2, 2}},
      {"full: discards",
       Cat({Trap(2, Bytes(kFull - 15)), Discard({{2, 1}}, 9)}),
       false,
       kOta,
       kFull - 15,
       kBad,
       {0, kFull - 10}},
  };
  for (const auto& c : cases) {
    for (bool view : {false, true}) {  // a view must parse exactly as a copy does
      SCOPED_TRACE(std::string(c.name) + (view ? " (view)" : " (copy)"));
      log_.Clear();
      auto packer =
          view ? std::make_unique<TrapPacker>(c.data.data(), c.data.size(), TrapPacker::View())
               : std::make_unique<TrapPacker>(c.data.data(), c.data.size());
      EXPECT_EQ(packer->IsInitialized(), c.initialized);
      EXPECT_EQ(packer->GetTrapType(), c.type);
      EXPECT_EQ(packer->GetTrapDataLength(), c.length);
      EXPECT_EQ(log_.Lines(kLogError), c.errors);
      const auto [offset, size] = c.record;
      ASSERT_EQ(packer->GetTrapRecordSize(), size);
      const uint8_t* record = packer->GetTrapRecord();
      EXPECT_EQ(record == nullptr, size == 0);
      if (size > 0) {
        EXPECT_EQ(Bytes(record, record + size),
                  Bytes(c.data.begin() + offset, c.data.begin() + offset + size));
      }
    }
  }
}

TEST_F(TrapPackerTest, DiscardCounts) {
  Bytes data = Cat({Trap(3, {1}), Discard({{3, 7}, {2, 4}, {3, 9}})});
  TrapPacker packer(data.data(), data.size());
  ASSERT_TRUE(packer.IsInitialized());
  EXPECT_EQ(packer.GetDiscardInfo(TRAP_TYPE_EM), 7u);  // the first entry for a type counts
  EXPECT_EQ(packer.GetDiscardInfo(TRAP_TYPE_OTA), 4u);
  EXPECT_EQ(packer.GetDiscardInfo(TRAP_TYPE_IP), 0u);
  EXPECT_EQ(packer.GetDiscardInfo(static_cast<TRAP_TYPE>(9)), 0u);
}

}  // namespace
}  // namespace libtidewatch
