#include "tavix/osa/Mutex.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <vector>

#include "tavix/osa/LockException.h"
#include "tavix/osa/MutexAutoLock.h"
#include "tavix/osa/Time.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/ElapsedTime.h"

namespace {

using tavix::osa::Exception;
using tavix::osa::kWaitForever;
using tavix::osa::LockException;
using tavix::osa::Mutex;
using tavix::osa::MutexAutoLock;
using tavix::test::BackgroundCall;
using tavix::test::MillisecondsOf;

// Whether another thread finds the mutex free.
bool IsFree(Mutex& mutex) {
  bool taken = false;
  BackgroundCall([&] {
    try {
      mutex.Lock(0);
      mutex.Release();
      taken = true;
    } catch (const LockException&) {
    }
  }).Join();
  return taken;
}

TEST(Mutex, IsHeldFromLockToRelease) {
  Mutex mutex(nullptr);
  EXPECT_TRUE(IsFree(mutex));
  mutex.Lock(kWaitForever);
  EXPECT_FALSE(IsFree(mutex));
  mutex.Release();
  EXPECT_TRUE(IsFree(mutex));
}

TEST(Mutex, ATimeoutThrowsAndNamesTheMutex) {
  Mutex mutex("_commandMutex");
  mutex.Lock(0);
  BackgroundCall call([&] { mutex.Lock(1); });
  EXPECT_THAT([&] { call.Join(); }, testing::ThrowsMessage<LockException>(testing::AllOf(
                                        testing::HasSubstr("Lock Timeout"), testing::HasSubstr("_commandMutex"))));
  mutex.Release();
}

TEST(Mutex, IsTakenByAWaitingThreadBeforeOneThatAwaitsItsTurn) {
  Mutex mutex(nullptr);
  std::promise<void> mayRelease;
  mutex.Lock(0);
  BackgroundCall waiter([&] {
    mutex.Lock(kWaitForever);
    mayRelease.get_future().wait();
    mutex.Release();
  });
  waiter.AwaitBlocked();
  mutex.Release();
  mutex.AwaitWaiter();
  EXPECT_THROW(mutex.Lock(0), LockException);
  mayRelease.set_value();
  waiter.Join();
}

TEST(Mutex, WithoutAWaitingThreadIsAwaitedInVainByNobody) {
  Mutex mutex(nullptr);
  mutex.AwaitWaiter();
  mutex.Lock(0);
  mutex.AwaitWaiter();
  mutex.Release();
}

TEST(Mutex, WaitsAtLeastTheTimeGiven) {
  Mutex mutex(nullptr);
  mutex.Lock(0);
  BackgroundCall call([&] {
    for (const unsigned int timeout : {1u, 20u, 60u}) {
      EXPECT_GE(MillisecondsOf([&] { EXPECT_THROW(mutex.Lock(timeout), LockException); }), static_cast<long>(timeout));
    }
  });
  call.Join();
  mutex.Release();
}

TEST(Mutex, AReleaseWakesWhoWaits) {
  for (const unsigned int timeout : {kWaitForever, 1000u * 1000u}) {
    Mutex mutex(nullptr);
    mutex.Lock(0);
    BackgroundCall waiter([&] { MutexAutoLock held(mutex, timeout); });
    waiter.AwaitBlocked();
    EXPECT_FALSE(waiter.HasEnded());
    mutex.Release();
    waiter.Join();
  }
}

TEST(Mutex, LockingItAgainFromTheSameThreadThrowsInsteadOfWaitingForItself) {
  Mutex mutex("twice");
  mutex.Lock(kWaitForever);
  for (const unsigned int timeout : {kWaitForever, 0u, 10u})
    EXPECT_THAT([&] { mutex.Lock(timeout); }, testing::ThrowsMessage<Exception>(testing::HasSubstr("twice")));
  EXPECT_FALSE(IsFree(mutex)) << "it is held as before";
  mutex.Release();
  EXPECT_TRUE(IsFree(mutex)) << "one release is enough";
}

TEST(Mutex, TellsItsHolderThatItHoldsIt) {
  Mutex mutex(nullptr);
  EXPECT_FALSE(mutex.IsHeldByThisThread());
  mutex.Lock(kWaitForever);
  EXPECT_TRUE(mutex.IsHeldByThisThread());
  BackgroundCall([&] { EXPECT_FALSE(mutex.IsHeldByThisThread()); }).Join();
  mutex.Release();
  EXPECT_FALSE(mutex.IsHeldByThisThread());
}

TEST(Mutex, OnlyItsHolderMayRelease) {
  Mutex mutex("held");
  EXPECT_THROW(mutex.Release(), Exception);
  mutex.Lock(0);
  BackgroundCall stranger([&] { mutex.Release(); });
  EXPECT_THAT([&] { stranger.Join(); }, testing::ThrowsMessage<Exception>(testing::HasSubstr("held")));
  EXPECT_FALSE(IsFree(mutex));
  mutex.Release();
  EXPECT_THROW(mutex.Release(), Exception);
}

TEST(Mutex, OneHolderAtATime) {
  Mutex mutex(nullptr);
  int counter = 0;  // plain: ThreadSanitizer and the sum both tell when two threads are inside
  {
    std::vector<std::unique_ptr<BackgroundCall>> calls;
    for (const unsigned int timeout : {kWaitForever, kWaitForever, 1000u * 1000u, 1000u * 1000u}) {
      calls.push_back(std::make_unique<BackgroundCall>([&, timeout] {
        for (int round = 0; round < 500; ++round) {
          MutexAutoLock held(mutex, timeout);
          ++counter;
        }
      }));
    }
  }
  EXPECT_EQ(counter, 2000);
}

TEST(MutexAutoLock, HoldsTheMutexForItsScope) {
  Mutex mutex(nullptr);
  {
    MutexAutoLock held(mutex);
    EXPECT_FALSE(IsFree(mutex));
  }
  EXPECT_TRUE(IsFree(mutex));
}

TEST(MutexAutoLock, ABusyMutexThrowsAtOnceWhenNotAllowedToWait) {
  Mutex mutex(nullptr);
  MutexAutoLock held(mutex);
  BackgroundCall call([&] { MutexAutoLock second(mutex, 0); });
  EXPECT_THROW(call.Join(), LockException);
}

TEST(MutexAutoLock, ReleasesWhenAnExceptionLeavesTheScope) {
  Mutex mutex(nullptr);
  const auto failing = [&] {
    MutexAutoLock held(mutex);
    throw Exception("inside");
  };
  EXPECT_THROW(failing(), Exception);
  EXPECT_TRUE(IsFree(mutex));
}

TEST(MutexAutoLock, TheFormWithAFlagHoldsTheMutexWhenToldToLock) {
  Mutex mutex(nullptr);
  {
    MutexAutoLock held(&mutex, kWaitForever, true);
    EXPECT_FALSE(IsFree(mutex));
  }
  EXPECT_TRUE(IsFree(mutex));
}

TEST(MutexAutoLock, TakesAndReleasesNothingWhenToldNotToLock) {
  Mutex mutex(nullptr);
  {
    MutexAutoLock idle(&mutex, kWaitForever, false);
    EXPECT_TRUE(IsFree(mutex));
    mutex.Lock(0);
  }
  EXPECT_FALSE(IsFree(mutex));
  mutex.Release();
}

}  // namespace
