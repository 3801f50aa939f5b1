#include "tavix/osa/ReadWriteLock.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <vector>

#include "tavix/osa/LockException.h"
#include "tavix/osa/ReadWriteAutoLock.h"
#include "tavix/osa/Time.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/ElapsedTime.h"

namespace {

using tavix::osa::AdoptedWriteLock;
using tavix::osa::Exception;
using tavix::osa::kWaitForever;
using tavix::osa::LockException;
using tavix::osa::ReadAutoLock;
using tavix::osa::ReadWriteLock;
using tavix::osa::WriteAutoLock;
using tavix::test::BackgroundCall;
using tavix::test::MillisecondsOf;

bool CanRead(ReadWriteLock& lock) {
  try {
    lock.ReadLock(0);
  } catch (const LockException&) {
    return false;
  }
  lock.Release();
  return true;
}

bool CanWrite(ReadWriteLock& lock) {
  try {
    lock.WriteLock(0);
  } catch (const LockException&) {
    return false;
  }
  lock.Release();
  return true;
}

TEST(ReadWriteLock, ReadersShareIt) {
  ReadWriteLock lock("SettingsMutex");
  lock.ReadLock(kWaitForever);
  lock.ReadLock(kWaitForever);
  BackgroundCall([&] { EXPECT_TRUE(CanRead(lock)); }).Join();
  lock.Release();
  lock.Release();
  EXPECT_TRUE(CanWrite(lock));
}

TEST(ReadWriteLock, AWriterExcludesEverybody) {
  ReadWriteLock lock("SettingsMutex");
  lock.WriteLock(kWaitForever);
  EXPECT_FALSE(CanRead(lock));
  EXPECT_FALSE(CanWrite(lock));
  lock.Release();
  EXPECT_TRUE(CanRead(lock));
  EXPECT_TRUE(CanWrite(lock));
}

TEST(ReadWriteLock, AReaderExcludesWriters) {
  ReadWriteLock lock("SettingsMutex");
  lock.ReadLock(0);
  lock.ReadLock(0);
  lock.Release();
  EXPECT_FALSE(CanWrite(lock)) << "one reader is left";
  lock.Release();
  EXPECT_TRUE(CanWrite(lock));
}

TEST(ReadWriteLock, ATimeoutThrowsAndNamesTheLock) {
  ReadWriteLock lock("SettingsMutex");
  lock.WriteLock(0);
  const auto namesLock = testing::AllOf(testing::HasSubstr("Lock Timeout"), testing::HasSubstr("SettingsMutex"));
  EXPECT_THAT([&] { lock.ReadLock(1); }, testing::ThrowsMessage<LockException>(namesLock));
  EXPECT_THAT([&] { lock.WriteLock(1); }, testing::ThrowsMessage<LockException>(namesLock));
}

TEST(ReadWriteLock, WaitsAtLeastTheTimeGiven) {
  ReadWriteLock lock(nullptr);
  lock.WriteLock(0);
  for (const unsigned int timeout : {1u, 20u, 60u}) {
    EXPECT_GE(MillisecondsOf([&] { EXPECT_THROW(lock.ReadLock(timeout), LockException); }), static_cast<long>(timeout));
    EXPECT_GE(MillisecondsOf([&] { EXPECT_THROW(lock.WriteLock(timeout), LockException); }),
              static_cast<long>(timeout));
  }
}

TEST(ReadWriteLock, AReleaseLetsAllWaitingReadersIn) {
  ReadWriteLock lock(nullptr);
  lock.WriteLock(0);
  BackgroundCall first([&] { lock.ReadLock(kWaitForever); });
  BackgroundCall second([&] { lock.ReadLock(1000 * 1000); });
  first.AwaitBlocked();
  second.AwaitBlocked();
  lock.Release();
  first.Join();
  second.Join();
  EXPECT_FALSE(CanWrite(lock)) << "both still read";
}

TEST(ReadWriteLock, TheLastReaderLetsTheWriterIn) {
  ReadWriteLock lock(nullptr);
  lock.ReadLock(0);
  lock.ReadLock(0);
  BackgroundCall writer([&] { lock.WriteLock(kWaitForever); });
  writer.AwaitBlocked();
  lock.Release();
  writer.AwaitBlocked();
  EXPECT_FALSE(writer.HasEnded());
  lock.Release();
  writer.Join();
  EXPECT_FALSE(CanRead(lock));
}

TEST(ReadWriteLock, AWaitingWriterGoesBeforeNewReaders) {
  ReadWriteLock lock(nullptr);
  lock.ReadLock(0);
  EXPECT_TRUE(CanRead(lock));
  BackgroundCall writer([&] { lock.WriteLock(kWaitForever); });
  writer.AwaitBlocked();
  EXPECT_FALSE(CanRead(lock)) << "a reader would make the writer wait longer";
  lock.Release();
  writer.Join();
}

TEST(ReadWriteLock, AWaitingWriterGoesBeforeReadersThatCameEarlier) {
  ReadWriteLock lock(nullptr);
  std::vector<char> order;
  lock.WriteLock(0);
  BackgroundCall reader([&] {
    ReadAutoLock held(lock);
    order.push_back('r');
  });
  reader.AwaitBlocked();
  BackgroundCall writer([&] {
    WriteAutoLock held(lock);
    order.push_back('w');
  });
  writer.AwaitBlocked();
  lock.Release();
  writer.Join();
  reader.Join();
  EXPECT_THAT(order, testing::ElementsAre('w', 'r'));
}

TEST(ReadWriteLock, AWriterThatGivesUpLetsTheReadersBehindItIn) {
  ReadWriteLock lock(nullptr);
  lock.ReadLock(0);
  BackgroundCall writer([&] { EXPECT_THROW(lock.WriteLock(100), LockException); });
  writer.AwaitBlocked();
  BackgroundCall reader([&] { lock.ReadLock(kWaitForever); });
  writer.Join();
  reader.Join();
  EXPECT_TRUE(CanRead(lock));
}

TEST(ReadWriteLock, AnyThreadMayRelease) {
  ReadWriteLock lock(nullptr);
  lock.WriteLock(0);
  BackgroundCall([&] { lock.Release(); }).Join();
  EXPECT_TRUE(CanWrite(lock));
  lock.ReadLock(0);
  BackgroundCall([&] { lock.Release(); }).Join();
  EXPECT_TRUE(CanWrite(lock));
}

TEST(ReadWriteLock, DestroyingItWhileHeldIsLegal) {
  std::optional<ReadWriteLock> lock(std::in_place, "SettingsMutex");
  lock->WriteLock(0);
  EXPECT_NO_THROW(lock.reset());
  lock.emplace("SettingsMutex");
  lock->ReadLock(0);
  EXPECT_NO_THROW(lock.reset());
}

TEST(ReadWriteLock, ReleasingWhatNobodyHoldsThrows) {
  ReadWriteLock lock("SettingsMutex");
  EXPECT_THAT([&] { lock.Release(); }, testing::ThrowsMessage<Exception>(testing::HasSubstr("SettingsMutex")));
  lock.ReadLock(0);
  lock.Release();
  EXPECT_THROW(lock.Release(), Exception);
  EXPECT_TRUE(CanWrite(lock));
}

TEST(ReadWriteLock, KeepsWritersApartFromEverybody) {
  ReadWriteLock lock(nullptr);
  int a = 0;  // plain: ThreadSanitizer and the sum both tell when two threads are inside
  int b = 0;
  {
    std::vector<std::unique_ptr<BackgroundCall>> calls;
    for (int i = 0; i < 2; ++i) {
      calls.push_back(std::make_unique<BackgroundCall>([&] {
        for (int round = 0; round < 500; ++round) {
          WriteAutoLock held(lock);
          ++a;
          ++b;
        }
      }));
      calls.push_back(std::make_unique<BackgroundCall>([&] {
        for (int round = 0; round < 500; ++round) {
          ReadAutoLock held(lock);
          EXPECT_EQ(a, b);
        }
      }));
    }
  }
  EXPECT_EQ(a, 1000);
}

TEST(ReadWriteLock, NobodyIsLeftWaitingWhenLimitsPassAllTheTime) {
  ReadWriteLock lock(nullptr);
  {
    std::vector<std::unique_ptr<BackgroundCall>> calls;
    for (int i = 0; i < 4; ++i) {
      calls.push_back(std::make_unique<BackgroundCall>([&, i] {
        for (int round = 0; round < 300; ++round) {
          try {
            i % 2 ? lock.WriteLock(1) : lock.ReadLock(i == 0 ? kWaitForever : 1);
            lock.Release();
          } catch (const LockException&) {
          }
        }
      }));
    }
  }
  EXPECT_TRUE(CanWrite(lock));
}

TEST(ReadAutoLock, HoldsTheLockForItsScope) {
  ReadWriteLock lock(nullptr);
  {
    ReadAutoLock held(lock);
    EXPECT_TRUE(CanRead(lock));
    EXPECT_FALSE(CanWrite(lock));
  }
  EXPECT_TRUE(CanWrite(lock));
}

TEST(WriteAutoLock, HoldsTheLockForItsScope) {
  ReadWriteLock lock(nullptr);
  {
    WriteAutoLock held(lock);
    EXPECT_FALSE(CanRead(lock));
  }
  EXPECT_TRUE(CanWrite(lock));
}

TEST(WriteAutoLock, ReleasesOnceWhenReleasedEarly) {
  ReadWriteLock lock(nullptr);
  {
    WriteAutoLock held(lock);
    held.Release();
    EXPECT_TRUE(CanWrite(lock));
    lock.WriteLock(0);
  }
  EXPECT_FALSE(CanRead(lock)) << "the second lock was not the guard's";
}

TEST(WriteAutoLock, AReleaseThatFailsIsSwallowed) {
  ReadWriteLock lock(nullptr);
  WriteAutoLock held(lock);
  lock.Release();
  EXPECT_NO_THROW(held.Release());
}

TEST(AdoptedWriteLock, ReleasesALockThatIsHeldAlready) {
  ReadWriteLock lock(nullptr);
  lock.WriteLock(0);
  {
    AdoptedWriteLock held(lock);
    EXPECT_FALSE(CanRead(lock));
  }
  EXPECT_TRUE(CanWrite(lock));
}

}  // namespace
