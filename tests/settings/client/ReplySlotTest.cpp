#include "tavix/settings/client/ReplySlot.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <random>
#include <utility>

#include "tavix/osa/Semaphore.h"
#include "tavix/osa/Time.h"
#include "tests/support/BackgroundCall.h"

namespace {

using tavix::osa::kWaitForever;
using tavix::osa::Semaphore;
using tavix::settings::client::RemoteCommand;
using tavix::settings::client::ReplySlot;
using tavix::settings::client::ResponseStatus;
using tavix::test::BackgroundCall;

constexpr ResponseStatus kDone{true, true};
constexpr ResponseStatus kRefused{true, false};

// A command whose end and whose reply can be seen.
class NumberedCommand : public RemoteCommand {
 public:
  explicit NumberedCommand(std::shared_ptr<std::atomic<int>> reply = nullptr) : _reply(std::move(reply)) {}

  void SendRequest(std::ostream&) override {}

  // What a reply would be read into.
  const std::shared_ptr<std::atomic<int>> _reply;
};

// Queues a command, and returns it for comparison only.
const RemoteCommand* QueueOne(ReplySlot& slot) {
  auto command = std::make_unique<NumberedCommand>();
  const RemoteCommand* const queued = command.get();
  slot.Queue(std::move(command));
  return queued;
}

// A call in good order: its own command is taken, and its own outcome comes.
void ExpectGoodCall(ReplySlot& slot) {
  const RemoteCommand* const queued = QueueOne(slot);
  std::unique_ptr<RemoteCommand> taken = slot.Take();
  EXPECT_EQ(taken.get(), queued);
  slot.Finish(std::move(taken), kDone);
  const ResponseStatus status = slot.Await();
  EXPECT_TRUE(status.received && status.result);
}

TEST(ReplySlot, CommandThatIsPutBackIsTakenAgain) {
  ReplySlot slot;
  const RemoteCommand* const queued = QueueOne(slot);
  slot.PutBack(slot.Take());
  EXPECT_TRUE(slot.IsQueued());
  std::unique_ptr<RemoteCommand> taken = slot.Take();
  EXPECT_EQ(taken.get(), queued);
  slot.Finish(std::move(taken), kDone);
  EXPECT_TRUE(slot.Await().received);
}

// Its caller was failed by an earlier loss, and another one has a command by now.
TEST(ReplySlot, CommandThatIsPutBackBehindItsCallerComesBeforeLaterOnes) {
  ReplySlot slot;
  slot.Fail(true);
  const RemoteCommand* const left = QueueOne(slot);
  std::unique_ptr<RemoteCommand> taken = slot.Take();
  EXPECT_FALSE(slot.Await().received);
  const RemoteCommand* const later = QueueOne(slot);
  slot.PutBack(std::move(taken));
  taken = slot.Take();
  EXPECT_EQ(taken.get(), left);
  slot.Finish(std::move(taken), kDone);
  taken = slot.Take();
  EXPECT_EQ(taken.get(), later);
  slot.Finish(std::move(taken), kRefused);
  EXPECT_TRUE(slot.Await().received);
}

TEST(ReplySlot, EachCallerGetsTheOutcomeOfItsOwnCommand) {
  ReplySlot slot;
  ExpectGoodCall(slot);
  QueueOne(slot);
  slot.Finish(slot.Take(), kRefused);
  const ResponseStatus status = slot.Await();
  EXPECT_TRUE(status.received);
  EXPECT_FALSE(status.result);
  ExpectGoodCall(slot);
}

TEST(ReplySlot, ACallerWaitsUntilItsReplyWasRead) {
  ReplySlot slot;
  QueueOne(slot);
  BackgroundCall caller([&] { EXPECT_TRUE(slot.Await().received); });
  caller.AwaitBlocked();
  std::unique_ptr<RemoteCommand> taken = slot.Take();
  EXPECT_FALSE(caller.HasEnded());
  slot.Finish(std::move(taken), kDone);
  caller.Join();
}

TEST(ReplySlot, AReplyThatNobodyAwaitsFindsNoCommand) {
  ReplySlot slot;
  EXPECT_EQ(slot.Take(), nullptr);
  QueueOne(slot);
  const std::unique_ptr<RemoteCommand> taken = slot.Take();
  EXPECT_NE(taken, nullptr);
  EXPECT_EQ(slot.Take(), nullptr) << "one reply for one command";
}

TEST(ReplySlot, KnowsWhetherARequestHasNoReplyYet) {
  ReplySlot slot;
  EXPECT_FALSE(slot.IsQueued());
  QueueOne(slot);
  EXPECT_TRUE(slot.IsQueued());
  slot.Finish(slot.Take(), kDone);
  EXPECT_FALSE(slot.IsQueued());
}

TEST(ReplySlot, TheCommandIsGoneBeforeItsCallerGoesOn) {
  ReplySlot slot;
  const auto reply = std::make_shared<std::atomic<int>>(0);
  slot.Queue(std::make_unique<NumberedCommand>(reply));
  BackgroundCall caller([&] {
    EXPECT_TRUE(slot.Await().received);
    EXPECT_EQ(reply.use_count(), 1) << "the caller's alone";
  });
  caller.AwaitBlocked();
  slot.Finish(slot.Take(), kDone);
  caller.Join();
}

TEST(ReplySlot, ALossFailsTheCallerThatWaits) {
  ReplySlot slot;
  QueueOne(slot);
  BackgroundCall caller([&] { EXPECT_FALSE(slot.Await().received); });
  caller.AwaitBlocked();
  slot.Fail(false);
  caller.Join();
  ExpectGoodCall(slot);
}

TEST(ReplySlot, ALossThatNobodyAwaitedFailsTheNextCallerAndNoOther) {
  for (const int losses : {1, 2, 3}) {
    ReplySlot slot;
    for (int loss = 0; loss < losses; ++loss) slot.Fail(false);
    QueueOne(slot);
    EXPECT_FALSE(slot.Await().received) << losses;
    slot.Finish(slot.Take(), kDone);
    ExpectGoodCall(slot);
  }
}

TEST(ReplySlot, TheReplyOfACallerThatLeftIsNotTakenForTheNextOnes) {
  ReplySlot slot;
  slot.Fail(false);
  const RemoteCommand* const left = QueueOne(slot);
  EXPECT_FALSE(slot.Await().received);
  const RemoteCommand* const next = QueueOne(slot);
  std::unique_ptr<RemoteCommand> taken = slot.Take();
  EXPECT_EQ(taken.get(), left);
  slot.Finish(std::move(taken), kRefused);
  taken = slot.Take();
  EXPECT_EQ(taken.get(), next);
  slot.Finish(std::move(taken), kDone);
  EXPECT_TRUE(slot.Await().result);
}

TEST(ReplySlot, AReplyThatIsReadWhileItsCallerLeavesIsPostedToNobody) {
  ReplySlot slot;
  slot.Fail(false);
  QueueOne(slot);
  std::unique_ptr<RemoteCommand> taken = slot.Take();
  EXPECT_FALSE(slot.Await().received);
  slot.Finish(std::move(taken), kRefused);
  ExpectGoodCall(slot);
}

TEST(ReplySlot, AReplyThatIsReadForACallerThatLeftDoesNotEndTheNextCall) {
  ReplySlot slot;
  slot.Fail(false);
  QueueOne(slot);
  std::unique_ptr<RemoteCommand> ofTheFirst = slot.Take();
  EXPECT_FALSE(slot.Await().received);
  const RemoteCommand* const next = QueueOne(slot);
  slot.Finish(std::move(ofTheFirst), kRefused);
  std::unique_ptr<RemoteCommand> ofTheNext = slot.Take();
  EXPECT_EQ(ofTheNext.get(), next);
  slot.Finish(std::move(ofTheNext), kDone);
  EXPECT_TRUE(slot.Await().result);
}

TEST(ReplySlot, AReplyThatWasCutOffFailsItsCallerWithTheConnection) {
  ReplySlot slot;
  QueueOne(slot);
  BackgroundCall caller([&] { EXPECT_FALSE(slot.Await().received); });
  slot.Drop(slot.Take());
  caller.AwaitBlocked();
  EXPECT_FALSE(caller.HasEnded()) << "until the connection is known to be lost";
  slot.Fail(false);
  caller.Join();
  ExpectGoodCall(slot);
}

TEST(ReplySlot, AReplyThatWasCutOffForACallerThatLeftKeepsTheNextCommandQueued) {
  ReplySlot slot;
  slot.Fail(false);
  QueueOne(slot);
  std::unique_ptr<RemoteCommand> ofTheFirst = slot.Take();
  EXPECT_FALSE(slot.Await().received);
  QueueOne(slot);
  slot.Drop(std::move(ofTheFirst));
  EXPECT_TRUE(slot.IsQueued());
}

TEST(ReplySlot, ALossDropsTheCommandsWhoseRepliesAreLostWithIt) {
  ReplySlot slot;
  const auto reply = std::make_shared<std::atomic<int>>(0);
  slot.Fail(false);
  slot.Queue(std::make_unique<NumberedCommand>(reply));
  EXPECT_FALSE(slot.Await().received);
  slot.Queue(std::make_unique<NumberedCommand>(reply));
  slot.Fail(false);
  EXPECT_EQ(reply.use_count(), 1);
  EXPECT_EQ(slot.Take(), nullptr);
}

TEST(ReplySlot, RepliesThatOutliveALossStillMeetTheirCommands) {
  ReplySlot slot;
  const RemoteCommand* const left = QueueOne(slot);
  slot.Fail(true);
  EXPECT_FALSE(slot.Await().received);
  const RemoteCommand* const next = QueueOne(slot);
  std::unique_ptr<RemoteCommand> taken = slot.Take();
  EXPECT_EQ(taken.get(), left);
  slot.Finish(std::move(taken), kDone);
  EXPECT_EQ(slot.Take().get(), next);
}

TEST(ReplySlot, AnOutcomeThatCameIsNotTakenBackByALossThatFollows) {
  ReplySlot slot;
  QueueOne(slot);
  slot.Finish(slot.Take(), kDone);
  slot.Fail(false);
  EXPECT_TRUE(slot.Await().received);
  ExpectGoodCall(slot);
}

// One caller and one worker, with what joins them in the client: the right to write, under which a request is written
// and its command queued, and under which a lost connection takes all written requests with it.
struct Exchange {
  void Call(int number) {
    const auto reply = std::make_shared<std::atomic<int>>(0);
    {
      std::lock_guard<std::mutex> right(sendRight);
      slot.Queue(std::make_unique<NumberedCommand>(reply));
      requests.Release();
    }
    const ResponseStatus status = slot.Await();
    if (status.received) {
      EXPECT_EQ(*reply, 1) << "call " << number << " got another call's outcome";
      ++succeeded;
    } else {
      ++failed;
    }
  }

  // What becomes of the next request. 0: its reply comes, 1: another's, 2: it is cut off, 3: the connection is lost.
  void Serve(unsigned int what) {
    if (what == 3) return Lose();
    std::unique_ptr<RemoteCommand> command = slot.Take();
    ASSERT_NE(command, nullptr) << "a request that is written has a command";
    if (what == 2) {
      slot.Drop(std::move(command));
      return Lose();
    }
    if (what == 0) *static_cast<NumberedCommand&>(*command)._reply = 1;
    slot.Finish(std::move(command), {what == 0, what == 0});
  }

  void Lose() {
    std::lock_guard<std::mutex> right(sendRight);
    while (requests.TryLock(0)) {
    }
    slot.Fail(false);
    ++losses;
  }

  ReplySlot slot;
  std::mutex sendRight;
  Semaphore requests{nullptr, 1000, 0};  // written, and without a reply
  int succeeded = 0;                     // the caller's
  int failed = 0;                        // likewise
  int losses = 0;                        // the worker's
};

TEST(ReplySlot, UnderRandomLossesEachCallGetsItsOwnOutcomeOrAFailure) {
  constexpr int kCalls = 3000;
  Exchange exchange;
  std::atomic<bool> isOver{false};
  BackgroundCall worker([&] {
    std::mt19937 random(1);
    for (exchange.requests.Lock(kWaitForever); !isOver; exchange.requests.Lock(kWaitForever))
      exchange.Serve(random() % 8 < 4 ? 0 : random() % 4);
  });
  for (int number = 0; number < kCalls; ++number) exchange.Call(number);
  isOver = true;
  exchange.requests.Release();
  worker.Join();
  EXPECT_EQ(exchange.succeeded + exchange.failed, kCalls);
  EXPECT_GT(exchange.succeeded, kCalls / 4);
  EXPECT_GT(exchange.losses, 0);
}

}  // namespace
