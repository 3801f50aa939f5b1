#include "tavix/osa/Semaphore.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "tavix/osa/LockException.h"
#include "tavix/osa/Time.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/ElapsedTime.h"

namespace {

using tavix::osa::Exception;
using tavix::osa::kWaitForever;
using tavix::osa::LockException;
using tavix::osa::Semaphore;
using tavix::test::BackgroundCall;
using tavix::test::MillisecondsOf;

TEST(Semaphore, TakesWhatIsFreeWithoutWaiting) {
  Semaphore semaphore("slots", 3, 2);
  EXPECT_TRUE(semaphore.TryLock(0));
  EXPECT_NO_THROW(semaphore.Lock(0));
  EXPECT_FALSE(semaphore.TryLock(0));
}

TEST(Semaphore, StartsTakenWhenNothingIsFree) {
  Semaphore semaphore("sendMutex", 1, 0);
  EXPECT_FALSE(semaphore.TryLock(0));
  semaphore.Release();
  EXPECT_TRUE(semaphore.TryLock(0));
}

TEST(Semaphore, LockThatTimesOutThrowsAndNamesTheSemaphore) {
  Semaphore semaphore("sendMutex", 1, 0);
  EXPECT_THAT([&] { semaphore.Lock(0); }, testing::ThrowsMessage<LockException>(testing::AllOf(
                                              testing::HasSubstr("Lock Timeout"), testing::HasSubstr("sendMutex"))));
}

TEST(Semaphore, ATimeoutHasTheTimeoutCode) {
  Semaphore semaphore(nullptr, 1, 0);
  try {
    semaphore.Lock(1);
    FAIL() << "nothing was free";
  } catch (const LockException& exception) {
    EXPECT_EQ(exception.GetError(), LockException::kTimeout);
  }
}

TEST(Semaphore, WaitsAtLeastTheTimeGiven) {
  Semaphore semaphore(nullptr, 1, 0);
  for (const unsigned int timeout : {1u, 20u, 60u}) {
    EXPECT_GE(MillisecondsOf([&] { EXPECT_FALSE(semaphore.TryLock(timeout)); }), static_cast<long>(timeout));
    EXPECT_GE(MillisecondsOf([&] { EXPECT_THROW(semaphore.Lock(timeout), LockException); }),
              static_cast<long>(timeout));
  }
}

TEST(Semaphore, AReleaseEndsAWaitThatHasNoLimit) {
  Semaphore semaphore(nullptr, 1, 0);
  BackgroundCall waiter([&] { semaphore.Lock(kWaitForever); });
  waiter.AwaitBlocked();
  EXPECT_FALSE(waiter.HasEnded());
  semaphore.Release();
  waiter.Join();
  EXPECT_FALSE(semaphore.TryLock(0)) << "the release went to the waiter";
}

TEST(Semaphore, AReleaseEndsAWaitThatHasALimit) {
  Semaphore semaphore(nullptr, 1, 0);
  bool taken = false;
  BackgroundCall waiter([&] { taken = semaphore.TryLock(1000 * 1000); });
  waiter.AwaitBlocked();
  semaphore.Release();
  waiter.Join();
  EXPECT_TRUE(taken);
}

TEST(Semaphore, ReleaseAboveTheMaximumThrowsAndChangesNothing) {
  Semaphore semaphore("slots", 2, 1);
  semaphore.Release();
  EXPECT_THAT([&] { semaphore.Release(); }, testing::ThrowsMessage<Exception>(testing::HasSubstr("slots")));
  EXPECT_TRUE(semaphore.TryLock(0));
  EXPECT_TRUE(semaphore.TryLock(0));
  EXPECT_FALSE(semaphore.TryLock(0));
}

TEST(Semaphore, AnInitialCountAboveTheMaximumIsRefused) {
  EXPECT_THROW(Semaphore("slots", 1, 2), Exception);
}

TEST(Semaphore, AnyThreadMayRelease) {
  Semaphore semaphore(nullptr, 1, 1);
  semaphore.Lock(0);
  BackgroundCall([&] { semaphore.Release(); }).Join();
  EXPECT_TRUE(semaphore.TryLock(0));
}

TEST(Semaphore, AReleaseGoesToWhoeverHasWaitedLongest) {
  Semaphore semaphore(nullptr, 1, 0);
  std::vector<int> order;
  std::vector<std::unique_ptr<BackgroundCall>> waiters;
  for (int i = 0; i < 5; ++i) {
    waiters.push_back(std::make_unique<BackgroundCall>([&, i] {
      semaphore.Lock(kWaitForever);
      order.push_back(i);
    }));
    waiters.back()->AwaitBlocked();
  }
  for (const auto& waiter : waiters) {
    semaphore.Release();
    waiter->Join();
  }
  EXPECT_THAT(order, testing::ElementsAre(0, 1, 2, 3, 4));
}

TEST(Semaphore, ANewcomerNeverOvertakesAWaiter) {
  for (int round = 0; round < 20; ++round) {
    Semaphore semaphore(nullptr, 1, 0);
    BackgroundCall waiter([&] { semaphore.Lock(kWaitForever); });
    waiter.AwaitBlocked();
    semaphore.Release();
    EXPECT_FALSE(semaphore.TryLock(0));
  }
}

TEST(Semaphore, AWaiterThatGaveUpTakesNothing) {
  Semaphore semaphore(nullptr, 2, 0);
  BackgroundCall first([&] { semaphore.Lock(kWaitForever); });
  first.AwaitBlocked();
  BackgroundCall impatient([&] { EXPECT_FALSE(semaphore.TryLock(50)); });
  impatient.AwaitBlocked();
  BackgroundCall last([&] { semaphore.Lock(kWaitForever); });
  last.AwaitBlocked();
  impatient.Join();
  semaphore.Release();
  first.Join();
  semaphore.Release();
  last.Join();
  EXPECT_FALSE(semaphore.TryLock(0));
}

TEST(Semaphore, NoCountIsLostWhenReleasesMeetTimeouts) {
  Semaphore semaphore(nullptr, 1000, 0);
  std::atomic<int> taken{0};
  {
    std::vector<std::unique_ptr<BackgroundCall>> takers;
    for (int i = 0; i < 3; ++i) {
      takers.push_back(std::make_unique<BackgroundCall>([&] {
        for (int attempt = 0; attempt < 200; ++attempt) taken += semaphore.TryLock(1) ? 1 : 0;
      }));
    }
    for (int i = 0; i < 1000; ++i) {
      semaphore.Release();
      if (i % 3 == 0) std::this_thread::yield();
    }
  }
  int left = 0;
  while (semaphore.TryLock(0)) ++left;
  EXPECT_EQ(taken + left, 1000);
}

TEST(Semaphore, OneHolderAtATime) {
  Semaphore semaphore(nullptr, 1, 1);
  int counter = 0;  // plain: ThreadSanitizer and the sum both tell when two threads are inside
  {
    std::vector<std::unique_ptr<BackgroundCall>> calls;
    for (int i = 0; i < 4; ++i) {
      calls.push_back(std::make_unique<BackgroundCall>([&] {
        for (int round = 0; round < 500; ++round) {
          semaphore.Lock(kWaitForever);
          ++counter;
          semaphore.Release();
        }
      }));
    }
  }
  EXPECT_EQ(counter, 2000);
}

}  // namespace
