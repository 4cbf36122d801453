// The command encoder's checking of service replies: each of the ten JsonCmdEncoder commands
// against an arbitrary reply packet from a fake transmitter. Results must stay in the one number
// space of "ret" and the encoder's own codes, outputs must stay untouched unless the command
// succeeded, and the only exceptions that may escape are the numeric conversion errors that the
// tool's main catches.
//
// Input: one byte choosing the command (value % 10) and how the transmitter answers (value / 10 %
// 6: a reply packet of type REPLY, CMD, TRAP or NONE, a failed send, or no reply), then the reply
// payload.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <vector>

#include "fuzz/fuzz_check.h"
#include "libtidewatch/api/json_cmd_encoder.h"
#include "libtidewatch/api/monitor_types.h"
#include "libtidewatch/transport/mcp_info.h"
#include "libtidewatch/transport/transmitter.h"

namespace libtidewatch {
namespace {

enum class Answer { kReply, kCmd, kTrap, kNone, kSendFails, kNoReply };

class FakeTransmitter : public Transmitter {
 public:
  FakeTransmitter(Answer answer, const uint8_t* payload, size_t len)
      : m_answer(answer), m_payload(payload), m_len(len) {}

  bool Send(const MCPInfo& request, MCPInfo** reply, volatile bool* stop) override {
    ++m_sends;
    FUZZ_CHECK(stop == nullptr && reply != nullptr && *reply == nullptr);
    // The request is JSON text written by the compact writer, sent with its NUL.
    FUZZ_CHECK(request.type == MCP_TYPE_CMD && request.data != nullptr);
    FUZZ_CHECK(request.length >= 4 && request.length <= 131072);
    const char* text = reinterpret_cast<const char*>(request.data);
    FUZZ_CHECK(text[request.length - 1] == '\0' && strlen(text) == request.length - 1);
    FUZZ_CHECK(text[0] == '{' && text[request.length - 3] == '}' &&
               text[request.length - 2] == '\n');

    static const MCP_TYPE kTypes[] = {MCP_TYPE_REPLY, MCP_TYPE_CMD, MCP_TYPE_TRAP, MCP_TYPE_NONE};
    switch (m_answer) {
      case Answer::kSendFails:
        return false;
      case Answer::kNoReply:
        return true;
      default: {
        auto* packet = new MCPInfo;
        // Copied to a buffer of exactly the payload's size, so that ASan sees any overread.
        packet->SetData(kTypes[static_cast<int>(m_answer)], m_len, m_len != 0 ? m_payload : nullptr,
                        true);
        *reply = packet;
        return true;
      }
    }
  }
  bool CheckValid() override { return true; }

  int sends() const { return m_sends; }

 private:
  Answer m_answer;
  const uint8_t* m_payload;
  size_t m_len;
  int m_sends = 0;
};

bool Allowed(const std::exception& e) {
  return strcmp(e.what(), "Negative integer can not be converted to UInt64") == 0 ||
         strcmp(e.what(), "Real out of UInt64 range") == 0;
}

bool Untouched(const MONITOR_SESSION_STATUS& s) {
  for (size_t t = 0; t < TRAP_TYPE_NUM; ++t) {
    if (s.subscribedTraps[t] != (t == 2 ? std::vector<uint64_t>{77} : std::vector<uint64_t>{})) {
      return false;
    }
  }
  return s.trapEnabled && s.trapReceiverHost == "before";
}

void RunCommand(const uint8_t* data, size_t size) {
  const int command = data[0] % 10;
  const Answer answer = static_cast<Answer>(data[0] / 10 % 6);
  FakeTransmitter transmitter(answer, data + 1, size - 1);
  JsonCmdEncoder encoder(&transmitter);

  MONITOR_SESSION_STATUS status;
  status.trapEnabled = true;
  status.subscribedTraps[2] = {77};
  status.trapReceiverHost = "before";
  std::vector<uint64_t> ids = {42, 43};

  bool threw = false;
  bool isCreate = command == 0;
  uint64_t created = 0;
  int32_t result = 0;
  try {
    switch (command) {
      case 0:
        created = encoder.CreateSession(size % 2 != 0 ? "TidewatchSecret" : nullptr);
        break;
      case 1:
        result = encoder.CloseSession(5, 7);
        break;
      case 2:
        result = encoder.SubscribeTrap(5, 7, TRAP_TYPE_EM, 1234, false);
        break;
      case 3:
        result = encoder.UnsubscribeTrap(0, 7, TRAP_TYPE_OTA, 99, true);
        break;
      case 4:
        result = encoder.EnableTrap(0, 7);
        break;
      case 5:
        result = encoder.DisableTrap(5, 7);
        break;
      case 6:
        result = encoder.SetTrapReceiver(0, 12, "srv");
        break;
      case 7:
        result = encoder.GetSession(5, 7, status);
        break;
      case 8:
        result = encoder.ListSession(0, ids);
        break;
      default:
        result = encoder.SetDebugLevel(5, MONITOR_DEBUG_LEVEL_DEBUG);
        break;
    }
  } catch (const std::exception& e) {
    if (!Allowed(e)) fprintf(stderr, "unexpected exception: %s\n", e.what());
    FUZZ_CHECK(Allowed(e));
    threw = true;
  }
  FUZZ_CHECK(transmitter.sends() == 1);

  if (threw) {
    // Only a reply that got as far as its numbers can throw.
    FUZZ_CHECK(answer == Answer::kReply);
  } else if (answer == Answer::kSendFails || answer == Answer::kNoReply) {
    FUZZ_CHECK(isCreate ? created == MONITOR_RESULT_SEND_FAILED
                        : result == MONITOR_RESULT_SEND_FAILED);
  } else if (answer != Answer::kReply) {
    FUZZ_CHECK(isCreate ? created == MONITOR_RESULT_BAD_REPLY : result == MONITOR_RESULT_BAD_REPLY);
  } else if (!isCreate) {
    FUZZ_CHECK(result >= 0 && result <= 15);
  }

  if (command == 7 && (threw || result != 0)) FUZZ_CHECK(Untouched(status));
  if (command == 7 && !threw && result == 0) {
    FUZZ_CHECK(!status.subscribedTraps[2].empty() && status.subscribedTraps[2][0] == 77);
  }
  if (command == 8 && (threw || result != 0)) FUZZ_CHECK((ids == std::vector<uint64_t>{42, 43}));
}

}  // namespace
}  // namespace libtidewatch

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  tidewatch_fuzz::QuietLog(libtidewatch::kLogVerbose);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size != 0) libtidewatch::RunCommand(data, size);
  return 0;
}
