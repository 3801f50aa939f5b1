#include "tavix/osa/PlainMutex.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <memory>
#include <vector>

#include "tavix/osa/Time.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/ElapsedTime.h"

namespace {

using tavix::osa::Deadline;
using tavix::osa::kWaitForever;
using tavix::osa::PlainMutex;
using tavix::osa::PlainMutexLock;
using tavix::test::BackgroundCall;
using tavix::test::MillisecondsOf;

// A flag that threads wait for.
struct Gate {
  void Open() {
    PlainMutexLock lock(mutex);
    isOpen = true;
    changed.notify_all();
  }

  bool IsOpen() {
    PlainMutexLock lock(mutex);
    return isOpen;
  }

  bool AwaitUntil(const Deadline& deadline) {
    PlainMutexLock lock(mutex);
    return lock.WaitUntil(changed, deadline, [this] { return isOpen; });
  }

  PlainMutex mutex;
  std::condition_variable changed;
  bool isOpen = false;
};

TEST(PlainMutexLock, OneHolderAtATime) {
  PlainMutex mutex;
  int counter = 0;  // plain: ThreadSanitizer and the sum both report two threads inside
  {
    std::vector<std::unique_ptr<BackgroundCall>> calls;
    for (int call = 0; call < 4; ++call) {
      calls.push_back(std::make_unique<BackgroundCall>([&] {
        for (int round = 0; round < 500; ++round) {
          PlainMutexLock lock(mutex);
          ++counter;
        }
      }));
    }
  }
  EXPECT_EQ(counter, 2000);
}

TEST(PlainMutexLock, KeepsOthersOutUntilItsScopeEnds) {
  Gate gate;
  std::unique_ptr<BackgroundCall> other;
  {
    PlainMutexLock lock(gate.mutex);
    other = std::make_unique<BackgroundCall>([&] { gate.Open(); });
    other->AwaitBlocked();
    EXPECT_FALSE(gate.isOpen);
  }
  other->Join();
  EXPECT_TRUE(gate.IsOpen());
}

TEST(PlainMutexLock, WaitingFreesTheMutexUntilTheConditionHolds) {
  Gate gate;
  PlainMutexLock lock(gate.mutex);
  BackgroundCall opener([&] { gate.Open(); });
  lock.Wait(gate.changed, [&] { return gate.isOpen; });
  EXPECT_TRUE(gate.isOpen);
}

TEST(PlainMutexLock, AWaitHoldsTheMutexAgainWhenItReturns) {
  Gate gate;
  gate.Open();
  std::unique_ptr<BackgroundCall> other;
  {
    PlainMutexLock lock(gate.mutex);
    lock.Wait(gate.changed, [&] { return gate.isOpen; });
    other = std::make_unique<BackgroundCall>([&] { gate.IsOpen(); });
    other->AwaitBlocked();
    EXPECT_FALSE(other->HasEnded());
  }
  other->Join();
}

TEST(PlainMutexLock, AWaitThatIsTooLongReportsIt) {
  Gate gate;
  for (const unsigned int timeout : {0u, 1u, 20u}) {
    EXPECT_GE(MillisecondsOf([&] { EXPECT_FALSE(gate.AwaitUntil(Deadline(timeout))); }), static_cast<long>(timeout));
  }
}

TEST(PlainMutexLock, AConditionThatHoldsIsFoundBeyondTheDeadline) {
  Gate gate;
  gate.Open();
  EXPECT_TRUE(gate.AwaitUntil(Deadline(0)));
}

TEST(PlainMutexLock, AWaitWithOrWithoutADeadlineIsWoken) {
  for (const unsigned int timeout : {kWaitForever, 1000u * 1000u}) {
    Gate gate;
    BackgroundCall waiter([&] { EXPECT_TRUE(gate.AwaitUntil(Deadline(timeout))); });
    waiter.AwaitBlocked();
    EXPECT_FALSE(waiter.HasEnded());
    gate.Open();
    waiter.Join();
  }
}

}  // namespace
