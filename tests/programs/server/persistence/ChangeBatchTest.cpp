#include "programs/server/persistence/ChangeBatch.h"

#include <gtest/gtest.h>

#include "tests/support/BackgroundCall.h"

namespace tavix::test {

using daemon::ChangeBatch;

namespace {

struct CountingMember : ChangeBatch::IMember {
  void OnBatchEnd(const ChangeBatch::MayWait& mayWait) noexcept override {
    ++ends;
    mayHaveSynced = mayWait && mayWait();
  }

  int ends = 0;
  bool mayHaveSynced = false;  // at the last end
};

}  // namespace

TEST(ChangeBatch, CallsItsMemberOnceHoweverOftenItJoined) {
  CountingMember member;
  {
    const ChangeBatch batch;
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(ChangeBatch::Join(member));
    EXPECT_EQ(member.ends, 0);
  }
  EXPECT_EQ(member.ends, 1);
}

TEST(ChangeBatch, ThatNobodyJoinedCallsNobody) {
  CountingMember member;
  { const ChangeBatch batch; }
  EXPECT_FALSE(ChangeBatch::Join(member));
  EXPECT_EQ(member.ends, 0);
}

TEST(ChangeBatch, BelongsToItsThread) {
  CountingMember member;
  const ChangeBatch batch;
  BackgroundCall([&] { EXPECT_FALSE(ChangeBatch::Join(member)); }).Join();
}

TEST(ChangeBatch, HasOneMember) {
  CountingMember member;
  CountingMember other;
  const ChangeBatch batch;
  EXPECT_TRUE(ChangeBatch::Join(member));
  EXPECT_FALSE(ChangeBatch::Join(other));
}

TEST(ChangeBatch, ThatIsFlushedGoesOn) {
  CountingMember member;
  {
    ChangeBatch batch;
    EXPECT_TRUE(ChangeBatch::Join(member));
    batch.Flush();
    EXPECT_EQ(member.ends, 1);
    EXPECT_TRUE(ChangeBatch::Join(member));
  }
  EXPECT_EQ(member.ends, 2);
}

TEST(ChangeBatch, TellsItsMemberWhetherTheThreadMayWaitForTheDisk) {
  CountingMember member;
  {
    ChangeBatch batch;
    EXPECT_FALSE(batch.HasMember());
    EXPECT_TRUE(ChangeBatch::Join(member));
    EXPECT_TRUE(batch.HasMember());
    batch.Flush([] { return true; });
    EXPECT_TRUE(member.mayHaveSynced);
    EXPECT_FALSE(batch.HasMember());
    EXPECT_TRUE(ChangeBatch::Join(member));
  }
  EXPECT_EQ(member.ends, 2);
  EXPECT_FALSE(member.mayHaveSynced);
}

TEST(ChangeBatch, InsideAnotherEndsAlone) {
  CountingMember member;
  CountingMember inner;
  const ChangeBatch batch;
  EXPECT_TRUE(ChangeBatch::Join(member));
  {
    const ChangeBatch nested;
    EXPECT_TRUE(ChangeBatch::Join(inner));
  }
  EXPECT_EQ(inner.ends, 1);
  EXPECT_EQ(member.ends, 0);
  EXPECT_TRUE(ChangeBatch::Join(member));
}

}  // namespace tavix::test
