#include "emulator/callback_registry.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "libtidewatch/platform/host/hal_link.h"

namespace libtidewatch {
namespace {

using Bytes = std::vector<uint8_t>;

class CallbackRegistryTest : public testing::Test {
 protected:
  // The client end of one callback connection; the service end goes to the registry.
  struct FakeClient {
    FakeClient() {
      EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
      fcntl(fds[1], F_SETFL, fcntl(fds[1], F_GETFL) | O_NONBLOCK);
    }
    ~FakeClient() {
      if (fds[0] >= 0) close(fds[0]);
    }
    int serviceEnd() const { return fds[1]; }
    // Reads one frame, as the library's trap reader does.
    bool Read(HalLinkFrame* frame) {
      return ReadHalLinkFrame(fds[0], frame) == HalLinkReadResult::kFrame;
    }
    // Answers the next TRAP frame with `answer` (raw TRAP_RESULT payload), on a thread of its own.
    std::thread AnswerNext(Bytes answer) {
      return std::thread([this, answer] {
        HalLinkFrame frame;
        if (Read(&frame) && frame.opcode == kHalLinkTrap) {
          trap = frame.payload;
          WriteHalLinkFrame(fds[0], kHalLinkTrapResult, answer.data(), answer.size());
        }
      });
    }
    int fds[2] = {-1, -1};
    Bytes trap;
  };

  CallbackRegistry::AdoptResult Adopt(const std::string& name, FakeClient* client) {
    return registry_.Adopt(name, client->serviceEnd(), greeting_);
  }
  CallbackRegistry::Delivery Deliver(const std::string& name) {
    return registry_.Deliver(name, trap_.data(), trap_.size(), nullptr);
  }

  CallbackRegistry registry_{/*maxCallbacks=*/2, /*answerTimeoutMs=*/200};
  Bytes greeting_{2, 0, 0, 0, kHalLinkRegisterResult, 0};
  Bytes trap_{0xAE, 0xCD, 0xE8, 0xF4, 0xAC, 0xCA, 1, 0, 0, 0, 0x42};
};

TEST_F(CallbackRegistryTest, GreetingThenTrapThenAnswer) {
  FakeClient client;
  ASSERT_EQ(Adopt("7rx", &client), CallbackRegistry::AdoptResult::kAdopted);
  HalLinkFrame frame;
  ASSERT_TRUE(client.Read(&frame));
  EXPECT_EQ(frame.opcode, kHalLinkRegisterResult);
  EXPECT_EQ(frame.payload, Bytes{0});

  struct Case {
    Bytes answer;
    CallbackRegistry::Delivery result;
  } cases[] = {{{1}, CallbackRegistry::Delivery::kDelivered},
               {{0}, CallbackRegistry::Delivery::kRefused}};
  for (const Case& c : cases) {
    std::thread t = client.AnswerNext(c.answer);
    EXPECT_EQ(Deliver("7rx"), c.result);
    t.join();
    EXPECT_EQ(client.trap, trap_);
  }
  EXPECT_TRUE(registry_.Has("7rx"));
  EXPECT_EQ(Deliver("8rx"), CallbackRegistry::Delivery::kNoCallback);
}

// A callback that answers wrongly, or not at all, is dropped and its connection shut down.
TEST_F(CallbackRegistryTest, BrokenAnswersDropTheCallback) {
  const Bytes kAnswers[] = {{2}, {1, 1}, {}};
  for (const Bytes& answer : kAnswers) {
    FakeClient client;
    ASSERT_EQ(Adopt("rx", &client), CallbackRegistry::AdoptResult::kAdopted);
    HalLinkFrame frame;
    ASSERT_TRUE(client.Read(&frame));
    std::thread t = client.AnswerNext(answer);
    EXPECT_EQ(Deliver("rx"), CallbackRegistry::Delivery::kFailed) << answer.size();
    t.join();
    EXPECT_FALSE(registry_.Has("rx"));
    EXPECT_FALSE(client.Read(&frame));  // shut down from the service's side
  }
  FakeClient silent;
  ASSERT_EQ(Adopt("rx", &silent), CallbackRegistry::AdoptResult::kAdopted);
  EXPECT_EQ(Deliver("rx"), CallbackRegistry::Delivery::kFailed);
  EXPECT_FALSE(registry_.Has("rx"));
}

TEST_F(CallbackRegistryTest, PruneDropsClientsThatLeftOrSpokeUnasked) {
  FakeClient gone, chatty, quiet;
  ASSERT_EQ(Adopt("gone", &gone), CallbackRegistry::AdoptResult::kAdopted);
  ASSERT_EQ(Adopt("chatty", &chatty), CallbackRegistry::AdoptResult::kAdopted);
  EXPECT_EQ(Adopt("quiet", &quiet), CallbackRegistry::AdoptResult::kFull);
  close(quiet.fds[1]);  // refused: still the caller's to close
  close(gone.fds[0]);
  gone.fds[0] = -1;
  uint8_t yes = 1;
  WriteHalLinkFrame(chatty.fds[0], kHalLinkTrapResult, &yes, 1);
  registry_.Prune();
  EXPECT_EQ(registry_.Size(), 0u);
}

TEST_F(CallbackRegistryTest, RegisteringAgainReplacesAndShutsTheOldOneDown) {
  FakeClient first, second;
  ASSERT_EQ(Adopt("rx", &first), CallbackRegistry::AdoptResult::kAdopted);
  ASSERT_EQ(Adopt("rx", &second), CallbackRegistry::AdoptResult::kAdopted);
  EXPECT_EQ(registry_.Size(), 1u);
  HalLinkFrame frame;
  ASSERT_TRUE(first.Read(&frame));  // its greeting, then the end
  EXPECT_FALSE(first.Read(&frame));
  ASSERT_TRUE(second.Read(&frame));
  std::thread t = second.AnswerNext({1});
  EXPECT_EQ(Deliver("rx"), CallbackRegistry::Delivery::kDelivered);
  t.join();
}

}  // namespace
}  // namespace libtidewatch
