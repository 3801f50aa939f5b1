#include "tavix/osa/MsgQueue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <numeric>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "tavix/osa/Exception.h"
#include "tavix/osa/LockException.h"
#include "tavix/osa/Time.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/ElapsedTime.h"

namespace {

using tavix::osa::Exception;
using tavix::osa::kWaitForever;
using tavix::osa::LockException;
using tavix::osa::tMsgQueue;
using tavix::test::BackgroundCall;
using tavix::test::MillisecondsOf;

static_assert(std::has_virtual_destructor_v<tMsgQueue<int>>);
static_assert(!std::is_copy_constructible_v<tMsgQueue<int>>);

TEST(MsgQueue, MessagesAreReceivedInTheOrderSent) {
  tMsgQueue<std::string> queue("queue", 3);
  for (const char* message : {"first", "second", "third"}) queue.SendMsg(message);
  for (const char* message : {"first", "second", "third"}) {
    std::string received;
    EXPECT_TRUE(queue.GetMsg(received, 0));
    EXPECT_EQ(received, message);
  }
}

TEST(MsgQueue, ASecondMessageInAQueueOfOneIsRefusedAndTheFirstIsStillDelivered) {
  tMsgQueue<int> queue("queue", 1);
  queue.SendMsg(1);
  EXPECT_THAT([&] { queue.SendMsg(2); }, testing::ThrowsMessage<Exception>("Message Queue Is Full"));
  EXPECT_EQ(queue.GetSize(), 1u);
  int received = 0;
  EXPECT_TRUE(queue.GetMsg(received, 0));
  EXPECT_EQ(received, 1);
  EXPECT_THROW(queue.GetMsg(received, 0), LockException);
}

TEST(MsgQueue, AQueueOfNothingTakesNothing) {
  tMsgQueue<int> queue("queue", 0);
  EXPECT_THAT([&] { queue.SendMsg(1); }, testing::ThrowsMessage<Exception>("Message Queue Is Full"));
}

TEST(MsgQueue, HoldsItsCapacity) {
  constexpr unsigned short kLargest = 65535;
  tMsgQueue<int> queue("queue", kLargest);
  for (int i = 0; i < kLargest; ++i) queue.SendMsg(i);
  EXPECT_EQ(queue.GetSize(), kLargest);
  EXPECT_THROW(queue.SendMsg(0), Exception);
}

TEST(MsgQueue, WaitingForAMessageThatNeverComesEndsByALockTimeout) {
  tMsgQueue<int> queue("queue", 1);
  int received = 7;
  const long waited = MillisecondsOf(
      [&] { EXPECT_THAT([&] { queue.GetMsg(received, 50); }, testing::ThrowsMessage<LockException>("Lock Timeout")); });
  EXPECT_GE(waited, 50);
  EXPECT_EQ(received, 7);
}

TEST(MsgQueue, ALockTimeoutHasTheErrorOne) {
  tMsgQueue<int> queue("queue", 1);
  int received = 0;
  try {
    queue.GetMsg(received, 0);
    FAIL() << "Nothing was thrown";
  } catch (const LockException& exception) {
    EXPECT_EQ(exception.GetError(), 1);
  }
}

TEST(MsgQueue, IsUsableAfterATimeout) {
  tMsgQueue<int> queue("queue", 1);
  int received = 0;
  EXPECT_THROW(queue.GetMsg(received, 1), LockException);
  queue.SendMsg(3);
  EXPECT_TRUE(queue.GetMsg(received, 0));
  EXPECT_EQ(received, 3);
}

TEST(MsgQueue, AReceiverWakesWhenAMessageComes) {
  for (const unsigned int timeout : {60000u, kWaitForever}) {
    tMsgQueue<int> queue("queue", 1);
    int received = 0;
    BackgroundCall receiver([&] { EXPECT_TRUE(queue.GetMsg(received, timeout)); });
    receiver.AwaitBlocked();
    EXPECT_FALSE(receiver.HasEnded());
    queue.SendMsg(5);
    receiver.Join();
    EXPECT_EQ(received, 5);
  }
}

TEST(MsgQueue, ANameMayBeMissing) {
  tMsgQueue<int> queue(nullptr, 1);
  queue.SendMsg(1);
  EXPECT_EQ(queue.GetSize(), 1u);
}

struct Counted {
  explicit Counted(int& count) : _count(count) { ++_count; }
  ~Counted() { --_count; }
  int& _count;
};

TEST(MsgQueue, PointersThatRemainAreNotDeleted) {
  int count = 0;
  Counted message(count);
  {
    tMsgQueue<Counted*> queue("queue", 1);
    queue.SendMsg(&message);
  }
  EXPECT_EQ(count, 1);
}

// A receiver that was woken must find a message, whoever else receives at the time; none is lost or delivered twice.
TEST(MsgQueue, ManySendersAndReceiversLoseNoMessage) {
  constexpr int kThreads = 4;
  constexpr int kMessages = 2000;  // of each sender
  tMsgQueue<int> queue("queue", 8);
  std::vector<std::vector<int>> received(kThreads);
  std::deque<BackgroundCall> calls;
  for (int thread = 0; thread < kThreads; ++thread) {
    calls.emplace_back([&queue, &mine = received[static_cast<size_t>(thread)]] {
      for (int i = 0; i < kMessages; ++i) queue.GetMsg(mine.emplace_back(), kWaitForever);
    });
    calls.emplace_back([&queue, thread] {
      for (int i = 0; i < kMessages;) {
        try {
          queue.SendMsg(thread * kMessages + i);
          ++i;
        } catch (const Exception&) {
          std::this_thread::yield();
        }
      }
    });
  }
  for (BackgroundCall& call : calls) call.Join();
  std::vector<int> all;
  for (const auto& mine : received) all.insert(all.end(), mine.begin(), mine.end());
  std::sort(all.begin(), all.end());
  std::vector<int> sent(kThreads * kMessages);
  std::iota(sent.begin(), sent.end(), 0);
  EXPECT_EQ(all, sent);
}

}  // namespace
